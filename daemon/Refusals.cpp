#include "daemon/Refusals.h"

#include "daemon/HttpServer.h"
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
            return 408;
        case Unreadable::NoLength:
            return 411;
        case Unreadable::BadFraming:
        case Unreadable::BadChunk:
        case Unreadable::Malformed:
            break;
    }
    return Wire::kMalformedStatus;
}

std::string refusalText(Unreadable why, const ServerLimits& limits) {
    switch (why) {
        case Unreadable::HeadTooLong:
            return "The request head is longer than " + std::to_string(limits.maxHeadBytes) +
                   " bytes.";
        case Unreadable::HeaderLineTooLong:
            return "A request header line is longer than " +
                   std::to_string(Protocol::kMaxHeaderLineBytes) + " bytes.";
        case Unreadable::Late:
            return "The request did not arrive within " + std::to_string(limits.requestTimeoutMs) +
                   " ms.";
        case Unreadable::Stalled:
            return "The client sent nothing for " + std::to_string(limits.readTimeoutMs) +
                   " ms in the middle of its request.";
        case Unreadable::BodyTooLong:
            return "The request body exceeds the limit of " + std::to_string(limits.maxBodyBytes) +
                   " bytes.";
        case Unreadable::BadFraming:
            return "The request must give its body length as one decimal Content-Length or "
                   "as Transfer-Encoding: chunked, not both.";
        case Unreadable::BadChunk:
            return "The chunked request body is malformed.";
        case Unreadable::NoLength:
            return "The request has a body but no Content-Length.";
        case Unreadable::Malformed:
            break;
    }
    return "The request is not a valid HTTP/1.1 request.";
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
