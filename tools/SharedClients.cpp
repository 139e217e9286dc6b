#include "SharedClients.h"

#include <sstream>

#include "client/AvQVLRequest.h"
#include "protocol/Names.h"
#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

namespace Quorvel {

using Arvant::Net::AvQuorvel::Client::AvQVLRequest;
using Arvant::Net::AvQuorvel::Util::DomException;
using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::XMLNode;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

void listSharedClients(const std::string& server, const std::string& client,
                       std::vector<std::string>& clients) {
    Arvant::Net::AvQuorvel::Client::initTransport();
    AvQVLRequest request;
    request.addHeader(Protocol::kServiceNameField, Protocol::kServiceName);
    request.addHeader(Protocol::kOperationNameField, Protocol::kGetSharedClients);
    request.addHeader(Protocol::kLogCorrelationIdField, "quorvel.clients");
    request.addHeader(Protocol::kServerIdField, server.c_str());
    request.addHeader(Protocol::kClientIdField, client.c_str());
    // The body ends with a NUL byte, as the library's own requests do.
    std::istringstream body(std::string("AvQVL getClients Operation", 27));
    request.setRequestStream(&body);
    const std::string response = request.send();

    SAXToNodeParser parser;  // owns the tree
    const XMLNode* root = parser.parseString(response);
    if (root == nullptr) {
        throw DomException("The service answered the list of clients with an empty document.");
    }
    SharedClientIDs list;
    list.parse(*root);
    list.getSharedClients(clients);
}

}  // namespace Quorvel
