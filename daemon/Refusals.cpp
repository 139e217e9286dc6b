#include "daemon/Refusals.h"

#include "daemon/GuardedServer.h"
#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

int refusalStatus(Unreadable why) {
    switch (why) {
        case Unreadable::HeadTooLong:
        case Unreadable::HeaderLineTooLong:
            return Wire::kHeadTooLargeStatus;
        case Unreadable::BodyTooLong:
            return Wire::kBodyTooLargeStatus;
        case Unreadable::Late:
        case Unreadable::Stalled:
            break;
    }
    return 408;
}

std::string refusalText(Unreadable why, const ConnectionLimits& limits) {
    switch (why) {
        case Unreadable::HeadTooLong:
            return "The request head is longer than " + std::to_string(limits.maxHeadBytes) +
                   " bytes.";
        case Unreadable::HeaderLineTooLong:
            return "A request header line is longer than " + std::to_string(kHeaderLineBytes) +
                   " bytes.";
        case Unreadable::Late:
            return "The request did not arrive within " + std::to_string(limits.requestTimeoutMs) +
                   " ms.";
        case Unreadable::Stalled:
            return "The client sent nothing for " + std::to_string(limits.readTimeoutMs) +
                   " ms in the middle of its request.";
        case Unreadable::BodyTooLong:
            break;
    }
    return "The request body exceeds the limit of " + std::to_string(limits.maxBodyBytes) +
           " bytes.";
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
