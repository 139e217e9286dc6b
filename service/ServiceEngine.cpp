#include "service/ServiceEngine.h"

#include <algorithm>
#include <new>
#include <set>
#include <utility>

#include "schemas/SharedClientIDs.h"
#include "util/XmlStream.h"
#include "util/XmlText.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Service {

using Arvant::Net::AvQuorvel::Util::escapeXml;
using Arvant::Net::AvQuorvel::Util::XmlStream;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

namespace {

const char* const kServiceName = "AvQVLRequest";
const char* const kSharedClientsElement = "sharedClientIDs";
const char* const kEventsElement = "events";
const char* const kEventElement = "event";

// Thrown inside the engine and turned into a ServiceFailure at its edge.
struct Refusal {
    int32_t code;
    std::string message;
};

[[noreturn]] void refuseProtocol(const std::string& message) {
    throw Refusal{protocolFailureCode, message};
}

[[noreturn]] void refuseLimit(const std::string& message) {
    throw Refusal{limitFailureCode, message};
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
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = p + text.size();
    while (p < end) {
        const unsigned char lead = *p;
        if (lead < 0x80) {
            if (lead < 0x20 && lead != '\t' && lead != '\n' && lead != '\r') {
                return false;
            }
            ++p;
            continue;
        }
        if (lead < 0xC0 || lead > 0xF7) {
            return false;  // a continuation byte, or no lead byte of UTF-8
        }
        const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
        static const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};  // below: overlong
        uint32_t code = lead & (0x7F >> length);
        if (static_cast<std::size_t>(end - p) < length) {
            return false;
        }
        for (std::size_t i = 1; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) {
                return false;
            }
            code = (code << 6) | (p[i] & 0x3F);
        }
        if (code < least[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF) ||
            code == 0xFFFE || code == 0xFFFF) {
            return false;
        }
        p += length;
    }
    return true;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string schemaNamespace() {
    std::set<std::string> namespaces;
    SharedClientIDs().getNamespaces(namespaces);
    return namespaces.empty() ? std::string() : *namespaces.begin();
}

}  // namespace

ServiceEngine::ServiceEngine(const ServiceLimits& limits) : limits_(limits) {}

bool ServiceEngine::handle(const RequestHeaders& headers, const std::string& body,
                           std::string& response, ServiceFailure& failure) {
    try {
        response = dispatch(headers, body);
        return true;
    } catch (const Refusal& refusal) {
        failure.code = refusal.code;
        failure.message = refusal.message;
    } catch (const std::bad_alloc&) {
        failure.code = limitFailureCode;
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
    if (body.size() > limits_.maxBodyBytes) {
        refuseLimit("The request body of " + std::to_string(body.size()) +
                    " bytes exceeds the limit of " + std::to_string(limits_.maxBodyBytes) +
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

    std::lock_guard<std::mutex> lock(mutex_);
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
    auto group = servers_.find(serverId);
    std::size_t count = 0;
    if (group != servers_.end()) {
        const auto& clients = group->second.clients;
        if (std::any_of(clients.begin(), clients.end(),
                        [&](const Client& client) { return client.id == clientId; })) {
            return sharedClientDocument(serverId);  // already known: pending events stay
        }
        count = clients.size();
    }
    if (count >= limits_.maxClientsPerServer) {
        refuseLimit("Cannot register client " + quoted(clientId) + ": server " + quoted(serverId) +
                    " already has " + std::to_string(count) +
                    " clients, the most one server may have.");
    }
    std::string document;
    ServerGroup& target = servers_[serverId];
    target.clients.push_back(Client{clientId, {}});
    try {
        document = sharedClientDocument(serverId);
    } catch (...) {
        target.clients.pop_back();  // nothing half-done
        if (target.clients.empty()) {
            servers_.erase(serverId);
        }
        throw;
    }
    return document;
}

std::string ServiceEngine::unregisterClient(const std::string& serverId,
                                            const std::string& clientId) {
    std::string document = sharedClientDocument(serverId, &clientId);  // before any change
    auto group = servers_.find(serverId);
    if (group != servers_.end()) {
        auto& clients = group->second.clients;
        clients.erase(std::remove_if(clients.begin(), clients.end(),
                                     [&](const Client& client) { return client.id == clientId; }),
                      clients.end());
        if (clients.empty()) {
            servers_.erase(group);  // the sequence restarts with the next client
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
    ServerGroup& group = servers_.find(serverId)->second;  // exists: the caller is registered
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
        if (recipient.pending.size() >= limits_.maxQueuedEventsPerClient) {
            refuseFull(std::to_string(recipient.pending.size()) +
                       " events waiting, the most a client may have.");
        }
        if (recipient.pendingBytes + body.size() > limits_.maxQueuedBytesPerClient) {
            refuseFull(std::to_string(recipient.pendingBytes) + " bytes of events waiting; " +
                       std::to_string(body.size()) + " more would pass the limit of " +
                       std::to_string(limits_.maxQueuedBytesPerClient) + " bytes.");
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
    const std::string uri = schemaNamespace();
    XmlStream stream;
    stream.addNamespace(uri);
    stream << stream.startTag(uri, kEventsElement) << stream.endStartTag(uri, false);
    for (const Event& event : client.pending) {
        const std::vector<std::pair<std::string, std::string>> attributes = {
            {"sender", escapeXml(event.sender)}, {"sequence", std::to_string(event.sequence)}};
        stream << stream.startElement(uri, kEventElement, attributes) << escapeXml(*event.text)
               << stream.endTag(uri, kEventElement);
    }
    stream << stream.endTag(uri, kEventsElement);
    std::string document = stream.str();
    client.pending.clear();  // only once the document is complete
    client.pendingBytes = 0;
    return document;
}

std::string ServiceEngine::getSharedClients(const std::string& serverId) {
    return sharedClientDocument(serverId);
}

ServiceEngine::Client& ServiceEngine::registeredClient(const std::string& serverId,
                                                       const std::string& clientId) {
    auto group = servers_.find(serverId);
    if (group != servers_.end()) {
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
    SharedClientIDs ids;
    auto group = servers_.find(serverId);
    if (group != servers_.end()) {
        for (const Client& client : group->second.clients) {
            if (leaving == nullptr || client.id != *leaving) {
                ids.addSharedClientID(client.id);
            }
        }
    }
    XmlStream stream;
    ids.outputXML(stream, kSharedClientsElement);
    return stream.str();
}

}  // namespace Service
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
