// The client library's own cost per call: whole operations through the instant
// transport, beside the same transport calls made by hand; the cost of
// constructing and destroying a connection; and the peak memory of calls with
// large answers.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <xercesc/util/PlatformUtils.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BenchInputs.h"
#include "InstantTransport.h"
#include "OperationBench.h"
#include "client/AvQVLConnection.h"
#include "protocol/Names.h"
#include "transport/AvQvlBinding.h"

namespace {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

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

// Answers `operation` with a text of its own for one benchmark, then puts the
// previous answer back.
class ScopedAnswer {
public:
    ScopedAnswer(std::string operation, std::string answer)
        : bytes(answer.size()),
          operation(std::move(operation)),
          previous(InstantTransport::setAnswer(this->operation, std::move(answer))) {}
    ~ScopedAnswer() { InstantTransport::setAnswer(operation, std::move(previous)); }
    ScopedAnswer(const ScopedAnswer&) = delete;
    ScopedAnswer& operator=(const ScopedAnswer&) = delete;

    const std::size_t bytes;

private:
    const std::string operation;
    std::string previous;
};

// The peak memory of a call, as the columns peak_MB and peak_x (peak_MB over
// the answer's size): the high-water mark of the resident set during the call
// (VmHWM, reset through /proc/self/clear_refs just before it) less the
// resident set just before it, the largest over the iterations. Before each
// call the heap hands its free pages back to the system (malloc_trim), so the
// call cannot reuse pages that were already counted. Everything the call
// makes resident counts: the response, its conversion, the tree, the XML
// library's buffers, the results handed to the caller, and freed memory the
// heap keeps rather than returns (glibc keeps up to some tens of MiB). The
// instant transport's copy of the answer is made before the call and does not.
class PeakMemory {
public:
    // False when the kernel offers no mark to reset.
    bool start() {
        malloc_trim(0);
        std::FILE* clear = std::fopen("/proc/self/clear_refs", "w");
        if (clear == nullptr) {
            return false;
        }
        const bool reset = std::fputs("5", clear) >= 0;
        if (std::fclose(clear) != 0 || !reset) {
            return false;
        }
        // Reset, the mark starts at the resident set; a few pages may come
        // between the two readings.
        before = statusKiB("VmRSS:");
        const long mark = statusKiB("VmHWM:");
        return before >= 0 && mark >= 0 && mark - before < kResetSlackKiB;
    }
    void stop() { largest = std::max(largest, statusKiB("VmHWM:") - before); }
    void report(benchmark::State& state, std::size_t answerBytes) const {
        const double bytes = static_cast<double>(largest) * 1024;
        state.counters["peak_MB"] = bytes / 1e6;
        state.counters["peak_x"] = bytes / static_cast<double>(answerBytes);
    }

private:
    // A "Name:   123 kB" line of /proc/self/status, or -1.
    static long statusKiB(const char* name) {
        std::FILE* status = std::fopen("/proc/self/status", "r");
        if (status == nullptr) {
            return -1;
        }
        long kib = -1;
        char line[256];
        const std::size_t length = std::strlen(name);
        while (kib < 0 && std::fgets(line, sizeof line, status) != nullptr) {
            if (std::strncmp(line, name, length) == 0) {
                kib = std::strtol(line + length, nullptr, 10);
            }
        }
        std::fclose(status);
        return kib;
    }

    static constexpr long kResetSlackKiB = 4096;
    long before = 0;
    long largest = 0;
};

// Runs `call` once per iteration under PeakMemory; `clear` releases what the
// previous call handed back, outside the measured time and the measured peak.
template <typename Call, typename Clear>
void measurePeak(benchmark::State& state, std::size_t answerBytes, Call call, Clear clear) {
    PeakMemory peak;
    for (auto _ : state) {
        state.PauseTiming();
        clear();
        if (!peak.start()) {
            state.SkipWithError("no resettable peak of the resident set (/proc/self/clear_refs)");
            break;
        }
        state.ResumeTiming();
        call();
        state.PauseTiming();
        peak.stop();
        state.ResumeTiming();
    }
    clear();
    peak.report(state, answerBytes);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * answerBytes));
}

void enrol(AvQVLConnection& connection) {
    std::string server = "bench-memory", client = "bench-client", locale = "en";
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
}

// A 100 MiB events document, then the usual ten-client exchange.
void memoryGetEvents(benchmark::State& state) {
    const ScopedAnswer answer(Protocol::kGetEvents, eventsDocument(100 * kMiB));
    AvQVLConnection connection;
    enrol(connection);
    std::string events, correlation = "bench.memory";
    std::vector<std::string> shared;
    measurePeak(
        state, answer.bytes, [&] { connection.getEvents(events, shared, correlation); },
        [&] {
            std::string().swap(events);
            std::vector<std::string>().swap(shared);
        });
}

// A shared-client document listing 1 000 000 identifiers (about 52 MB).
void memoryGetSharedClients(benchmark::State& state) {
    const ScopedAnswer answer(Protocol::kGetSharedClients,
                              BenchInputs::sharedClientsDocument(1000000));
    AvQVLConnection connection;
    enrol(connection);
    std::vector<std::string> shared;
    measurePeak(
        state, answer.bytes, [&] { connection.getSharedClients(shared); },
        [&] { std::vector<std::string>().swap(shared); });
}

BENCHMARK(BM_connectionLifecycle_alone);
BENCHMARK(BM_connectionLifecycle_besideLive);
BENCHMARK(BM_xmlLibraryStartStop);

}  // namespace

int main(int argc, char** argv) {
    const std::string tenClients = BenchInputs::sharedClientsDocument(10);
    InstantTransport::setAnswer(Protocol::kGetStatus, "AvQVL Status check");
    InstantTransport::setAnswer(Protocol::kRegisterClient, tenClients);
    InstantTransport::setAnswer(Protocol::kPutEvents, tenClients);
    InstantTransport::setAnswer(Protocol::kGetSharedClients, tenClients);
    InstantTransport::setAnswer(Protocol::kGetEvents, eventsDocument(kMiB));

    OperationBench::registerOperations("instant/", false);
    benchmark::RegisterBenchmark("instant/transportOnly/getStatus", transportOnly,
                                 Protocol::kGetStatus, 19);
    benchmark::RegisterBenchmark("instant/transportOnly/registerClient/10", transportOnly,
                                 Protocol::kRegisterClient, 22);
    benchmark::RegisterBenchmark("instant/transportOnly/putEvents/1KiB", transportOnly,
                                 Protocol::kPutEvents, 1024);
    benchmark::RegisterBenchmark("instant/transportOnly/putEvents/1MiB", transportOnly,
                                 Protocol::kPutEvents, kMiB);
    benchmark::RegisterBenchmark("instant/transportOnly/getEvents/1MiB", transportOnly,
                                 Protocol::kGetEvents, 19);
    // Three calls each: the first, on a heap of another shape, beside two more.
    benchmark::RegisterBenchmark("instant/memory/getEvents/100MiB", memoryGetEvents)
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("instant/memory/getSharedClients/1000000", memoryGetSharedClients)
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
    return OperationBench::runBenchmarks(argc, argv);
}
