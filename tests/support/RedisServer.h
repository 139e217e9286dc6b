// A redis-server of the test's own, on a free loopback port, in a temporary
// directory, with every write in its append-only file before the answer
// (appendonly yes, appendfsync always) and no snapshots. stop() and start()
// keep port and directory, so a restart finds the data again. The server is
// stopped (SIGTERM, then SIGKILL) and the directory removed when the object
// ends. REDIS_SERVER_BINARY names the program; start() throws when it is
// missing or does not answer within about ten seconds, so a machine without
// Redis fails the tests instead of skipping them. Given a password, the server
// asks for it (requirepass); flush() is then not available.
#ifndef AVQVL_TESTS_SUPPORT_REDISSERVER_H
#define AVQVL_TESTS_SUPPORT_REDISSERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

class RedisServer {
public:
    explicit RedisServer(std::string password = "") : password(std::move(password)) {
        char pattern[] = "/tmp/quorvel-redis-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) {
            throw std::runtime_error("RedisServer: cannot make a temporary directory");
        }
        directory = pattern;
        port = freeLoopbackPort();
        start();
    }
    ~RedisServer() {
        stop();
        std::system(("rm -rf '" + directory + "'").c_str());
    }
    RedisServer(const RedisServer&) = delete;
    RedisServer& operator=(const RedisServer&) = delete;

    int port = 0;
    std::string directory;
    std::string url() const { return "redis://127.0.0.1:" + std::to_string(port); }

    void start() {
        if (::access(REDIS_SERVER_BINARY, X_OK) != 0) {
            throw std::runtime_error(std::string("RedisServer: ") + REDIS_SERVER_BINARY +
                                     " is missing; scripts/install-deps.sh installs redis-server");
        }
        std::vector<std::string> args{REDIS_SERVER_BINARY,
                                      "--port",
                                      std::to_string(port),
                                      "--bind",
                                      "127.0.0.1",
                                      "--dir",
                                      directory,
                                      "--appendonly",
                                      "yes",
                                      "--appendfsync",
                                      "always",
                                      "--save",
                                      "",
                                      "--daemonize",
                                      "no",
                                      "--logfile",
                                      directory + "/redis.log"};
        if (!password.empty()) {
            args.insert(args.end(), {"--requirepass", password});
        }
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(&arg[0]);
        }
        argv.push_back(nullptr);
        std::fflush(nullptr);
        child = ::fork();
        if (child == 0) {
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        for (int attempt = 0; attempt < 400; ++attempt) {
            if (answers()) {
                return;
            }
            int status = 0;
            if (::waitpid(child, &status, WNOHANG) == child) {
                child = -1;
                throw std::runtime_error("RedisServer: redis-server ended at start; see " +
                                         directory + "/redis.log");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        throw std::runtime_error("RedisServer: redis-server does not answer on port " +
                                 std::to_string(port));
    }

    // Empties every database, for a test that wants a fresh store.
    void flush() const {
        if (command("FLUSHALL") != "+OK") {
            throw std::runtime_error("RedisServer: FLUSHALL failed");
        }
    }

    // used_memory of INFO memory, in bytes; -1 when Redis did not tell.
    long long usedMemory() const {
        const std::string field = "\r\nused_memory:";
        const std::string info = command("INFO memory", field);
        const std::size_t at = info.find(field);
        return at == std::string::npos ? -1 : std::atoll(info.c_str() + at + field.size());
    }

    // SIGSTOP makes a server that accepts connections and never answers; SIGCONT
    // brings it back.
    void signal(int signal) const { ::kill(child, signal); }

    // signal SIGTERM lets Redis finish its append-only file; SIGKILL does not.
    void stop(int signal = SIGTERM) {
        if (child <= 0) {
            return;
        }
        ::kill(child, signal);
        int status = 0;
        for (int waited = 0; waited < 10000 && ::waitpid(child, &status, WNOHANG) == 0;
             waited += 5) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        child = -1;
    }

private:
    static int freeLoopbackPort() {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        ::close(fd);
        return ntohs(address.sin_port);
    }

    bool answers() const {
        const std::string answer = command("PING");
        return answer == "+PONG" || answer.compare(0, 7, "-NOAUTH") == 0;
    }

    // Sends one inline command; the first line of the answer, or "" when none
    // came. Given `through`, the answer up to the line after it instead.
    std::string command(const std::string& line, const std::string& through = "") const {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        std::string answer;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            timeval timeout{5, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
            const std::string request = line + "\r\n";
            char buffer[4096];
            if (::write(fd, request.data(), request.size()) ==
                static_cast<ssize_t>(request.size())) {
                for (ssize_t got = 0; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
                    answer.append(buffer, static_cast<std::size_t>(got));
                    const std::size_t at = answer.find(through);
                    if (at != std::string::npos &&
                        answer.find('\r', at + through.size()) != std::string::npos) {
                        break;
                    }
                }
                if (through.empty()) {
                    answer = answer.substr(0, answer.find('\r'));
                }
            }
        }
        ::close(fd);
        return answer;
    }

    pid_t child = -1;
    const std::string password;
};

#endif  // AVQVL_TESTS_SUPPORT_REDISSERVER_H
