// Child processes for the tests of quorvel and quorveld. Standard input, output and
// error are temporary files, so no child blocks on a full pipe; a child still running
// when its object ends is killed. The test programs that use this start no threads.
#ifndef AVQVL_TESTS_DAEMON_DAEMONHARNESS_H
#define AVQVL_TESTS_DAEMON_DAEMONHARNESS_H

#include <signal.h>
#include <stdlib.h>
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
        for (int waited = 0; waited < timeoutMs && running(); waited += 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        signal(SIGKILL);
        ended = ended || ::waitpid(pid, &status, 0) == pid;
        return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string out() const { return read(1); }
    std::string err() const { return read(2); }

private:
    std::string read(int fd) const {
        // A file description of its own, so the offset the child writes at stays.
        std::ifstream file("/proc/self/fd/" + std::to_string(::fileno(files[fd])));
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

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

// Runs quorvel (QUORVEL_BINARY, which the test program defines) with args.
inline Result quorvel(Strings args, const Strings& env = {}, const std::string& input = "") {
    args.insert(args.begin(), QUORVEL_BINARY);
    return run(args, env, input);
}

}  // namespace Harness

#endif  // AVQVL_TESTS_DAEMON_DAEMONHARNESS_H
