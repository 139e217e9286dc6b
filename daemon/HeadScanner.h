// Finds the end of one request head in the bytes that have arrived and checks
// its size, before any parser sees it. No I/O: the connection feeds it what it
// has read, as often as it likes, and acts on the verdict. One scanner per
// request; not safe across threads.
#ifndef AVQVL_DAEMON_HEADSCANNER_H
#define AVQVL_DAEMON_HEADSCANNER_H

#include <cstddef>

#include "daemon/Refusals.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

struct HeadVerdict {
    enum class Kind { NeedMore, Complete, Refused };
    Kind kind = Kind::NeedMore;
    std::size_t headBytes = 0;                   // Complete: the head, its empty line included
    Unreadable refusal = Unreadable::Malformed;  // Refused: refusalStatus() gives the status
};

class HeadScanner {
public:
    // A head holds at most maxHeadBytes, each of its lines (LF included) at
    // most maxLineBytes. The head is measured alone: bytes that follow it (a
    // body, the next pipelined request) never count.
    HeadScanner(std::size_t maxHeadBytes, std::size_t maxLineBytes);

    // bytes: everything of this request that has arrived, from its first
    // byte. Each call must see the bytes of the call before it unchanged, and
    // perhaps more; only the new ones are scanned. The first line is the
    // request line; an empty line ("\r\n" or "\n") after it ends the head. A
    // Complete or Refused verdict stays.
    HeadVerdict scan(const char* bytes, std::size_t size);

private:
    const std::size_t maxHeadBytes;
    const std::size_t maxLineBytes;
    std::size_t scanned = 0;    // bytes looked at
    std::size_t lineStart = 0;  // where the line under way began
    HeadVerdict verdict;
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_HEADSCANNER_H
