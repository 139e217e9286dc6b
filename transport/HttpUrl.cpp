#include "transport/internal/HttpUrl.h"

#include <arpa/inet.h>

#include "protocol/HostPort.h"
#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

bool refuse(const std::string& text, const std::string& why, std::string& problem) {
    problem = "QUORVEL_URL \"" + text + "\" cannot be used: " + why + ".";
    return false;
}

bool isAddress(int family, const std::string& host) {
    unsigned char bytes[16];
    return inet_pton(family, host.c_str(), bytes) == 1;
}

}  // namespace

bool parseHttpUrl(const std::string& text, HttpUrl& url, std::string& problem) {
    std::size_t at = 0;
    if (text.compare(0, 7, "http://") == 0) {
        url.secure = false;
        at = 7;
    } else if (text.compare(0, 8, "https://") == 0) {
        url.secure = true;
        at = 8;
    } else {
        return refuse(text, "it must start with http:// or https://", problem);
    }
    if (text.find_first_of("?#", at) != std::string::npos) {
        return refuse(text, "a query or fragment has no meaning here", problem);
    }
    for (const char c : text) {
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7F) {
            return refuse(text, "it holds a space or a control character", problem);
        }
    }
    const std::size_t pathStart = text.find('/', at);
    const std::string authority =
        text.substr(at, pathStart == std::string::npos ? std::string::npos : pathStart - at);
    if (authority.find('@') != std::string::npos) {
        return refuse(text, "a user name or password has no meaning here", problem);
    }

    std::string portText, why;
    if (!Protocol::splitHostPort(authority, url.host, portText, why)) {
        return refuse(text, why, problem);
    }
    if (!authority.empty() && authority[0] == '[') {
        if (!isAddress(AF_INET6, url.host)) {
            return refuse(text, "\"" + url.host + "\" is not an IPv6 address", problem);
        }
        url.hostIsAddress = true;
    } else {
        url.hostIsAddress = isAddress(AF_INET, url.host);
    }
    if (url.host.empty()) {
        return refuse(text, "it names no host", problem);
    }
    if (portText.empty()) {
        url.port = url.secure ? "443" : "80";
    } else {
        int port = 0;
        if (!Protocol::parsePort(portText, 1, port)) {
            return refuse(text, "the port must be a number from 1 to 65535", problem);
        }
        url.port = std::to_string(port);
    }
    url.hostHeader = authority;

    std::string prefix = pathStart == std::string::npos ? "" : text.substr(pathStart);
    while (!prefix.empty() && prefix.back() == '/') {
        prefix.pop_back();
    }
    url.target = prefix + Wire::kExchangePath;
    return true;
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
