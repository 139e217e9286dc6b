// The stores under the engine: 16 threads, each one client of one server of 16,
// post 100-byte events (every post queued for the 15 others) and drain their
// own queue every 16 posts, through ServiceEngine::handle (request checks and
// documents included). Counters: posts/s and events delivered/s. The memory
// store is the baseline; the SQLite store runs in a fresh directory under /tmp
// with each synchronous level; the Redis store, when REDIS_PORT names a Redis
// on loopback, on that Redis (emptied first).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "engine/MemoryStore.h"
#include "engine/RedisStore.h"
#include "engine/ServiceEngine.h"
#include "engine/SqliteStore.h"
#include "protocol/Names.h"

namespace {

using namespace Arvant::Net::AvQuorvel::Engine;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

const int kClients = 16;

std::unique_ptr<ServiceEngine> engine;
std::string scratch;

RequestHeaders request(const char* operation, const std::string& client) {
    return {{Protocol::kServiceNameField, Protocol::kServiceName},
            {Protocol::kOperationNameField, operation},
            {Protocol::kServerIdField, "bench"},
            {Protocol::kClientIdField, client}};
}

// Thread 0 makes the engine before the threads start together, and drops it
// once they have all stopped.
void postAndDrain(benchmark::State& state, const std::function<std::unique_ptr<Store>()>& make) {
    const std::string me = "client" + std::to_string(state.thread_index());
    if (state.thread_index() == 0) {
        char pattern[] = "/tmp/quorvel-bench-XXXXXX";
        scratch = ::mkdtemp(pattern);
        engine = std::make_unique<ServiceEngine>(make());
        for (int i = 0; i < kClients; ++i) {
            std::string response;
            Failure failure;
            engine->handle(request(Protocol::kRegisterClient, "client" + std::to_string(i)), "",
                           response, failure);
        }
    }
    const RequestHeaders post = request(Protocol::kPutEvents, me),
                         get = request(Protocol::kGetEvents, me);
    const std::string body(100, 'e');
    std::string response;
    Failure failure;
    std::int64_t posts = 0, delivered = 0;
    for (auto _ : state) {
        if (!engine->handle(post, body, response, failure)) {
            state.SkipWithError(failure.message.c_str());
            break;
        }
        if (++posts % 16 == 0) {
            engine->handle(get, "", response, failure);
            for (std::size_t at = response.find("<ns0:event "); at != std::string::npos;
                 at = response.find("<ns0:event ", at + 1)) {
                ++delivered;
            }
        }
    }
    state.counters["posts/s"] =
        benchmark::Counter(static_cast<double>(posts), benchmark::Counter::kIsRate);
    state.counters["delivered/s"] =
        benchmark::Counter(static_cast<double>(delivered), benchmark::Counter::kIsRate);
    if (state.thread_index() == 0) {
        engine.reset();
        std::filesystem::remove_all(scratch);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const ServiceLimits limits;
    const std::pair<const char*, std::function<std::unique_ptr<Store>()>> stores[] = {
        {"store/memory", [&] { return std::make_unique<MemoryStore>(limits); }},
        {"store/sqlite", [&] { return std::make_unique<SqliteStore>(scratch, limits); }},
        {"store/sqliteSyncFull",
         [&] { return std::make_unique<SqliteStore>(scratch, limits, SqliteStore::Sync::Full); }},
    };
    for (const auto& store : stores) {
        benchmark::RegisterBenchmark(store.first, postAndDrain, store.second)
            ->Threads(kClients)
            ->UseRealTime();
    }
    const char* redisPort = std::getenv("REDIS_PORT");
    if (redisPort != nullptr && std::atoi(redisPort) > 0) {
        RedisAddress redis;
        redis.port = std::atoi(redisPort);
        const auto makeRedis = [redis, limits] {
            // Each run starts from an empty server: the last run's queues stay behind.
            std::system(
                ("redis-cli -p " + std::to_string(redis.port) + " FLUSHALL >/dev/null").c_str());
            return std::make_unique<RedisStore>(redis, limits);
        };
        benchmark::RegisterBenchmark("store/redis", postAndDrain, makeRedis)
            ->Threads(kClients)
            ->UseRealTime();
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
