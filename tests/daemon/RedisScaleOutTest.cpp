// Two quorveld processes on one Redis serve one set of clients behind a plain
// TCP balancer (so events posted through one are fetched through the other).
// Under load from client processes, kill -9 of a daemon (restarted or not) or of
// Redis (appendfsync always) loses no acknowledged event and delivers none
// twice or out of order, though the backend sends again what a dead
// connection cut off. A client waiting on one daemon hears a post made
// through the other.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "daemon/CrashLoad.h"
#include "daemon/DaemonProcess.h"
#include "support/RedisServer.h"
#include "support/TcpBalancer.h"

using namespace Harness;

namespace {

TEST(RedisScaleOut, AWaiterOnOneDaemonIsReleasedByAPostThroughTheOther) {
    RedisServer redis;
    DaemonProcess a({"--redis", redis.url()}), b({"--redis", redis.url()});
    Child waiter(
        program({QUORVEL_BINARY, "get", "--wait", "60000", "--server", "S", "--client", "W"}),
        {a.url()});
    EXPECT_TRUE(waitUntil([&] {
        return quorvel({"clients", "--server", "S"}, {b.url()}).out.find("W") != std::string::npos;
    }));
    EXPECT_EQ(quorvel({"put", "--server", "S", "--client", "P", "hi"}, {b.url()}).code, 0);
    EXPECT_EQ(waiter.wait(20000), 0) << "not released within 20 s of a 60 s wait";
    EXPECT_NE(waiter.out().find("1 from P: hi\n"), std::string::npos) << waiter.out();
}

// Posts that the store's own threads carry are answered as the pool's would
// be: made, made once when repeated, refused by a limit, for an unknown sender
// (also with a text no document can carry, which looks at the store first) or
// before the store.
TEST(RedisScaleOut, PostsAreAnsweredAsOnThePool) {
    namespace Wire = Arvant::Net::AvQuorvel::Wire;
    RedisServer redis;
    DaemonProcess daemon({"--redis", redis.url(), "--max-queued-events=1"});
    registerClients(daemon.port, {"a", "b"});
    const struct {
        const char* client;
        char id;
        std::string text;
        const char* more;  // a field
        int status;
        const char* says;
    } rows[] = {
        {"a", '1', "e1", nullptr, 200, ">b</"},
        {"a", '1', "e1", nullptr, 200, ">b</"},
        {"a", '2', "e2", nullptr, Wire::kLimitStatus, "\"b\" of server \"S\" already has 1 events"},
        {"x", '3', "e3", nullptr, Wire::kRefusedStatus, "\"x\" is not registered"},
        {"x", '4', "\x01", nullptr, Wire::kRefusedStatus, "\"x\" is not registered"},
        {"a", '6', "\x01", nullptr, Wire::kRefusedStatus, "holds control characters"},
        {"a", '5', "e5", "Wait-Milliseconds=1", Wire::kRefusedStatus, "with getEvents only"},
    };
    for (const auto& row : rows) {
        Strings fields = asClient("putEvents", row.client);
        if (row.more != nullptr) {
            fields.push_back(row.more);
        }
        const std::string answer = exchangeRaw(
            daemon.port, exchangeText(fields, row.text,
                                      std::string("Quorvel-Post-Id: ") +
                                          std::string(Wire::kPostIdDigits - 1, '0') + row.id +
                                          "\r\n"));
        EXPECT_EQ(statusOf(answer), row.status) << row.id;
        EXPECT_NE(answer.find(row.says), std::string::npos) << row.id << answer;
    }
    const std::string events = exchangeRaw(daemon.port, exchangeText(asClient("getEvents", "b")));
    EXPECT_EQ(events.find(">e1<"), events.rfind(">e1<")) << events;
    EXPECT_NE(events.find(">e1<"), std::string::npos) << events;
}

// Kills under load; may start what it killed again (a on its own port).
using Fault = std::function<void(RedisServer&, std::unique_ptr<DaemonProcess>& a)>;

TEST(RedisScaleOut, KillNineUnderLoadLosesNothingAndRepeatsNothing) {
    const auto kill = [](std::unique_ptr<DaemonProcess>& a) {
        a->signal(SIGKILL);
        EXPECT_EQ(a->wait(), -1);
    };
    const std::pair<const char*, Fault> faults[] = {
        {"one daemon killed", [&](RedisServer&, std::unique_ptr<DaemonProcess>& a) { kill(a); }},
        {"one daemon killed and restarted",
         [&](RedisServer& redis, std::unique_ptr<DaemonProcess>& a) {
             const int port = a->port;
             kill(a);
             a = std::make_unique<DaemonProcess>(Strings{"--redis", redis.url()}, Strings{}, port);
             EXPECT_EQ(a->port, port);
         }},
        {"Redis killed and restarted",
         [](RedisServer& redis, std::unique_ptr<DaemonProcess>&) {
             redis.stop(SIGKILL);
             std::this_thread::sleep_for(std::chrono::milliseconds(200));  // failures meanwhile
             redis.start();
         }},
    };
    for (const auto& [name, fault] : faults) {
        SCOPED_TRACE(name);
        RedisServer redis;
        auto a = std::make_unique<DaemonProcess>(Strings{"--redis", redis.url()});
        DaemonProcess b({"--redis", redis.url()});
        TcpBalancer balancer({a->port, b.port});
        const int failed =
            runCrashLoad(CrashLoad{8, 200}, balancer.url(), [&] { fault(redis, a); });
        // Failed at the clients, or sent again by them after a daemon's death.
        EXPECT_GT(failed + balancer.unanswered(), 0) << "the fault did not hit";
        EXPECT_TRUE(b.running());
    }
}

}  // namespace
