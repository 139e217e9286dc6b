// Memory for one XML reader and its parse. Creating, running and destroying a
// reader takes some hundreds of small blocks, each one a heap call each way;
// here they come from a few chunks that are released together once the reader
// is gone. Large blocks, and every block past a bound on the chunks, come from
// the XML library's own manager, so a parse holds at most kChunkLimit bytes
// more than it would with that manager alone.
//
// Internal to the library: not installed; exported only so that its tests can
// reach it in the shared library.
#ifndef AVQVL_UTIL_INTERNAL_READERMEMORY_H
#define AVQVL_UTIL_INTERNAL_READERMEMORY_H

#include <xercesc/framework/MemoryManager.hpp>

#include <cstddef>
#include <vector>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

class AVQVL_EXPORT ReaderMemory : public xercesc::MemoryManager {
public:
    ReaderMemory();
    // Every reader that used this memory must be destroyed first.
    ~ReaderMemory() override;
    ReaderMemory(const ReaderMemory&) = delete;
    ReaderMemory& operator=(const ReaderMemory&) = delete;

    // Exceptions may outlive the reader: they use the library's own manager.
    xercesc::MemoryManager* getExceptionMemoryManager() override;
    // Throws the library's OutOfMemoryException when the heap is exhausted.
    void* allocate(XMLSize_t size) override;
    void deallocate(void* block) override;

    // Makes every chunk free again, keeping the first for the next reader.
    // Every reader that used this memory must be destroyed first.
    void reset();

    static const std::size_t kChunkSize = 16 * 1024;
    static const std::size_t kChunkLimit = 16 * kChunkSize;
    static const std::size_t kLargestChunkedBlock = 2 * 1024;

private:
    // Starts a new chunk; false once the chunks have reached kChunkLimit.
    bool addChunk();

    std::vector<char*> chunks;
    char* top;    // next free byte of the last chunk
    char* limit;  // end of the last chunk
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_INTERNAL_READERMEMORY_H
