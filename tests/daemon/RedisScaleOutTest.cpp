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
