// The getEvents requests of quorveld that wait for a post, by server. A
// request looks at the store, finds nothing, and is added here; a post to its
// server (or stop()) removes it and calls its woken(). News of the post that
// shows nothing for a waiter leaves it waiting. Whoever removes a waiter (a
// post, its timer, its closed connection, stop()) ends its wait, so that a
// wait ends once. Holds no thread and calls no store. Thread-safe.
#ifndef AVQVL_DAEMON_WAITERS_H
#define AVQVL_DAEMON_WAITERS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

class Waiters {
public:
    struct Waiter {
        virtual ~Waiter() = default;
        // Called once, from the thread of the post or of stop(), without the
        // lock: must be quick (schedule the work, do none). With news, the
        // waiter is answered from it (ServiceEngine::eventsFromNews), which
        // holds events for it; without, it looks at the store again.
        virtual void woken(const std::shared_ptr<const Engine::PostNews>& news) = 0;
        // Set before add(), and while out of the waiters only.
        std::string serverId, clientId;
        std::uint64_t logEnd = 0;  // ExchangeResult::logEnd of its look; 0: news cannot answer it
    };

    enum class Added { Waiting, Posted, Full, Stopping };

    explicit Waiters(std::size_t most) : most(most) {}

    // A mark of the posts to the server so far: taken before the look at the
    // store and given to add(), it tells a post made between the two.
    std::uint64_t mark(const std::string& serverId);
    // Waiting, or why not: Posted (a post came since mark, look again), Full
    // (most are waiting), Stopping.
    Added add(const std::shared_ptr<Waiter>& waiter, std::uint64_t mark);
    // True when the waiter was waiting: the caller ends its wait.
    bool remove(const Waiter& waiter);
    // Wakes the waiters of serverId; "" wakes every waiter. With news, a
    // waiter that news can answer is woken with it, or left waiting when it
    // holds nothing for it.
    void posted(const std::string& serverId,
                const std::shared_ptr<const Engine::PostNews>& news = nullptr);
    // Wakes every waiter; add() answers Stopping from now on.
    void stop();
    std::size_t size();

private:
    using Server = std::unordered_map<const Waiter*, std::shared_ptr<Waiter>>;
    // Posts are counted in buckets by server: a post to another server of the
    // same bucket costs a waiter one more look, never a missed one.
    static constexpr std::size_t kBuckets = 256;

    std::size_t bucket(const std::string& serverId) const;
    // Moves the waiters of serverId ("": all) out; called with the lock held.
    void takeWaiters(const std::string& serverId, Server& taken);

    const std::size_t most;
    std::mutex mutex;  // guards everything below
    std::unordered_map<std::string, Server> servers;
    std::size_t count = 0;
    std::array<std::uint64_t, kBuckets> posts{};
    std::uint64_t allPosts = 0;  // posted("") and stop()
    bool stopping = false;
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_WAITERS_H
