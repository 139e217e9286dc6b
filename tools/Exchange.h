// Exchanges the library has no call for (listing a server's clients without
// registering, the operator's admin service), sent through the public
// AvQVLRequest exactly as the library sends its own.
#ifndef AVQVL_TOOLS_EXCHANGE_H
#define AVQVL_TOOLS_EXCHANGE_H

#include <string>
#include <utility>
#include <vector>

namespace Arvant::Net::AvQuorvel::Tools {

using HeaderList = std::vector<std::pair<const char*, std::string>>;

// Sends one exchange with `headers` and a body naming `operation`, and returns
// the answer. Initialises the transport first; the XML library must be up
// (a live AvQVLConnection in the process keeps it so). Throws what the
// library's operations throw.
std::string sendExchange(const HeaderList& headers, const std::string& operation);

// Sends `operation` of `service` about one client (server and client set) and
// appends the clients of the sharedClients document it answers to `clients`.
void exchangeForClients(const char* service, const char* operation,
                        const std::string& correlationId, const std::string& server,
                        const std::string& client, std::vector<std::string>& clients);

// Appends the identifiers of a sharedClients document to `clients`. Throws
// DomException when the answer is empty or malformed.
void parseSharedClients(const std::string& document, std::vector<std::string>& clients);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_EXCHANGE_H
