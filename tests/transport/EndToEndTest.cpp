// The client library over the real transport library and its embedded service:
// nothing is stubbed between AvQVLConnection and the engine. Hostile arguments
// over the same road are in tests/hardening.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"

namespace {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::AvQVLProtocolException;

using Ids = std::vector<std::string>;

TEST(EndToEndTest, StatusRegistrationAndEventsThroughTheEmbeddedService) {
    AvQVLConnection alice, bob;
    EXPECT_EQ(alice.getStatus(), 0);
    std::string server = "E2E", aliceId = "alice", bobId = "bob", locale = "en_GB";
    Ids shared;
    alice.registerClient(server, aliceId, locale, shared);
    EXPECT_EQ(shared, (Ids{"alice"}));
    shared.clear();
    bob.registerClient(server, bobId, locale, shared);
    EXPECT_EQ(shared, (Ids{"alice", "bob"}));

    std::string event = "hi <bob> & 100%", correlation = "e2e", events;
    alice.putEvents(event, shared, correlation);
    shared = {"stale"};
    bob.getEvents(events, shared, correlation);
    EXPECT_NE(events.find("sender=\"alice\" sequence=\"1\">hi &lt;bob&gt; &amp; 100&#x25;<"),
              std::string::npos)
        << events;
    EXPECT_EQ(shared, (Ids{"alice", "bob"}));

    shared.clear();
    bob.unregisterClient(shared);
    EXPECT_EQ(shared, (Ids{"alice"}));
    EXPECT_EQ(bob.getStatus(), 0);
}

// A refusal of the service reaches the application with the service's message.
TEST(EndToEndTest, ServiceRefusalsCarryTheirMessage) {
    AvQVLConnection stranger;
    std::string server = "E2E-refusals", empty, event = "x", correlation = "e2e";
    Ids shared;
    try {
        stranger.registerClient(server, empty, empty, shared);
        FAIL() << "an empty client identifier was accepted";
    } catch (const AvQVLProtocolException& e) {
        EXPECT_NE(e.getMessage().find("must not be empty"), std::string::npos) << e.getMessage();
    }
    try {
        stranger.putEvents(event, shared, correlation);  // registered locally, not by the service
        FAIL() << "an unregistered client posted";
    } catch (const AvQVLProtocolException& e) {
        EXPECT_EQ(e.getMessage(), "Client \"\" is not registered with server \"E2E-refusals\".");
    }
    EXPECT_EQ(stranger.getStatus(), 0);  // the transport recovered
}

}  // namespace
