// A thread that follows the posts of every process sharing one Redis: it
// subscribes to the channel the Post script publishes on, on a connection of
// its own, and calls the listener with the server id of each message and its
// news when it carries them (decodePostNews). A daemon answers a waiter from
// the news without a read: two hand-offs between threads and a round trip to
// Redis less per wake-up. It calls the listener with "" each time the
// subscription is in place, the first time included, since what was published
// before could not be heard, and for a message it cannot read. A lost
// connection is opened again after a pause that grows from 100 ms to 5 s.
//
// Nothing thrown (by Redis, hiredis or the listener) leaves the thread. The
// destructor wakes and joins it: only the setting up of a connection (at most
// kSetupTimeoutMs per step) can delay it. The pool must outlive the watcher.
#ifndef AVQVL_ENGINE_INTERNAL_REDISPOSTWATCHER_H
#define AVQVL_ENGINE_INTERNAL_REDISPOSTWATCHER_H

#include <memory>
#include <string>
#include <thread>

#include "engine/Store.h"
#include "engine/internal/RedisConnectionPool.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

class RedisPostWatcher {
public:
    // Starts the thread; throws Failure (Limit) when it cannot.
    RedisPostWatcher(RedisConnectionPool& pool, const std::string& channel, PostListener listener);
    ~RedisPostWatcher();
    RedisPostWatcher(const RedisPostWatcher&) = delete;
    RedisPostWatcher& operator=(const RedisPostWatcher&) = delete;

    // Connecting and each setup command (AUTH, SELECT, SUBSCRIBE) give up after
    // this, like the readiness probe, so that stopping is never held longer.
    static constexpr int kSetupTimeoutMs = 1000;

private:
    void run();
    // One connection's life: true when it got as far as subscribing.
    bool watchOnce();
    // Hands each message to the listener until the connection fails or the
    // watcher stops.
    void listen(redisContext* context);
    void heard(const redisReply& message);
    void tell(const std::string& serverId, const std::shared_ptr<const PostNews>& news = nullptr);
    // Waits ms or until the watcher stops; false when it stops.
    bool pause(int ms);

    RedisConnectionPool& pool;
    const std::string channel;
    const PostListener listener;
    int wake[2] = {-1, -1};  // a pipe: a byte written wakes every wait of the thread
    std::thread thread;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_INTERNAL_REDISPOSTWATCHER_H
