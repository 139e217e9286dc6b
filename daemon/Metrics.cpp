#include "daemon/Metrics.h"

#include "protocol/Names.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

namespace {

// Upper bounds of the duration buckets: in microseconds for counting, in
// seconds as the format writes them.
const long long kBoundMicros[] = {100,     250,     500,     1000,    2500,   5000,
                                  10000,   25000,   50000,   100000,  250000, 500000,
                                  1000000, 2500000, 5000000, 10000000};
const char* const kBoundSeconds[] = {"0.0001", "0.00025", "0.0005", "0.001", "0.0025", "0.005",
                                     "0.01",   "0.025",   "0.05",   "0.1",   "0.25",   "0.5",
                                     "1",      "2.5",     "5",      "10"};

// The operations of the client library's service and of the operators' one.
const char* const kOperations[] = {Protocol::kGetStatus,        Protocol::kRegisterClient,
                                   Protocol::kUnregisterClient, Protocol::kPutEvents,
                                   Protocol::kGetEvents,        Protocol::kGetSharedClients,
                                   Protocol::kListClients,      Protocol::kEvictClient};

std::string label(const std::string& operation) {
    if (operation.empty()) {
        return "none";
    }
    for (const char* known : kOperations) {
        if (operation == known) {
            return operation;
        }
    }
    return "other";
}

std::string gauge(const char* name, const char* help, std::size_t value) {
    return std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " gauge\n" + name +
           " " + std::to_string(value) + "\n";
}

}  // namespace

static_assert(sizeof kBoundMicros / sizeof kBoundMicros[0] == 16, "one count per bucket");

void Metrics::addExpiredClients(std::size_t count) {
    std::lock_guard<std::mutex> lock(mutex);
    expiredClients += count;
}

void Metrics::addRefusedWait() {
    std::lock_guard<std::mutex> lock(mutex);
    ++refusedWaits;
}

void Metrics::recordRequest(const std::string& operation, int status, long long micros) {
    std::lock_guard<std::mutex> lock(mutex);
    ++requests[{label(operation), status}];
    std::size_t bucket = 0;
    while (bucket < kBuckets && micros > kBoundMicros[bucket]) {
        ++bucket;
    }
    ++durations[bucket];
    ++durationCount;
    durationMicros += static_cast<std::uint64_t>(micros < 0 ? 0 : micros);
}

std::string Metrics::render(const Gauges& gauges) {
    std::string text =
        "# HELP quorveld_requests_total Requests answered, by exchange operation and status.\n"
        "# TYPE quorveld_requests_total counter\n";
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& series : requests) {
        text += "quorveld_requests_total{operation=\"" + series.first.first + "\",status=\"" +
                std::to_string(series.first.second) + "\"} " + std::to_string(series.second) + "\n";
    }
    text +=
        "# HELP quorveld_request_duration_seconds Time from the end of a request head to its "
        "answer written.\n"
        "# TYPE quorveld_request_duration_seconds histogram\n";
    std::uint64_t cumulative = 0;
    for (std::size_t i = 0; i < kBuckets; ++i) {
        cumulative += durations[i];
        text += std::string("quorveld_request_duration_seconds_bucket{le=\"") + kBoundSeconds[i] +
                "\"} " + std::to_string(cumulative) + "\n";
    }
    const std::string micros = std::to_string(1000000 + durationMicros % 1000000);
    text += "quorveld_request_duration_seconds_bucket{le=\"+Inf\"} " +
            std::to_string(durationCount) + "\n" + "quorveld_request_duration_seconds_sum " +
            std::to_string(durationMicros / 1000000) + "." + micros.substr(1) + "\n" +
            "quorveld_request_duration_seconds_count " + std::to_string(durationCount) + "\n";
    text +=
        "# HELP quorveld_expired_clients_total Clients unregistered for being idle too long.\n"
        "# TYPE quorveld_expired_clients_total counter\n"
        "quorveld_expired_clients_total " +
        std::to_string(expiredClients) + "\n";
    text +=
        "# HELP quorveld_waits_refused_total Fetches that asked to wait, answered at once "
        "because --max-waiters were waiting.\n"
        "# TYPE quorveld_waits_refused_total counter\n"
        "quorveld_waits_refused_total " +
        std::to_string(refusedWaits) + "\n";
    text += gauge("quorveld_registered_clients", "Clients registered.", gauges.registeredClients);
    text += gauge("quorveld_waiting_events", "Events waiting to be fetched, one per recipient.",
                  gauges.waitingEvents);
    text += gauge("quorveld_waiting_bytes", "Bytes of event text waiting to be fetched.",
                  gauges.waitingBytes);
    text += gauge("quorveld_open_connections", "Open client connections.", gauges.openConnections);
    text +=
        gauge("quorveld_waiting_requests", "Fetches waiting for an event.", gauges.waitingRequests);
    return text;
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
