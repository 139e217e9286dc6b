// What stands behind the AvQvl_ functions: something that takes one request
// (header fields and body, UTF-8) and answers it. The AvQvl_ state machine in
// AvQvlBinding.cpp knows only this interface; the embedded service is the
// default; QUORVEL_URL selects the HTTP backend instead (BackendSelection.cpp).
#ifndef AVQVL_TRANSPORT_INTERNAL_BACKEND_H
#define AVQVL_TRANSPORT_INTERNAL_BACKEND_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "transport/AvQvlBinding.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

using HeaderFields = std::map<std::string, std::string>;

// Not Protocol::Failure: a backend fails in more ways than the service refuses
// (unreachable, timed out, connection lost, token refused, another answer), so
// it carries the transport's code itself; the service's two kinds reach it
// through Protocol::failureCode().
struct BackendFailure {
    int32_t code = 0;  // one of the failure codes of AvQvlBinding.h
    std::string message;
};

class Backend {
public:
    virtual ~Backend() = default;
    // The largest body the backend accepts; the transport stops collecting a
    // longer one early instead of buffering it.
    virtual std::size_t maxBodyBytes() const = 0;
    // True with the response filled, or false with the failure filled. Called
    // from any number of threads at once.
    virtual bool exchange(const HeaderFields& headers, const std::string& body,
                          std::string& response, BackendFailure& failure) = 0;
};

// The backend every exchange of the process uses, chosen and created on first
// use: the HTTP backend when QUORVEL_URL is set and not empty, else the embedded
// service. The environment is read once; later changes have no effect.
Backend& activeBackend();

// The reference service running inside the process.
Backend& embeddedBackend();

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_BACKEND_H
