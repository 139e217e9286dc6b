// Where the HTTP backend finds the daemon: QUORVEL_URL taken apart once, when
// the backend is made. Accepted: http:// or https://, a host name, an IPv4
// address or an IPv6 address in brackets, an optional port (80 and 443 by
// default) and an optional path the exchange path is appended to (for a daemon
// behind a proxy that serves it under a prefix). No user name, query or
// fragment. Plain values, no sharing concerns.
#ifndef AVQVL_TRANSPORT_INTERNAL_HTTPURL_H
#define AVQVL_TRANSPORT_INTERNAL_HTTPURL_H

#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

struct HttpUrl {
    bool secure = false;         // https://
    std::string host;            // as a name or address, without the brackets of IPv6
    std::string port;            // digits
    std::string hostHeader;      // the value of the Host header: as written in the URL
    std::string target;          // the path prefix followed by the exchange path
    bool hostIsAddress = false;  // an IPv4 or IPv6 literal, not a name
};

// False with problem set (a sentence naming QUORVEL_URL) when text is not a URL
// of the form above.
bool parseHttpUrl(const std::string& text, HttpUrl& url, std::string& problem);

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_HTTPURL_H
