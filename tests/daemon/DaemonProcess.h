// quorveld as a child process on an ephemeral loopback port, for the tests of
// the daemon's server side (RawConnection.h talks to it byte by byte).
#ifndef AVQVL_TESTS_DAEMON_DAEMONPROCESS_H
#define AVQVL_TESTS_DAEMON_DAEMONPROCESS_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "daemon/DaemonHarness.h"
#include "daemon/RawConnection.h"

namespace Harness {

// quorveld on an ephemeral loopback port, logging to err(); always stopped.
class DaemonProcess : public Child {
public:
    explicit DaemonProcess(const Strings& options = {})
        : Child(program({QUORVELD_BINARY, "--listen", "127.0.0.1:0"}, options)) {
        char newline = 0;
        for (int i = 0; i < 2000 && newline != '\n' && running(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            std::sscanf(out().c_str(), "quorveld listening on 127.0.0.1:%d%c", &port, &newline);
        }
        EXPECT_EQ(newline, '\n') << "quorveld did not start: " << err();
    }
    int stop() {  // SIGTERM, SIGKILL after 10 s; the exit code
        signal(SIGTERM);
        return wait(10000);
    }
    std::string url() const { return "QUORVEL_URL=http://127.0.0.1:" + std::to_string(port); }
    int port = 0;
};

}  // namespace Harness

#endif  // AVQVL_TESTS_DAEMON_DAEMONPROCESS_H
