#include "engine/internal/RedisConnectionPool.h"

#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <utility>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

// Idle connections kept beyond this are closed: a burst of threads should not
// leave its connections open for good.
const std::size_t kMostIdleConnections = 64;

timeval toTimeval(int milliseconds) {
    timeval tv{};
    tv.tv_sec = milliseconds / 1000;
    tv.tv_usec = (milliseconds % 1000) * 1000;
    return tv;
}

// An idle connection has nothing to read; anything there (most often the end
// of the stream, after Redis restarted or dropped an idle client) means it is
// no longer usable.
bool stillOpen(const redisContext* context) {
    pollfd polled{context->fd, POLLIN | POLLRDHUP, 0};
    return context->err == 0 && ::poll(&polled, 1, 0) == 0;
}

std::string bracketed(const std::string& host) {
    return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

}  // namespace

std::string describeReply(const redisReply& reply) {
    switch (reply.type) {
        case REDIS_REPLY_ERROR:
        case REDIS_REPLY_STATUS:
        case REDIS_REPLY_STRING:
            return std::string(reply.str, reply.len);
        default:
            return "an unexpected reply of type " + std::to_string(reply.type);
    }
}

void RedisReplyFree::operator()(redisReply* reply) const {
    freeReplyObject(reply);
}

void RedisConnectionPool::ContextFree::operator()(redisContext* context) const {
    redisFree(context);
}

RedisConnectionPool::RedisConnectionPool(const RedisAddress& address)
    : address(address),
      redisName("Redis at " + bracketed(address.host) + ":" + std::to_string(address.port)) {}

RedisConnectionPool::~RedisConnectionPool() = default;

RedisReply RedisConnectionPool::send(redisContext* context,
                                     const std::vector<const std::string*>& arguments) {
    std::vector<const char*> values;
    std::vector<std::size_t> lengths;
    values.reserve(arguments.size());
    lengths.reserve(arguments.size());
    for (const std::string* argument : arguments) {
        values.push_back(argument->data());
        lengths.push_back(argument->size());
    }
    return RedisReply(static_cast<redisReply*>(
        redisCommandArgv(context, static_cast<int>(values.size()), values.data(), lengths.data())));
}

RedisReply RedisConnectionPool::command(const std::vector<const std::string*>& arguments) {
    Context context = borrow();
    RedisReply reply = send(context.get(), arguments);
    if (!reply) {
        // Dropped with the context: a broken connection is never used again.
        // The command may have reached Redis, and a script that did may still
        // run after the time-out: whether it changed anything is not known.
        const bool timedOut = context->err == REDIS_ERR_IO && errno == EAGAIN;
        throw Failure{
            FailureKind::Limit,
            unknownOutcomeMessage(
                "run a command on " + redisName,
                timedOut ? "no answer within " + std::to_string(address.commandTimeoutMs) + " ms"
                         : std::string(context->errstr))};
    }
    giveBack(std::move(context));
    return reply;
}

RedisReply RedisConnectionPool::probe(const std::vector<const std::string*>& arguments,
                                      int timeoutMs) {
    Context context = connect(timeoutMs, timeoutMs);
    RedisReply reply = send(context.get(), arguments);
    if (!reply) {
        fail("failed during a command", context->errstr);
    }
    return reply;
}

RedisConnectionPool::Context RedisConnectionPool::borrow() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        while (!idle.empty()) {
            Context context = std::move(idle.back());
            idle.pop_back();
            if (stillOpen(context.get())) {
                return context;
            }
        }
    }
    return connect(address.connectTimeoutMs, address.commandTimeoutMs);
}

void RedisConnectionPool::giveBack(Context context) {
    if (context->err != 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (idle.size() < kMostIdleConnections) {
        idle.push_back(std::move(context));
    }
}

RedisConnectionPool::Context RedisConnectionPool::connect(int connectTimeoutMs,
                                                          int commandTimeoutMs) {
    Context context(
        redisConnectWithTimeout(address.host.c_str(), address.port, toTimeval(connectTimeoutMs)));
    if (!context) {
        fail("cannot be reached", "out of memory");
    }
    if (context->err != 0) {
        fail("cannot be reached", context->errstr);
    }
    // Each command is one small write answered at once: no waiting for more.
    int on = 1;
    ::setsockopt(context->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (redisSetTimeout(context.get(), toTimeval(commandTimeoutMs)) != REDIS_OK ||
        redisEnableKeepAlive(context.get()) != REDIS_OK) {
        fail("cannot be reached", context->errstr);
    }
    if (!address.password.empty()) {
        static const std::string kAuth = "AUTH";
        std::vector<const std::string*> auth{&kAuth, &address.password};
        if (!address.user.empty()) {
            auth.insert(auth.begin() + 1, &address.user);
        }
        RedisReply reply = send(context.get(), auth);
        if (!reply) {
            fail("failed during a command", context->errstr);
        }
        if (reply->type == REDIS_REPLY_ERROR) {
            fail("refused the password", describeReply(*reply));
        }
    }
    if (address.database != 0) {
        static const std::string kSelect = "SELECT";
        const std::string database = std::to_string(address.database);
        RedisReply reply = send(context.get(), {&kSelect, &database});
        if (!reply) {
            fail("failed during a command", context->errstr);
        }
        if (reply->type == REDIS_REPLY_ERROR) {
            fail("refused database " + database, describeReply(*reply));
        }
    }
    return context;
}

void RedisConnectionPool::fail(const std::string& what, const std::string& cause) const {
    throw Failure{FailureKind::Limit,
                  "The Quorvel service's store, " + redisName + ", " + what + ": " + cause + "."};
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
