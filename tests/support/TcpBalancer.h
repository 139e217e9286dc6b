// A plain TCP balancer for tests: listens on a free loopback port and hands each
// connection to the next of its loopback backends in turn (the one after when a
// backend refuses), relaying bytes both ways until either side closes; it knows
// nothing of HTTP. It runs as a process of its own, each connection relayed by
// a child of that process.
// unanswered() counts the connections a backend closed while a request on
// them had no answer byte yet (a daemon killed under load). Everything stops
// (SIGKILL) when the object ends; the object is for one thread.
#ifndef AVQVL_TESTS_SUPPORT_TCPBALANCER_H
#define AVQVL_TESTS_SUPPORT_TCPBALANCER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "daemon/DaemonHarness.h"

class TcpBalancer {
public:
    explicit TcpBalancer(std::vector<int> backendPorts) : backends(std::move(backendPorts)) {
        const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener, 64) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("TcpBalancer: cannot listen on loopback");
        }
        port = ntohs(address.sin_port);
        // Shared with the relay processes, which count into it.
        shared = static_cast<Counters*>(::mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE,
                                               MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        balancer = std::make_unique<Harness::Child>([this, listener]() -> int { serve(listener); });
        ::close(listener);
    }
    ~TcpBalancer() {
        balancer.reset();
        ::munmap(shared, sizeof(Counters));
    }

    int unanswered() const { return __atomic_load_n(&shared->unanswered, __ATOMIC_SEQ_CST); }
    std::string url() const { return "QUORVEL_URL=http://127.0.0.1:" + std::to_string(port); }
    int port = 0;

private:
    static sockaddr_in loopback(int port) {
        return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    }

    [[noreturn]] void serve(int listener) {
        ::signal(SIGCHLD, SIG_IGN);  // the relays end unwaited for
        for (std::size_t next = 0;; ++next) {
            const int client = ::accept(listener, nullptr, nullptr);
            int backend = -1;
            for (std::size_t tried = 0; client >= 0 && tried < backends.size() && backend < 0;
                 ++tried) {
                backend = ::socket(AF_INET, SOCK_STREAM, 0);
                const sockaddr_in address = loopback(backends[(next + tried) % backends.size()]);
                if (::connect(backend, reinterpret_cast<const sockaddr*>(&address),
                              sizeof address) != 0) {
                    ::close(backend);
                    backend = -1;
                }
            }
            if (backend >= 0 && ::fork() == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                ::close(listener);
                relay(client, backend);
            }
            ::close(client);
            ::close(backend);
        }
    }

    // Copies whatever either side sends to the other; ends when one side
    // closes or fails, closing both (a daemon killed mid-answer cuts the answer).
    [[noreturn]] void relay(int client, int backend) {
        pollfd ends[2] = {{client, POLLIN, 0}, {backend, POLLIN, 0}};
        char buffer[64 * 1024];
        for (int lastFrom = 1;;) {
            if (::poll(ends, 2, -1) < 0) {
                ::_exit(1);
            }
            for (int from = 0; from < 2; ++from) {
                if (ends[from].revents == 0) {
                    continue;
                }
                const ssize_t got = ::read(ends[from].fd, buffer, sizeof buffer);
                for (ssize_t sent = 0, n = 0; got > 0 && sent < got; sent += n) {
                    if ((n = ::send(ends[1 - from].fd, buffer + sent, got - sent, MSG_NOSIGNAL)) <=
                        0) {
                        ::_exit(0);
                    }
                }
                if (got <= 0) {
                    if (from == 1 && lastFrom == 0) {
                        __atomic_add_fetch(&shared->unanswered, 1, __ATOMIC_SEQ_CST);
                    }
                    ::_exit(0);
                }
                lastFrom = from;
            }
        }
    }

    std::vector<int> backends;
    std::unique_ptr<Harness::Child> balancer;
    struct Counters {
        int unanswered;
    };
    Counters* shared = nullptr;  // zeroed by mmap
};

#endif  // AVQVL_TESTS_SUPPORT_TCPBALANCER_H
