// Eight threads, each with connections of its own, over the real transport.
// Each first builds, uses and destroys short-lived connections while the others
// register, so the XML library is started and ended under their feet if
// anything is unguarded. Then each runs the five operations on one connection,
// phase by phase with the others: every event posted reaches every other client once,
// in order, and nothing else arrives.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <functional>
#include <memory>
#include <thread>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "daemon/Delivery.h"

#ifdef QUORVELD_BINARY
#include "daemon/DaemonProcess.h"
#endif

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::Exception;
using Strings = std::vector<std::string>;

namespace {

constexpr int kThreads = 8;
constexpr int kEvents = 25;

// Each phase runs on kThreads threads at once and ends when all have.
void runAllThreads(const std::string& server) {
    std::vector<std::string> failures(kThreads);
    std::vector<std::unique_ptr<AvQVLConnection>> connections(kThreads);
    std::vector<Strings> shared(kThreads);
    for (auto& connection : connections) {  // constructing starts nothing
        connection = std::make_unique<AvQVLConnection>();
    }
    const auto inParallel = [&](const std::function<void(int, const std::string&)>& phase) {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {  // what a step throws is a failure of its thread
                try {
                    phase(t, "client-" + std::to_string(t));
                } catch (const Exception& e) {
                    failures[t] += "Exception: " + e.getMessage() + "\n";
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    };
    inParallel([&](int t, std::string id) {
        std::string serverId = server, locale = "en-GB";
        for (int i = 0; i < 20; ++i) {
            AvQVLConnection connection, copy(connection);
            std::string shortServer = server + "-" + id, scratch = "short-lived";
            failures[t] += copy.getStatus() != 0 ? "getStatus failed\n" : "";
            copy.registerClient(shortServer, scratch, locale, shared[t]);
            copy.unregisterClient(shared[t]);
        }
        connections[t]->registerClient(serverId, id, locale, shared[t]);
    });
    inParallel([&](int t, const std::string& id) {
        for (int k = 0; k < kEvents; ++k) {
            std::string text = id + "#" + std::to_string(k), correlation = "put";
            connections[t]->putEvents(text, shared[t], correlation);
        }
    });
    inParallel([&](int t, const std::string& id) {
        std::string events, correlation = "get";
        connections[t]->getEvents(events, shared[t], correlation);
        const auto received = Harness::scanEvents(events);
        failures[t] +=
            received.size() != (kThreads - 1) * kEvents ? "wrong number of events\n" : "";
        failures[t] += Harness::orderFault(id, received);
        shared[t].clear();
        connections[t]->getSharedClients(shared[t]);
        failures[t] += shared[t].size() != kThreads ? "getSharedClients listed too few\n" : "";
    });
    inParallel([&](int t, const std::string&) {
        connections[t]->unregisterClient(shared[t]);
        connections[t].reset();  // threads end, and so destroy, in any order
    });
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(failures[t], "") << "thread " << t;
    }
}

TEST(ThreadedConnections, EmbeddedService) {
    runAllThreads("threads-embedded");
}

#ifdef QUORVELD_BINARY
// The transport reads QUORVEL_URL at the process's first exchange, after it is set.
TEST(ThreadedConnections, Daemon) {
    Harness::DaemonProcess daemon({"--quiet"});
    ASSERT_EQ(::setenv("QUORVEL_URL", daemon.url().substr(12).c_str(), 1), 0);
    runAllThreads("threads-daemon");
    EXPECT_EQ(daemon.stop(), 0) << daemon.err();
}
#endif

}  // namespace
