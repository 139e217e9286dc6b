// AvQVLConnection's lifecycle, transport start, headers and the status check.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ClientTestSupport.h"
#include "client/AvQVLConnection.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace ClientTest;

namespace {

const char* const kStatusHeader =
    "Log-Correlation-ID=AvQVLConnection.getStatus\r\nOperation-Name=getStatus\r\n"
    "Service-Name=AvQVLRequest\r\n\r\n";
const char* const kSharedA = "<r xmlns=\"urn:x\"><sharedClients>A</sharedClients></r>";

class ConnectionTest : public TransportTest {
protected:
    void registerAs(AvQVLConnection& connection, std::string server, std::string client,
                    std::string locale) {
        std::vector<std::string> shared;
        TestTransport::expectExchange("<r/>");
        connection.registerClient(server, client, locale, shared);
    }
};

TEST_F(ConnectionTest, StatusIsZeroOnlyForAnExactEcho) {
    AvQVLConnection connection;
    TestTransport::expectExchange("AvQVL Status check");
    EXPECT_EQ(connection.getStatus(), 0);
    EXPECT_EQ(TestTransport::headerBlocks(), (std::vector<std::string>{kStatusHeader}));
    EXPECT_EQ(TestTransport::bodies(), (std::vector<std::string>{"AvQVL Status check"}));

    for (const char* answer :
         {"AvQVL Status check\r\n", "AvQVL Status chec", "avqvl status check", ""}) {
        TestTransport::expectExchange(answer);
        EXPECT_EQ(connection.getStatus(), -2) << answer;
    }
}

TEST_F(ConnectionTest, StatusFailuresBecomeOneConnectionException) {
    AvQVLConnection connection;
    TestTransport::setLastError("unreachable", 0);
    TestTransport::pushResult("AvQvl_Init", -2999);
    Thrown thrown = thrownBy([&] { connection.getStatus(); });
    EXPECT_EQ(thrown.kind, "AvQVLConnectionException");
    EXPECT_EQ(thrown.type, -1);
    EXPECT_EQ(thrown.message, "AvQVL Connection failed");

    // The failed start is tried again, and an exchange failure is reported alike.
    TestTransport::pushResult("AvQvl_SendNoAck", -3099);
    thrown = thrownBy([&] { connection.getStatus(); });
    EXPECT_EQ(thrown.kind, "AvQVLConnectionException");
    EXPECT_EQ(thrown.type, -1);
    EXPECT_EQ(countCalls("AvQvl_Init"), 2);
}

TEST_F(ConnectionTest, StatusNeverCarriesIdentifiersButCarriesTheLocale) {
    AvQVLConnection connection;
    registerAs(connection, "S", "K", "en_GB");
    TestTransport::reset();
    TestTransport::expectExchange("AvQVL Status check");
    EXPECT_EQ(connection.getStatus(), 0);
    EXPECT_EQ(TestTransport::headerBlocks()[0],
              "Locale=en_GB\r\nLog-Correlation-ID=AvQVLConnection.getStatus\r\n"
              "Operation-Name=getStatus\r\nService-Name=AvQVLRequest\r\n\r\n");

    // An empty locale from a new registration drops the field again.
    registerAs(connection, "S", "K", "");
    TestTransport::reset();
    TestTransport::expectExchange("AvQVL Status check");
    connection.getStatus();
    EXPECT_EQ(TestTransport::headerBlocks()[0], kStatusHeader);
}

TEST_F(ConnectionTest, TransportStartsOncePerConnection) {
    auto initsAfterStatus = [](AvQVLConnection& connection) {
        TestTransport::expectExchange("AvQVL Status check");
        connection.getStatus();
        return countCalls("AvQvl_Init");
    };
    AvQVLConnection first;
    EXPECT_EQ(countCalls("AvQvl_Init"), 0);  // not at construction
    EXPECT_EQ(initsAfterStatus(first), 1);
    EXPECT_EQ(initsAfterStatus(first), 1);
    AvQVLConnection copy(first);
    AvQVLConnection assigned;
    assigned = first;
    EXPECT_EQ(initsAfterStatus(copy), 1);
    EXPECT_EQ(initsAfterStatus(assigned), 1);
    AvQVLConnection second;
    EXPECT_EQ(initsAfterStatus(second), 2);
    EXPECT_EQ(countCalls("AvQvl_Term"), 0);
}

TEST_F(ConnectionTest, CopiesCarryTheRegistration) {
    AvQVLConnection original;
    registerAs(original, "S", "K", "L");
    AvQVLConnection copy(original);
    AvQVLConnection assigned;
    assigned = original;
    assigned = assigned;

    for (AvQVLConnection* connection : {&copy, &assigned}) {
        TestTransport::reset();
        TestTransport::expectExchange(kSharedA);
        std::vector<std::string> shared;
        connection->getSharedClients(shared);
        EXPECT_EQ(shared, (std::vector<std::string>{"A"}));
        EXPECT_EQ(TestTransport::headerBlocks()[0],
                  "Client-ID=K\r\nLocale=L\r\n"
                  "Log-Correlation-ID=AvQVLConnection.getSharedClients\r\n"
                  "Operation-Name=getSharedClients\r\nServer-ID=S\r\n"
                  "Service-Name=AvQVLRequest\r\n\r\n");
    }
}

// The XML library lives while any connection does, and starts again after the last.
TEST_F(ConnectionTest, XmlLibraryOutlivesEveryConnectionButTheLast) {
    { AvQVLConnection gone; }
    AvQVLConnection survivor;
    registerAs(survivor, "S", "K", "");
    {
        AvQVLConnection other;
        AvQVLConnection copy(survivor);
    }
    TestTransport::expectExchange(kSharedA);
    std::vector<std::string> shared;
    survivor.getSharedClients(shared);
    EXPECT_EQ(shared, (std::vector<std::string>{"A"}));
}

}  // namespace
