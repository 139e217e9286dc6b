// Eight threads, each with connections of its own, over the real transport.
// First every thread builds, uses and destroys short-lived connections while the
// others do the same, so the XML library is started and ended under their feet
// if anything is unguarded. Then each runs all five operations on one connection
// in step with the others: every event posted reaches every other client once,
// in order, and nothing else arrives.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "util/XMLNode.h"

#ifdef QUORVELD_BINARY
#include "daemon/DaemonHarness.h"
#endif

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::Exception;
using Arvant::Net::AvQuorvel::Util::DomException;
using Strings = std::vector<std::string>;

namespace {

constexpr int kThreads = 8;
constexpr int kEvents = 25;
constexpr int kShortLived = 20;

// All threads wait for the last to arrive, or for a minute, so one thread that
// failed early cannot leave the others waiting forever.
class Barrier {
public:
    void arriveAndWait() {
        std::unique_lock<std::mutex> lock(mutex);
        const int round = rounds;
        if (++arrived == kThreads) {
            arrived = 0;
            ++rounds;
            allArrived.notify_all();
            return;
        }
        allArrived.wait_for(lock, std::chrono::minutes(1), [&] { return rounds != round; });
    }

private:
    std::mutex mutex;
    std::condition_variable allArrived;
    int arrived = 0, rounds = 0;
};

std::string name(const char* prefix, int n) {
    return prefix + std::to_string(n);
}

// Runs one step, turning whatever it throws into a failure text of the thread.
template <typename Step>
void guarded(std::string& failure, Step step) {
    try {
        step();
    } catch (const Exception& e) {
        failure += "Exception " + std::to_string(e.getType()) + ": " + e.getMessage() + "\n";
    } catch (Exception* e) {
        failure += "Exception* " + e->getMessage() + "\n";
        delete e;
    } catch (const DomException& e) {
        failure += "DomException: " + e.getMessage() + "\n";
    }
}

// Finds every other thread's events in `events`, each once and in posting order.
void checkEvents(int self, const std::string& events, std::string& failure) {
    std::size_t count = 0;
    for (std::size_t at = events.find("<ns0:event "); at != std::string::npos;
         at = events.find("<ns0:event ", at + 1)) {
        ++count;
    }
    if (count != (kThreads - 1) * kEvents) {
        failure += "received " + std::to_string(count) + " events\n";
    }
    for (int sender = 0; sender < kThreads; ++sender) {
        std::size_t at = 0;
        for (int k = 0; k < kEvents && sender != self; ++k) {
            at =
                events.find(">event " + std::to_string(sender) + "." + std::to_string(k) + "<", at);
            if (at == std::string::npos) {
                failure += "event " + std::to_string(sender) + "." + std::to_string(k) +
                           " missing or out of order\n";
                break;
            }
        }
    }
    if (events.find(">event " + std::to_string(self) + ".") != std::string::npos) {
        failure += "received its own events\n";
    }
}

void runThread(int self, const std::string& server, Barrier& barrier, std::string& failure) {
    std::string client = name("client-", self), locale = "en-GB", scratch = "short-lived";
    Strings shared;
    for (int i = 0; i < kShortLived; ++i) {
        guarded(failure, [&] {
            AvQVLConnection connection;
            AvQVLConnection copy(connection);
            std::string shortServer = server + name("-", self);
            Strings ids;
            if (copy.getStatus() != 0) {
                failure += "getStatus failed\n";
            }
            copy.registerClient(shortServer, scratch, locale, ids);
            copy.unregisterClient(ids);
        });
    }
    barrier.arriveAndWait();

    auto connection = std::make_unique<AvQVLConnection>();
    std::string serverId = server;
    guarded(failure, [&] { connection->registerClient(serverId, client, locale, shared); });
    barrier.arriveAndWait();

    guarded(failure, [&] {
        for (int k = 0; k < kEvents; ++k) {
            std::string text = "event " + std::to_string(self) + "." + std::to_string(k);
            std::string correlation = name("put.", k);
            connection->putEvents(text, shared, correlation);
        }
    });
    barrier.arriveAndWait();

    guarded(failure, [&] {
        std::string events, correlation = "get";
        connection->getEvents(events, shared, correlation);
        checkEvents(self, events, failure);
        if (shared.size() != kThreads) {
            failure += "getEvents listed " + std::to_string(shared.size()) + " clients\n";
        }
        shared.clear();
        connection->getSharedClients(shared);
        if (shared.size() != kThreads) {
            failure += "getSharedClients listed " + std::to_string(shared.size()) + " clients\n";
        }
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
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(failures[t], "") << "thread " << t;
    }
}

TEST(ThreadedConnections, EmbeddedService) {
    runAllThreads("threads-embedded");
}

#ifdef QUORVELD_BINARY
// The daemon is started before any thread, and the transport reads QUORVEL_URL
// at the process's first exchange, which comes after it is set.
TEST(ThreadedConnections, Daemon) {
    Harness::Child daemon(
        Harness::program({QUORVELD_BINARY, "--listen", "127.0.0.1:0", "--quiet"}));
    int port = 0;
    char newline = 0;
    for (int i = 0; i < 2000 && newline != '\n' && daemon.running(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::sscanf(daemon.out().c_str(), "quorveld listening on 127.0.0.1:%d%c", &port, &newline);
    }
    ASSERT_EQ(newline, '\n') << "quorveld did not start: " << daemon.err();
    ASSERT_EQ(::setenv("QUORVEL_URL", ("http://127.0.0.1:" + std::to_string(port)).c_str(), 1), 0);
    runAllThreads("threads-daemon");
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(10000), 0) << daemon.err();
}
#endif

}  // namespace
