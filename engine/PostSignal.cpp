#include "engine/PostSignal.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

PostSignal::Watch::Watch(PostSignal& signal, const std::string& serverId) : signal(signal) {
    std::lock_guard<std::mutex> lock(signal.mutex);
    entry = signal.watched.emplace(serverId, std::make_pair(0, 0)).first;
    ++entry->second.second;
}

PostSignal::Watch::~Watch() {
    std::lock_guard<std::mutex> lock(signal.mutex);
    if (--entry->second.second == 0) {
        signal.watched.erase(entry);
    }
}

std::uint64_t PostSignal::Watch::posts() {
    std::lock_guard<std::mutex> lock(signal.mutex);
    return entry->second.first;
}

bool PostSignal::Watch::waitPast(std::uint64_t seen, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(signal.mutex);
    return signal.posted.wait_until(lock, deadline, [&] { return entry->second.first != seen; });
}

// One condition for every server: a wake for another server costs a waiter a
// look at its count, never a look at the store.
void PostSignal::notify(const std::string& serverId) noexcept {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (serverId.empty()) {
            for (auto& server : watched) {
                ++server.second.first;
            }
        } else {
            const auto found = watched.find(serverId);
            if (found == watched.end()) {
                return;
            }
            ++found->second.first;
        }
    }
    posted.notify_all();
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
