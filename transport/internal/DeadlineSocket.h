// A TCP socket whose blocking connect, reads and writes give up at a deadline,
// for the HTTP backend's connection to the daemon. It meets Asio's synchronous
// stream requirements, so an ssl::stream can stand on it and Beast can read
// from either.
//
// The socket is non-blocking underneath: each read first waits in poll() until
// data is there or the deadline passes (then the error is timed_out); a write is
// tried at once and waits only when the send buffer is full. Synchronous and
// single-threaded: one object belongs to one thread at a time. Nothing throws
// except the read_some/write_some overloads without an error_code, which Asio's
// stream requirements ask for.
#ifndef AVQVL_TRANSPORT_INTERNAL_DEADLINESOCKET_H
#define AVQVL_TRANSPORT_INTERNAL_DEADLINESOCKET_H

#include <poll.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

using DeadlineClock = std::chrono::steady_clock;

class DeadlineSocket {
public:
    using Socket = boost::asio::ip::tcp::socket;
    using lowest_layer_type = Socket::lowest_layer_type;
    using executor_type = Socket::executor_type;

    explicit DeadlineSocket(boost::asio::io_context& io) : socket(io) {}

    // Opens a socket with TCP_NODELAY and connects it to endpoint, waiting until
    // connectBy at most (then timed_out).
    boost::system::error_code connect(const boost::asio::ip::tcp::endpoint& endpoint,
                                      DeadlineClock::time_point connectBy);
    // Takes over a socket connected by other means (a server's accepted one).
    void adopt(Socket&& connected);
    void close();
    bool isOpen() const { return socket.is_open(); }

    // The point in time after which reads and writes fail with timed_out.
    void setDeadline(DeadlineClock::time_point point) { deadline = point; }

    // Right after a write the answer is rarely there yet, so the first read
    // waits in poll() first; once bytes flow, a read is tried at once and waits
    // only when nothing is left, which halves the system calls of a long answer.
    template <typename MutableBuffers>
    std::size_t read_some(const MutableBuffers& buffers, boost::system::error_code& ec) {
        for (bool wait = !flowing;; wait = true) {
            if (!wait && DeadlineClock::now() >= deadline) {
                wait = true;  // which reports the time-out
            }
            if (wait && !waitUntilReady(POLLIN, deadline, ec)) {
                flowing = false;
                return 0;
            }
            const std::size_t count = socket.read_some(buffers, ec);
            if (ec != boost::asio::error::would_block) {
                flowing = !ec;
                return count;
            }
        }
    }

    template <typename ConstBuffers>
    std::size_t write_some(const ConstBuffers& buffers, boost::system::error_code& ec) {
        flowing = false;
        for (;;) {
            const std::size_t count = socket.write_some(buffers, ec);
            if (ec != boost::asio::error::would_block) {
                return count;
            }
            if (!waitUntilReady(POLLOUT, deadline, ec)) {
                return 0;
            }
        }
    }

    template <typename MutableBuffers>
    std::size_t read_some(const MutableBuffers& buffers) {
        boost::system::error_code ec;
        const std::size_t count = read_some(buffers, ec);
        boost::asio::detail::throw_error(ec, "read_some");
        return count;
    }

    template <typename ConstBuffers>
    std::size_t write_some(const ConstBuffers& buffers) {
        boost::system::error_code ec;
        const std::size_t count = write_some(buffers, ec);
        boost::asio::detail::throw_error(ec, "write_some");
        return count;
    }

    lowest_layer_type& lowest_layer() { return socket.lowest_layer(); }
    const lowest_layer_type& lowest_layer() const { return socket.lowest_layer(); }
    executor_type get_executor() { return socket.get_executor(); }

private:
    // True once events are possible on the socket; false with ec set on
    // timed_out (the point has passed) or a failure of poll().
    bool waitUntilReady(short events, DeadlineClock::time_point point,
                        boost::system::error_code& ec);

    Socket socket;
    DeadlineClock::time_point deadline = DeadlineClock::time_point::max();
    bool flowing = false;  // the last read brought bytes, and nothing was written since
};

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_DEADLINESOCKET_H
