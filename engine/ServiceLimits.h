// The service's limits; shared by the engine and its stores.
#ifndef AVQVL_ENGINE_SERVICELIMITS_H
#define AVQVL_ENGINE_SERVICELIMITS_H

#include <cstddef>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

struct ServiceLimits {
    std::size_t maxBodyBytes = 16 * 1024 * 1024;
    std::size_t maxQueuedEventsPerClient = 100000;
    std::size_t maxClientsPerServer = 10000;
    // Bytes of event text waiting for one client: one getEvents answer must stay
    // deliverable (clients take at most 2 GiB, the HTTP transport 1 GiB, and
    // escaping may make text up to six times longer); the count alone would
    // allow 100 000 bodies of 16 MiB.
    std::size_t maxQueuedBytesPerClient = 128 * 1024 * 1024;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_SERVICELIMITS_H
