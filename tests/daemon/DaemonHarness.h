// Child processes for the tests of quorvel and quorveld (standard input, output
// and error are temporary files, so no child blocks on a full pipe; a child
// still running when its object ends is killed), and raw loopback connections
// for requests no client of the library sends. Each object is for one thread.
#ifndef AVQVL_TESTS_DAEMON_DAEMONHARNESS_H
#define AVQVL_TESTS_DAEMON_DAEMONHARNESS_H

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace Harness {

using Strings = std::vector<std::string>;

// Polls done every 10 ms until it holds or timeoutMs have passed; whether it held.
inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 10000) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    bool held = done();
    for (; !held && std::chrono::steady_clock::now() < until; held = done()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return held;
}

// What file holds, read through a file description of its own, so the offset
// a writer (a child, a daemon's log) writes at stays.
inline std::string contentsOf(std::FILE* file) {
    std::fflush(file);
    std::ifstream in("/proc/self/fd/" + std::to_string(::fileno(file)));
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class Child {
public:
    // Forks a process that runs body with env ("NAME=value" each) added to its
    // environment and input as its standard input; body's result is its exit code.
    explicit Child(const std::function<int()>& body, const Strings& env = {},
                   const std::string& input = "") {
        std::fwrite(input.data(), 1, input.size(), files[0]);
        std::rewind(files[0]);
        std::fflush(nullptr);  // else the child would write out what the test has buffered
        if ((pid = ::fork()) == 0) {
            for (const std::string& setting : env) {
                ::putenv(const_cast<char*>(setting.c_str()));
            }
            for (int fd = 0; fd < 3; ++fd) {
                ::dup2(::fileno(files[fd]), fd);
            }
            const int code = [&body]() noexcept { return body(); }();  // a throw aborts
            std::fflush(nullptr);
            ::_exit(code);
        }
    }
    ~Child() {
        wait(0);
        for (std::FILE* file : files) {
            std::fclose(file);
        }
    }

    pid_t id() const { return pid; }
    bool running() {
        ended = ended || pid < 0 || ::waitpid(pid, &status, WNOHANG) == pid;
        return !ended;
    }
    void signal(int number) {
        if (running()) {
            ::kill(pid, number);
        }
    }
    // Waits about timeoutMs at most, then kills; the exit code, or -1 when a signal ended it.
    int wait(int timeoutMs = 30000) {
        waitUntil([this] { return !running(); }, timeoutMs);
        signal(SIGKILL);
        ended = ended || ::waitpid(pid, &status, 0) == pid;
        return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string out() const { return contentsOf(files[1]); }
    std::string err() const { return contentsOf(files[2]); }

private:
    std::FILE* files[3] = {std::tmpfile(), std::tmpfile(), std::tmpfile()};
    pid_t pid = -1;
    int status = 0;
    bool ended = false;
};

// A body that runs the program argv[0] with the arguments that follow, then more.
inline std::function<int()> program(Strings argv, const Strings& more = {}) {
    argv.insert(argv.end(), more.begin(), more.end());
    return [argv]() mutable {
        std::vector<char*> args;
        for (std::string& arg : argv) {
            args.push_back(&arg[0]);
        }
        args.push_back(nullptr);
        return ::execv(args[0], args.data());
    };
}

struct Result {
    int code;
    std::string out, err;
};

inline Result run(const Strings& argv, const Strings& env = {}, const std::string& input = "") {
    Child child(program(argv), env, input);
    const int code = child.wait();
    return {code, child.out(), child.err()};
}

#ifdef QUORVEL_BINARY
// Runs quorvel (QUORVEL_BINARY, which the test program defines) with args.
inline Result quorvel(Strings args, const Strings& env = {}, const std::string& input = "") {
    args.insert(args.begin(), QUORVEL_BINARY);
    return run(args, env, input);
}
#endif

// A raw loopback connection, closed when the object ends.
class RawConnection {
public:
    explicit RawConnection(int port) {
        sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    ~RawConnection() { ::close(fd); }

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

// One request on a connection of its own: what came back until the peer
// closed or fell silent for timeoutMs.
inline std::string exchangeRaw(int port, const std::string& request, int timeoutMs = 3000) {
    RawConnection connection(port);
    connection.send(request);
    return connection.receive(timeoutMs);
}

}  // namespace Harness

#endif  // AVQVL_TESTS_DAEMON_DAEMONHARNESS_H
