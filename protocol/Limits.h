// Limits both ends of an HTTP exchange must agree on: the daemon refuses what
// passes them, the HTTP backend refuses to send it. Constants only.
#ifndef AVQVL_PROTOCOL_LIMITS_H
#define AVQVL_PROTOCOL_LIMITS_H

#include <cstddef>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Protocol {

// The longest line of a request head, CR LF included.
constexpr std::size_t kMaxHeaderLineBytes = 8192;

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_PROTOCOL_LIMITS_H
