// The backend that carries each exchange to a quorveld daemon over HTTP, or
// HTTPS: TLS over OpenSSL, the daemon's certificate checked against the
// system's authorities (SSL_CERT_FILE and SSL_CERT_DIR override them) and its
// name against the URL's host. The protocol is in HttpWire.h.
//
// A getEvents carries the acknowledgement of the last answer its identity read
// to its end, and a putEvents its own post id (HttpWire.h; IdentityLedger.h
// keeps both). What is read and still unacknowledged when the process ends
// normally is acknowledged then, within the exchange time-out. A request with
// the Wait-Milliseconds field may be held by the daemon that long, so its
// answer is awaited for the exchange time-out plus that wait.
//
// Each calling thread has its own kept-alive connection (HttpConnection.h), so
// threads never wait for each other. Thread-safe; nothing throws but
// std::bad_alloc.
//
// Failures, each naming this exchange's own cause: the daemon cannot be reached
// (refused, unknown host, certificate or TLS failure, a TLS service behind an
// http:// URL, bad settings) -2999; no
// connection within the connect time-out or no answer within the exchange
// time-out -2998; the connection broke before the answer was whole -2997; the
// token refused (401) -2996; the service refused the request -3017 (its own
// message); a limit -3016; a malformed answer, or any other status, -3099. A very
// long message of the service is cut (HttpAnswer.h), with a note of its length.
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
    // When not empty, every request carries "Authorization: Bearer <token>".
    std::string token;
    // When not empty, every exchange fails with -2999 and this message (a
    // setting from the environment that cannot be used).
    std::string problem;
};

// QUORVEL_URL, QUORVEL_TIMEOUT_MS, QUORVEL_CONNECT_TIMEOUT_MS and QUORVEL_TOKEN.
// Returns false when QUORVEL_URL is unset or empty (the embedded service is
// then used).
bool httpSettingsFromEnvironment(HttpSettings& settings);

// The URL is checked here: a bad one makes every exchange fail with -2999.
std::unique_ptr<Backend> makeHttpBackend(const HttpSettings& settings);

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_HTTPBACKEND_H
