#include "engine/RedisStore.h"

#include <hiredis/hiredis.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

#include "engine/internal/RedisConnectionPool.h"
#include "engine/internal/RedisScripts.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

const char* const kUrlScheme = "redis://";
const char* const kClientsPrefix = "quorvel:clients:";

// The keys of one server. Its identifier, with '%', '{' and '}' escaped as %XX,
// is the hash tag of each key, so Redis Cluster keeps a server in one slot; the
// kind of key comes before the tag, so a SCAN pattern cannot mistake a queue of
// some client for another kind.
struct ServerKeys {
    static std::string hashTag(const std::string& serverId) {
        std::string tag = "{";
        for (char c : serverId) {
            if (c == '%') {
                tag += "%25";
            } else if (c == '{') {
                tag += "%7B";
            } else if (c == '}') {
                tag += "%7D";
            } else {
                tag += c;
            }
        }
        return tag + "}";
    }

    explicit ServerKeys(const std::string& tag)
        : clients(kClientsPrefix + tag),
          server("quorvel:server:" + tag),
          bytes("quorvel:bytes:" + tag),
          queuePrefix("quorvel:queue:" + tag + ":") {}

    std::string queue(const std::string& clientId) const { return queuePrefix + clientId; }

    const std::string clients;      // sorted set: client -> registration order
    const std::string server;       // hash: next "sequence", "registered" counter
    const std::string bytes;        // hash: client -> bytes of text waiting
    const std::string queuePrefix;  // + client: list of events, oldest first
};

// Reads the array replies of the scripts; any other shape is a failure naming Redis.
class ReplyReader {
public:
    ReplyReader(const RedisConnectionPool& pool, const redisReply& reply) : pool(pool) {
        top = &array(reply, 1);
    }

    RedisStatus status() const { return static_cast<RedisStatus>(integer(0)); }

    long long integer(std::size_t index) const {
        const redisReply& element = at(index);
        if (element.type != REDIS_REPLY_INTEGER) {
            unexpected(element);
        }
        return element.integer;
    }
    std::string text(std::size_t index) const {
        const redisReply& element = at(index);
        if (element.type != REDIS_REPLY_STRING) {
            unexpected(element);
        }
        return std::string(element.str, element.len);
    }
    const redisReply& list(std::size_t index) const { return array(at(index), 0); }
    // The strings of the array at index.
    void texts(std::size_t index, std::vector<std::string>& values) const {
        const redisReply& list = this->list(index);
        values.clear();
        values.reserve(list.elements);
        for (std::size_t i = 0; i < list.elements; ++i) {
            if (list.element[i]->type != REDIS_REPLY_STRING) {
                unexpected(*list.element[i]);
            }
            values.emplace_back(list.element[i]->str, list.element[i]->len);
        }
    }
    [[noreturn]] void unexpected(const redisReply& reply) const {
        pool.fail("answered unexpectedly", describeReply(reply));
    }

private:
    const redisReply& array(const redisReply& reply, std::size_t least) const {
        if (reply.type != REDIS_REPLY_ARRAY || reply.elements < least) {
            unexpected(reply);
        }
        return reply;
    }
    const redisReply& at(std::size_t index) const {
        if (index >= top->elements) {
            unexpected(*top);
        }
        return *top->element[index];
    }

    const RedisConnectionPool& pool;
    const redisReply* top = nullptr;
};

// An event in a queue: "SEQUENCE SENDERLENGTH SENDERTEXT" (the Post script
// writes the same form).
std::string encodeEvent(const StoredEvent& event) {
    return std::to_string(event.sequence) + " " + std::to_string(event.sender.size()) + " " +
           event.sender + *event.text;
}

// Redis ends every string it returns with a NUL, so strtoull stops in time.
bool decodeEvent(const char* begin, std::size_t size, StoredEvent& event) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long sequence = std::strtoull(begin, &end, 10);
    if (errno != 0 || end == begin || *end != ' ') {
        return false;
    }
    const char* lengthStart = end + 1;
    const unsigned long long senderLength = std::strtoull(lengthStart, &end, 10);
    if (errno != 0 || end == lengthStart || *end != ' ') {
        return false;
    }
    const std::size_t senderStart = static_cast<std::size_t>(end + 1 - begin);
    if (senderStart > size || senderLength > size - senderStart) {
        return false;
    }
    event.sequence = sequence;
    event.sender.assign(begin + senderStart, senderLength);
    event.text = std::make_shared<const std::string>(begin + senderStart + senderLength,
                                                     size - senderStart - senderLength);
    return true;
}

bool readNumber(const std::string& text, long long most, long long& value) {
    if (text.empty() || text.size() > 10 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    value = std::stoll(text);
    return value <= most;
}

// Running out of memory is a Limit failure, like the store's own.
template <typename Operation>
auto outOfMemoryIsLimit(const Operation& operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        throw StoreFailure{FailureKind::Limit, outOfMemoryMessage()};
    }
}

}  // namespace

bool parseRedisUrl(const std::string& url, RedisAddress& address, std::string& error) {
    error = "expected redis://HOST[:PORT][/DB], got \"" + url + "\"";
    const std::string scheme = kUrlScheme;
    if (url.compare(0, scheme.size(), scheme) != 0) {
        return false;
    }
    const std::size_t slash = url.find('/', scheme.size());
    const std::string authority = url.substr(scheme.size(), slash - scheme.size());
    std::string host, port;
    if (!authority.empty() && authority[0] == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string::npos) {
            return false;
        }
        host = authority.substr(1, close - 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':') {
                return false;
            }
            port = authority.substr(close + 2);
        }
    } else {
        const std::size_t colon = authority.find(':');
        host = authority.substr(0, colon);
        if (colon != std::string::npos) {
            port = authority.substr(colon + 1);
        }
    }
    long long value = 0;
    if (host.empty() || (!port.empty() && (!readNumber(port, 65535, value) || value == 0))) {
        return false;
    }
    RedisAddress parsed = address;
    parsed.host = host;
    parsed.port = port.empty() ? 6379 : static_cast<int>(value);
    parsed.database = 0;
    if (slash != std::string::npos && slash + 1 < url.size()) {
        if (!readNumber(url.substr(slash + 1), 1 << 30, value)) {
            return false;
        }
        parsed.database = static_cast<int>(value);
    }
    address = parsed;
    error.clear();
    return true;
}

RedisStore::RedisStore(const RedisAddress& address, const ServiceLimits& limits)
    : Store(limits),
      address(address),
      pool(new RedisConnectionPool(address)),
      scripts(new RedisScripts) {}

RedisStore::~RedisStore() = default;

void RedisStore::ping() {
    outOfMemoryIsLimit([&] {
        static const std::string kPing = "PING";
        RedisReply reply = pool->command({&kPing});
        if (reply->type != REDIS_REPLY_STATUS) {
            pool->fail("did not answer PING", describeReply(*reply));
        }
    });
}

void RedisStore::registerClient(const std::string& serverId, const std::string& clientId,
                                ClientList& clients) {
    outOfMemoryIsLimit([&] {
        const ServerKeys keys(ServerKeys::hashTag(serverId));
        const std::string most = std::to_string(limits().maxClientsPerServer);
        RedisReply reply = scripts->run(*pool, RedisScripts::Register,
                                        {&keys.clients, &keys.server, &clientId, &most}, 2);
        ReplyReader reader(*pool, *reply);
        if (reader.status() == RedisStatus::TooManyClients) {
            throw StoreFailure{FailureKind::Limit,
                               tooManyClientsMessage(serverId, clientId,
                                                     static_cast<std::size_t>(reader.integer(1)))};
        }
        reader.texts(1, clients);
    });
}

void RedisStore::unregisterClient(const std::string& serverId, const std::string& clientId,
                                  ClientList& remaining) {
    outOfMemoryIsLimit([&] {
        const ServerKeys keys(ServerKeys::hashTag(serverId));
        const std::string queue = keys.queue(clientId);
        RedisReply reply =
            scripts->run(*pool, RedisScripts::Unregister,
                         {&keys.clients, &keys.server, &keys.bytes, &queue, &clientId}, 4);
        ReplyReader(*pool, *reply).texts(1, remaining);
    });
}

void RedisStore::clients(const std::string& serverId, ClientList& clients) {
    outOfMemoryIsLimit([&] {
        static const std::string kRange = "ZRANGE", kFirst = "0", kLast = "-1";
        const ServerKeys keys(ServerKeys::hashTag(serverId));
        RedisReply reply = pool->command({&kRange, &keys.clients, &kFirst, &kLast});
        if (reply->type != REDIS_REPLY_ARRAY) {
            pool->fail("answered unexpectedly", describeReply(*reply));
        }
        clients.clear();
        for (std::size_t i = 0; i < reply->elements; ++i) {
            clients.emplace_back(reply->element[i]->str, reply->element[i]->len);
        }
    });
}

void RedisStore::post(const std::string& serverId, const std::string& senderId,
                      const std::string& text, ClientList& clients) {
    outOfMemoryIsLimit([&] {
        const ServerKeys keys(ServerKeys::hashTag(serverId));
        const std::string mostEvents = std::to_string(limits().maxQueuedEventsPerClient);
        const std::string mostBytes = std::to_string(limits().maxQueuedBytesPerClient);
        RedisReply reply =
            scripts->run(*pool, RedisScripts::Post,
                         {&keys.clients, &keys.server, &keys.bytes, &keys.queuePrefix, &senderId,
                          &text, &mostEvents, &mostBytes},
                         3);
        ReplyReader reader(*pool, *reply);
        switch (reader.status()) {
            case RedisStatus::Done:
                reader.texts(1, clients);
                return;
            case RedisStatus::NotRegistered:
                throw StoreFailure{FailureKind::Refused, notRegisteredMessage(serverId, senderId)};
            case RedisStatus::TooManyEvents:
                throw StoreFailure{
                    FailureKind::Limit,
                    tooManyEventsMessage(serverId, senderId, reader.text(1),
                                         static_cast<std::size_t>(reader.integer(2)))};
            case RedisStatus::TooManyBytes:
                throw StoreFailure{
                    FailureKind::Limit,
                    tooManyBytesMessage(serverId, senderId, reader.text(1),
                                        static_cast<std::size_t>(reader.integer(2)), text.size(),
                                        limits().maxQueuedBytesPerClient)};
            default:
                reader.unexpected(*reply);
        }
    });
}

void RedisStore::take(const std::string& serverId, const std::string& clientId,
                      std::vector<StoredEvent>& events) {
    outOfMemoryIsLimit([&] {
        const ServerKeys keys(ServerKeys::hashTag(serverId));
        const std::string queue = keys.queue(clientId);
        RedisReply reply = scripts->run(*pool, RedisScripts::Take,
                                        {&keys.clients, &keys.bytes, &queue, &clientId}, 3);
        ReplyReader reader(*pool, *reply);
        if (reader.status() == RedisStatus::NotRegistered) {
            throw StoreFailure{FailureKind::Refused, notRegisteredMessage(serverId, clientId)};
        }
        const redisReply& list = reader.list(1);
        events.clear();
        events.resize(list.elements);
        for (std::size_t i = 0; i < list.elements; ++i) {
            const redisReply& element = *list.element[i];
            if (element.type != REDIS_REPLY_STRING ||
                !decodeEvent(element.str, element.len, events[i])) {
                pool->fail("holds an event this service did not write", describeReply(element));
            }
        }
    });
}

void RedisStore::restore(const std::string& serverId, const std::string& clientId,
                         const std::vector<StoredEvent>& events) {
    outOfMemoryIsLimit([&] {
        if (events.empty()) {
            return;
        }
        const ServerKeys keys(ServerKeys::hashTag(serverId));
        const std::string queue = keys.queue(clientId);
        std::vector<std::string> encoded;
        encoded.reserve(events.size());
        std::size_t bytes = 0;
        for (auto event = events.rbegin(); event != events.rend(); ++event) {
            encoded.push_back(encodeEvent(*event));
            bytes += event->text->size();
        }
        const std::string byteCount = std::to_string(bytes);
        std::vector<const std::string*> arguments{&keys.clients, &keys.bytes, &queue, &clientId,
                                                  &byteCount};
        for (const std::string& event : encoded) {
            arguments.push_back(&event);
        }
        scripts->run(*pool, RedisScripts::Restore, arguments, 3);
    });
}

StoreStats RedisStore::stats() {
    return outOfMemoryIsLimit([&] {
        static const std::string kScan = "SCAN", kMatch = "MATCH",
                                 kPattern = std::string(kClientsPrefix) + "{*}", kCount = "COUNT",
                                 kBatch = "1000";
        StoreStats stats;
        std::string cursor = "0";
        do {
            RedisReply reply =
                pool->command({&kScan, &cursor, &kMatch, &kPattern, &kCount, &kBatch});
            ReplyReader reader(*pool, *reply);
            cursor = reader.text(0);
            std::vector<std::string> found;
            reader.texts(1, found);
            for (const std::string& clientsKey : found) {
                const ServerKeys keys(clientsKey.substr(std::string(kClientsPrefix).size()));
                RedisReply counted = scripts->run(
                    *pool, RedisScripts::Count, {&keys.clients, &keys.bytes, &keys.queuePrefix}, 2);
                ReplyReader counts(*pool, *counted);
                stats.registeredClients += static_cast<std::uint64_t>(counts.integer(0));
                stats.waitingEvents += static_cast<std::uint64_t>(counts.integer(1));
                stats.waitingBytes += static_cast<std::uint64_t>(counts.integer(2));
            }
        } while (cursor != "0");
        return stats;
    });
}

void RedisStore::listClients(const std::string&, std::vector<ClientInfo>&) {
    throw StoreFailure{FailureKind::Limit, "listClients: not yet"};
}

void RedisStore::expireIdleClients(std::int64_t, std::vector<ClientInfo>&) {
    throw StoreFailure{FailureKind::Limit, "expireIdleClients: not yet"};
}

std::string RedisStore::describe() const {
    return "Redis redis://" + address.host + ":" + std::to_string(address.port) + "/" +
           std::to_string(address.database);
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
