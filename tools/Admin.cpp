#include "tools/Admin.h"

#include <stdlib.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "protocol/Names.h"
#include "tools/Exchange.h"
#include "tools/Failure.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

namespace Arvant::Net::AvQuorvel::Tools {

namespace {

// A number attribute; a missing or malformed one is a malformed answer.
template <typename T>
T numberAttribute(const Util::XMLNode& node, const char* name) {
    const std::string text = node.getAttribute(name);
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < 0) {
        throw Util::DomException(std::string("The service's client list has a ") + name +
                                 " that is not a number: \"" + text + "\".");
    }
    return static_cast<T>(value);
}

}  // namespace

void useAdminToken(const std::string& path) {
    std::ifstream file(path);
    std::string token;
    if (!file || !std::getline(file, token)) {
        const int error = errno;
        throw ToolError(kExitUsage, "UsageError",
                        "cannot read the admin token from --admin-token-file " + path + ": " +
                            (error != 0 ? std::strerror(error) : "the file is empty"));
    }
    if (!token.empty() && token.back() == '\r') {
        token.pop_back();
    }
    if (token.empty()) {
        throw ToolError(kExitUsage, "UsageError",
                        "the first line of --admin-token-file " + path + " is empty");
    }
    ::setenv("QUORVEL_TOKEN", token.c_str(), 1);
}

void listRegisteredClients(const std::string& server, std::vector<RegisteredClient>& clients) {
    const std::string response =
        sendExchange({{Protocol::kServiceNameField, Protocol::kAdminServiceName},
                      {Protocol::kOperationNameField, Protocol::kListClients},
                      {Protocol::kLogCorrelationIdField, "quorvel.admin.clients"},
                      {Protocol::kServerIdField, server}},
                     "listClients");
    Util::SAXToNodeParser parser;  // owns the tree
    const Util::XMLNode* root = parser.parseString(response);
    if (root == nullptr || root->localName != "clients") {
        throw Util::DomException("The service did not answer with a list of clients.");
    }
    for (const Util::XMLNode* node : root->children) {
        if (node == nullptr || node->localName != "client") {
            continue;
        }
        RegisteredClient client;
        client.server = node->getAttribute("serverId");
        client.client = node->getAttribute("clientId");
        client.waitingEvents = numberAttribute<std::uint64_t>(*node, "waitingEvents");
        client.waitingBytes = numberAttribute<std::uint64_t>(*node, "waitingBytes");
        client.registeredMs = numberAttribute<std::int64_t>(*node, "registeredMs");
        client.lastFetchMs = numberAttribute<std::int64_t>(*node, "lastFetchMs");
        clients.push_back(client);
    }
}

void evictClient(const std::string& server, const std::string& client,
                 std::vector<std::string>& remaining) {
    exchangeForClients(Protocol::kAdminServiceName, Protocol::kEvictClient, "quorvel.admin.evict",
                       server, client, remaining);
}

std::string isoTime(std::int64_t unixMs) {
    if (unixMs == 0) {
        return "never";
    }
    const time_t seconds = static_cast<time_t>(unixMs / 1000);
    struct tm utc {};
    ::gmtime_r(&seconds, &utc);
    char text[64];  // room for any year snprintf can be given
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(unixMs % 1000));
    return text;
}

}  // namespace Arvant::Net::AvQuorvel::Tools
