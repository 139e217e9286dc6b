#include "tools/SharedClients.h"

#include "protocol/Names.h"
#include "tools/Exchange.h"

namespace Arvant::Net::AvQuorvel::Tools {

void listSharedClients(const std::string& server, const std::string& client,
                       std::vector<std::string>& clients) {
    const std::string response =
        sendExchange({{Protocol::kServiceNameField, Protocol::kServiceName},
                      {Protocol::kOperationNameField, Protocol::kGetSharedClients},
                      {Protocol::kLogCorrelationIdField, "quorvel.clients"},
                      {Protocol::kServerIdField, server},
                      {Protocol::kClientIdField, client}},
                     "getClients");
    parseSharedClients(response, clients);
}

}  // namespace Arvant::Net::AvQuorvel::Tools
