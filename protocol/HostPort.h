// Host and port as every address of this system writes them: "host",
// "host:port", "[IPv6]" or "[IPv6]:port". The transport's URL, the Redis URL
// and quorveld's --listen all read them here, each with its own defaults.
// Plain functions, safe from any thread.
#ifndef AVQVL_PROTOCOL_HOSTPORT_H
#define AVQVL_PROTOCOL_HOSTPORT_H

#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Protocol {

// Splits text into host (without the brackets of an IPv6 address) and port
// (the digits after the colon as written; empty when there is none). The host
// may come out empty: the caller decides whether that means a default. False
// with problem set (a phrase, no capital, no full stop) when a "[" is not
// closed, anything but ":port" follows the "]", or an unbracketed host holds a
// colon.
bool splitHostPort(const std::string& text, std::string& host, std::string& port,
                   std::string& problem);

// The port number written in text: digits only, from lowest (0 or 1) to 65535.
bool parsePort(const std::string& text, int lowest, int& port);

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_PROTOCOL_HOSTPORT_H
