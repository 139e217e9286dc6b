// Documents a hostile service could send. The parser opens no file a document
// names (external entity, DTD or schema), bounds entity expansion, replacement
// text, attribute defaults and nesting, and still reads harmless DOCTYPEs.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstdio>
#include <cstring>

#include "support/TreeText.h"
#include "util/SAXToNodeParser.h"

using namespace Arvant::Net::AvQuorvel::Util;

// What the documents point at; the XML library calls fopen whether it exists or not.
static const char* const kFile = "/tmp/hardening-hostile-document-target";
static int openings = 0;

// Exported (the build hides symbols by default) so that the dynamic linker
// binds the XML library to it.
extern "C" __attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
    openings += path != nullptr && std::strstr(path, kFile) != nullptr;
    static const auto real =
        reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
    return real(path, mode);
}

static std::string repeat(const std::string& text, std::size_t times) {
    std::string out;
    while (times-- > 0) {
        out += text;
    }
    return out;
}

// One row per defence: the document, and the tree's text or a part of the error's.
TEST(HostileDocumentTest, NothingExternalIsOpenedAndExpansionIsBounded) {
    xercesc::XMLPlatformUtils::Initialize();
    const std::string file = kFile;
    std::string laughs = "<!DOCTYPE r [<!ENTITY e0 'lol'>";
    for (int i = 1; i < 10; ++i) {
        laughs += "<!ENTITY e" + std::to_string(i) + " '" +
                  repeat("&e" + std::to_string(i - 1) + ";", 10) + "'>";
    }
    const std::pair<std::string, std::string> cases[] = {
        {"<!DOCTYPE r [<!ENTITY x SYSTEM 'file://" + file + "'>]><r>&x;</r>", "external entity"},
        {laughs + "]><r>&e9;</r>", "entity expansions"},
        {"<!DOCTYPE r [<!ENTITY big '" + std::string(100000, 'x') + "'>]><r>&big;</r>",
         "replacement text"},
        {"<!DOCTYPE r [<!ENTITY k '" + std::string(1000, 'k') + "'><!ATTLIST p:e x CDATA '" +
             repeat("&k;", 2000) + "'>]><r xmlns:p='urn:p'>" + repeat("<p:e/>", 2000) + "</r>",
         "characters to its elements"},
        {"<r xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
         "xsi:noNamespaceSchemaLocation='" +
             file + "'/>",
         "<{}r noNamespaceSchemaLocation=[" + file + "]>|</>"},
        // A harmless DOCTYPE parses as before.
        {"<!DOCTYPE r [<!ENTITY e 'ab'><!ATTLIST c d CDATA '1'>]><r a='&e;'>&e;<c/><c d='3'/></r>",
         "<{}r a=[ab]>ab|<{}c d=[1]>|</><{}c d=[3]>|</></>"},
    };
    for (const auto& c : cases) {
        openings = 0;
        std::string result;
        try {
            result = treeText(*SAXToNodeParser().parseString(c.first));
        } catch (const DomException& e) {
            result = e.getMessage();
        }
        EXPECT_NE(result.find(c.second), std::string::npos) << result;
        EXPECT_EQ(openings, 0) << c.first.substr(0, 80);
    }
    EXPECT_THROW(SAXToNodeParser().parseFile(file), DomException);
    EXPECT_EQ(openings, 1);  // the hook does see the library open a file

    // Depth: up to the bound a document parses, beyond it the parse is refused,
    // and the parser is whole after a refusal.
    const auto nested = [](std::size_t levels) {
        return "<r>" + repeat("<a>", levels - 1) + repeat("</a>", levels - 1) + "</r>";
    };
    {  // the parser goes before the XML library ends
        SAXToNodeParser parser;
        EXPECT_NO_THROW(parser.parseString(nested(kMaxElementDepth)));
        EXPECT_THROW(parser.parseString(nested(kMaxElementDepth + 1)), DomException);
        EXPECT_EQ(treeText(*parser.parseString("<r><c/></r>")), "<{}r>|<{}c>|</></>");
    }
    xercesc::XMLPlatformUtils::Terminate();

    // Trees built by hand may be deeper still and are freed without recursion.
    XMLNode* chain = new XMLNode();
    XMLNode* tip = chain;
    for (int i = 0; i < 1000000; ++i, tip = tip->children.back()) {
        tip->children.push_back(nullptr);  // null children are skipped
        tip->children.push_back(new XMLNode());
    }
    delete chain;
}
