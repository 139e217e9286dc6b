// What every store must do, run over each store of StoreFactories.h: the
// order of clients and events, sequences, all-or-nothing fan-out, the limits,
// cursors and post ids, unregistering dropping events, the operators' listing
// and expiry, and the bound on the bytes the whole store holds.
#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "engine/StoreFactories.h"
#include "support/TempDir.h"

namespace {

using namespace Arvant::Net::AvQuorvel::Engine;
using StoreTests::StoreFactory;
using Lines = std::vector<std::string>;

class StoreConformance : public ::testing::TestWithParam<StoreFactory> {
protected:
    void SetUp() override { open(ServiceLimits{}); }
    // A fresh store, in a directory of its own for the stores that keep files.
    void open(const ServiceLimits& limits) {
        store.reset();
        store = GetParam().make(limits, scratch.path + "/" + std::to_string(++opened));
    }

    Lines add(const std::string& server, const Lines& clients) {
        Lines after;
        for (const std::string& client : clients) {
            store->registerClient(server, client, after);
        }
        return after;
    }
    Lines post(const std::string& server, const std::string& sender, const std::string& text,
               const std::string& postId = "") {
        Lines clients;
        store->post(server, sender, text, postId, clients);
        return clients;
    }
    // The client's events as "sender|sequence|text", after acknowledging ack
    // when given; with take, what was read is acknowledged.
    Lines read(const std::string& server, const std::string& client,
               std::optional<std::uint64_t> ack = std::nullopt, bool take = false) {
        std::vector<StoredEvent> events;
        store->read(server, client, ack, events);
        Lines shown;
        for (const StoredEvent& event : events) {
            shown.push_back(event.sender + "|" + std::to_string(event.sequence) + "|" +
                            *event.text);
        }
        if (take && !events.empty()) {
            store->acknowledge(server, client, events.back().sequence);
        }
        return shown;
    }
    Lines take(const std::string& server, const std::string& client) {
        return read(server, client, std::nullopt, true);
    }
    // The failure the operation throws: its kind, and a message holding part.
    template <typename Operation>
    void fails(FailureKind kind, const std::string& part, Operation operation) {
        try {
            operation();
            ADD_FAILURE() << "no failure; expected one holding " << part;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.kind, kind);
            EXPECT_NE(failure.message.find(part), std::string::npos) << failure.message;
        }
    }

    // "server/client/events/bytes/fetched" for each listed client, checking that
    // times grow in registration order within a server and a fetch follows it.
    Lines list(const std::string& server, std::vector<ClientInfo>* infos = nullptr) {
        std::vector<ClientInfo> clients;
        store->listClients(server, clients);
        Lines shown;
        for (std::size_t i = 0; i < clients.size(); ++i) {
            const ClientInfo& c = clients[i];
            EXPECT_GT(c.registeredMs, 0);
            if (i > 0 && clients[i - 1].serverId == c.serverId) {
                EXPECT_GE(c.registeredMs, clients[i - 1].registeredMs) << c.clientId;
            }
            EXPECT_TRUE(c.lastFetchMs == 0 || c.lastFetchMs >= c.registeredMs) << c.clientId;
            shown.push_back(c.serverId + "/" + c.clientId + "/" + std::to_string(c.waitingEvents) +
                            "/" + std::to_string(c.waitingBytes) + "/" +
                            (c.lastFetchMs != 0 ? "fetched" : "never"));
        }
        if (infos != nullptr) {
            infos->swap(clients);
        }
        return shown;
    }

    TempDir scratch;
    int opened = 0;
    std::unique_ptr<Store> store;
};

TEST_P(StoreConformance, ClientsKeepRegistrationOrderAndServersAreApart) {
    EXPECT_EQ(add("S", {"c", "a", "b", "a"}), (Lines{"c", "a", "b"}));
    add("T", {"a"});
    Lines clients;
    store->clients("S", clients);
    EXPECT_EQ(clients, (Lines{"c", "a", "b"}));
    store->clients("nowhere", clients);
    EXPECT_TRUE(clients.empty());
    store->unregisterClient("S", "a", clients);
    EXPECT_EQ(clients, (Lines{"c", "b"}));
    store->unregisterClient("S", "unknown", clients);
    EXPECT_EQ(clients, (Lines{"c", "b"}));
    store->clients("T", clients);
    EXPECT_EQ(clients, (Lines{"a"}));
    EXPECT_EQ(add("S", {"a"}), (Lines{"c", "b", "a"}));  // back, at the end
    EXPECT_EQ(store->stats().registeredClients, 4u);
}

TEST_P(StoreConformance, PostsReachEveryOtherClientInOrderUnderOneSequence) {
    add("S", {"a", "b", "c"});
    add("T", {"a", "z"});
    EXPECT_EQ(post("S", "a", "one"), (Lines{"a", "b", "c"}));
    post("T", "z", "elsewhere");
    post("S", "b", "two");
    post("S", "a", "");               // an empty event is an event
    post("S", "c", "x&<\xC3\xA9\n");  // text comes back byte for byte
    EXPECT_EQ(take("S", "a"), (Lines{"b|2|two", "c|4|x&<\xC3\xA9\n"}));
    EXPECT_EQ(take("S", "b"), (Lines{"a|1|one", "a|3|", "c|4|x&<\xC3\xA9\n"}));
    EXPECT_EQ(take("S", "c"), (Lines{"a|1|one", "b|2|two", "a|3|"}));
    EXPECT_EQ(take("S", "c"), Lines{});
    EXPECT_EQ(take("T", "a"), (Lines{"z|1|elsewhere"}));
    StoreStats stats = store->stats();
    EXPECT_EQ(stats.waitingEvents, 0u);
    EXPECT_EQ(stats.waitingBytes, 0u);
}

TEST_P(StoreConformance, UnregisteringDropsEventsAndALastClientEndsTheSequence) {
    add("S", {"a", "b"});
    post("S", "a", "one");
    post("S", "a", "two");
    Lines clients;
    store->unregisterClient("S", "b", clients);
    add("S", {"b"});
    EXPECT_EQ(take("S", "b"), Lines{});  // a new registration starts empty
    post("S", "a", "three");
    EXPECT_EQ(take("S", "b"), (Lines{"a|3|three"}));  // the server's sequence went on
    store->unregisterClient("S", "a", clients);
    store->unregisterClient("S", "b", clients);
    EXPECT_EQ(store->stats().registeredClients, 0u);
    add("S", {"a", "b"});
    post("S", "b", "again");
    EXPECT_EQ(take("S", "a"), (Lines{"b|1|again"}));
}

TEST_P(StoreConformance, UnregisteredCallersAreRefusedAndChangeNothing) {
    add("S", {"a", "b"});
    const std::string notRegistered = " is not registered with server ";
    Lines clients;
    std::vector<StoredEvent> events;
    fails(FailureKind::Refused, notRegistered, [&] { store->post("S", "x", "t", "", clients); });
    fails(FailureKind::Refused, notRegistered, [&] { store->post("U", "a", "t", "id", clients); });
    fails(FailureKind::Refused, notRegistered, [&] { store->read("S", "x", 1, events); });
    fails(FailureKind::Refused, notRegistered,
          [&] { store->read("U", "a", std::nullopt, events); });
    EXPECT_EQ(take("S", "b"), Lines{});
    post("S", "a", "first");
    EXPECT_EQ(take("S", "b"), (Lines{"a|1|first"}));  // the refused posts took no number
}

// Each limit, once reached, refuses the whole post: no recipient gets it, no
// number is used up.
TEST_P(StoreConformance, LimitsRefuseTheWholePost) {
    ServiceLimits limits;
    limits.maxQueuedEventsPerClient = 2;
    limits.maxQueuedBytesPerClient = 10;
    limits.maxClientsPerServer = 3;
    open(limits);
    add("S", {"a", "b", "c"});
    fails(FailureKind::Limit, "already has 3 clients", [&] { add("S", {"d"}); });
    EXPECT_EQ(add("S", {"a"}), (Lines{"a", "b", "c"}));  // a known client is no new one

    post("S", "c", "1234");  // a: 1 event, 4 bytes; b: the same
    post("S", "a", "12");    // b: 2 events, 6 bytes
    fails(FailureKind::Limit, "client \"b\" of server \"S\" already has 2 events waiting",
          [&] { post("S", "c", "x"); });
    EXPECT_EQ(take("S", "b"), (Lines{"c|1|1234", "a|2|12"}));
    // a holds 4 bytes: 7 more would pass 10, though b would take them.
    fails(FailureKind::Limit,
          "client \"a\" of server \"S\" already has 4 bytes of events waiting; 7 more would pass "
          "the limit of 10 bytes",
          [&] { post("S", "b", "1234567"); });
    EXPECT_EQ(take("S", "c"), (Lines{"a|2|12"}));
    post("S", "b", "123456");  // exactly 10 bytes for a
    EXPECT_EQ(take("S", "a"), (Lines{"c|1|1234", "b|3|123456"}));
    EXPECT_EQ(take("S", "c"), (Lines{"b|3|123456"}));
}

// Cursors, one scenario a row, on server "S" with clients a and b. A step is
// "a+text" (a posts text), "a+text#id" (with a post id), "b?" (b reads, expect
// then what it gets as "sender|sequence|text" after a space each), "b?N" (reads
// after acknowledging N), "b!N" (acknowledges N) or "c=" (c registers).
TEST_P(StoreConformance, CursorsMoveOnlyForwardByAcknowledgement) {
    struct Case {
        const char* rule;
        std::vector<std::string> steps;
    } cases[] = {
        {"unacknowledged events come again, in order",
         {"a+one", "a+two", "b? a|1|one a|2|two", "b? a|1|one a|2|two", "b!1", "b? a|2|two", "b?2",
          "b?"}},
        {"the cursor never moves back nor past the log (c keeps the log whole)",
         {"c=", "a+one", "a+two", "b!1", "b!0", "b?0 a|2|two", "b!2", "b!1", "b?", "a+three",
          "b?1 a|3|three", "b!99", "a+four", "b? a|4|four"}},
        {"own posts are left out; a new client starts at the head",
         {"a+one", "b+two", "a? b|2|two", "c=", "c?", "a+three", "c? a|3|three",
          "b? a|1|one a|3|three", "a?2", "a?"}},
        {"a repeated post id posts once, per sender",
         {"a+one#p", "a+one#p", "a+other#p", "b+two#p", "a+three#q", "b? a|1|one a|3|three",
          "a? b|2|two"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        open(ServiceLimits{});
        add("S", {"a", "b"});
        for (const std::string& step : c.steps) {
            SCOPED_TRACE(step);
            const std::string client = step.substr(0, 1);
            const char op = step[1];
            const std::size_t space = std::min(step.find(' '), step.size());
            const std::string rest = step.substr(2, space - 2);
            if (op == '+') {
                const std::size_t hash = rest.find('#');
                post("S", client, rest.substr(0, hash),
                     hash == std::string::npos ? "" : rest.substr(hash + 1));
            } else if (op == '!') {
                store->acknowledge("S", client, std::stoull(rest));
            } else if (op == '=') {
                add("S", {client});
            } else {
                Lines got = read(
                    "S", client,
                    rest.empty() ? std::nullopt : std::optional<std::uint64_t>(std::stoull(rest)));
                std::string joined;
                for (const std::string& event : got) {
                    joined += " " + event;
                }
                EXPECT_EQ(joined, step.substr(space));
            }
        }
    }
}

// A sender's post ids are remembered up to kRememberedPosts: the oldest beyond
// that posts again.
TEST_P(StoreConformance, PostIdsAreRememberedUpToTheirBound) {
    add("S", {"a", "b"});
    for (std::size_t i = 0; i <= kRememberedPosts; ++i) {
        post("S", "a", "x", std::to_string(i));
    }
    post("S", "a", "newest", std::to_string(kRememberedPosts));
    post("S", "a", "oldest", "0");
    EXPECT_EQ(read("S", "b", kRememberedPosts + 1),
              (Lines{"a|" + std::to_string(kRememberedPosts + 2) + "|oldest"}));
}

TEST_P(StoreConformance, ListsClientsByServerWithTheirQueuesAndTimes) {
    add("S", {"b", "a"});
    add("R", {"c"});
    post("S", "b", "xyz");
    post("S", "a", "12");
    take("S", "b");
    EXPECT_EQ(list(""), (Lines{"R/c/0/0/never", "S/b/0/0/fetched", "S/a/1/3/never"}));
    EXPECT_EQ(list("S"), (Lines{"S/b/0/0/fetched", "S/a/1/3/never"}));
    EXPECT_EQ(list("T"), Lines{});
}

// A client idle since before the cutoff goes, with its events; the cutoff
// itself is not idle. A never-fetching client counts from its registration.
TEST_P(StoreConformance, ExpiresClientsIdleBeforeTheCutoff) {
    add("S", {"a", "b"});
    post("S", "a", "hi");
    std::vector<ClientInfo> infos;
    list("S", &infos);
    // The clock moves past b's registration (bounded: it ticks every millisecond).
    for (int spins = 0; spins < 1000000 && epochMilliseconds() <= infos[1].registeredMs; ++spins) {
        std::this_thread::yield();
    }
    take("S", "a");
    list("S", &infos);
    const std::int64_t cutoff = infos[0].lastFetchMs;
    ASSERT_GT(cutoff, infos[1].registeredMs);

    std::vector<ClientInfo> expired;
    store->expireIdleClients(infos[1].registeredMs, expired);
    EXPECT_TRUE(expired.empty());
    store->expireIdleClients(cutoff, expired);
    ASSERT_EQ(expired.size(), 1u);
    EXPECT_EQ(expired[0].clientId + "/" + std::to_string(expired[0].waitingEvents), "b/1");
    EXPECT_EQ(list(""), (Lines{"S/a/0/0/fetched"}));
    EXPECT_EQ(post("S", "a", "alone"), (Lines{"a"}));
    store->expireIdleClients(cutoff + 1, expired);
    EXPECT_EQ(list(""), Lines{});
    EXPECT_EQ(store->stats().waitingEvents, 0u);
}

// The whole store's bound counts a text once whatever its recipients, frees it
// when its last recipient takes it, and ignores a post no one receives.
TEST_P(StoreConformance, StoredBytesCountEachTextOnce) {
    ServiceLimits limits;
    limits.maxStoredBytes = 10;
    open(limits);
    add("S", {"a", "b", "c", "d"});
    add("T", {"alone"});
    post("S", "a", "12345");
    post("S", "a", "67890");
    post("T", "alone", "nothing stored, whatever its length");
    fails(FailureKind::Limit, "its limit of 10 bytes for all servers",
          [&] { post("S", "b", "x"); });
    take("S", "b");
    take("S", "c");
    fails(FailureKind::Limit, "already holds 10 bytes", [&] { post("S", "b", "x"); });
    take("S", "d");
    post("S", "b", "1234567890");
    Lines clients;
    store->unregisterClient("S", "a", clients);
    store->unregisterClient("S", "c", clients);
    store->unregisterClient("S", "d", clients);  // the last holder of b's text
    post("S", "b", "no one");
    add("S", {"e"});
    post("S", "b", "0123456789");
    EXPECT_EQ(take("S", "e"), (Lines{"b|5|0123456789"}));
}

// Posters and takers on several threads: every event arrives once, in order.
TEST_P(StoreConformance, ConcurrentPostsAndTakesLoseNothing) {
    const int clients = 4, posts = 100;
    for (int i = 0; i < clients; ++i) {
        add("S", {std::to_string(i)});
    }
    std::vector<Lines> received(clients);
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            const std::string me = std::to_string(i);
            for (int n = 0; n < posts; ++n) {
                post("S", me, me + ":" + std::to_string(n));
                if (n % 10 == 9) {
                    Lines got = take("S", me);
                    received[i].insert(received[i].end(), got.begin(), got.end());
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < clients; ++i) {
        Lines got = take("S", std::to_string(i));
        received[i].insert(received[i].end(), got.begin(), got.end());
        ASSERT_EQ(received[i].size(), std::size_t((clients - 1) * posts));
        // In sequence order, and each sender's "N:n" in n order.
        std::vector<int> next(clients, 0);
        unsigned long last = 0;
        for (const std::string& event : received[i]) {
            const int sender = std::stoi(event);
            const unsigned long sequence = std::stoul(event.substr(event.find('|') + 1));
            EXPECT_GT(sequence, std::exchange(last, sequence));
            EXPECT_EQ(event.substr(event.rfind('|') + 1),
                      std::to_string(sender) + ":" + std::to_string(next[sender]++));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreConformance,
                         ::testing::ValuesIn(StoreTests::storeFactories()),
                         [](const ::testing::TestParamInfo<StoreFactory>& info) {
                             return info.param.name;
                         });

}  // namespace
