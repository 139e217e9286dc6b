// quorveld: the reference service engine behind the protocol of wire/HttpWire.h,
// served by HttpServer.h. One POST to /quorvel/v1/exchange is one exchange;
// GET /healthz answers "ok" while the daemon serves (liveness: the store plays no
// part), GET /readyz "ready" while the store answers, else 503 with the cause
// (neither asks for the token: a probe needs none and learns nothing), GET
// /metrics the Prometheus text of Metrics.h (503 with the cause while the store
// fails). Exchanges run on a bounded pool of store threads (WorkPool.h), the
// rest on the I/O threads, which never wait on the store for more than 50 ms.
// With a token, every other request must carry "Authorization: Bearer
// <token>" (401 otherwise, before its body is read). Admin exchanges (Service-Name
// AvQVLAdmin) carry the admin token instead when there is one, and come from a
// loopback peer when there is none (403 otherwise).
//
// A getEvents that asks to wait (Wait-Milliseconds) and finds nothing holds no
// thread: it waits, at most maxWaitSeconds, for a post to its server, then
// looks again and answers. Past maxWaiters such waits, it is answered at once.
// A wait whose connection closes ends without taking anything.
//
// stop() answers the waiting fetches, lets the exchanges under way finish and
// closes idle connections; run() then returns.
#ifndef AVQVL_DAEMON_DAEMON_H
#define AVQVL_DAEMON_DAEMON_H

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

#include "daemon/HttpServer.h"
#include "daemon/Log.h"
#include "engine/ServiceEngine.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

struct DaemonOptions {
    std::string host = "127.0.0.1";
    int port = 7070;  // 0 picks a free port
    Engine::ServiceLimits limits;
    unsigned threads = 1;  // I/O threads
    // Threads that run exchanges (every store call), and how many exchanges may
    // wait for one before the daemon answers 503 (Retry-After: 1).
    unsigned storeThreads = 8;
    std::size_t storeQueue = 1024;
    long readTimeoutMs = 5000;
    long requestTimeoutMs = 30000;
    long keepAliveSeconds = 5;
    std::size_t keepAliveRequests = 1000;
    std::size_t maxHeadBytes = 64 * 1024;
    std::size_t maxConnections = ServerLimits().maxConnections;
    long tlsHandshakeTimeoutMs = ServerLimits().tlsHandshakeTimeoutMs;
    LogLevel logLevel = LogLevel::Info;
    LogFormat logFormat = LogFormat::Text;
    std::string token;  // empty: no Authorization asked for
    // Asked of admin exchanges instead of token; empty: admin exchanges are
    // served to loopback peers only.
    std::string adminToken;
    // Clients that have not fetched for this long are unregistered by a periodic
    // sweep; 0: never (a client is kept until it unregisters).
    long clientIdleExpiryMs = 0;
    // The longest a getEvents waits for a post (the longer waits asked for are
    // cut to it; 0: none waits), and how many wait at once.
    long maxWaitSeconds = 60;
    std::size_t maxWaiters = 10000;
    std::string tlsCertificateFile;  // both set: HTTPS
    std::string tlsKeyFile;
};

class Daemon {
public:
    // Logs to log (not owned) at options.logLevel and above. The service's state
    // lives in store, made with options.limits; none means a MemoryStore.
    Daemon(const DaemonOptions& options, std::FILE* log,
           std::unique_ptr<Engine::Store> store = nullptr);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Loads the TLS files, opens the listening socket; false with error set
    // when that fails.
    bool bind(std::string& error);
    int port() const;
    // Serves until stop(); false when the daemon was not bound.
    bool run();
    // Safe from any thread, once run() has been entered or before.
    void stop();
    // Log messages besides the request lines, in the daemon's log format.
    Log& log();
    // "memory", "SQLite PATH", "Redis URL" with any password masked.
    std::string describeStore() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// "250ms", "30s", "15m", "12h", "7d": a positive whole number and a unit; false
// with error set otherwise.
bool parseDuration(const std::string& text, long& milliseconds, std::string& error);

// "HOST:PORT", "[V6HOST]:PORT" or ":PORT"; false with error set otherwise.
bool parseListenAddress(const std::string& text, std::string& host, int& port, std::string& error);

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_DAEMON_H
