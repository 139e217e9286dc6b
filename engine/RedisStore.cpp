#include "engine/RedisStore.h"

#include <hiredis/hiredis.h>

#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <system_error>

#include "engine/internal/RedisConnectionPool.h"
#include "engine/internal/RedisPostWatcher.h"
#include "engine/internal/RedisScripts.h"
#include "protocol/HostPort.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

const char* const kUrlScheme = "redis://";
const char* const kClientsPrefix = "quorvel:clients:";
// The bytes of event text the whole store holds, each text once. One key for
// every server: the bound is the database's, not a server's.
const char* const kStoredKey = "quorvel:stored";
// The Post script publishes the server id here once it has added an event. One
// channel for all servers, not one per server: a daemon subscribes once, with
// no pattern for Redis to match per message, whatever servers its clients come
// to use; what it costs is that each daemon hears of posts to servers it has
// no waiter for, a few bytes each. A plain PUBLISH also reaches the
// subscribers of every node of a Cluster.
const char* const kPostedChannel = "quorvel:posted";
// A call's publication carries its events and the server's clients up to
// this many bytes (RedisPostWatcher.h says why), a little more with the
// fields' lengths; past it, the server id alone. Every daemon receives every
// publication, so the bound keeps large posts from being sent once per daemon.
const std::size_t kMostNewsBytes = 64 * 1024;
// A readiness probe answers within this, or the store counts as not ready.
const int kPingTimeoutMs = 1000;

// The keys of one server. Its identifier, with '%', '{' and '}' escaped as %XX,
// is the hash tag of each key, so Redis Cluster keeps a server in one slot; the
// kind of key comes before the tag, so a SCAN pattern cannot mistake the post
// ids of some sender for another kind.
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

    // The server's identifier back from the hash tag of a key.
    static std::string serverId(const std::string& tag) {
        std::string id;
        for (std::size_t i = 1; i + 1 < tag.size(); ++i) {
            if (tag[i] == '%' && i + 2 < tag.size()) {
                id += static_cast<char>(std::stoi(tag.substr(i + 1, 2), nullptr, 16));
                i += 2;
            } else {
                id += tag[i];
            }
        }
        return id;
    }

    explicit ServerKeys(const std::string& tag)
        : clients(kClientsPrefix + tag),
          server("quorvel:server:" + tag),
          bytes("quorvel:bytes:" + tag),
          waiting("quorvel:waiting:" + tag),
          cursors("quorvel:cursors:" + tag),
          log("quorvel:log:" + tag),
          stored(kStoredKey),
          postsPrefix("quorvel:posts:" + tag + ":") {}

    // What every script takes first (RedisScripts.h): the keys, then the
    // prefix of the post id keys.
    std::vector<const std::string*> script() const {
        return {&clients, &server, &bytes, &waiting, &cursors, &log, &stored, &postsPrefix};
    }
    static const int kKeyCount = 7;

    const std::string clients;      // sorted set: client -> registration order
    const std::string server;       // hash: next "sequence", "registered" counter, times
    const std::string bytes;        // hash: client -> bytes of text waiting
    const std::string waiting;      // hash: client -> events waiting
    const std::string cursors;      // hash: client -> last sequence acknowledged
    const std::string log;          // sorted set: the events by sequence
    const std::string stored;       // the store's total of text bytes
    const std::string postsPrefix;  // + sender: sorted set of post ids by time
};

// Runs script on the server's keys, then arguments.
RedisReply runScript(RedisScripts& scripts, RedisConnectionPool& pool, RedisScripts::Script script,
                     const ServerKeys& keys, const std::vector<const std::string*>& arguments) {
    std::vector<const std::string*> all = keys.script();
    all.insert(all.end(), arguments.begin(), arguments.end());
    return scripts.run(pool, script, all, ServerKeys::kKeyCount);
}

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

bool readNumber(const std::string& text, long long most, long long& value) {
    if (text.empty() || text.size() > 10 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    value = std::stoll(text);
    return value <= most;
}

// "%XX" stands for the byte XX, so that a password may hold "@", ":" or "/".
bool percentDecoded(const std::string& text, std::string& decoded) {
    decoded.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            return false;
        }
        decoded += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return true;
}

// Running out of memory is a Limit failure, like the store's own.
template <typename Operation>
auto outOfMemoryIsLimit(const Operation& operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        throw Failure{FailureKind::Limit, outOfMemoryMessage()};
    }
}

// What step threw, as the failure the work of a call hears; nothing when it
// went through.
template <class Step>
std::optional<Failure> failureOf(Step step) noexcept {
    std::optional<Failure> failed;
    try {
        outOfMemoryIsLimit(step);
    } catch (Failure& failure) {
        failed = std::move(failure);
    } catch (...) {
        failed.emplace();  // no message: there is no memory for one
        failed->kind = FailureKind::Limit;
    }
    return failed;
}

// A caller waiting on work it handed to a poster thread: the poster settles
// it once (keep copies the outcome out, under the lock), and wait() returns
// then, or throws the failure.
class Awaited {
public:
    // failure, or else keep(); running out of memory in keep is a Limit too.
    template <class Keep>
    void settle(const Failure* failure, Keep keep) noexcept {
        std::lock_guard<std::mutex> lock(mutex);
        try {
            if (failure != nullptr) {
                failed = *failure;
            } else {
                keep();
            }
        } catch (const std::bad_alloc&) {
            outOfMemory = true;
        }
        done = true;
        settled.notify_one();  // under the lock: the waiter's frame may go right after
    }

    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        settled.wait(lock, [this] { return done; });
        if (outOfMemory) {
            throw Failure{FailureKind::Limit, outOfMemoryMessage()};
        }
        if (failed) {
            throw *failed;
        }
    }

private:
    std::mutex mutex;  // guards everything below
    std::condition_variable settled;
    bool done = false, outOfMemory = false;
    std::optional<Failure> failed;
};

}  // namespace

bool parseRedisUrl(const std::string& url, RedisAddress& address, std::string& error) {
    // The URL may carry a password: the message shows it masked.
    std::string shown = url;
    const std::size_t schemeEnd = url.find("://");
    const std::size_t lastAt = url.rfind('@');
    if (schemeEnd != std::string::npos && lastAt != std::string::npos && lastAt > schemeEnd) {
        shown.replace(schemeEnd + 3, lastAt - schemeEnd - 3, "***");
    }
    error = "expected redis://[[USER:]PASSWORD@]HOST[:PORT][/DB], got \"" + shown + "\"";
    const std::string scheme = kUrlScheme;
    if (url.compare(0, scheme.size(), scheme) != 0) {
        return false;
    }
    const std::size_t slash = url.find('/', scheme.size());
    std::string authority = url.substr(scheme.size(), slash - scheme.size());
    const std::size_t at = authority.rfind('@');
    std::string user, password;
    if (at != std::string::npos) {
        const std::string userInfo = authority.substr(0, at);
        const std::size_t colon = userInfo.find(':');
        if (!percentDecoded(colon == std::string::npos ? "" : userInfo.substr(0, colon), user) ||
            !percentDecoded(userInfo.substr(colon == std::string::npos ? 0 : colon + 1),
                            password)) {
            return false;
        }
        authority.erase(0, at + 1);
    }
    std::string host, port, problem;
    int portNumber = RedisAddress().port;
    if (!Protocol::splitHostPort(authority, host, port, problem) || host.empty() ||
        (!port.empty() && !Protocol::parsePort(port, 1, portNumber))) {
        return false;
    }
    long long value = 0;
    RedisAddress parsed = address;
    parsed.user = user;
    parsed.password = password;
    parsed.host = host;
    parsed.port = portNumber;
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

RedisStore::~RedisStore() {
    stopPosters();
}

void RedisStore::ping() {
    outOfMemoryIsLimit([&] {
        static const std::string kPing = "PING";
        RedisReply reply = pool->probe({&kPing}, kPingTimeoutMs);
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
        const std::string now = std::to_string(epochMilliseconds());
        RedisReply reply =
            runScript(*scripts, *pool, RedisScripts::Register, keys, {&clientId, &most, &now});
        ReplyReader reader(*pool, *reply);
        if (reader.status() == RedisStatus::TooManyClients) {
            throw Failure{FailureKind::Limit,
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
        RedisReply reply = runScript(*scripts, *pool, RedisScripts::Unregister, keys, {&clientId});
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

struct RedisStore::LaterPost {
    std::size_t bytes() const { return text.size(); }  // what counts against a call's bound

    std::string senderId, text, postId;
    PostDone done;
    std::optional<Failure> refusal;  // set by the script
};

struct RedisStore::LaterRead {
    std::size_t bytes() const { return 0; }

    std::string clientId;
    std::optional<std::uint64_t> ackUpTo;
    bool clientsToo = false;
    ReadDone done;
    std::optional<Failure> refusal;   // set by the script
    std::vector<StoredEvent> events;  // set by the script
};

void RedisStore::post(const std::string& serverId, const std::string& senderId,
                      const std::string& text, const std::string& postId, ClientList& clients) {
    Awaited awaited;
    postLater(serverId, senderId, text, postId,
              [&](const ClientList* answered, const Failure* failure) {
                  awaited.settle(failure, [&] { clients = *answered; });
              });
    awaited.wait();
}

template <class Work>
void RedisStore::queueLater(const std::string& serverId, Queues<Work>& queues, Work&& work,
                            const char* action) {
    std::lock_guard<std::mutex> lock(postMutex);
    if (posters.empty()) {
        try {
            for (std::size_t i = 0; i < kPosters; ++i) {
                posters.emplace_back([this] { sendPosts(); });
            }
        } catch (const std::system_error&) {
            if (posters.empty()) {
                throw Failure{FailureKind::Limit,
                              storeFailedMessage(action, "no thread could start")};
            }
        }
    }
    auto found = queues.servers.find(serverId);
    if (found == queues.servers.end()) {
        found = queues.servers.emplace(serverId, typename Queues<Work>::Server()).first;
        try {
            found->second.name.push_back(serverId);
        } catch (...) {
            queues.servers.erase(found);
            throw;
        }
    }
    auto& server = found->second;
    try {
        server.waiting.push_back(std::move(work));
    } catch (...) {
        if (server.waiting.empty() && !server.sending) {
            queues.servers.erase(found);
        }
        throw;
    }
    if (!server.sending && !server.name.empty()) {
        queues.ready.splice(queues.ready.end(), server.name);
        postsWaiting.notify_one();
    }
}

void RedisStore::postLater(const std::string& serverId, const std::string& senderId,
                           const std::string& text, const std::string& postId, PostDone done) {
    outOfMemoryIsLimit([&] {
        queueLater(serverId, laterPosts,
                   LaterPost{senderId, text, postId, std::move(done), std::nullopt},
                   "queue the event");
    });
}

void RedisStore::readLater(const std::string& serverId, const std::string& clientId,
                           const std::optional<std::uint64_t>& ackUpTo, bool clientsToo,
                           ReadDone done) {
    outOfMemoryIsLimit([&] {
        queueLater(serverId, laterReads,
                   LaterRead{clientId, ackUpTo, clientsToo, std::move(done), std::nullopt, {}},
                   "read the events");
    });
}

void RedisStore::stopPosters() {
    {
        std::lock_guard<std::mutex> lock(postMutex);
        stopping = true;
    }
    postsWaiting.notify_all();
    for (std::thread& poster : posters) {
        poster.join();  // each sends what waits before it ends
    }
}

void RedisStore::sendPosts() {
    std::unique_lock<std::mutex> lock(postMutex);
    for (;;) {
        postsWaiting.wait(lock, [this] {
            return stopping || !laterPosts.ready.empty() || !laterReads.ready.empty();
        });
        const bool reading = !laterReads.ready.empty() && (laterPosts.ready.empty() || readsNext);
        if (reading) {
            readsNext = false;
            sendOneCall(laterReads, lock);
        } else if (!laterPosts.ready.empty()) {
            readsNext = true;
            sendOneCall(laterPosts, lock);
        } else {
            return;  // stopping, and nothing waits
        }
    }
}

template <class Work>
void RedisStore::sendOneCall(Queues<Work>& queues, std::unique_lock<std::mutex>& lock) {
    // Bounds on one call, so that work behind a crowd is not held long; the
    // first always goes, whatever its size.
    static const std::size_t kMostPerCall = 64, kMostBytesPerCall = 1 << 20;
    // Unordered-map elements stay put while others come and go.
    auto& server = queues.servers.find(queues.ready.front())->second;
    server.name.splice(server.name.begin(), queues.ready, queues.ready.begin());
    server.sending = true;
    const std::string& serverId = server.name.front();
    std::list<Work> work;
    std::size_t count = 0, bytes = 0;
    while (!server.waiting.empty() &&
           (count == 0 || (count < kMostPerCall &&
                           bytes + server.waiting.front().bytes() <= kMostBytesPerCall))) {
        ++count;
        bytes += server.waiting.front().bytes();
        work.splice(work.end(), server.waiting, server.waiting.begin());
    }
    lock.unlock();
    settle(serverId, work);
    lock.lock();
    server.sending = false;
    if (server.waiting.empty()) {
        queues.servers.erase(queues.servers.find(serverId));
    } else {
        queues.ready.splice(queues.ready.end(), server.name);  // this poster or another takes them
    }
}

// Whatever happens, each post hears its outcome once.
void RedisStore::settle(const std::string& serverId, std::list<LaterPost>& posts) noexcept {
    ClientList clients;
    const std::optional<Failure> failed =
        failureOf([&] { postInOneCall(serverId, posts, clients); });
    for (LaterPost& post : posts) {
        const Failure* failure = failed ? &*failed : post.refusal ? &*post.refusal : nullptr;
        try {
            post.done(failure == nullptr ? &clients : nullptr, failure);
        } catch (...) {
            // done must not throw; the post is made or refused all the same.
        }
    }
}

// Whatever happens, each read hears its outcome once.
void RedisStore::settle(const std::string& serverId, std::list<LaterRead>& reads) noexcept {
    ClientList clients;
    std::uint64_t logEnd = 0;
    const std::optional<Failure> failed =
        failureOf([&] { readInOneCall(serverId, reads, clients, logEnd); });
    for (LaterRead& read : reads) {
        const Failure* failure = failed ? &*failed : read.refusal ? &*read.refusal : nullptr;
        try {
            if (failure != nullptr) {
                read.done(nullptr, nullptr, 0, failure);
            } else {
                read.done(&read.events, read.clientsToo ? &clients : nullptr,
                          read.clientsToo ? logEnd : 0, nullptr);
            }
        } catch (...) {
            // done must not throw.
        }
    }
}

void RedisStore::postInOneCall(const std::string& serverId, std::list<LaterPost>& posts,
                               ClientList& clients) {
    const ServerKeys keys(ServerKeys::hashTag(serverId));
    const std::string now = std::to_string(epochMilliseconds());
    const std::string mostEvents = std::to_string(limits().maxQueuedEventsPerClient);
    const std::string mostBytes = std::to_string(limits().maxQueuedBytesPerClient);
    const std::string mostStored = std::to_string(limits().maxStoredBytes);
    static const std::string kRemembered = std::to_string(kRememberedPosts),
                             kAge = std::to_string(kRememberedPostAgeMs), kChannel = kPostedChannel,
                             kNewsBytes = std::to_string(kMostNewsBytes);
    std::vector<const std::string*> arguments{&now,        &mostEvents,  &mostBytes,
                                              &mostStored, &kRemembered, &kAge,
                                              &kChannel,   &serverId,    &kNewsBytes};
    for (const LaterPost& post : posts) {
        arguments.insert(arguments.end(), {&post.senderId, &post.text, &post.postId});
    }
    RedisReply reply = runScript(*scripts, *pool, RedisScripts::Post, keys, arguments);
    const ReplyReader reader(*pool, *reply);
    reader.texts(1, clients);
    std::size_t index = 2;  // of the first post's outcome
    for (LaterPost& post : posts) {
        const ReplyReader outcome(*pool, reader.list(index++));
        const auto refuse = [&](FailureKind kind, const std::string& message) {
            post.refusal = Failure{kind, message};
        };
        switch (outcome.status()) {
            case RedisStatus::Done:
                break;
            case RedisStatus::NotRegistered:
                refuse(FailureKind::Refused, notRegisteredMessage(serverId, post.senderId));
                break;
            case RedisStatus::TooManyEvents:
                refuse(FailureKind::Limit,
                       tooManyEventsMessage(serverId, post.senderId, outcome.text(1),
                                            static_cast<std::size_t>(outcome.integer(2))));
                break;
            case RedisStatus::TooManyBytes:
                refuse(FailureKind::Limit,
                       tooManyBytesMessage(serverId, post.senderId, outcome.text(1),
                                           static_cast<std::size_t>(outcome.integer(2)),
                                           post.text.size(), limits().maxQueuedBytesPerClient));
                break;
            case RedisStatus::TooManyStored:
                refuse(FailureKind::Limit,
                       tooManyStoredBytesMessage(serverId, post.senderId,
                                                 static_cast<std::size_t>(outcome.integer(1)),
                                                 post.text.size(), limits().maxStoredBytes));
                break;
            default:
                outcome.unexpected(*reply);
        }
    }
}

void RedisStore::read(const std::string& serverId, const std::string& clientId,
                      const std::optional<std::uint64_t>& ackUpTo,
                      std::vector<StoredEvent>& events) {
    readEvents(serverId, clientId, ackUpTo, events, nullptr, nullptr);
}

void RedisStore::readWithClients(const std::string& serverId, const std::string& clientId,
                                 const std::optional<std::uint64_t>& ackUpTo,
                                 std::vector<StoredEvent>& events, ClientList& clients,
                                 std::uint64_t& logEnd) {
    readEvents(serverId, clientId, ackUpTo, events, &clients, &logEnd);
}

void RedisStore::readEvents(const std::string& serverId, const std::string& clientId,
                            const std::optional<std::uint64_t>& ackUpTo,
                            std::vector<StoredEvent>& events, ClientList* clients,
                            std::uint64_t* logEnd) {
    Awaited awaited;
    readLater(serverId, clientId, ackUpTo, clients != nullptr,
              [&](std::vector<StoredEvent>* found, const ClientList* listed, std::uint64_t end,
                  const Failure* failure) {
                  awaited.settle(failure, [&] {
                      events.swap(*found);
                      if (clients != nullptr) {
                          *clients = *listed;  // not swapped: the call's reads share it
                          *logEnd = end;
                      }
                  });
              });
    awaited.wait();
}

void RedisStore::readInOneCall(const std::string& serverId, std::list<LaterRead>& reads,
                               ClientList& clients, std::uint64_t& logEnd) {
    const ServerKeys keys(ServerKeys::hashTag(serverId));
    const std::string now = std::to_string(epochMilliseconds());
    static const std::string kClientsToo = "1", kNone;
    bool clientsToo = false;
    std::vector<std::string> acks;
    acks.reserve(reads.size());  // the arguments point into it
    std::vector<const std::string*> arguments{&now, &kNone};
    for (const LaterRead& read : reads) {
        clientsToo = clientsToo || read.clientsToo;
        acks.push_back(read.ackUpTo ? std::to_string(*read.ackUpTo) : std::string());
        arguments.insert(arguments.end(), {&read.clientId, &acks.back()});
    }
    if (clientsToo) {
        arguments[1] = &kClientsToo;
    }
    RedisReply reply = runScript(*scripts, *pool, RedisScripts::Read, keys, arguments);
    const ReplyReader reader(*pool, *reply);
    std::size_t next = 0;  // the next read's outcome
    for (LaterRead& read : reads) {
        const ReplyReader outcome(*pool, reader.list(next++));
        if (outcome.status() == RedisStatus::NotRegistered) {
            read.refusal =
                Failure{FailureKind::Refused, notRegisteredMessage(serverId, read.clientId)};
            continue;
        }
        // The client's own posts come too (the Read script says why); they are
        // left out here.
        const redisReply& list = outcome.list(1);
        read.events.reserve(list.elements);
        StoredEvent event;
        for (std::size_t i = 0; i < list.elements; ++i) {
            const redisReply& element = *list.element[i];
            if (element.type != REDIS_REPLY_STRING ||
                !decodeEvent(element.str, element.len, event)) {
                pool->fail("holds an event this service did not write", describeReply(element));
            }
            if (event.sender != read.clientId) {
                read.events.push_back(std::move(event));
            }
        }
    }
    if (clientsToo) {
        reader.texts(next, clients);
        logEnd = static_cast<std::uint64_t>(reader.integer(next + 1));
    }
}

void RedisStore::acknowledge(const std::string& serverId, const std::string& clientId,
                             std::uint64_t upTo) {
    outOfMemoryIsLimit([&] {
        const ServerKeys keys(ServerKeys::hashTag(serverId));
        const std::string ack = std::to_string(upTo);
        runScript(*scripts, *pool, RedisScripts::Acknowledge, keys, {&clientId, &ack});
    });
}

// Not filtered: the engine already told its own waiters of a local post, and
// hearing it again only makes them look once more; telling it apart would take
// an id of the process in every message.
void RedisStore::watchPosts(PostListener listener) {
    outOfMemoryIsLimit([&] {
        std::lock_guard<std::mutex> lock(watcherMutex);
        watcher.reset();
        if (listener) {
            watcher.reset(new RedisPostWatcher(*pool, kPostedChannel, std::move(listener)));
        }
    });
}

// The hash tags of every server in the database, sorted by server id. SCAN may
// name a key twice; servers that come or go meanwhile may or may not be named.
std::vector<std::string> RedisStore::serverTags() {
    static const std::string kScan = "SCAN", kMatch = "MATCH",
                             kPattern = std::string(kClientsPrefix) + "{*}", kCount = "COUNT",
                             kBatch = "1000";
    std::map<std::string, std::string> tags;  // by server id
    std::string cursor = "0";
    do {
        RedisReply reply = pool->command({&kScan, &cursor, &kMatch, &kPattern, &kCount, &kBatch});
        ReplyReader reader(*pool, *reply);
        cursor = reader.text(0);
        std::vector<std::string> found;
        reader.texts(1, found);
        for (const std::string& clientsKey : found) {
            const std::string tag = clientsKey.substr(std::string(kClientsPrefix).size());
            tags[ServerKeys::serverId(tag)] = tag;
        }
    } while (cursor != "0");
    std::vector<std::string> sorted;
    for (auto& entry : tags) {
        sorted.push_back(std::move(entry.second));
    }
    return sorted;
}

StoreStats RedisStore::stats() {
    return outOfMemoryIsLimit([&] {
        StoreStats stats;
        for (const std::string& tag : serverTags()) {
            const ServerKeys keys(tag);
            RedisReply counted = runScript(*scripts, *pool, RedisScripts::Count, keys, {});
            ReplyReader counts(*pool, *counted);
            stats.registeredClients += static_cast<std::uint64_t>(counts.integer(0));
            stats.waitingEvents += static_cast<std::uint64_t>(counts.integer(1));
            stats.waitingBytes += static_cast<std::uint64_t>(counts.integer(2));
        }
        return stats;
    });
}

namespace {

// Appends the clients of a List or Expire reply: five values per client.
void readClientInfos(const RedisConnectionPool& pool, const redisReply& reply,
                     const std::string& serverId, std::vector<ClientInfo>& clients) {
    ReplyReader reader(pool, reply);
    const redisReply& list = reader.list(1);
    for (std::size_t i = 0; i + 5 <= list.elements; i += 5) {
        const redisReply* const* values = list.element + i;
        if (values[0]->type != REDIS_REPLY_STRING) {
            reader.unexpected(*values[0]);
        }
        for (int j = 1; j < 5; ++j) {
            if (values[j]->type != REDIS_REPLY_INTEGER) {
                reader.unexpected(*values[j]);
            }
        }
        clients.push_back(ClientInfo{serverId, std::string(values[0]->str, values[0]->len),
                                     static_cast<std::uint64_t>(values[1]->integer),
                                     static_cast<std::uint64_t>(values[2]->integer),
                                     values[3]->integer, values[4]->integer});
    }
}

}  // namespace

void RedisStore::listClients(const std::string& serverId, std::vector<ClientInfo>& clients) {
    outOfMemoryIsLimit([&] {
        std::vector<std::string> tags;
        if (serverId.empty()) {
            tags = serverTags();
        } else {
            tags.push_back(ServerKeys::hashTag(serverId));
        }
        std::vector<ClientInfo> listed;
        for (const std::string& tag : tags) {
            const ServerKeys keys(tag);
            RedisReply reply = runScript(*scripts, *pool, RedisScripts::List, keys, {});
            readClientInfos(*pool, *reply, ServerKeys::serverId(tag), listed);
        }
        clients.swap(listed);
    });
}

// One script per server: each server's expiry is atomic, the whole pass is not
// (a server registered meanwhile may be passed over until the next one).
void RedisStore::expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) {
    outOfMemoryIsLimit([&] {
        const std::string cutoff = std::to_string(idleBeforeMs);
        std::vector<ClientInfo> found;
        for (const std::string& tag : serverTags()) {
            const ServerKeys keys(tag);
            RedisReply reply = runScript(*scripts, *pool, RedisScripts::Expire, keys, {&cutoff});
            readClientInfos(*pool, *reply, ServerKeys::serverId(tag), found);
        }
        expired.swap(found);
    });
}

std::string RedisStore::describe() const {
    const std::string host =
        address.host.find(':') == std::string::npos ? address.host : "[" + address.host + "]";
    const std::string credentials = address.password.empty() ? "" : address.user + ":***@";
    return "Redis redis://" + credentials + host + ":" + std::to_string(address.port) + "/" +
           std::to_string(address.database);
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
