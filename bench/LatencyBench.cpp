// How soon a waiting client hears of a post, and what waiting clients cost.
//   latency/postToReceipt/N: N clients (1, 16), each an AvQVLConnection in
//     waitForEvents on its own thread against QUORVEL_URL; a poster writes
//     putEvents by hand to the daemon on POST_PORT (default: the same one, so a
//     second daemon on the same Redis shows the wake-up across daemons). Each
//     post carries its steady-clock time; p50_us and p99_us over every receipt.
//   latency/redisBlpop/N (REDIS_PORT): the same shape on Redis itself, the
//     baseline: LPUSH to the lists of N clients blocked in BLPOP (hiredis).
//   waiters/idle1000 (QUORVEL_PID): 1000 clients left waiting on connections of
//     their own; the daemon's CPU over 10 s (cpu_pct of one core) and its
//     resident memory per waiter (kb_per_waiter).
//   waiters/fanOut16With1000Waiting: the fan-out throughput while they wait,
//     to compare with daemon/fanOut16/putEvents of the service benchmarks.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "OperationBench.h"
#include "RawExchange.h"
#include "client/AvQVLConnection.h"
#include "protocol/Names.h"

namespace {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Clock = std::chrono::steady_clock;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

constexpr auto kReceiptTimeout = std::chrono::seconds(5);
constexpr int kIdleWaiters = 1000;

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

Bench::Fields fields(const char* operation, const std::string& server, const std::string& client) {
    return {{Protocol::kServiceNameField, Protocol::kServiceName},
            {Protocol::kOperationNameField, operation},
            {Protocol::kServerIdField, server},
            {Protocol::kClientIdField, client}};
}

// Every receipt's delay, and the count the poster waits for. The poster is
// woken once, by the receipt that completes its count: a wake-up per receipt
// would cost the measured programs CPU of the harness's own.
struct Receipts {
    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    std::vector<double> micros;
    int ready = 0;
    long count = 0;
    long expected = 0;
    std::atomic<bool> stopping{false};  // also set when the stop post fails

    void add(std::int64_t sentNs) {
        const double us = static_cast<double>(nowNs() - sentNs) / 1000.0;
        std::lock_guard<std::mutex> lock(mutex);
        micros.push_back(us);
        if (++count == expected) {
            changed.notify_all();
        }
    }
    bool waitFor(long wanted) {
        std::unique_lock<std::mutex> lock(mutex);
        expected = wanted;
        return changed.wait_for(lock, kReceiptTimeout, [&] { return count >= wanted; });
    }
    void report(benchmark::State& state) {
        std::sort(micros.begin(), micros.end());
        if (micros.empty()) {
            return;
        }
        state.counters["p50_us"] = micros[micros.size() / 2];
        state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    }
};

// Every "T<nanoseconds>;" a document carries; -1 for "Tstop;".
std::vector<std::int64_t> stamps(const std::string& text) {
    std::vector<std::int64_t> found;
    for (std::size_t at = text.find('T'); at != std::string::npos; at = text.find('T', at + 1)) {
        if (text.compare(at, 6, "Tstop;") == 0) {
            found.push_back(-1);
        } else if (at + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[at + 1]))) {
            char* end = nullptr;
            const long long ns = std::strtoll(text.c_str() + at + 1, &end, 10);
            if (*end == ';') {
                found.push_back(ns);
            }
        }
    }
    return found;
}

void waitingClient(const std::string& server, int index, Receipts& receipts) {
    AvQVLConnection connection;
    std::string serverId = server, client = "waiter-" + std::to_string(index), locale;
    std::string events, correlation;
    std::vector<std::string> shared;
    connection.registerClient(serverId, client, locale, shared);
    {
        std::lock_guard<std::mutex> lock(receipts.mutex);
        ++receipts.ready;
        receipts.changed.notify_all();
    }
    for (bool stop = false; !stop && !receipts.stopping;) {
        connection.waitForEvents(events, shared, correlation, std::chrono::seconds(1));
        for (std::int64_t sent : stamps(events)) {
            stop = stop || sent < 0;
            if (sent >= 0) {
                receipts.add(sent);
            }
        }
    }
    connection.unregisterClient(shared);
}

// Runs `waiters` waiting clients and calls post(text) once per iteration.
void measureWakeUps(benchmark::State& state, int waiters,
                    const std::function<bool(const std::string&)>& post,
                    const std::function<void(int, Receipts&)>& waiter) {
    Receipts receipts;
    std::vector<std::thread> threads;
    for (int i = 0; i < waiters; ++i) {
        threads.emplace_back([&, i] { waiter(i, receipts); });
    }
    {
        std::unique_lock<std::mutex> lock(receipts.mutex);
        receipts.changed.wait_for(lock, kReceiptTimeout, [&] { return receipts.ready == waiters; });
    }
    // A first post, untimed, finds every waiter in its wait.
    long expected = waiters;
    bool ok = post("T" + std::to_string(nowNs()) + ";") && receipts.waitFor(expected);
    receipts.micros.clear();
    for (auto _ : state) {
        if (!ok) {
            state.SkipWithError("a post was not received within 5 s");
            break;
        }
        expected += waiters;
        ok = post("T" + std::to_string(nowNs()) + ";") && receipts.waitFor(expected);
    }
    receipts.stopping = true;
    post("Tstop;");
    for (std::thread& thread : threads) {
        thread.join();
    }
    receipts.report(state);
}

void postToReceipt(benchmark::State& state, int postPort) {
    const int waiters = static_cast<int>(state.range(0));
    const std::string server = "latency-" + std::to_string(waiters) + "-" + std::to_string(nowNs());
    Bench::RawExchange poster(postPort);
    std::string answer;
    if (poster.call(fields(Protocol::kRegisterClient, server, "poster"), "", answer) != 200) {
        state.SkipWithError("the poster could not register");
        return;
    }
    measureWakeUps(
        state, waiters,
        [&](const std::string& text) {
            return poster.call(fields(Protocol::kPutEvents, server, "poster"), text, answer) == 200;
        },
        [&](int i, Receipts& receipts) { waitingClient(server, i, receipts); });
    poster.call(fields(Protocol::kUnregisterClient, server, "poster"), "", answer);
}

using RedisContext = std::unique_ptr<redisContext, decltype(&redisFree)>;

RedisContext connectRedis(int port) {
    return RedisContext(redisConnect("127.0.0.1", port), &redisFree);
}

void redisBlpop(benchmark::State& state, int port) {
    const int waiters = static_cast<int>(state.range(0));
    const std::string prefix = "latency:" + std::to_string(nowNs()) + ":";
    RedisContext poster = connectRedis(port);
    if (!poster || poster->err != 0) {
        state.SkipWithError("cannot reach Redis");
        return;
    }
    measureWakeUps(
        state, waiters,
        [&](const std::string& text) {
            for (int i = 0; i < waiters; ++i) {
                redisAppendCommand(poster.get(), "LPUSH %s%d %s", prefix.c_str(), i, text.c_str());
            }
            for (int i = 0; i < waiters; ++i) {
                void* reply = nullptr;
                if (redisGetReply(poster.get(), &reply) != REDIS_OK) {
                    return false;
                }
                freeReplyObject(reply);
            }
            return true;
        },
        [&](int i, Receipts& receipts) {
            RedisContext context = connectRedis(port);
            {
                std::lock_guard<std::mutex> lock(receipts.mutex);
                ++receipts.ready;
                receipts.changed.notify_all();
            }
            for (bool stop = false; !stop && !receipts.stopping && context && context->err == 0;) {
                auto* reply = static_cast<redisReply*>(
                    redisCommand(context.get(), "BLPOP %s%d 1", prefix.c_str(), i));
                if (reply == nullptr) {
                    break;
                }
                if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 2) {
                    for (std::int64_t sent : stamps(reply->element[1]->str)) {
                        stop = stop || sent < 0;
                        if (sent >= 0) {
                            receipts.add(sent);
                        }
                    }
                }
                freeReplyObject(reply);
            }
        });
}

// The daemon's CPU time (user + system, in clock ticks) and resident kB.
bool processFigures(int pid, long& ticks, long& residentKb) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string field;
    for (int i = 1; i <= 15 && stat >> field; ++i) {
        if (i == 14) {
            ticks = std::stol(field);
        } else if (i == 15) {
            ticks += std::stol(field);
        }
    }
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            residentKb = std::atol(line.c_str() + 6);
            return static_cast<bool>(stat);
        }
    }
    return false;
}

// kIdleWaiters clients of their own server, each in a waiting getEvents on a
// connection of its own, until the object goes (closing them ends the waits).
struct IdleWaiters {
    explicit IdleWaiters(int port) : port(port), server("idle-" + std::to_string(nowNs())) {
        Bench::RawExchange registrar(port);
        std::string answer;
        for (int i = 0; i < kIdleWaiters; ++i) {
            registrar.call(fields(Protocol::kRegisterClient, server, "w" + std::to_string(i)), "",
                           answer);
        }
        for (int i = 0; i < kIdleWaiters; ++i) {
            Bench::Fields wait = fields(Protocol::kGetEvents, server, "w" + std::to_string(i));
            wait.emplace_back(Protocol::kWaitMillisecondsField, "60000");
            connections.push_back(std::make_unique<Bench::RawExchange>(port));
            connections.back()->send(wait, "");
        }
    }
    ~IdleWaiters() {
        connections.clear();
        Bench::RawExchange registrar(port);
        std::string answer;
        for (int i = 0; i < kIdleWaiters; ++i) {
            registrar.call(fields(Protocol::kUnregisterClient, server, "w" + std::to_string(i)), "",
                           answer);
        }
    }
    const int port;
    const std::string server;
    std::vector<std::unique_ptr<Bench::RawExchange>> connections;
};

void idleWaiters(benchmark::State& state, int port, int pid) {
    for (auto _ : state) {
        long ticksBefore = 0, ticksAfter = 0, kbBefore = 0, kbAfter = 0;
        processFigures(pid, ticksBefore, kbBefore);
        IdleWaiters waiting(port);
        std::this_thread::sleep_for(std::chrono::seconds(1));  // every wait in place
        processFigures(pid, ticksBefore, kbAfter);
        std::this_thread::sleep_for(std::chrono::seconds(10));
        processFigures(pid, ticksAfter, kbAfter);
        state.counters["cpu_pct"] =
            100.0 * static_cast<double>(ticksAfter - ticksBefore) / sysconf(_SC_CLK_TCK) / 10.0;
        state.counters["kb_per_waiter"] =
            static_cast<double>(kbAfter - kbBefore) / static_cast<double>(kIdleWaiters);
    }
}

std::unique_ptr<IdleWaiters> background;  // for the fan-out beside waiters

void fanOutBesideWaiters(benchmark::State& state, int port) {
    if (state.thread_index() == 0) {
        background = std::make_unique<IdleWaiters>(port);
    }
    OperationBench::fanOutPosts(state);
    if (state.thread_index() == 0) {
        background.reset();
    }
}

int portOf(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? 0 : std::atoi(value);
}

}  // namespace

int main(int argc, char** argv) {
    const char* url = std::getenv("QUORVEL_URL");
    int port = 0;
    if (url == nullptr || std::sscanf(url, "http://127.0.0.1:%d", &port) != 1) {
        std::fprintf(stderr, "QUORVEL_URL must name a quorveld on http://127.0.0.1:PORT\n");
        return 2;
    }
    const int postPort = portOf("POST_PORT") > 0 ? portOf("POST_PORT") : port;
    benchmark::RegisterBenchmark("latency/postToReceipt", postToReceipt, postPort)
        ->Arg(1)
        ->Arg(16)
        ->UseRealTime();
    if (portOf("REDIS_PORT") > 0) {
        benchmark::RegisterBenchmark("latency/redisBlpop", redisBlpop, portOf("REDIS_PORT"))
            ->Arg(1)
            ->Arg(16)
            ->UseRealTime();
    }
    if (portOf("QUORVEL_PID") > 0) {
        benchmark::RegisterBenchmark("waiters/idle1000", idleWaiters, port, portOf("QUORVEL_PID"))
            ->Iterations(1)
            ->UseRealTime();
        benchmark::RegisterBenchmark("waiters/fanOut16With1000Waiting", fanOutBesideWaiters, port)
            ->Threads(OperationBench::kFanOutClients)
            ->UseRealTime()
            ->MinTime(1.0);
    }
    return OperationBench::runBenchmarks(argc, argv);
}
