// AvQVLConnection over the test transport: lifecycle, status check and the five
// service operations, with their header blocks, bodies, results and failures.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "ClientTestSupport.h"
#include "client/AvQVLConnection.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace ClientTest;

namespace {

const char* const kStatus = "AvQVL Status check";
const std::string kStatusHeader =
    "Log-Correlation-ID=AvQVLConnection.getStatus\r\nOperation-Name=getStatus\r\n"
    "Service-Name=AvQVLRequest\r\n\r\n";
const char* const kSharedAB =
    "<r xmlns=\"urn:x\"><sharedClients>A</sharedClients><sharedClients>B</sharedClients></r>";
const char* const kSharedC = "<r xmlns=\"urn:x\"><sharedClients>C</sharedClients></r>";
const char* const kUnexpectedChild = "<r xmlns=\"urn:x\"><other>A</other></r>";

// The header block of an operation that sends the client identifiers; last:
// lines that sort after the others.
std::string idBlock(const std::string& server, const std::string& client, const std::string& locale,
                    const std::string& correlation, const std::string& operation,
                    const std::string& last = "") {
    return "Client-ID=" + client + "\r\n" + (locale.empty() ? "" : "Locale=" + locale + "\r\n") +
           "Log-Correlation-ID=" + correlation + "\r\nOperation-Name=" + operation +
           "\r\nServer-ID=" + server + "\r\nService-Name=AvQVLRequest\r\n" + last + "\r\n";
}

class ConnectionTest : public TransportTest {
protected:
    void registerAs(AvQVLConnection& target, std::string locale = "") {
        std::string server = "S", client = "K";
        Strings shared;
        TestTransport::expectExchange("<r/>");
        target.registerClient(server, client, locale, shared);
        TestTransport::reset();
    }

    // Whether the precondition passes (the call then fails at the empty script),
    // asked of a copy, which shares the registration.
    bool registered() {
        Strings shared;
        AvQVLConnection copy(connection);
        const std::string thrown = thrownBy([&] { copy.getSharedClients(shared); });
        TestTransport::reset();
        return thrown != "AvQVLProtocolException*(-2): Client not Registered with Quorvel";
    }

    AvQVLConnection connection;
    std::string events = "old", correlation = "c";
};

// The status check sends no identifiers, registered or not (the locale it
// carries is seen below), and every failure of its own, a failed start retried
// included, is one connection exception.
TEST_F(ConnectionTest, StatusIsZeroOnlyForAnExactEchoAndFailsAsOneException) {
    for (const char* steps : {"I-2999", "S-3099"}) {
        script(steps);
        EXPECT_EQ(thrownBy([&] { connection.getStatus(); }),
                  "AvQVLConnectionException(-1): AvQVL Connection failed");
    }
    EXPECT_EQ(countCalls("AvQvl_Init"), 2);
    for (const char* answer : {kStatus, "AvQVL Status check\r\n", "avqvl status check"}) {
        TestTransport::reset();
        TestTransport::expectExchange(answer);
        EXPECT_EQ(connection.getStatus(), answer == kStatus ? 0 : -2) << answer;
        EXPECT_EQ(TestTransport::headerBlocks(), Strings{kStatusHeader});
        EXPECT_EQ(TestTransport::bodies(), Strings{kStatus});
    }
}

// Each operation's header block and body. The body buffer holds the text and a
// NUL byte, so a text of n bytes goes out in n / 4098 + 1 chunks. The shared clients of the answer
// are appended, and a malformed answer or an unexpected child passes through as DomException
// leaving the vector alone.
TEST_F(ConnectionTest, OperationsSendTheirHeaderAndBodyAndAppend) {
    std::string server = "S", client = "K", locale = "L", big = pattern(2 * 4098);
    const std::string putHeader = idBlock("S", "K", "L", "c", "putEvents");
    const struct {
        std::function<void(Strings&)> call;
        std::string header, body;
    } rows[] = {
        // Never registered: empty identifiers are still sent.
        {[&](Strings& s) { connection.unregisterClient(s); },
         idBlock("", "", "", "AvQVLConnection.unregisterClient", "unregisterClient"),
         "AvQVL unregister client"},
        {[&](Strings& s) { connection.registerClient(server, client, locale, s); },
         idBlock("S", "K", "L", "AvQVLConnection.registerClient", "registerClient"),
         "AvQVL register client"},
        {[&](Strings& s) { connection.getSharedClients(s); },
         idBlock("S", "K", "L", "AvQVLConnection.getSharedClients", "getSharedClients"),
         "AvQVL getClients Operation"},
        {[&](Strings& s) { connection.putEvents(events, s, correlation); }, putHeader, "old"},
        {[&](Strings& s) { connection.putEvents(big, s, correlation); }, putHeader, big},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body.substr(0, 30));
        TestTransport::reset();
        Strings shared = {"X"};
        TestTransport::expectExchange(kSharedAB);
        row.call(shared);
        EXPECT_EQ(TestTransport::headerBlocks(), Strings{row.header});
        EXPECT_EQ(TestTransport::bodies(), Strings{row.body});
        EXPECT_EQ(countCalls("AvQvl_SendNoAck"), 2 + row.body.size() / 4098);
        EXPECT_EQ(shared, (Strings{"X", "A", "B"}));
        for (const char* answer : {"<r", kUnexpectedChild}) {
            TestTransport::expectExchange(answer);
            EXPECT_EQ(thrownBy([&] { row.call(shared); }).rfind("DomException: ", 0), 0u);
            EXPECT_EQ(shared.size(), 3u);
        }
    }
    EXPECT_EQ(events, "old");
}

// A thread reuses the identifiers of an answer the same as its last: an answer
// of the same length with other bytes, or one that failed to read, is read anew.
TEST_F(ConnectionTest, RepeatedSharedClientAnswersReadAsTheFirstDid) {
    const char* const kSharedD = "<r xmlns=\"urn:x\"><sharedClients>D</sharedClients></r>";
    const std::pair<const char*, Strings> rows[] = {
        {kSharedAB, {"A", "B"}}, {kSharedAB, {"A", "B"}}, {kSharedC, {"C"}}, {kSharedD, {"D"}},
        {kUnexpectedChild, {}},  {kUnexpectedChild, {}},  {kSharedD, {"D"}}};
    std::string server = "S", client = "K", locale;
    for (const auto& row : rows) {
        Strings shared;
        TestTransport::expectExchange(row.first);
        const std::string thrown =
            thrownBy([&] { connection.registerClient(server, client, locale, shared); });
        EXPECT_EQ(thrown, row.second.empty() ? "DomException: Unexpected node name: other" : "none")
            << row.first;
        EXPECT_EQ(shared, row.second) << row.first;
    }
}

// (getSharedClients, which throws a pointer no handler by reference catches,
// is asked in registered().)
TEST_F(ConnectionTest, PreconditionsWhenNotRegisteredSendNothing) {
    Strings shared = {"X"};
    const std::string refused = "AvQVLProtocolException(-2): Client not Registered with Quorvel";
    EXPECT_EQ(thrownBy([&] { connection.getEvents(events, shared, correlation); }), refused);
    EXPECT_EQ(thrownBy([&] { connection.putEvents(events, shared, correlation); }), refused);
    EXPECT_EQ(events, "old");
    EXPECT_EQ(shared, Strings{"X"});
    EXPECT_TRUE(TestTransport::calls().empty());
}

// A failed registration still registers; unregistering clears the identifiers,
// not the locale, unless the answer is malformed.
TEST_F(ConnectionTest, RegistrationStateThroughFailures) {
    std::string server = "S", client = "K", locale = "L";
    Strings shared = {"X"};
    script("S-2998");
    EXPECT_EQ(thrownBy([&] { connection.registerClient(server, client, locale, shared); }),
              "AvQVLConnectionException(0): No error message received");
    EXPECT_EQ(shared, Strings{"X"});
    EXPECT_TRUE(registered());
    TestTransport::expectExchange(kSharedC);
    connection.unregisterClient(shared);
    EXPECT_EQ(shared, (Strings{"X", "C"}));
    EXPECT_FALSE(registered());
    TestTransport::expectExchange(kStatus);  // the locale stays
    connection.getStatus();
    EXPECT_EQ(TestTransport::headerBlocks()[0], "Locale=L\r\n" + kStatusHeader);

    registerAs(connection);  // with no locale, so the status check carries none
    TestTransport::expectExchange(kStatus);
    connection.getStatus();
    EXPECT_EQ(TestTransport::headerBlocks()[0], kStatusHeader);
    TestTransport::expectExchange(kUnexpectedChild);
    EXPECT_EQ(thrownBy([&] { connection.unregisterClient(shared); }),
              "DomException: Unexpected node name: other");
    EXPECT_TRUE(registered());

    // The exact class is Exception: a handler for AvQVLException does not catch it.
    TestTransport::setLastError("runtime trouble", 0);
    script(kHandshake + std::string("R-3010"));
    EXPECT_EQ(thrownBy([&] { connection.unregisterClient(shared); }),
              "Exception(0): runtime trouble");
    EXPECT_EQ(shared, (Strings{"X", "C"}));
    EXPECT_FALSE(registered());
}

// waitForEvents is getEvents with the wait in one more field of the fetch (cut
// to what the field carries); the listing of the shared clients never waits.
TEST_F(ConnectionTest, GetEventsRunsTwoExchangesAndReplacesBothResults) {
    using std::chrono::milliseconds;
    registerAs(connection);
    correlation = "";  // sent as an empty value
    const std::pair<milliseconds, std::string> rows[] = {{milliseconds(0), ""},
                                                         {milliseconds(1500), "1500"},
                                                         {std::chrono::hours(1000), "2147483647"}};
    for (const auto& row : rows) {
        TestTransport::reset();
        Strings shared = {"X"};
        TestTransport::expectExchange("<events>raw</events>");
        TestTransport::expectExchange(kSharedC);
        row.second.empty() ? connection.getEvents(events, shared, correlation)
                           : connection.waitForEvents(events, shared, correlation, row.first);
        EXPECT_EQ(events, "<events>raw</events>");
        EXPECT_EQ(shared, Strings{"C"});
        const std::string wait =
            row.second.empty() ? "" : "Wait-Milliseconds=" + row.second + "\r\n";
        EXPECT_EQ(TestTransport::headerBlocks(),
                  (Strings{idBlock("S", "K", "", "", "getEvents", wait),
                           idBlock("S", "K", "", "AvQVLConnection.getSharedClients",
                                   "getSharedClients")}));
        EXPECT_EQ(TestTransport::bodies(),
                  (Strings{"Get Events Request", "AvQVL getClients Operation"}));
        EXPECT_EQ(TestTransport::functions()[8], "AvQvl_Complete");  // the first ends first
    }
    TestTransport::reset();
    Strings shared = {"X"};
    EXPECT_EQ(
        thrownBy([&] { connection.waitForEvents(events, shared, correlation, milliseconds(-1)); }),
        "AvQVLRuntimeException(0): waitForEvents needs a wait of zero or more "
        "milliseconds, not -1.");
    EXPECT_TRUE(TestTransport::calls().empty());

    // The first exchange fails: nothing changes. The second fails: the events
    // have arrived and the vector stays emptied.
    events = "old";
    shared = {"X"};
    script("S-3017");
    EXPECT_EQ(thrownBy([&] { connection.getEvents(events, shared, correlation); }),
              "AvQVLProtocolException(0): No error message received");
    EXPECT_EQ(events, "old");
    EXPECT_EQ(shared, Strings{"X"});
    TestTransport::expectExchange("new");
    TestTransport::expectExchange(kUnexpectedChild);
    EXPECT_EQ(thrownBy([&] { connection.getEvents(events, shared, correlation); }),
              "DomException: Unexpected node name: other");
    EXPECT_EQ(events, "new");
    EXPECT_TRUE(shared.empty());
}

}  // namespace
