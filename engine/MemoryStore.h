// The store that keeps everything in the process's memory: the embedded
// backend's store and quorveld's default. Fast, and gone with the process.
// A posted text is held once, shared by every recipient, and counted against
// maxStoredBytes until its last copy goes (a getEvents answer still being
// carried holds it too). Thread-safe: one lock around each operation.
#ifndef AVQVL_ENGINE_MEMORYSTORE_H
#define AVQVL_ENGINE_MEMORYSTORE_H

#include <atomic>
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
    void listClients(const std::string& serverId, std::vector<ClientInfo>& clients) override;
    void expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) override;
    void ping() override {}
    std::string describe() const override { return "memory"; }

private:
    struct Client {
        std::string id;
        std::deque<StoredEvent> pending;
        std::size_t pendingBytes = 0;  // event text in `pending`
        std::int64_t registeredMs = 0, lastFetchMs = 0;
    };
    struct ServerGroup {
        std::vector<Client> clients;  // registration order
        std::uint64_t nextSequence = 1;
    };

    Client* findClient(const std::string& serverId, const std::string& clientId);
    void copyIds(const std::string& serverId, ClientList& clients) const;
    // Throws the Limit failure a post of textBytes to the group would cause.
    void checkLimits(const ServerGroup& group, const std::string& serverId,
                     const std::string& senderId, std::size_t textBytes) const;
    // Queues event for every client of the group but the sender, all or none.
    static void queueForAll(ServerGroup& group, const std::string& senderId,
                            const StoredEvent& event, std::size_t textBytes);
    static ClientInfo describeClient(const std::string& serverId, const Client& client);
    template <typename Operation>
    void guarded(Operation operation);

    std::mutex mutex;  // guards servers
    std::map<std::string, ServerGroup> servers;
    // Bytes of the texts alive, shared with each text's deleter, which may run
    // on any thread after the store is gone.
    const std::shared_ptr<std::atomic<std::size_t>> storedBytes =
        std::make_shared<std::atomic<std::size_t>>(0);
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_MEMORYSTORE_H
