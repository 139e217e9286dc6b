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
    std::string server = "S", client = "C", locale;
    Ids shared;
    const auto start = std::chrono::steady_clock::now();
    try {
        connection.registerClient(server, client, locale, shared);
        FAIL() << "an endless response was accepted";
    } catch (const AvQVLRuntimeException& e) {
        EXPECT_EQ(e.getMessage(), "Response exceeds the maximum size of 2147483647 bytes");
    }
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
              120.0);
    EXPECT_TRUE(TestTransport::scriptDone());  // every piece up to the limit was taken
    EXPECT_TRUE(shared.empty());
    const auto functions = TestTransport::functions();
    EXPECT_EQ(std::count(functions.begin(), functions.end(), "AvQvl_Complete"), 0);
}

// Malformed UTF-8 follows the conversion's rules: ICU's default substitution
// turns each malformed sequence into U+FFFD, which reaches the application.
TEST_F(HostileResponseTest, InvalidUtf8IsSubstitutedNotFatal) {
    const std::string replacement = "\xEF\xBF\xBD";
    struct Case {
        std::string id;        // as sent
        std::string expected;  // as received
    };
    const Case cases[] = {
        {"a\xFF"
         "b",
         "a" + replacement + "b"},
        {"\xC3", replacement},                                      // truncated sequence
        {"\xED\xA0\x80", replacement + replacement + replacement},  // a surrogate
        {"\xC0\xAF", replacement + replacement},                    // overlong "/"
        {"ok\xC3\xA9", "ok\xC3\xA9"},
    };
    for (const Case& c : cases) {
        TestTransport::reset();
        EXPECT_EQ(registerWith(sharedClientDocument(item(c.id))), Ids{c.expected}) << c.id;
    }

    // getEvents hands the text over raw.
    TestTransport::reset();
    TestTransport::expectExchange("ev\xFF");
    TestTransport::expectExchange(sharedClientDocument(""));
    std::string events, correlation = "x";
    Ids shared;
    connection.getEvents(events, shared, correlation);
    EXPECT_EQ(events, "ev" + replacement);
}

// A NUL byte ends the text the conversion delivers in that pass; the parser
// reads up to the first NUL byte anyway.
TEST_F(HostileResponseTest, NulByteInTheMiddleCutsTheResponse) {
    EXPECT_EQ(registerWith(sharedClientDocument(item("A")) + std::string("\0junk", 5)), Ids{"A"});

    TestTransport::reset();
    EXPECT_THROW(registerWith(sharedClientDocument(item(std::string("A\0B", 3)))), DomException);

    TestTransport::reset();
    TestTransport::expectExchange(std::string("ab\0cd", 5));
    TestTransport::expectExchange(sharedClientDocument(""));
    std::string events, correlation = "x";
    Ids shared;
    connection.getEvents(events, shared, correlation);
    EXPECT_EQ(events, "ab");
}

TEST_F(HostileResponseTest, DocumentsReachingOutsideOrExpandingEndInDomException) {
    const std::string secret = "/tmp/hardening_response_" + std::to_string(getpid());
    std::ofstream(secret) << "leaked";
    std::string bomb = "<!DOCTYPE r [<!ENTITY e0 \"lol\">";
    for (int level = 1; level < 10; ++level) {
        bomb += "<!ENTITY e" + std::to_string(level) + " \"";
        for (int i = 0; i < 10; ++i) {
            bomb += "&e" + std::to_string(level - 1) + ";";
        }
        bomb += "\">";
    }
    const std::string cases[] = {
        "<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + secret + "\">]>" +
            sharedClientDocument(item("&x;")),
        "<!DOCTYPE r SYSTEM \"" + secret + "\">" + sharedClientDocument(""),
        bomb + "]>" + sharedClientDocument(item("&e9;")),
    };
    for (const std::string& response : cases) {
        TestTransport::reset();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_THROW(registerWith(response), DomException) << response.substr(0, 60);
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                  5.0);
    }
    std::remove(secret.c_str());
}

}  // namespace
