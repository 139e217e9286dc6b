// The Redis store against a redis-server of its own: order, fan-out all or
// none, limits across two stores (as two daemons would hold), restore, keys of
// awkward identifiers, and Redis going away and coming back.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine/RedisStore.h"
#include "support/RedisServer.h"

using namespace Arvant::Net::AvQuorvel::Engine;

namespace {

RedisServer& sharedRedis() {
    static RedisServer server;  // one per test program: starting Redis is the slow part
    return server;
}

class RedisStoreTest : public ::testing::Test {
protected:
    // A store on the test's Redis; each test uses servers named after itself.
    std::unique_ptr<RedisStore> makeStore(const ServiceLimits& limits = ServiceLimits()) {
        RedisAddress address;
        std::string error;
        EXPECT_TRUE(parseRedisUrl(sharedRedis().url(), address, error)) << error;
        return std::unique_ptr<RedisStore>(new RedisStore(address, limits));
    }
    std::string server(const std::string& name = "") const {
        return ::testing::UnitTest::GetInstance()->current_test_info()->name() + name;
    }
    ClientList registerAll(Store& store, const std::string& serverId, const ClientList& ids) {
        ClientList clients;
        for (const std::string& id : ids) {
            store.registerClient(serverId, id, clients);
        }
        return clients;
    }
    // "sender:sequence:text" for each event the client takes.
    std::vector<std::string> takeAll(Store& store, const std::string& serverId,
                                     const std::string& clientId) {
        std::vector<StoredEvent> events;
        store.take(serverId, clientId, events);
        std::vector<std::string> seen;
        for (const StoredEvent& event : events) {
            seen.push_back(event.sender + ":" + std::to_string(event.sequence) + ":" + event.text);
        }
        return seen;
    }
    FailureKind failureOf(const std::function<void()>& operation, std::string* message = nullptr) {
        try {
            operation();
        } catch (const StoreFailure& failure) {
            if (message != nullptr) {
                *message = failure.message;
            }
            return failure.kind;
        }
        ADD_FAILURE() << "no StoreFailure";
        return FailureKind::Refused;
    }
};

using Strings = std::vector<std::string>;

TEST(RedisUrlTest, ReadsHostPortAndDatabase) {
    struct Case {
        const char* url;
        bool valid;
        const char* host;
        int port, database;
    } cases[] = {
        {"redis://127.0.0.1:6380", true, "127.0.0.1", 6380, 0},
        {"redis://localhost", true, "localhost", 6379, 0},
        {"redis://127.0.0.1:7000/3", true, "127.0.0.1", 7000, 3},
        {"redis://[::1]:7001/", true, "::1", 7001, 0},
        {"redis://[::1]", true, "::1", 6379, 0},
        {"http://127.0.0.1:6379", false, "", 0, 0},
        {"redis://", false, "", 0, 0},
        {"redis://:6379", false, "", 0, 0},
        {"redis://127.0.0.1:0", false, "", 0, 0},
        {"redis://127.0.0.1:65536", false, "", 0, 0},
        {"redis://127.0.0.1:port", false, "", 0, 0},
        {"redis://127.0.0.1/db", false, "", 0, 0},
        {"redis://[::1:6379", false, "", 0, 0},
    };
    for (const Case& c : cases) {
        RedisAddress address;
        address.commandTimeoutMs = 1234;
        std::string error;
        ASSERT_EQ(parseRedisUrl(c.url, address, error), c.valid) << c.url;
        if (c.valid) {
            EXPECT_EQ(address.host, c.host) << c.url;
            EXPECT_EQ(address.port, c.port) << c.url;
            EXPECT_EQ(address.database, c.database) << c.url;
            EXPECT_EQ(address.commandTimeoutMs, 1234) << c.url;  // time-outs are kept
        } else {
            EXPECT_NE(error.find(c.url), std::string::npos) << error;
        }
    }
}

TEST_F(RedisStoreTest, KeepsRegistrationOrderAndFansOutInOrder) {
    auto store = makeStore();
    const std::string s = server();
    EXPECT_EQ(registerAll(*store, s, {"c", "a", "b", "a"}), (Strings{"c", "a", "b"}));
    ClientList clients;
    store->post(s, "a", "one", clients);
    store->post(s, "b", "two", clients);
    store->post(s, "a", "three", clients);
    EXPECT_EQ(clients, (Strings{"c", "a", "b"}));
    EXPECT_EQ(takeAll(*store, s, "c"), (Strings{"a:1:one", "b:2:two", "a:3:three"}));
    EXPECT_EQ(takeAll(*store, s, "a"), (Strings{"b:2:two"}));
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"a:1:one", "a:3:three"}));
    EXPECT_EQ(takeAll(*store, s, "b"), Strings{});

    // Re-registering keeps the place and the waiting events; leaving drops them.
    store->post(s, "c", "four", clients);
    EXPECT_EQ(registerAll(*store, s, {"a"}), (Strings{"c", "a", "b"}));
    EXPECT_EQ(takeAll(*store, s, "a"), (Strings{"c:4:four"}));
    store->unregisterClient(s, "b", clients);
    EXPECT_EQ(clients, (Strings{"c", "a"}));
    EXPECT_EQ(registerAll(*store, s, {"b"}), (Strings{"c", "a", "b"}));
    EXPECT_EQ(takeAll(*store, s, "b"), Strings{});
    store->unregisterClient(s, "nobody", clients);
    EXPECT_EQ(clients, (Strings{"c", "a", "b"}));
}

TEST_F(RedisStoreTest, SequenceRestartsOnlyWhenTheLastClientLeaves) {
    auto store = makeStore();
    const std::string s = server();
    registerAll(*store, s, {"a", "b"});
    ClientList clients;
    store->post(s, "a", "x", clients);
    store->unregisterClient(s, "a", clients);
    registerAll(*store, s, {"a"});
    store->post(s, "a", "y", clients);
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"a:1:x", "a:2:y"}));
    store->unregisterClient(s, "a", clients);
    store->unregisterClient(s, "b", clients);
    EXPECT_TRUE(clients.empty());
    registerAll(*store, s, {"a", "b"});
    store->post(s, "b", "z", clients);
    EXPECT_EQ(takeAll(*store, s, "a"), (Strings{"b:1:z"}));
}

TEST_F(RedisStoreTest, RefusesWhatTheRulesDoNotAllow) {
    ServiceLimits limits;
    limits.maxClientsPerServer = 3;
    limits.maxQueuedEventsPerClient = 2;
    limits.maxQueuedBytesPerClient = 10;
    auto store = makeStore(limits);
    const std::string s = server();
    registerAll(*store, s, {"a", "b", "c"});
    ClientList clients;
    std::vector<StoredEvent> events;
    StoreStats before = store->stats();
    std::string message;
    struct Case {
        const char* what;
        std::function<void()> operation;
        FailureKind kind;
        const char* inMessage;
    } cases[] = {
        {"a fourth client", [&] { store->registerClient(s, "d", clients); }, FailureKind::Limit,
         "already has 3 clients"},
        {"a post from a stranger", [&] { store->post(s, "x", "t", clients); }, FailureKind::Refused,
         "\"x\" is not registered"},
        {"a take by a stranger", [&] { store->take(s + "other", "a", events); },
         FailureKind::Refused, "not registered"},
        {"more bytes than b may hold", [&] { store->post(s, "a", "12345678901", clients); },
         FailureKind::Limit, "more would pass the limit of 10 bytes"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(failureOf(c.operation, &message), c.kind) << c.what;
        EXPECT_NE(message.find(c.inMessage), std::string::npos) << c.what << ": " << message;
    }
    StoreStats after = store->stats();
    EXPECT_EQ(after.waitingEvents, before.waitingEvents);

    // b is full, c is not: the post reaches neither.
    store->post(s, "c", "1", clients);
    store->post(s, "c", "2", clients);
    EXPECT_EQ(failureOf([&] { store->post(s, "a", "3", clients); }, &message), FailureKind::Limit);
    EXPECT_NE(message.find("client \"b\""), std::string::npos) << message;
    EXPECT_EQ(takeAll(*store, s, "c"), Strings{});
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"c:1:1", "c:2:2"}));
    // The refused post used no sequence number.
    store->post(s, "a", "4", clients);
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"a:3:4"}));
}

TEST_F(RedisStoreTest, RestorePutsEventsBackAtTheHeadInOrder) {
    ServiceLimits limits;
    limits.maxQueuedEventsPerClient = 3;
    auto store = makeStore(limits);
    const std::string s = server();
    registerAll(*store, s, {"a", "b"});
    ClientList clients;
    for (const char* text : {"1", "2", "3"}) {
        store->post(s, "a", text, clients);
    }
    std::vector<StoredEvent> taken;
    store->take(s, "b", taken);
    store->post(s, "a", "4", clients);
    store->restore(s, "b", taken);  // no limit: they were counted before
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"a:1:1", "a:2:2", "a:3:3", "a:4:4"}));

    // Events with senders and texts that hold the separators come back whole.
    std::vector<StoredEvent> odd{{"a b", 7, "x 9 y"}, {"", 8, ""}, {"12", 9, "3 4"}};
    store->restore(s, "b", odd);
    std::vector<StoredEvent> back;
    store->take(s, "b", back);
    ASSERT_EQ(back.size(), odd.size());
    for (std::size_t i = 0; i < odd.size(); ++i) {
        EXPECT_EQ(back[i].sender, odd[i].sender);
        EXPECT_EQ(back[i].sequence, odd[i].sequence);
        EXPECT_EQ(back[i].text, odd[i].text);
    }
    // A client that left gets nothing back.
    store->unregisterClient(s, "b", clients);
    store->restore(s, "b", odd);
    registerAll(*store, s, {"b"});
    EXPECT_EQ(takeAll(*store, s, "b"), Strings{});
}

TEST_F(RedisStoreTest, IdentifiersThatLookLikeKeysStayApart) {
    auto store = makeStore();
    const std::string base = server();
    // Escaping must keep "{x}" and "%7Bx%7D" (and the rest) distinct servers.
    const Strings servers{base + "{x}", base + "%7Bx%7D", base + "}:queue:", base + "{", base + ""};
    for (const std::string& s : servers) {
        registerAll(*store, s, {"a", s, "b:c", "{b}"});
    }
    ClientList clients;
    for (const std::string& s : servers) {
        store->post(s, "a", s, clients);
        EXPECT_EQ(clients, (Strings{"a", s, "b:c", "{b}"}));
    }
    for (const std::string& s : servers) {
        for (const std::string& c : {s, std::string("b:c"), std::string("{b}")}) {
            EXPECT_EQ(takeAll(*store, s, c), (Strings{"a:1:" + s})) << s << " " << c;
        }
    }
}

TEST_F(RedisStoreTest, StatsCountEveryServer) {
    auto store = makeStore();
    const StoreStats before = store->stats();
    const std::string s = server();
    registerAll(*store, s + "1", {"a", "b", "c"});
    registerAll(*store, s + "2", {"a", "b"});
    ClientList clients;
    store->post(s + "1", "a", "12345", clients);  // two recipients
    store->post(s + "2", "a", "123", clients);
    const StoreStats after = store->stats();
    EXPECT_EQ(after.registeredClients - before.registeredClients, 5u);
    EXPECT_EQ(after.waitingEvents - before.waitingEvents, 3u);
    EXPECT_EQ(after.waitingBytes - before.waitingBytes, 13u);
}

// Two stores stand for two daemons: every post reaches every recipient once,
// under one order of sequence numbers, and a limit holds for both together.
TEST_F(RedisStoreTest, TwoStoresShareOneStateUnderConcurrentPosts) {
    const int kThreads = 4, kPosts = 50;
    ServiceLimits limits;
    limits.maxQueuedEventsPerClient = kThreads * kPosts - 10;  // the last posts are refused
    auto first = makeStore(limits), second = makeStore(limits);
    const std::string s = server();
    registerAll(*first, s, {"reader", "w0", "w1", "w2", "w3"});
    std::atomic<int> accepted{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Store& store = t % 2 == 0 ? *first : *second;
            ClientList clients;
            for (int i = 0; i < kPosts; ++i) {
                try {
                    store.post(s, "w" + std::to_string(t), std::to_string(i), clients);
                    ++accepted;
                } catch (const StoreFailure& failure) {
                    EXPECT_EQ(failure.kind, FailureKind::Limit) << failure.message;
                    ++refused;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(accepted.load(), kThreads * kPosts - 10);
    EXPECT_EQ(refused.load(), 10);
    std::vector<StoredEvent> events;
    second->take(s, "reader", events);
    ASSERT_EQ(events.size(), static_cast<std::size_t>(accepted.load()));
    std::map<std::string, int> nextOfSender;
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].sequence, i + 1);  // no gap: refused posts take no number
        // Each writer's accepted events arrive in its order, none twice.
        EXPECT_GT(std::stoi(events[i].text), nextOfSender[events[i].sender] - 1);
        nextOfSender[events[i].sender] = std::stoi(events[i].text) + 1;
    }
}

// Redis restarted (appendfsync always) keeps everything acknowledged; stopped,
// every operation fails clearly and changes nothing; back, the same store serves.
TEST_F(RedisStoreTest, SurvivesRedisRestartsAndFailsClearlyWhileDown) {
    RedisServer& redis = sharedRedis();
    auto store = makeStore();
    const std::string s = server();
    registerAll(*store, s, {"a", "b"});
    ClientList clients;
    store->post(s, "a", "before", clients);

    redis.stop(SIGKILL);  // no chance to write anything more: the file has it already
    redis.start();
    store->post(s, "a", "after", clients);  // the pooled connection is stale: a new one
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"a:1:before", "a:2:after"}));

    redis.stop();
    std::string message;
    const std::vector<std::function<void()>> operations{
        [&] { store->registerClient(s, "c", clients); },
        [&] { store->post(s, "a", "lost", clients); },
        [&] { store->take(s, "b", *std::make_unique<std::vector<StoredEvent>>()); },
        [&] { store->clients(s, clients); },
        [&] { store->stats(); },
        [&] { store->ping(); },
    };
    for (const auto& operation : operations) {
        EXPECT_EQ(failureOf(operation, &message), FailureKind::Limit);
        EXPECT_NE(message.find("Redis at 127.0.0.1:" + std::to_string(redis.port)),
                  std::string::npos)
            << message;
        EXPECT_NE(message.find("refused"), std::string::npos) << message;
    }
    redis.start();
    store->post(s, "a", "again", clients);
    EXPECT_EQ(clients, (Strings{"a", "b"}));
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"a:3:again"}));
}

// After SCRIPT FLUSH (as after a restart without the scripts) each script is
// sent again in full.
TEST_F(RedisStoreTest, LoadsItsScriptsAgainWhenRedisForgotThem) {
    auto store = makeStore();
    const std::string s = server();
    registerAll(*store, s, {"a", "b"});
    ASSERT_EQ(std::system(("redis-cli -p " + std::to_string(sharedRedis().port) +
                           " SCRIPT FLUSH >/dev/null")
                              .c_str()),
              0);
    ClientList clients;
    store->post(s, "a", "x", clients);
    EXPECT_EQ(takeAll(*store, s, "b"), (Strings{"a:1:x"}));
}

}  // namespace
