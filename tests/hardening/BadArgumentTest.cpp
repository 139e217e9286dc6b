// What each public entry point does with hostile or absurd arguments. Header
// values and bodies go to the transport unchanged (never escaped), each text cut
// at its first NUL byte; identifiers of any length are sent whole.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "schemas/SharedClientIDs.h"
#include "transport/testing/TestTransport.h"
#include "util/Utf8.h"
#include "util/XMLNode.h"
#include "util/XmlText.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace Arvant::Net::AvQuorvel::Util;
using Arvant::Net::AvQuorvel::Testing::TestTransport;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

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

TEST_F(BadArgumentTest, RegistrationSendsHostileValuesUnchanged) {
    struct Case {
        const char* what;
        std::string server, client, locale;
        std::vector<std::string> inBlock;  // each must appear in the header block
        std::string notInBlock;
    };
    const Case cases[] = {
        {"CR LF in the server id goes out raw: it splits the line",
         "S\r\nInjected=1",
         "C",
         "",
         {"Server-ID=S\r\nInjected=1\r\n", "Client-ID=C\r\n"},
         "Locale"},
        {"lone LF in the client id", "S", "C\nD", "", {"Client-ID=C\nD\r\n"}, ""},
        {"1 MiB identifiers are sent whole",
         kMiB,
         kMiB,
         kMiB,
         {"Server-ID=" + kMiB + "\r\n", "Client-ID=" + kMiB + "\r\n", "Locale=" + kMiB + "\r\n"},
         ""},
        {"a NUL byte ends the value",
         std::string("S\0hidden", 8),
         "C",
         std::string("de\0x", 4),
         {"Server-ID=S\r\n", "Locale=de\r\n"},
         "hidden"},
        {"empty ids go out empty; an empty locale not at all",
         "",
         "",
         "",
         {"Server-ID=\r\n", "Client-ID=\r\n"},
         "Locale"},
        {"\"null\" goes out as no value",
         "null",
         "C",
         "null",
         {"Server-ID=\r\n", "Locale=\r\n"},
         ""},
    };
    for (const Case& c : cases) {
        TestTransport::reset();
        TestTransport::expectExchange(kEmptyList);
        AvQVLConnection connection;
        std::string server = c.server, client = c.client, locale = c.locale;
        Ids shared;
        connection.registerClient(server, client, locale, shared);
        const auto blocks = TestTransport::headerBlocks();
        ASSERT_EQ(blocks.size(), 1u) << c.what;
        for (const std::string& line : c.inBlock) {
            EXPECT_NE(blocks[0].find(line), std::string::npos) << c.what;
        }
        if (!c.notInBlock.empty()) {
            EXPECT_EQ(blocks[0].find(c.notInBlock), std::string::npos) << c.what;
        }
        EXPECT_EQ(shared, Ids{}) << c.what;
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

TEST_F(BadArgumentTest, UnregisteredOperationsSendNothing) {
    AvQVLConnection connection;
    std::string events = "e", correlation = "c";
    Ids shared{"kept"};
    try {
        connection.putEvents(events, shared, correlation);
        FAIL();
    } catch (const AvQVLProtocolException& e) {
        EXPECT_EQ(e.getType(), -2);
    }
    EXPECT_THROW(connection.getEvents(events, shared, correlation), AvQVLProtocolException);
    try {
        connection.getSharedClients(shared);
        FAIL();
    } catch (AvQVLProtocolException* e) {
        EXPECT_EQ(e->getType(), -2);
        delete e;
    }
    EXPECT_TRUE(TestTransport::calls().empty());
    EXPECT_EQ(events, "e");
    EXPECT_EQ(shared, Ids{"kept"});
}

TEST_F(BadArgumentTest, ConversionRefusesImpossibleArguments) {
    EXPECT_THROW(toUtf8(nullptr, 5), Utf8ConversionException);
    EXPECT_THROW(fromUtf8(nullptr, 5), Utf8ConversionException);
    EXPECT_THROW(toUtf8("abc", -1), Utf8ConversionException);
    EXPECT_THROW(fromUtf8("abc", INT32_MIN), Utf8ConversionException);
    EXPECT_EQ(toUtf8(nullptr, 0), "");
    EXPECT_EQ(fromUtf8("", 0), "");
    EXPECT_EQ(toUtf8(kMiB.data(), static_cast<int32_t>(kMiB.size())), kMiB);
}

TEST_F(BadArgumentTest, TextHelpersTakeAnyBytes) {
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

TEST_F(BadArgumentTest, SharedClientListRefusesForeignElements) {
    XMLNode root;
    SharedClientIDs ids;
    ids.parse(root);  // no children: nothing
    Ids out;
    ids.getSharedClients(out);
    EXPECT_TRUE(out.empty());

    XMLNode* foreign = new XMLNode();
    foreign->localName = "other";
    foreign->parent = &root;
    root.children.push_back(foreign);
    EXPECT_THROW(ids.parse(root), DomException);
}

}  // namespace
