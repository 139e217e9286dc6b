#include "service/ServiceEngine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Arvant::Net::AvQuorvel::Service::limitFailureCode;
using Arvant::Net::AvQuorvel::Service::protocolFailureCode;
using Arvant::Net::AvQuorvel::Service::RequestHeaders;
using Arvant::Net::AvQuorvel::Service::ServiceEngine;
using Arvant::Net::AvQuorvel::Service::ServiceFailure;
using Arvant::Net::AvQuorvel::Service::ServiceLimits;

const std::string kNs = "http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base";

struct Event {
    std::string sender;
    unsigned long sequence;
    std::string text;
};

// The shared-client document as SharedClientIDs writes it (identifiers given escaped).
std::string sharedDoc(const std::vector<std::string>& escapedIds) {
    std::string doc = "\n<ns0:sharedClientIDs xmlns:ns0=\"" + kNs + "\">";
    for (const auto& id : escapedIds) {
        doc += "<ns0:sharedClients>" + id + "</ns0:sharedClients>";
    }
    return doc + "</ns0:sharedClientIDs>";
}

// Reads an events document back; fails the test when its frame is wrong.
std::vector<Event> parseEvents(const std::string& doc) {
    const std::string head = "\n<ns0:events xmlns:ns0=\"" + kNs + "\">";
    const std::string tail = "</ns0:events>";
    EXPECT_EQ(doc.compare(0, head.size(), head), 0) << doc;
    EXPECT_GE(doc.size(), head.size() + tail.size());
    EXPECT_EQ(doc.substr(doc.size() - tail.size()), tail) << doc;
    std::vector<Event> events;
    const std::regex element(
        "\n<ns0:event sender=\"([^\"]*)\" sequence=\"([0-9]+)\">([^<]*)</ns0:event>");
    const std::string inner = doc.substr(head.size(), doc.size() - head.size() - tail.size());
    auto begin = std::sregex_iterator(inner.begin(), inner.end(), element);
    std::size_t consumed = 0;
    for (auto it = begin; it != std::sregex_iterator(); ++it) {
        EXPECT_EQ(static_cast<std::size_t>(it->position()), consumed) << "stray text in " << doc;
        consumed = it->position() + it->length();
        events.push_back(Event{(*it)[1], std::stoul((*it)[2]), (*it)[3]});
    }
    EXPECT_EQ(consumed, inner.size()) << doc;
    return events;
}

class ServiceEngineTest : public ::testing::Test {
protected:
    explicit ServiceEngineTest(ServiceLimits limits = ServiceLimits()) : engine(limits) {}

    static RequestHeaders headers(const std::string& operation, const std::string& server,
                                  const std::string& client) {
        return {{"Service-Name", "AvQVLRequest"},
                {"Operation-Name", operation},
                {"Log-Correlation-ID", "test"},
                {"Server-ID", server},
                {"Client-ID", client}};
    }

    // The response of a request that must succeed.
    std::string ok(const std::string& operation, const std::string& server,
                   const std::string& client, const std::string& body = "") {
        std::string response;
        ServiceFailure failure;
        EXPECT_TRUE(engine.handle(headers(operation, server, client), body, response, failure))
            << operation << ": " << failure.message;
        return response;
    }

    // The failure of a request that must fail.
    ServiceFailure refused(const RequestHeaders& request, const std::string& body = "") {
        std::string response = "untouched";
        ServiceFailure failure;
        EXPECT_FALSE(engine.handle(request, body, response, failure)) << response;
        EXPECT_EQ(response, "untouched");
        return failure;
    }

    ServiceFailure refused(const std::string& operation, const std::string& server,
                           const std::string& client, const std::string& body = "") {
        return refused(headers(operation, server, client), body);
    }

    ServiceEngine engine;
};

TEST_F(ServiceEngineTest, GetStatusEchoesTheBodyUnchanged) {
    for (const std::string body :
         {"AvQVL Status check", "", "<&>\"%'\t\n\r", "\xc3\xa9t\xc3\xa9"}) {
        RequestHeaders request = {{"Service-Name", "AvQVLRequest"},
                                  {"Operation-Name", "getStatus"}};
        std::string response;
        ServiceFailure failure;
        ASSERT_TRUE(engine.handle(request, body, response, failure)) << failure.message;
        EXPECT_EQ(response, body);
    }
}

TEST_F(ServiceEngineTest, MalformedRequestsAreProtocolFailures) {
    struct Case {
        const char* label;
        RequestHeaders request;
        const char* messagePart;
    };
    const std::vector<Case> cases = {
        {"no service", {{"Operation-Name", "getStatus"}}, "\"Service-Name\""},
        {"other service",
         {{"Service-Name", "avqvlrequest"}, {"Operation-Name", "getStatus"}},
         "Unknown \"Service-Name\" \"avqvlrequest\""},
        {"no operation", {{"Service-Name", "AvQVLRequest"}}, "\"Operation-Name\""},
        {"unknown operation",
         {{"Service-Name", "AvQVLRequest"}, {"Operation-Name", "getstatus"}},
         "Unknown \"Operation-Name\" \"getstatus\""},
        {"no server",
         {{"Service-Name", "AvQVLRequest"},
          {"Operation-Name", "registerClient"},
          {"Client-ID", "c"}},
         "\"Server-ID\""},
        {"no client",
         {{"Service-Name", "AvQVLRequest"}, {"Operation-Name", "getEvents"}, {"Server-ID", "s"}},
         "\"Client-ID\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        ServiceFailure failure = refused(c.request);
        EXPECT_EQ(failure.code, protocolFailureCode);
        EXPECT_NE(failure.message.find(c.messagePart), std::string::npos) << failure.message;
    }
}

TEST_F(ServiceEngineTest, RegistrationListsClientsInOrderPerServer) {
    EXPECT_EQ(ok("registerClient", "S", "b"), sharedDoc({"b"}));
    EXPECT_EQ(ok("registerClient", "S", "a"), sharedDoc({"b", "a"}));
    EXPECT_EQ(ok("registerClient", "T", "x&y"), sharedDoc({"x&amp;y"}));
    EXPECT_EQ(ok("registerClient", "S", "b"), sharedDoc({"b", "a"}));  // idempotent
    EXPECT_EQ(ok("getSharedClients", "S", "anyone"), sharedDoc({"b", "a"}));
    EXPECT_EQ(ok("getSharedClients", "unknown", "anyone"), sharedDoc({}));
}

TEST_F(ServiceEngineTest, RegistrationRefusesEmptyOrUnwritableIdentifiers) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "c"}, {"s", ""}, {"", ""}, {"s", std::string("c\x01", 2)}, {"s\x1f", "c"}};
    for (const auto& c : cases) {
        ServiceFailure failure = refused("registerClient", c.first, c.second);
        EXPECT_EQ(failure.code, protocolFailureCode);
        EXPECT_NE(failure.message.find("must not"), std::string::npos) << failure.message;
    }
    EXPECT_EQ(ok("getSharedClients", "s", "c"), sharedDoc({}));
}

TEST_F(ServiceEngineTest, UnregisterDropsClientAndItsEventsAndToleratesUnknown) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    ok("registerClient", "S", "c");
    ok("putEvents", "S", "a", "for b and c");
    EXPECT_EQ(ok("unregisterClient", "S", "b"), sharedDoc({"a", "c"}));
    EXPECT_EQ(ok("unregisterClient", "S", "b"), sharedDoc({"a", "c"}));
    EXPECT_EQ(ok("unregisterClient", "nowhere", "z"), sharedDoc({}));
    ok("registerClient", "S", "b");
    EXPECT_TRUE(parseEvents(ok("getEvents", "S", "b")).empty());
    EXPECT_EQ(parseEvents(ok("getEvents", "S", "c")).size(), 1u);
}

TEST_F(ServiceEngineTest, EventsReachEveryOtherClientInOrderAndDrain) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    ok("registerClient", "S", "c");
    ok("registerClient", "Other", "d");
    EXPECT_EQ(ok("putEvents", "S", "a", "one"), sharedDoc({"a", "b", "c"}));
    ok("putEvents", "S", "b", "two");
    ok("registerClient", "S", "b");  // re-registration keeps b's queue

    auto forC = parseEvents(ok("getEvents", "S", "c"));
    ASSERT_EQ(forC.size(), 2u);
    EXPECT_EQ(forC[0].sender, "a");
    EXPECT_EQ(forC[0].text, "one");
    EXPECT_EQ(forC[1].sender, "b");
    EXPECT_EQ(forC[1].text, "two");
    EXPECT_LT(forC[0].sequence, forC[1].sequence);

    auto forB = parseEvents(ok("getEvents", "S", "b"));
    ASSERT_EQ(forB.size(), 1u);                     // not its own event
    EXPECT_EQ(forB[0].sequence, forC[0].sequence);  // one post, one number
    auto forA = parseEvents(ok("getEvents", "S", "a"));
    ASSERT_EQ(forA.size(), 1u);
    EXPECT_EQ(forA[0].text, "two");

    EXPECT_TRUE(parseEvents(ok("getEvents", "S", "c")).empty());
    EXPECT_TRUE(parseEvents(ok("getEvents", "Other", "d")).empty());
}

TEST_F(ServiceEngineTest, EventsDocumentEscapesTextAndSender) {
    ok("registerClient", "S", "a\"<b>");
    ok("registerClient", "S", "r");
    ok("putEvents", "S", "a\"<b>", "1 < 2 & \"q\" 50%\n");
    EXPECT_EQ(ok("getEvents", "S", "r"),
              "\n<ns0:events xmlns:ns0=\"" + kNs +
                  "\">\n<ns0:event sender=\"a&quot;&lt;b&gt;\" sequence=\"1\">1 &lt; 2 &amp; "
                  "&quot;q&quot; 50&#x25;&#10;</ns0:event></ns0:events>");
    EXPECT_EQ(ok("getEvents", "S", "r"), "\n<ns0:events xmlns:ns0=\"" + kNs + "\"></ns0:events>");
}

TEST_F(ServiceEngineTest, UnregisteredCallersCannotPutOrGet) {
    ok("registerClient", "S", "a");
    for (const char* operation : {"putEvents", "getEvents"}) {
        for (const auto& who : std::vector<std::pair<std::string, std::string>>{
                 {"S", "stranger"}, {"T", "a"}, {"", ""}}) {
            ServiceFailure failure = refused(operation, who.first, who.second, "x");
            EXPECT_EQ(failure.code, protocolFailureCode);
            EXPECT_EQ(failure.message, "Client \"" + who.second +
                                           "\" is not registered with server \"" + who.first +
                                           "\".");
        }
    }
    EXPECT_TRUE(parseEvents(ok("getEvents", "S", "a")).empty());
}

TEST_F(ServiceEngineTest, EventsXmlCannotCarryAreRefused) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    ServiceFailure failure = refused("putEvents", "S", "a", std::string("bell\x07", 5));
    EXPECT_EQ(failure.code, protocolFailureCode);
    EXPECT_NE(failure.message.find("control characters"), std::string::npos);
    EXPECT_TRUE(parseEvents(ok("getEvents", "S", "b")).empty());
}

class LimitedEngineTest : public ServiceEngineTest {
protected:
    static ServiceLimits small() {
        ServiceLimits limits;
        limits.maxBodyBytes = 8;
        limits.maxQueuedEventsPerClient = 2;
        limits.maxClientsPerServer = 3;
        return limits;
    }
    LimitedEngineTest() : ServiceEngineTest(small()) {}
};

TEST_F(LimitedEngineTest, BodyLimit) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    EXPECT_EQ(ok("getStatus", "", "", "12345678"), "12345678");
    for (const char* operation : {"getStatus", "putEvents"}) {
        ServiceFailure failure = refused(operation, "S", "a", "123456789");
        EXPECT_EQ(failure.code, limitFailureCode);
        EXPECT_EQ(failure.message, "The request body of 9 bytes exceeds the limit of 8 bytes.");
    }
    EXPECT_TRUE(parseEvents(ok("getEvents", "S", "b")).empty());
}

TEST_F(LimitedEngineTest, FullQueueRefusesThePutForEveryone) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    ok("putEvents", "S", "a", "1");
    ok("putEvents", "S", "a", "2");
    ok("registerClient", "S", "c");  // c's queue is empty, b's is full
    ServiceFailure failure = refused("putEvents", "S", "a", "3");
    EXPECT_EQ(failure.code, limitFailureCode);
    EXPECT_NE(failure.message.find("client \"b\" of server \"S\" already has 2 events"),
              std::string::npos)
        << failure.message;
    EXPECT_TRUE(parseEvents(ok("getEvents", "S", "c")).empty());
    EXPECT_EQ(parseEvents(ok("getEvents", "S", "b")).size(), 2u);

    ok("putEvents", "S", "a", "3");  // room again after the drain
    auto forB = parseEvents(ok("getEvents", "S", "b"));
    ASSERT_EQ(forB.size(), 1u);
    EXPECT_EQ(forB[0].sequence, 3u);  // the refused put used no number
}

TEST_F(LimitedEngineTest, ClientLimitPerServer) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    ok("registerClient", "S", "c");
    ServiceFailure failure = refused("registerClient", "S", "d");
    EXPECT_EQ(failure.code, limitFailureCode);
    EXPECT_NE(failure.message.find("server \"S\" already has 3 clients"), std::string::npos)
        << failure.message;
    EXPECT_EQ(ok("registerClient", "S", "c"), sharedDoc({"a", "b", "c"}));  // known: fine
    ok("registerClient", "T", "d");                                         // other server
    ok("unregisterClient", "S", "a");
    EXPECT_EQ(ok("registerClient", "S", "d"), sharedDoc({"b", "c", "d"}));
}

TEST_F(ServiceEngineTest, ConcurrentPostersAndFetchersLoseNothing) {
    constexpr int kClients = 6;
    constexpr int kEventsEach = 200;
    for (int i = 0; i < kClients; ++i) {
        ok("registerClient", "S", "c" + std::to_string(i));
    }
    std::vector<std::vector<Event>> received(kClients);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            const std::string me = "c" + std::to_string(i);
            std::string response;
            ServiceFailure failure;
            for (int n = 0; n < kEventsEach; ++n) {
                if (!engine.handle(headers("putEvents", "S", me), me + ":" + std::to_string(n),
                                   response, failure)) {
                    ++failures;
                }
                if (n % 10 == 0 &&
                    engine.handle(headers("getEvents", "S", me), "", response, failure)) {
                    for (auto& e : parseEvents(response)) {
                        received[i].push_back(e);
                    }
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(failures.load(), 0);
    for (int i = 0; i < kClients; ++i) {
        for (auto& e : parseEvents(ok("getEvents", "S", "c" + std::to_string(i)))) {
            received[i].push_back(e);
        }
        ASSERT_EQ(received[i].size(), static_cast<std::size_t>((kClients - 1) * kEventsEach));
        std::vector<int> nextFrom(kClients, 0);
        for (std::size_t k = 0; k < received[i].size(); ++k) {
            const Event& e = received[i][k];
            if (k > 0) {
                EXPECT_LT(received[i][k - 1].sequence, e.sequence);
            }
            const int sender = std::stoi(e.sender.substr(1));
            ASSERT_NE(sender, i);
            EXPECT_EQ(e.text, e.sender + ":" + std::to_string(nextFrom[sender]++));
        }
    }
}

}  // namespace
