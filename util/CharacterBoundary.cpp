#include "util/internal/CharacterBoundary.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {
namespace {

// UTF-8 is self-synchronising: only the last three bytes can belong to a
// character that the end cuts off. A lead byte among them whose sequence needs
// more bytes than remain starts such a character.
std::size_t wholeUtf8Characters(const unsigned char* bytes, std::size_t length) {
    const std::size_t lookBack = length < 3 ? length : 3;
    for (std::size_t back = 1; back <= lookBack; ++back) {
        const unsigned char byte = bytes[length - back];
        if (byte < 0x80) {
            return length;  // ASCII ends a character
        }
        if (byte >= 0xC0) {
            const std::size_t needed = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
            return needed > back ? length - back : length;
        }
    }
    return length;  // trail bytes only, or no lead byte close enough: nothing to wait for
}

}  // namespace

CharacterBoundary::~CharacterBoundary() {
    if (converter != nullptr) {
        ucnv_close(converter);
    }
}

std::size_t CharacterBoundary::wholeCharacters(const char* bytes, std::size_t length) {
    if (!opened) {
        opened = true;
        UErrorCode status = U_ZERO_ERROR;
        converter = ucnv_open(nullptr, &status);
        if (U_FAILURE(status)) {
            converter = nullptr;
        }
    }
    if (converter == nullptr || length == 0 || ucnv_getMaxCharSize(converter) == 1) {
        return length;
    }
    if (ucnv_getType(converter) == UCNV_UTF8) {
        const std::size_t whole =
            wholeUtf8Characters(reinterpret_cast<const unsigned char*>(bytes), length);
        return whole > 0 ? whole : length;
    }
    // Any other code page: let the converter read the text without flushing;
    // what it holds back at the end is the start of a character still to come.
    ucnv_resetToUnicode(converter);
    UChar units[1024];
    const char* source = bytes;
    const char* const sourceLimit = bytes + length;
    UErrorCode status = U_ZERO_ERROR;
    do {
        status = U_ZERO_ERROR;
        UChar* target = units;
        ucnv_toUnicode(converter, &target, units + 1024, &source, sourceLimit, nullptr, false,
                       &status);
    } while (status == U_BUFFER_OVERFLOW_ERROR);
    const int32_t pending = U_SUCCESS(status) ? ucnv_toUCountPending(converter, &status) : 0;
    ucnv_resetToUnicode(converter);
    if (U_FAILURE(status) || pending <= 0 || static_cast<std::size_t>(pending) >= length) {
        return length;
    }
    return length - static_cast<std::size_t>(pending);
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
