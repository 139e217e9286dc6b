// Whole operations through the transport library and a real service: the
// embedded engine by default, or the daemon named by QUORVEL_URL (the
// transport's own switch). Baselines in the same run: the engine called
// directly (embedded), or a bare HTTP POST round trip to the same daemon and,
// when REDIS_PORT names a Redis server on loopback, a PING round trip (daemon).
// putEvents/16clients: 16 threads, each a client of one server of 16, post
// 100-byte events and drain their queue every 16 posts; run against quorveld on
// each store, it compares the stores where clients meet them.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "OperationBench.h"
#include "client/AvQVLConnection.h"
#include "engine/ServiceEngine.h"

namespace {

using Arvant::Net::AvQuorvel::Engine::RequestHeaders;
using Arvant::Net::AvQuorvel::Engine::ServiceEngine;
using Arvant::Net::AvQuorvel::Engine::ServiceFailure;

// Baseline: the engine's own work for a status check, without library or transport.
void engineOnlyGetStatus(benchmark::State& state) {
    ServiceEngine engine;
    const RequestHeaders headers = {{"Service-Name", "AvQVLRequest"},
                                    {"Operation-Name", "getStatus"},
                                    {"Log-Correlation-ID", "AvQVLConnection.getStatus"}};
    const std::string body = "AvQVL Status check";
    for (auto _ : state) {
        std::string response;
        ServiceFailure failure;
        if (!engine.handle(headers, body, response, failure)) {
            state.SkipWithError(failure.message.c_str());
            break;
        }
        benchmark::DoNotOptimize(response.data());
    }
}

size_t discard(char*, size_t size, size_t count, void*) {
    return size * count;
}

// Baseline: the daemon's status exchange as one bare POST over a kept-alive
// connection, the answer read and dropped.
void curlPost(benchmark::State& state, std::string url) {
    while (!url.empty() && url.back() == '/') {
        url.pop_back();
    }
    url += "/quorvel/v1/exchange";
    curl_slist* fields = nullptr;
    fields = curl_slist_append(fields, "Quorvel-Field: Service-Name=AvQVLRequest");
    fields = curl_slist_append(fields, "Quorvel-Field: Operation-Name=getStatus");
    fields = curl_slist_append(fields, "Content-Type: application/octet-stream");
    fields = curl_slist_append(fields, "Expect:");
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, fields);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "AvQVL Status check");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
    for (auto _ : state) {
        const CURLcode rc = curl_easy_perform(curl);
        if (rc != CURLE_OK) {
            state.SkipWithError(curl_easy_strerror(rc));
            break;
        }
    }
    curl_easy_cleanup(curl);
    curl_slist_free_all(fields);
}

// Baseline: a Redis PING and its +PONG over one loopback TCP connection.
void redisPing(benchmark::State& state, int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        state.SkipWithError("cannot reach the Redis server");
        if (fd >= 0) {
            close(fd);
        }
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

void putEventsSixteenClients(benchmark::State& state) {
    Arvant::Net::AvQuorvel::Client::AvQVLConnection connection;
    std::string server = "bench16", client = "p" + std::to_string(state.thread_index()), locale;
    std::string text, correlation = "bench.putEvents16";
    std::vector<std::string> shared;
    std::int64_t posts = 0;
    try {
        connection.registerClient(server, client, locale, shared);
        for (auto _ : state) {
            text.assign(100, 'e');
            connection.putEvents(text, shared, correlation);
            if (++posts % 16 == 0) {
                connection.getEvents(text, shared, correlation);
            }
            shared.clear();
        }
        connection.unregisterClient(shared);
    } catch (...) {
        state.SkipWithError("an operation failed");
    }
    state.counters["posts/s"] =
        benchmark::Counter(static_cast<double>(posts), benchmark::Counter::kIsRate);
}

}  // namespace

int main(int argc, char** argv) {
    const char* url = std::getenv("QUORVEL_URL");
    if (url == nullptr || *url == '\0') {
        OperationBench::registerOperations("embedded/", true);
        benchmark::RegisterBenchmark("embedded/engineOnly/getStatus", engineOnlyGetStatus);
    } else {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        OperationBench::registerOperations("daemon/", true);
        benchmark::RegisterBenchmark("daemon/curlPost", curlPost, std::string(url));
        benchmark::RegisterBenchmark("daemon/putEvents/16clients", putEventsSixteenClients)
            ->Threads(16)
            ->UseRealTime();
        const char* redisPort = std::getenv("REDIS_PORT");
        if (redisPort != nullptr && std::atoi(redisPort) > 0) {
            benchmark::RegisterBenchmark("daemon/redisPing", redisPing, std::atoi(redisPort));
        }
    }
    return OperationBench::runBenchmarks(argc, argv);
}
