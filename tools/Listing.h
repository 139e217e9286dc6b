// How the tool shows a list of identifiers to a person.
#ifndef AVQVL_TOOLS_LISTING_H
#define AVQVL_TOOLS_LISTING_H

#include <string>
#include <vector>

namespace Arvant::Net::AvQuorvel::Tools {

// "a, b, c", or "none" for an empty list.
std::string joined(const std::vector<std::string>& items);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_LISTING_H
