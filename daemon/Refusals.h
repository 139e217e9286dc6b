// The daemon's answers to requests it could not read whole, in one place: the
// connection guard gives some before the HTTP library has a request at all,
// the daemon's handlers the others.
#ifndef AVQVL_DAEMON_REFUSALS_H
#define AVQVL_DAEMON_REFUSALS_H

#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

struct ConnectionLimits;

enum class Unreadable {
    HeadTooLong,        // 431
    HeaderLineTooLong,  // 431
    Late,               // 408: not all there within the request time-out
    Stalled,            // 408: silent for the read time-out in the middle
    BodyTooLong         // 413
};

int refusalStatus(Unreadable why);
// The message, without a line end.
std::string refusalText(Unreadable why, const ConnectionLimits& limits);

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_REFUSALS_H
