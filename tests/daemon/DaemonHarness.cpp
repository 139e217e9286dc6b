#include "daemon/DaemonHarness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace DaemonTesting {

namespace {

using Clock = std::chrono::steady_clock;

std::string temporaryFile(const char* tag) {
    const char* directory = std::getenv("TMPDIR");
    std::string pattern = std::string(directory && *directory ? directory : "/tmp") +
                          "/quorveld-test-" + tag + "-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkstemp(name.data());
    if (fd < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    ::close(fd);
    return name.data();
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

long millisecondsSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Environment& extra)
    : outPath(temporaryFile("out")), errPath(temporaryFile("err")) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (std::none_of(extra.begin(), extra.end(), [&](const auto& setting) {
                return text.compare(0, setting.first.size() + 1, setting.first + "=") == 0;
            })) {
            environment.push_back(text);
        }
    }
    for (const auto& setting : extra) {
        environment.push_back(setting.first + "=" + setting.second);
    }
    const auto pointers = [](const std::vector<std::string>& texts) {
        std::vector<char*> list;
        for (const std::string& text : texts) {
            list.push_back(const_cast<char*>(text.c_str()));
        }
        list.push_back(nullptr);
        return list;
    };
    std::vector<char*> args = pointers(argv);
    std::vector<char*> env = pointers(environment);

    child = ::fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        const int out = ::open(outPath.c_str(), O_WRONLY | O_TRUNC);
        const int err = ::open(errPath.c_str(), O_WRONLY | O_TRUNC);
        const int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        ::execve(args[0], args.data(), env.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (running()) {
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
    }
    ::unlink(outPath.c_str());
    ::unlink(errPath.c_str());
}

void ChildProcess::signal(int number) const {
    if (running()) {
        ::kill(child, number);
    }
}

bool ChildProcess::wait(int timeoutMs, int& status) {
    const Clock::time_point start = Clock::now();
    while (!ended) {
        const pid_t done = ::waitpid(child, &status, WNOHANG);
        if (done == child) {
            ended = true;
            break;
        }
        if (millisecondsSince(start) > timeoutMs) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string ChildProcess::output() const {
    return readFile(outPath);
}

std::string ChildProcess::errors() const {
    return readFile(errPath);
}

Result runChild(const std::vector<std::string>& argv, const Environment& extra, int timeoutMs) {
    ChildProcess child(argv, extra);
    Result result;
    int status = 0;
    if (!child.wait(timeoutMs, status)) {
        child.signal(SIGKILL);
        child.wait(5000, status);
    } else if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    }
    result.output = child.output();
    result.errors = child.errors();
    return result;
}

Daemon::Daemon(const std::vector<std::string>& extraArgs, bool logging) {
    std::vector<std::string> argv = {QUORVELD_BINARY, "--listen", "127.0.0.1:0"};
    if (!logging) {
        argv.push_back("--quiet");
    }
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    child = new ChildProcess(argv, {});
    const std::string mark = "listening on 127.0.0.1:";
    const Clock::time_point start = Clock::now();
    while (millisecondsSince(start) < 10000 && child->running()) {
        const std::string out = child->output();
        const std::size_t at = out.find(mark);
        if (at != std::string::npos && out.find('\n', at) != std::string::npos) {
            listenPort = std::atoi(out.c_str() + at + mark.size());
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const std::string errors = child->errors();
    delete child;
    throw std::runtime_error("quorveld did not start: " + errors);
}

Daemon::~Daemon() {
    stop();
    delete child;
}

int Daemon::stop(int timeoutMs, long* stopMs) {
    if (!stopped) {
        const Clock::time_point start = Clock::now();
        child->signal(SIGTERM);
        if (!child->wait(timeoutMs, stopStatus)) {
            child->signal(SIGKILL);
            child->wait(5000, stopStatus);
        }
        if (stopMs != nullptr) {
            *stopMs = millisecondsSince(start);
        }
        stopped = true;
    }
    return stopStatus;
}

int unusedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

RawConnection::RawConnection(int port) {
    fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect to the daemon");
    }
}

RawConnection::~RawConnection() {
    ::close(fd);
}

bool RawConnection::send(const std::string& bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

std::string RawConnection::receiveAll(int timeoutMs, bool& closed) {
    std::string received;
    closed = false;
    const Clock::time_point start = Clock::now();
    for (;;) {
        const long left = timeoutMs - millisecondsSince(start);
        if (left <= 0) {
            return received;
        }
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
        if (count <= 0) {
            closed = true;
            return received;
        }
        received.append(buffer, static_cast<std::size_t>(count));
    }
}

}  // namespace DaemonTesting
