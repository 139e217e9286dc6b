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

    // A request that must fail with the code and a message holding messagePart.
    void refused(int32_t code, const std::string& messagePart, const RequestHeaders& request,
                 const std::string& body = "") {
        std::string response = "untouched";
        ServiceFailure failure;
        EXPECT_FALSE(engine.handle(request, body, response, failure)) << response;
        EXPECT_EQ(response, "untouched");
        EXPECT_EQ(failure.code, code);
        EXPECT_NE(failure.message.find(messagePart), std::string::npos) << failure.message;
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
    const struct {
        const char *service, *operation, *identifier, *messagePart;  // null: header absent
    } cases[] = {
        {nullptr, "getStatus", nullptr, "\"Service-Name\""},
        {"avqvlrequest", "getStatus", nullptr, "Unknown \"Service-Name\" \"avqvlrequest\""},
        {"AvQVLRequest", nullptr, nullptr, "\"Operation-Name\""},
        {"AvQVLRequest", "getstatus", nullptr, "Unknown \"Operation-Name\" \"getstatus\""},
        {"AvQVLRequest", "registerClient", "Client-ID", "\"Server-ID\""},
        {"AvQVLRequest", "getEvents", "Server-ID", "\"Client-ID\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.messagePart);
        RequestHeaders request;
        for (const auto& header :
             {std::make_pair("Service-Name", c.service),
              std::make_pair("Operation-Name", c.operation), std::make_pair(c.identifier, "x")}) {
            if (header.first != nullptr && header.second != nullptr) {
                request[header.first] = header.second;
            }
        }
        refused(protocolFailureCode, c.messagePart, request);
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
    ok("putEvents", "S", "a\"<b>", "1 < 2 & \"q\" 50%\n\xC3\xA9\xEF\xBF\xBD\xF0\x9F\x98\x80");
    EXPECT_EQ(ok("getEvents", "S", "r"),
              "\n<ns0:events xmlns:ns0=\"" + kNs +
                  "\">\n<ns0:event sender=\"a&quot;&lt;b&gt;\" sequence=\"1\">1 &lt; 2 &amp; "
                  "&quot;q&quot; "
                  "50&#x25;&#10;\xC3\xA9\xEF\xBF\xBD\xF0\x9F\x98\x80</ns0:event></ns0:events>");
    EXPECT_EQ(ok("getEvents", "S", "r"), "\n<ns0:events xmlns:ns0=\"" + kNs + "\"></ns0:events>");
}

// Identifiers or events XML cannot carry, and callers that are not registered.
TEST_F(ServiceEngineTest, RefusedRequestsChangeNothing) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    const struct {
        const char* operation;
        std::string server, client, body, message;
    } cases[] = {
        {"registerClient", "", "c", "", "must not"},
        {"registerClient", "s", "", "", "must not"},
        {"registerClient", "s", std::string("c\x01", 2), "", "must not"},
        {"registerClient", "s\x1f", "c", "", "must not"},
        {"putEvents", "S", "stranger", "x",
         "Client \"stranger\" is not registered with server \"S\"."},
        {"getEvents", "T", "a", "", "Client \"a\" is not registered with server \"T\"."},
        {"putEvents", "", "", "x", "Client \"\" is not registered with server \"\"."},
        {"putEvents", "S", "a", std::string("bell\x07", 5), "control characters"},
        // Not UTF-8, or characters XML cannot carry: any client's parser would fail.
        {"registerClient", "s", "c\xEF\xBF\xBE", "", "must not"},  // U+FFFE
        {"registerClient", "s", "caf\xC3", "", "must not"},        // cut short
        {"registerClient", "s\xFF", "c", "", "must not"},
        {"putEvents", "S", "a", "\xED\xA0\x80", "not UTF-8"},  // a surrogate
        {"putEvents", "S", "a", "\xC0\xBC", "not UTF-8"},      // overlong "<"
        {"putEvents", "S", "a", "\xEF\xBF\xBF", "not UTF-8"},  // U+FFFF
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.operation) + " " + c.server + "/" + c.client);
        refused(protocolFailureCode, c.message, headers(c.operation, c.server, c.client), c.body);
    }
    EXPECT_EQ(ok("getSharedClients", "s", "c"), sharedDoc({}));
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
        refused(limitFailureCode, "The request body of 9 bytes exceeds the limit of 8 bytes.",
                headers(operation, "S", "a"), "123456789");
    }
    EXPECT_TRUE(parseEvents(ok("getEvents", "S", "b")).empty());
}

TEST_F(LimitedEngineTest, FullQueueRefusesThePutForEveryone) {
    ok("registerClient", "S", "a");
    ok("registerClient", "S", "b");
    ok("putEvents", "S", "a", "1");
    ok("putEvents", "S", "a", "2");
    ok("registerClient", "S", "c");  // c's queue is empty, b's is full
    refused(limitFailureCode, "client \"b\" of server \"S\" already has 2 events",
            headers("putEvents", "S", "a"), "3");
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
    refused(limitFailureCode, "server \"S\" already has 3 clients",
            headers("registerClient", "S", "d"));
    EXPECT_EQ(ok("registerClient", "S", "c"), sharedDoc({"a", "b", "c"}));  // known: fine
    ok("registerClient", "T", "d");                                         // other server
    ok("unregisterClient", "S", "a");
    EXPECT_EQ(ok("registerClient", "S", "d"), sharedDoc({"b", "c", "d"}));
}

// Each thread posts and now and then drains its queue; every event arrives
// once, in sequence order, in its sender's order.
TEST_F(ServiceEngineTest, ConcurrentPostersAndFetchersLoseNothing) {
    constexpr int kClients = 6;
    constexpr int kEventsEach = 200;
    const auto name = [](int i) { return "c" + std::to_string(i); };
    for (int i = 0; i < kClients; ++i) {
        ok("registerClient", "S", name(i));
    }
    std::vector<std::vector<Event>> received(kClients);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            std::string response;
            ServiceFailure failure;
            for (int n = 0; n < kEventsEach; ++n) {
                failures += !engine.handle(headers("putEvents", "S", name(i)),
                                           name(i) + ":" + std::to_string(n), response, failure);
                if (n % 10 == 0 &&
                    engine.handle(headers("getEvents", "S", name(i)), "", response, failure)) {
                    const auto events = parseEvents(response);
                    received[i].insert(received[i].end(), events.begin(), events.end());
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(failures.load(), 0);
    for (int i = 0; i < kClients; ++i) {
        const auto rest = parseEvents(ok("getEvents", "S", name(i)));
        received[i].insert(received[i].end(), rest.begin(), rest.end());
        ASSERT_EQ(received[i].size(), static_cast<std::size_t>((kClients - 1) * kEventsEach));
        std::vector<int> nextFrom(kClients, 0);
        for (std::size_t k = 0; k < received[i].size(); ++k) {
            const Event& e = received[i][k];
            EXPECT_TRUE(k == 0 || received[i][k - 1].sequence < e.sequence);
            const int sender = std::stoi(e.sender.substr(1));
            ASSERT_NE(sender, i);
            EXPECT_EQ(e.text, e.sender + ":" + std::to_string(nextFrom[sender]++));
        }
    }
}

}  // namespace
