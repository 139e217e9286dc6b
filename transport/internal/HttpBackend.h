// The backend that carries each exchange to a quorveld daemon over HTTP (or
// HTTPS: libcurl does TLS and checks the daemon's certificate against the
// system's authorities). The protocol is in HttpWire.h.
//
// Each calling thread has its own libcurl easy handle, reused for all of that
// thread's exchanges, so its TCP connection stays open between exchanges and
// threads never wait for each other.
//
// Failures: the daemon cannot be reached -2999, no answer in time -2998, the
// connection broke during the exchange -2997, the service refused the request
// -3017 (its own message), a limit -3016, any other answer -3099 with the HTTP
// status and the service's message.
#ifndef AVQVL_TRANSPORT_INTERNAL_HTTPBACKEND_H
#define AVQVL_TRANSPORT_INTERNAL_HTTPBACKEND_H

#include <memory>
#include <string>

#include "transport/internal/Backend.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

struct HttpSettings {
    std::string url;  // base URL of the daemon, e.g. "http://127.0.0.1:7070"
    long timeoutMs = 30000;
    long connectTimeoutMs = 5000;
    // When not empty, every exchange fails with -2999 and this message (a
    // setting from the environment that cannot be used).
    std::string problem;
};

// QUORVEL_URL, QUORVEL_TIMEOUT_MS and QUORVEL_CONNECT_TIMEOUT_MS. Returns false
// when QUORVEL_URL is unset or empty (the embedded service is then used).
bool httpSettingsFromEnvironment(HttpSettings& settings);

std::unique_ptr<Backend> makeHttpBackend(const HttpSettings& settings);

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_HTTPBACKEND_H
