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
// The answers are the documents of Documents.h: the shared-client document lists
// clients in registration order, the events document the oldest event first.
// The sequence number counts the
// events posted under one Server-ID from 1, so one post carries the same number
// at every recipient and numbers grow in posting order.
//
// Identifiers registered and events posted must be UTF-8 that an XML document
// can carry (no control character but tab, LF and CR, no U+FFFE or U+FFFF);
// others are refused. Every failure leaves the state as it was. Thread-safe: one engine may serve
// any number of transports at once.
#ifndef AVQVL_ENGINE_SERVICEENGINE_H
#define AVQVL_ENGINE_SERVICEENGINE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/ServiceLimits.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

struct ServiceFailure {
    FailureKind kind = FailureKind::Refused;
    std::string message;
};

using RequestHeaders = std::map<std::string, std::string>;

class ServiceEngine {
public:
    explicit ServiceEngine(const ServiceLimits& limits = ServiceLimits());
    ServiceEngine(const ServiceEngine&) = delete;
    ServiceEngine& operator=(const ServiceEngine&) = delete;

    const ServiceLimits& limits() const { return serviceLimits; }

    // True with the response filled, or false with the failure filled.
    bool handle(const RequestHeaders& headers, const std::string& body, std::string& response,
                ServiceFailure& failure);

private:
    struct Event {
        std::string sender;
        uint64_t sequence;
        std::shared_ptr<const std::string> text;  // one copy for all recipients
    };
    struct Client {
        std::string id;
        std::deque<Event> pending;
        std::size_t pendingBytes = 0;  // event text in `pending`
    };
    struct ServerGroup {
        std::vector<Client> clients;  // registration order
        uint64_t nextSequence = 1;
    };

    std::string dispatch(const RequestHeaders& headers, const std::string& body);
    std::string registerClient(const std::string& serverId, const std::string& clientId);
    std::string unregisterClient(const std::string& serverId, const std::string& clientId);
    std::string putEvents(const std::string& serverId, const std::string& clientId,
                          const std::string& body);
    std::string getEvents(const std::string& serverId, const std::string& clientId);
    std::string getSharedClients(const std::string& serverId);

    Client& registeredClient(const std::string& serverId, const std::string& clientId);
    // Lists the clients of serverId, leaving out *leaving when given.
    std::string sharedClientDocument(const std::string& serverId,
                                     const std::string* leaving = nullptr) const;

    const ServiceLimits serviceLimits;
    std::mutex mutex;  // guards servers
    std::map<std::string, ServerGroup> servers;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_SERVICEENGINE_H
