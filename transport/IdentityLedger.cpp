#include "transport/internal/IdentityLedger.h"

#include <pthread.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

// 128 random bits from the system's source, so two processes (or two hosts)
// never draw the same id; no generator state to share or to reseed after a fork.
// One getrandom() call: a std::random_device made per post probed the processor
// (cpuid, a trap to the hypervisor in a virtual machine) each time, a quarter
// of a small post's CPU time in the client.
std::string randomPostId() {
    static const char digits[] = "0123456789abcdef";
    unsigned char bits[Wire::kPostIdDigits / 2];
    std::size_t filled = 0;
    while (filled < sizeof bits) {
        const ssize_t got = ::getrandom(bits + filled, sizeof bits - filled, 0);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::system_category(), "getrandom");
        }
    }
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
IdentityLedger::IdentityLedger() {
    pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                   [] { instance().mutex.unlock(); });
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
        entry.reader = static_cast<long>(::getpid());
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
    const long self = static_cast<long>(::getpid());
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
