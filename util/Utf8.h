// Conversion between the host's default code page (ICU's default converter) and
// UTF-8, by way of UTF-16, in bounded work buffers. Failures throw
// Client::Utf8ConversionException.
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

// The caller owns the input and receives a new string. Failures throw
// Client::Utf8ConversionException and leave no partial result. Every call opens
// its own converters and buffers, so calls on any number of threads are safe.
//
// A negative length, or a null input with a positive length, throws before any
// byte is read.
// Reads exactly `length` bytes (NUL bytes included) and returns their UTF-8 form.
AVQVL_EXPORT std::string toUtf8(const char* input, int32_t length);
// Reads exactly `length` UTF-8 bytes and returns them in the default code page.
AVQVL_EXPORT std::string fromUtf8(const char* input, int32_t length);

// Owns the two converters and the two work buffers of one conversion call.
class AVQVL_EXPORT CodePageConverter {
public:
    enum Direction { ToUtf8, FromUtf8 };
    CodePageConverter(Direction direction, std::uint64_t length);
    ~CodePageConverter();
    CodePageConverter(const CodePageConverter&) = delete;
    CodePageConverter& operator=(const CodePageConverter&) = delete;

    std::uint64_t unicodeCapacity;  // UTF-16 units, one spare unit not counted
    std::uint64_t byteCapacity;     // bytes, one spare byte not counted
    UChar* unicodeBuffer;
    char* byteBuffer;
    UConverter* nativeConverter;
    UConverter* utf8Converter;
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_UTF8_H
