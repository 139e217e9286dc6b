#include "tools/SharedClients.h"

#include "protocol/Names.h"
#include "tools/Exchange.h"

namespace Arvant::Net::AvQuorvel::Tools {

void listSharedClients(const std::string& server, const std::string& client,
                       std::vector<std::string>& clients) {
    exchangeForClients(Protocol::kServiceName, Protocol::kGetSharedClients, "quorvel.clients",
                       server, client, clients);
}

}  // namespace Arvant::Net::AvQuorvel::Tools
