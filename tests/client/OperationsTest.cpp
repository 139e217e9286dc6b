// The five service operations: headers, bodies, preconditions, results and
// every failure path.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ClientTestSupport.h"
#include "client/AvQVLConnection.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace ClientTest;
using Strings = std::vector<std::string>;

namespace {

const char* const kSharedAB =
    "<r xmlns=\"urn:x\"><sharedClients>A</sharedClients><sharedClients>B</sharedClients></r>";
const char* const kSharedC = "<r xmlns=\"urn:x\"><sharedClients>C</sharedClients></r>";
const char* const kUnexpectedChild = "<r xmlns=\"urn:x\"><other>A</other></r>";

// The header block of a registered-client operation.
std::string headerBlock(const std::string& server, const std::string& client,
                        const std::string& locale, const std::string& correlation,
                        const std::string& operation) {
    return "Client-ID=" + client + "\r\n" + (locale.empty() ? "" : "Locale=" + locale + "\r\n") +
           "Log-Correlation-ID=" + correlation + "\r\nOperation-Name=" + operation +
           "\r\nServer-ID=" + server + "\r\nService-Name=AvQVLRequest\r\n\r\n";
}

class OperationsTest : public TransportTest {
protected:
    void registerAs(std::string server, std::string client = "K", std::string locale = "") {
        Strings shared;
        TestTransport::expectExchange("<r/>");
        connection.registerClient(server, client, locale, shared);
        TestTransport::reset();
    }

    // True when the connection passes the registration precondition.
    bool registered() {
        TestTransport::reset();
        TestTransport::expectExchange("<r/>");
        Strings shared;
        try {
            connection.getSharedClients(shared);
        } catch (Exception* e) {
            delete e;
            return false;
        }
        TestTransport::reset();
        return true;
    }

    AvQVLConnection connection;
};

TEST_F(OperationsTest, RegisterSendsTheSevenLineHeaderAndAppends) {
    std::string server = "S", client = "K", locale = "L";
    Strings shared = {"X"};
    TestTransport::expectExchange(kSharedAB);
    connection.registerClient(server, client, locale, shared);
    EXPECT_EQ(TestTransport::headerBlocks(),
              Strings{"Client-ID=K\r\nLocale=L\r\nLog-Correlation-ID=AvQVLConnection."
                      "registerClient\r\nOperation-Name=registerClient\r\nServer-ID=S\r\n"
                      "Service-Name=AvQVLRequest\r\n\r\n"});
    EXPECT_EQ(TestTransport::bodies(), Strings{"AvQVL register client"});
    EXPECT_EQ(shared, (Strings{"X", "A", "B"}));
}

TEST_F(OperationsTest, FailedRegistrationStillRegisters) {
    std::string server = "S", client = "K", locale = "";
    Strings shared = {"X"};
    TestTransport::setLastError("refused", 0);
    TestTransport::pushResult("AvQvl_SendNoAck", -2998);
    Thrown thrown = thrownBy([&] { connection.registerClient(server, client, locale, shared); });
    EXPECT_EQ(thrown.kind, "AvQVLConnectionException");
    EXPECT_EQ(thrown.message, "refused");
    EXPECT_EQ(shared, Strings{"X"});
    EXPECT_TRUE(registered());

    // A malformed answer and an unexpected child pass through as DomException.
    for (const char* answer : {"<r", kUnexpectedChild}) {
        TestTransport::expectExchange(answer);
        EXPECT_EQ(thrownBy([&] { connection.registerClient(server, client, locale, shared); }).kind,
                  "DomException")
            << answer;
        EXPECT_EQ(shared, Strings{"X"});
    }
}

TEST_F(OperationsTest, UnregisterSendsIdentifiersAndClearsThem) {
    // Never registered: empty identifiers are still sent.
    Strings shared;
    TestTransport::expectExchange(kSharedC);
    connection.unregisterClient(shared);
    EXPECT_EQ(TestTransport::headerBlocks()[0],
              headerBlock("", "", "", "AvQVLConnection.unregisterClient", "unregisterClient"));
    EXPECT_EQ(TestTransport::bodies(), Strings{"AvQVL unregister client"});
    EXPECT_EQ(shared, Strings{"C"});

    registerAs("S", "K", "L");
    TestTransport::expectExchange(kSharedC);
    connection.unregisterClient(shared);
    EXPECT_EQ(shared, (Strings{"C", "C"}));
    EXPECT_FALSE(registered());

    // The locale stays.
    TestTransport::expectExchange("<r/>");
    connection.unregisterClient(shared);
    EXPECT_EQ(TestTransport::headerBlocks()[0],
              headerBlock("", "", "L", "AvQVLConnection.unregisterClient", "unregisterClient"));
}

TEST_F(OperationsTest, UnregisterClientFailureIsAPlainExceptionAndUnregisters) {
    registerAs("S");
    TestTransport::setLastError("runtime trouble", 0);
    scriptHandshake();
    TestTransport::pushResult("AvQvl_Receive", -3010);
    Strings shared = {"X"};
    bool caughtAsServiceFailure = false;
    Thrown thrown = thrownBy([&] {
        try {
            connection.unregisterClient(shared);
        } catch (const AvQVLException&) {
            caughtAsServiceFailure = true;
        }
    });
    EXPECT_FALSE(caughtAsServiceFailure);
    EXPECT_EQ(thrown.kind, "Exception");
    EXPECT_EQ(thrown.type, 0);
    EXPECT_EQ(thrown.message, "runtime trouble");
    EXPECT_EQ(shared, Strings{"X"});
    EXPECT_FALSE(registered());
}

TEST_F(OperationsTest, UnregisterDomFailureKeepsTheRegistration) {
    registerAs("S");
    TestTransport::expectExchange(kUnexpectedChild);
    Strings shared;
    Thrown thrown = thrownBy([&] { connection.unregisterClient(shared); });
    EXPECT_EQ(thrown.kind, "DomException");
    EXPECT_NE(thrown.message.find("other"), std::string::npos);
    EXPECT_TRUE(registered());
}

TEST_F(OperationsTest, GetSharedClientsThrowsAPointerWhenNotRegistered) {
    Strings shared = {"X"};
    bool caughtByReference = false;
    Exception* caught = nullptr;
    try {
        try {
            connection.getSharedClients(shared);
        } catch (const Exception&) {
            caughtByReference = true;
        }
    } catch (Exception* e) {
        caught = e;
    }
    EXPECT_FALSE(caughtByReference);
    ASSERT_NE(caught, nullptr);
    EXPECT_EQ(caught->getType(), -2);
    EXPECT_EQ(caught->getMessage(), "Client not Registered with Quorvel");
    delete caught;
    EXPECT_EQ(shared, Strings{"X"});
    EXPECT_TRUE(TestTransport::calls().empty());
}

TEST_F(OperationsTest, GetSharedClientsAppendsAndKeepsTheVectorOnFailure) {
    registerAs("S", "K");
    Strings shared = {"X"};
    TestTransport::expectExchange(kSharedAB);
    TestTransport::expectExchange(kSharedAB);
    connection.getSharedClients(shared);
    connection.getSharedClients(shared);
    EXPECT_EQ(shared, (Strings{"X", "A", "B", "A", "B"}));
    EXPECT_EQ(TestTransport::headerBlocks()[0],
              headerBlock("S", "K", "", "AvQVLConnection.getSharedClients", "getSharedClients"));
    EXPECT_EQ(TestTransport::bodies()[0], "AvQVL getClients Operation");

    TestTransport::expectExchange(kUnexpectedChild);
    EXPECT_EQ(thrownBy([&] { connection.getSharedClients(shared); }).kind, "DomException");
    EXPECT_EQ(shared.size(), 5u);
}

TEST_F(OperationsTest, EventOperationsRequireRegistrationAndChangeNothing) {
    std::string events = "old", correlation = "c";
    Strings shared = {"X"};
    for (bool put : {false, true}) {
        Thrown thrown = thrownBy([&] {
            put ? connection.putEvents(events, shared, correlation)
                : connection.getEvents(events, shared, correlation);
        });
        EXPECT_EQ(thrown.kind, "AvQVLProtocolException") << put;
        EXPECT_EQ(thrown.type, -2) << put;
        EXPECT_EQ(thrown.message, "Client not Registered with Quorvel") << put;
    }
    EXPECT_EQ(events, "old");
    EXPECT_EQ(shared, Strings{"X"});
    EXPECT_TRUE(TestTransport::calls().empty());
}

TEST_F(OperationsTest, GetEventsRunsTwoExchangesAndReplacesBothResults) {
    registerAs("S", "K", "L");
    std::string events = "old events", correlation = "my-id";
    Strings shared = {"X"};
    TestTransport::expectExchange("<events>raw, not parsed</events>");
    TestTransport::expectExchange(kSharedC);
    connection.getEvents(events, shared, correlation);
    EXPECT_EQ(events, "<events>raw, not parsed</events>");
    EXPECT_EQ(shared, Strings{"C"});
    EXPECT_EQ(TestTransport::headerBlocks(),
              (Strings{headerBlock("S", "K", "L", "my-id", "getEvents"),
                       headerBlock("S", "K", "L", "AvQVLConnection.getSharedClients",
                                   "getSharedClients")}));
    EXPECT_EQ(TestTransport::bodies(),
              (Strings{"Get Events Request", "AvQVL getClients Operation"}));
    // The first exchange is complete before the second starts.
    Strings functions = TestTransport::functions();
    EXPECT_EQ(functions[8], "AvQvl_Complete");
    EXPECT_EQ(functions[9], "AvQvl_SendNoAck");
}

TEST_F(OperationsTest, GetEventsEmptyResponseAndEmptyCorrelation) {
    registerAs("S");
    std::string events = "old", correlation = "";
    Strings shared = {"X"};
    TestTransport::expectExchange("");
    TestTransport::expectExchange("<r/>");
    connection.getEvents(events, shared, correlation);
    EXPECT_EQ(events, "");
    EXPECT_TRUE(shared.empty());
    EXPECT_NE(TestTransport::headerBlocks()[0].find("\r\nLog-Correlation-ID=\r\n"),
              std::string::npos);
}

TEST_F(OperationsTest, GetEventsFailures) {
    registerAs("S");
    std::string events = "old", correlation = "c";
    Strings shared = {"X"};

    // The first exchange fails: nothing changes.
    TestTransport::pushResult("AvQvl_SendNoAck", -3017);
    EXPECT_EQ(thrownBy([&] { connection.getEvents(events, shared, correlation); }).kind,
              "AvQVLProtocolException");
    EXPECT_EQ(events, "old");
    EXPECT_EQ(shared, Strings{"X"});

    // The second fails: the events arrived, the vector stays emptied.
    TestTransport::reset();
    TestTransport::expectExchange("new");
    TestTransport::expectExchange(kUnexpectedChild);
    EXPECT_EQ(thrownBy([&] { connection.getEvents(events, shared, correlation); }).kind,
              "DomException");
    EXPECT_EQ(events, "new");
    EXPECT_TRUE(shared.empty());
}

TEST_F(OperationsTest, PutEventsSendsTheTextAndAppends) {
    registerAs("S", "K");
    std::string events = "<e>1</e>", correlation = "put-1";
    Strings shared = {"X"};
    TestTransport::expectExchange(kSharedAB);
    connection.putEvents(events, shared, correlation);
    EXPECT_EQ(events, "<e>1</e>");
    EXPECT_EQ(shared, (Strings{"X", "A", "B"}));
    EXPECT_EQ(TestTransport::headerBlocks()[0], headerBlock("S", "K", "", "put-1", "putEvents"));
    EXPECT_EQ(TestTransport::bodies(), Strings{"<e>1</e>"});

    TestTransport::expectExchange("<r");
    EXPECT_EQ(thrownBy([&] { connection.putEvents(events, shared, correlation); }).kind,
              "DomException");
    EXPECT_EQ(shared.size(), 3u);
}

TEST_F(OperationsTest, PutEventsBodyChunksEndWithTheNulByte) {
    registerAs("S");
    std::string correlation = "c";
    Strings shared;
    struct Row {
        size_t length;
        std::vector<size_t> chunks;  // lengths the transport receives
    };
    // The NUL after the text is the last byte of the body buffer: an empty
    // text is one NUL, and a text of exactly 4098 bytes puts it alone in a
    // second chunk.
    for (const Row& row : {Row{0, {0}}, Row{4098, {4098, 0}}, Row{5000, {4098, 902}}}) {
        std::string events;
        for (size_t i = 0; i < row.length; ++i) {
            events += static_cast<char>('a' + i % 26);
        }
        TestTransport::reset();
        TestTransport::expectExchange("<r/>");
        connection.putEvents(events, shared, correlation);
        std::vector<size_t> chunks;
        for (const TransportCall& call : TestTransport::calls()) {
            if (call.function == "AvQvl_SendNoAck") {
                chunks.push_back(call.text.size());
            }
        }
        chunks.erase(chunks.begin());  // the header block
        EXPECT_EQ(chunks, row.chunks) << row.length;
        EXPECT_EQ(TestTransport::bodies()[0], events) << row.length;
    }
}

}  // namespace
