// The news of a post across daemons answers a waiting getEvents only with what
// its look could not have seen and that is not its own; news that holds nothing
// for it leaves it waiting, and news it cannot trust sends it to look again.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemon/Waiters.h"
#include "engine/ServiceEngine.h"

using namespace Arvant::Net::AvQuorvel;

namespace {

struct Recorder : Daemon::Waiters::Waiter {
    void woken(const std::shared_ptr<const Engine::PostNews>& news) override {
        how = news ? "news" : "look";
    }
    std::string how;  // "" while waiting
};

// The sequences an events document answers, in order.
std::vector<std::uint64_t> sequencesOf(const std::string& document) {
    std::vector<std::uint64_t> found;
    const std::string mark = "sequence=\"";
    for (auto at = document.find(mark); at != std::string::npos; at = document.find(mark, at)) {
        at += mark.size();
        found.push_back(std::stoull(document.substr(at)));
    }
    return found;
}

TEST(Waiters, NewsAnswersOnlyWhatTheLookCouldNotHaveSeen) {
    struct Row {
        const char* what;
        std::uint64_t logEnd;  // of the waiter "c"'s look
        Engine::ClientList clients;
        std::vector<std::pair<std::string, std::uint64_t>> events;  // sender, sequence
        std::string how;
        std::vector<std::uint64_t> answered;
    };
    const Row rows[] = {
        {"another's post past the look", 5, {"c", "d"}, {{"d", 6}}, "news", {6}},
        {"a post the look saw", 5, {"c", "d"}, {{"d", 5}}, "", {}},
        {"its own post", 5, {"c", "d"}, {{"c", 6}}, "", {}},
        {"seen, own, then new", 5, {"d", "c"}, {{"d", 5}, {"c", 6}, {"d", 7}}, "news", {7}},
        {"a client no longer registered", 5, {"d"}, {{"d", 6}}, "look", {}},
        {"a look that gave no log end", 0, {"c", "d"}, {{"d", 6}}, "look", {}},
    };
    Engine::ServiceEngine engine;
    for (const Row& row : rows) {
        Daemon::Waiters waiters(10);
        auto waiter = std::make_shared<Recorder>();
        waiter->serverId = "S";
        waiter->clientId = "c";
        waiter->logEnd = row.logEnd;
        ASSERT_EQ(waiters.add(waiter, waiters.mark("S")), Daemon::Waiters::Added::Waiting);
        auto news = std::make_shared<Engine::PostNews>();
        news->clients = row.clients;
        for (const auto& event : row.events) {
            news->events.push_back(
                {event.first, event.second, std::make_shared<const std::string>("t")});
        }
        waiters.posted("S", news);
        EXPECT_EQ(waiter->how, row.how) << row.what;
        EXPECT_EQ(waiters.size(), row.how.empty() ? 1u : 0u) << row.what;
        if (row.how == "news") {
            Engine::ExchangeResult result;
            const std::string answer = engine.eventsFromNews(*news, "c", row.logEnd, result);
            EXPECT_EQ(sequencesOf(answer), row.answered) << row.what;
            EXPECT_EQ(result.lastSequence, row.answered.back()) << row.what;
            ASSERT_TRUE(result.clients) << row.what;
            EXPECT_NE(result.clients->find(">c<"), std::string::npos) << *result.clients;
        }
    }
}

}  // namespace
