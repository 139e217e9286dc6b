// quorveld's HTTP/1.1 server on Boost.Asio and Boost.Beast, plain or over TLS.
//
// Event-driven: a connection holds no thread. `threads` I/O threads run every
// connection's reads, writes and time-outs, and the handler's work, which must
// therefore be short. Every connection is bounded in size and time:
//   - at most maxConnections are open, TLS ones still in their handshake
//     included; one accepted past that is closed at once (so a flood meets a
//     closed connection rather than a listen queue that never moves),
//   - a TLS connection that has not finished its handshake within
//     tlsHandshakeTimeoutMs closes (a failed handshake is logged at info),
//   - each request head, measured alone (neither what was pipelined before it
//     nor its body counts), holds at most maxHeadBytes and each of its lines
//     at most Protocol::kMaxHeaderLineBytes (431), its body at most maxBodyBytes (413),
//   - a request must arrive whole within requestTimeoutMs of its first byte,
//     and the client may not fall silent for readTimeoutMs in the middle of it
//     (408, then the connection closes),
//   - a connection with no request under way closes after keepAliveMs,
//   - an answer that makes no progress for readTimeoutMs is abandoned.
// Framing is strict: a head with both Content-Length and Transfer-Encoding, a
// malformed length or chunk, or a body without either is refused at once and
// the connection closes, so no leftover byte is ever read as a request.
// Whatever a handler throws costs at most its request (500) or its connection;
// it never leaves an I/O thread.
//
// Thread safety: stop() may be called from any thread; everything else from
// the thread that owns the server. Handler calls happen on the I/O threads,
// several at once for different connections.
#ifndef AVQVL_DAEMON_HTTPSERVER_H
#define AVQVL_DAEMON_HTTPSERVER_H

#include <boost/asio/any_io_executor.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/Limits.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

class Log;

struct ServerLimits {
    long readTimeoutMs = 5000;
    long requestTimeoutMs = 30000;
    long keepAliveMs = 5000;
    std::size_t keepAliveRequests = 1000;
    std::size_t maxHeadBytes = 64 * 1024;
    std::size_t maxBodyBytes = 16 * 1024 * 1024;
    // A pending TLS connection holds about 90 KB: the default keeps a flood of
    // them near 1.5 GB, and leaves room for ten thousand idle clients.
    std::size_t maxConnections = 16384;
    long tlsHandshakeTimeoutMs = 10000;
};

struct ServerOptions {
    ServerLimits limits;
    unsigned threads = 1;
    // Both set: HTTPS with this PEM certificate chain and private key.
    std::string tlsCertificateFile;
    std::string tlsKeyFile;
    // Where the server tells of failed handshakes and of connections it had to
    // close on an exception; not owned, may be null.
    Log* log = nullptr;
};

using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;

struct HttpReply {
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  // added as they are
    bool close = false;  // the connection closes once the reply is written
    // What the request was about, for the log line and the metrics.
    std::string operation;
    std::string serverId;
    std::string clientId;
    // Called once, on an I/O thread, when the reply has been written whole to the
    // socket (true), or when that failed: the peer closed or reset the
    // connection, it took nothing for the read time-out (false). Delivered means
    // handed to the kernel, not read by the client.
    std::function<void(bool delivered)> onComplete;
};

// One request as it ended, for logs and metrics.
struct RequestOutcome {
    const HttpRequest* request = nullptr;  // null when the head could not be read
    const HttpReply* reply = nullptr;
    std::string peer;      // "ADDRESS:PORT"
    long long micros = 0;  // from the end of the head (or the first byte) to the reply written
};

// The connection of a request its handler answers later (handleLater).
class PendingRequest {
public:
    virtual ~PendingRequest() = default;
    // The connection's strand: what the handler runs there for the request (a
    // timer's handler) never runs at the same time as the connection's own steps.
    virtual boost::asio::any_io_executor executor() = 0;
    // Called on executor() only, until the answer is given. Calls onClosed
    // there, once (a later call replaces it), when the peer closes the
    // connection; the answer given after that is not written. A peer that
    // sends more bytes (the next request, a TLS close) is watched no further
    // unless it has hung up by then.
    virtual void watchClose(std::function<void()> onClosed) = 0;
};

class HttpHandler {
public:
    virtual ~HttpHandler() = default;
    // Once the head is read, before the body: false with refusal filled
    // answers it instead of reading the body, and the connection closes. peer
    // as in RequestOutcome.
    virtual bool admitHead(const HttpRequest& head, const std::string& peer,
                           HttpReply& refusal) = 0;
    // The whole request; fills reply.
    virtual void handle(const HttpRequest& request, HttpReply& reply) = 0;
    // The whole request, answered through done, called exactly once, on any
    // thread, now or later (request and pending live until then; the
    // connection waits). A handler that must not hold an I/O thread overrides
    // this; it must not throw. By default: handle(), then done.
    virtual void handleLater(const HttpRequest& request,
                             const std::shared_ptr<PendingRequest>& pending,
                             std::function<void(HttpReply)> done) {
        (void)pending;
        HttpReply reply;
        try {
            handle(request, reply);
        } catch (...) {
            reply = HttpReply();
            reply.status = 500;
            reply.body = "The server failed to handle the request.\n";
        }
        done(std::move(reply));
    }
    // Every request that got a reply, the server's own refusals included.
    virtual void answered(const RequestOutcome& outcome) = 0;
};

class HttpServer {
public:
    // handler must outlive the server.
    HttpServer(const ServerOptions& options, HttpHandler& handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Loads the TLS files when given and opens the listening socket (with
    // SO_REUSEADDR, never SO_REUSEPORT: a second server on a port in use fails
    // with "address already in use"). False with error set on failure.
    bool bind(const std::string& host, int port, std::string& error);
    int port() const;
    // Serves on the calling thread and threads - 1 more until stop() and the
    // last connection has closed. False when the server was never bound.
    bool run();
    // Listening ends; idle connections close at once, busy ones once their
    // answer is written. Safe from any thread, before or during run().
    void stop();

    std::size_t openConnections() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_HTTPSERVER_H
