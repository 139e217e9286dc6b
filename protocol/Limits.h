// Limits both ends of an HTTP exchange must agree on: the daemon refuses what
// passes them, the HTTP backend refuses to send it.
#ifndef AVQVL_PROTOCOL_LIMITS_H
#define AVQVL_PROTOCOL_LIMITS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Protocol {

// The longest line of a request head, CR LF included.
constexpr std::size_t kMaxHeaderLineBytes = 8192;

// The Wait-Milliseconds field: decimal digits, 0 to kMostWaitMilliseconds.
constexpr std::int64_t kMostWaitMilliseconds = 2147483647;

// True with ms set when text is a wait the field can carry.
inline bool parseWaitMilliseconds(const std::string& text, std::int64_t& ms) {
    bool valid = !text.empty();
    std::int64_t value = 0;
    for (const char c : text) {
        valid = valid && c >= '0' && c <= '9' &&
                (value = value * 10 + (c - '0')) <= kMostWaitMilliseconds;
    }
    ms = valid ? value : 0;
    return valid;
}

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_PROTOCOL_LIMITS_H
