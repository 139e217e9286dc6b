// The store that keeps everything in the process's memory: the embedded
// backend's store and quorveld's default. Fast, and gone with the process.
// A posted text is held once, in its server's log, and counted against
// maxStoredBytes until its last copy goes (a getEvents answer still being
// carried holds it too). Thread-safe: one lock around each operation.
#ifndef AVQVL_ENGINE_MEMORYSTORE_H
#define AVQVL_ENGINE_MEMORYSTORE_H

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <unordered_set>

#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

class MemoryStore : public Store {
public:
    explicit MemoryStore(const ServiceLimits& limits = ServiceLimits()) : Store(limits) {}

    bool neverWaits() const override { return true; }  // its one lock is held briefly

    void registerClient(const std::string& serverId, const std::string& clientId,
                        ClientList& clients) override;
    void unregisterClient(const std::string& serverId, const std::string& clientId,
                          ClientList& remaining) override;
    void clients(const std::string& serverId, ClientList& clients) override;
    void post(const std::string& serverId, const std::string& senderId, const std::string& text,
              const std::string& postId, ClientList& clients) override;
    void read(const std::string& serverId, const std::string& clientId,
              const std::optional<std::uint64_t>& ackUpTo,
              std::vector<StoredEvent>& events) override;
    void acknowledge(const std::string& serverId, const std::string& clientId,
                     std::uint64_t upTo) override;
    StoreStats stats() override;
    void listClients(const std::string& serverId, std::vector<ClientInfo>& clients) override;
    void expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) override;
    void ping() override {}
    std::string describe() const override { return "memory"; }

private:
    struct RememberedPost {
        const std::string* id;  // an element of Client::postIds
        std::int64_t postedMs;
    };
    struct Client {
        std::string id;
        std::uint64_t cursor = 0;
        // What waits: the log past the cursor less the client's own posts.
        std::size_t waitingEvents = 0, waitingBytes = 0;
        std::int64_t registeredMs = 0, lastFetchMs = 0;
        std::deque<RememberedPost> posts;  // oldest first
        // The same ids, so that a post looks itself up in constant time
        // rather than against up to kRememberedPosts ids under the lock.
        std::unordered_set<std::string> postIds;
    };
    struct ServerGroup {
        std::vector<Client> clients;  // registration order
        // Sequences ascending, with gaps where a post had no recipient.
        std::deque<StoredEvent> log;
        std::uint64_t nextSequence = 1;
    };

    Client* findClient(const std::string& serverId, const std::string& clientId);
    static bool remembered(Client& sender, const std::string& postId, std::int64_t now);
    // Forgets the sender's oldest remembered post, or its newest; allocates nothing.
    static void forgetOldestPost(Client& sender);
    static void forgetNewestPost(Client& sender);
    void checkLimits(const ServerGroup& group, const std::string& serverId,
                     const std::string& senderId, std::size_t size) const;
    // Moves client's cursor to upTo (never back, never past the log) and trims
    // the log; allocates nothing.
    static void advance(ServerGroup& group, Client& client, std::uint64_t upTo);
    static void trim(ServerGroup& group);
    void copyIds(const std::string& serverId, ClientList& clients) const;
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
