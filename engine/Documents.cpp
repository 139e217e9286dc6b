#include "engine/Documents.h"

#include <utility>

#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

const char* const kSchemaNamespace = "http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base";

namespace {
const char* const kDeclaration = " xmlns:ns0=\"";

const char* referenceFor(char c) {
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '%':
            return "&#x25;";
        case '"':
            return "&quot;";
        case '\'':
            return "&apos;";
        case '\n':
            return "&#10;";
        case '\t':
            return "&#9;";
        default:
            return nullptr;
    }
}

void openRoot(std::string& text, const char* name) {
    text += "\n<ns0:";
    text += name;
    text += kDeclaration;
    text += kSchemaNamespace;
    text += "\">";
}
}  // namespace

void appendEscaped(std::string& out, const std::string& text) {
    out.reserve(out.size() + text.size());
    for (char c : text) {
        const char* reference = referenceFor(c);
        if (reference == nullptr) {
            out += c;
        } else {
            out += reference;
        }
    }
}

SharedClientsDocument::SharedClientsDocument() {
    openRoot(text, "sharedClientIDs");
}

void SharedClientsDocument::add(const std::string& clientId) {
    text += "<ns0:sharedClients>";
    appendEscaped(text, clientId);
    text += "</ns0:sharedClients>";
}

std::string SharedClientsDocument::finish() {
    text += "</ns0:sharedClientIDs>";
    return std::move(text);
}

EventsDocument::EventsDocument() {
    openRoot(text, "events");
}

void EventsDocument::add(const std::string& sender, std::uint64_t sequence,
                         const std::string& event) {
    text += "\n<ns0:event sender=\"";
    appendEscaped(text, sender);
    text += "\" sequence=\"";
    text += std::to_string(sequence);
    text += "\">";
    appendEscaped(text, event);
    text += "</ns0:event>";
}

std::string EventsDocument::finish() {
    text += "</ns0:events>";
    return std::move(text);
}

namespace {
void appendAttribute(std::string& text, const char* name, const std::string& value) {
    text += ' ';
    text += name;
    text += "=\"";
    appendEscaped(text, value);
    text += '"';
}
}  // namespace

ClientsDocument::ClientsDocument() {
    openRoot(text, "clients");
}

void ClientsDocument::add(const ClientInfo& client) {
    text += "<ns0:client";
    appendAttribute(text, "serverId", client.serverId);
    appendAttribute(text, "clientId", client.clientId);
    appendAttribute(text, "waitingEvents", std::to_string(client.waitingEvents));
    appendAttribute(text, "waitingBytes", std::to_string(client.waitingBytes));
    appendAttribute(text, "registeredMs", std::to_string(client.registeredMs));
    appendAttribute(text, "lastFetchMs", std::to_string(client.lastFetchMs));
    text += "/>";
}

std::string ClientsDocument::finish() {
    text += "</ns0:clients>";
    return std::move(text);
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
