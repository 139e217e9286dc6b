#include "tools/Listing.h"

namespace Arvant::Net::AvQuorvel::Tools {

std::string joined(const std::vector<std::string>& items) {
    if (items.empty()) {
        return "none";
    }
    std::string out;
    for (size_t i = 0; i < items.size(); ++i) {
        out += (i == 0 ? "" : ", ") + items[i];
    }
    return out;
}

}  // namespace Arvant::Net::AvQuorvel::Tools
