// The connections of HttpServer: what they share with the server (limits,
// handler, the set of open connections for stop()) and how one is started.
// Each connection runs on a strand of its own, so its handlers never run at
// the same time; the shared state below is guarded for the I/O threads.
#ifndef AVQVL_DAEMON_INTERNAL_CONNECTION_H
#define AVQVL_DAEMON_INTERNAL_CONNECTION_H

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "daemon/HttpServer.h"
#include "daemon/Log.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

class ConnectionBase;

struct ServerCore {
    ServerCore(const ServerLimits& limits, HttpHandler& handler, Log* log)
        : limits(limits), handler(handler), log(log) {}

    void add(ConnectionBase* connection);
    void remove(ConnectionBase* connection);
    // Sets stopping and asks every open connection to stop.
    void stopAll();
    std::size_t openConnections() const { return open.load(); }
    // Logs text when there is a log; never throws.
    void note(LogLevel level, const std::string& text) const noexcept;

    const ServerLimits limits;
    HttpHandler& handler;
    Log* const log;  // may be null
    std::atomic<bool> stopping{false};

private:
    static constexpr std::size_t kTrimEvery = 1024;

    std::mutex mutex;  // guards connections and closedSinceTrim
    std::unordered_set<ConnectionBase*> connections;
    std::size_t closedSinceTrim = 0;
    std::atomic<std::size_t> open{0};
};

class ConnectionBase : public std::enable_shared_from_this<ConnectionBase> {
public:
    explicit ConnectionBase(ServerCore& core) : core(core) {}
    virtual ~ConnectionBase() { core.remove(this); }
    ConnectionBase(const ConnectionBase&) = delete;
    ConnectionBase& operator=(const ConnectionBase&) = delete;

    // Both run on the connection's strand (they post themselves there).
    virtual void start() = 0;
    // Closes the connection if it is idle, else once its answer is written.
    virtual void stop() = 0;

protected:
    ServerCore& core;
};

// Serves an accepted socket (whose executor is a strand of its own) over TLS
// when tls is not null, else in plain text. The connection keeps itself alive.
void startConnection(ServerCore& core, boost::asio::ip::tcp::socket socket,
                     boost::asio::ssl::context* tls);

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_INTERNAL_CONNECTION_H
