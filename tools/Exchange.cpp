#include "tools/Exchange.h"

#include <sstream>

#include "client/AvQVLRequest.h"
#include "protocol/Names.h"
#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

namespace Arvant::Net::AvQuorvel::Tools {

std::string sendExchange(const HeaderList& headers, const std::string& operation) {
    Client::initTransport();
    Client::AvQVLRequest request;
    for (const auto& header : headers) {
        request.addHeader(header.first, header.second.c_str());
    }
    // The body ends with a NUL byte, as the library's own requests do.
    const std::string text = "AvQVL " + operation + " Operation";
    std::istringstream body(std::string(text.c_str(), text.size() + 1));
    request.setRequestStream(&body);
    return request.send();
}

void parseSharedClients(const std::string& document, std::vector<std::string>& clients) {
    Util::SAXToNodeParser parser;  // owns the tree
    const Util::XMLNode* root = parser.parseString(document);
    if (root == nullptr) {
        throw Util::DomException(
            "The service answered the list of clients with an empty document.");
    }
    Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs list;
    list.parse(*root);
    list.getSharedClients(clients);
}

void exchangeForClients(const char* service, const char* operation,
                        const std::string& correlationId, const std::string& server,
                        const std::string& client, std::vector<std::string>& clients) {
    const std::string response = sendExchange({{Protocol::kServiceNameField, service},
                                               {Protocol::kOperationNameField, operation},
                                               {Protocol::kLogCorrelationIdField, correlationId},
                                               {Protocol::kServerIdField, server},
                                               {Protocol::kClientIdField, client}},
                                              operation);
    parseSharedClients(response, clients);
}

}  // namespace Arvant::Net::AvQuorvel::Tools
