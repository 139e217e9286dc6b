#include "engine/Documents.h"

#include <array>
#include <utility>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// xmlReferenceName's answer for every byte, looked up once.
const std::array<const char*, 256>& referenceNames() {
    static const std::array<const char*, 256> names = [] {
        std::array<const char*, 256> all{};
        for (int c = 0; c < 256; ++c) {
            all[c] = Protocol::xmlReferenceName(static_cast<char>(c));
        }
        return all;
    }();
    return names;
}

// The first byte from at on that has a reference, or end. Sixteen bytes are
// compared with every such character at once where SSE2 is there (every
// x86-64): escaping is most of the work of a large answer.
const char* nextToEscape(const char* at, const char* end) {
#if defined(__SSE2__)
    constexpr std::size_t kCount =
        sizeof(Protocol::kXmlReferences) / sizeof(Protocol::kXmlReferences[0]);
    struct Specials {
        __m128i each[kCount];
    };
    static const Specials kSpecial = [] {
        Specials made{};
        for (std::size_t i = 0; i < kCount; ++i) {
            made.each[i] = _mm_set1_epi8(Protocol::kXmlReferences[i].character);
        }
        return made;
    }();
    for (; end - at >= 16; at += 16) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        __m128i hits = _mm_setzero_si128();
        for (const __m128i& special : kSpecial.each) {
            hits = _mm_or_si128(hits, _mm_cmpeq_epi8(chunk, special));
        }
        const int mask = _mm_movemask_epi8(hits);
        if (mask != 0) {
            return at + __builtin_ctz(static_cast<unsigned>(mask));
        }
    }
#endif
    const auto& names = referenceNames();
    while (at != end && names[static_cast<unsigned char>(*at)] == nullptr) {
        ++at;
    }
    return at;
}

}  // namespace

// Runs of characters that stand as they are are copied whole: an event of
// plain text is one append, not a call per character.
void appendEscaped(std::string& out, const std::string& text) {
    // With room for what follows (a closing tag, the next element's start): an
    // exact fit made the next append move the whole document once more.
    out.reserve(out.size() + text.size() + kRoomAfterText);
    const auto& names = referenceNames();
    const char* const end = text.data() + text.size();
    const char* run = text.data();
    for (const char* at = nextToEscape(run, end); at != end; at = nextToEscape(run, end)) {
        out.append(run, at);
        out += '&';
        out += names[static_cast<unsigned char>(*at)];
        run = at + 1;
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
