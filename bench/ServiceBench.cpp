// Whole operations through the transport library and a real service: the
// embedded engine by default, or the daemon named by QUORVEL_URL (the
// transport's own switch). Baselines in the same run: the engine called
// directly (embedded), or the same exchange written by hand on a bare socket to
// the same daemon (when QUORVEL_URL is http://127.0.0.1:PORT) and, when
// REDIS_PORT names a Redis server on loopback, a PING round trip and a GET of
// a 1 MiB value (daemon).
// daemon/fanOut16/putEvents, run against quorveld on each store, compares the
// stores where clients meet them.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BenchInputs.h"
#include "OperationBench.h"
#include "RawExchange.h"
#include "client/AvQVLConnection.h"
#include "engine/ServiceEngine.h"
#include "protocol/Names.h"
#include "wire/HttpWire.h"

namespace {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Engine::RequestHeaders;
using Arvant::Net::AvQuorvel::Engine::ServiceEngine;
using Arvant::Net::AvQuorvel::Protocol::Failure;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

// Baseline: the engine's own work for a status check, without library or transport.
void engineOnlyGetStatus(benchmark::State& state) {
    ServiceEngine engine;
    const RequestHeaders headers = {
        {Protocol::kServiceNameField, Protocol::kServiceName},
        {Protocol::kOperationNameField, Protocol::kGetStatus},
        {Protocol::kLogCorrelationIdField, "AvQVLConnection.getStatus"}};
    const std::string body = "AvQVL Status check";
    for (auto _ : state) {
        std::string response;
        Failure failure;
        if (!engine.handle(headers, body, response, failure)) {
            state.SkipWithError(failure.message.c_str());
            break;
        }
        benchmark::DoNotOptimize(response.data());
    }
}

// Baseline: the daemon's status exchange written by hand on a kept-alive
// connection, one write and the answer read until its Content-Length is in:
// the floor of an HTTP round trip to this daemon, with no client library.
void rawPost(benchmark::State& state, int port) {
    namespace Wire = Arvant::Net::AvQuorvel::Wire;
    const std::string body = "AvQVL Status check";
    const std::string request =
        std::string("POST ") + Wire::kExchangePath + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
        Wire::kFieldHeaderName + ": " +
        Wire::encodeField(Protocol::kServiceNameField, Protocol::kServiceName) + "\r\n" +
        Wire::kFieldHeaderName + ": " +
        Wire::encodeField(Protocol::kOperationNameField, Protocol::kGetStatus) +
        "\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body;
    int fd = Bench::connectLoopback(port);
    if (fd < 0) {
        state.SkipWithError("cannot reach the daemon");
        return;
    }
    char answer[4096];
    for (auto _ : state) {
        if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
            state.SkipWithError("the request could not be sent");
            break;
        }
        std::size_t have = 0, whole = 0;
        while (whole == 0 || have < whole) {
            const ssize_t n = read(fd, answer + have, sizeof answer - have);
            if (n <= 0) {
                break;
            }
            have += static_cast<std::size_t>(n);
            const char* end = static_cast<const char*>(memmem(answer, have, "\r\n\r\n", 4));
            const char* length =
                static_cast<const char*>(memmem(answer, have, "Content-Length: ", 16));
            if (whole == 0 && end != nullptr && length != nullptr) {
                whole = static_cast<std::size_t>(end + 4 - answer) +
                        std::strtoul(length + 16, nullptr, 10);
            }
        }
        if (whole == 0 || have != whole || std::strncmp(answer, "HTTP/1.1 200", 12) != 0) {
            state.SkipWithError("the daemon's answer was not a whole 200");
            break;
        }
        // The daemon may close a connection after so many requests, as clients do.
        if (memmem(answer, have, "Connection: close", 17) != nullptr) {
            close(fd);
            fd = Bench::connectLoopback(port);
            if (fd < 0) {
                state.SkipWithError("cannot reach the daemon again");
                return;
            }
        }
    }
    close(fd);
}

// Baseline: a Redis PING and its +PONG over one loopback TCP connection.
void redisPing(benchmark::State& state, int port) {
    const int fd = Bench::connectLoopback(port);
    if (fd < 0) {
        state.SkipWithError("cannot reach the Redis server");
        return;
    }
    char reply[64];
    for (auto _ : state) {
        if (write(fd, "PING\r\n", 6) != 6 || read(fd, reply, sizeof reply) != 7) {
            state.SkipWithError("PING failed");
            break;
        }
    }
    close(fd);
}

// Whether all of text went out on fd.
bool writeAll(int fd, const std::string& text) {
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t n = write(fd, text.data() + sent, text.size() - sent);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// Baseline for getEvents/1MiB: a Redis GET of a 1 MiB value over one loopback
// connection, the reply read whole into a buffer made once.
void redisGet1MiB(benchmark::State& state, int port) {
    const std::size_t size = 1024 * 1024;
    const std::string key = "bench:get1MiB", sizeText = std::to_string(size);
    const int fd = Bench::connectLoopback(port);
    char ok[8];
    if (fd < 0 ||
        !writeAll(fd, "*3\r\n$3\r\nSET\r\n$" + std::to_string(key.size()) + "\r\n" + key + "\r\n$" +
                          sizeText + "\r\n" + BenchInputs::asciiText(size) + "\r\n") ||
        read(fd, ok, 5) != 5) {
        state.SkipWithError("cannot set the value in Redis");
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    const std::string get = "GET " + key + "\r\n";
    std::vector<char> reply(1 + sizeText.size() + 2 + size + 2);  // $SIZE CR LF value CR LF
    for (auto _ : state) {
        std::size_t have = 0;
        if (!writeAll(fd, get)) {
            state.SkipWithError("GET failed");
            break;
        }
        while (have < reply.size()) {
            const ssize_t n = read(fd, reply.data() + have, reply.size() - have);
            if (n <= 0) {
                break;
            }
            have += static_cast<std::size_t>(n);
        }
        if (have != reply.size()) {
            state.SkipWithError("the GET reply was cut short");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    const char* url = std::getenv("QUORVEL_URL");
    if (url == nullptr || *url == '\0') {
        OperationBench::registerOperations("embedded/", true);
        benchmark::RegisterBenchmark("embedded/engineOnly/getStatus", engineOnlyGetStatus);
    } else {
        OperationBench::registerOperations("daemon/", true);
        int port = 0;
        if (std::sscanf(url, "http://127.0.0.1:%d", &port) == 1) {
            benchmark::RegisterBenchmark("daemon/rawPost", rawPost, port);
        }
        benchmark::RegisterBenchmark("daemon/fanOut16/putEvents", OperationBench::fanOutPosts)
            ->Threads(OperationBench::kFanOutClients)
            ->UseRealTime()
            ->MinTime(1.0);  // a throughput on a shared machine needs more than a glimpse
        const char* redisPort = std::getenv("REDIS_PORT");
        if (redisPort != nullptr && std::atoi(redisPort) > 0) {
            benchmark::RegisterBenchmark("daemon/redisPing", redisPing, std::atoi(redisPort));
            benchmark::RegisterBenchmark("daemon/redisGet/1MiB", redisGet1MiB,
                                         std::atoi(redisPort));
        }
    }
    return OperationBench::runBenchmarks(argc, argv);
}
