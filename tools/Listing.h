// How the tool shows a list of identifiers to a person.
#ifndef QUORVEL_TOOLS_LISTING_H
#define QUORVEL_TOOLS_LISTING_H

#include <string>
#include <vector>

namespace Quorvel {

// "a, b, c", or "none" for an empty list.
std::string joined(const std::vector<std::string>& items);

}  // namespace Quorvel

#endif  // QUORVEL_TOOLS_LISTING_H
