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
//   getEvents         drains the registered caller's queue into the events document.
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
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/ServiceLimits.h"
#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

struct ServiceFailure {
    FailureKind kind = FailureKind::Refused;
    std::string message;
};

using RequestHeaders = std::map<std::string, std::string>;

// What one getEvents answer took from the store, kept by whoever carries the
// answer until it knows the answer arrived. Empty when the request was no
// getEvents, failed, or found nothing waiting.
struct Delivery {
    std::string serverId;
    std::string clientId;
    std::vector<StoredEvent> events;

    bool empty() const { return events.empty(); }
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

    // True with the response filled, or false with the failure filled. When
    // delivery is given, a getEvents that succeeds records there the events its
    // answer carries, so that the carrier can give them back with redeliver().
    bool handle(const RequestHeaders& headers, const std::string& body, std::string& response,
                ServiceFailure& failure, Delivery* delivery = nullptr);

    // The answer recorded in delivery did not reach its client (a write failed,
    // or the connection closed before its end): its events go back to the head
    // of the client's queue in their order, ahead of anything queued since, and
    // the next getEvents answers them again. Events of a client that has left
    // since are dropped. delivery is emptied. False with the failure filled when
    // the store fails; the events are then lost. Loss that the carrier cannot
    // see (the client dies after the last byte was written) stays at most once.
    bool redeliver(Delivery& delivery, ServiceFailure& failure);

    // Unregisters clients that have not fetched for `idle`; may throw StoreFailure.
    void expireIdleClients(std::chrono::milliseconds idle, std::vector<ClientInfo>& expired);
    // True when the store answers; otherwise false with the cause.
    bool ready(std::string& cause);
    std::string describeStore() const;

private:
    std::string dispatch(const RequestHeaders& headers, const std::string& body,
                         Delivery* delivery);
    std::string registerClient(const std::string& serverId, const std::string& clientId);
    std::string unregisterClient(const std::string& serverId, const std::string& clientId);
    std::string putEvents(const std::string& serverId, const std::string& clientId,
                          const std::string& body);
    std::string getEvents(const std::string& serverId, const std::string& clientId,
                          Delivery* delivery);
    std::string getSharedClients(const std::string& serverId);
    std::string administer(const std::string& operation, const RequestHeaders& headers);

    const std::unique_ptr<Store> store;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_SERVICEENGINE_H
