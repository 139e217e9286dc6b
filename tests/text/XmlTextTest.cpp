#include "util/XmlText.h"

#include <gtest/gtest.h>

#include <climits>
#include <locale>
#include <sstream>
#include <string>

namespace Util = Arvant::Net::AvQuorvel::Util;
using namespace std::string_literals;

namespace {

TEST(EscapeXml, ReplacesTheEightCharactersOnlyInOnePass) {
    EXPECT_EQ("", Util::escapeXml(""));
    EXPECT_EQ("&#9;&#10;&quot;&#x25;&amp;&apos;&lt;&gt; \r&#10;&amp;amp; caf\xC3\xA9 a\0b"s,
              Util::escapeXml("\t\n\"%&'<> \r\n&amp; caf\xC3\xA9 a\0b"s));
}

TEST(UnescapeXml, ResolvesTheEightReferencesInOnePass) {
    const std::pair<std::string, std::string> cases[] = {
        {"&lt;&gt;&amp;lt;&#x25;&quot;&apos;&#9;&#10;a&amp;b", "<>&lt;%\"'\t\na&b"},
        // Not recognised, or incomplete: kept as they are.
        {"&#37;&#X25;&#13;&#xA;&AMP;x&am&&lt;", "&#37;&#X25;&#13;&#xA;&AMP;x&am&<"},
        {"&", "&"},
        {"x&am", "x&am"},
        {"&lt", "&lt"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, Util::unescapeXml(c.first)) << c.first;
    }
}

TEST(UnescapeXml, InvertsEscapeForEveryByte) {
    std::string all;
    for (int c = 0; c < 256; ++c) {
        all += static_cast<char>(c);
    }
    all += "&amp;&#x25;&lt";
    EXPECT_EQ(all, Util::unescapeXml(Util::escapeXml(all)));
}

TEST(ValueToText, ProducesFixedShapes) {
    EXPECT_EQ("1", Util::toString(true));
    EXPECT_EQ("0", Util::toString(false));
    EXPECT_EQ("a b", Util::toString(std::string("a b")));
    EXPECT_EQ("42", Util::toString(42));
    EXPECT_EQ("-7", Util::toString(-7));
    EXPECT_EQ("-2147483648", Util::toString(INT_MIN));
    EXPECT_EQ("1.50000000000000000e+00", Util::toString(1.5));
    EXPECT_EQ("-2.50000000000000000e-01", Util::toString(-0.25));
    EXPECT_EQ("0.00000000000000000e+00", Util::toString(0.0));
    EXPECT_EQ("1.00000001490116119e-01", Util::toString(0.1f));
    EXPECT_EQ("9.76562500000000000e-04", Util::toString(0.0009765625));
}

TEST(TextToValue, ParseBool) {
    EXPECT_TRUE(Util::parseBool("true"));
    EXPECT_TRUE(Util::parseBool("1"));
    for (const char* text : {"", "false", "yes", "0", "TRUE", "True", "true ", "01", " 1"}) {
        EXPECT_FALSE(Util::parseBool(text)) << text;
    }
}

TEST(TextToValue, ParseIntReadsTheLeadingNumberOrGivesZero) {
    const std::pair<const char*, int> cases[] = {
        {" 12", 12}, {"12ab", 12}, {"-5", -5}, {"+8", 8}, {"1,234", 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, Util::parseInt(c.first)) << c.first;
    }
    EXPECT_EQ(INT_MAX, Util::parseInt("2147483647"));
    EXPECT_EQ(INT_MIN, Util::parseInt("-2147483648"));
    // No number at the start, or one that does not fit: zero.
    for (const char* text : {"", "abc", "  ", "2147483648", "-2147483649"}) {
        EXPECT_EQ(0, Util::parseInt(text)) << text;
    }
}

TEST(TextToValue, ParseFloatingReadsTheLeadingNumberOrGivesZero) {
    const std::pair<const char*, double> doubles[] = {
        {"2.5e3", 2500.0}, {"1,5", 1.0},   {"", 0.0}, {" -0.5x", -0.5},
        {"abc", 0.0},      {"1e999", 0.0}, {".", 0.0}};
    for (const auto& c : doubles) {
        EXPECT_EQ(c.second, Util::parseDouble(c.first)) << c.first;
    }
    const std::pair<const char*, float> floats[] = {
        {"3.25", 3.25f}, {"", 0.0f}, {"x1", 0.0f}, {"1e39", 0.0f}};
    for (const auto& c : floats) {
        EXPECT_EQ(c.second, Util::parseFloat(c.first)) << c.first;
    }
    // What toString writes reads back exactly.
    EXPECT_EQ(0.1, Util::parseDouble(Util::toString(0.1)));
    EXPECT_EQ(0.1f, Util::parseFloat(Util::toString(0.1f)));
}

// A decimal comma and "." as a thousands separator grouping by three; made
// from a facet so no system locale needs to be installed.
struct GroupingPunct : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

class GlobalLocaleTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved = std::locale::global(std::locale(std::locale::classic(), new GroupingPunct));
        std::ostringstream probe;
        probe << 1234567 << ' ' << 1.5;
        ASSERT_EQ("1.234.567 1,5", probe.str()) << "the global locale is not in effect";
    }
    void TearDown() override { std::locale::global(saved); }

    std::locale saved;
};

TEST_F(GlobalLocaleTest, ConversionsIgnoreTheGlobalLocale) {
    EXPECT_EQ("1.23456700000000000e+06", Util::toString(1234567.0));
    EXPECT_EQ("2.50000000000000000e-01", Util::toString(0.25f));
    EXPECT_EQ("1234567", Util::toString(1234567));
    EXPECT_EQ(1.5, Util::parseDouble("1.5"));
    EXPECT_EQ(1.0, Util::parseDouble("1,5"));
    EXPECT_EQ(2.5f, Util::parseFloat("2.5"));
    EXPECT_EQ(1234567, Util::parseInt("1234567"));
    EXPECT_EQ(1, Util::parseInt("1.234"));
}

TEST(RootNamespace, FindsTheDeclarationOfTheRootsPrefix) {
    const std::pair<std::string, std::string> cases[] = {
        {"<?xml version=\"1.0\"?><r:doc xmlns:r=\"urn:x\"><r:a/></r:doc>", "urn:x"},
        {"<doc xmlns=\"urn:y\" id=\"1\"/>", "urn:y"},
        {" \n<?xml version=\"1.0\"?>\n<r:doc xmlns:r=\"urn:x\"/>", "urn:x"},
        {"<doc xmlns=\"urn:z\"", "urn:z"},
        // The search is not limited to the root start tag.
        {"<doc id=\"1\"><c xmlns=\"urn:c\"/></doc>", "urn:c"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, Util::getRootNamespace(c.first)) << c.first;
    }
    // Unsettled: all give the empty text.
    for (const char* xml :
         {"<doc>", "<doc xmlns='urn:y'/>", "", "no markup", "<?xml version=\"1.0\"?>", "<doc",
          "<doc id=\"1\"/>", "<r:doc xmlns:s=\"urn:s\"/>", "<doc xmlns=\"urn:open"}) {
        EXPECT_EQ("", Util::getRootNamespace(xml)) << xml;
    }
}

TEST(TagPosition, FindsTagsByNamespaceAndLocalName) {
    const std::string prefixed = "<a xmlns:p=\"urn:x\"><p:b></p:b></a>";
    const std::string unprefixed = "<a xmlns=\"urn:y\"><b></b></a>";
    const std::string npos = "npos";
    struct Case {
        std::string xml;
        std::string name;
        bool opening;
        std::string tag;  // expected match, npos for none
    };
    const Case cases[] = {
        {prefixed, "urn:x^b", true, "<p:b"},
        {prefixed, "urn:x^b", false, "</p:b"},
        {unprefixed, "urn:y^b", true, "<b"},
        {unprefixed, "urn:y^b", false, "</b"},
        {prefixed, "urn:other^a", true, "<a"},
        {"<a xmlns:n=\"urn:n\"><n:items/><n:item/></a>", "urn:n^item", true, "<n:item"},
        // Unsettled cases.
        {prefixed, "urn:x^c", true, npos},
        {"", "urn:x^b", false, npos},
        {prefixed, "a", true, "<a"},
        {prefixed, "^a", true, "<a"},
        {"<doc>see urn:x</doc><b/>", "urn:x^b", true, "<b"},
        {"urn:x<b/>", "urn:x^b", true, "<b"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.xml + " " + c.name);
        const std::uint64_t position = Util::findTagPosition(c.xml, c.name, c.opening);
        if (c.tag == npos) {
            EXPECT_EQ(std::uint64_t(std::string::npos), position);
            continue;
        }
        const std::uint64_t at = c.xml.find(c.tag);
        ASSERT_NE(std::string::npos, at);
        EXPECT_EQ(c.opening ? at + c.tag.size() : at, position);
    }
}

}  // namespace
