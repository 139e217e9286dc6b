// The tool's building blocks: JSON quoting, the description of a failure, and
// the reading of an events document.
#include <gtest/gtest.h>

#include <xercesc/util/PlatformUtils.hpp>

#include <functional>
#include <string>
#include <vector>

#include "EventList.h"
#include "Failure.h"
#include "Json.h"
#include "client/Exception.h"
#include "util/XMLNode.h"

namespace {

using namespace Arvant::Net::AvQuorvel::Client;
using Arvant::Net::AvQuorvel::Util::DomException;
using Quorvel::describeCurrentException;
using Quorvel::Event;
using Quorvel::Failure;
using Quorvel::jsonQuote;
using Quorvel::parseEventDocument;

// The events reader parses; the XML library must be up for the whole run.
class XmlLibraryEnvironment : public ::testing::Environment {
public:
    void SetUp() override { xercesc::XMLPlatformUtils::Initialize(); }
    void TearDown() override { xercesc::XMLPlatformUtils::Terminate(); }
};
const auto* const xmlEnvironment = ::testing::AddGlobalTestEnvironment(new XmlLibraryEnvironment);

TEST(JsonQuoteTest, EscapesWhatJsonRequiresAndKeepsUtf8) {
    const struct {
        std::string input;
        std::string expected;
    } cases[] = {
        {"", "\"\""},
        {"plain", "\"plain\""},
        {"a\"b", "\"a\\\"b\""},
        {"back\\slash", "\"back\\\\slash\""},
        {"\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\""},
        {std::string("nul\0x", 5), "\"nul\\u0000x\""},
        {"\x01\x1f", "\"\\u0001\\u001f\""},
        {"/ and \x7f stay", "\"/ and \x7f stay\""},
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80",
         "\"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\""},
        // Bytes that are not UTF-8 become U+FFFD, one per byte.
        {"latin1 \xE9!", "\"latin1 \xEF\xBF\xBD!\""},
        {"cut \xE2\x82", "\"cut \xEF\xBF\xBD\xEF\xBF\xBD\""},
        {"overlong \xC0\xAF", "\"overlong \xEF\xBF\xBD\xEF\xBF\xBD\""},
        {"surrogate \xED\xA0\x80", "\"surrogate \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
        {"too big \xF4\x90\x80\x80",
         "\"too big \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(jsonQuote(c.input), c.expected) << "input: " << c.input;
    }
    EXPECT_EQ(Quorvel::jsonStringArray({}), "[]");
    EXPECT_EQ(Quorvel::jsonStringArray({"a", "b\"c"}), "[\"a\",\"b\\\"c\"]");
}

Failure describeThrown(const std::function<void()>& thrower) {
    try {
        thrower();
    } catch (...) {
        return describeCurrentException();
    }
    ADD_FAILURE() << "nothing was thrown";
    return Failure();
}

TEST(FailureTest, NamesTheMostDerivedClassForValuesAndPointers) {
    const struct {
        std::function<void()> thrower;
        std::string description;
        int exitCode;
    } cases[] = {
        {[] { throw AvQVLConnectionException(-1, "AvQVL Connection failed"); },
         "AvQVLConnectionException (type -1): AvQVL Connection failed", 1},
        {[] { throw AvQVLProtocolException(-2, "Client not Registered with Quorvel"); },
         "AvQVLProtocolException (type -2): Client not Registered with Quorvel", 1},
        {[] { throw AvQVLRuntimeException(); }, "AvQVLRuntimeException (type 0): ", 1},
        {[] { throw AvQVLUnrecognisedException("odd code"); },
         "AvQVLUnrecognisedException (type 0): odd code", 1},
        {[] { throw Utf8ConversionException("no converter"); },
         "AvQVLException (type 0): no converter", 1},
        {[] { throw Exception(7, "rethrown by unregister"); },
         "Exception (type 7): rethrown by unregister", 1},
        {[] { throw DomException("Unexpected node name: x"); },
         "DomException: Unexpected node name: x", 1},
        {[] { throw new AvQVLProtocolException(-2, "Client not Registered with Quorvel"); },
         "AvQVLProtocolException (type -2): Client not Registered with Quorvel", 1},
        {[] { throw new Exception(3, "plain pointer"); }, "Exception (type 3): plain pointer", 1},
        {[] { throw std::runtime_error("boom"); }, "std::exception: boom", 3},
        {[] { throw 42; }, "unknown exception: an exception of an unknown type was thrown", 3},
    };
    for (const auto& c : cases) {
        const Failure failure = describeThrown(c.thrower);
        EXPECT_EQ(failure.describe(), c.description);
        EXPECT_EQ(failure.exitCode(), c.exitCode) << c.description;
    }
}

TEST(FailureTest, JsonCarriesClassTypeAndEscapedMessage) {
    const Failure withType =
        describeThrown([] { throw AvQVLRuntimeException(0, "bad \"chunk\"\n"); });
    EXPECT_EQ(withType.toJson(),
              "{\"class\":\"AvQVLRuntimeException\",\"type\":0,\"message\":\"bad "
              "\\\"chunk\\\"\\n\"}");
    const Failure withoutType = describeThrown([] { throw DomException("x"); });
    EXPECT_EQ(withoutType.toJson(), "{\"class\":\"DomException\",\"type\":null,\"message\":\"x\"}");
}

// Events are appended with sender, sequence and unescaped text; elements other
// than "event" are skipped, a single "event" root is one event.
TEST(EventListTest, ReadsEventsAndReportsMalformedDocuments) {
    std::vector<Event> events{{"old", "0", "kept"}};
    parseEventDocument(
        "\n<ns0:events xmlns:ns0=\"urn:e\">\n<ns0:event sender=\"alice\" "
        "sequence=\"1\">Build 42</ns0:event>\n<ns0:other/><ns0:event sender=\"a&amp;b\" "
        "sequence=\"2\">&lt;x&gt; &amp; &quot;y&quot;</ns0:event></ns0:events>",
        events);
    for (const char* blank : {"", " \r\n\t", "<events/>"}) {
        parseEventDocument(blank, events);
    }
    parseEventDocument("<event sender=\"k\" sequence=\"9\">t</event>", events);
    ASSERT_EQ(events.size(), 4u);
    const auto line = [](const Event& e) { return e.sender + "|" + e.sequence + "|" + e.text; };
    EXPECT_EQ(line(events[0]), "old|0|kept");
    EXPECT_EQ(line(events[1]), "alice|1|Build 42");
    EXPECT_EQ(line(events[2]), "a&b|2|<x> & \"y\"");
    EXPECT_EQ(line(events[3]), "k|9|t");
    EXPECT_THROW(parseEventDocument("<events><event>", events), DomException);
    EXPECT_THROW(parseEventDocument("not xml", events), DomException);
}

}  // namespace
