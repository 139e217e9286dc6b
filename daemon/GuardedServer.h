// An httplib::Server that serves each accepted connection itself, so every
// request is bounded however slowly its client sends:
//   - the request head (request line and header lines) may hold at most
//     maxHeadBytes, and a header line at most headerLineBytes (the most the
//     library reads); a longer one is answered 431,
//   - the whole request, head and body, must arrive within requestTimeoutMs of
//     its first byte; a late one is answered 408,
//   - a connection that sends nothing for readTimeoutMs in the middle of a
//     request, or keepAliveMs between requests, is closed,
//   - once stop() is asked for, idle kept-alive connections close at once and
//     busy ones after their answer,
//   - while accepted connections wait for a worker, a connection that has been
//     idle for a moment (kept alive, or never sent anything) closes and gives
//     its worker up, so silent clients cannot hold every worker.
// The HTTP parsing stays the library's: this class only hands it the bytes.
#ifndef AVQVL_DAEMON_GUARDEDSERVER_H
#define AVQVL_DAEMON_GUARDEDSERVER_H

#include <httplib.h>

#include <atomic>
#include <cstddef>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

// The longest head line the HTTP library reads (its build's header limit).
constexpr std::size_t kHeaderLineBytes = 8192;

struct ConnectionLimits {
    long readTimeoutMs = 5000;
    long requestTimeoutMs = 30000;
    long keepAliveMs = 5000;
    std::size_t keepAliveRequests = 1000;
    std::size_t maxHeadBytes = 64 * 1024;
    std::size_t maxBodyBytes = 16 * 1024 * 1024;  // for the refusal texts only
};

// Why the request being read on this thread failed, if it did.
struct RequestTrouble {
    bool late = false;     // passed the request time-out
    bool stalled = false;  // nothing came for the read time-out
    bool headTooLong = false;
    bool headerLineTooLong = false;  // the library then gives up on the head
    bool closeAfterAnswer = false;   // the request could not be read as a whole
};
// The trouble of the request this worker thread is reading (for handlers).
const RequestTrouble& currentRequestTrouble();
// Called when the head has been read (from the pre-routing handler): the head
// limit no longer counts what follows.
void markRequestHeadRead();
// The connection closes once the current answer is written.
void markCloseAfterAnswer();

class GuardedServer : public httplib::Server {
public:
    // Serves connections on `workers` threads.
    GuardedServer(const ConnectionLimits& limits, std::size_t workers);
    // Called once bound: the library listens with a backlog of 5, so a burst of
    // connections would wait a second for their SYN to be sent again.
    void widenBacklog();
    // Idle connections close, busy ones after their answer, and listening ends
    // (at once, or as soon as it starts). Safe from any thread.
    void beginStop();

private:
    bool process_and_close_socket(socket_t sock) override;

    const ConnectionLimits limits;
    std::atomic<bool> stopping{false};
    // Accepted connections no worker has taken yet.
    std::atomic<long> waitingConnections{0};
    std::atomic<socket_t> listeningSocket{INVALID_SOCKET};
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_GUARDEDSERVER_H
