// Reading of the header block a client sends first: lines of name "=" value
// CR LF, closed by an empty line (CR LF) with nothing after it.
#ifndef AVQVL_TRANSPORT_INTERNAL_HEADERBLOCK_H
#define AVQVL_TRANSPORT_INTERNAL_HEADERBLOCK_H

#include <string>

#include "transport/internal/Backend.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

// True with the fields filled, or false with a message saying what is wrong.
// The value is everything after the first "="; names must be non-empty, unique
// and in ascending byte order (as clients sort them).
bool parseHeaderBlock(const std::string& block, HeaderFields& fields, std::string& error);

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_HEADERBLOCK_H
