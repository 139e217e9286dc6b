#include "engine/ServiceEngine.h"

#include <gtest/gtest.h>

#include "engine/Documents.h"
#include "protocol/XmlEscape.h"

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Arvant::Net::AvQuorvel::Engine;
using Lines = std::vector<std::string>;

const std::string kNs = " xmlns:ns0=\"http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base\">";

// The shared-client document as SharedClientIDs writes it (identifiers given escaped).
std::string shared(const Lines& ids) {
    std::string doc = "\n<ns0:sharedClientIDs" + kNs;
    for (const std::string& id : ids) {
        doc += "<ns0:sharedClients>" + id + "</ns0:sharedClients>";
    }
    return doc + "</ns0:sharedClientIDs>";
}

// The events document holding events given as "sender|sequence|text" (escaped).
std::string events(const Lines& list) {
    std::string doc = "\n<ns0:events" + kNs;
    for (const std::string& event : list) {
        const std::size_t bar = event.find('|'), text = event.find('|', bar + 1) + 1;
        doc += "\n<ns0:event sender=\"" + event.substr(0, bar) + "\" sequence=\"" +
               event.substr(bar + 1, text - bar - 2) + "\">" + event.substr(text) + "</ns0:event>";
    }
    return doc + "</ns0:events>";
}

class ServiceEngineTest : public ::testing::Test {
protected:
    ServiceEngineTest() : engine(ServiceLimits{64}) {}  // request bodies of 64 bytes at most

    static RequestHeaders req(const std::string& operation, const std::string& server,
                              const std::string& client) {
        return {{"Service-Name", "AvQVLRequest"},
                {"Operation-Name", operation},
                {"Server-ID", server},
                {"Client-ID", client}};
    }
    static RequestHeaders waiting(RequestHeaders request, const std::string& milliseconds) {
        request["Wait-Milliseconds"] = milliseconds;
        return request;
    }
    std::string ok(const std::string& operation, const std::string& server,
                   const std::string& client, const std::string& body = "") {
        std::string response;
        Failure failure;
        EXPECT_TRUE(engine.handle(req(operation, server, client), body, response, failure))
            << operation << ": " << failure.message;
        return response;
    }
    void add(const std::string& server, const Lines& clients) {
        for (const std::string& client : clients) {
            ok("registerClient", server, client);
        }
    }
    ServiceEngine engine;
};

// Status echoes; clients in registration order; identifiers, senders and
// texts escaped.
TEST_F(ServiceEngineTest, ClientsAndEventsAreListedInOrderAndEscaped) {
    EXPECT_EQ(ok("getStatus", "", "", "<&>\"%'\t\n\r"), "<&>\"%'\t\n\r");
    add("S", {"a\"<b>", "b"});
    EXPECT_EQ(ok("registerClient", "S", "c"), shared({"a&quot;&lt;b&gt;", "b", "c"}));
    EXPECT_EQ(ok("getSharedClients", "unknown", "anyone"), shared({}));
    EXPECT_EQ(
        ok("putEvents", "S", "a\"<b>", "1 < 2 & \"q\" 50%\n\xC3\xA9\xEF\xBF\xBD\xF0\x9F\x98\x80"),
        shared({"a&quot;&lt;b&gt;", "b", "c"}));
    ok("putEvents", "S", "b", "two");
    const std::string first =
        "a&quot;&lt;b&gt;|1|1 &lt; 2 &amp; &quot;q&quot; "
        "50&#x25;&#10;\xC3\xA9\xEF\xBF\xBD\xF0\x9F\x98\x80";
    EXPECT_EQ(ok("getEvents", "S", "c"), events({first, "b|2|two"}));
    EXPECT_EQ(ok("getEvents", "S", "a\"<b>"), events({"b|2|two"}));
    EXPECT_EQ(ok("unregisterClient", "S", "b"), shared({"a&quot;&lt;b&gt;", "c"}));
}

// Each character with a reference is escaped wherever it stands, on either
// side of the sixteen-byte steps the escaping scans in, and next to another.
TEST(DocumentsTest, EveryReferenceIsWrittenAtEveryPosition) {
    for (const auto& reference : Arvant::Net::AvQuorvel::Protocol::kXmlReferences) {
        const std::string escaped = std::string("&") + reference.name;
        for (std::size_t at = 0; at < 40; ++at) {
            std::string text(40, 'x');
            text[at] = text[39] = reference.character;
            std::string out = "<";
            appendEscaped(out, text);
            EXPECT_EQ(out, "<" + text.substr(0, at) + escaped +
                               (at < 39 ? text.substr(at + 1, 38 - at) + escaped : ""))
                << reference.name << " at " << at;
        }
    }
}

// Malformed requests, identifiers and events an XML document cannot carry, and
// callers that are not registered.
TEST_F(ServiceEngineTest, RefusedRequestsChangeNothing) {
    add("S", {"a", "b"});
    const struct {
        std::string message;
        RequestHeaders request;
        std::string body = "";
    } rows[] = {
        {"The request has no \"Service-Name\" header.", {{"Operation-Name", "getStatus"}}},
        {"Unknown \"Service-Name\" \"x\"",
         {{"Service-Name", "x"}, {"Operation-Name", "getStatus"}}},
        {"Unknown \"Operation-Name\" \"getstatus\".", req("getstatus", "", "")},
        {"must not be empty", req("registerClient", "", "c")},
        {"must not be empty", req("registerClient", "s", "")},
        {"must not hold", req("registerClient", "s", "c\x01")},
        {"must not hold", req("registerClient", "s\xFF", "c")},  // not UTF-8
        {"Client \"z\" is not registered with server \"S\".", req("putEvents", "S", "z"), "x"},
        {"cannot carry", req("putEvents", "S", "a"), "bell\x07"},
        // After eight plain bytes and more, which the check passes a word at a time.
        {"cannot carry", req("putEvents", "S", "a"), "plain text, then a bell\x07 and more"},
        {"cannot carry", req("putEvents", "S", "a"), "\xC0\xBC"},  // overlong "<"
        {"\"Wait-Milliseconds\" header field goes with getEvents only, not \"putEvents\".",
         waiting(req("putEvents", "S", "a"), "5"), "x"},
        {"takes 0 to 2147483647 milliseconds, not \"-1\".",
         waiting(req("getEvents", "S", "b"), "-1")},
        {"not \"2147483648\"", waiting(req("getEvents", "S", "b"), "2147483648")},
        {"not \"\"", waiting(req("getEvents", "S", "b"), "")},
        {"body of 65 bytes exceeds the limit of 64 bytes.", req("putEvents", "S", "a"),
         std::string(65, 'x')},
    };
    for (const auto& row : rows) {  // each fails with its code and words, answering nothing
        SCOPED_TRACE(row.message);
        std::string response = "untouched";
        Failure failure;
        EXPECT_FALSE(engine.handle(row.request, row.body, response, failure)) << response;
        EXPECT_EQ(response, "untouched");
        EXPECT_EQ(failure.kind, row.message.find("limit") == std::string::npos
                                    ? FailureKind::Refused
                                    : FailureKind::Limit);
        EXPECT_NE(failure.message.find(row.message), std::string::npos) << failure.message;
    }
    EXPECT_EQ(ok("getSharedClients", "s", "c"), shared({}));
    EXPECT_EQ(ok("getEvents", "S", "b"), events({}));
}

// A getEvents that asks to wait answers at once when an event waits, as soon as
// another thread posts one, or with none when its wait ends.
TEST_F(ServiceEngineTest, AWaitingFetchEndsWithAPostOrWithItsTime) {
    add("S", {"a", "b"});
    const auto fetch = [&](const char* wait) {  // each ends within its wait
        return std::async(std::launch::async, [this, wait] {
            std::string response;
            Failure failure;
            EXPECT_TRUE(
                engine.handle(waiting(req("getEvents", "S", "b"), wait), "", response, failure));
            return response;
        });
    };
    ok("putEvents", "S", "a", "e");
    EXPECT_EQ(fetch("20000").get(), events({"a|1|e"}));
    auto waiter = fetch("20000");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it wait first
    ok("putEvents", "S", "a", "e");
    EXPECT_EQ(waiter.get(), events({"a|2|e"}));
    EXPECT_EQ(fetch("50").get(), events({}));
}

// Through exchange() a getEvents moves the cursor only by the ack it carries
// or the carrier's acknowledge(), never backwards; a repeated post id posts once.
TEST_F(ServiceEngineTest, ExchangeMovesTheCursorOnlyWhenTold) {
    add("S", {"a", "b"});
    std::string response;
    Failure failure;
    ExchangeResult result;
    auto exchange = [&](const std::string& operation, const std::string& client,
                        const ExchangeOptions& options, const std::string& body = "") {
        EXPECT_TRUE(
            engine.exchange(req(operation, "S", client), body, options, response, failure, result))
            << failure.message;
        return response;
    };
    const ExchangeOptions once{std::nullopt, "0123456789abcdef0123456789abcdef"};
    exchange("putEvents", "a", once, "one");
    EXPECT_EQ(exchange("putEvents", "a", once, "one"), shared({"a", "b"}));  // posted once
    exchange("putEvents", "a", {}, "two");
    EXPECT_EQ(exchange("getEvents", "b", {}), events({"a|1|one", "a|2|two"}));
    EXPECT_EQ(exchange("getEvents", "b", {}), events({"a|1|one", "a|2|two"}));
    EXPECT_EQ(result.lastSequence, 2u);
    ASSERT_TRUE(engine.acknowledge("S", "b", 1, failure)) << failure.message;
    EXPECT_EQ(exchange("getEvents", "b", {0, ""}), events({"a|2|two"}));
    EXPECT_EQ(exchange("getEvents", "b", {2, ""}), events({}));
    EXPECT_EQ(result.lastSequence, 0u);
}

// The operators' service lists clients, escaped as attributes, and evicts one
// (the listing's times and the unknown client are the daemon's tests').
TEST_F(ServiceEngineTest, AdminListsAndEvictsClients) {
    add("S", {"b&\"c\""});
    RequestHeaders admin = req("listClients", "S", "");
    admin["Service-Name"] = "AvQVLAdmin";
    std::string listed, evicted;
    Failure failure;
    ASSERT_TRUE(engine.handle(admin, "", listed, failure));
    EXPECT_NE(listed.find("<ns0:client serverId=\"S\" clientId=\"b&amp;&quot;c&quot;\" "
                          "waitingEvents=\"0\" waitingBytes=\"0\" registeredMs=\""),
              std::string::npos)
        << listed;
    admin["Operation-Name"] = "evictClient", admin["Client-ID"] = "b&\"c\"";
    ASSERT_TRUE(engine.handle(admin, "", evicted, failure));
    EXPECT_EQ(evicted, shared({}));
}

}  // namespace
