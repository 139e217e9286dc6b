// Conversion of a response where it lies, so that a large one is never held
// twice. Internal to the library: not installed; exported only so that its
// tests can reach it in the shared library.
#ifndef AVQVL_UTIL_INTERNAL_UTF8INPLACE_H
#define AVQVL_UTIL_INTERNAL_UTF8INPLACE_H

#include <string>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

// Replaces `text` by fromUtf8(text.data(), text.size()); where that is the
// same bytes, they stay where they are. A text longer than int32_t allows
// throws. On failure `text` is left as it was.
AVQVL_EXPORT void fromUtf8InPlace(std::string& text);

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_INTERNAL_UTF8INPLACE_H
