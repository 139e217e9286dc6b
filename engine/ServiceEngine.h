// The reference Quorvel service: takes one request (header fields and body, both
// UTF-8) and returns the response text or a failure of a kind (refused, limit).
//
// Clients are grouped by "Server-ID"; a client is the pair (Server-ID, Client-ID).
// Operations ("Operation-Name"):
//   getStatus         the response is the body, unchanged.
//   registerClient    adds the caller (idempotent: a re-registration keeps its
//                     pending events); answers the shared-client document.
//   unregisterClient  removes the caller and its pending events (an unknown
//                     client is no error); answers the remaining clients.
//   putEvents         the registered caller's body is one event, queued for every
//                     other client of its Server-ID (all or none); answers the clients.
//   getEvents         the events waiting for the registered caller (its server's
//                     log past its cursor, less its own posts), as the events
//                     document; see handle() and exchange() for what it acknowledges.
//                     With "Wait-Milliseconds" (this operation only), one that
//                     finds none waits that long for a post before it answers.
//   getSharedClients  the shared-client document.
//
// The operators' service ("Service-Name" AvQVLAdmin), which whoever carries the
// request authorises first:
//   listClients       every registered client of "Server-ID" (missing or empty:
//                     of every server), as the clients document.
//   evictClient       unregisters "Client-ID" on the operator's behalf; answers
//                     the remaining clients. An unknown client is refused.
//
// The answers are the documents of Documents.h: the shared-client document lists
// clients in registration order, the events document the oldest event first.
// The sequence number counts the
// events posted under one Server-ID from 1, so one post carries the same number
// at every recipient and numbers grow in posting order.
//
// Identifiers registered and events posted must be UTF-8 that an XML document
// can carry (no control character but tab, LF and CR, no U+FFFE or U+FFFF);
// others are refused. The state lives in a Store (Store.h), which applies each
// operation whole or not at all and checks the limits; every failure leaves the
// state as it was. Thread-safe: one engine may serve any number of transports
// at once.
#ifndef AVQVL_ENGINE_SERVICEENGINE_H
#define AVQVL_ENGINE_SERVICEENGINE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/PostSignal.h"
#include "engine/ServiceLimits.h"
#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

using RequestHeaders = std::map<std::string, std::string>;

// What the carrier of an exchange knows beyond the headers and the body.
struct ExchangeOptions {
    // getEvents: the last sequence the client acknowledges. Given, the answer is
    // read after acknowledging it and moves nothing more (what it holds comes
    // again until acknowledged). Absent, the carrier acknowledges the answer
    // itself once delivered (ServiceEngine::acknowledge).
    std::optional<std::uint64_t> ack;
    // putEvents: the exchange's unique id, the same when it is sent again
    // (empty: none); see kRememberedPosts.
    std::string postId;
    // getEvents: the getSharedClients answer too, read with the events
    // (ExchangeResult::clients), for a carrier that answers both at once.
    bool clientsToo = false;
};

// Filled by a getEvents exchange that succeeds.
struct ExchangeResult {
    std::uint64_t lastSequence = 0;  // the highest sequence in the answer; 0: none
    // The wait the request asked for (Wait-Milliseconds, 0: none). exchange()
    // never waits: a carrier that answered no events does the waiting.
    std::chrono::milliseconds wait{0};
    // With ExchangeOptions::clientsToo, unless the exchange is to wait (no
    // events, a wait asked for): the getSharedClients answer.
    std::optional<std::string> clients;
    // With ExchangeOptions::clientsToo: where the store's log ended at the
    // read, for eventsFromNews() (0: the store sends no news).
    std::uint64_t logEnd = 0;
};

class ServiceEngine {
public:
    // An engine on a fresh MemoryStore with these limits.
    explicit ServiceEngine(const ServiceLimits& limits = ServiceLimits());
    // An engine on the given store (never null), whose limits it follows.
    explicit ServiceEngine(std::unique_ptr<Store> store);
    ~ServiceEngine();
    ServiceEngine(const ServiceEngine&) = delete;
    ServiceEngine& operator=(const ServiceEngine&) = delete;

    const ServiceLimits& limits() const { return store->limits(); }
    StoreStats stats() { return store->stats(); }

    // True with the response filled, or false with the failure filled. A
    // getEvents acknowledges what it answers: within one process nothing is in
    // flight between the engine and its caller. A getEvents that asks to wait
    // and finds nothing blocks the calling thread until a post to its server
    // (from any thread, or one the listener's store reports) or the wait's end.
    bool handle(const RequestHeaders& headers, const std::string& body, std::string& response,
                Failure& failure);
    // The same for a carrier that may lose an answer on the way (the daemon):
    // a getEvents acknowledges options.ack, if given, and nothing else; result
    // tells what the answer holds.
    bool exchange(const RequestHeaders& headers, const std::string& body,
                  const ExchangeOptions& options, std::string& response, Failure& failure,
                  ExchangeResult& result);
    // Called once with what exchange() gives: true with the response and
    // result, or false with the failure. Must not throw.
    using ExchangeDone = std::function<void(bool done, std::string&& response,
                                            const Failure& failure, const ExchangeResult& result)>;
    // exchange() for a putEvents on a store that postsLater(), or a getEvents
    // on one that readsLater(), without holding the caller on the store: true
    // when it took the exchange, and done is then called once, from a thread
    // of the store's (or from this one, when the request is refused before it
    // reaches the store). False, with nothing done, for every other exchange
    // and for a putEvents whose refusal needs a look at the store: the carrier
    // calls exchange() for those.
    bool exchangeLater(const RequestHeaders& headers, const std::string& body,
                       const ExchangeOptions& options, ExchangeDone done);
    // The answer of a getEvents with clientsToo that found nothing at logEnd
    // (ExchangeResult::logEnd) and waited, from the news of later posts
    // instead of the store: the events past logEnd but the client's own, and
    // the clients. The caller makes sure no news of the server since its read
    // was missed, and that the client is among news.clients. result as
    // exchange() fills it; lastSequence 0 when nothing is for the client.
    std::string eventsFromNews(const PostNews& news, const std::string& clientId,
                               std::uint64_t logEnd, ExchangeResult& result);
    // Moves the client's cursor to upTo (never backward): what a getEvents
    // answered without an ack once the carrier wrote it whole. False with the
    // failure filled when the store fails; the events then come again.
    bool acknowledge(const std::string& serverId, const std::string& clientId, std::uint64_t upTo,
                     Failure& failure);

    // Called after every post the engine applies, and given to the store for
    // the posts of other processes (Store::watchPosts, asked once). Replaces
    // the listener before; safe from any thread.
    void setPostListener(PostListener listener);

    // Unregisters clients that have not fetched for `idle`; may throw Failure.
    void expireIdleClients(std::chrono::milliseconds idle, std::vector<ClientInfo>& expired);
    // True when the store answers; otherwise false with the cause.
    bool ready(std::string& cause);
    std::string describeStore() const;
    // Store::neverWaits() of the engine's store.
    bool storeNeverWaits() const { return store->neverWaits(); }

private:
    // A putEvents or getEvents checked and left for the store (exchangeLater()).
    struct LaterWork {
        bool taken = false;
        std::string serverId, clientId;
    };

    // ackAnswer: a getEvents acknowledges its own answer (handle()). With
    // later given, a putEvents or getEvents that would reach the store fills it
    // instead.
    std::string dispatch(const RequestHeaders& headers, const std::string& body,
                         const ExchangeOptions& options, bool ackAnswer, ExchangeResult& result,
                         LaterWork* later = nullptr);
    std::string registerClient(const std::string& serverId, const std::string& clientId);
    std::string unregisterClient(const std::string& serverId, const std::string& clientId);
    std::string putEvents(const std::string& serverId, const std::string& clientId,
                          const std::string& body, const std::string& postId, LaterWork* later);
    std::string getEvents(const std::string& serverId, const std::string& clientId,
                          const ExchangeOptions& options, bool ackAnswer, ExchangeResult& result);
    // The answer of a getEvents that found events (and clients, with clientsToo).
    std::string eventsAnswer(const std::vector<StoredEvent>& events, const ClientList& clients,
                             bool clientsToo, ExchangeResult& result);
    std::string getSharedClients(const std::string& serverId);
    std::string administer(const std::string& operation, const RequestHeaders& headers);
    // Wakes the waiters of handle() and tells the listener; never throws.
    void posted(const std::string& serverId,
                const std::shared_ptr<const PostNews>& news = nullptr) noexcept;

    // Declared before the store, which may call posted() from a thread of its
    // own until it is destroyed.
    PostSignal signal;
    std::mutex listenerMutex;  // guards listener and storeWatched
    PostListener listener;
    bool storeWatched = false;
    const std::unique_ptr<Store> store;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_SERVICEENGINE_H
