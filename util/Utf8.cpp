#include "util/Utf8.h"

#include <unicode/utypes.h>

#include <cstring>
#include <limits>

#include "client/Exception.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

using Client::Utf8ConversionException;

namespace {

const std::uint64_t kDefaultUnicodeCapacity = 20480;
const std::uint64_t kDefaultByteCapacity = 30720;
// Shorter texts always take the pump: for them opening the two converters
// costs more than converting, and ICU's own calls stay the path that every
// short text, header blocks included, is seen to take.
const std::int32_t kCopyMinimumLength = 1024;

enum StatusDirection { ToUnicode, FromUnicode };

// Releases whatever the converter object holds; safe on a half-built object.
void releaseResources(CodePageConverter& converter) {
    if (converter.utf8Converter != nullptr) {
        ucnv_close(converter.utf8Converter);
        converter.utf8Converter = nullptr;
    }
    if (converter.nativeConverter != nullptr) {
        ucnv_close(converter.nativeConverter);
        converter.nativeConverter = nullptr;
    }
    delete[] converter.byteBuffer;
    converter.byteBuffer = nullptr;
    delete[] converter.unicodeBuffer;
    converter.unicodeBuffer = nullptr;
}

UConverter* openConverter(const char* name, UErrorCode& status) {
    UConverter* converter = ucnv_open(name, &status);
    if (status > U_ZERO_ERROR) {
        // ICU returns no converter on failure; close one anyway should it not.
        if (converter != nullptr) {
            ucnv_close(converter);
        }
        throw Utf8ConversionException(std::string("Error opening converter ") +
                                      u_errorName(status) + "\n");
    }
    return converter;
}

// "name (alias, alias, ...)". The queries share one status that is not looked
// at: a failed query just leaves its part out.
std::string describeConverter(UConverter* converter) {
    UErrorCode status = U_ZERO_ERROR;
    const char* name = ucnv_getName(converter, &status);
    std::string description = name != nullptr ? name : "";
    description += " (";
    const uint16_t count = ucnv_countAliases(name, &status);
    for (uint16_t i = 0; i < count; ++i) {
        if (i > 0) {
            description += ", ";
        }
        const char* alias = ucnv_getAlias(name, i, &status);
        if (alias != nullptr) {
            description += alias;
        }
    }
    description += ")";
    return description;
}

// Buffer overflow only drives the loops and never reaches here as a failure;
// warnings (negative) and success pass.
void checkConversionStatus(UConverter* converter, UErrorCode status, StatusDirection direction) {
    if (status <= U_ZERO_ERROR) {
        return;
    }
    std::string message = "An error occured converting ";
    if (direction == ToUnicode) {
        message += describeConverter(converter) + " to Unicode.";
    } else {
        message += "Unicode to " + describeConverter(converter) + ".";
    }
    message += "\n";
    message += u_errorName(status);
    message += "\n";
    throw Utf8ConversionException(message);
}

// True when both converters are ICU's UTF-8 converter. The pump then only
// re-encodes what it decodes, and copyUtf8 may stand in for it.
bool convertsUtf8ToUtf8(const CodePageConverter& converter) {
    return ucnv_getType(converter.nativeConverter) == UCNV_UTF8 &&
           ucnv_getType(converter.utf8Converter) == UCNV_UTF8;
}

// Eight bytes at a time: true when none has its high bit set and none is zero.
inline bool plainAsciiWord(const unsigned char* at) {
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    const std::uint64_t highBits = 0x8080808080808080ULL;
    const std::uint64_t zeroBytes = (word - 0x0101010101010101ULL) & ~word & highBits;
    return ((word & highBits) | zeroBytes) == 0;
}

// Per lead byte: the length of a well-formed sequence (0: no sequence starts
// with it; a zero byte counts as none, since its U+0000 ends a pass's output
// in the pump) and the range of its second byte. The ranges are Unicode's
// table of well-formed UTF-8, which ICU's UTF-8 converter follows: no
// overlongs, no surrogates, nothing above U+10FFFF.
struct LeadTable {
    unsigned char length[256];
    unsigned char secondLow[256];
    unsigned char secondHigh[256];

    LeadTable() {
        for (int b = 0; b < 256; ++b) {
            length[b] = b >= 0x01 && b <= 0x7F   ? 1
                        : b >= 0xC2 && b <= 0xDF ? 2
                        : b >= 0xE0 && b <= 0xEF ? 3
                        : b >= 0xF0 && b <= 0xF4 ? 4
                                                 : 0;
            secondLow[b] = b == 0xE0 ? 0xA0 : b == 0xF0 ? 0x90 : 0x80;
            secondHigh[b] = b == 0xED ? 0x9F : b == 0xF4 ? 0x8F : 0xBF;
        }
    }
};

const LeadTable& leadTable() {
    static const LeadTable table;
    return table;
}

// Length of the well-formed sequence at `at`, or 0. Branch-free apart from the
// bounds: mixed text gives a branch predictor nothing to learn.
inline std::size_t sequenceLength(const LeadTable& table, const unsigned char* at,
                                  const unsigned char* end) {
    const unsigned char lead = at[0];
    const std::size_t length = table.length[lead];
    if (end - at < 4) {
        if (length == 0 || static_cast<std::size_t>(end - at) < length) {
            return 0;
        }
        for (std::size_t i = 1; i < length; ++i) {
            const unsigned char low = i == 1 ? table.secondLow[lead] : 0x80;
            const unsigned char high = i == 1 ? table.secondHigh[lead] : 0xBF;
            if (at[i] < low || at[i] > high) {
                return 0;
            }
        }
        return length;
    }
    const unsigned char second = at[1];
    const bool wellFormed =
        (length < 2 || (second >= table.secondLow[lead] && second <= table.secondHigh[lead])) &
        (length < 3 || (at[2] & 0xC0) == 0x80) & (length < 4 || (at[3] & 0xC0) == 0x80);
    return wellFormed ? length : 0;
}

// What the pump gives for UTF-8 to UTF-8, without the round trip through
// UTF-16, for input that is well-formed and holds no zero byte; false (and
// `output` unspecified) for any other input, which the pump must convert.
//
// Such input comes out unchanged, with one exception that follows from the
// pump's passes: a four-byte character whose surrogate pair would straddle
// the end of a first-stage pass (after unit 20480, 40960, ...) reaches the
// second stage as two lone surrogates in two passes, and each becomes U+FFFD.
bool copyUtf8(const char* input, std::size_t length, std::uint64_t unicodeCapacity,
              std::string& output) {
    const LeadTable& table = leadTable();
    const unsigned char* at = reinterpret_cast<const unsigned char*>(input);
    const unsigned char* const end = at + length;
    const unsigned char* copiedUpTo = at;
    // The unit index at which a surrogate pair would straddle a pass; with a
    // single first-stage pass nothing can.
    std::uint64_t straddleUnit =
        length > unicodeCapacity ? unicodeCapacity - 1 : std::numeric_limits<std::uint64_t>::max();
    std::uint64_t units = 0;  // UTF-16 units before `at`
    output.clear();
    output.reserve(length);
    while (at != end) {
        if (end - at >= 8 && plainAsciiWord(at)) {
            at += 8;
            units += 8;
            continue;
        }
        // Up to the next word boundary, one character at a time.
        const unsigned char* const stop = end - at > 8 ? at + 8 : end;
        while (at < stop) {
            const std::size_t n = sequenceLength(table, at, end);
            if (n == 0) {
                return false;
            }
            if (units >= straddleUnit) {
                if (units == straddleUnit && n == 4) {
                    output.append(reinterpret_cast<const char*>(copiedUpTo),
                                  static_cast<std::size_t>(at - copiedUpTo));
                    output.append("\xEF\xBF\xBD\xEF\xBF\xBD");
                    copiedUpTo = at + 4;
                }
                while (straddleUnit <= units) {
                    straddleUnit += unicodeCapacity;
                }
            }
            at += n;
            units += 1 + (n >> 2);  // a four-byte character is a surrogate pair
        }
    }
    output.append(reinterpret_cast<const char*>(copiedUpTo),
                  static_cast<std::size_t>(end - copiedUpTo));
    return true;
}

// Source bytes -> UTF-16 (first stage, in passes of at most unicodeCapacity
// units) -> target bytes (second stage, in passes of at most byteCapacity
// bytes). Each second-stage pass is appended as zero-terminated text, so a
// U+0000 in the text ends what that pass contributes. When both converters are
// UTF-8, well-formed input skips the round trip (copyUtf8), with the same result.
std::string pump(CodePageConverter::Direction direction, const char* input, int32_t length) {
    // A negative length has no meaningful end; refuse it before the input is
    // touched rather than let the widened value become a source limit.
    if (length < 0) {
        throw Utf8ConversionException("Invalid input length " + std::to_string(length) + "\n");
    }
    if (input == nullptr) {
        if (length > 0) {
            throw Utf8ConversionException("Invalid input: no bytes for length " +
                                          std::to_string(length) + "\n");
        }
        input = "";
    }

    CodePageConverter converter(direction, static_cast<std::uint64_t>(length));
    std::string output;
    if (length >= kCopyMinimumLength && convertsUtf8ToUtf8(converter) &&
        copyUtf8(input, static_cast<std::size_t>(length), converter.unicodeCapacity, output)) {
        return output;
    }
    output.clear();
    const bool toUtf8 = direction == CodePageConverter::ToUtf8;
    UConverter* source = toUtf8 ? converter.nativeConverter : converter.utf8Converter;
    UConverter* target = toUtf8 ? converter.utf8Converter : converter.nativeConverter;

    const char* sourceCursor = input;
    const char* const sourceLimit = input + length;
    UChar* const unicodeLimit = converter.unicodeBuffer + converter.unicodeCapacity;
    char* const byteLimit = converter.byteBuffer + converter.byteCapacity;

    UErrorCode firstStatus;
    do {
        firstStatus = U_ZERO_ERROR;
        UChar* unitCursor = converter.unicodeBuffer;
        const bool flushSource =
            static_cast<std::uint64_t>(sourceLimit - sourceCursor) <= converter.unicodeCapacity;
        ucnv_toUnicode(source, &unitCursor, unicodeLimit, &sourceCursor, sourceLimit, nullptr,
                       flushSource, &firstStatus);

        const UChar* pending = converter.unicodeBuffer;
        UErrorCode secondStatus;
        do {
            secondStatus = U_ZERO_ERROR;
            char* byteCursor = converter.byteBuffer;
            const bool flushUnits =
                static_cast<std::uint64_t>(unitCursor - pending) <= converter.byteCapacity;
            ucnv_fromUnicode(target, &byteCursor, byteLimit, &pending, unitCursor, nullptr,
                             flushUnits, &secondStatus);
            *byteCursor = '\0';  // the spare byte when the buffer is full
            output.append(converter.byteBuffer, std::strlen(converter.byteBuffer));
        } while (secondStatus == U_BUFFER_OVERFLOW_ERROR);
        checkConversionStatus(target, secondStatus, FromUnicode);
    } while (firstStatus == U_BUFFER_OVERFLOW_ERROR);
    checkConversionStatus(source, firstStatus, ToUnicode);

    return output;
}

}  // namespace

CodePageConverter::CodePageConverter(Direction direction, std::uint64_t length)
    : unicodeCapacity(kDefaultUnicodeCapacity),
      byteCapacity(kDefaultByteCapacity),
      unicodeBuffer(nullptr),
      byteBuffer(nullptr),
      nativeConverter(nullptr),
      utf8Converter(nullptr) {
    if (length < kDefaultUnicodeCapacity) {
        unicodeCapacity = length;
        byteCapacity = static_cast<std::uint64_t>(static_cast<double>(length) * 1.5);
    }
    // A constructor that throws runs no destructor: release by hand.
    try {
        unicodeBuffer = new UChar[unicodeCapacity + 1];
        if (direction == FromUtf8) {
            byteCapacity = unicodeCapacity;
        }
        byteBuffer = new char[byteCapacity + 1];
        UErrorCode status = U_ZERO_ERROR;
        nativeConverter = openConverter(nullptr, status);
        utf8Converter = openConverter("UTF-8", status);
    } catch (...) {
        releaseResources(*this);
        throw;
    }
}

CodePageConverter::~CodePageConverter() {
    releaseResources(*this);
}

std::string toUtf8(const char* input, int32_t length) {
    return pump(CodePageConverter::ToUtf8, input, length);
}

std::string fromUtf8(const char* input, int32_t length) {
    return pump(CodePageConverter::FromUtf8, input, length);
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
