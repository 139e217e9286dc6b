// Raw loopback connections, for requests no client of the library sends, to
// quorveld or to a server in the test's own process.
#ifndef AVQVL_TESTS_DAEMON_RAWCONNECTION_H
#define AVQVL_TESTS_DAEMON_RAWCONNECTION_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace Harness {

// A raw loopback connection, for requests no client of the library sends.
class RawConnection {
public:
    explicit RawConnection(int port) {
        sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    ~RawConnection() { ::close(fd); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    void send(const std::string& bytes) { ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    // What arrives until the peer closes (closed is set) or is silent for timeoutMs.
    std::string receive(int timeoutMs) {
        std::string received;
        char buffer[4096];
        pollfd entry{fd, POLLIN, 0};
        while (!closed && ::poll(&entry, 1, timeoutMs) > 0) {
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            closed = n <= 0;
            received.append(buffer, closed ? 0 : n);
        }
        return received;
    }
    // What has arrived, up to max bytes, left unread: the reader of a stalled
    // client. Waits timeoutMs at most for a first byte.
    std::string peek(std::size_t max, int timeoutMs) {
        std::string seen(max, '\0');
        pollfd entry{fd, POLLIN, 0};
        const ssize_t n =
            ::poll(&entry, 1, timeoutMs) > 0 ? ::recv(fd, &seen[0], max, MSG_PEEK) : 0;
        seen.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return seen;
    }
    bool closed = false;

private:
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
};

// One request on a connection of its own: what came back until the daemon
// closed or fell silent for timeoutMs.
inline std::string exchangeRaw(int port, const std::string& request, int timeoutMs = 3000) {
    RawConnection connection(port);
    connection.send(request);
    return connection.receive(timeoutMs);
}

}  // namespace Harness

#endif  // AVQVL_TESTS_DAEMON_RAWCONNECTION_H
