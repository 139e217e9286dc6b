// Where the service keeps its state: the clients of each server in registration
// order, one log of events per server and a cursor per client. An event's
// sequence number is its place in its server's log (1, 2, ...; never used twice
// while the server has clients); its text is held once whatever the number of
// recipients. A client's cursor is the last sequence it acknowledged; a client
// that registers starts at the log's head, so it sees only what is posted after.
// What waits for a client is the log past its cursor less its own posts; the
// per-client limits count that. The log is trimmed below the lowest cursor of
// its server's clients. When nothing of others waits for a client, its cursor
// follows its own posts, so that a client that only posts holds no event.
//
// The engine checks the request (headers, identifiers, texts) and writes the
// documents; the store applies each operation atomically and checks the limits
// within the same step, so that several daemons sharing one store never pass a
// limit together.
//
// Every operation applies fully or throws Failure and changes nothing, except
// when the store cannot know (a Redis command that timed out may still run):
// then the Failure says so (unknownOutcomeMessage). No other exception leaves a
// store (running out of memory is a Limit failure). Implementations are safe
// for concurrent use from any number of threads.
#ifndef AVQVL_ENGINE_STORE_H
#define AVQVL_ENGINE_STORE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/ServiceLimits.h"
#include "protocol/Failure.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

// The engine and its stores speak of failures in the protocol's one type.
using Protocol::Failure;
using Protocol::FailureKind;

struct StoredEvent {
    std::string sender;
    std::uint64_t sequence = 0;
    // Shared, never null: the memory store keeps one copy for all recipients.
    std::shared_ptr<const std::string> text;
};

// What the store holds, for metrics.
struct StoreStats {
    std::uint64_t registeredClients = 0;
    std::uint64_t waitingEvents = 0;  // counted once per recipient
    std::uint64_t waitingBytes = 0;
};

using ClientList = std::vector<std::string>;  // registration order

// One registered client, for operators.
struct ClientInfo {
    std::string serverId, clientId;
    std::uint64_t waitingEvents = 0, waitingBytes = 0;
    std::int64_t registeredMs = 0, lastFetchMs = 0;  // Unix epoch ms; 0 = never fetched
};

// A post carrying an id already seen from the same sender of the same server
// posts nothing and answers as the first one did. The store remembers the
// sender's last kRememberedPosts ids, each for kRememberedPostAge: enough for
// a client to resend an exchange whose outcome it could not learn, small
// enough that a busy sender costs a bounded amount.
constexpr std::size_t kRememberedPosts = 1024;
constexpr std::int64_t kRememberedPostAgeMs = 10 * 60 * 1000;

// What a store heard of posts made through another process, when the news
// could carry them: the events made, oldest first, and the server's clients
// as those posts left them. A getEvents that found nothing for a client at
// log end E (readWithClients) may be answered with the events past E that are
// not the client's own, instead of reading again, if the client is among the
// clients.
struct PostNews {
    ClientList clients;
    std::vector<StoredEvent> events;
};

// Told the server id of a post, or "" when posts may have been missed (every
// waiter looks again); news, when not null, carries the posts (PostNews).
// Called from the poster's thread or a store's own; it must be quick and must
// not call the store.
using PostListener =
    std::function<void(const std::string& serverId, const std::shared_ptr<const PostNews>& news)>;
// A post's outcome: clients (the server's) when it was made, else failure.
// Exactly one of the two is given.
using PostDone = std::function<void(const ClientList* clients, const Failure* failure)>;

// A read's outcome: the events, and with clients asked for, the clients and
// the log's end (as readWithClients() gives them; else null and 0), or the
// failure (then events is null). The events are the read's own to take; the
// clients may be shared with other reads.
using ReadDone = std::function<void(std::vector<StoredEvent>* events, const ClientList* clients,
                                    std::uint64_t logEnd, const Failure* failure)>;

// The clock of registration and fetch times: milliseconds since the Unix epoch.
std::int64_t epochMilliseconds();

class Store {
public:
    explicit Store(const ServiceLimits& limits) : storeLimits(limits) {}
    virtual ~Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // The limits the store enforces; the engine reads the body limit here too.
    const ServiceLimits& limits() const { return storeLimits; }

    // Adds the client (a known client keeps its place and its events; a server's
    // first client starts its sequence at 1). Limit: maxClientsPerServer.
    // clients receives the server's clients afterwards.
    virtual void registerClient(const std::string& serverId, const std::string& clientId,
                                ClientList& clients) = 0;
    // Removes the client and its waiting events (an unknown client is no error);
    // the server goes with its last client, and its sequence restarts. remaining
    // receives the clients afterwards.
    virtual void unregisterClient(const std::string& serverId, const std::string& clientId,
                                  ClientList& remaining) = 0;
    // The server's clients; empty for an unknown server.
    virtual void clients(const std::string& serverId, ClientList& clients) = 0;
    // Appends text to the server's log under its next sequence number, for
    // every client of the server but the sender, all or none. Refused when the
    // sender is not registered; a Limit when any recipient would pass
    // maxQueuedEventsPerClient or maxQueuedBytesPerClient, or when the store
    // would pass maxStoredBytes (a post that no one receives stores nothing and
    // passes no limit). postId (empty: none) de-duplicates resends, see
    // kRememberedPosts. clients receives the server's clients.
    virtual void post(const std::string& serverId, const std::string& senderId,
                      const std::string& text, const std::string& postId, ClientList& clients) = 0;
    // post(), with the outcome given to done (which must not throw) instead of
    // returned: a store that postsLater() copies the strings, calls done from a
    // thread of its own and never holds the caller; any other calls post() and
    // then done, on the caller's thread. Throws Failure, and calls nothing,
    // when the post cannot even be queued (out of memory).
    virtual void postLater(const std::string& serverId, const std::string& senderId,
                           const std::string& text, const std::string& postId, PostDone done);
    virtual bool postsLater() const { return false; }
    // Events past the client's cursor, oldest first, the client's own posts
    // left out; the cursor does not move. First, when ackUpTo is given,
    // acknowledges up to it (as acknowledge()). Records the time of the fetch.
    // Refused when the client is not registered.
    virtual void read(const std::string& serverId, const std::string& clientId,
                      const std::optional<std::uint64_t>& ackUpTo,
                      std::vector<StoredEvent>& events) = 0;
    // read(), then the server's clients as clients() would give them: a store
    // that can answers both in one step (Redis: one round trip instead of two).
    // logEnd receives the last sequence of the log at that step when the store
    // sends PostNews (else 0), so that news of later posts can answer a wait.
    virtual void readWithClients(const std::string& serverId, const std::string& clientId,
                                 const std::optional<std::uint64_t>& ackUpTo,
                                 std::vector<StoredEvent>& events, ClientList& clients,
                                 std::uint64_t& logEnd) {
        read(serverId, clientId, ackUpTo, events);
        this->clients(serverId, clients);
        logEnd = 0;
    }
    // read(), or readWithClients() when clientsToo, with the outcome given to
    // done as postLater() gives its own: a store that readsLater() calls done
    // from a thread of its own, any other on the caller's thread.
    virtual void readLater(const std::string& serverId, const std::string& clientId,
                           const std::optional<std::uint64_t>& ackUpTo, bool clientsToo,
                           ReadDone done);
    virtual bool readsLater() const { return false; }
    // Moves the cursor forward to upTo (never backward; clamped to the log's
    // last sequence) and trims the log below the lowest cursor. An unknown
    // client is no error.
    virtual void acknowledge(const std::string& serverId, const std::string& clientId,
                             std::uint64_t upTo) = 0;
    // Calls listener, from a thread of the store's own, for posts made through
    // other processes sharing the store, and with "" whenever some may have
    // been missed; a later call replaces the listener. The listener must be
    // quick, must not throw and must not call the store. A store that only
    // this process uses has nothing to report: by default, nothing is called.
    virtual void watchPosts(PostListener /*listener*/) {}
    // True when no call ever waits on anything outside the process (a disk, a
    // network, another process): a carrier may then call the store on a thread
    // that serves connections. By default, false.
    virtual bool neverWaits() const { return false; }
    virtual StoreStats stats() = 0;

    // Every registered client ("" = all servers), by server id (byte order) then
    // registration order.
    virtual void listClients(const std::string& serverId, std::vector<ClientInfo>& clients) = 0;
    // Unregisters every client whose last fetch (its registration, if it never
    // fetched) is older than idleBeforeMs; expired receives them as they were.
    virtual void expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) = 0;
    // Readiness: returns when the store answers, throws Failure naming the
    // cause otherwise (memory: always; SQLite: a read; Redis: PING within 1 s).
    virtual void ping() = 0;
    // What the start line shows: "memory", "SQLite /path/quorvel.sqlite3",
    // "Redis redis://:***@127.0.0.1:6379/0" (the password masked).
    virtual std::string describe() const = 0;

private:
    const ServiceLimits storeLimits;
};

// The store's refusal texts, one home for every implementation.
std::string notRegisteredMessage(const std::string& serverId, const std::string& clientId);
std::string tooManyClientsMessage(const std::string& serverId, const std::string& clientId,
                                  std::size_t count);
std::string tooManyEventsMessage(const std::string& serverId, const std::string& senderId,
                                 const std::string& recipientId, std::size_t waiting);
std::string tooManyBytesMessage(const std::string& serverId, const std::string& senderId,
                                const std::string& recipientId, std::size_t waitingBytes,
                                std::size_t moreBytes, std::size_t limit);
std::string tooManyStoredBytesMessage(const std::string& serverId, const std::string& senderId,
                                      std::size_t storedBytes, std::size_t moreBytes,
                                      std::size_t limit);
std::string outOfMemoryMessage();
// A store that could not do its work: action says what ("queue the event"),
// cause what went wrong, in the store's own words ("disk I/O error").
std::string storeFailedMessage(const std::string& action, const std::string& cause);
// A store that cannot tell whether the operation happened (the command was
// sent, its answer never came): the request may be sent again as it was.
std::string unknownOutcomeMessage(const std::string& action, const std::string& cause);

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_STORE_H
