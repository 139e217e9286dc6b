#include "engine/ServiceEngine.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <new>
#include <set>
#include <utility>

#include "engine/Documents.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

const char* const kServiceName = "AvQVLRequest";

// Thrown inside the engine and turned into a ServiceFailure at its edge.
struct Refusal {
    FailureKind kind;
    std::string message;
};

[[noreturn]] void refuseProtocol(const std::string& message) {
    throw Refusal{FailureKind::Refused, message};
}

[[noreturn]] void refuseLimit(const std::string& message) {
    throw Refusal{FailureKind::Limit, message};
}

const std::string& requiredHeader(const RequestHeaders& headers, const char* name) {
    auto found = headers.find(name);
    if (found == headers.end()) {
        refuseProtocol(std::string("The request has no \"") + name + "\" header.");
    }
    return found->second;
}

// Identifiers and events are written into XML documents, which every client
// parses; one that XML 1.0 cannot carry would spoil the documents of every client
// of the server. Allowed: UTF-8 of the characters tab, line feed, carriage
// return, U+0020 to U+D7FF, U+E000 to U+FFFD and U+10000 to U+10FFFF; no other
// control character, no U+FFFE or U+FFFF, no surrogate or overlong form, not
// even as a reference.
bool fitsXmlDocument(const std::string& text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const int64_t length = static_cast<int64_t>(text.size());
    for (int64_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(bytes, i, length, c);  // negative for anything but well-formed UTF-8
        if (c < 0x20 ? c != '\t' && c != '\n' && c != '\r' : c == 0xFFFE || c == 0xFFFF) {
            return false;
        }
    }
    return true;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

}  // namespace

ServiceEngine::ServiceEngine(const ServiceLimits& limits) : serviceLimits(limits) {}

EngineStats ServiceEngine::stats() {
    EngineStats stats;
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& server : servers) {
        stats.registeredClients += server.second.clients.size();
        for (const Client& client : server.second.clients) {
            stats.waitingEvents += client.pending.size();
            stats.waitingBytes += client.pendingBytes;
        }
    }
    return stats;
}

bool ServiceEngine::handle(const RequestHeaders& headers, const std::string& body,
                           std::string& response, ServiceFailure& failure) {
    try {
        response = dispatch(headers, body);
        return true;
    } catch (const Refusal& refusal) {
        failure.kind = refusal.kind;
        failure.message = refusal.message;
    } catch (const std::bad_alloc&) {
        failure.kind = FailureKind::Limit;
        failure.message = "The Quorvel service ran out of memory while handling the request.";
    }
    return false;
}

std::string ServiceEngine::dispatch(const RequestHeaders& headers, const std::string& body) {
    const std::string& serviceName = requiredHeader(headers, "Service-Name");
    if (serviceName != kServiceName) {
        refuseProtocol("Unknown \"Service-Name\" " + quoted(serviceName) + "; expected " +
                       quoted(kServiceName) + ".");
    }
    const std::string& operation = requiredHeader(headers, "Operation-Name");
    if (body.size() > serviceLimits.maxBodyBytes) {
        refuseLimit("The request body of " + std::to_string(body.size()) +
                    " bytes exceeds the limit of " + std::to_string(serviceLimits.maxBodyBytes) +
                    " bytes.");
    }
    if (operation == "getStatus") {
        return body;
    }
    const bool known = operation == "registerClient" || operation == "unregisterClient" ||
                       operation == "putEvents" || operation == "getEvents" ||
                       operation == "getSharedClients";
    if (!known) {
        refuseProtocol("Unknown \"Operation-Name\" " + quoted(operation) + ".");
    }
    const std::string& serverId = requiredHeader(headers, "Server-ID");
    const std::string& clientId = requiredHeader(headers, "Client-ID");

    std::lock_guard<std::mutex> lock(mutex);
    if (operation == "registerClient") {
        return registerClient(serverId, clientId);
    }
    if (operation == "unregisterClient") {
        return unregisterClient(serverId, clientId);
    }
    if (operation == "putEvents") {
        return putEvents(serverId, clientId, body);
    }
    if (operation == "getEvents") {
        return getEvents(serverId, clientId);
    }
    return getSharedClients(serverId);
}

std::string ServiceEngine::registerClient(const std::string& serverId,
                                          const std::string& clientId) {
    if (serverId.empty() || clientId.empty()) {
        refuseProtocol("Cannot register client " + quoted(clientId) + " with server " +
                       quoted(serverId) + ": \"Server-ID\" and \"Client-ID\" must not be empty.");
    }
    if (!fitsXmlDocument(serverId) || !fitsXmlDocument(clientId)) {
        refuseProtocol(
            "Cannot register the client: \"Server-ID\" and \"Client-ID\" must not hold control "
            "characters, U+FFFE, U+FFFF or bytes that are not UTF-8.");
    }
    auto group = servers.find(serverId);
    std::size_t count = 0;
    if (group != servers.end()) {
        const auto& clients = group->second.clients;
        if (std::any_of(clients.begin(), clients.end(),
                        [&](const Client& client) { return client.id == clientId; })) {
            return sharedClientDocument(serverId);  // already known: pending events stay
        }
        count = clients.size();
    }
    if (count >= serviceLimits.maxClientsPerServer) {
        refuseLimit("Cannot register client " + quoted(clientId) + ": server " + quoted(serverId) +
                    " already has " + std::to_string(count) +
                    " clients, the most one server may have.");
    }
    std::string document;
    ServerGroup& target = servers[serverId];
    target.clients.push_back(Client{clientId, {}});
    try {
        document = sharedClientDocument(serverId);
    } catch (...) {
        target.clients.pop_back();  // nothing half-done
        if (target.clients.empty()) {
            servers.erase(serverId);
        }
        throw;
    }
    return document;
}

std::string ServiceEngine::unregisterClient(const std::string& serverId,
                                            const std::string& clientId) {
    std::string document = sharedClientDocument(serverId, &clientId);  // before any change
    auto group = servers.find(serverId);
    if (group != servers.end()) {
        auto& clients = group->second.clients;
        clients.erase(std::remove_if(clients.begin(), clients.end(),
                                     [&](const Client& client) { return client.id == clientId; }),
                      clients.end());
        if (clients.empty()) {
            servers.erase(group);  // the sequence restarts with the next client
        }
    }
    return document;
}

std::string ServiceEngine::putEvents(const std::string& serverId, const std::string& clientId,
                                     const std::string& body) {
    registeredClient(serverId, clientId);
    if (!fitsXmlDocument(body)) {
        refuseProtocol("The event of client " + quoted(clientId) +
                       " holds control characters, U+FFFE, U+FFFF or bytes that are not "
                       "UTF-8, which an XML document cannot carry.");
    }
    ServerGroup& group = servers.find(serverId)->second;  // exists: the caller is registered
    for (const Client& recipient : group.clients) {
        if (recipient.id == clientId) {
            continue;
        }
        // The message is made only when a post is refused: puts are frequent.
        auto refuseFull = [&](const std::string& waiting) {
            refuseLimit("Cannot queue the event of client " + quoted(clientId) + ": client " +
                        quoted(recipient.id) + " of server " + quoted(serverId) + " already has " +
                        waiting);
        };
        if (recipient.pending.size() >= serviceLimits.maxQueuedEventsPerClient) {
            refuseFull(std::to_string(recipient.pending.size()) +
                       " events waiting, the most a client may have.");
        }
        if (recipient.pendingBytes + body.size() > serviceLimits.maxQueuedBytesPerClient) {
            refuseFull(std::to_string(recipient.pendingBytes) + " bytes of events waiting; " +
                       std::to_string(body.size()) + " more would pass the limit of " +
                       std::to_string(serviceLimits.maxQueuedBytesPerClient) + " bytes.");
        }
    }
    std::string document = sharedClientDocument(serverId);  // before any change
    Event event{clientId, group.nextSequence, std::make_shared<const std::string>(body)};
    std::size_t queued = 0;
    try {
        for (Client& recipient : group.clients) {
            if (recipient.id != clientId) {
                recipient.pending.push_back(event);
                recipient.pendingBytes += body.size();
                ++queued;
            }
        }
    } catch (...) {
        // Take the event back from the recipients that already got it.
        for (Client& recipient : group.clients) {
            if (queued == 0) {
                break;
            }
            if (recipient.id != clientId) {
                recipient.pending.pop_back();
                recipient.pendingBytes -= body.size();
                --queued;
            }
        }
        throw;
    }
    ++group.nextSequence;
    return document;
}

std::string ServiceEngine::getEvents(const std::string& serverId, const std::string& clientId) {
    Client& client = registeredClient(serverId, clientId);
    EventsDocument events;
    for (const Event& event : client.pending) {
        events.add(event.sender, event.sequence, *event.text);
    }
    std::string document = events.finish();
    client.pending.clear();  // only once the document is complete
    client.pendingBytes = 0;
    return document;
}

std::string ServiceEngine::getSharedClients(const std::string& serverId) {
    return sharedClientDocument(serverId);
}

ServiceEngine::Client& ServiceEngine::registeredClient(const std::string& serverId,
                                                       const std::string& clientId) {
    auto group = servers.find(serverId);
    if (group != servers.end()) {
        for (Client& client : group->second.clients) {
            if (client.id == clientId) {
                return client;
            }
        }
    }
    refuseProtocol("Client " + quoted(clientId) + " is not registered with server " +
                   quoted(serverId) + ".");
}

std::string ServiceEngine::sharedClientDocument(const std::string& serverId,
                                                const std::string* leaving) const {
    SharedClientsDocument document;
    auto group = servers.find(serverId);
    if (group != servers.end()) {
        for (const Client& client : group->second.clients) {
            if (leaving == nullptr || client.id != *leaving) {
                document.add(client.id);
            }
        }
    }
    return document.finish();
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
