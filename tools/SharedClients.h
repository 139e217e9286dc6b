// The clients of a server, listed without registering. The library's
// getSharedClients needs a registered connection, and registering would add
// the caller to the very list it asks for; the service lists any server's
// clients, so the tool sends that one exchange itself through the public
// AvQVLRequest.
#ifndef AVQVL_TOOLS_SHAREDCLIENTS_H
#define AVQVL_TOOLS_SHAREDCLIENTS_H

#include <string>
#include <vector>

namespace Arvant::Net::AvQuorvel::Tools {

// Appends the clients registered under `server` to `clients`. `client` is sent
// as the asking client's identifier and need not be registered. Needs a live
// AvQVLConnection in the process (it keeps the XML library initialised).
// Throws what the library's operations throw.
void listSharedClients(const std::string& server, const std::string& client,
                       std::vector<std::string>& clients);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_SHAREDCLIENTS_H
