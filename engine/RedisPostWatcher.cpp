#include "engine/internal/RedisPostWatcher.h"

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "engine/internal/RedisScripts.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

const int kFirstPauseMs = 100;
const int kLongestPauseMs = 5000;

bool isText(const redisReply& reply, const char* text) {
    return reply.type == REDIS_REPLY_STRING && reply.len == std::strlen(text) &&
           std::memcmp(reply.str, text, reply.len) == 0;
}

}  // namespace

RedisPostWatcher::RedisPostWatcher(RedisConnectionPool& pool, const std::string& channel,
                                   PostListener listener)
    : pool(pool), channel(channel), listener(std::move(listener)) {
    if (::pipe2(wake, O_CLOEXEC) != 0) {
        throw Failure{FailureKind::Limit, storeFailedMessage("watch posts", std::strerror(errno))};
    }
    try {
        thread = std::thread([this] { run(); });
    } catch (const std::system_error& error) {
        ::close(wake[0]);
        ::close(wake[1]);
        throw Failure{FailureKind::Limit, storeFailedMessage("watch posts", error.what())};
    }
}

RedisPostWatcher::~RedisPostWatcher() {
    // Never read: the pipe stays readable, so every later wait ends at once too.
    const char byte = 0;
    while (::write(wake[1], &byte, 1) < 0 && errno == EINTR) {
    }
    thread.join();
    ::close(wake[0]);
    ::close(wake[1]);
}

void RedisPostWatcher::run() {
    int pauseMs = kFirstPauseMs;
    for (;;) {
        bool subscribed = false;
        try {
            subscribed = watchOnce();
        } catch (...) {
            // Redis unreachable, refusing or out of memory here: try again later.
        }
        if (subscribed) {
            pauseMs = kFirstPauseMs;
        }
        if (!pause(pauseMs)) {
            return;
        }
        if (!subscribed) {
            pauseMs = std::min(pauseMs * 2, kLongestPauseMs);
        }
    }
}

bool RedisPostWatcher::watchOnce() {
    static const std::string kSubscribe = "SUBSCRIBE";
    RedisConnectionPool::Context context = pool.open(kSetupTimeoutMs);
    RedisReply reply = RedisConnectionPool::send(context.get(), {&kSubscribe, &channel});
    if (!reply || reply->type != REDIS_REPLY_ARRAY || reply->elements < 1 ||
        !isText(*reply->element[0], "subscribe")) {
        return false;
    }
    tell("");
    listen(context.get());
    return true;
}

void RedisPostWatcher::listen(redisContext* context) {
    for (;;) {
        // Drain first: the reply to SUBSCRIBE may have come with messages behind it.
        void* raw = nullptr;
        while (redisGetReplyFromReader(context, &raw) == REDIS_OK && raw != nullptr) {
            RedisReply message(static_cast<redisReply*>(raw));
            raw = nullptr;
            if (message->type == REDIS_REPLY_ARRAY && message->elements == 3 &&
                isText(*message->element[0], "message") &&
                message->element[2]->type == REDIS_REPLY_STRING) {
                heard(*message->element[2]);
            }
        }
        if (context->err != 0) {
            return;
        }
        // No time-out: TCP keep-alive (set on every connection) ends a
        // connection whose peer vanished, and the pipe ends the wait on stop.
        pollfd polled[2] = {{context->fd, POLLIN, 0}, {wake[0], POLLIN, 0}};
        if (::poll(polled, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if (polled[1].revents != 0) {
            return;
        }
        if (polled[0].revents != 0 && redisBufferRead(context) != REDIS_OK) {
            return;
        }
    }
}

// A message it cannot read (or no memory to read it) may have been any post:
// every waiter looks again.
void RedisPostWatcher::heard(const redisReply& message) {
    std::string serverId;
    std::shared_ptr<const PostNews> news;
    bool read = false;
    try {
        read = decodePostNews(message.str, message.len, serverId, news);
    } catch (...) {
    }
    if (read) {
        tell(serverId, news);
    } else {
        tell("");
    }
}

void RedisPostWatcher::tell(const std::string& serverId,
                            const std::shared_ptr<const PostNews>& news) {
    try {
        listener(serverId, news);
    } catch (...) {
        // The listener's contract forbids throwing; the thread must outlive it anyway.
    }
}

bool RedisPostWatcher::pause(int ms) {
    pollfd polled{wake[0], POLLIN, 0};
    int ready = 0;
    while ((ready = ::poll(&polled, 1, ms)) < 0 && errno == EINTR) {
    }
    return ready == 0;
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
