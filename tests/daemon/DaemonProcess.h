// quorveld for the tests of the daemon's server side, on an ephemeral loopback
// port: as a child process (DaemonProcess), or as the daemon library served by a
// thread of the test (InProcessDaemon) where no process is killed, limited or
// started with a command line. RawConnection talks to either byte by byte.
#ifndef AVQVL_TESTS_DAEMON_DAEMONPROCESS_H
#define AVQVL_TESTS_DAEMON_DAEMONPROCESS_H

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "daemon/Daemon.h"
#include "daemon/DaemonHarness.h"
#include "protocol/Names.h"
#include "wire/HttpWire.h"

namespace Harness {

// quorveld on an ephemeral loopback port, logging to err(); always stopped.
class DaemonProcess : public Child {
public:
    // port 0 picks a free one; a daemon started again on its predecessor's port
    // finds the clients coming back.
    explicit DaemonProcess(const Strings& options = {}, const Strings& env = {}, int listenPort = 0)
        : Child(program({QUORVELD_BINARY, "--listen", "127.0.0.1:" + std::to_string(listenPort)},
                        options),
                env) {
        char newline = 0;
        waitUntil([&] {
            std::sscanf(out().c_str(), "quorveld listening on 127.0.0.1:%d%c", &port, &newline);
            return newline == '\n' || !running();
        });
        EXPECT_EQ(newline, '\n') << "quorveld did not start: " << err();
    }
    int stop() {  // SIGTERM, SIGKILL after 10 s; the exit code
        signal(SIGTERM);
        return wait(10000);
    }
    std::string url() const { return "QUORVEL_URL=http://127.0.0.1:" + std::to_string(port); }
    int port = 0;
};

// The daemon library on its own thread until the object ends (or stop()), with
// store (a MemoryStore when null); its log lines go to log().
class InProcessDaemon {
public:
    using Options = Arvant::Net::AvQuorvel::Daemon::DaemonOptions;
    explicit InProcessDaemon(Options options = {},
                             std::unique_ptr<Arvant::Net::AvQuorvel::Engine::Store> store = {})
        : daemon((options.port = 0, options), logFile, std::move(store)) {
        std::string error;
        EXPECT_TRUE(daemon.bind(error)) << error;
        port = daemon.port();
        serving = std::thread([this] { daemon.run(); });
    }
    ~InProcessDaemon() {
        stop();
        std::fclose(logFile);
    }
    void stop() {
        if (serving.joinable()) {
            daemon.stop();
            serving.join();
        }
    }
    std::string log() const { return contentsOf(logFile); }
    int port = 0;

private:
    std::FILE* logFile = std::tmpfile();
    Arvant::Net::AvQuorvel::Daemon::Daemon daemon;
    std::thread serving;
};

// GET path on a connection of its own.
inline std::string getRaw(int port, const std::string& path, const std::string& headers = "",
                          int timeoutMs = 3000) {
    return exchangeRaw(
        port, "GET " + path + " HTTP/1.1\r\nHost: t\r\n" + headers + "Connection: close\r\n\r\n",
        timeoutMs);
}

// An exchange as the HTTP backend sends it, on a connection the daemon closes
// after it: the fields ("Name=value" each) and the body; extra header lines as
// they are.
inline std::string exchangeText(const Strings& fields, const std::string& body = "",
                                const std::string& headers = "") {
    std::string text =
        "POST /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\nConnection: close\r\n" + headers;
    for (const std::string& field : fields) {
        const std::size_t equals = field.find('=');
        text += "Quorvel-Field: " +
                Arvant::Net::AvQuorvel::Wire::encodeField(field.substr(0, equals),
                                                          field.substr(equals + 1)) +
                "\r\n";
    }
    return text + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The post id header line the HTTP backend adds to a putEvents, its id all
// zeros but the last digit.
inline std::string postIdHeader(char last) {
    return std::string(Arvant::Net::AvQuorvel::Protocol::kPostIdHeader) + ": " +
           std::string(Arvant::Net::AvQuorvel::Wire::kPostIdDigits - 1, '0') + last + "\r\n";
}

// The fields of an exchange of operation by client of server "S".
inline Strings asClient(const std::string& operation, const std::string& client) {
    return {"Service-Name=AvQVLRequest", "Operation-Name=" + operation, "Server-ID=S",
            "Client-ID=" + client};
}

// The status of an HTTP answer; 0 when none came.
inline int statusOf(const std::string& answer) {
    int status = 0;
    std::sscanf(answer.c_str(), "HTTP/1.1 %d", &status);
    return status;
}

// Registers each client with server "S" through raw exchanges.
inline void registerClients(int port, const Strings& clients) {
    for (const std::string& client : clients) {
        EXPECT_EQ(statusOf(exchangeRaw(port, exchangeText(asClient("registerClient", client)))),
                  200);
    }
}

}  // namespace Harness

#endif  // AVQVL_TESTS_DAEMON_DAEMONPROCESS_H
