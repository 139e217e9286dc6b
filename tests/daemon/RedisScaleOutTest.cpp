// Two quorveld processes on one Redis serve one set of clients: an event posted
// through one is fetched through the other, and neither kill -9 of a daemon nor
// kill -9 of Redis (appendfsync always) under load loses an acknowledged event.
// Clients are separate processes whose QUORVEL_URL points at one daemon or the
// other; every acknowledged post is counted and checked at each recipient.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <regex>
#include <sstream>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "daemon/DaemonHarness.h"
#include "support/RedisServer.h"

using namespace Harness;
using Clock = std::chrono::steady_clock;
using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using std::chrono::milliseconds;

namespace {

// quorveld on an ephemeral loopback port with the Redis store; always stopped.
class RedisDaemon : public Child {
public:
    explicit RedisDaemon(const RedisServer& redis)
        : Child(program(
              {QUORVELD_BINARY, "--listen", "127.0.0.1:0", "--quiet", "--redis", redis.url()})) {
        char newline = 0;
        for (int i = 0; i < 2000 && newline != '\n' && running(); ++i) {
            std::this_thread::sleep_for(milliseconds(5));
            std::sscanf(out().c_str(), "quorveld listening on 127.0.0.1:%d%c", &port, &newline);
        }
        EXPECT_EQ(newline, '\n') << "quorveld did not start: " << err();
    }
    std::string url() const { return "QUORVEL_URL=http://127.0.0.1:" + std::to_string(port); }
    int port = 0;
};

const int kClients = 8;
const int kPosts = 300;

std::string clientName(int i) {
    return "c" + std::to_string(i);
}

// A poster: registers, waits for all its peers, then posts kPosts events
// "NAME#I", printing "a I" when a post was answered with success and "f I" when
// it failed (then it may or may not have been applied). It gives up once its
// daemon has failed for two seconds in a row.
int poster(std::string client) {
    AvQVLConnection connection;
    std::string server = "S", locale, correlation;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (shared.size() < kClients && Clock::now() < deadline) {
        shared.clear();
        connection.getSharedClients(shared);
    }
    Clock::time_point failingSince{};
    for (int i = 0; i < kPosts && Clock::now() < deadline; ++i) {
        std::string text = client + "#" + std::to_string(i);
        std::vector<std::string> clients;
        try {
            connection.putEvents(text, clients, correlation);
            failingSince = {};
            std::printf("a %d\n", i);
        } catch (const Arvant::Net::AvQuorvel::Client::Exception&) {
            std::printf("f %d\n", i);
            if (failingSince == Clock::time_point{}) {
                failingSince = Clock::now();
            } else if (Clock::now() - failingSince > std::chrono::seconds(2)) {
                break;
            }
            std::this_thread::sleep_for(milliseconds(20));
        }
        std::fflush(stdout);
    }
    return 0;
}

// What each poster reported: sender -> index -> 'a' (acknowledged) or 'f'.
using Outcomes = std::map<std::string, std::map<int, char>>;

Outcomes outcomesOf(const std::vector<std::unique_ptr<Child>>& posters) {
    Outcomes outcomes;
    for (int c = 0; c < kClients; ++c) {
        std::istringstream lines(posters[c]->out());
        char kind;
        int index;
        while (lines >> kind >> index) {
            outcomes[clientName(c)][index] = kind;
        }
    }
    return outcomes;
}

// How many posts ended as kind ('a' acknowledged, 'f' failed).
int countOf(const Outcomes& outcomes, char kind) {
    int count = 0;
    for (const auto& sender : outcomes) {
        for (const auto& post : sender.second) {
            count += post.second == kind;
        }
    }
    return count;
}

// A reader for client (run through any daemon): registers again (a known
// client keeps its events) and fetches until every acknowledged event of the
// others is in, then once more. Each sender's events must come in its order,
// each at most once, only those it posted; sequence numbers must grow. Prints
// the first fault, or "ok N".
int reader(std::string client, const Outcomes& outcomes) {
    AvQVLConnection connection;
    std::string server = "S", locale, events, correlation;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    std::size_t missing = 0;
    for (const auto& sender : outcomes) {
        for (const auto& post : sender.second) {
            missing += sender.first != client && post.second == 'a';
        }
    }
    const std::regex event("sender=\"(c[0-9]+)\" sequence=\"([0-9]+)\">(c[0-9]+)#([0-9]+)<");
    std::map<std::string, int> last;
    long long lastSequence = 0;
    int received = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    for (bool more = true; more && Clock::now() < deadline;) {
        more = missing > 0;  // one fetch more once all are in, for any straggler
        connection.getEvents(events, shared, correlation);
        for (std::sregex_iterator it(events.begin(), events.end(), event), end; it != end; ++it) {
            const std::string sender = (*it)[1];
            const int index = std::stoi((*it)[4]);
            const long long sequence = std::stoll((*it)[2]);
            const auto found = outcomes.find(sender);
            const char outcome = found == outcomes.end() || !found->second.count(index)
                                     ? 0
                                     : found->second.at(index);
            if (sender == client || (*it)[3] != sender || outcome == 0 ||
                (last.count(sender) && index <= last[sender]) || sequence <= lastSequence) {
                std::printf("fault at %s#%d (sequence %lld)\n", sender.c_str(), index, sequence);
                return 1;
            }
            last[sender] = index;
            lastSequence = sequence;
            ++received;
            missing -= outcome == 'a';
        }
    }
    if (missing > 0) {
        std::printf("%zu acknowledged events missing\n", missing);
        return 1;
    }
    std::printf("ok %d\n", received);
    return 0;
}

// Starts a poster per client, alternately on daemons a and b.
std::vector<std::unique_ptr<Child>> startPosters(const RedisDaemon& a, const RedisDaemon& b) {
    std::vector<std::unique_ptr<Child>> posters;
    for (int c = 0; c < kClients; ++c) {
        const std::string name = clientName(c);
        posters.push_back(std::make_unique<Child>([name] { return poster(name); },
                                                  Strings{c % 2 == 0 ? a.url() : b.url()}));
    }
    return posters;
}

// Waits until some poster has had `count` posts answered (under load, then).
void waitForProgress(std::vector<std::unique_ptr<Child>>& posters, int count) {
    const std::string mark = "a " + std::to_string(count) + "\n";
    for (int i = 0; i < 3000; ++i) {
        for (auto& poster : posters) {
            if (poster->out().find(mark) != std::string::npos || !poster->running()) {
                return;
            }
        }
        std::this_thread::sleep_for(milliseconds(5));
    }
}

// Every client reads through daemon, and every acknowledged event is there.
void expectEveryAcknowledgedEvent(const RedisDaemon& daemon, const Outcomes& outcomes) {
    for (int c = 0; c < kClients; ++c) {
        const std::string name = clientName(c);
        Child check([&] { return reader(name, outcomes); }, {daemon.url()});
        EXPECT_EQ(check.wait(60000), 0) << name << ": " << check.out() << check.err();
    }
}

TEST(RedisScaleOut, AnEventPostedThroughOneDaemonIsFetchedThroughTheOther) {
    RedisServer redis;
    RedisDaemon a(redis), b(redis);
    const Strings bob{"--server", "S", "--client", "bob"};
    EXPECT_NE(
        quorvel({"register", "S", "alice"}, {a.url()}).out.find("shared clients (1): alice\n"),
        std::string::npos);
    Result result = quorvel({"put", "--server", "S", "--client", "bob", "hello"}, {b.url()});
    EXPECT_EQ(result.code, 0) << result.err;
    result = quorvel({"clients", "--server", "S", "--client", "alice"}, {b.url()});
    EXPECT_NE(result.out.find("shared clients (2): alice, bob\n"), std::string::npos) << result.out;
    result = quorvel({"get", "--json", "--server", "S", "--client", "alice"}, {a.url()});
    EXPECT_NE(result.out.find("\"sender\":\"bob\",\"sequence\":\"1\",\"text\":\"hello\""),
              std::string::npos)
        << result.out << result.err;
}

TEST(RedisScaleOut, KillingOneDaemonUnderLoadLosesNothingAcknowledged) {
    RedisServer redis;
    auto a = std::make_unique<RedisDaemon>(redis);
    RedisDaemon b(redis);
    auto posters = startPosters(*a, b);
    waitForProgress(posters, 50);
    a->signal(SIGKILL);
    for (auto& poster : posters) {
        EXPECT_EQ(poster->wait(90000), 0);
    }
    const Outcomes outcomes = outcomesOf(posters);
    EXPECT_GE(countOf(outcomes, 'a'), kClients / 2 * kPosts);  // b's posters all went on
    EXPECT_GT(countOf(outcomes, 'f'), 0);                      // a died under load
    // The clients of the daemon that died go on through the other.
    expectEveryAcknowledgedEvent(b, outcomes);
}

TEST(RedisScaleOut, KillingRedisUnderLoadLosesNothingAcknowledged) {
    RedisServer redis;
    RedisDaemon a(redis), b(redis);
    auto posters = startPosters(a, b);
    waitForProgress(posters, 50);
    redis.stop(SIGKILL);
    std::this_thread::sleep_for(milliseconds(200));  // the daemons answer with failures meanwhile
    redis.start();
    for (auto& poster : posters) {
        EXPECT_EQ(poster->wait(90000), 0);
    }
    const Outcomes outcomes = outcomesOf(posters);
    EXPECT_GT(countOf(outcomes, 'f'), 0);  // Redis went away under load
    EXPECT_GT(countOf(outcomes, 'a'), kClients * kPosts / 2);
    expectEveryAcknowledgedEvent(a, outcomes);
    // Both daemons served on once Redis was back.
    EXPECT_TRUE(a.running());
    EXPECT_TRUE(b.running());
}

}  // namespace
