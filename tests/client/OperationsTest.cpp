// The five service operations: headers, bodies, preconditions, results and
// every failure path.
#include <gtest/gtest.h>

#include <functional>
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

// Each operation's header block and body; the shared clients of the answer
// are appended, and a malformed answer or an unexpected child passes through
// as DomException leaving the vector alone.
TEST_F(OperationsTest, OperationsSendTheirHeaderAndBodyAndAppend) {
    std::string server = "S", client = "K", locale = "L", events = "<e>1</e>";
    const std::string registration =
        "Client-ID=K\r\nLocale=L\r\nLog-Correlation-ID=AvQVLConnection.registerClient\r\n"
        "Operation-Name=registerClient\r\nServer-ID=S\r\nService-Name=AvQVLRequest\r\n\r\n";
    struct Row {
        const char* name;
        std::function<void(Strings&)> call;
        std::string header;
        std::string body;
    };
    const Row rows[] = {
        // Never registered: empty identifiers are still sent.
        {"unregisterClient", [&](Strings& s) { connection.unregisterClient(s); },
         headerBlock("", "", "", "AvQVLConnection.unregisterClient", "unregisterClient"),
         "AvQVL unregister client"},
        {"registerClient",
         [&](Strings& s) { connection.registerClient(server, client, locale, s); }, registration,
         "AvQVL register client"},
        {"getSharedClients", [&](Strings& s) { connection.getSharedClients(s); },
         headerBlock("S", "K", "L", "AvQVLConnection.getSharedClients", "getSharedClients"),
         "AvQVL getClients Operation"},
        {"putEvents",
         [&](Strings& s) {
             std::string correlation = "put-1";
             connection.putEvents(events, s, correlation);
         },
         headerBlock("S", "K", "L", "put-1", "putEvents"), "<e>1</e>"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TestTransport::reset();
        Strings shared = {"X"};
        TestTransport::expectExchange(kSharedAB);
        row.call(shared);
        EXPECT_EQ(TestTransport::headerBlocks(), Strings{row.header});
        EXPECT_EQ(TestTransport::bodies(), Strings{row.body});
        EXPECT_EQ(shared, (Strings{"X", "A", "B"}));
        for (const char* answer : {"<r", kUnexpectedChild}) {
            TestTransport::expectExchange(answer);
            EXPECT_EQ(thrownBy([&] { row.call(shared); }).kind, "DomException") << answer;
            EXPECT_EQ(shared.size(), 3u);
        }
    }
    EXPECT_EQ(events, "<e>1</e>");
}

TEST_F(OperationsTest, FailedRegistrationStillRegisters) {
    std::string server = "S", client = "K", locale = "";
    Strings shared = {"X"};
    TestTransport::setLastError("refused", 0);
    TestTransport::pushResult(kSend, -2998);
    Thrown thrown = thrownBy([&] { connection.registerClient(server, client, locale, shared); });
    EXPECT_EQ(thrown.kind, "AvQVLConnectionException");
    EXPECT_EQ(thrown.message, "refused");
    EXPECT_EQ(shared, Strings{"X"});
    EXPECT_TRUE(registered());
}

TEST_F(OperationsTest, UnregisterClearsTheIdentifiersUnlessTheAnswerIsMalformed) {
    Strings shared;
    registerAs("S", "K", "L");
    TestTransport::expectExchange(kSharedC);
    connection.unregisterClient(shared);
    EXPECT_EQ(shared, Strings{"C"});
    EXPECT_FALSE(registered());
    // The locale stays.
    TestTransport::expectExchange("<r/>");
    connection.unregisterClient(shared);
    EXPECT_EQ(TestTransport::headerBlocks()[0],
              headerBlock("", "", "L", "AvQVLConnection.unregisterClient", "unregisterClient"));

    // A DomException passes through and keeps the registration.
    registerAs("S");
    TestTransport::expectExchange(kUnexpectedChild);
    Thrown thrown = thrownBy([&] { connection.unregisterClient(shared); });
    EXPECT_EQ(thrown.kind, "DomException");
    EXPECT_NE(thrown.message.find("other"), std::string::npos);
    EXPECT_TRUE(registered());

    // A failure of the client hierarchy becomes a plain Exception, and unregisters.
    TestTransport::setLastError("runtime trouble", 0);
    scriptHandshake();
    TestTransport::pushResult(kReceive, -3010);
    bool caughtAsServiceFailure = false;
    thrown = thrownBy([&] {
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
    EXPECT_EQ(shared, Strings{"C"});
    EXPECT_FALSE(registered());
}

TEST_F(OperationsTest, PreconditionsWhenNotRegistered) {
    // getSharedClients throws a pointer, not caught by reference.
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

    // The event operations throw by value.
    std::string events = "old", correlation = "c";
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
    EXPECT_EQ(functions[9], kSend);
}

TEST_F(OperationsTest, GetEventsEdgeCasesAndFailures) {
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

    // The first exchange fails: nothing changes.
    events = "old";
    shared = {"X"};
    TestTransport::reset();
    TestTransport::pushResult(kSend, -3017);
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

// The NUL after the text is the last byte of the body buffer: an empty text
// is one NUL, and a text of exactly 4098 bytes puts it alone in a second chunk.
TEST_F(OperationsTest, PutEventsBodyChunksEndWithTheNulByte) {
    registerAs("S");
    std::string correlation = "c";
    Strings shared;
    const std::pair<size_t, std::vector<size_t>> rows[] = {
        {0, {0}}, {4098, {4098, 0}}, {5000, {4098, 902}}};
    for (const auto& row : rows) {
        std::string events;
        for (size_t i = 0; i < row.first; ++i) {
            events += static_cast<char>('a' + i % 26);
        }
        TestTransport::reset();
        TestTransport::expectExchange("<r/>");
        connection.putEvents(events, shared, correlation);
        std::vector<size_t> chunks;
        for (const std::string& text : sentTexts()) {
            chunks.push_back(text.size());
        }
        chunks.erase(chunks.begin());  // the header block
        EXPECT_EQ(chunks, row.second) << row.first;
        EXPECT_EQ(TestTransport::bodies()[0], events) << row.first;
    }
}

}  // namespace
