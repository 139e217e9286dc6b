// quorveld's HTTP server: the reference service engine behind the protocol of
// transport/HttpWire.h. One POST to /quorvel/v1/exchange is one exchange.
//
// Connections are kept alive and served by a fixed pool of worker threads, each
// serving one connection at a time; GuardedServer.h bounds every request in size
// and time. stop() lets the exchanges under way finish and closes idle
// connections; run() then returns once the workers are done.
#ifndef AVQVL_DAEMON_DAEMON_H
#define AVQVL_DAEMON_DAEMON_H

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

#include "engine/ServiceEngine.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

struct DaemonOptions {
    std::string host = "127.0.0.1";
    int port = 7070;  // 0 picks a free port
    Engine::ServiceLimits limits;
    std::size_t workers = 32;
    long readTimeoutMs = 5000;
    long requestTimeoutMs = 30000;
    long keepAliveSeconds = 5;
    std::size_t keepAliveRequests = 1000;
    std::size_t maxHeadBytes = 64 * 1024;
    bool quiet = false;
};

class Daemon {
public:
    // log receives one line per request unless options.quiet. The service's
    // state lives in store, made with options.limits; none means a MemoryStore.
    Daemon(const DaemonOptions& options, std::FILE* log,
           std::unique_ptr<Engine::Store> store = nullptr);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Opens the listening socket; false with error set when that fails.
    bool bind(std::string& error);
    int port() const;
    // Serves until stop(); false when the listening socket failed.
    bool run();
    // Safe from any thread, once run() has been entered or before.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// "HOST:PORT", "[V6HOST]:PORT" or ":PORT"; false with error set otherwise.
bool parseListenAddress(const std::string& text, std::string& host, int& port, std::string& error);

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_DAEMON_H
