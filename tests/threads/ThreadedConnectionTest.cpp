// Eight threads, each with connections of its own, over the real transport.
// Each first builds, uses and destroys short-lived connections while the others
// register, so the XML library is started and ended under their feet if
// anything is unguarded. Then each runs the five operations on one connection
// in step with the others: every event posted reaches every other client once,
// in order, and nothing else arrives.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "daemon/Delivery.h"
#include "util/XMLNode.h"

#ifdef QUORVELD_BINARY
#include "daemon/DaemonProcess.h"
#endif

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::Exception;
using Arvant::Net::AvQuorvel::Util::DomException;
using Strings = std::vector<std::string>;

namespace {

constexpr int kThreads = 8;
constexpr int kEvents = 25;

// All threads wait for the last to arrive, or for a minute, so one thread that
// failed early cannot leave the others waiting forever.
class Barrier {
public:
    void arriveAndWait() {
        std::unique_lock<std::mutex> lock(mutex);
        const int round = rounds;
        if (++arrived == kThreads) {
            arrived = 0, ++rounds;
            allArrived.notify_all();
        }
        allArrived.wait_for(lock, std::chrono::minutes(1), [&] { return rounds != round; });
    }

private:
    std::mutex mutex;
    std::condition_variable allArrived;
    int arrived = 0, rounds = 0;
};

// Runs one step, turning whatever it throws into a failure text of the thread.
template <typename Step>
void guarded(std::string& failure, Step step) {
    try {
        step();
    } catch (const Exception& e) {
        failure += "Exception: " + e.getMessage() + "\n";
    } catch (const DomException& e) {
        failure += "DomException: " + e.getMessage() + "\n";
    } catch (...) {
        failure += "something else thrown\n";
    }
}

void runThread(int self, const std::string& server, Barrier& barrier, std::string& failure) {
    const std::string client = "client-" + std::to_string(self);
    std::string locale = "en-GB";
    Strings shared;
    for (int i = 0; i < 20; ++i) {
        guarded(failure, [&] {
            AvQVLConnection connection;
            AvQVLConnection copy(connection);
            std::string shortServer = server + "-" + client, scratch = "short-lived";
            Strings ids;
            failure += copy.getStatus() != 0 ? "getStatus failed\n" : "";
            copy.registerClient(shortServer, scratch, locale, ids);
            copy.unregisterClient(ids);
        });
    }
    auto connection = std::make_unique<AvQVLConnection>();
    std::string serverId = server, id = client;
    guarded(failure, [&] { connection->registerClient(serverId, id, locale, shared); });
    barrier.arriveAndWait();
    guarded(failure, [&] {
        for (int k = 0; k < kEvents; ++k) {
            std::string text = client + "#" + std::to_string(k), correlation = "put";
            connection->putEvents(text, shared, correlation);
        }
    });
    barrier.arriveAndWait();
    guarded(failure, [&] {
        std::string events, correlation = "get";
        connection->getEvents(events, shared, correlation);
        const auto received = Harness::scanEvents(events);
        failure += received.size() != (kThreads - 1) * kEvents ? "wrong number of events\n" : "";
        failure += Harness::orderFault(client, received);
        failure += shared.size() != kThreads ? "getEvents listed too few clients\n" : "";
        shared.clear();
        connection->getSharedClients(shared);
        failure += shared.size() != kThreads ? "getSharedClients listed too few\n" : "";
    });
    barrier.arriveAndWait();
    guarded(failure, [&] { connection->unregisterClient(shared); });
    connection.reset();  // threads end, and so destroy, in any order
}

void runAllThreads(const std::string& server) {
    Barrier barrier;
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back(runThread, t, server, std::ref(barrier), std::ref(failures[t]));
    }
    for (int t = 0; t < kThreads; ++t) {
        threads[t].join();
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
    ASSERT_NE(daemon.port, 0);
    ASSERT_EQ(::setenv("QUORVEL_URL", daemon.url().substr(12).c_str(), 1), 0);
    runAllThreads("threads-daemon");
    EXPECT_EQ(daemon.stop(), 0) << daemon.err();
}
#endif

}  // namespace
