#include "daemon/WorkPool.h"

#include <algorithm>
#include <utility>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

WorkPool::WorkPool(unsigned count, std::size_t maxQueued) : maxQueued(maxQueued) {
    try {
        for (unsigned i = 0; i < std::max(1u, count); ++i) {
            threads.emplace_back([this] { work(); });
        }
    } catch (...) {
        stopAll();  // a thread that could not start: the ones that did must end
        throw;
    }
}

WorkPool::~WorkPool() {
    stopAll();
}

void WorkPool::stopAll() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

bool WorkPool::trySubmit(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (tasks.size() >= maxQueued) {
            return false;
        }
        tasks.push_back(std::move(task));
    }
    wake.notify_one();
    return true;
}

void WorkPool::submit(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        // Work that must run (events put back) goes ahead of waiting exchanges,
        // so that they are back before a newer fetch of the same client.
        tasks.push_front(std::move(task));
    }
    wake.notify_one();
}

void WorkPool::work() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(mutex);
            wake.wait(lock, [this] { return stopping || !tasks.empty(); });
            if (tasks.empty()) {
                return;
            }
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        try {
            task();
        } catch (...) {
            // The task's own reply is its business; this thread stays.
        }
    }
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
