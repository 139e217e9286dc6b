// Connections to one Redis server, shared by any number of threads: each
// command borrows an idle connection (or opens one) and gives it back once the
// reply is read. A connection that failed, timed out or was closed by Redis
// (a restart) is dropped, so the next command connects anew.
//
// Every failure to reach Redis or to read its reply throws Failure of kind
// Limit whose message names Redis, its address and the cause; once a command
// was handed to the connection, the message says its outcome is unknown
// (unknownOutcomeMessage). Error replies are returned to the caller, which
// decides what they mean.
#ifndef AVQVL_ENGINE_INTERNAL_REDISCONNECTIONPOOL_H
#define AVQVL_ENGINE_INTERNAL_REDISCONNECTIONPOOL_H

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/RedisStore.h"

struct redisContext;
struct redisReply;

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

struct RedisReplyFree {
    void operator()(redisReply* reply) const;
};
using RedisReply = std::unique_ptr<redisReply, RedisReplyFree>;

// The text of an error, status or string reply; the kind of any other.
std::string describeReply(const redisReply& reply);

class RedisConnectionPool {
public:
    explicit RedisConnectionPool(const RedisAddress& address);
    ~RedisConnectionPool();
    RedisConnectionPool(const RedisConnectionPool&) = delete;
    RedisConnectionPool& operator=(const RedisConnectionPool&) = delete;

    // Sends one command (each argument binary-safe) and returns its reply, which
    // is never null (it may be an error reply).
    RedisReply command(const std::vector<const std::string*>& arguments);
    // The same on a connection of its own, opened for it and closed after it,
    // with timeoutMs for connecting, each setup command and the reply: what
    // the pool's connections are doing cannot delay it.
    RedisReply probe(const std::vector<const std::string*>& arguments, int timeoutMs);

    // Throws the Failure (Limit) that says Redis did `what` because of cause.
    [[noreturn]] void fail(const std::string& what, const std::string& cause) const;

    struct ContextFree {
        void operator()(redisContext* context) const;
    };
    using Context = std::unique_ptr<redisContext, ContextFree>;
    // A connection set up like the pool's (AUTH, SELECT), never pooled, for a
    // caller that keeps it (a subscriber), with timeoutMs for connecting, each
    // setup command and each reply. Throws as command() does.
    Context open(int timeoutMs) { return connect(timeoutMs, timeoutMs); }
    // Sends one command on context; null when no reply came (context->errstr says why).
    static RedisReply send(redisContext* context, const std::vector<const std::string*>& arguments);

private:
    Context borrow();
    void giveBack(Context context);
    Context connect(int connectTimeoutMs, int commandTimeoutMs);

    const RedisAddress address;
    const std::string redisName;
    std::mutex mutex;  // guards idle
    std::vector<Context> idle;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_INTERNAL_REDISCONNECTIONPOOL_H
