#include "util/internal/ReaderMemory.h"

#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#define AVQVL_READER_MEMORY_CHUNKS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define AVQVL_READER_MEMORY_CHUNKS 0
#endif
#endif
#ifndef AVQVL_READER_MEMORY_CHUNKS
#define AVQVL_READER_MEMORY_CHUNKS 1
#endif

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

using xercesc::XMLPlatformUtils;

namespace {
// Every block is preceded by a header that says where it came from; the
// header's size keeps the block aligned for any type.
struct alignas(alignof(std::max_align_t)) BlockHeader {
    std::uint32_t extent;  // of a chunked block with its header; 0 for a heap block
};
const std::size_t kHeaderSize = sizeof(BlockHeader);
const std::size_t kAlignment = alignof(std::max_align_t);

inline std::size_t roundUp(std::size_t size) {
    return (size + kAlignment - 1) & ~(kAlignment - 1);
}

// Each thread keeps one chunk between parses. Besides the heap calls it saves,
// this keeps the heap's shape steady from call to call: a chunk freed after
// each parse can let the heap hand its top back to the system, and the large
// buffers of the next call then start on fresh pages.
//
// A parser that lives in a thread_local object of its own may be destroyed
// after the spare at thread exit; from then on chunks go straight to the heap.
// The flag has no destructor, so it stays readable until the thread is gone.
thread_local bool spareGone = false;
struct SpareChunk {
    char* chunk = nullptr;
    ~SpareChunk() {
        std::free(chunk);
        spareGone = true;
    }
};
thread_local SpareChunk spare;

char* newChunk() {
    char* chunk = nullptr;
    if (!spareGone) {
        chunk = spare.chunk;
        spare.chunk = nullptr;
    }
    return chunk != nullptr ? chunk : static_cast<char*>(std::malloc(ReaderMemory::kChunkSize));
}

void releaseChunk(char* chunk) {
    if (!spareGone && spare.chunk == nullptr) {
        spare.chunk = chunk;
    } else {
        std::free(chunk);
    }
}
}  // namespace

ReaderMemory::ReaderMemory() : top(nullptr), limit(nullptr) {}

ReaderMemory::~ReaderMemory() {
    for (char* chunk : chunks) {
        releaseChunk(chunk);
    }
}

xercesc::MemoryManager* ReaderMemory::getExceptionMemoryManager() {
    return XMLPlatformUtils::fgMemoryManager;
}

bool ReaderMemory::addChunk() {
    if (chunks.size() * kChunkSize >= kChunkLimit) {
        return false;
    }
    chunks.reserve(kChunkLimit / kChunkSize);
    char* chunk = newChunk();
    if (chunk == nullptr) {
        throw xercesc::OutOfMemoryException();
    }
    chunks.push_back(chunk);
    top = chunk;
    limit = chunk + kChunkSize;
    return true;
}

void* ReaderMemory::allocate(XMLSize_t size) {
    if (AVQVL_READER_MEMORY_CHUNKS && size <= kLargestChunkedBlock) {
        const std::size_t extent = kHeaderSize + roundUp(size);
        if (static_cast<std::size_t>(limit - top) >= extent || addChunk()) {
            char* header = top;
            top += extent;
            reinterpret_cast<BlockHeader*>(header)->extent = static_cast<std::uint32_t>(extent);
            return header + kHeaderSize;
        }
    }
    if (size > SIZE_MAX - kHeaderSize) {
        throw xercesc::OutOfMemoryException();
    }
    char* header =
        static_cast<char*>(XMLPlatformUtils::fgMemoryManager->allocate(kHeaderSize + size));
    reinterpret_cast<BlockHeader*>(header)->extent = 0;
    return header + kHeaderSize;
}

// A chunked block is given back only when it is the last one taken, which is
// how the reader's short-lived buffers come and go; the others wait for reset.
void ReaderMemory::deallocate(void* block) {
    if (block == nullptr) {
        return;
    }
    char* header = static_cast<char*>(block) - kHeaderSize;
    const std::uint32_t extent = reinterpret_cast<BlockHeader*>(header)->extent;
    if (extent == 0) {
        XMLPlatformUtils::fgMemoryManager->deallocate(header);
    } else if (header + extent == top) {
        top = header;
    }
}

void ReaderMemory::reset() {
    if (chunks.empty()) {
        return;
    }
    for (std::size_t i = 1; i < chunks.size(); ++i) {
        releaseChunk(chunks[i]);
    }
    chunks.resize(1);
    top = chunks.front();
    limit = top + kChunkSize;
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
