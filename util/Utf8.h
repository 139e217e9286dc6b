/// @file
/// Conversion between the host's default code page (ICU's default converter) and
/// UTF-8, by way of UTF-16, in bounded work buffers. Failures throw
/// Client::Utf8ConversionException.
#ifndef AVQVL_UTIL_UTF8_H
#define AVQVL_UTIL_UTF8_H

#include <unicode/ucnv.h>

#include <cstdint>
#include <string>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

// Both functions: the caller owns the input and receives a new string. Failures
// throw Client::Utf8ConversionException and leave no partial result. Every call
// opens its own converters and buffers, so calls on any number of threads are
// safe. A negative length, or a null input with a positive length, throws before
// any byte is read.

/// Reads exactly `length` bytes (NUL bytes included) and returns their UTF-8 form.
AVQVL_EXPORT std::string toUtf8(const char* input, int32_t length);
/// Reads exactly `length` UTF-8 bytes and returns them in the default code page.
AVQVL_EXPORT std::string fromUtf8(const char* input, int32_t length);

/// Owns the two converters and the two work buffers of one conversion call.
class AVQVL_EXPORT CodePageConverter {
public:
    /// Which way the call converts.
    enum Direction {
        ToUtf8,   ///< from the default code page to UTF-8
        FromUtf8  ///< from UTF-8 to the default code page
    };
    /// Opens both converters and sizes the buffers for `length` input bytes;
    /// throws Client::Utf8ConversionException when a converter will not open.
    CodePageConverter(Direction direction, std::uint64_t length);
    ~CodePageConverter();
    CodePageConverter(const CodePageConverter&) = delete;
    CodePageConverter& operator=(const CodePageConverter&) = delete;

    std::uint64_t unicodeCapacity;  ///< UTF-16 units, one spare unit not counted
    std::uint64_t byteCapacity;     ///< bytes, one spare byte not counted
    UChar* unicodeBuffer;           ///< owned; unicodeCapacity + 1 units
    char* byteBuffer;               ///< owned; byteCapacity + 1 bytes
    UConverter* nativeConverter;    ///< owned; the default code page's converter
    UConverter* utf8Converter;      ///< owned; the UTF-8 converter
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_UTF8_H
