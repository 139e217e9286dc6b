// The whole operations of a connection, measured the same way whatever stands
// behind the transport functions: each program registers them under its own
// name prefix ("instant/", "embedded/", "daemon/").
#ifndef AVQVL_BENCH_OPERATIONBENCH_H
#define AVQVL_BENCH_OPERATIONBENCH_H

#include <benchmark/benchmark.h>

#include <string>

namespace OperationBench {

// getStatus, registerClient answered with 10 shared clients, putEvents with
// 1 KiB and 1 MiB bodies, getEvents with a 1 MiB answer. With `realService`
// the answers come from a service that keeps state, so each benchmark first
// registers the peers it needs and has a peer post the events it fetches.
void registerOperations(const std::string& prefix, bool realService);

// Throughput: each of kFanOutClients threads is one client of the same server
// identifier and posts 64-byte events, each queued for the others; every
// client fetches its queue now and then so the queues stay within their
// limit. Items are posts. Register with ->Threads(kFanOutClients).
constexpr int kFanOutClients = 16;
void fanOutPosts(benchmark::State& state);

// Fixes ICU's default converter to UTF-8 and runs the registered benchmarks.
int runBenchmarks(int argc, char** argv);

}  // namespace OperationBench

#endif  // AVQVL_BENCH_OPERATIONBENCH_H
