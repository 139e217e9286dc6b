// quorveld's metrics in the Prometheus text format (version 0.0.4): requests by
// operation and status, a histogram of request durations, and the gauges the
// caller reads at scrape time. Thread-safe.
#ifndef AVQVL_DAEMON_METRICS_H
#define AVQVL_DAEMON_METRICS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

struct Gauges {
    std::size_t registeredClients = 0;
    std::size_t waitingEvents = 0;
    std::size_t waitingBytes = 0;
    std::size_t openConnections = 0;
    std::size_t waitingRequests = 0;  // getEvents waiting for a post
};

class Metrics {
public:
    // operation is the exchange's operation name, or empty for other requests
    // ("none"). Names are client input: the service's own operations get a
    // series each, every other name counts as "other", so no client can add
    // series or crowd the real ones out.
    void recordRequest(const std::string& operation, int status, long long micros);
    // Clients the idle sweep unregistered.
    void addExpiredClients(std::size_t count);
    // A getEvents that asked to wait, answered at once: too many were waiting.
    void addRefusedWait();
    std::string render(const Gauges& gauges);

private:
    static constexpr std::size_t kBuckets = 16;

    std::mutex mutex;  // guards everything below
    std::map<std::pair<std::string, int>, std::uint64_t> requests;
    std::array<std::uint64_t, kBuckets + 1> durations{};  // per bucket, the last +Inf
    std::uint64_t durationCount = 0;
    std::uint64_t durationMicros = 0;
    std::uint64_t expiredClients = 0;
    std::uint64_t refusedWaits = 0;
};

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_METRICS_H
