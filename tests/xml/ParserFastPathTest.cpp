// The parser copies ASCII names and texts itself where the XML library's
// converter keeps ASCII as it is. Here the general path, every text converted by
// the library with the SUB rule applied, builds a second tree from the same
// callbacks; on random documents the two trees must be equal, under code pages
// that keep ASCII and code pages that do not.
#include <gtest/gtest.h>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>

#include <algorithm>
#include <iterator>

#include "IcuHooks.h"
#include "support/TreeText.h"
#include "util/SAXToNodeParser.h"

using namespace Arvant::Net::AvQuorvel::Util;
using xercesc::XMLPlatformUtils;

namespace {

std::string throughLibrary(const XMLCh* text, bool replace) {
    char* converted = xercesc::XMLString::transcode(text, XMLPlatformUtils::fgMemoryManager);
    std::string result(converted != nullptr ? converted : "");
    xercesc::XMLString::release(&converted, XMLPlatformUtils::fgMemoryManager);
    if (replace) {
        std::replace(result.begin(), result.end(), '\x1A', '?');
    }
    return result;
}

// The tree the library's own conversion gives, from the same callbacks.
struct GeneralPath : SAXToNodeParser {
    explicit GeneralPath(bool replace) : replace(replace) {}
    void startElement(const XMLCh* uri, const XMLCh* name, const XMLCh* qname,
                      const xercesc::Attributes& attrs) override {
        SAXToNodeParser::startElement(uri, name, qname, attrs);
        XMLNode* node = open.empty() ? &root : new XMLNode();
        if (node != &root) {
            node->parent = open.back();
            open.back()->children.push_back(node);
        }
        node->uri = throughLibrary(uri, false);
        node->localName = throughLibrary(name, false);
        for (XMLSize_t i = 0; i < attrs.getLength(); ++i) {
            node->setAttribute(throughLibrary(attrs.getLocalName(i), false),
                               throughLibrary(attrs.getValue(i), replace));
        }
        open.push_back(node);
    }
    void characters(const XMLCh* chars, const XMLSize_t length) override {
        SAXToNodeParser::characters(chars, length);
        open.back()->text += throughLibrary(chars, replace);
    }
    void endElement(const XMLCh* uri, const XMLCh* name, const XMLCh* qname) override {
        SAXToNodeParser::endElement(uri, name, qname);
        open.pop_back();
    }
    XMLNode root;
    const bool replace;
    std::vector<XMLNode*> open;
};

// XML 1.1, so that control characters and SUB may come as references. Each
// text piece as a whole text and after an ASCII one, each name piece in names.
const char* const kText[] = {
    "a",    "Z",      "+",      " ",        "&amp;",    "&lt;",         "&#x1A;",
    "&#1;", "&#x7F;", "&#x85;", "\xC3\xA9", "\xCE\xB1", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
const char* const kName[] = {"a", "Z", "_", "-", "9", "\xC3\xA9", "\xE4\xB8\xAD"};

std::string document(const std::string& text, const std::string& name) {
    return "<?xml version='1.1'?><r>" + text + "<e" + name + " a" + name + "='a" + text +
           "' xmlns='urn:" + text + "'>a" + text + "</e" + name + ">" + text + "</r>";
}

// ICU's default converter (its own is UTF-8) becomes the XML library's when the
// library starts; second in each row, what that converter makes of "a+\u00E9".
TEST(ParserFastPathTest, TreesEqualTheGeneralPaths) {
    const std::pair<const char*, const char*> cases[] = {
        {nullptr, "a+\xC3\xA9"}, {"US-ASCII", "a+\x1A"}, {"UTF-16LE", "a"}, {"UTF-7", "a+-+AOk-"}};
    for (const auto& c : cases) {
        IcuHooks::setDefaultConverter(c.first);
        XMLPlatformUtils::Initialize();
        SCOPED_TRACE(c.first != nullptr ? c.first : "default");
        EXPECT_EQ(throughLibrary(u"a+\xE9", false), c.second);
        for (std::size_t i = 0; i < std::size(kText) * std::size(kName) && !HasFailure(); ++i) {
            for (const bool replace : {false, true}) {
                SAXToNodeParser::setReplaceSubChars(replace);
                const std::string xml =
                    document(kText[i % std::size(kText)], kName[i / std::size(kText)]);
                GeneralPath parser(replace);
                const std::string tree = treeText(*parser.parseString(xml));
                SAXToNodeParser::setReplaceSubChars(false);
                EXPECT_EQ(tree, treeText(parser.root)) << xml;
            }
        }
        XMLPlatformUtils::Terminate();
    }
    IcuHooks::setDefaultConverter(nullptr);
}

}  // namespace
