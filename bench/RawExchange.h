// Exchanges with quorveld written by hand on one kept-alive loopback connection:
// the benchmarks' posters and idle waiters, which must not share the transport
// library's one daemon per process. Not thread-safe; one object per thread.
#ifndef AVQVL_BENCH_RAWEXCHANGE_H
#define AVQVL_BENCH_RAWEXCHANGE_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "wire/HttpWire.h"

namespace Bench {

// A loopback TCP connection with TCP_NODELAY to port, or -1.
inline int connectLoopback(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

using Fields = std::vector<std::pair<std::string, std::string>>;

class RawExchange {
public:
    explicit RawExchange(int port) : port(port), fd(connectLoopback(port)) {}
    ~RawExchange() {
        if (fd >= 0) {
            close(fd);
        }
    }
    RawExchange(const RawExchange&) = delete;
    RawExchange& operator=(const RawExchange&) = delete;

    bool connected() const { return fd >= 0; }

    // Writes one exchange; false when the connection failed.
    bool send(const Fields& fields, const std::string& body) {
        namespace Wire = Arvant::Net::AvQuorvel::Wire;
        std::string request =
            std::string("POST ") + Wire::kExchangePath + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
        for (const auto& field : fields) {
            request += std::string(Wire::kFieldHeaderName) + ": " +
                       Wire::encodeField(field.first, field.second) + "\r\n";
        }
        request += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        return fd >= 0 &&
               write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size());
    }

    // Reads one answer; its status (0: the connection failed), its body in body.
    int receive(std::string& body) {
        std::string head;
        char buffer[16384];
        std::size_t end = std::string::npos;
        while ((end = head.find("\r\n\r\n")) == std::string::npos) {
            const ssize_t n = read(fd, buffer, sizeof buffer);
            if (n <= 0) {
                return 0;
            }
            head.append(buffer, static_cast<std::size_t>(n));
        }
        const std::size_t length = head.find("Content-Length: ");
        const std::size_t size =
            length < end ? std::strtoul(head.c_str() + length + 16, nullptr, 10) : 0;
        body = head.substr(end + 4);
        while (body.size() < size) {
            const ssize_t n = read(fd, buffer, sizeof buffer);
            if (n <= 0) {
                return 0;
            }
            body.append(buffer, static_cast<std::size_t>(n));
        }
        // The daemon ends a connection after so many requests, as clients do.
        if (head.find("Connection: close") < end) {
            close(fd);
            fd = connectLoopback(port);
        }
        return head.compare(0, 9, "HTTP/1.1 ") == 0 ? std::atoi(head.c_str() + 9) : 0;
    }

    int call(const Fields& fields, const std::string& body, std::string& answer) {
        return send(fields, body) ? receive(answer) : 0;
    }

private:
    const int port;
    int fd;
};

}  // namespace Bench

#endif  // AVQVL_BENCH_RAWEXCHANGE_H
