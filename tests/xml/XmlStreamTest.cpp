#include <gtest/gtest.h>

#include <locale>
#include <string>

#include "util/XmlStream.h"

using Arvant::Net::AvQuorvel::Util::XmlStream;

namespace {

TEST(XmlStreamTest, WorkedExampleIsWrittenByteForByte) {
    XmlStream stream;
    stream.addNamespaces({"urn:b", "urn:a"});
    stream << stream.startTag("urn:b", "item") << stream.endStartTag("urn:b", false);
    stream << stream.startTag("urn:a", "x") << stream.endStartTag("urn:a", true);
    stream << stream.startTag("urn:z", "y") << stream.endStartTag("urn:z", false);
    stream << stream.endTag("urn:z", "y") << stream.endTag("urn:b", "item");
    EXPECT_EQ(stream.str(),
              "\n<ns1:item xmlns:ns0=\"urn:a\" xmlns:ns1=\"urn:b\">"
              "\n<ns0:x/>"
              "\n<y></y>"
              "</ns1:item>");
}

TEST(XmlStreamTest, DeclarationsGoOnTheFirstStartTagOnlyEvenWhenThereAreNone) {
    XmlStream empty;
    EXPECT_TRUE(empty.hasPendingDeclarations());
    EXPECT_EQ(empty.startTag("urn:a", "r"), "\n<r");
    EXPECT_FALSE(empty.hasPendingDeclarations());
    EXPECT_TRUE(empty.addNamespace("urn:a"));
    EXPECT_EQ(empty.startTag("urn:a", "c"), "\n<ns0:c");  // prefix used, never declared

    XmlStream stream;
    stream.addNamespace("urn:a");
    EXPECT_EQ(stream.startElement("urn:a", "r", {{"k", "1"}, {"a", "2"}}),
              "\n<ns0:r xmlns:ns0=\"urn:a\" k=\"1\" a=\"2\">");
    EXPECT_EQ(stream.startElement("urn:a", "r", {}), "\n<ns0:r>");
}

TEST(XmlStreamTest, PrefixesAreNumberedOncePerUriInRegistrationOrder) {
    XmlStream stream;
    EXPECT_TRUE(stream.addNamespace("urn:m"));
    EXPECT_FALSE(stream.addNamespace("urn:m"));
    stream.addNamespaces({"urn:z", "urn:m", "urn:a", ""});
    EXPECT_EQ(stream.getPrefix("urn:m"), "ns0");
    EXPECT_EQ(stream.getPrefix(""), "ns1");
    EXPECT_EQ(stream.getPrefix("urn:a"), "ns2");
    EXPECT_EQ(stream.getPrefix("urn:z"), "ns3");
    EXPECT_EQ(stream.getPrefix("urn:unknown"), "");

    for (int i = 4; i <= 10; ++i) {
        stream.addNamespace("urn:n" + std::to_string(i));
    }
    EXPECT_EQ(stream.getPrefix("urn:n10"), "ns10");  // the eleventh
}

TEST(XmlStreamTest, QualifiedNamesAndUnregisteredUrisAreWrittenAsGiven) {
    XmlStream stream;
    stream.addNamespace("urn:a");
    EXPECT_EQ(stream.startTag("urn:a", "x:r"), "\n<x:r xmlns:ns0=\"urn:a\"");
    EXPECT_EQ(stream.endTag("urn:a", "x:r"), "</x:r>");
    EXPECT_EQ(stream.startTag("urn:other", "r"), "\n<r");
    EXPECT_EQ(stream.endTag("urn:other", "r"), "</r>");
    EXPECT_EQ(stream.endTag("urn:a", "r"), "</ns0:r>");
    EXPECT_EQ(stream.attribute("v", "<\"&"), " v=\"<\"&\"");
    EXPECT_EQ(stream.endStartTag("", true), "/>");
    EXPECT_EQ(stream.endStartTag("", false), ">");
}

// Groups every three digits with a dot, as many national locales do.
class DotGrouping : public std::numpunct<char> {
protected:
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(XmlStreamTest, PrefixNumbersIgnoreTheGlobalLocalesGrouping) {
    const std::locale previous =
        std::locale::global(std::locale(std::locale::classic(), new DotGrouping));
    XmlStream stream;
    for (int i = 0; i <= 1000; ++i) {
        stream.addNamespace("urn:" + std::to_string(i));
    }
    const std::string prefix = stream.getPrefix("urn:1000");
    std::locale::global(previous);
    EXPECT_EQ(prefix, "ns1000");
}

}  // namespace
