// The service's limits and the two kinds of failure it reports; shared by the
// engine and its stores.
#ifndef AVQVL_ENGINE_SERVICELIMITS_H
#define AVQVL_ENGINE_SERVICELIMITS_H

#include <cstddef>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

// A quarter of the machine's physical memory (Store.cpp says why).
std::size_t defaultMaxStoredBytes();

struct ServiceLimits {
    std::size_t maxBodyBytes = 16 * 1024 * 1024;
    std::size_t maxQueuedEventsPerClient = 100000;
    std::size_t maxClientsPerServer = 10000;
    // Bytes of event text waiting for one client: one getEvents answer must stay
    // deliverable (clients take at most 2 GiB, the HTTP transport 1 GiB, and
    // escaping may make text up to six times longer); the count alone would
    // allow 100 000 bodies of 16 MiB.
    std::size_t maxQueuedBytesPerClient = 128 * 1024 * 1024;
    // Bytes of event text the whole store holds, each text counted once however
    // many clients it waits for: without it, a few senders on many servers fill
    // the machine. The default is chosen in Store.cpp.
    std::size_t maxStoredBytes = defaultMaxStoredBytes();
};

// Why a request failed: those who carry the answer (the transport, the daemon)
// turn the kind into their own codes.
enum class FailureKind {
    Refused,  // a malformed request, or one the service's rules do not allow
    Limit     // a limit would be passed, the store failed, or memory ran out
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_SERVICELIMITS_H
