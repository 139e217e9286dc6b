// A redis-server of the test's own, on a free loopback port, in a temporary
// directory, with every write in its append-only file before the answer
// (appendonly yes, appendfsync always) and no snapshots. stop() and start()
// keep port and directory, so a restart finds the data again. The server is
// stopped (SIGTERM, then SIGKILL) and the directory removed when the object
// ends. REDIS_SERVER_BINARY names the program; start() throws when it does not
// answer within about ten seconds, so a machine without Redis fails the tests
// instead of skipping them. Given a password, the server asks for it
// (requirepass); flush() is then not available. Commands go through redis-cli,
// which comes with redis-server.
#ifndef AVQVL_TESTS_SUPPORT_REDISSERVER_H
#define AVQVL_TESTS_SUPPORT_REDISSERVER_H

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "support/TempDir.h"

class RedisServer {
public:
    explicit RedisServer(std::string password = "") : password(std::move(password)) {
        // A port the system picked for a moment; Redis binds it at once.
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        ::close(fd);
        port = ntohs(address.sin_port);
        start();
    }
    ~RedisServer() { stop(); }
    RedisServer(const RedisServer&) = delete;
    RedisServer& operator=(const RedisServer&) = delete;

    std::string url() const { return "redis://127.0.0.1:" + std::to_string(port); }

    void start() {
        const std::string args = std::string(REDIS_SERVER_BINARY) + " --port " +
                                 std::to_string(port) + " --bind 127.0.0.1 --dir " + dir.path +
                                 " --appendonly yes --appendfsync always --save '' --logfile " +
                                 dir.path + "/redis.log" +
                                 (password.empty() ? "" : " --requirepass " + password);
        std::fflush(nullptr);
        if ((child = ::fork()) == 0) {
            ::execl("/bin/sh", "sh", "-c", ("exec " + args).c_str(), nullptr);
            ::_exit(127);
        }
        for (int attempt = 0; attempt < 400; ++attempt) {
            const std::string answer = command("PING");
            if (answer == "PONG" || answer.find("NOAUTH") != std::string::npos) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        throw std::runtime_error("RedisServer: " + args + " does not answer; see redis.log");
    }

    // Empties every database, for a test that wants a fresh store.
    void flush() const {
        if (command("FLUSHALL") != "OK") {
            throw std::runtime_error("RedisServer: FLUSHALL failed");
        }
    }

    // used_memory of INFO memory, in bytes; -1 when Redis did not tell.
    long long usedMemory() const {
        const std::string info = command("INFO memory");
        const std::size_t at = info.find("\nused_memory:");
        return at == std::string::npos ? -1 : std::atoll(info.c_str() + at + 13);
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

    int port = 0;

private:
    // What redis-cli prints for one command, without the last line end; ""
    // when the server does not answer within five seconds.
    std::string command(const std::string& line) const {
        std::string answer;
        std::FILE* cli = ::popen(
            ("timeout 5 redis-cli -p " + std::to_string(port) + " " + line + " 2>&1").c_str(), "r");
        char buffer[4096];
        for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, cli)) > 0;) {
            answer.append(buffer, got);
        }
        ::pclose(cli);
        return answer.substr(0, answer.find_last_not_of('\n') + 1);
    }

    const TempDir dir;
    const std::string password;
    pid_t child = -1;
};

#endif  // AVQVL_TESTS_SUPPORT_REDISSERVER_H
