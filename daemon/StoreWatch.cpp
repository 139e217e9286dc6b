#include "daemon/StoreWatch.h"

#include <utility>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

using Clock = std::chrono::steady_clock;

namespace {

// One question to the store; never throws.
StoreHealth ask(Engine::ServiceEngine& engine) {
    StoreHealth health;
    try {
        if (!engine.ready(health.cause)) {
            return health;
        }
        health.stats = engine.stats();
        health.ready = true;
    } catch (const Protocol::Failure& failure) {
        health.cause = failure.message;
    } catch (...) {
        health.cause = "the store failed without saying why";
    }
    return health;
}

}  // namespace

StoreWatch::StoreWatch(Engine::ServiceEngine& engine)
    : engine(engine), thread([this] { watch(); }) {
    last.cause = "the store has not answered yet";
}

StoreWatch::~StoreWatch() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    // A question under way ends with the store's own time-out.
    thread.join();
}

StoreHealth StoreWatch::check(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mutex);
    if (!asking) {
        asking = true;
        askedAt = Clock::now();
        wake.notify_one();
    }
    const std::uint64_t wanted = answers + 1;
    answered.wait_for(lock, wait, [&] { return answers >= wanted; });
    const auto silent = Clock::now() - askedAt;
    if (asking && silent > kOverdue) {
        StoreHealth health = last;
        health.ready = false;
        health.cause =
            "the store has not answered for " +
            std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(silent).count()) +
            " ms";
        return health;
    }
    return last;
}

void StoreWatch::watch() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || asking; });
        if (stopping) {
            return;
        }
        lock.unlock();
        StoreHealth health = ask(engine);
        lock.lock();
        last = std::move(health);
        asking = false;
        ++answers;
        answered.notify_all();
    }
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
