#include <memory>

#include "transport/internal/Backend.h"
#include "transport/internal/HttpBackend.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

Backend& activeBackend() {
    static Backend* const chosen = [] {
        HttpSettings settings;
        if (!httpSettingsFromEnvironment(settings)) {
            return &embeddedBackend();
        }
        // Never destroyed: threads may still be exchanging while the process ends.
        return makeHttpBackend(settings).release();
    }();
    return *chosen;
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
