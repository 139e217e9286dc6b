// The request-head scanner over one input fed in pieces: whatever the split,
// the verdict is the one the whole input gets, a complete head ends on a line
// feed within the limit, and a refusal names a length limit.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "daemon/HeadScanner.h"

using namespace Arvant::Net::AvQuorvel::Daemon;

namespace {

constexpr std::size_t kMaxHead = 4096;
constexpr std::size_t kMaxLine = 512;

HeadVerdict scanWhole(const char* bytes, std::size_t size) {
    HeadScanner scanner(kMaxHead, kMaxLine);
    return scanner.scan(bytes, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte sets the size of the pieces the rest arrives in.
    const std::size_t piece = 1 + data[0] % 64;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    const std::size_t length = size - 1;
    HeadScanner scanner(kMaxHead, kMaxLine);
    HeadVerdict verdict;
    for (std::size_t seen = 0; seen < length && verdict.kind == HeadVerdict::Kind::NeedMore;) {
        seen = seen + piece < length ? seen + piece : length;
        verdict = scanner.scan(bytes, seen);
    }
    const HeadVerdict whole = scanWhole(bytes, length);
    if (verdict.kind != whole.kind || verdict.headBytes != whole.headBytes ||
        (verdict.kind == HeadVerdict::Kind::Refused && verdict.refusal != whole.refusal)) {
        std::abort();
    }
    if (verdict.kind == HeadVerdict::Kind::Complete &&
        (verdict.headBytes > kMaxHead || bytes[verdict.headBytes - 1] != '\n')) {
        std::abort();
    }
    if (verdict.kind == HeadVerdict::Kind::Refused && verdict.refusal != Unreadable::HeadTooLong &&
        verdict.refusal != Unreadable::HeaderLineTooLong) {
        std::abort();
    }
    return 0;
}
