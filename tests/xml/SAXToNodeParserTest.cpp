#include <gtest/gtest.h>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Util::DomException;
using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::XMLNode;

namespace {

std::string parseError(SAXToNodeParser& parser, const std::string& xml) {
    try {
        parser.parseString(xml);
    } catch (const DomException& e) {
        return e.getMessage();
    }
    ADD_FAILURE() << "no DomException for: " << xml;
    return "";
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// Mixed content, a prefixed root with unprefixed attributes, declarations that
// are not attributes, and two attributes with one local name (the later wins).
TEST(SAXToNodeParserTest, BuildsTheTreeWithNamesUrisAttributesAndText) {
    SAXToNodeParser parser;
    XMLNode* root = parser.parseString(
        "<p:r xmlns:p=\"urn:x\" xmlns:q=\"urn:q\" b=\"3\" p:a=\"1\" q:a=\"2\">"
        "<p:c>x</p:c>y<d/>z</p:r>");
    EXPECT_EQ(root->localName, "r");
    EXPECT_EQ(root->uri, "urn:x");
    EXPECT_EQ(root->parent, nullptr);
    EXPECT_EQ(root->text, "yz");
    EXPECT_EQ(root->attributes, (std::map<std::string, std::string>{{"a", "2"}, {"b", "3"}}));
    ASSERT_EQ(root->children.size(), 2u);
    const std::string expected[][3] = {{"c", "urn:x", "x"}, {"d", "", ""}};
    for (int i = 0; i < 2; ++i) {
        const XMLNode* child = root->children[i];
        EXPECT_EQ(child->localName, expected[i][0]);
        EXPECT_EQ(child->uri, expected[i][1]);
        EXPECT_EQ(child->text, expected[i][2]);
        EXPECT_EQ(child->parent, root);
    }
}

// Each element carries its own namespace, however the namespaces alternate,
// and a later parse with other namespaces never sees an earlier one's.
TEST(SAXToNodeParserTest, EveryElementKeepsItsOwnNamespace) {
    SAXToNodeParser parser;
    XMLNode* root = parser.parseString(
        "<a xmlns=\"urn:1\"><b xmlns=\"urn:2\"><c/></b><d/><e xmlns=\"\"/>"
        "<f xmlns:p=\"urn:2\"><p:g/><h/></f></a>");
    std::vector<std::string> uris;
    std::vector<const XMLNode*> pending{root};
    while (!pending.empty()) {
        const XMLNode* node = pending.front();
        pending.erase(pending.begin());
        uris.push_back(node->localName + "=" + node->uri);
        pending.insert(pending.end(), node->children.begin(), node->children.end());
    }
    EXPECT_EQ(uris, (std::vector<std::string>{"a=urn:1", "b=urn:2", "d=urn:1", "e=", "f=urn:1",
                                              "c=urn:2", "g=urn:2", "h=urn:1"}));
    EXPECT_EQ(parser.parseString("<x xmlns=\"urn:first\"/>")->uri, "urn:first");
    EXPECT_EQ(parser.parseString("<x xmlns=\"urn:other\"/>")->uri, "urn:other");
}

TEST(SAXToNodeParserTest, CharacterDataIsKeptUntouched) {
    const std::pair<std::string, const char*> cases[] = {
        {"<r>x<!-- note -->y<![CDATA[z<&>]]></r>", "xyz<&>"},
        {"<r> <c/> </r>", "  "},
        {"<r>\n\t a &amp; &lt;b&gt; &#x41;\n</r>", "\n\t a & <b> A\n"},
        {std::string("<a>x</a>\0<broken", 16), "x"}};  // nothing after a NUL is read
    for (const auto& c : cases) {
        SAXToNodeParser parser;
        EXPECT_EQ(parser.parseString(c.first)->text, c.second) << c.first;
    }
}

TEST(SAXToNodeParserTest, MismatchedEndTagThrowsAndKeepsThePartialTree) {
    SAXToNodeParser parser;
    const std::string message = parseError(parser, "<a><b>t</b><c>\n</d></a>");
    EXPECT_TRUE(startsWith(message, "Fatal Error: parsing: From-String: line 2, char ")) << message;
    EXPECT_NE(message.find("\nMessage: "), std::string::npos) << message;
    EXPECT_EQ(message.back(), '\n');

    XMLNode* root = parser.getRoot();
    EXPECT_EQ(root->localName, "a");
    ASSERT_EQ(root->children.size(), 2u);
    EXPECT_EQ(root->children[0]->text, "t");
    EXPECT_EQ(root->children[1]->localName, "c");

    for (const char* xml : {"", "<a>", "<a></a><b/>", "text", "<a x='1' x='2'/>"}) {
        SAXToNodeParser fresh;
        EXPECT_TRUE(startsWith(parseError(fresh, xml), "Fatal Error: parsing: From-String")) << xml;
    }
}

TEST(SAXToNodeParserTest, GetRootOfAFreshParserAndParsesThatReplaceTheTree) {
    SAXToNodeParser parser;
    XMLNode* fresh = parser.getRoot();
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->localName, "");
    EXPECT_TRUE(fresh->children.empty());
    EXPECT_EQ(parser.getRoot(), fresh);

    parser.parseString("<first><c/></first>");
    XMLNode* second = parser.parseString("<second/>");
    EXPECT_EQ(second->localName, "second");
    EXPECT_EQ(parser.getRoot(), second);
    parseError(parser, "<third><broken></third>");
    EXPECT_EQ(parser.getRoot()->localName, "third");
    EXPECT_EQ(parser.parseString("<fourth/>")->localName, "fourth");
}

// A library string made from ASCII text, released on scope exit.
class LibraryText {
public:
    explicit LibraryText(const char* text) : chars(xercesc::XMLString::transcode(text)) {}
    ~LibraryText() { xercesc::XMLString::release(&chars); }
    operator const XMLCh*() const { return chars; }

private:
    XMLCh* chars;
};

// No attribute or one, in no namespace, for driving the callbacks directly.
class FixedAttributes : public xercesc::Attributes {
public:
    FixedAttributes() {}
    FixedAttributes(const char* name, const char* value) {
        names.emplace_back(new LibraryText(name));
        values.emplace_back(new LibraryText(value));
    }
    XMLSize_t getLength() const override { return names.size(); }
    const XMLCh* getURI(const XMLSize_t) const override { return xercesc::XMLUni::fgZeroLenString; }
    const XMLCh* getLocalName(const XMLSize_t i) const override { return *names.at(i); }
    const XMLCh* getQName(const XMLSize_t i) const override { return *names.at(i); }
    const XMLCh* getType(const XMLSize_t) const override { return nullptr; }
    const XMLCh* getValue(const XMLSize_t i) const override { return *values.at(i); }
    bool getIndex(const XMLCh* const, const XMLCh* const, XMLSize_t&) const override {
        return false;
    }
    int getIndex(const XMLCh* const, const XMLCh* const) const override { return -1; }
    bool getIndex(const XMLCh* const, XMLSize_t&) const override { return false; }
    int getIndex(const XMLCh* const) const override { return -1; }
    const XMLCh* getType(const XMLCh* const, const XMLCh* const) const override { return nullptr; }
    const XMLCh* getType(const XMLCh* const) const override { return nullptr; }
    const XMLCh* getValue(const XMLCh* const, const XMLCh* const) const override { return nullptr; }
    const XMLCh* getValue(const XMLCh* const) const override { return nullptr; }

private:
    std::vector<std::unique_ptr<LibraryText>> names;
    std::vector<std::unique_ptr<LibraryText>> values;
};

// Callbacks outside any element: a second root start tag is refused (the tree
// stays), a stray end tag is reported on standard error and ignored.
TEST(SAXToNodeParserTest, CallbacksOutsideAnElementLeaveTheTree) {
    SAXToNodeParser parser;
    XMLNode* root = parser.parseString("<r><c/></r>");
    LibraryText empty(""), name("second");
    FixedAttributes none;
    try {
        parser.startElement(empty, name, name, none);
        ADD_FAILURE() << "no DomException";
    } catch (const DomException& e) {
        EXPECT_NE(e.getMessage().find("'second'"), std::string::npos) << e.getMessage();
    }
    testing::internal::CaptureStderr();
    parser.endElement(name, name, name);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "End element called when not inside one!\n");
    EXPECT_EQ(parser.getRoot(), root);
    EXPECT_EQ(root->children.size(), 1u);
}

// Callbacks driven by the caller may reuse one buffer for different texts.
TEST(SAXToNodeParserTest, CallbacksDrivenDirectlyReadEachUriAnew) {
    SAXToNodeParser parser;
    parser.parseString("<r xmlns=\"urn:parsed\"/>");
    SAXToNodeParser driven;
    XMLCh uri[] = {'u', 'r', 'n', ':', 'a', 0};
    LibraryText name("n");
    FixedAttributes none;
    driven.startElement(uri, name, name, none);
    uri[4] = 'b';
    driven.startElement(uri, name, name, none);
    XMLNode* root = driven.getRoot();
    EXPECT_EQ(root->uri, "urn:a");
    ASSERT_EQ(root->children.size(), 1u);
    EXPECT_EQ(root->children[0]->uri, "urn:b");
}

class TempFile {
public:
    explicit TempFile(const std::string& content) {
        char pattern[] = "/tmp/xml_tests_XXXXXX";
        int fd = mkstemp(pattern);
        path = pattern;
        if (fd >= 0) {
            close(fd);
        }
        std::ofstream(path, std::ios::binary) << content;
    }
    ~TempFile() { std::remove(path.c_str()); }
    std::string path;
};

TEST(SAXToNodeParserTest, ParseFileReadsOrReportsTheNamedDocument) {
    TempFile good("<?xml version=\"1.0\"?>\n<list><item>1</item></list>\n");
    SAXToNodeParser parser;
    XMLNode* root = parser.parseFile(good.path);
    EXPECT_EQ(root->localName, "list");
    ASSERT_EQ(root->children.size(), 1u);
    EXPECT_EQ(root->children[0]->text, "1");

    TempFile bad("<list>\n<item></list>");
    const std::string missing = "/tmp/xml_tests_no_such_file.xml";
    const std::pair<std::string, std::string> cases[] = {
        {bad.path, "Fatal Error: parsing: " + bad.path + ": line 2, char "},
        {missing, "XML Document '" + missing + "' does not exist.\n"}};
    for (const auto& c : cases) {
        try {
            parser.parseFile(c.first);
            ADD_FAILURE() << "no DomException for " << c.first;
        } catch (const DomException& e) {
            EXPECT_TRUE(startsWith(e.getMessage(), c.second)) << e.getMessage();
        }
    }
}

// SUB (0x1A) reaches the parser through XML 1.1 character references, file paths
// and, for names, which no XML version allows it in, callbacks driven directly.
class SubSwitch {
public:
    explicit SubSwitch(bool on) { SAXToNodeParser::setReplaceSubChars(on); }
    ~SubSwitch() { SAXToNodeParser::setReplaceSubChars(false); }
};

TEST(SAXToNodeParserTest, SubBytesAreReplacedInTextAndValuesOnlyWhenSwitchedOn) {
    const std::string xml =
        "<?xml version=\"1.1\"?><r xmlns=\"urn:&#x1A;\" a=\"v&#x1A;\">t&#x1A;</r>";
    for (bool on : {false, true}) {
        SubSwitch replace(on);
        const std::string sub = on ? "?" : "\x1A";
        SAXToNodeParser parser;
        XMLNode* root = parser.parseString(xml);
        EXPECT_EQ(root->uri, "urn:\x1A");
        EXPECT_EQ(root->getAttribute("a"), "v" + sub);
        EXPECT_EQ(root->text, "t" + sub);
    }
}

TEST(SAXToNodeParserTest, SubBytesInElementAndAttributeNamesAreNeverReplaced) {
    SubSwitch replace(true);
    SAXToNodeParser parser;
    LibraryText uri("urn:\x1A"), name("n\x1A"), text("t\x1A");
    FixedAttributes attributes("a\x1A", "v\x1A");
    parser.startElement(uri, name, name, attributes);
    parser.characters(text, 2);
    parser.endElement(uri, name, name);

    XMLNode* root = parser.getRoot();
    EXPECT_EQ(root->localName, "n\x1A");
    EXPECT_EQ(root->uri, "urn:\x1A");
    EXPECT_EQ(root->getAttribute("a\x1A"), "v?");
    EXPECT_EQ(root->text, "t?");
}

// The reader refuses the external DTD and quotes its path.
TEST(SAXToNodeParserTest, SubBytesInErrorTextsAreAlwaysReplaced) {
    const std::string dir = "/tmp/xml_tests_\x1A_" + std::to_string(getpid());
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    const std::string file = dir + "/doc.xml";
    std::ofstream(file) << "<!DOCTYPE r SYSTEM \"" << dir << "/missing.dtd\"><r/>";

    SubSwitch replace(false);
    SAXToNodeParser parser;
    std::string message;
    try {
        parser.parseFile(file);
    } catch (const DomException& e) {
        message = e.getMessage();
    }
    std::remove(file.c_str());
    rmdir(dir.c_str());

    const std::string shown = "/tmp/xml_tests_?_" + std::to_string(getpid());
    EXPECT_TRUE(startsWith(message, "Fatal Error: parsing: " + shown + "/doc.xml: line 1, char "))
        << message;
    EXPECT_NE(message.find("Message: "), std::string::npos) << message;
    EXPECT_NE(message.find(shown + "/missing.dtd"), std::string::npos) << message;
    EXPECT_EQ(message.find('\x1A'), std::string::npos) << message;
}

}  // namespace
