// The client library over the real transport library and its embedded service:
// nothing is stubbed between AvQVLConnection and the engine.
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
    AvQVLConnection alice;
    AvQVLConnection bob;
    EXPECT_EQ(alice.getStatus(), 0);

    std::string server = "E2E";
    std::string aliceId = "alice";
    std::string bobId = "bob";
    std::string locale = "en_GB";
    Ids shared;
    alice.registerClient(server, aliceId, locale, shared);
    EXPECT_EQ(shared, (Ids{"alice"}));
    shared.clear();
    bob.registerClient(server, bobId, locale, shared);
    EXPECT_EQ(shared, (Ids{"alice", "bob"}));
    EXPECT_EQ(bob.getStatus(), 0);

    std::string event = "hi <bob> & 100%";
    std::string correlation = "e2e.put";
    shared.clear();
    alice.putEvents(event, shared, correlation);
    EXPECT_EQ(shared, (Ids{"alice", "bob"}));

    std::string events;
    shared = {"stale"};
    correlation = "e2e.get";
    bob.getEvents(events, shared, correlation);
    EXPECT_NE(events.find("sender=\"alice\" sequence=\"1\">hi &lt;bob&gt; &amp; 100&#x25;<"),
              std::string::npos)
        << events;
    EXPECT_EQ(shared, (Ids{"alice", "bob"}));
    bob.getEvents(events, shared, correlation);
    EXPECT_EQ(events.find("<ns0:event "), std::string::npos) << events;  // drained

    shared.clear();
    bob.unregisterClient(shared);
    EXPECT_EQ(shared, (Ids{"alice"}));
    shared.clear();
    alice.getSharedClients(shared);
    EXPECT_EQ(shared, (Ids{"alice"}));
}

TEST(EndToEndTest, ServiceRefusalsReachTheApplicationWithTheirMessage) {
    AvQVLConnection stranger;
    std::string server = "E2E-refusals";
    std::string empty;
    std::string locale;
    Ids shared;
    try {
        stranger.registerClient(server, empty, locale, shared);
        FAIL() << "an empty client identifier was accepted";
    } catch (const AvQVLProtocolException& e) {
        EXPECT_NE(e.getMessage().find("must not be empty"), std::string::npos) << e.getMessage();
    }
    std::string event = "x";
    std::string correlation = "e2e";
    try {
        stranger.putEvents(event, shared, correlation);  // registered locally, not by the service
        FAIL() << "an unregistered client posted";
    } catch (const AvQVLProtocolException& e) {
        EXPECT_EQ(e.getMessage(), "Client \"\" is not registered with server \"E2E-refusals\".");
    }
    EXPECT_EQ(stranger.getStatus(), 0);  // the transport recovered
}

}  // namespace
