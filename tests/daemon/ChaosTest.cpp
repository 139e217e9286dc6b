// quorveld while its store fails under it: a real redis-server stopped (SIGSTOP),
// resumed, killed and restarted (with a password), and an SQLite store held under a file size
// limit (a write refused with the cause named). Whatever the store does, the
// daemon lives on and answers /healthz, says through /readyz and /metrics
// whether the store answers, and serves exchanges again once it does. Posts
// that skip the store threads are refused as those would refuse them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <functional>
#include <memory>
#include <vector>

#include "daemon/DaemonProcess.h"
#include "support/RedisServer.h"
#include "support/TempDir.h"

using namespace Harness;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

enum class Exchanges { Served, Failed, Stuck };

struct Phase {
    const char* name;
    std::function<void()> act;
    int ready;  // what /readyz and /metrics answer once the phase has settled
    Exchanges exchanges;
    const char* says = "";  // in the answer to a post
};

// How long a probe or a scrape may take: only "did it answer" counts, but a
// probe stuck behind a store call would wait out the store's 10 s time-out.
constexpr int kProbeMs = 5000;

void runPhases(DaemonProcess& daemon, const std::vector<Phase>& phases) {
    registerClients(daemon.port, {"alice", "bob"});
    std::vector<std::unique_ptr<RawConnection>> stuck;
    char id = 'a';
    for (const Phase& phase : phases) {
        SCOPED_TRACE(phase.name);
        // With a post id of its own, as the library sends it (on the Redis
        // store such a post skips the store threads).
        const std::string put =
            exchangeText(asClient("putEvents", "alice"), "e", postIdHeader(id++));
        phase.act();
        // More exchanges waiting on the store than the daemon has I/O threads,
        // each given time to reach its place; then one past every bound.
        for (int i = 0; i < 4 && phase.exchanges == Exchanges::Stuck; ++i) {
            stuck.push_back(std::make_unique<RawConnection>(daemon.port));
            stuck.back()->send(put);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (phase.exchanges == Exchanges::Stuck) {
            EXPECT_EQ(statusOf(exchangeRaw(daemon.port, put, kProbeMs)), 503);
        }
        EXPECT_EQ(statusOf(getRaw(daemon.port, "/healthz", "", kProbeMs)), 200);
        // About 40 s at most: a store call under way when the store came back
        // ends with its own time-out.
        EXPECT_TRUE(waitUntil(
            [&] { return statusOf(getRaw(daemon.port, "/readyz", "", kProbeMs)) == phase.ready; },
            40000));
        EXPECT_EQ(statusOf(getRaw(daemon.port, "/metrics", "", kProbeMs)), phase.ready);
        if (phase.exchanges == Exchanges::Served) {
            // The exchanges stuck before are answered first, and leave room.
            for (const std::unique_ptr<RawConnection>& connection : stuck) {
                EXPECT_NE(statusOf(connection->receive(30000)), 0);
            }
            stuck.clear();
        }
        if (phase.exchanges != Exchanges::Stuck) {
            const std::string answer = exchangeRaw(daemon.port, put, 30000);  // past any time-out
            EXPECT_EQ(statusOf(answer) == 200, phase.exchanges == Exchanges::Served) << answer;
            EXPECT_THAT(answer, HasSubstr(phase.says));
        }
        ASSERT_TRUE(daemon.running()) << daemon.err();
    }
    EXPECT_EQ(daemon.stop(), 0);
}

void setFileSizeLimit(pid_t pid, rlim_t bytes) {
    rlimit limit{};
    ASSERT_EQ(::prlimit(pid, RLIMIT_FSIZE, nullptr, &limit), 0);
    limit.rlim_cur = bytes;  // the soft limit only: no privilege needed either way
    ASSERT_EQ(::prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
}

}  // namespace

// Redis asks for a password: QUORVEL_REDIS_PASSWORD, kept out of the process
// list, overrides a wrong one in the URL, and the start line shows neither.
// (Reading the URL's is RedisStoreTest's, as are a wrong or missing one.)
TEST(ChaosTest, TheDaemonOutlivesItsStoreAndServesAgainWhenItIsBack) {
    RedisServer redis("s3cret");
    // Stuck, past the bounds: one post for the store's poster threads, two on
    // the store threads, one queued for them.
    DaemonProcess daemon({"--redis", "redis://:wrong@" + redis.url().substr(8), "--threads", "2",
                          "--store-threads", "2", "--store-queue", "1"},
                         {"QUORVEL_REDIS_PASSWORD=s3cret"});
    runPhases(daemon, {
                          {"Redis answers", [] {}, 200, Exchanges::Served},
                          {"Redis stopped", [&] { redis.signal(SIGSTOP); }, 503, Exchanges::Stuck},
                          {"Redis resumed", [&] { redis.signal(SIGCONT); }, 200, Exchanges::Served},
                          {"Redis killed", [&] { redis.stop(SIGKILL); }, 503, Exchanges::Failed},
                          {"Redis restarted", [&] { redis.start(); }, 200, Exchanges::Served},
                      });
    EXPECT_THAT(daemon.err(), ::testing::AllOf(HasSubstr("store Redis redis://"),
                                               Not(HasSubstr("s3cret")), Not(HasSubstr("wrong"))));
    TempDir directory;
    DaemonProcess sqlite({"--data", directory.path});
    runPhases(sqlite, {
                          // Reading still works, so the store is ready; writing is not.
                          {"file size limit", [&] { setFileSizeLimit(sqlite.id(), 1); }, 200,
                           Exchanges::Failed,
                           "could not queue the event: its store failed (disk I/O error"},
                          {"limit lifted", [&] { setFileSizeLimit(sqlite.id(), RLIM_INFINITY); },
                           200, Exchanges::Served},
                      });
}

// Posts that the Redis store's own threads carry are answered as the pool's
// would be: made, made once when repeated, refused by a limit, for an unknown
// sender (also with a text no document can carry, which looks at the store
// first) or before the store.
TEST(ChaosTest, RedisRefusalsOfPostsAreAnsweredAsOnThePool) {
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
        const std::string answer =
            exchangeRaw(daemon.port, exchangeText(fields, row.text, postIdHeader(row.id)));
        EXPECT_EQ(statusOf(answer), row.status) << row.id;
        EXPECT_NE(answer.find(row.says), std::string::npos) << row.id << answer;
    }
    const std::string events = exchangeRaw(daemon.port, exchangeText(asClient("getEvents", "b")));
    EXPECT_EQ(events.find(">e1<"), events.rfind(">e1<")) << events;
    EXPECT_NE(events.find(">e1<"), std::string::npos) << events;
}
