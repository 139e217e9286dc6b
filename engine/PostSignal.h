// Wakes the callers of ServiceEngine::handle that wait for a post to their
// server. A caller takes a Watch before it looks at the store, so that a post
// made between its look and its wait still wakes it. Thread-safe; notify()
// never throws.
#ifndef AVQVL_ENGINE_POSTSIGNAL_H
#define AVQVL_ENGINE_POSTSIGNAL_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

class PostSignal {
public:
    using Clock = std::chrono::steady_clock;

    // Counts the posts to one server while it lives (may throw std::bad_alloc).
    class Watch {
    public:
        Watch(PostSignal& signal, const std::string& serverId);
        ~Watch();
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        // The posts counted so far.
        std::uint64_t posts();
        // Blocks until the count passes seen (true) or until deadline (false).
        bool waitPast(std::uint64_t seen, Clock::time_point deadline);

    private:
        PostSignal& signal;
        std::map<std::string, std::pair<std::uint64_t, std::size_t>>::iterator entry;
    };

    // A post to serverId; "" stands for every server.
    void notify(const std::string& serverId) noexcept;

private:
    std::mutex mutex;  // guards watched
    std::condition_variable posted;
    // By server with a watcher: (posts counted, watchers).
    std::map<std::string, std::pair<std::uint64_t, std::size_t>> watched;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_POSTSIGNAL_H
