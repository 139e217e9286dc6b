#include "tools/SharedClients.h"

#include "tools/Exchange.h"

namespace Arvant::Net::AvQuorvel::Tools {

void listSharedClients(const std::string& server, const std::string& client,
                       std::vector<std::string>& clients) {
    const std::string response = sendExchange({{"Service-Name", "AvQVLRequest"},
                                               {"Operation-Name", "getSharedClients"},
                                               {"Log-Correlation-ID", "quorvel.clients"},
                                               {"Server-ID", server},
                                               {"Client-ID", client}},
                                              "getClients");
    parseSharedClients(response, clients);
}

}  // namespace Arvant::Net::AvQuorvel::Tools
