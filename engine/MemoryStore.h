// The store that keeps everything in the process's memory: the embedded
// backend's store and quorveld's default. Fast, and gone with the process.
// A posted text is held once, shared by every recipient. Thread-safe: one lock
// around each operation.
#ifndef AVQVL_ENGINE_MEMORYSTORE_H
#define AVQVL_ENGINE_MEMORYSTORE_H

#include <deque>
#include <map>
#include <mutex>

#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

class MemoryStore : public Store {
public:
    explicit MemoryStore(const ServiceLimits& limits = ServiceLimits()) : Store(limits) {}

    void registerClient(const std::string& serverId, const std::string& clientId,
                        ClientList& clients) override;
    void unregisterClient(const std::string& serverId, const std::string& clientId,
                          ClientList& remaining) override;
    void clients(const std::string& serverId, ClientList& clients) override;
    void post(const std::string& serverId, const std::string& senderId, const std::string& text,
              ClientList& clients) override;
    void take(const std::string& serverId, const std::string& clientId,
              std::vector<StoredEvent>& events) override;
    void restore(const std::string& serverId, const std::string& clientId,
                 const std::vector<StoredEvent>& events) override;
    StoreStats stats() override;

private:
    struct Client {
        std::string id;
        std::deque<StoredEvent> pending;
        std::size_t pendingBytes = 0;  // event text in `pending`
    };
    struct ServerGroup {
        std::vector<Client> clients;  // registration order
        std::uint64_t nextSequence = 1;
    };

    Client* findClient(const std::string& serverId, const std::string& clientId);
    void listClients(const std::string& serverId, ClientList& clients) const;
    template <typename Operation>
    void guarded(Operation operation);

    std::mutex mutex;  // guards servers
    std::map<std::string, ServerGroup> servers;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_MEMORYSTORE_H
