#include "daemon/HeadScanner.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

HeadScanner::HeadScanner(std::size_t maxHeadBytes, std::size_t maxLineBytes)
    : maxHeadBytes(maxHeadBytes), maxLineBytes(maxLineBytes) {}

HeadVerdict HeadScanner::scan(const char* bytes, std::size_t size) {
    for (; verdict.kind == HeadVerdict::Kind::NeedMore && scanned < size; ++scanned) {
        const std::size_t lineBytes = scanned - lineStart + 1;
        if (lineBytes > maxLineBytes || scanned + 1 > maxHeadBytes) {
            verdict.kind = HeadVerdict::Kind::Refused;
            verdict.refusal =
                lineBytes > maxLineBytes ? Unreadable::HeaderLineTooLong : Unreadable::HeadTooLong;
            break;
        }
        if (bytes[scanned] != '\n') {
            continue;
        }
        const bool empty = lineBytes == 1 || (lineBytes == 2 && bytes[lineStart] == '\r');
        if (empty && lineStart > 0) {
            verdict.kind = HeadVerdict::Kind::Complete;
            verdict.headBytes = scanned + 1;
            break;
        }
        lineStart = scanned + 1;
    }
    return verdict;
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
