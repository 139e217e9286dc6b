// Documents a hostile service could send: external entities and DTDs, entity
// expansion and attribute-default bombs. The parser opens no file a document
// names, stays within bounded time and memory, and reads documents without a
// DOCTYPE as the XML library's defaults would.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <xercesc/util/PlatformUtils.hpp>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "support/TreeText.h"
#include "util/SAXToNodeParser.h"

using namespace Arvant::Net::AvQuorvel::Util;

// What the documents point at. Whether it exists does not matter: the XML
// library calls fopen for a file either way.
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

static std::string repeat(const std::string& text, int times) {
    std::string out;
    while (times-- > 0) {
        out += text;
    }
    return out;
}

// Each row: a document, and the tree's text or a part of the error's. Unbounded,
// the hostile documents take minutes and gigabytes; bounded, well under a
// second natively.
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
        {"<!DOCTYPE r [<!ENTITY % p SYSTEM '" + file + "'> %p;]><r/>", "external entity"},
        {"<!DOCTYPE r SYSTEM '" + file + "'><r/>", "DTD"},
        {laughs + "]><r>&e9;</r>", "entity expansions"},
        {"<!DOCTYPE r [<!ENTITY big '" + std::string(100000, 'x') + "'>]><r>&big;</r>",
         "replacement text"},
        {"<!DOCTYPE r [<!ENTITY k '" + std::string(1000, 'k') + "'><!ATTLIST p:e x CDATA '" +
             repeat("&k;", 2000) + "'>]><r xmlns:p='urn:p'>" + repeat("<p:e/>", 2000) + "</r>",
         "characters to its elements"},
        // Harmless documents parse as before, with and without a DOCTYPE.
        {"<!DOCTYPE r [<!ENTITY e 'ab'><!ATTLIST c d CDATA '1'>]><r a='&e;'>&e;<c/><c d='3'/></r>",
         "<{}r a=[ab]>ab|<{}c d=[1]>|</><{}c d=[3]>|</></>"},
        {"<p:r xmlns:p='urn:x' q='1'>x<!-- c -->y<![CDATA[z]]><p:c/></p:r>",
         "<{urn:x}r q=[1]>xyz|<{urn:x}c>|</></>"},
        {"<r>" + repeat("&amp;&#65;", 20000) + "</r>",  // references are no expansions
         "<{}r>" + repeat("&A", 20000) + "|</>"},
        // With the library's defaults the schema would be loaded.
        {"<r xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
         "xsi:noNamespaceSchemaLocation='" +
             file + "'/>",
         "<{}r noNamespaceSchemaLocation=[" + file + "]>|</>"},
    };
    for (const auto& c : cases) {
        rusage before{}, after{};
        getrusage(RUSAGE_SELF, &before);
        const auto start = std::chrono::steady_clock::now();
        openings = 0;
        std::string result;
        try {
            SAXToNodeParser parser;
            result = treeText(*parser.parseString(c.first));
        } catch (const DomException& e) {
            result = e.getMessage();
        }
        getrusage(RUSAGE_SELF, &after);
        EXPECT_NE(result.find(c.second), std::string::npos) << result;
        EXPECT_EQ(openings, 0) << c.first.substr(0, 80);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 256 * 1024);  // KiB
    }
    // The hook does see the library open a file.
    EXPECT_THROW(SAXToNodeParser().parseFile(file), DomException);
    EXPECT_EQ(openings, 1);
    xercesc::XMLPlatformUtils::Terminate();
}

static std::string nested(std::size_t levels, const std::string& rootAttributes = "") {
    return "<r" + rootAttributes + ">" + repeat("<a>", static_cast<int>(levels - 1)) +
           repeat("</a>", static_cast<int>(levels - 1)) + "</r>";
}

// Depth is bounded: up to the bound a document parses and is freed;
// beyond it the parse ends in DomException naming the bound, never in a crash.
TEST(HostileDocumentTest, NestingIsBoundedAndDeepTreesNeverRecurse) {
    xercesc::XMLPlatformUtils::Initialize();
    {
        SAXToNodeParser parser;
        const XMLNode* node = parser.parseString(nested(kMaxElementDepth, " xmlns='urn:x'"));
        std::size_t levels = 0;
        for (; node != nullptr; node = node->children.empty() ? nullptr : node->children[0]) {
            EXPECT_EQ(node->uri, "urn:x");
            ++levels;
        }
        EXPECT_EQ(levels, kMaxElementDepth);
        for (std::size_t deeper : {kMaxElementDepth + 1, std::size_t{200000}}) {
            try {
                parser.parseString(nested(deeper));
                ADD_FAILURE() << deeper << " levels parsed";
            } catch (const DomException& e) {
                EXPECT_NE(e.getMessage().find("nested more than 10000 levels deep"),
                          std::string::npos)
                    << e.getMessage();
            }
        }
        // The parser is whole after a refusal.
        EXPECT_EQ(treeText(*parser.parseString("<r><c/></r>")), "<{}r>|<{}c>|</></>");
    }  // the parser goes before the XML library ends
    xercesc::XMLPlatformUtils::Terminate();

    // Trees built by hand may be deeper still; null children are skipped.
    XMLNode* chain = new XMLNode();
    XMLNode* tip = chain;
    for (int i = 0; i < 1000000; ++i) {  // far past what recursion survives
        tip->children.push_back(nullptr);
        tip->children.push_back(new XMLNode());
        tip->children.back()->parent = tip;
        tip = tip->children.back();
    }
    delete chain;
}
