// toUtf8 and fromUtf8 on any bytes; on valid UTF-8 without NUL bytes the round
// trip gives the input back. ICU's default converter is UTF-8 on this host, and
// the round trip holds for any default code page that covers the input.
#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "client/Exception.h"
#include "util/Utf8.h"

using Arvant::Net::AvQuorvel::Client::Utf8ConversionException;
using Arvant::Net::AvQuorvel::Util::fromUtf8;
using Arvant::Net::AvQuorvel::Util::toUtf8;

namespace {

bool isValidUtf8WithoutNul(const uint8_t* data, int32_t length) {
    int32_t i = 0;
    while (i < length) {
        UChar32 c;
        U8_NEXT(data, i, length, c);
        if (c <= 0) {  // negative: malformed; zero: a NUL byte
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 200000) {
        return 0;
    }
    const char* text = reinterpret_cast<const char*>(data);
    const int32_t length = static_cast<int32_t>(size);
    try {
        toUtf8(text, length);
    } catch (const Utf8ConversionException&) {
    }
    try {
        fromUtf8(text, length);
    } catch (const Utf8ConversionException&) {
    }
    if (isValidUtf8WithoutNul(data, length)) {
        const std::string wire = toUtf8(text, length);
        const std::string back = fromUtf8(wire.data(), static_cast<int32_t>(wire.size()));
        if (back != std::string(text, size)) {
            std::abort();
        }
    }
    return 0;
}
