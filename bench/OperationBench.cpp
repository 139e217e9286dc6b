#include "OperationBench.h"

#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchInputs.h"
#include "client/AvQVLConnection.h"

namespace OperationBench {
namespace {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;

constexpr std::size_t kSharedClients = 10;
constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * 1024;
// Posts between two fetches of a fan-out client's own queue: 15 x 5000 events
// wait at most, below the daemon's limit of 100 000. The figure is about
// posting (as LPUSH beside it is), so the fetches stay rare.
constexpr int kPostsPerFetch = 5000;

// A registered connection, with `peers` more clients registered under the same
// server identifier before it, so its answers list peers + 1 clients.
struct Registered {
    Registered(const std::string& server, const std::string& client, std::size_t peers) {
        for (std::size_t i = 0; i < peers; ++i) {
            others.emplace_back(new AvQVLConnection());
            enrol(*others.back(), server, "peer-" + std::to_string(i));
        }
        enrol(connection, server, client);
    }
    static void enrol(AvQVLConnection& c, std::string server, std::string client) {
        std::string locale = "en";
        std::vector<std::string> shared;
        c.registerClient(server, client, locale, shared);
    }
    AvQVLConnection connection;
    std::vector<std::unique_ptr<AvQVLConnection>> others;
};

void getStatus(benchmark::State& state) {
    AvQVLConnection connection;
    for (auto _ : state) {
        if (connection.getStatus() != 0) {
            state.SkipWithError("getStatus answered -2");
            break;
        }
    }
}

void registerClient(benchmark::State& state, bool realService) {
    Registered r("bench-register", "bench-client", realService ? kSharedClients - 1 : 0);
    std::string server = "bench-register";
    std::string client = "bench-client";
    std::string locale = "en";
    for (auto _ : state) {
        std::vector<std::string> shared;
        r.connection.registerClient(server, client, locale, shared);
        if (shared.size() != kSharedClients) {
            state.SkipWithError("registerClient did not answer 10 shared clients");
            break;
        }
    }
}

// The poster is the only client of its server, so a real service queues the
// event for nobody and keeps no state between calls.
void putEvents(benchmark::State& state, std::size_t size) {
    Registered r("bench-put", "bench-poster", 0);
    std::string events = BenchInputs::asciiText(size);
    std::string correlation = "bench.putEvents";
    for (auto _ : state) {
        std::vector<std::string> shared;
        r.connection.putEvents(events, shared, correlation);
        benchmark::DoNotOptimize(shared.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

// A real service answers only what was posted: a peer posts one 1 MiB event
// before each fetch, outside the measured time.
void getEvents(benchmark::State& state, bool realService) {
    Registered r("bench-get", "bench-reader", 1);
    std::string event = BenchInputs::asciiText(kMiB);
    std::string correlation = "bench.getEvents";
    std::size_t answerBytes = 0;
    for (auto _ : state) {
        if (realService) {
            state.PauseTiming();
            std::vector<std::string> shared;
            r.others[0]->putEvents(event, shared, correlation);
            state.ResumeTiming();
        }
        std::string events;
        std::vector<std::string> shared;
        r.connection.getEvents(events, shared, correlation);
        answerBytes = events.size();
        if (answerBytes < kMiB) {
            state.SkipWithError("getEvents answered less than 1 MiB");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * answerBytes));
}

}  // namespace

void registerOperations(const std::string& prefix, bool realService) {
    benchmark::RegisterBenchmark((prefix + "getStatus").c_str(), getStatus);
    benchmark::RegisterBenchmark((prefix + "registerClient/10").c_str(), registerClient,
                                 realService);
    benchmark::RegisterBenchmark((prefix + "putEvents/1KiB").c_str(), putEvents, kKiB);
    benchmark::RegisterBenchmark((prefix + "putEvents/1MiB").c_str(), putEvents, kMiB);
    benchmark::RegisterBenchmark((prefix + "getEvents/1MiB").c_str(), getEvents, realService);
}

void fanOutPosts(benchmark::State& state) {
    AvQVLConnection connection;
    std::string server = "fan-out", locale, events, correlation;
    std::string client = "client-" + std::to_string(state.thread_index());
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (shared.size() < kFanOutClients && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        shared.clear();
        connection.getSharedClients(shared);
    }
    if (shared.size() != kFanOutClients) {
        state.SkipWithError("the 16 clients did not all register");
        return;
    }
    const std::string text(64, 'e');
    int posted = 0;
    for (auto _ : state) {
        std::string body = text;
        connection.putEvents(body, shared, correlation);
        if (++posted % kPostsPerFetch == 0) {
            connection.getEvents(events, shared, correlation);
        }
    }
    state.SetItemsProcessed(posted);
    connection.getEvents(events, shared, correlation);
}

int runBenchmarks(int argc, char** argv) {
    ucnv_setDefaultName("UTF-8");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace OperationBench
