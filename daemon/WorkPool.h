// The threads that run quorveld's store work, so that a store that hangs holds
// them and the requests waiting for them, never the I/O threads (which keep
// serving /healthz, /readyz, /metrics and every other connection).
//
// Bounded: at most maxQueued tasks wait for a thread; trySubmit() refuses more
// (the daemon answers 503), submit() does not (for work that must not be
// dropped, such as putting back the events of an answer that never arrived)
// and queues it ahead of the waiting exchanges.
// A task that throws is ended by the pool, never the process. Thread-safe. The
// destructor runs the tasks still queued, then joins the threads.
#ifndef AVQVL_DAEMON_WORKPOOL_H
#define AVQVL_DAEMON_WORKPOOL_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

class WorkPool {
public:
    WorkPool(unsigned threads, std::size_t maxQueued);
    ~WorkPool();
    WorkPool(const WorkPool&) = delete;
    WorkPool& operator=(const WorkPool&) = delete;

    // False, and task dropped, when maxQueued tasks are waiting already.
    bool trySubmit(std::function<void()> task);
    void submit(std::function<void()> task);

private:
    void work();
    void stopAll();  // lets the queued tasks run, then joins every thread

    const std::size_t maxQueued;
    std::mutex mutex;  // guards tasks and stopping
    std::condition_variable wake;
    std::deque<std::function<void()>> tasks;
    bool stopping = false;
    std::vector<std::thread> threads;
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_WORKPOOL_H
