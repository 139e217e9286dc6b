#include "transport/internal/DeadlineSocket.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

using boost::system::error_code;

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
    socket.non_blocking(true, ignored);
}

void DeadlineSocket::close() {
    flowing = false;
    error_code ignored;
    socket.close(ignored);
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
