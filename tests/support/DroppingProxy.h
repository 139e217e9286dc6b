// A TCP proxy on a free loopback port in front of a server on another: it
// forwards every connection both ways, byte for byte, except that after
// dropNextAnswer() the first bytes the server sends back are thrown away and
// both sides closed, so the server has done the work and the client got no
// answer. Each connection has a thread of its own; every wait is a poll of
// 20 ms, so the destructor stops them all within that. Loopback only; throws
// std::runtime_error when it cannot listen.
#ifndef AVQVL_TESTS_SUPPORT_DROPPINGPROXY_H
#define AVQVL_TESTS_SUPPORT_DROPPINGPROXY_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

class DroppingProxy {
public:
    explicit DroppingProxy(int targetPort) : target(targetPort) {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener, 16) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("the proxy cannot listen on loopback");
        }
        listening = ntohs(address.sin_port);
        accepting = std::thread([this] { acceptLoop(); });
    }
    ~DroppingProxy() {
        stopping = true;
        accepting.join();
        std::lock_guard<std::mutex> lock(mutex);
        for (std::thread& thread : threads) {
            thread.join();
        }
        ::close(listener);
    }
    DroppingProxy(const DroppingProxy&) = delete;
    DroppingProxy& operator=(const DroppingProxy&) = delete;

    int port() const { return listening; }
    void dropNextAnswer() { dropNext = true; }
    std::atomic<int> dropped{0};

private:
    static sockaddr_in loopback(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        return address;
    }

    void acceptLoop() {
        while (!stopping) {
            pollfd entry{listener, POLLIN, 0};
            if (::poll(&entry, 1, 20) <= 0) {
                continue;
            }
            const int client = ::accept(listener, nullptr, nullptr);
            if (client < 0) {
                continue;
            }
            std::lock_guard<std::mutex> lock(mutex);
            threads.emplace_back([this, client] { forward(client); });
        }
    }

    void forward(int client) {
        const int server = ::socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in address = loopback(target);
        if (::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            pollfd ends[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            char bytes[16384];
            while (!stopping) {
                if (::poll(ends, 2, 20) <= 0) {
                    continue;
                }
                const int from = (ends[0].revents != 0) ? 0 : 1;
                const ssize_t count = ::read(ends[from].fd, bytes, sizeof bytes);
                if (count <= 0 || (from == 1 && dropNext.exchange(false) && ++dropped)) {
                    break;
                }
                if (::send(ends[1 - from].fd, bytes, count, MSG_NOSIGNAL) != count) {
                    break;
                }
            }
        }
        ::close(server);
        ::close(client);
    }

    const int target;
    int listener = -1;
    int listening = 0;
    std::atomic<bool> stopping{false};
    std::atomic<bool> dropNext{false};
    std::thread accepting;
    std::mutex mutex;  // guards threads
    std::vector<std::thread> threads;
};

#endif  // AVQVL_TESTS_SUPPORT_DROPPINGPROXY_H
