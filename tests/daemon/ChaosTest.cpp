// quorveld while its store fails under it: a real redis-server stopped (SIGSTOP),
// resumed, killed and restarted, and an SQLite store held under a file size
// limit (a write refused with the cause named). Whatever the store does, the
// daemon lives on and answers /healthz, says through /readyz and /metrics
// whether the store answers, and serves exchanges again once it does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

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
// For exchanges: beyond any store time-out.
constexpr int kPatientMs = 30000;

// Probes /readyz until it says want, about 40 s at most (a store call under way
// when the store came back ends with its own time-out); the last status.
int awaitReadiness(int port, int want) {
    int status = 0;
    for (int i = 0; i < 400 && status != want; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(i == 0 ? 0 : 100));
        status = statusOf(getRaw(port, "/readyz", "", kProbeMs));
    }
    return status;
}

void runPhases(DaemonProcess& daemon, const std::vector<Phase>& phases) {
    std::vector<std::unique_ptr<RawConnection>> stuck;
    for (const Phase& phase : phases) {
        SCOPED_TRACE(phase.name);
        phase.act();
        if (phase.exchanges == Exchanges::Stuck) {
            // More exchanges waiting on the store than the daemon has I/O threads.
            for (int i = 0; i < 4; ++i) {
                stuck.push_back(std::make_unique<RawConnection>(daemon.port));
                stuck.back()->send(exchangeText(asClient("putEvents", "alice"), "stuck"));
            }
        }
        EXPECT_EQ(statusOf(getRaw(daemon.port, "/healthz", "", kProbeMs)), 200);
        EXPECT_EQ(awaitReadiness(daemon.port, phase.ready), phase.ready);
        EXPECT_EQ(statusOf(getRaw(daemon.port, "/metrics", "", kProbeMs)), phase.ready);
        if (phase.exchanges != Exchanges::Stuck) {
            const std::string put = exchangeRaw(
                daemon.port, exchangeText(asClient("putEvents", "alice"), "e"), kPatientMs);
            EXPECT_EQ(statusOf(put) == 200, phase.exchanges == Exchanges::Served) << put;
            EXPECT_THAT(put, HasSubstr(phase.says));
        }
        ASSERT_TRUE(daemon.running()) << daemon.err();
    }
}

void setFileSizeLimit(pid_t pid, rlim_t bytes) {
    rlimit limit{};
    ASSERT_EQ(::prlimit(pid, RLIMIT_FSIZE, nullptr, &limit), 0);
    limit.rlim_cur = bytes;  // the soft limit only: no privilege needed either way
    ASSERT_EQ(::prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
}

}  // namespace

TEST(ChaosTest, TheDaemonOutlivesItsStoreAndServesAgainWhenItIsBack) {
    RedisServer redis;
    DaemonProcess daemon({"--redis", redis.url(), "--threads", "2", "--store-threads", "2"});
    registerClients(daemon.port, {"alice", "bob"});
    const std::vector<Phase> redisPhases = {
        {"Redis answers", [] {}, 200, Exchanges::Served},
        {"Redis stopped", [&] { redis.signal(SIGSTOP); }, 503, Exchanges::Stuck},
        {"Redis resumed", [&] { redis.signal(SIGCONT); }, 200, Exchanges::Served},
        {"Redis killed", [&] { redis.stop(SIGKILL); }, 503, Exchanges::Failed},
        {"Redis restarted", [&] { redis.start(); }, 200, Exchanges::Served},
    };
    runPhases(daemon, redisPhases);
    EXPECT_EQ(daemon.stop(), 0);

    TempDir directory;
    DaemonProcess sqlite({"--data", directory.path});
    registerClients(sqlite.port, {"alice", "bob"});
    const std::vector<Phase> sqlitePhases = {
        // Reading still works, so the store is ready; writing is not.
        {"file size limit", [&] { setFileSizeLimit(sqlite.id(), 1); }, 200, Exchanges::Failed,
         "could not queue the event: its store failed (disk I/O error"},
        {"limit lifted", [&] { setFileSizeLimit(sqlite.id(), RLIM_INFINITY); }, 200,
         Exchanges::Served},
    };
    runPhases(sqlite, sqlitePhases);
    EXPECT_EQ(sqlite.stop(), 0);
}

// The Redis password reaches the store from the URL or, out of the process
// list, from QUORVEL_REDIS_PASSWORD (which wins); the start line never shows it.
TEST(ChaosTest, TheRedisPasswordComesFromTheUrlOrTheEnvironment) {
    RedisServer redis("s3cret");
    const std::string hostPort = redis.url().substr(std::string("redis://").size());
    const struct {
        const char* name;
        std::string url;
        Strings env;
        const char* refusal;  // what the daemon says when it cannot start; null: it starts
    } rows[] = {
        {"in the URL", "redis://:s3cret@" + hostPort, {}, nullptr},
        {"in the environment", redis.url(), {"QUORVEL_REDIS_PASSWORD=s3cret"}, nullptr},
        {"the environment wins",
         "redis://:wrong@" + hostPort,
         {"QUORVEL_REDIS_PASSWORD=s3cret"},
         nullptr},
        {"none", redis.url(), {}, "NOAUTH"},
        {"a wrong one", redis.url(), {"QUORVEL_REDIS_PASSWORD=wrong"}, "refused the password"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string log;
        if (row.refusal == nullptr) {
            DaemonProcess daemon({"--redis", row.url}, row.env);
            EXPECT_EQ(daemon.stop(), 0);
            log = daemon.err();  // once it has ended
            EXPECT_THAT(log, HasSubstr("store Redis redis://"));
        } else {
            const Result refused =
                run({QUORVELD_BINARY, "--listen", "127.0.0.1:0", "--redis", row.url}, row.env);
            EXPECT_EQ(refused.code, 1);
            log = refused.err;
            EXPECT_THAT(log, HasSubstr(row.refusal));
        }
        EXPECT_THAT(log, Not(HasSubstr("s3cret")));
    }
}
