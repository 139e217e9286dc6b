#include "engine/Documents.h"

#include <array>
#include <utility>

#include "engine/Store.h"
#include "protocol/Names.h"
#include "protocol/XmlEscape.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {
const char* const kDeclaration = " xmlns:ns0=\"";
constexpr std::size_t kRoomAfterText = 256;

void openRoot(std::string& text, const char* name) {
    text += "\n<ns0:";
    text += name;
    text += kDeclaration;
    text += Protocol::kSchemaNamespace;
    text += "\">";
}
}  // namespace

// Runs of characters that stand as they are are copied whole: an event of
// plain text is one append, not a call per character.
void appendEscaped(std::string& out, const std::string& text) {
    // xmlReferenceName's answer for every byte, looked up once.
    static const std::array<const char*, 256> kReferences = [] {
        std::array<const char*, 256> names{};
        for (int c = 0; c < 256; ++c) {
            names[c] = Protocol::xmlReferenceName(static_cast<char>(c));
        }
        return names;
    }();
    // With room for what follows (a closing tag, the next element's start): an
    // exact fit made the next append move the whole document once more.
    out.reserve(out.size() + text.size() + kRoomAfterText);
    const char* const end = text.data() + text.size();
    const char* run = text.data();
    for (const char* at = run; at != end; ++at) {
        const char* reference = kReferences[static_cast<unsigned char>(*at)];
        if (reference != nullptr) {
            out.append(run, at);
            out += '&';
            out += reference;
            run = at + 1;
        }
    }
    out.append(run, end);
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
