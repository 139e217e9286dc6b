// Responses a hostile or broken service could send, through the public
// operations over the scripted test transport: an endless stream, invalid UTF-8,
// NUL bytes, documents that reach for files or expand without end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "transport/testing/TestTransport.h"
#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::AvQVLRuntimeException;
using Arvant::Net::AvQuorvel::Testing::TestTransport;
using Arvant::Net::AvQuorvel::Util::DomException;

namespace {

using Ids = std::vector<std::string>;

const char* const kUri = "http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base";

std::string sharedClientDocument(const std::string& ids) {
    return std::string("<ns0:sharedClientIDs xmlns:ns0=\"") + kUri + "\">" + ids +
           "</ns0:sharedClientIDs>";
}

std::string item(const std::string& id) {
    return "<ns0:sharedClients>" + id + "</ns0:sharedClients>";
}

void scriptHandshake() {
    TestTransport::pushResult("AvQvl_SendNoAck", 0);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 19);
    TestTransport::pushResult("AvQvl_SendNoAck", 1);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 20);
}

class HostileResponseTest : public ::testing::Test {
protected:
    void SetUp() override { TestTransport::reset(); }

    // Registers with the given response; the connection counts as registered
    // afterwards whatever the response did.
    Ids registerWith(const std::string& response) {
        TestTransport::expectExchange(response);
        std::string server = "S", client = "C", locale;
        Ids shared;
        connection.registerClient(server, client, locale, shared);
        return shared;
    }

    AvQVLConnection connection;
};

// A transport that never ends the response: 16384 bytes per receive. The
// collection buffer grows to the 32-bit limit, so this allocates and copies
// about 3 GiB once; it takes a second or two and shows the limit is reached
// cleanly, not just computed (the guard alone is also tested in tests/client).
TEST_F(HostileResponseTest, EndlessResponseEndsBeforeAnyCounterOverflows) {
    scriptHandshake();
    const int pieces = 131072;  // 131072 * 16384 bytes = 2 GiB, one byte past the limit
    for (int i = 0; i < pieces; ++i) {
        TestTransport::pushResult("AvQvl_Receive", 16384);
    }
    const auto start = std::chrono::steady_clock::now();
    std::string server = "S", client = "C", locale;
    Ids shared;
    try {
        connection.registerClient(server, client, locale, shared);
        FAIL() << "an endless response was accepted";
    } catch (const AvQVLRuntimeException& e) {
        EXPECT_EQ(e.getMessage(), "Response exceeds the maximum size of 2147483647 bytes");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(120));
    EXPECT_TRUE(TestTransport::scriptDone());  // every piece up to the limit was taken
    const auto functions = TestTransport::functions();
    EXPECT_EQ(std::count(functions.begin(), functions.end(), "AvQvl_Complete"), 0);
}

// Malformed UTF-8 follows the conversion's rules: ICU's default substitution
// turns each malformed sequence into U+FFFD, which reaches the application. A
// NUL byte ends the text the conversion delivers; the parser stops there anyway.
TEST_F(HostileResponseTest, InvalidUtf8AndNulBytesFollowTheConversionRules) {
    const std::string fffd = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> identifiers[] = {// sent, received
                                                               {"a\xFF"
                                                                "b",
                                                                "a" + fffd + "b"},
                                                               {"\xC3", fffd},
                                                               {"\xED\xA0\x80", fffd + fffd + fffd},
                                                               {"\xC0\xAF", fffd + fffd},
                                                               {"ok\xC3\xA9", "ok\xC3\xA9"}};
    for (const auto& c : identifiers) {
        TestTransport::reset();
        EXPECT_EQ(registerWith(sharedClientDocument(item(c.first))), Ids{c.second}) << c.first;
    }
    TestTransport::reset();
    EXPECT_EQ(registerWith(sharedClientDocument(item("A")) + std::string("\0junk", 5)), Ids{"A"});
    TestTransport::reset();
    EXPECT_THROW(registerWith(sharedClientDocument(item(std::string("A\0B", 3)))), DomException);

    // getEvents hands the text over raw.
    const std::pair<std::string, std::string> events[] = {{"ev\xFF", "ev" + fffd},
                                                          {std::string("ab\0cd", 5), "ab"}};
    for (const auto& c : events) {
        TestTransport::reset();
        TestTransport::expectExchange(c.first);
        TestTransport::expectExchange(sharedClientDocument(""));
        std::string received, correlation = "x";
        Ids shared;
        connection.getEvents(received, shared, correlation);
        EXPECT_EQ(received, c.second);
    }
}

// The parser's refusals are tested in full with the hostile documents; this
// shows a response goes through the same hardened reader.
TEST_F(HostileResponseTest, ExternalEntityInAResponseEndsInDomException) {
    const std::string secret = "/tmp/hardening_response_" + std::to_string(getpid());
    std::ofstream(secret) << "leaked";
    EXPECT_THROW(registerWith("<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + secret + "\">]>" +
                              sharedClientDocument(item("&x;"))),
                 DomException);
    std::remove(secret.c_str());
}

}  // namespace
