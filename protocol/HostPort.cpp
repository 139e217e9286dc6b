#include "protocol/HostPort.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Protocol {

bool splitHostPort(const std::string& text, std::string& host, std::string& port,
                   std::string& problem) {
    std::size_t portStart = std::string::npos;
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string::npos) {
            problem = "the IPv6 address has no closing \"]\"";
            return false;
        }
        if (close + 1 < text.size() && text[close + 1] != ':') {
            problem = "only a port may follow the IPv6 address";
            return false;
        }
        host = text.substr(1, close - 1);
        portStart = close + 1 < text.size() ? close + 2 : std::string::npos;
    } else {
        const std::size_t colon = text.find(':');
        if (colon != std::string::npos && text.find(':', colon + 1) != std::string::npos) {
            problem = "an IPv6 address needs brackets";
            return false;
        }
        host = text.substr(0, colon);
        portStart = colon == std::string::npos ? colon : colon + 1;
    }
    port = portStart == std::string::npos ? std::string() : text.substr(portStart);
    return true;
}

bool parsePort(const std::string& text, int lowest, int& port) {
    // Five digits at the most keep the sum far from overflowing.
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    int value = 0;
    for (const char digit : text) {
        value = value * 10 + (digit - '0');
    }
    if (value < lowest || value > 65535) {
        return false;
    }
    port = value;
    return true;
}

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
