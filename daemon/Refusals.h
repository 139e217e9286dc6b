// The server's answers to requests it could not read whole, in one place:
// their statuses and messages.
#ifndef AVQVL_DAEMON_REFUSALS_H
#define AVQVL_DAEMON_REFUSALS_H

#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

struct ServerLimits;

enum class Unreadable {
    HeadTooLong,        // 431
    HeaderLineTooLong,  // 431
    Late,               // 408: not all there within the request time-out
    Stalled,            // 408: silent for the read time-out in the middle
    BodyTooLong,        // 413
    BadFraming,         // 400: Content-Length and Transfer-Encoding, or a bad length
    BadChunk,           // 400: a malformed chunk of a chunked body
    NoLength,           // 411: a body announced by neither
    Malformed           // 400: anything else the parser could not read
};

int refusalStatus(Unreadable why);
// The message, without a line end.
std::string refusalText(Unreadable why, const ServerLimits& limits);

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_REFUSALS_H
