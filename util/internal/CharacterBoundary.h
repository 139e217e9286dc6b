// Where text in the host's default code page may be cut without splitting a
// character, so that each piece converts on its own to what the whole would.
// One object serves one thread; it opens ICU's default converter on first use
// and closes it when destroyed. Nothing here throws but std::bad_alloc.
//
// Internal to the library: not installed, not exported.
#ifndef AVQVL_UTIL_INTERNAL_CHARACTERBOUNDARY_H
#define AVQVL_UTIL_INTERNAL_CHARACTERBOUNDARY_H

#include <unicode/ucnv.h>

#include <cstddef>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

class CharacterBoundary {
public:
    CharacterBoundary() = default;
    ~CharacterBoundary();
    CharacterBoundary(const CharacterBoundary&) = delete;
    CharacterBoundary& operator=(const CharacterBoundary&) = delete;

    // The length of the longest prefix of bytes[0, length) that does not end
    // inside a character: the bytes of a character cut off at the end are left
    // out. Gives length itself when the default converter cannot be opened, or
    // when leaving bytes out would leave nothing (the conversion then reports
    // or replaces what it cannot convert, as for any other text).
    std::size_t wholeCharacters(const char* bytes, std::size_t length);

private:
    UConverter* converter = nullptr;
    bool opened = false;
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_INTERNAL_CHARACTERBOUNDARY_H
