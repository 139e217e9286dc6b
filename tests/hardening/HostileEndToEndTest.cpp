// Hostile arguments through the real transport into the embedded service: each
// ends in a clear exception or a documented result, and the service loses
// nothing and keeps nothing half-done (an observer's view stays consistent).
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"

using namespace Arvant::Net::AvQuorvel::Client;

namespace {

using Ids = std::vector<std::string>;

std::string outcomeOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const AvQVLProtocolException&) {
        return "protocol";
    } catch (const AvQVLRuntimeException&) {
        return "runtime";
    } catch (const Exception& e) {
        return "other: " + e.getMessage();
    }
    return "ok";
}

class HostileEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string client = "observer", locale;
        Ids shared;
        observer.registerClient(server, client, locale, shared);
    }
    void TearDown() override {
        Ids shared;
        observer.unregisterClient(shared);
    }
    Ids observed() {
        Ids shared;
        observer.getSharedClients(shared);
        return shared;
    }
    std::string register_(const std::string& id, AvQVLConnection& connection) {
        std::string serverId = server, client = id, locale;
        Ids shared;
        return outcomeOf([&] { connection.registerClient(serverId, client, locale, shared); });
    }

    std::string server =
        "hostile-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
    AvQVLConnection observer;
};

TEST_F(HostileEndToEndTest, HostileIdentifiersAreRefusedOrSentAsTheyStand) {
    struct Case {
        const char* what;
        std::string id;
        const char* outcome;
        Ids registered;  // the observer's list afterwards
    };
    const Case cases[] = {
        {"lone line feed", "C\nD", "protocol", {"observer"}},
        {"lone carriage return", "C\rD", "protocol", {"observer"}},
        {"CR LF repeating a header", "C\r\nServer-ID=other", "protocol", {"observer"}},
        {"CR LF ending the block early", "C\r\n\r\nrest", "protocol", {"observer"}},
        {"1 MiB identifier: header block over the transport's limit",
         std::string(1 << 20, 'c'),
         "runtime",
         {"observer"}},
        {"empty identifier", "", "protocol", {"observer"}},
        {"control character", "C\x01", "protocol", {"observer"}},
        // Values are not escaped: CR LF followed by name=value adds a header
        // line. The transport refuses one out of the sorted order; one that falls
        // in order is read as a header, and the service registers the part before it.
        {"CR LF adding a header out of order", "C\r\nX-Extra=1", "protocol", {"observer"}},
        {"CR LF adding a header in order", "C\r\nD-Extra=1", "ok", {"observer", "C"}},
    };
    for (const Case& c : cases) {
        AvQVLConnection connection;
        EXPECT_EQ(register_(c.id, connection), c.outcome) << c.what;
        EXPECT_EQ(observed(), c.registered) << c.what;
    }
}

TEST_F(HostileEndToEndTest, HostileEventsAreRefusedWholeOrDeliveredAsSent) {
    AvQVLConnection sender;
    ASSERT_EQ(register_("sender", sender), "ok");
    const std::pair<std::string, const char*> cases[] = {
        {"a\001b", "protocol"},                    // control character: nothing queued
        {std::string("before\0after", 12), "ok"},  // the text before the NUL byte
        {std::string(1 << 20, 'e'), "ok"},         // 1 MiB
        {std::string(17 << 20, 'e'), "runtime"},   // over the service's body limit
        {"<a>&amp;\"%'", "ok"},                    // markup
    };
    for (const auto& c : cases) {
        std::string events = c.first, correlation = "hostile";
        Ids shared;
        EXPECT_EQ(outcomeOf([&] { sender.putEvents(events, shared, correlation); }), c.second)
            << c.first.substr(0, 20);
    }
    std::string received, correlation = "drain";
    Ids shared;
    observer.getEvents(received, shared, correlation);
    EXPECT_EQ(shared, (Ids{"observer", "sender"}));
    // Exactly the three accepted events arrived, each whole, in order.
    std::size_t count = 0;
    for (std::size_t at = received.find("<ns0:event "); at != std::string::npos;
         at = received.find("<ns0:event ", at + 1)) {
        ++count;
    }
    EXPECT_EQ(count, 3u);
    EXPECT_NE(received.find(">before</ns0:event>"), std::string::npos);
    EXPECT_NE(received.find(std::string(1 << 20, 'e')), std::string::npos);
    EXPECT_NE(received.find("&lt;a&gt;&amp;amp;&quot;&#x25;&apos;"), std::string::npos);
    Ids left;
    sender.unregisterClient(left);
}

}  // namespace
