// Bounded load: 16 client processes each post 1000 events under one server
// identifier and fetch the events of the others; every event arrives exactly
// once and in order per sender (the clients check), the daemon stays up and
// stops cleanly on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "daemon/DaemonHarness.h"

using namespace DaemonTesting;

TEST(DaemonLoadTest, SixteenProcessesPostAndFetchEveryEventOnce) {
    constexpr int clients = 16;
    constexpr int eventsEach = 1000;
    Daemon daemon;
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<ChildProcess>> processes;
    for (int i = 0; i < clients; ++i) {
        const std::string name = "c" + std::to_string(100 + i);
        processes.emplace_back(
            new ChildProcess({DAEMON_CLIENT_BINARY, "load", "load-server", name,
                              std::to_string(clients), std::to_string(eventsEach)},
                             {{"QUORVEL_URL", daemon.url()}}));
    }
    for (auto& process : processes) {
        int status = 0;
        ASSERT_TRUE(process->wait(120000, status)) << "a client did not finish";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << process->output() << process->errors();
        EXPECT_EQ(process->output(), "received " + std::to_string((clients - 1) * eventsEach) +
                                         " from " + std::to_string(clients - 1) + " senders\n");
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    std::cout << "[ measured ] " << clients << " x " << eventsEach << " events: " << took.count()
              << " ms\n";
    EXPECT_TRUE(daemon.process().running());
    const int status = daemon.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
