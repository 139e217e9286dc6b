// What quorveld knows of its store's health, for /readyz and the store gauges of
// /metrics, without an I/O thread ever waiting long on the store: a thread of
// its own asks the store (is it ready, then its figures) when someone wants to
// know, and each asker waits at most a moment for that answer, else takes the
// last one. A question the store leaves unanswered for longer than kOverdue
// makes it not ready, whatever it said before. Thread-safe.
#ifndef AVQVL_DAEMON_STOREWATCH_H
#define AVQVL_DAEMON_STOREWATCH_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "engine/ServiceEngine.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

struct StoreHealth {
    bool ready = false;
    std::string cause;  // why not, when not ready
    Engine::StoreStats stats;
};

class StoreWatch {
public:
    // The store's own readiness question (a Redis PING) gives up after 1 s; an
    // answer still missing a little after that is the store's silence.
    static constexpr std::chrono::milliseconds kOverdue{1500};

    explicit StoreWatch(Engine::ServiceEngine& engine);  // engine must outlive it
    ~StoreWatch();
    StoreWatch(const StoreWatch&) = delete;
    StoreWatch& operator=(const StoreWatch&) = delete;

    // Starts a question unless one is under way, waits up to wait for its answer.
    StoreHealth check(std::chrono::milliseconds wait);

private:
    void watch();

    Engine::ServiceEngine& engine;
    std::mutex mutex;  // guards everything below
    std::condition_variable wake, answered;
    bool asking = false;
    bool stopping = false;
    std::chrono::steady_clock::time_point askedAt;
    std::uint64_t answers = 0;
    StoreHealth last;
    std::thread thread;  // last: starts once the rest is ready
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_STOREWATCH_H
