// Why the service refused a request, in the one shape every layer passes on:
// the stores throw it by value, the engine hands it back, and those who carry
// the answer (the transport, the daemon) turn its kind into a result code with
// failureCode(). Plain values; header-only.
#ifndef AVQVL_PROTOCOL_FAILURE_H
#define AVQVL_PROTOCOL_FAILURE_H

#include <cstdint>
#include <string>

#include "protocol/ResultCodes.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Protocol {

enum class FailureKind {
    Refused,  // a malformed request, or one the service's rules do not allow
    Limit     // a limit would be passed, the store failed, or memory ran out
};

struct Failure {
    FailureKind kind = FailureKind::Refused;
    std::string message;
};

// How the message of a Limit failure ends when a store call may or may not
// have taken effect (a time-out, a connection lost after the command went out).
// The HTTP backend looks for it to keep a post's id for the retry, so a post
// retried after it is applied once.
constexpr char kUnknownOutcomeEnding[] =
    "the outcome is unknown; retrying the same request is safe";

inline bool hasUnknownOutcome(const std::string& message) {
    const std::size_t length = sizeof kUnknownOutcomeEnding - 1;
    return message.size() >= length &&
           message.compare(message.size() - length, length, kUnknownOutcomeEnding) == 0;
}

// The transport result code the client reads for a failure of this kind.
constexpr int32_t failureCode(FailureKind kind) {
    return kind == FailureKind::Limit ? AVQVL_LIMIT : AVQVL_REFUSED;
}

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_PROTOCOL_FAILURE_H
