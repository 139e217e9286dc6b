// Child processes for the daemon tests: a quorveld on an ephemeral loopback
// port that is always stopped (SIGTERM, then SIGKILL after a bound), and client
// processes with their own environment. Output goes to temporary files, so no
// child ever blocks on a full pipe.
#ifndef AVQVL_TESTS_DAEMON_DAEMONHARNESS_H
#define AVQVL_TESTS_DAEMON_DAEMONHARNESS_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace DaemonTesting {

using Environment = std::vector<std::pair<std::string, std::string>>;

class ChildProcess {
public:
    // Starts argv[0] with the test's environment plus (or overridden by) extra.
    ChildProcess(const std::vector<std::string>& argv, const Environment& extra);
    ~ChildProcess();  // kills a child that is still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void signal(int number) const;
    // True once the child has ended within timeoutMs; status as waitpid gives it.
    bool wait(int timeoutMs, int& status);
    bool running() const { return child > 0 && !ended; }
    std::string output() const;  // standard output so far
    std::string errors() const;  // standard error so far

private:
    pid_t child = -1;
    bool ended = false;
    std::string outPath;
    std::string errPath;
};

struct Result {
    int exitCode = -1;  // -1 when it ended by a signal or was killed after the time-out
    std::string output;
    std::string errors;
};

// Runs a child to its end (or kills it after timeoutMs).
Result runChild(const std::vector<std::string>& argv, const Environment& extra,
                int timeoutMs = 30000);

class Daemon {
public:
    // quorveld --listen 127.0.0.1:0 (--quiet unless logging) plus extraArgs;
    // waits for its port.
    explicit Daemon(const std::vector<std::string>& extraArgs = {}, bool logging = false);
    ~Daemon();

    int port() const { return listenPort; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(listenPort); }
    ChildProcess& process() { return *child; }
    // SIGTERM, then SIGKILL when it has not ended within timeoutMs; returns the
    // waitpid status (and the time it took through stopMs when given).
    int stop(int timeoutMs = 10000, long* stopMs = nullptr);

private:
    ChildProcess* child;
    int listenPort = -1;
    bool stopped = false;
    int stopStatus = 0;
};

// A loopback port on which nothing listens (bound, then released).
int unusedPort();

// A raw TCP connection to 127.0.0.1:port, for requests no client would send.
class RawConnection {
public:
    explicit RawConnection(int port);
    ~RawConnection();
    bool send(const std::string& bytes);
    // Everything until the peer closes or timeoutMs passes; closed tells which.
    std::string receiveAll(int timeoutMs, bool& closed);

private:
    int fd = -1;
};

}  // namespace DaemonTesting

#endif  // AVQVL_TESTS_DAEMON_DAEMONHARNESS_H
