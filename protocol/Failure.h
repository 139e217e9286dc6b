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

// The transport result code the client reads for a failure of this kind.
constexpr int32_t failureCode(FailureKind kind) {
    return kind == FailureKind::Limit ? AVQVL_LIMIT : AVQVL_REFUSED;
}

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_PROTOCOL_FAILURE_H
