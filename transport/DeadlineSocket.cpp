#include "transport/internal/DeadlineSocket.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

using boost::system::error_code;

namespace {

// How far past the deadline a receive time-out already in place may reach
// before it is set again. The kernel counts the time-out in timer ticks (4 ms
// at 250 Hz), so a read may end up to a tick after the deadline in any case;
// the slack adds at most this to it, and lets exchanges that follow each other
// with the same time-out find it in place, with no system call for it.
constexpr std::chrono::microseconds kDeadlineSlack(1000);

error_code lastSystemError() {
    return error_code(errno, boost::system::system_category());
}

}  // namespace

error_code DeadlineSocket::connect(const boost::asio::ip::tcp::endpoint& endpoint,
                                   DeadlineClock::time_point connectBy) {
    error_code ec;
    close();
    socket.open(endpoint.protocol(), ec);
    if (!ec) {
        socket.set_option(boost::asio::ip::tcp::no_delay(true), ec);
    }
    if (!ec) {
        socket.non_blocking(true, ec);
    }
    if (ec) {
        close();
        return ec;
    }
    // Asio's own connect would wait without limit for a non-blocking socket;
    // the connect is started here and waited for with the deadline.
    const int fd = socket.native_handle();
    if (::connect(fd, endpoint.data(), static_cast<socklen_t>(endpoint.size())) != 0) {
        if (errno != EINPROGRESS) {
            ec.assign(errno, boost::system::system_category());
        } else if (waitUntilReady(POLLOUT, connectBy, ec)) {
            int result = 0;
            socklen_t length = sizeof result;
            if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &result, &length) != 0) {
                result = errno;
            }
            ec.assign(result, boost::system::system_category());
        }
    }
    // Blocking from here on: a read waits in the receive (armReceiveTimeout).
    if (!ec) {
        socket.non_blocking(false, ec);
    }
    if (ec) {
        close();
    }
    return ec;
}

void DeadlineSocket::adopt(Socket&& connected) {
    close();
    socket = std::move(connected);
    error_code ignored;
    socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    socket.non_blocking(false, ignored);
}

void DeadlineSocket::close() {
    receiveTimeout = std::chrono::microseconds(0);  // a new socket starts without one
    error_code ignored;
    socket.close(ignored);
}

std::size_t DeadlineSocket::receive(void* data, std::size_t size, error_code& ec) {
    if (!socket.is_open()) {
        ec = boost::asio::error::bad_descriptor;
        return 0;
    }
    for (;;) {
        if (!armReceiveTimeout(ec)) {
            return 0;
        }
        const ssize_t got = ::recv(socket.native_handle(), data, size, 0);
        if (got > 0) {
            ec = {};
            return static_cast<std::size_t>(got);
        }
        if (got == 0) {
            ec = boost::asio::error::eof;
            return 0;
        }
        // Else the time-out ran out or a signal came: the deadline decides.
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            ec = lastSystemError();
            return 0;
        }
    }
}

std::size_t DeadlineSocket::send(const iovec* parts, std::size_t count, error_code& ec) {
    if (!socket.is_open()) {
        ec = boost::asio::error::bad_descriptor;
        return 0;
    }
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts);
    message.msg_iovlen = count;
    for (;;) {
        // No SIGPIPE when the daemon has closed: the error says it.
        const ssize_t sent =
            ::sendmsg(socket.native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            ec = {};
            return static_cast<std::size_t>(sent);
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            ec = lastSystemError();
            return 0;
        }
        if (!waitUntilReady(POLLOUT, deadline, ec)) {
            return 0;
        }
    }
}

// The time-out in place is kept while it ends neither more than kDeadlineSlack
// past the deadline nor before half the time left (an early end only costs a
// wake-up and another receive, as a signal does).
bool DeadlineSocket::armReceiveTimeout(error_code& ec) {
    std::chrono::microseconds wanted(0);
    if (deadline != DeadlineClock::time_point::max()) {
        const auto left = deadline - DeadlineClock::now();
        if (left <= DeadlineClock::duration::zero()) {
            ec = boost::asio::error::timed_out;
            return false;
        }
        wanted = std::chrono::ceil<std::chrono::microseconds>(left);  // never zero: none
    }
    const bool kept = wanted.count() == 0 ? receiveTimeout.count() == 0
                                          : receiveTimeout.count() != 0 &&
                                                receiveTimeout <= wanted + kDeadlineSlack &&
                                                receiveTimeout * 2 >= wanted;
    if (kept) {
        return true;
    }
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(wanted.count() / 1000000);
    limit.tv_usec = static_cast<suseconds_t>(wanted.count() % 1000000);
    if (::setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        ec = lastSystemError();
        return false;
    }
    receiveTimeout = wanted;
    return true;
}

bool DeadlineSocket::waitUntilReady(short events, DeadlineClock::time_point point, error_code& ec) {
    pollfd entry{socket.native_handle(), events, 0};
    for (;;) {
        int waitMs = -1;
        if (point != DeadlineClock::time_point::max()) {
            const auto left = point - DeadlineClock::now();
            if (left <= DeadlineClock::duration::zero()) {
                ec = boost::asio::error::timed_out;
                return false;
            }
            // Rounded up, so the wait never ends just before the deadline.
            const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            waitMs = static_cast<int>(std::min<decltype(ms)>(ms, INT_MAX));
        }
        const int ready = ::poll(&entry, 1, waitMs);
        if (ready > 0) {
            return true;  // readiness, or an error or hang-up the next call reports
        }
        if (ready < 0 && errno != EINTR) {
            ec.assign(errno, boost::system::system_category());
            return false;
        }
    }
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
