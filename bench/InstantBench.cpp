// The client library's own cost per call: whole operations through the instant
// transport, beside the same transport calls made by hand; and the cost of
// constructing and destroying a connection.
#include <benchmark/benchmark.h>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstring>
#include <memory>
#include <string>

#include "BenchInputs.h"
#include "InstantTransport.h"
#include "OperationBench.h"
#include "client/AvQVLConnection.h"
#include "transport/AvQvlBinding.h"

namespace {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;

constexpr std::size_t kMiB = 1024 * 1024;

std::string eventsDocument(std::size_t textBytes) {
    return std::string("\n<ns0:events xmlns:ns0=\"") + BenchInputs::sharedClientsNamespace() +
           "\">\n<ns0:event sender=\"peer-0\" sequence=\"1\">" + BenchInputs::asciiText(textBytes) +
           "</ns0:event></ns0:events>";
}

std::string headerBlock(const std::string& operation) {
    return "Client-ID=bench-client\r\nLocale=en\r\nLog-Correlation-ID=bench\r\nOperation-Name=" +
           operation + "\r\nServer-ID=bench-server\r\nService-Name=AvQVLRequest\r\n\r\n";
}

// Baseline: the transport calls of one exchange made by hand, the body sent in
// NUL-terminated chunks of 4098 bytes and the answer gathered into a string.
void transportOnly(benchmark::State& state, std::string operation, std::size_t bodyBytes) {
    const std::string header = headerBlock(operation);
    const std::string body = BenchInputs::asciiText(bodyBytes);
    std::unique_ptr<char[]> receive(new char[16384]);
    char chunk[4099];
    for (auto _ : state) {
        AvQvl_SendNoAck(header.c_str());
        AvQvl_SendEOF();
        AvQvl_Receive(receive.get());
        for (std::size_t at = 0; at < body.size(); at += 4098) {
            const std::size_t n = std::min<std::size_t>(4098, body.size() - at);
            std::memcpy(chunk, body.data() + at, n);
            chunk[n] = '\0';
            AvQvl_SendNoAck(chunk);
        }
        AvQvl_SendEOF();
        AvQvl_Receive(receive.get());
        std::string answer;
        for (int32_t n; (n = AvQvl_Receive(receive.get())) > 0;) {
            answer.append(receive.get(), static_cast<std::size_t>(n));
        }
        AvQvl_Complete();
        benchmark::DoNotOptimize(answer.data());
    }
}

// Construction and destruction of a connection. Alone, each one starts and
// ends the XML library; beside a live connection, the library stays up.
void BM_connectionLifecycle_alone(benchmark::State& state) {
    for (auto _ : state) {
        AvQVLConnection connection;
        benchmark::DoNotOptimize(&connection);
    }
}

void BM_connectionLifecycle_besideLive(benchmark::State& state) {
    AvQVLConnection live;
    for (auto _ : state) {
        AvQVLConnection connection;
        benchmark::DoNotOptimize(&connection);
    }
}

// Baseline: the XML library's start and end alone.
void BM_xmlLibraryStartStop(benchmark::State& state) {
    for (auto _ : state) {
        xercesc::XMLPlatformUtils::Initialize();
        xercesc::XMLPlatformUtils::Terminate();
    }
}

BENCHMARK(BM_connectionLifecycle_alone);
BENCHMARK(BM_connectionLifecycle_besideLive);
BENCHMARK(BM_xmlLibraryStartStop);

}  // namespace

int main(int argc, char** argv) {
    const std::string tenClients = BenchInputs::sharedClientsDocument(10);
    InstantTransport::setAnswer("getStatus", "AvQVL Status check");
    InstantTransport::setAnswer("registerClient", tenClients);
    InstantTransport::setAnswer("putEvents", tenClients);
    InstantTransport::setAnswer("getSharedClients", tenClients);
    InstantTransport::setAnswer("getEvents", eventsDocument(kMiB));

    OperationBench::registerOperations("instant/", false);
    benchmark::RegisterBenchmark("instant/transportOnly/getStatus", transportOnly, "getStatus", 19);
    benchmark::RegisterBenchmark("instant/transportOnly/registerClient/10", transportOnly,
                                 "registerClient", 22);
    benchmark::RegisterBenchmark("instant/transportOnly/putEvents/1KiB", transportOnly, "putEvents",
                                 1024);
    benchmark::RegisterBenchmark("instant/transportOnly/putEvents/1MiB", transportOnly, "putEvents",
                                 kMiB);
    benchmark::RegisterBenchmark("instant/transportOnly/getEvents/1MiB", transportOnly, "getEvents",
                                 19);
    return OperationBench::runBenchmarks(argc, argv);
}
