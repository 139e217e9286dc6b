#include "daemon/GuardedServer.h"

#include "daemon/Refusals.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

using Clock = std::chrono::steady_clock;

namespace {

constexpr long kStopCheckMs = 50;  // how often an idle connection looks for a stop or a queue

// The library's pool, counting the connections that wait for a worker.
class CountingPool : public httplib::TaskQueue {
public:
    CountingPool(std::size_t workers, std::atomic<long>& waiting)
        : pool(workers), waiting(waiting) {}
    void enqueue(std::function<void()> fn) override {
        ++waiting;
        pool.enqueue([this, fn = std::move(fn)] {
            --waiting;
            fn();
        });
    }
    void shutdown() override { pool.shutdown(); }

private:
    httplib::ThreadPool pool;
    std::atomic<long>& waiting;
};

class ConnectionStream;
thread_local ConnectionStream* currentStream = nullptr;
const RequestTrouble noTrouble;

// Waits for events on sock for at most timeoutMs; true when they came.
bool waitFor(socket_t sock, short events, long timeoutMs) {
    pollfd entry{sock, events, 0};
    for (;;) {
        const int ready = ::poll(&entry, 1, static_cast<int>(std::max(0L, timeoutMs)));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        return ready > 0;
    }
}

void describeAddress(const sockaddr_storage& address, socklen_t length, std::string& ip,
                     int& port) {
    char host[NI_MAXHOST] = {0};
    char service[NI_MAXSERV] = {0};
    if (::getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof host,
                      service, sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
        ip = host;
        port = std::atoi(service);
    }
}

// The bytes of one connection, read through a buffer (the library reads the
// head a byte at a time) and cut off at the limits of the request under way.
class ConnectionStream : public httplib::Stream {
public:
    ConnectionStream(socket_t sock, const ConnectionLimits& limits) : sock(sock), limits(limits) {}

    void startRequest() {
        deadline = Clock::now() + std::chrono::milliseconds(limits.requestTimeoutMs);
        headBytes = 0;
        lineBytes = 0;
        headRead = false;
        wrote = false;
        trouble = RequestTrouble();
    }
    void endHead() { headRead = true; }
    void closeAfterAnswer() { trouble.closeAfterAnswer = true; }
    bool wroteAnything() const { return wrote; }
    bool hasBufferedBytes() const { return next < end; }
    const RequestTrouble& requestTrouble() const { return trouble; }

    bool is_readable() const override {
        return next < end || waitFor(sock, POLLIN, limits.readTimeoutMs);
    }
    bool is_writable() const override { return waitFor(sock, POLLOUT, limits.readTimeoutMs); }

    ssize_t read(char* ptr, size_t size) override {
        if (next == end && !fill()) {
            return -1;
        }
        std::size_t count = std::min(size, end - next);
        if (!headRead) {
            if (headBytes + count > limits.maxHeadBytes) {
                trouble.headTooLong = true;
                return -1;
            }
            headBytes += count;
            countLineBytes(buffer + next, count);
        }
        std::memcpy(ptr, buffer + next, count);
        next += count;
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* ptr, size_t size) override {
        if (!waitFor(sock, POLLOUT, limits.readTimeoutMs)) {
            return -1;
        }
        const ssize_t sent = ::send(sock, ptr, size, MSG_NOSIGNAL);
        if (sent > 0) {
            wrote = true;
        }
        return sent;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (::getpeername(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            describeAddress(address, length, ip, port);
        }
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            describeAddress(address, length, ip, port);
        }
    }
    socket_t socket() const override { return sock; }

private:
    // The library refuses an over-long head line with a bare 400; noting it here
    // lets the answer say why.
    void countLineBytes(const char* bytes, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            if (++lineBytes > kHeaderLineBytes) {  // CR LF included, as the library counts
                trouble.headerLineTooLong = true;
            }
            if (bytes[i] == '\n') {
                lineBytes = 0;
            }
        }
    }

    // Waits within both the read time-out and the request's deadline.
    bool fill() {
        const long leftMs = static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
        if (leftMs <= 0) {
            trouble.late = true;
            return false;
        }
        if (!waitFor(sock, POLLIN, std::min(leftMs, limits.readTimeoutMs))) {
            trouble.late = Clock::now() >= deadline;
            trouble.stalled = !trouble.late;
            return false;
        }
        ssize_t received;
        do {
            received = ::recv(sock, buffer, sizeof buffer, 0);
        } while (received < 0 && errno == EINTR);
        if (received <= 0) {
            return false;
        }
        next = 0;
        end = static_cast<std::size_t>(received);
        return true;
    }

    const socket_t sock;
    const ConnectionLimits& limits;
    char buffer[4096];
    std::size_t next = 0;
    std::size_t end = 0;
    Clock::time_point deadline{};
    std::size_t headBytes = 0;
    std::size_t lineBytes = 0;
    bool headRead = false;
    bool wrote = false;
    RequestTrouble trouble;
};

// A request that failed before the library could answer it (it answers only
// once it has a request line) still gets a clear status.
void answerUnreadable(socket_t sock, const RequestTrouble& trouble,
                      const ConnectionLimits& limits) {
    const Unreadable why = trouble.headTooLong ? Unreadable::HeadTooLong
                           : trouble.late      ? Unreadable::Late
                                               : Unreadable::Stalled;
    const std::string status =
        std::to_string(refusalStatus(why)) +
        (why == Unreadable::HeadTooLong ? " Request Header Fields Too Large" : " Request Timeout");
    const std::string message = refusalText(why, limits) + "\n";
    const std::string reply = "HTTP/1.1 " + status +
                              "\r\nConnection: close\r\nContent-Type: text/plain; "
                              "charset=utf-8\r\nContent-Length: " +
                              std::to_string(message.size()) + "\r\n\r\n" + message;
    if (waitFor(sock, POLLOUT, limits.readTimeoutMs)) {
        (void)::send(sock, reply.data(), reply.size(), MSG_NOSIGNAL);
    }
}

}  // namespace

const RequestTrouble& currentRequestTrouble() {
    return currentStream != nullptr ? currentStream->requestTrouble() : noTrouble;
}

void markCloseAfterAnswer() {
    if (currentStream != nullptr) {
        currentStream->closeAfterAnswer();
    }
}

void markRequestHeadRead() {
    if (currentStream != nullptr) {
        currentStream->endHead();
    }
}

GuardedServer::GuardedServer(const ConnectionLimits& limits, std::size_t workers) : limits(limits) {
    workers = std::max<std::size_t>(workers, 1);
    new_task_queue = [this, workers] { return new CountingPool(workers, waitingConnections); };
    set_socket_options([this](socket_t sock) {
        httplib::default_socket_options(sock);
        listeningSocket = sock;  // the last one made is the one bound
    });
}

void GuardedServer::widenBacklog() {
    if (listeningSocket != INVALID_SOCKET) {
        ::listen(listeningSocket, SOMAXCONN);  // Linux lets a listening socket widen it
    }
}

// Shutting the bound socket down makes the library's accept fail, which ends its
// listening loop whether it is in it already or enters it later, so a stop never
// waits for listening to begin.
void GuardedServer::beginStop() {
    stopping = true;
    const socket_t sock = listeningSocket;
    if (sock != INVALID_SOCKET) {
        ::shutdown(sock, SHUT_RDWR);
    }
}

bool GuardedServer::process_and_close_socket(socket_t sock) {
    ConnectionStream stream(sock, limits);
    currentStream = &stream;
    bool ok = true;
    for (std::size_t served = 0; served < limits.keepAliveRequests && !stopping; ++served) {
        // Waits for the next request in short slices so that a stop, or a
        // connection waiting for a worker, is seen soon. A client that was silent
        // for a whole slice gives way; one that sends straight away keeps going.
        bool arrived = stream.hasBufferedBytes();
        for (long waited = 0; !arrived && waited < limits.keepAliveMs && !stopping &&
                              (waited == 0 || waitingConnections.load() == 0);
             waited += kStopCheckMs) {
            arrived = waitFor(sock, POLLIN, std::min(kStopCheckMs, limits.keepAliveMs - waited));
        }
        if (!arrived) {
            break;
        }
        stream.startRequest();
        bool closed = false;
        const bool lastOne = served + 1 == limits.keepAliveRequests || stopping;
        ok = process_request(stream, lastOne, closed, std::function<void(httplib::Request&)>());
        const RequestTrouble& trouble = stream.requestTrouble();
        if (!ok && !stream.wroteAnything() &&
            (trouble.late || trouble.stalled || trouble.headTooLong)) {
            answerUnreadable(sock, trouble, limits);
        }
        if (!ok || closed || trouble.late || trouble.stalled || trouble.headTooLong ||
            trouble.closeAfterAnswer) {
            break;
        }
    }
    currentStream = nullptr;
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return ok;
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
