#include "transport/internal/IdentityLedger.h"

#include <pthread.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

// Random bits from the system's source, so two processes (or two hosts) never
// draw the same id. They are drawn kPoolBytes at a time, one system call for
// many posts, into a pool each thread keeps. A child must never use bits its
// parent drew (both would post with the same ids): the fork handler empties
// the forking thread's pool in the child, where it is the only thread. (A
// std::random_device made per post probed the processor each time, a quarter
// of a small post's CPU time in the client.)
constexpr std::size_t kPoolBytes = 256;  // what getrandom() gives whole, uninterrupted

struct RandomPool {
    unsigned char bits[kPoolBytes];
    std::size_t used = kPoolBytes;
};

thread_local RandomPool randomPool;

void takeRandomBits(unsigned char* out, std::size_t count) {
    RandomPool& pool = randomPool;
    if (kPoolBytes - pool.used < count) {
        std::size_t filled = 0;
        while (filled < kPoolBytes) {
            const ssize_t got = ::getrandom(pool.bits + filled, kPoolBytes - filled, 0);
            if (got > 0) {
                filled += static_cast<std::size_t>(got);
            } else if (errno != EINTR) {
                throw std::system_error(errno, std::system_category(), "getrandom");
            }
        }
        pool.used = 0;
    }
    std::memcpy(out, pool.bits + pool.used, count);
    pool.used += count;
}

std::string randomPostId() {
    static const char digits[] = "0123456789abcdef";
    unsigned char bits[Wire::kPostIdDigits / 2];
    static_assert(kPoolBytes % sizeof bits == 0, "the pool serves whole ids");
    takeRandomBits(bits, sizeof bits);
    std::string id(Wire::kPostIdDigits, '0');
    for (std::size_t i = 0; i < sizeof bits; ++i) {
        id[2 * i] = digits[bits[i] >> 4];
        id[2 * i + 1] = digits[bits[i] & 0xF];
    }
    return id;
}

}  // namespace

IdentityLedger& IdentityLedger::instance() {
    static IdentityLedger* const ledger = new IdentityLedger();
    return *ledger;
}

// A fork while another thread holds the mutex would leave the child's copy
// locked for ever: the fork waits for the mutex and both sides release it.
// The process id is kept, as the C library no longer does; the child learns
// its own here, and empties its pool of random bits. (A child made by a raw
// clone() or a vfork() that does not exec runs no fork handler; such a child
// must not post or fetch.)
IdentityLedger::IdentityLedger() : self(static_cast<long>(::getpid())) {
    pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                   [] {
                       instance().self = static_cast<long>(::getpid());
                       randomPool.used = kPoolBytes;
                       instance().mutex.unlock();
                   });
}

std::uint64_t IdentityLedger::ackToSend(const Identity& identity) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = entries.find(identity);
    return found == entries.end() ? 0 : found->second.read;
}

void IdentityLedger::fetched(const Identity& identity, std::uint64_t sent,
                             std::uint64_t lastSequence) {
    std::lock_guard<std::mutex> lock(mutex);
    Entry& entry = entries[identity];
    entry.confirmed = std::max(entry.confirmed, sent);
    if (lastSequence > entry.read) {
        if (!entry.fetchOpen) {
            entry.readBefore = entry.read;
            entry.fetchOpen = true;
        }
        entry.read = lastSequence;
        entry.reader = self;
    }
}

void IdentityLedger::fetchCompleted(const Identity& identity, bool succeeded) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = entries.find(identity);
    if (found == entries.end() || !found->second.fetchOpen) {
        return;
    }
    Entry& entry = found->second;
    if (!succeeded) {
        entry.read = std::max(entry.readBefore, entry.confirmed);
    }
    entry.fetchOpen = false;
}

void IdentityLedger::acknowledged(const Identity& identity, std::uint64_t upTo) {
    std::lock_guard<std::mutex> lock(mutex);
    Entry& entry = entries[identity];
    entry.confirmed = std::max(entry.confirmed, upTo);
}

void IdentityLedger::takeOpen(std::vector<OpenAck>& open) {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& item : entries) {
        if (item.second.read > item.second.confirmed && item.second.reader == self) {
            open.push_back({item.first, item.second.read});
        }
    }
}

std::string IdentityLedger::postIdFor(const Identity& identity, const std::string& body) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto found = entries.find(identity);
        if (found != entries.end() && !found->second.postId.empty() &&
            found->second.postBody == body) {
            return found->second.postId;
        }
    }
    return randomPostId();
}

void IdentityLedger::posted(const Identity& identity, const std::string& body,
                            const std::string& postId, bool applied, bool outcomeUnknown) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = entries.find(identity);
    const bool retryOfKept = found != entries.end() && found->second.postId == postId;
    if (outcomeUnknown || (!applied && retryOfKept)) {
        Entry& entry = entries[identity];
        entry.postId = postId;
        entry.postBody = body;
    } else if (found != entries.end()) {
        // Only the next post may be the retry: whatever it was, the id is done.
        found->second.postId.clear();
        found->second.postBody.clear();
    }
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
