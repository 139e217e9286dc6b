// The parser copies ASCII names and texts itself when the XML library's
// converter keeps ASCII unchanged, instead of converting them through the
// library. These tests compare every text the parser stores with the library's
// own conversion, on random texts (ASCII only, with control characters and SUB,
// and mixed with non-ASCII), with SUB replacement on and off, under code pages
// that keep ASCII and code pages that do not.
#include <gtest/gtest.h>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>

#include <cctype>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "IcuHooks.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::XMLNode;
using xercesc::XMLPlatformUtils;
using xercesc::XMLString;

namespace {

// The library's conversion, with the SUB rule applied to its bytes.
std::string throughLibrary(const std::u16string& text, bool replace) {
    char* converted = XMLString::transcode(text.c_str(), XMLPlatformUtils::fgMemoryManager);
    if (converted == nullptr) {
        return std::string();
    }
    std::string result(converted);
    XMLString::release(&converted, XMLPlatformUtils::fgMemoryManager);
    if (replace) {
        for (char& c : result) {
            c = c == '\x1A' ? '?' : c;
        }
    }
    return result;
}

struct Sample {
    std::u16string uri, name, attributeName, attributeValue, text;
};

// One attribute, as the reader would hand it over.
class OneAttribute : public xercesc::Attributes {
public:
    OneAttribute(const XMLCh* name, const XMLCh* value) : name(name), value(value) {}
    XMLSize_t getLength() const override { return 1; }
    const XMLCh* getURI(const XMLSize_t) const override { return u""; }
    const XMLCh* getLocalName(const XMLSize_t index) const override {
        return index == 0 ? name : nullptr;
    }
    const XMLCh* getQName(const XMLSize_t index) const override { return getLocalName(index); }
    const XMLCh* getType(const XMLSize_t) const override { return u"CDATA"; }
    const XMLCh* getValue(const XMLSize_t index) const override {
        return index == 0 ? value : nullptr;
    }
    bool getIndex(const XMLCh*, const XMLCh*, XMLSize_t&) const override { return false; }
    int getIndex(const XMLCh*, const XMLCh*) const override { return -1; }
    bool getIndex(const XMLCh*, XMLSize_t&) const override { return false; }
    int getIndex(const XMLCh*) const override { return -1; }
    const XMLCh* getType(const XMLCh*, const XMLCh*) const override { return nullptr; }
    const XMLCh* getType(const XMLCh*) const override { return nullptr; }
    const XMLCh* getValue(const XMLCh*, const XMLCh*) const override { return nullptr; }
    const XMLCh* getValue(const XMLCh*) const override { return nullptr; }

private:
    const XMLCh* name;
    const XMLCh* value;
};

// Feeds the samples, one element each, from inside a real parse, right after
// the document's root element starts: the conversions run as in any parse.
class FeedingParser : public SAXToNodeParser {
public:
    explicit FeedingParser(const std::vector<Sample>& samples) : samples(samples) {}

    void startElement(const XMLCh* uri, const XMLCh* localname, const XMLCh* qname,
                      const xercesc::Attributes& attrs) override {
        SAXToNodeParser::startElement(uri, localname, qname, attrs);
        if (fed) {
            return;
        }
        fed = true;
        for (const Sample& s : samples) {
            OneAttribute attribute(s.attributeName.c_str(), s.attributeValue.c_str());
            SAXToNodeParser::startElement(s.uri.c_str(), s.name.c_str(), s.name.c_str(), attribute);
            SAXToNodeParser::characters(s.text.c_str(), s.text.size());
            SAXToNodeParser::characters(s.text.c_str(), s.text.size());
            SAXToNodeParser::endElement(s.uri.c_str(), s.name.c_str(), s.name.c_str());
        }
    }

private:
    const std::vector<Sample>& samples;
    bool fed = false;
};

enum class Kind { asciiOnly, controls, mixed };

std::u16string randomText(std::mt19937& random, Kind kind) {
    std::uniform_int_distribution<int> length(0, 40);
    std::uniform_int_distribution<int> printable(0x20, 0x7E);
    std::uniform_int_distribution<int> control(1, 0x7F);
    std::uniform_int_distribution<int> pick(0, 9);
    std::u16string text;
    for (int n = length(random); n > 0; --n) {
        const int p = pick(random);
        if (kind == Kind::asciiOnly || (kind == Kind::mixed && p < 6)) {
            text += static_cast<char16_t>(printable(random));
        } else if (kind == Kind::controls) {
            text += p < 2 ? u'\x1A' : static_cast<char16_t>(control(random));
        } else if (p == 6) {
            text += static_cast<char16_t>(0x80 + pick(random) * 13);  // Latin-1 and C1
        } else if (p == 7) {
            text += static_cast<char16_t>(0x3B1 + pick(random) * 997);  // across the BMP
        } else if (p == 8) {
            text += u"\U0001F600";
        } else {
            text += u'\x1A';
        }
    }
    return text;
}

std::vector<Sample> randomSamples(std::mt19937& random, int count) {
    std::vector<Sample> samples;
    for (int i = 0; i < count; ++i) {
        const Kind kind = static_cast<Kind>(i % 3);
        samples.push_back({randomText(random, kind), randomText(random, kind),
                           randomText(random, kind), randomText(random, kind),
                           randomText(random, kind)});
    }
    return samples;
}

// Parses a small document with the samples fed in and checks every stored text.
void expectLibraryResults(const std::vector<Sample>& samples, bool replace) {
    SAXToNodeParser::setReplaceSubChars(replace);
    FeedingParser parser(samples);
    XMLNode* root = parser.parseString("<root/>");
    SAXToNodeParser::setReplaceSubChars(false);
    ASSERT_NE(root, nullptr);
    ASSERT_EQ(root->children.size(), samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const Sample& s = samples[i];
        const XMLNode& node = *root->children[i];
        SCOPED_TRACE("sample " + std::to_string(i) + ", replace " + std::to_string(replace));
        EXPECT_EQ(node.localName, throughLibrary(s.name, false));
        EXPECT_EQ(node.uri, throughLibrary(s.uri, false));
        const std::map<std::string, std::string> attributes{
            {throughLibrary(s.attributeName, false), throughLibrary(s.attributeValue, replace)}};
        EXPECT_EQ(node.attributes, attributes);
        EXPECT_EQ(node.text, throughLibrary(s.text, replace) + throughLibrary(s.text, replace));
    }
}

// Starts the XML library with ICU's default converter set to the code page,
// so that the library's converter is one for that code page.
class ParserFastPathTest : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        IcuHooks::setDefaultConverter(GetParam());
        XMLPlatformUtils::Initialize();
    }
    void TearDown() override {
        XMLPlatformUtils::Terminate();
        IcuHooks::setDefaultConverter(nullptr);
    }
};

TEST_P(ParserFastPathTest, StoredTextsEqualTheLibrarysConversion) {
    std::mt19937 random(20261123);
    for (int round = 0; round < 20; ++round) {
        const std::vector<Sample> samples = randomSamples(random, 30);
        expectLibraryResults(samples, false);
        expectLibraryResults(samples, true);
    }
}

// Keeps each piece of character data as the reader hands it over.
class RecordingParser : public SAXToNodeParser {
public:
    void characters(const XMLCh* chars, const XMLSize_t length) override {
        pieces.emplace_back(chars);
        SAXToNodeParser::characters(chars, length);
    }
    std::vector<std::u16string> pieces;
};

// A whole document, with SUB from character references (XML 1.1), non-ASCII
// text, a prefixed root and text in several pieces around a child and a comment.
TEST_P(ParserFastPathTest, DocumentsParseToTheLibrarysConversion) {
    const std::string document =
        "<?xml version='1.1'?><p:r xmlns:p='urn:x' a='1&#x1A;2' b='\xC3\xA9&#x1A;'>"
        "t&#x1A;<c>x\xE2\x82\xAC&#x1A;y</c>u<!-- c --><![CDATA[&#x1A;]]>v</p:r>";
    for (bool replace : {false, true}) {
        SAXToNodeParser::setReplaceSubChars(replace);
        RecordingParser parser;
        const XMLNode* root = parser.parseString(document);
        SAXToNodeParser::setReplaceSubChars(false);
        SCOPED_TRACE(std::string("replace ") + (replace ? "on" : "off"));
        EXPECT_EQ(root->localName, throughLibrary(u"r", false));
        EXPECT_EQ(root->uri, throughLibrary(u"urn:x", false));
        EXPECT_EQ(root->attributes.at("a"), throughLibrary(u"1\x1A"
                                                           u"2",
                                                           replace));
        EXPECT_EQ(root->attributes.at("b"), throughLibrary(u"\xE9\x1A", replace));
        ASSERT_EQ(root->children.size(), 1u);
        // The child's text comes before "u", the first piece of the root's text after it.
        std::string rootText, childText;
        bool inChild = false;
        for (const std::u16string& piece : parser.pieces) {
            if (piece.empty()) {
                continue;
            }
            if (piece.front() == u't' || piece.front() == u'u') {
                inChild = false;
            } else if (piece.front() == u'x') {
                inChild = true;
            }
            (inChild ? childText : rootText) += throughLibrary(piece, replace);
        }
        EXPECT_EQ(root->text, rootText);
        EXPECT_EQ(root->children[0]->text, childText);
    }
}

// Checks that the code pages below really reach the library's converter, so
// that the comparisons above cover converters that do not keep ASCII too
// (UTF-16LE, UTF-7). An EBCDIC code page is left out: the XML library itself
// cannot start with one.
TEST_P(ParserFastPathTest, CodePageReachesTheLibrary) {
    const std::string name = GetParam() == nullptr ? "UTF-8" : GetParam();
    const std::string ascii = throughLibrary(u"Ab", false);
    if (name == "UTF-16LE") {
        EXPECT_EQ(ascii, "A");  // the library's result ends at the first zero byte
    } else if (name == "UTF-7") {
        EXPECT_EQ(throughLibrary(u"a+b", false), "a+-b");
    } else {
        EXPECT_EQ(ascii, "Ab");
    }
    if (name == "US-ASCII") {
        EXPECT_EQ(throughLibrary(u"\xE9", false), "\x1A");
    }
}

INSTANTIATE_TEST_SUITE_P(CodePages, ParserFastPathTest,
                         ::testing::Values(nullptr, "US-ASCII", "ISO-8859-1", "UTF-16LE", "UTF-7"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name = info.param == nullptr ? "default" : info.param;
                             for (char& c : name) {
                                 c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             }
                             return name;
                         });

}  // namespace
