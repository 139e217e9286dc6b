#include "util/XmlText.h"

#include <gtest/gtest.h>

#include <limits>
#include <locale>
#include <numeric>
#include <string>
#include <tuple>

using namespace Arvant::Net::AvQuorvel::Util;
using namespace std::string_literals;

namespace {

TEST(XmlText, EscapesAndUnescapesTheEightCharactersInOnePass) {
    EXPECT_EQ("&#9;&#10;&quot;&#x25;&amp;&apos;&lt;&gt; \r&#10;&amp;amp; caf\xC3\xA9 a\0b"s,
              escapeXml("\t\n\"%&'<> \r\n&amp; caf\xC3\xA9 a\0b"s));
    EXPECT_EQ("<>&lt;%\"'\t\na&b",
              unescapeXml("&lt;&gt;&amp;lt;&#x25;&quot;&apos;&#9;&#10;a&amp;b"));
    // Unrecognised references, and incomplete ones up to the end, stay as they are.
    const std::string kept = "&#37;&#X25;&#13;&#xA;&AMP;x&am&";
    EXPECT_EQ(kept + "<&am", unescapeXml(kept + "&lt;&am"));
    std::string all(256, '\0');
    std::iota(all.begin(), all.end(), '\0');
    EXPECT_EQ(all + "&amp;&lt", unescapeXml(escapeXml(all + "&amp;&lt")));
}

// A decimal comma and "." grouping digits by three, from a facet so that no
// system locale needs to be installed.
struct GroupingPunct : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// Conversions ignore a global locale with a decimal comma and digit grouping.
TEST(XmlText, ValueConversions) {
    const std::locale saved =
        std::locale::global(std::locale(std::locale::classic(), new GroupingPunct));
    EXPECT_EQ("1 0 1234567 -2.50000000000000000e-01 1.00000001490116119e-01",
              toString(true) + " " + toString(false) + " " + toString(1234567) + " " +
                  toString(-0.25) + " " + toString(0.1f));
    // The leading number counts; none, or an integer the type cannot hold,
    // gives zero; a floating-point overflow gives the largest value with its sign.
    const double dmax = std::numeric_limits<double>::max();
    const float fmax = std::numeric_limits<float>::max();
    const std::tuple<const char*, int, double, float> numbers[] = {
        {"", 0, 0, 0},
        {" -5x", -5, -5, -5},
        {"1.234", 1, 1.234, 1.234f},
        {"-2147483649", 0, -2147483649.0, -2147483649.0f},
        {"1e39", 1, 1e39, fmax},
        {"-1e400", -1, -dmax, -fmax}};
    for (const auto& [text, i, d, f] : numbers) {
        EXPECT_EQ(i, parseInt(text)) << text;
        EXPECT_EQ(d, parseDouble(text)) << text;
        EXPECT_EQ(f, parseFloat(text)) << text;
    }
    std::locale::global(saved);
    EXPECT_TRUE(parseBool("true") && parseBool("1") && !parseBool("TRUE") && !parseBool(" 1"));
}

TEST(XmlText, RawProbesForNamespaces) {
    // The root's URI: after a declaration, with more attributes, and (the search
    // is not limited to the root tag) anywhere.
    EXPECT_EQ("urn:x", getRootNamespace(" \n<?xml version=\"1.0\"?>\n<r:doc xmlns:r=\"urn:x\"/>"));
    EXPECT_EQ("urn:c", getRootNamespace("<doc id=\"1\"><c xmlns=\"urn:c\"/></doc>"));
    // No URI: no "<", no root after the declaration, a root tag without
    // attributes, no declaration of its prefix (or one in apostrophes), no end quote.
    for (const char* xml : {"", "<?xml version=\"1.0\"?>", "<doc><c xmlns=\"urn:c\"/>",
                            "<r:doc xmlns:s=\"urn:s\"/>", "<doc xmlns=\"urn:open"}) {
        EXPECT_EQ("", getRootNamespace(xml)) << xml;
    }

    const std::string xml = "<a xmlns:p=\"urn:x\" xmlns=\"urn:y\"><p:b><b></b></p:b></a>";
    // Where a tag is found: just after the name of a start tag, at an end tag.
    const auto at = [&](const std::string& tag) {
        return xml.find(tag) + (tag[1] == '/' ? 0 : tag.size());
    };
    EXPECT_EQ(at("<p:b"), findTagPosition(xml, "urn:x^b", true));
    EXPECT_EQ(at("</p:b"), findTagPosition(xml, "urn:x^b", false));
    EXPECT_EQ(at("<b"), findTagPosition(xml, "urn:y^b", true));
    EXPECT_EQ(std::string::npos, findTagPosition(xml, "urn:x^c", true));
    EXPECT_EQ(at("<b"), findTagPosition(xml, "b", true));  // no "^": no URI
}

}  // namespace
