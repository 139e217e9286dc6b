#include <gtest/gtest.h>

#include <locale>

#include "util/XmlStream.h"

using Arvant::Net::AvQuorvel::Util::XmlStream;

namespace {

// Groups every three digits with a dot, as many national locales do.
struct DotGrouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// Under a global locale that groups digits, which prefixes must not follow.
TEST(XmlStreamTest, PrefixesAndDeclarations) {
    const std::locale previous =
        std::locale::global(std::locale(std::locale::classic(), new DotGrouping));
    XmlStream stream;
    EXPECT_EQ(stream.startTag("urn:a", "r"), "\n<r");  // clears the pending declarations
    EXPECT_TRUE(!stream.hasPendingDeclarations() && stream.addNamespace("urn:m") &&
                !stream.addNamespace("urn:m"));
    EXPECT_EQ(stream.startTag("urn:m", "c"), "\n<ns0:c");  // prefix used, never declared
    for (int i = 1; i <= 1000; ++i) {
        stream.addNamespace("urn:n" + std::to_string(i));
    }
    EXPECT_EQ(stream.getPrefix("urn:n1000") + stream.getPrefix("?"), "ns1000");
    std::locale::global(previous);

    // Declarations in the first start tag, sorted by URI; an undeclared URI has no prefix.
    XmlStream declared;
    declared.addNamespaces({"urn:b", "urn:a"});
    declared << declared.startTag("urn:b", "item") << declared.endStartTag("urn:b", false);
    declared << declared.startTag("urn:a", "x") << declared.endStartTag("urn:a", true);
    declared << declared.startTag("urn:z", "y") << declared.endStartTag("urn:z", false);
    declared << declared.endTag("urn:z", "y") << declared.endTag("urn:b", "item");
    EXPECT_EQ(declared.str(),
              "\n<ns1:item xmlns:ns0=\"urn:a\" xmlns:ns1=\"urn:b\">\n<ns0:x/>\n<y></y></ns1:item>");
    EXPECT_EQ(declared.startElement("urn:a", "r", {{"k", "<\""}, {"a", "2"}}),
              "\n<ns0:r k=\"<\"\" a=\"2\">");
}

}  // namespace
