// A TCP socket whose blocking connect, reads and writes give up at a deadline,
// for the HTTP backend's connection to the daemon. It meets Asio's synchronous
// stream requirements, so an ssl::stream can stand on it and Beast can read
// from either.
//
// Once connected the socket blocks, and a read waits in the receive itself, for
// the receive time-out the socket carries, which follows the deadline: past it
// the error is timed_out (learnt up to a timer tick late, as the kernel counts
// the time-out in ticks). A write is tried without waiting and waits in poll()
// only when the send buffer is full. Reads and writes call the system directly,
// since Asio's blocking ones would wait again, without limit, after a time-out.
// Synchronous and single-threaded: one object belongs to one thread at a time.
// Nothing throws except the read_some/write_some overloads without an
// error_code, which Asio's stream requirements ask for.
#ifndef AVQVL_TRANSPORT_INTERNAL_DEADLINESOCKET_H
#define AVQVL_TRANSPORT_INTERNAL_DEADLINESOCKET_H

#include <poll.h>
#include <sys/uio.h>

#include <boost/asio/buffer.hpp>
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

    // Reads into the first buffer that has room, as much as is there.
    template <typename MutableBuffers>
    std::size_t read_some(const MutableBuffers& buffers, boost::system::error_code& ec) {
        for (auto at = boost::asio::buffer_sequence_begin(buffers);
             at != boost::asio::buffer_sequence_end(buffers); ++at) {
            const boost::asio::mutable_buffer part(*at);
            if (part.size() != 0) {
                return receive(part.data(), part.size(), ec);
            }
        }
        ec = {};
        return 0;
    }

    // Gathers up to kMaxWriteParts buffers into one send.
    template <typename ConstBuffers>
    std::size_t write_some(const ConstBuffers& buffers, boost::system::error_code& ec) {
        iovec parts[kMaxWriteParts];
        std::size_t count = 0;
        for (auto at = boost::asio::buffer_sequence_begin(buffers);
             at != boost::asio::buffer_sequence_end(buffers) && count < kMaxWriteParts; ++at) {
            const boost::asio::const_buffer part(*at);
            if (part.size() != 0) {
                parts[count++] = {const_cast<void*>(part.data()), part.size()};
            }
        }
        ec = {};
        return count == 0 ? 0 : send(parts, count, ec);
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
    static constexpr std::size_t kMaxWriteParts = 16;

    std::size_t receive(void* data, std::size_t size, boost::system::error_code& ec);
    std::size_t send(const iovec* parts, std::size_t count, boost::system::error_code& ec);
    // Sets the receive time-out for a read that may wait until the deadline;
    // false with ec set on timed_out (the deadline has passed) or a failure.
    bool armReceiveTimeout(boost::system::error_code& ec);
    // True once events are possible on the socket; false with ec set on
    // timed_out (the point has passed) or a failure of poll().
    bool waitUntilReady(short events, DeadlineClock::time_point point,
                        boost::system::error_code& ec);

    Socket socket;
    DeadlineClock::time_point deadline = DeadlineClock::time_point::max();
    std::chrono::microseconds receiveTimeout{0};  // the socket's; zero: none
};

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_DEADLINESOCKET_H
