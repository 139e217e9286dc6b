// The documents the service answers with, written by the engine itself so
// that it shares no code with the client library that reads them:
//
//   \n<ns0:sharedClientIDs xmlns:ns0="U"><ns0:sharedClients>A</ns0:sharedClients>...
//   </ns0:sharedClientIDs>
//
//   \n<ns0:events xmlns:ns0="U">
//   \n<ns0:event sender="K" sequence="7">text</ns0:event>...</ns0:events>
//
//   \n<ns0:clients xmlns:ns0="U"><ns0:client serverId="S" clientId="C"
//   waitingEvents="2" waitingBytes="10" registeredMs="T" lastFetchMs="0"/>...
//   </ns0:clients>
//
// U is Protocol::kSchemaNamespace. Identifiers, senders and event texts are
// escaped: the characters of Protocol::kXmlReferences become references. Each
// writer is used by one thread; nothing throws but bad_alloc.
#ifndef AVQVL_ENGINE_DOCUMENTS_H
#define AVQVL_ENGINE_DOCUMENTS_H

#include <cstdint>
#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

class SharedClientsDocument {
public:
    SharedClientsDocument();
    void add(const std::string& clientId);
    // The whole document; the writer is spent afterwards.
    std::string finish();

private:
    std::string text;
};

class EventsDocument {
public:
    EventsDocument();
    // Makes room for bytes more in one step: a large answer then grows by no
    // copy of itself, each of which would also touch fresh pages.
    void reserve(std::size_t bytes) { text.reserve(text.size() + bytes); }
    void add(const std::string& sender, std::uint64_t sequence, const std::string& event);
    std::string finish();

private:
    std::string text;
};

struct ClientInfo;

// The operators' list of clients.
class ClientsDocument {
public:
    ClientsDocument();
    void add(const ClientInfo& client);
    std::string finish();

private:
    std::string text;
};

// Appends text with the characters above replaced by references.
void appendEscaped(std::string& out, const std::string& text);

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_DOCUMENTS_H
