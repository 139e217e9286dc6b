// What every store must do, run over the memory, SQLite and Redis stores: the
// order of clients and events, all-or-nothing fan-out, the limits, cursors and
// post ids, unregistering, the operators' listing and expiry, and the bound on
// the bytes the whole store holds.
#include <gtest/gtest.h>

#include <mutex>
#include <numeric>
#include <optional>
#include <set>
#include <thread>

#include "daemon/Delivery.h"
#include "engine/MemoryStore.h"
#include "engine/RedisStore.h"
#include "engine/SqliteStore.h"
#include "engine/StoreLines.h"
#include "support/RedisServer.h"
#include "support/TempDir.h"

namespace {

using namespace Arvant::Net::AvQuorvel::Engine;

// A fresh, empty store of the kind named; scratch is an empty directory of the
// test's own.
std::unique_ptr<Store> makeStore(const std::string& kind, const ServiceLimits& limits,
                                 const std::string& scratch) {
    if (kind == "Memory") {
        return std::make_unique<MemoryStore>(limits);
    }
    if (kind == "Sqlite") {
        return std::make_unique<SqliteStore>(scratch, limits);
    }
    static RedisServer redis;  // one for the whole program, emptied for each store
    redis.flush();
    RedisAddress address;
    address.port = redis.port;
    return std::make_unique<RedisStore>(address, limits);
}

std::string joined(const Lines& lines) {
    return std::accumulate(
        lines.begin(), lines.end(), std::string(),
        [](const std::string& all, const std::string& line) { return all + " " + line; });
}

class StoreConformance : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { open(ServiceLimits{}); }
    void open(const ServiceLimits& limits) {
        store.reset();
        store = makeStore(GetParam(), limits, scratch.path + "/" + std::to_string(++opened));
    }
    Lines post(const std::string& server, const std::string& sender, const std::string& text,
               const std::string& postId = "") {
        Lines clients;
        store->post(server, sender, text, postId, clients);
        return clients;
    }
    Lines take(const std::string& server, const std::string& client) {
        return readLines(*store, server, client, std::nullopt, true);
    }
    std::string stats() {
        const StoreStats s = store->stats();
        return " " + std::to_string(s.registeredClients) + "/" + std::to_string(s.waitingEvents) +
               "/" + std::to_string(s.waitingBytes);
    }
    // "server/client/events/bytes/fetched" for each listed client, checking that
    // times grow in registration order and a fetch follows the registration.
    Lines list(const std::string& server) {
        std::vector<ClientInfo> clients;
        store->listClients(server, clients);
        Lines shown;
        for (std::size_t i = 0; i < clients.size(); ++i) {
            const ClientInfo& c = clients[i];
            EXPECT_TRUE(c.registeredMs > 0 &&
                        (c.lastFetchMs == 0 || c.lastFetchMs >= c.registeredMs) &&
                        (i == 0 || clients[i - 1].serverId != c.serverId ||
                         c.registeredMs >= clients[i - 1].registeredMs))
                << c.clientId;
            shown.push_back(c.serverId + "/" + c.clientId + "/" + std::to_string(c.waitingEvents) +
                            "/" + std::to_string(c.waitingBytes) + "/" +
                            (c.lastFetchMs != 0 ? "fetched" : "never"));
        }
        return shown;
    }
    // One step of a scenario on server "S": "a=" (a registers), "a-" (a
    // unregisters), "a+text" or "a+text#id" (a posts), "a!N" (a acknowledges N),
    // "a?" or "a?N" (a reads, after acknowledging N), "a^" (a reads and
    // acknowledges what it read), "a*" (a reads with the clients: "EVENTS /
    // CLIENTS"), "$" (the stats as clients/events/bytes). After
    // a space, what it must give: the clients, events or stats, each after a
    // space, or "!L part" / "!R part" for a Limit / Refused failure holding part.
    // Reads and stats are always checked, the others when the step says.
    void step(const std::string& step) {
        SCOPED_TRACE(step);
        const std::string client = step.substr(0, 1), rest = step.substr(2, step.find(' ') - 2);
        const std::string expected = step.substr(std::min(step.find(' '), step.size()));
        bool check = expected.size() > 0 || step[1] == '?' || step[1] == '^' || step[0] == '$';
        std::string got;
        try {
            Lines after;
            switch (step[step[0] == '$' ? 0 : 1]) {
                case '=':
                    got = joined(registerAll(*store, "S", {client}));
                    break;
                case '-':
                    store->unregisterClient("S", client, after), got = joined(after);
                    break;
                case '!':
                    store->acknowledge("S", client, std::stoull(rest));
                    break;
                case '^':
                    got = joined(take("S", client));
                    break;
                case '$':
                    got = stats();
                    break;
                case '*':
                    got = joined(readLines(*store, "S", client, std::nullopt, false, &after));
                    got += " /" + joined(after);
                    break;
                case '+': {
                    const std::size_t hash = rest.find('#');
                    got = joined(post("S", client, rest.substr(0, hash),
                                      hash == std::string::npos ? "" : rest.substr(hash + 1)));
                    break;
                }
                default:
                    got = joined(readLines(*store, "S", client,
                                           rest.empty()
                                               ? std::nullopt
                                               : std::optional<std::uint64_t>(std::stoull(rest))));
            }
        } catch (const Failure& failure) {
            got = std::string(" !") + (failure.kind == FailureKind::Limit ? "L " : "R ") +
                  failure.message;
            check = got.compare(0, 4, expected, 0, 4) != 0 ||
                    got.find(expected.substr(std::min<std::size_t>(4, expected.size()))) ==
                        std::string::npos;
        }
        if (check) {
            EXPECT_EQ(got, expected);
        }
    }

    TempDir scratch;
    int opened = 0;
    std::unique_ptr<Store> store;
};

// Each row starts on a fresh store with its limits and clients a and b.
TEST_P(StoreConformance, Scenarios) {
    const std::string moreThan10 = "!L already holds 10 bytes";
    ServiceLimits storedBound;
    storedBound.maxStoredBytes = 10;
    const struct {
        const char* rule;
        ServiceLimits limits;
        Lines steps;
    } rows[] = {
        {"clients keep their registration order; a known client keeps its place",
         {},
         {"c= a b c", "a= a b c", "a- b c", "x- b c", "a= b c a", "$ 3/0/0"}},
        {"a post reaches every other client in order under one sequence, byte for byte",
         {},
         {"c=", "a+one a b c", "b+two", "a+", "c+x&<\xC3\xA9\n", "$ 3/8/24",
          "a^ b|2|two c|4|x&<\xC3\xA9\n", "b^ a|1|one a|3| c|4|x&<\xC3\xA9\n",
          "c^ a|1|one b|2|two a|3|", "c^", "$ 3/0/0"}},
        {"unregistering drops the events; the sequence goes on until the last client goes",
         {},
         {"a+one", "a+two", "b- a", "b= a b", "b?", "a+three", "b* a|3|three / a b", "b? a|3|three",
          "a-", "b-", "$ 0/0/0", "a=", "b=", "b+again", "a? b|1|again"}},
        {"an unregistered caller is refused, and its post takes no number",
         {},
         {"x+t !R \"x\" is not registered with server \"S\"", "x?1 !R is not registered", "b?",
          "a+first", "b? a|1|first"}},
        {"each limit refuses the whole post and uses no number",
         {8, 2, 3, 10},
         {"c=", "d= !L already has 3 clients", "a= a b c", "c+1234", "a+12",
          "c+x !L client \"b\" of server \"S\" already has 2 events waiting", "b^ c|1|1234 a|2|12",
          "b+1234567 !L \"a\" of server \"S\" already has 4 bytes of events waiting; 7 more would "
          "pass the limit of 10 bytes",
          "$ 3/2/6", "c^ a|2|12", "b+123456 a b c", "a^ c|1|1234 b|3|123456", "c^ b|3|123456"}},
        {"unread events come again; the cursor never moves back nor past the log (c keeps it "
         "whole); a new client starts at the head",
         {},
         {"c=", "a+one", "a+two", "b? a|1|one a|2|two", "b? a|1|one a|2|two", "b!1", "b!0",
          "b?0 a|2|two", "b!2", "b!1", "b?", "a+three", "b?1 a|3|three", "b!99", "a+four",
          "b? a|4|four", "e=", "e?"}},
        {"a repeated post id posts once, per sender",
         {},
         {"a+one#p", "a+one#p a b", "a+other#p", "b+two#p", "a+three#q", "b? a|1|one a|3|three",
          "a? b|2|two"}},
        {"the stored bytes count each text once, freed by its last recipient",
         storedBound,
         {"c=", "d=", "a+12345", "a+67890", "b+x " + moreThan10, "b^ a|1|12345 a|2|67890",
          "c^ a|1|12345 a|2|67890", "b+x " + moreThan10, "d^ a|1|12345 a|2|67890", "b+1234567890",
          "a-", "c-", "d-", "b+unheard,whatever-its-length", "e=", "b+0123456789",
          "e^ b|5|0123456789"}},
        {"a trim frees what it drops and no more, one acknowledgement at a time",
         storedBound,
         {"c=", "a+12345", "b^ a|1|12345", "c^ a|1|12345", "a+678", "a+90", "b^ a|2|678 a|3|90",
          "c!2", "$ 3/1/2", "b+123456789 !L already holds 2 bytes"}},
        {"an acknowledgement a read carries trims as one alone does",
         storedBound,
         {"a+0123456789", "b? a|1|0123456789", "b?1", "a+0123456789"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rule);
        open(row.limits);
        registerAll(*store, "S", {"a", "b"});
        for (const std::string& s : row.steps) {
            step(s);
        }
    }
}

// Servers are apart, stats count every server, and identifiers and texts that
// look like the Redis keys or the stored form come back whole.
TEST_P(StoreConformance, ServersAndAwkwardIdentifiersStayApart) {
    const Lines servers{"{x}", "%7Bx%7D", "}:queue:", "{", ""};
    for (const std::string& s : servers) {
        EXPECT_EQ(registerAll(*store, s, {"12", "", "b:c", "{b}"}),
                  (Lines{"12", "", "b:c", "{b}"}));
        post(s, "12", s + " 9 y");
        post(s, "", "");
    }
    EXPECT_EQ(stats(), " 20/30/117");
    for (const std::string& s : servers) {
        EXPECT_EQ(take(s, "{b}"), (Lines{"12|1|" + s + " 9 y", "|2|"})) << s;
        EXPECT_EQ(take(s, ""), (Lines{"12|1|" + s + " 9 y"})) << s;
    }
    EXPECT_THROW(post("T", "12", "x"), Failure);
    EXPECT_THROW(readLines(*store, "T", "12"), Failure);
}

// A sender's post ids are remembered up to kRememberedPosts: the oldest beyond
// that posts again.
TEST_P(StoreConformance, PostIdsAreRememberedUpToTheirBound) {
    registerAll(*store, "S", {"a", "b"});
    for (std::size_t i = 0; i <= kRememberedPosts; ++i) {
        post("S", "a", "x", std::to_string(i));
    }
    post("S", "a", "newest", std::to_string(kRememberedPosts));
    post("S", "a", "oldest", "0");
    EXPECT_EQ(readLines(*store, "S", "b", kRememberedPosts + 1),
              (Lines{"a|" + std::to_string(kRememberedPosts + 2) + "|oldest"}));
}

// The operators' listing, by server and then registration, with queues and
// times. A client idle since before the cutoff goes, with its events; the
// cutoff itself is not idle; a never-fetching client counts from its registration.
TEST_P(StoreConformance, ListsAndExpiresIdleClients) {
    registerAll(*store, "S", {"b", "a"});
    post("S", "b", "xyz");
    post("S", "a", "12");
    std::vector<ClientInfo> infos, expired;
    store->listClients("S", infos);
    // The clock moves past a's registration (bounded: it ticks every millisecond).
    for (int spins = 0; spins < 1000000 && epochMilliseconds() <= infos[1].registeredMs; ++spins) {
        std::this_thread::yield();
    }
    take("S", "b");
    registerAll(*store, "R", {"c"});
    EXPECT_EQ(list(""), (Lines{"R/c/0/0/never", "S/b/0/0/fetched", "S/a/1/3/never"}));
    store->listClients("S", infos);
    const std::int64_t cutoff = infos[0].lastFetchMs;
    ASSERT_GT(cutoff, infos[1].registeredMs);
    store->expireIdleClients(infos[1].registeredMs, expired);
    EXPECT_TRUE(expired.empty());
    store->expireIdleClients(cutoff, expired);
    ASSERT_EQ(expired.size(), 1u);
    EXPECT_EQ(expired[0].clientId + "/" + std::to_string(expired[0].waitingEvents), "a/1");
    EXPECT_EQ(list("S"), (Lines{"S/b/0/0/fetched"}));
    EXPECT_EQ(stats(), " 2/0/0");
    store->expireIdleClients(cutoff + 1, expired);
    EXPECT_EQ(list("S"), Lines{});
}

// Posters and takers on several threads: every event arrives once, in
// sequence order and in its sender's order.
TEST_P(StoreConformance, ConcurrentPostsAndTakesLoseNothing) {
    registerAll(*store, "S", {"0", "1", "2", "3"});
    std::vector<std::vector<Harness::Delivered>> received(4);
    const auto drain = [&](int i) {
        for (const std::string& event : take("S", std::to_string(i))) {  // "s|sequence|s#n"
            received[i].push_back({event.substr(0, 1), std::stoul(event.substr(2)),
                                   std::stoi(event.substr(event.rfind('#') + 1))});
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 100; ++n) {
                post("S", std::to_string(i), std::to_string(i) + "#" + std::to_string(n));
                if (n % 10 == 9) {
                    drain(i);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < 4; ++i) {
        drain(i);
        EXPECT_EQ(received[i].size(), 300u);
        EXPECT_EQ(Harness::orderFault(std::to_string(i), received[i]), "");
    }
}

// Posts racing one another (two threads per sender, sending the same ids, and
// two of a sender that is not registered) are each checked against what the
// posts before them left: the recipient that never reads gets exactly its
// limit of events, each once, every post answered as done among them, every
// other refused for that recipient, and the stranger's all refused as such.
TEST_P(StoreConformance, RacingPostsKeepTheLimitsAndThePostIds) {
    ServiceLimits limits;
    limits.maxQueuedEventsPerClient = 40;
    open(limits);
    registerAll(*store, "S", {"r", "0", "1", "2", "3"});
    std::mutex mutex;
    std::set<std::string> done;
    std::vector<std::string> refusals;
    std::vector<std::thread> threads;
    for (int t = 0; t < 10; ++t) {
        threads.emplace_back([&, t] {
            const std::string sender = t < 8 ? std::to_string(t % 4) : "x";
            for (int n = 0; n < 25; ++n) {
                const std::string id = std::to_string(n), text = sender + "#" + id;
                try {
                    post("S", sender, text, id);
                    std::lock_guard<std::mutex> lock(mutex);
                    done.insert(sender + "|" + text);
                } catch (const Failure& failure) {
                    std::lock_guard<std::mutex> lock(mutex);
                    refusals.push_back(failure.message);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<std::string> received;
    for (const std::string& event : take("S", "r")) {  // "sender|sequence|text"
        received.insert(event.substr(0, 2) + event.substr(event.rfind('|') + 1));
    }
    EXPECT_EQ(received.size(), 40u);
    EXPECT_EQ(done, received);
    std::size_t strangers = 0;
    for (const std::string& refusal : refusals) {
        if (refusal == notRegisteredMessage("S", "x")) {
            ++strangers;
        } else {
            EXPECT_NE(refusal.find("client \"r\" of server \"S\" already has 40 events"),
                      std::string::npos)
                << refusal;
        }
    }
    EXPECT_EQ(strangers, 50u);
}

// Reads racing one another (one thread per client) each get what waits for
// their own client, less its own post, with the clients; each acknowledgement
// moves its own cursor only; a reader that is not registered is refused alone.
TEST_P(StoreConformance, RacingReadsEachGetTheirOwn) {
    open(ServiceLimits());
    const Lines ids{"0", "1", "2", "3", "4", "5"};
    registerAll(*store, "S", ids);
    for (const std::string& id : ids) {
        post("S", id, "from " + id);
    }
    std::vector<std::string> faults(ids.size() + 1);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < ids.size(); ++t) {
        threads.emplace_back([&, t] {
            Lines expected, clients;
            for (std::size_t other = 0; other < ids.size(); ++other) {
                if (other != t) {
                    expected.push_back(ids[other] + "|" + std::to_string(other + 1) + "|from " +
                                       ids[other]);
                }
            }
            if (readLines(*store, "S", ids[t], std::nullopt, false, &clients) != expected ||
                clients != ids) {
                faults[t] += "read another's events or clients\n";
            }
            if (!readLines(*store, "S", ids[t], ids.size()).empty()) {
                faults[t] += "read again what it acknowledged\n";
            }
        });
    }
    threads.emplace_back([&] {
        try {
            readLines(*store, "S", "x");
            faults.back() = "a reader that is not registered was answered";
        } catch (const Failure& failure) {
            if (failure.message != notRegisteredMessage("S", "x")) {
                faults.back() = failure.message;
            }
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::size_t t = 0; t < faults.size(); ++t) {
        EXPECT_EQ(faults[t], "") << "reader " << t;
    }
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreConformance, ::testing::Values("Memory", "Sqlite", "Redis"),
                         [](const auto& info) { return info.param; });

}  // namespace
