// The reader's memory: blocks from chunks, handed back only from the top, the
// heap past the bounds, and a parse far larger than the chunks allow.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "util/ReaderMemory.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Util::ReaderMemory;
using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::XMLNode;

namespace {

struct Block {
    unsigned char* at;
    std::size_t size;
};

// Fills every block with its own byte, then checks that none was overwritten.
void expectDisjoint(const std::vector<Block>& blocks) {
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        std::memset(blocks[i].at, static_cast<int>(i & 0xFF), blocks[i].size);
    }
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        for (std::size_t b = 0; b < blocks[i].size; ++b) {
            ASSERT_EQ(blocks[i].at[b], i & 0xFF) << "block " << i << " byte " << b;
        }
    }
}

TEST(ReaderMemoryTest, BlocksAreAlignedDisjointAndOnlyTheLastComesBack) {
    ReaderMemory memory;
    std::vector<Block> blocks;
    // Sizes around the largest chunked block, zero included, past the chunk limit.
    std::size_t total = 0;
    for (std::size_t i = 0; total < 2 * ReaderMemory::kChunkLimit; ++i) {
        const std::size_t size = (i * 37) % (ReaderMemory::kLargestChunkedBlock + 64);
        void* block = memory.allocate(size);
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
        blocks.push_back({static_cast<unsigned char*>(block), size});
        total += size;
    }
    expectDisjoint(blocks);
    for (const Block& block : blocks) {
        memory.deallocate(block.at);
    }
    memory.deallocate(nullptr);

    if (ReaderMemory::kChunked) {
        memory.reset();  // no block may outlive a reset
        void* first = memory.allocate(64);
        void* second = memory.allocate(64);
        memory.deallocate(first);  // not the last one: stays taken
        EXPECT_NE(memory.allocate(64), first);
        memory.deallocate(second);
        void* again = memory.allocate(48);
        EXPECT_NE(again, second) << "a block above the freed one is still taken";
    }
}

TEST(ReaderMemoryTest, TheLastBlockIsReusedWhileChunksRemain) {
    if (!ReaderMemory::kChunked) {
        GTEST_SKIP() << "every block comes from the heap in this build";
    }
    ReaderMemory memory;
    void* keep = memory.allocate(10);
    void* top = memory.allocate(500);
    memory.deallocate(top);
    EXPECT_EQ(memory.allocate(500), top);
    EXPECT_NE(keep, top);
}

// At thread exit the thread's spare chunk can go before a thread_local object
// that still uses reader memory, such as a parser kept per thread. The freed
// spare must not be handed out again: memory the heap gave out since then stays
// untouched (and the chunks of such late users go back to the heap).
bool spareReusedAtExit = false;
struct UsesMemoryAtExit {
    ~UsesMemoryAtExit() {
        std::unique_ptr<char[]> other(new char[ReaderMemory::kChunkSize]);
        ReaderMemory memory;
        char* block = static_cast<char*>(memory.allocate(64));
        spareReusedAtExit = block >= other.get() && block < other.get() + ReaderMemory::kChunkSize;
    }
};

TEST(ReaderMemoryTest, UsersDestroyedAfterTheThreadsSpareChunkGetFreshMemory) {
    if (!ReaderMemory::kChunked) {
        GTEST_SKIP() << "every block comes from the heap in this build";
    }
    std::thread([] {
        thread_local UsesMemoryAtExit user;  // made before the spare, so destroyed after it
        ReaderMemory memory;
        memory.allocate(64);  // its chunk becomes the thread's spare
    }).join();
    EXPECT_FALSE(spareReusedAtExit);
}

// Many more elements than the chunks hold: the reader's later blocks come from
// the heap, and the tree is whole. Parsed twice to go through a reset.
TEST(ReaderMemoryTest, ParsesFarLargerThanTheChunksAreWhole) {
    std::string document = "<r xmlns=\"urn:big\">";
    const int kElements = 20000;
    for (int i = 0; i < kElements; ++i) {
        document += "<e" + std::to_string(i % 300) + " a=\"" + std::to_string(i) + "\">t" +
                    std::to_string(i) + "</e" + std::to_string(i % 300) + ">";
    }
    document += "</r>";
    SAXToNodeParser parser;
    for (int round = 0; round < 2; ++round) {
        XMLNode* root = parser.parseString(document);
        ASSERT_EQ(root->children.size(), static_cast<std::size_t>(kElements));
        const XMLNode* last = root->children.back();
        EXPECT_EQ(last->localName, "e" + std::to_string((kElements - 1) % 300));
        EXPECT_EQ(last->uri, "urn:big");
        EXPECT_EQ(last->text, "t" + std::to_string(kElements - 1));
        EXPECT_EQ(last->getAttribute("a"), std::to_string(kElements - 1));
    }
}

}  // namespace
