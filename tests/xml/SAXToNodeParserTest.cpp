// The element tree, the parser that builds it and the reader's memory.
#include <gtest/gtest.h>
#include <xercesc/framework/XMLAttr.hpp>
#include <xercesc/internal/VecAttributesImpl.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <thread>

#include "support/TreeText.h"
#include "util/SAXToNodeParser.h"
#include "util/internal/ReaderMemory.h"

using namespace Arvant::Net::AvQuorvel::Util;
using xercesc::SAXParseException;

namespace {

// Keeps the XML library initialised for every test of this program.
struct XercesLibrary : ::testing::Environment {
    void SetUp() override { xercesc::XMLPlatformUtils::Initialize(); }
    void TearDown() override { xercesc::XMLPlatformUtils::Terminate(); }
};
[[maybe_unused]] const auto* const env = ::testing::AddGlobalTestEnvironment(new XercesLibrary);

TEST(SAXToNodeParserTest, BuildsTheTreeOfXMLNodes) {
    const std::pair<std::string, std::string> cases[] = {
        {"<a><b>x</b>y<e/>z</a>", "<{}a>yz|<{}b>x|</><{}e>|</></>"},
        {"<r>x<!-- c -->y<![CDATA[z<&>]]><?pi d?></r>", "<{}r>xyz<&>|</>"},
        {"<r xmlns='urn:1'> <c xmlns='urn:2'/> </r>", "<{urn:1}r>  |<{urn:2}c>|</></>"},
        // The declaration is no attribute; of two attributes named a the later wins.
        {"<p:r xmlns:p='urn:x' xmlns:q='urn:q' q='1' p:a='2' q:a='3'/>",
         "<{urn:x}r a=[3] q=[1]>|</>"},
        // SUB stays while the switch is off; CallbacksDrivenDirectly turns it on.
        {"<?xml version='1.1'?><r xmlns='urn:&#x1A;' a='v&#x1A;'>t&#x1A;</r>",
         "<{urn:\x1A}r a=[v\x1A]>t\x1A|</>"},
    };
    SAXToNodeParser parser;
    for (const auto& c : cases) {  // each parse frees the tree before
        EXPECT_EQ(treeText(*parser.parseString(c.first)), c.second) << c.first;
    }

    // The node's own operations, on the last tree.
    XMLNode* root = parser.getRoot();
    EXPECT_TRUE(root->hasAttribute("a") && !root->hasAttribute("missing"));
    EXPECT_EQ(root->getAttribute("missing"), "");
}

template <typename Action>
std::string messageOf(Action action) {
    try {
        action();
    } catch (const DomException& e) {
        return e.getMessage();
    }
    return "no DomException";
}

TEST(SAXToNodeParserTest, ErrorsThrowTheirTextAndKeepTheTreeRead) {
    SAXToNodeParser parser;
    const std::string message = messageOf([&] { parser.parseString("<a><b>t</b><c>\n</d></a>"); });
    EXPECT_EQ(message.rfind("Fatal Error: parsing: From-String: line 2, char ", 0), 0u) << message;
    EXPECT_EQ(treeText(*parser.getRoot()), "<{}a>|<{}b>t|</><{}c>\n|</></>");

    // Reported directly: SUB always replaced, the switch being off.
    parser.parseString("<r/>");
    EXPECT_EQ(
        messageOf([&] { parser.fatalError(SAXParseException(u"m\x1A", u"", u"id\x1A", 3, 4)); }),
        "Fatal Error: parsing: id?: line 3, char 4\nMessage: m?\n");
    EXPECT_EQ(messageOf([&] { parser.error(SAXParseException(u"m", u"", u"", 1, 2)); }),
              "XML Document 'From String' does not exist.\n");
}

// Driven directly: no XML version allows SUB in a name, and the reader itself
// never sends events outside the root element.
TEST(SAXToNodeParserTest, CallbacksDrivenDirectly) {
    xercesc::RefVectorOf<xercesc::XMLAttr> list(1);
    list.addElement(new xercesc::XMLAttr(0, u"a\x1A", u"", u"v\x1A"));
    xercesc::VecAttributesImpl attributes;
    attributes.setVector(&list, 1, nullptr);
    SAXToNodeParser::setReplaceSubChars(true);
    SAXToNodeParser parser;
    parser.startElement(u"urn:\x1A", u"n\x1A", u"n\x1A", attributes);
    parser.characters(u"t\x1A", 2);
    parser.endElement(u"", u"", u"");
    SAXToNodeParser::setReplaceSubChars(false);
    const std::string tree = "<{urn:\x1A}n\x1A a\x1A=[v?]>t?|</>";
    EXPECT_EQ(treeText(*parser.getRoot()), tree);

    // A start tag once the root is closed is refused (there is no element to
    // append to); a stray end tag is ignored. The tree stays.
    EXPECT_THROW(parser.startElement(u"", u"second", u"second", attributes), DomException);
    parser.endElement(u"", u"r", u"r");
    EXPECT_EQ(treeText(*parser.getRoot()), tree);
}

// Sizes from zero to past the largest chunked block, for twice the chunk limit:
// every block aligned and none overlapping another.
TEST(ReaderMemoryTest, BlocksAreAlignedAndDisjoint) {
    ReaderMemory memory;
    std::vector<std::pair<unsigned char*, std::size_t>> blocks;
    for (std::size_t i = 0, total = 0; total < 2 * ReaderMemory::kChunkLimit; ++i) {
        const std::size_t size = (i * 37) % (ReaderMemory::kLargestChunkedBlock + 64);
        total += size;
        blocks.emplace_back(static_cast<unsigned char*>(memory.allocate(size)), size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back().first) % alignof(max_align_t), 0u);
        std::memset(blocks.back().first, static_cast<int>(i & 0xFF), size);
    }
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const auto end = blocks[i].first + blocks[i].second;
        EXPECT_EQ(std::count(blocks[i].first, end, i & 0xFF), end - blocks[i].first) << i;
        memory.deallocate(blocks[i].first);
    }
}

// At thread exit the thread's spare chunk can go before a thread_local object
// that still uses reader memory. The freed spare must not be handed out again,
// or memory the heap gave out since then is overwritten.
bool spareReusedAtExit = false;
struct UsesMemoryAtExit {
    ~UsesMemoryAtExit() {
        std::unique_ptr<char[]> other(new char[ReaderMemory::kChunkSize]);
        ReaderMemory memory;
        char* block = static_cast<char*>(memory.allocate(64));
        spareReusedAtExit = block >= other.get() && block < other.get() + ReaderMemory::kChunkSize;
        memory.deallocate(block);
    }
};

TEST(ReaderMemoryTest, UsersDestroyedAfterTheThreadsSpareChunkGetFreshMemory) {
    std::thread([] {
        thread_local UsesMemoryAtExit user;  // made before the spare, so destroyed after it
        ReaderMemory memory;
        memory.deallocate(memory.allocate(64));  // its chunk becomes the thread's spare
    }).join();
    EXPECT_FALSE(spareReusedAtExit);
}

}  // namespace
