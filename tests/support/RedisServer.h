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
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <utility>

#include "daemon/DaemonHarness.h"
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

    std::string url() const { return "redis://127.0.0.1:" + std::to_string(port); }

    void start() {
        Harness::Strings args{REDIS_SERVER_BINARY, "--port", std::to_string(port), "--dir",
                              dir.path};
        args.insert(args.end(), {"--bind", "127.0.0.1", "--appendonly", "yes", "--appendfsync",
                                 "always", "--save", "", "--logfile", dir.path + "/redis.log"});
        if (!password.empty()) {
            args.insert(args.end(), {"--requirepass", password});
        }
        server = std::make_unique<Harness::Child>(Harness::program(args));
        if (!Harness::waitUntil([this] {
                const std::string answer = command({"PING"});
                return answer == "PONG" || answer.find("NOAUTH") != std::string::npos;
            })) {
            throw std::runtime_error("RedisServer: no answer on port " + std::to_string(port) +
                                     "; see " + dir.path + "/redis.log");
        }
    }

    // Empties every database, for a test that wants a fresh store.
    void flush() const {
        if (command({"FLUSHALL"}) != "OK") {
            throw std::runtime_error("RedisServer: FLUSHALL failed");
        }
    }

    // used_memory of INFO memory, in bytes; -1 when Redis did not tell.
    long long usedMemory() const {
        const std::string info = command({"INFO", "memory"});
        const std::size_t at = info.find("\nused_memory:");
        return at == std::string::npos ? -1 : std::atoll(info.c_str() + at + 13);
    }

    // SIGSTOP makes a server that accepts connections and never answers; SIGCONT
    // brings it back.
    void signal(int signal) const { server->signal(signal); }

    // signal SIGTERM lets Redis finish its append-only file; SIGKILL does not.
    void stop(int signal = SIGTERM) {
        if (server) {
            server->signal(signal);
            server->wait(10000);
            server.reset();
        }
    }

    int port = 0;

private:
    // What redis-cli prints for one command, without the last line end; ""
    // when the server does not answer within five seconds.
    std::string command(Harness::Strings words) const {
        words.insert(words.begin(),
                     {"/usr/bin/timeout", "5", "/usr/bin/redis-cli", "-p", std::to_string(port)});
        const Harness::Result cli = Harness::run(words);
        return (cli.out + cli.err).substr(0, (cli.out + cli.err).find_last_not_of('\n') + 1);
    }

    const TempDir dir;
    const std::string password;
    std::unique_ptr<Harness::Child> server;  // declared after dir: stopped before it goes
};

#endif  // AVQVL_TESTS_SUPPORT_REDISSERVER_H
