// Client processes that post and fetch through QUORVEL_URL while a fault hits
// the service (a daemon or its store killed), and the account of what each saw:
// every acknowledged post reaches every other client once and in order, a post
// that failed for good arrives at most once. runCrashLoad() owns the client
// processes; the fault callback owns whatever it kills and starts.
#ifndef AVQVL_TESTS_DAEMON_CRASHLOAD_H
#define AVQVL_TESTS_DAEMON_CRASHLOAD_H

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <memory>
#include <numeric>
#include <set>
#include <sstream>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "daemon/DaemonHarness.h"
#include "daemon/Delivery.h"

namespace Harness {

struct CrashLoad {
    int clients = 16;
    int posts = 160;  // per client, "cN#0" to "cN#159"
};

namespace CrashDetail {

using Clock = std::chrono::steady_clock;
using Arvant::Net::AvQuorvel::Client::Exception;
using std::chrono::milliseconds;

inline volatile std::sig_atomic_t drain = 0;  // SIGUSR1: every client has posted all

// Calls f until it works or the time is up; prints "X" for each failure.
template <class F>
bool persist(F f, Clock::time_point until) {
    for (;;) {
        try {
            f();
            return true;
        } catch (Exception* e) {  // how getSharedClients reports the service's failures
            delete e;
        } catch (const Exception&) {
        }
        std::printf("X\n");
        if (Clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(50));  // the service is likely down
    }
}

// Prints the events of a getEvents answer as "E sender sequence number" lines;
// how many there were.
inline std::size_t printEvents(const std::string& answer) {
    const std::vector<Delivered> got = scanEvents(answer);
    for (const Delivered& event : got) {
        std::printf("E %s %lu %d\n", event.sender.c_str(), event.sequence, event.number);
    }
    return got.size();
}

// Each line one fact for the account: "P i ok" or "P i unsure" (a post given up,
// maybe applied), "X" (a failed call), "E sender sequence number", "posted".
// A failed post is sent again with the same text, as an application would.
inline int crashClient(const CrashLoad& load, const std::string& self) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // the test reads progress as it comes
    std::signal(SIGUSR1, [](int) { drain = 1; });
    Arvant::Net::AvQuorvel::Client::AvQVLConnection connection;
    std::string server = "S", client = self, locale, events, correlation;
    std::vector<std::string> shared;
    const auto deadline = Clock::now() + std::chrono::seconds(150);
    persist([&] { connection.registerClient(server, client, locale, shared); }, deadline);
    while (shared.size() < static_cast<std::size_t>(load.clients) && Clock::now() < deadline) {
        shared.clear();
        persist([&] { connection.getSharedClients(shared); }, deadline);
    }
    auto fetch = [&]() {  // true when it worked and brought something, or may have
        if (!persist([&] { connection.getEvents(events, shared, correlation); }, Clock::now())) {
            return true;
        }
        return printEvents(events) > 0;
    };
    for (int i = 0; i < load.posts; ++i) {
        std::string text = self + "#" + std::to_string(i);
        const bool ok = persist([&] { connection.putEvents(text, shared, correlation); },
                                std::min(deadline, Clock::now() + std::chrono::seconds(10)));
        std::printf("P %d %s\n", i, ok ? "ok" : "unsure");
        if (i % 8 == 7) {
            fetch();
        }
    }
    std::printf("posted\n");
    while (!drain && Clock::now() < deadline) {
        fetch();
        std::this_thread::sleep_for(milliseconds(20));
    }
    while (fetch() && Clock::now() < deadline) {
    }
    return Clock::now() < deadline ? 0 : 1;
}

struct ClientLog {
    std::set<int> acked, unsure;
    int failures = 0;
    bool posted = false;
    std::vector<Delivered> received;
};

inline ClientLog parseLog(const std::string& text) {
    ClientLog log;
    std::istringstream lines(text);
    std::string kind, outcome;
    for (Delivered event; lines >> kind;) {
        if (kind == "P" && lines >> event.number >> outcome) {
            (outcome == "ok" ? log.acked : log.unsure).insert(event.number);
        } else if (kind == "E" && lines >> event.sender >> event.sequence >> event.number) {
            log.received.push_back(event);
        }
        log.failures += kind == "X";
        log.posted = log.posted || kind == "posted";
    }
    return log;
}

// What recipient r missed of the others' acknowledged posts, or received
// without anyone having posted it; "" when neither.
inline std::string accountOf(std::size_t r, const std::vector<ClientLog>& logs) {
    std::map<std::size_t, std::set<int>> got;
    for (const Delivered& event : logs[r].received) {
        const std::size_t s = std::strtoul(event.sender.c_str() + 1, nullptr, 10);
        got[s].insert(event.number);
        if (s >= logs.size() ||
            (!logs[s].acked.count(event.number) && !logs[s].unsure.count(event.number))) {
            return event.sender + "#" + std::to_string(event.number) + " never posted";
        }
    }
    for (std::size_t s = 0; s < logs.size(); ++s) {
        for (int number : logs[s].acked) {
            if (s != r && !got[s].count(number)) {
                return "acknowledged c" + std::to_string(s) + "#" + std::to_string(number) +
                       " lost";
            }
        }
    }
    return "";
}

}  // namespace CrashDetail

// Runs load.clients client processes against urlEnv ("QUORVEL_URL=..."), calls
// fault once about a third of the posts are acknowledged, lets every client
// fetch until nothing is left, then checks the account. Returns how many calls
// failed at the clients, for the caller to check that the fault hit.
inline int runCrashLoad(const CrashLoad& load, const std::string& urlEnv,
                        const std::function<void()>& fault) {
    using namespace CrashDetail;
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < load.clients; ++i) {
        const std::string name = "c" + std::to_string(i);
        clients.push_back(std::make_unique<Child>([&load, name] { return crashClient(load, name); },
                                                  Strings{urlEnv}));
    }
    const auto acknowledged = [&clients] {
        return std::accumulate(clients.begin(), clients.end(), 0, [](int n, const auto& client) {
            return n + static_cast<int>(parseLog(client->out()).acked.size());
        });
    };
    waitUntil([&] { return acknowledged() >= load.clients * load.posts / 3; }, 120000);
    const int ackedBeforeFault = acknowledged();
    fault();
    for (auto& client : clients) {
        waitUntil([&] { return parseLog(client->out()).posted || !client->running(); }, 120000);
    }
    for (auto& client : clients) {
        client->signal(SIGUSR1);
    }
    std::vector<ClientLog> logs;
    int failures = 0;
    for (auto& client : clients) {
        EXPECT_EQ(client->wait(150000), 0) << client->err();
        logs.push_back(parseLog(client->out()));
        failures += logs.back().failures;
        // The last post worked without registering again: registrations survived.
        EXPECT_TRUE(logs.back().acked.count(load.posts - 1));
    }
    EXPECT_GT(ackedBeforeFault, 0);
    EXPECT_LT(ackedBeforeFault, acknowledged()) << "the fault came after the load";
    for (std::size_t r = 0; r < logs.size(); ++r) {
        EXPECT_EQ(orderFault("c" + std::to_string(r), logs[r].received) + accountOf(r, logs), "")
            << "c" << r;
    }
    return failures;
}

}  // namespace Harness

#endif  // AVQVL_TESTS_DAEMON_CRASHLOAD_H
