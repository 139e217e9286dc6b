// How an application unit-tests its own code against AvQVLConnection without a
// running service: link AvQvlTestTransport into the test, script what the
// service answers, and check what the application sent.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "transport/testing/TestTransport.h"

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::Exception;
using Arvant::Net::AvQuorvel::Testing::TestTransport;

// --- Application code under test -------------------------------------------

// Registers as "billing" and posts one event; returns how many other clients
// share the service, or -1 when the service could not be reached.
int announceStartup(AvQVLConnection& connection, const std::string& serverId) {
    std::string server = serverId, client = "billing", locale = "en_GB";
    std::vector<std::string> shared;
    try {
        connection.registerClient(server, client, locale, shared);
        std::string event = "<started by=\"billing\"/>", correlation = "startup";
        shared.clear();
        connection.putEvents(event, shared, correlation);
    } catch (const Exception&) {
        return -1;
    }
    return static_cast<int>(shared.size());
}

// --- Its tests ---------------------------------------------------------------

class AnnounceStartupTest : public ::testing::Test {
protected:
    void SetUp() override { TestTransport::reset(); }
};

TEST_F(AnnounceStartupTest, CountsTheClientsListedAfterThePost) {
    const std::string noClients = "<r xmlns=\"urn:x\"/>";
    const std::string twoClients =
        "<r xmlns=\"urn:x\"><sharedClients>audit</sharedClients>"
        "<sharedClients>mail</sharedClients></r>";
    TestTransport::expectExchange(noClients);   // registerClient
    TestTransport::expectExchange(twoClients);  // putEvents

    AvQVLConnection connection;
    EXPECT_EQ(announceStartup(connection, "main"), 2);

    ASSERT_EQ(TestTransport::bodies().size(), 2u);
    EXPECT_EQ(TestTransport::bodies()[1], "<started by=\"billing\"/>");
    EXPECT_NE(TestTransport::headerBlocks()[1].find("Operation-Name=putEvents\r\n"),
              std::string::npos);
    EXPECT_NE(TestTransport::headerBlocks()[1].find("Client-ID=billing\r\n"), std::string::npos);
    EXPECT_TRUE(TestTransport::scriptDone());
}

TEST_F(AnnounceStartupTest, ReportsAnUnreachableService) {
    TestTransport::setLastError("connection refused", 0);
    TestTransport::pushResult("AvQvl_Init", -2999);

    AvQVLConnection connection;
    EXPECT_EQ(announceStartup(connection, "main"), -1);
    EXPECT_TRUE(TestTransport::headerBlocks().empty());
}
