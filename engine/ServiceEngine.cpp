#include "engine/ServiceEngine.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <new>
#include <utility>

#include "engine/Documents.h"
#include "engine/MemoryStore.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

const char* const kServiceName = "AvQVLRequest";
const char* const kAdminServiceName = "AvQVLAdmin";

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

std::string sharedClientDocument(const ClientList& clients) {
    SharedClientsDocument document;
    for (const std::string& client : clients) {
        document.add(client);
    }
    return document.finish();
}

}  // namespace

ServiceEngine::ServiceEngine(const ServiceLimits& limits)
    : store(std::make_unique<MemoryStore>(limits)) {}

ServiceEngine::ServiceEngine(std::unique_ptr<Store> store) : store(std::move(store)) {}

ServiceEngine::~ServiceEngine() = default;

bool ServiceEngine::handle(const RequestHeaders& headers, const std::string& body,
                           std::string& response, ServiceFailure& failure, Delivery* delivery) {
    if (delivery != nullptr) {
        *delivery = Delivery();
    }
    try {
        response = dispatch(headers, body, delivery);
        return true;
    } catch (const Refusal& refusal) {
        failure.kind = refusal.kind;
        failure.message = refusal.message;
    } catch (const StoreFailure& storeFailure) {
        failure.kind = storeFailure.kind;
        failure.message = storeFailure.message;
    } catch (const std::bad_alloc&) {
        failure.kind = FailureKind::Limit;
        failure.message = outOfMemoryMessage();
    }
    return false;
}

bool ServiceEngine::redeliver(Delivery& delivery, ServiceFailure& failure) {
    Delivery returned;
    returned.serverId.swap(delivery.serverId);
    returned.clientId.swap(delivery.clientId);
    returned.events.swap(delivery.events);
    if (returned.events.empty()) {
        return true;
    }
    try {
        store->restore(returned.serverId, returned.clientId, returned.events);
        return true;
    } catch (const StoreFailure& storeFailure) {
        failure.kind = storeFailure.kind;
        failure.message = storeFailure.message;
    }
    return false;
}

std::string ServiceEngine::dispatch(const RequestHeaders& headers, const std::string& body,
                                    Delivery* delivery) {
    const std::string& serviceName = requiredHeader(headers, "Service-Name");
    const bool admin = serviceName == kAdminServiceName;
    if (serviceName != kServiceName && !admin) {
        refuseProtocol("Unknown \"Service-Name\" " + quoted(serviceName) + "; expected " +
                       quoted(kServiceName) + ".");
    }
    const std::string& operation = requiredHeader(headers, "Operation-Name");
    const std::size_t maxBodyBytes = limits().maxBodyBytes;
    if (body.size() > maxBodyBytes) {
        refuseLimit("The request body of " + std::to_string(body.size()) +
                    " bytes exceeds the limit of " + std::to_string(maxBodyBytes) + " bytes.");
    }
    if (admin) {
        return administer(operation, headers);
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
        return getEvents(serverId, clientId, delivery);
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
    ClientList clients;
    store->registerClient(serverId, clientId, clients);
    return sharedClientDocument(clients);
}

std::string ServiceEngine::unregisterClient(const std::string& serverId,
                                            const std::string& clientId) {
    ClientList remaining;
    store->unregisterClient(serverId, clientId, remaining);
    return sharedClientDocument(remaining);
}

std::string ServiceEngine::putEvents(const std::string& serverId, const std::string& clientId,
                                     const std::string& body) {
    if (!fitsXmlDocument(body)) {
        // A sender that is not registered hears that first, as it would had
        // its event been fine.
        ClientList clients;
        store->clients(serverId, clients);
        if (std::find(clients.begin(), clients.end(), clientId) == clients.end()) {
            refuseProtocol(notRegisteredMessage(serverId, clientId));
        }
        refuseProtocol("The event of client " + quoted(clientId) +
                       " holds control characters, U+FFFE, U+FFFF or bytes that are not "
                       "UTF-8, which an XML document cannot carry.");
    }
    ClientList clients;
    store->post(serverId, clientId, body, clients);
    return sharedClientDocument(clients);
}

std::string ServiceEngine::getEvents(const std::string& serverId, const std::string& clientId,
                                     Delivery* delivery) {
    std::vector<StoredEvent> taken;
    store->take(serverId, clientId, taken);
    std::string document;
    try {
        EventsDocument events;
        for (const StoredEvent& event : taken) {
            events.add(event.sender, event.sequence, *event.text);
        }
        document = events.finish();
        if (delivery != nullptr && !taken.empty()) {
            delivery->serverId = serverId;
            delivery->clientId = clientId;
            delivery->events.swap(taken);
        }
    } catch (const std::bad_alloc&) {
        // No answer leaves: the events go back where they were.
        store->restore(serverId, clientId, taken);
        throw;
    }
    return document;
}

std::string ServiceEngine::getSharedClients(const std::string& serverId) {
    ClientList clients;
    store->clients(serverId, clients);
    return sharedClientDocument(clients);
}

std::string ServiceEngine::administer(const std::string& operation, const RequestHeaders& headers) {
    if (operation == "listClients") {
        auto server = headers.find("Server-ID");
        std::vector<ClientInfo> clients;
        store->listClients(server == headers.end() ? std::string() : server->second, clients);
        ClientsDocument document;
        for (const ClientInfo& client : clients) {
            document.add(client);
        }
        return document.finish();
    }
    if (operation != "evictClient") {
        refuseProtocol("Unknown \"Operation-Name\" " + quoted(operation) + " of \"Service-Name\" " +
                       quoted(kAdminServiceName) + ".");
    }
    const std::string& serverId = requiredHeader(headers, "Server-ID");
    const std::string& clientId = requiredHeader(headers, "Client-ID");
    ClientList clients;
    store->clients(serverId, clients);
    if (std::find(clients.begin(), clients.end(), clientId) == clients.end()) {
        refuseProtocol(notRegisteredMessage(serverId, clientId));
    }
    // Should the client leave meanwhile, unregistering it again is no error.
    return unregisterClient(serverId, clientId);
}

void ServiceEngine::expireIdleClients(std::chrono::milliseconds idle,
                                      std::vector<ClientInfo>& expired) {
    store->expireIdleClients(epochMilliseconds() - idle.count(), expired);
}

bool ServiceEngine::ready(std::string& cause) {
    try {
        store->ping();
        return true;
    } catch (const StoreFailure& failure) {
        cause = failure.message;
    } catch (const std::bad_alloc&) {
        cause = outOfMemoryMessage();
    }
    return false;
}

std::string ServiceEngine::describeStore() const {
    return store->describe();
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
