// What each public entry point does with hostile or absurd arguments. Header
// values and bodies go to the transport unchanged (never escaped), each text cut
// at its first NUL byte; identifiers of any length are sent whole.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "transport/testing/TestTransport.h"
#include "util/Utf8.h"
#include "util/XmlText.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace Arvant::Net::AvQuorvel::Util;
using Arvant::Net::AvQuorvel::Testing::TestTransport;

namespace {

using Ids = std::vector<std::string>;

const std::string kEmptyList =
    "<ns0:sharedClientIDs "
    "xmlns:ns0=\"http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base\"/>";
const std::string kMiB(1 << 20, 'x');

class BadArgumentTest : public ::testing::Test {
protected:
    void SetUp() override { TestTransport::reset(); }
};

// CR LF goes out raw (it splits the line), a NUL byte ends the value, an empty
// locale is left out, "null" goes out as no value, 1 MiB goes out whole.
TEST_F(BadArgumentTest, RegistrationSendsHostileValuesUnchanged) {
    const struct {
        std::string server, client, locale;  // given
        std::string sentServer, sentClient, sentLocale;
    } cases[] = {
        {"S\r\nInjected=1", "C", "", "S\r\nInjected=1", "C", ""},
        {"S", "C\nD", "", "S", "C\nD", ""},
        {std::string("S\0hidden", 8), "C", std::string("de\0x", 4), "S", "C", "de"},
        {"", "", "", "", "", ""},
        {"null", "C", "null", "", "C", ""},
        {kMiB, kMiB, kMiB, kMiB, kMiB, kMiB},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.server.substr(0, 20) + "/" + c.client.substr(0, 20));
        TestTransport::reset();
        TestTransport::expectExchange(kEmptyList);
        AvQVLConnection connection;
        std::string server = c.server, client = c.client, locale = c.locale;
        Ids shared;
        connection.registerClient(server, client, locale, shared);
        EXPECT_EQ(TestTransport::headerBlocks(),
                  Ids{"Client-ID=" + c.sentClient + "\r\n" +
                      (!c.locale.empty() ? "Locale=" + c.sentLocale + "\r\n" : "") +
                      "Log-Correlation-ID=AvQVLConnection.registerClient\r\nOperation-Name="
                      "registerClient\r\nServer-ID=" +
                      c.sentServer + "\r\nService-Name=AvQVLRequest\r\n\r\n"});
        EXPECT_EQ(shared, Ids{});
    }
}

TEST_F(BadArgumentTest, EventTextsReachTheTransportUpToTheirFirstNul) {
    struct Case {
        const char* what;
        std::string events;
        std::string body;  // what the transport receives
    };
    const Case cases[] = {
        {"empty", "", ""},
        {"NUL in the middle", std::string("before\0after", 12), "before"},
        {"leading NUL", std::string("\0after", 6), ""},
        {"1 MiB", kMiB, kMiB},
        {"CR LF and markup", "a\r\n<b>&amp;", "a\r\n<b>&amp;"},
    };
    for (const Case& c : cases) {
        TestTransport::reset();
        TestTransport::expectExchange(kEmptyList);
        TestTransport::expectExchange(kEmptyList);
        AvQVLConnection connection;
        std::string server = "S", client = "C", locale, events = c.events, correlation = "c";
        Ids shared;
        connection.registerClient(server, client, locale, shared);
        connection.putEvents(events, shared, correlation);
        const auto bodies = TestTransport::bodies();
        ASSERT_EQ(bodies.size(), 2u) << c.what;
        EXPECT_EQ(bodies[1], c.body) << c.what;
        EXPECT_EQ(events, c.events) << c.what;  // the caller's text is left alone
    }
}

// getSharedClients throws its refusal as a pointer; the others by value.
TEST_F(BadArgumentTest, UnregisteredOperationsSendNothing) {
    AvQVLConnection connection;
    std::string events = "e", correlation = "c";
    Ids shared{"kept"};
    EXPECT_THROW(connection.putEvents(events, shared, correlation), AvQVLProtocolException);
    EXPECT_THROW(connection.getEvents(events, shared, correlation), AvQVLProtocolException);
    try {
        connection.getSharedClients(shared);
        ADD_FAILURE() << "no pointer thrown";
    } catch (AvQVLProtocolException* e) {
        EXPECT_EQ(e->getType(), -2);
        delete e;
    }
    EXPECT_TRUE(TestTransport::calls().empty());
    EXPECT_EQ(events, "e");
    EXPECT_EQ(shared, Ids{"kept"});
}

TEST_F(BadArgumentTest, TextHelpersTakeAnyBytes) {
    EXPECT_THROW(toUtf8(nullptr, 5), Utf8ConversionException);
    EXPECT_THROW(fromUtf8("abc", INT32_MIN), Utf8ConversionException);
    EXPECT_EQ(toUtf8(kMiB.data(), static_cast<int32_t>(kMiB.size())), kMiB);
    const std::string withNul("a\0<b>\0", 6);
    EXPECT_EQ(escapeXml(withNul), std::string("a\0&lt;b&gt;\0", 12));
    EXPECT_EQ(unescapeXml(escapeXml(withNul)), withNul);
    EXPECT_EQ(unescapeXml(escapeXml(kMiB + "&")), kMiB + "&");
    EXPECT_EQ(escapeXml(""), "");
    EXPECT_EQ(unescapeXml("&"), "&");

    struct Probe {
        std::string xml, name;
    };
    const Probe probes[] = {
        {"", ""},
        {"<", "^"},
        {"<?xml", "urn:x^a"},
        {"<r ", "urn:x^"},
        {"xmlns=\"", "^a"},
        {"<a xmlns:p=\"urn:x", "urn:x^b"},
        {"urn:x", "urn:x^b"},
        {std::string(5, '\0'), "\0"},
    };
    for (const Probe& p : probes) {
        EXPECT_LE(getRootNamespace(p.xml).size(), p.xml.size()) << p.xml;
        for (bool opening : {true, false}) {
            const std::uint64_t position = findTagPosition(p.xml, p.name, opening);
            EXPECT_TRUE(position == std::string::npos || position <= p.xml.size()) << p.xml;
        }
    }
}

}  // namespace
