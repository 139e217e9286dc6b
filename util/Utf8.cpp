#include "util/Utf8.h"
#include "util/internal/Utf8InPlace.h"

#include <unicode/utypes.h>

#include <cstddef>
#include <cstring>
#include <limits>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define AVQVL_UTF8_SSSE3 1
#else
#define AVQVL_UTF8_SSSE3 0
#endif

#include "client/Exception.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

using Client::Utf8ConversionException;

namespace {

const std::uint64_t kDefaultUnicodeCapacity = 20480;
const std::uint64_t kDefaultByteCapacity = 30720;

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

// Eight bytes at a time: true when none has its high bit set and none is zero.
inline bool plainAsciiWord(const unsigned char* at) {
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    const std::uint64_t highBits = 0x8080808080808080ULL;
    const std::uint64_t zeroBytes = (word - 0x0101010101010101ULL) & ~word & highBits;
    return ((word & highBits) | zeroBytes) == 0;
}

// Length of the well-formed sequence at `at`, or 0.
inline std::size_t sequenceLength(const LeadTable& table, const unsigned char* at,
                                  const unsigned char* end) {
    const unsigned char lead = at[0];
    const std::size_t length = table.length[lead];
    if (length == 0 || static_cast<std::size_t>(end - at) < length) {
        return 0;
    }
    if (length >= 2 && (at[1] < table.secondLow[lead] || at[1] > table.secondHigh[lead])) {
        return 0;
    }
    if (length >= 3 && (at[2] & 0xC0) != 0x80) {
        return 0;
    }
    if (length == 4 && (at[3] & 0xC0) != 0x80) {
        return 0;
    }
    return length;
}

inline bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// The copy of UTF-8 to UTF-8 as the pump would make it (see copyUtf8). Input
// is checked and copied front to back; `units` counts the UTF-16 units of the
// characters that start before the scan position.
//
// Such input comes out unchanged, with one exception that follows from the
// pump's passes: a four-byte character whose surrogate pair would straddle
// the end of a first-stage pass (after unit 20480, 40960, ...) reaches the
// second stage as two lone surrogates in two passes, and each becomes U+FFFD.
//
// Without an output it only checks, and says whether such a replacement
// would have been made.
class Utf8Copy {
public:
    Utf8Copy(const char* input, std::size_t length, std::uint64_t unicodeCapacity,
             std::string* output)
        : begin(reinterpret_cast<const unsigned char*>(input)),
          end(begin + length),
          copiedUpTo(begin),
          units(0),
          unicodeCapacity(unicodeCapacity),
          // The unit index at which a surrogate pair would straddle a pass;
          // with a single first-stage pass nothing can.
          straddleUnit(length > unicodeCapacity ? unicodeCapacity - 1
                                                : std::numeric_limits<std::uint64_t>::max()),
          replaced(false),
          output(output) {
        if (output != nullptr) {
            output->clear();
            output->reserve(length);
        }
    }

    bool run();
    bool replacedAny() const { return replaced; }

private:
    bool scanScalar(const unsigned char* at);
#if AVQVL_UTF8_SSSE3
    bool scanBlocks(const unsigned char*& at);
    void findStraddleInBlock(const unsigned char* block);
#endif

    // A character starts at `at`, `unitIndex` UTF-16 units into the text.
    void noteCharacterStart(const unsigned char* at, std::uint64_t unitIndex, bool fourBytes) {
        if (unitIndex < straddleUnit) {
            return;
        }
        if (unitIndex == straddleUnit && fourBytes) {
            replaced = true;
            if (output != nullptr) {
                output->append(reinterpret_cast<const char*>(copiedUpTo),
                               static_cast<std::size_t>(at - copiedUpTo));
                output->append("\xEF\xBF\xBD\xEF\xBF\xBD");
                copiedUpTo = at + 4;
            }
        }
        while (straddleUnit <= unitIndex) {
            straddleUnit += unicodeCapacity;
        }
    }

    const unsigned char* const begin;
    const unsigned char* const end;
    const unsigned char* copiedUpTo;
    std::uint64_t units;
    const std::uint64_t unicodeCapacity;
    std::uint64_t straddleUnit;
    bool replaced;
    std::string* const output;
};

// One character at a time from `at`, a character boundary, to the end; eight
// plain ASCII bytes at a time where they come.
bool Utf8Copy::scanScalar(const unsigned char* at) {
    const LeadTable& table = leadTable();
    while (at != end) {
        if (end - at >= 8 && plainAsciiWord(at)) {
            at += 8;
            units += 8;
            continue;
        }
        const std::size_t n = sequenceLength(table, at, end);
        if (n == 0) {
            return false;
        }
        noteCharacterStart(at, units, n == 4);
        at += n;
        units += 1 + (n >> 2);  // a four-byte character is a surrogate pair
    }
    return true;
}

#if AVQVL_UTF8_SSSE3
// Sixteen bytes at a time with three table look-ups per block, after Keiser
// and Lemire, "Validating UTF-8 in less than one instruction per byte": each
// byte is checked against the one to three before it, so no character needs a
// branch of its own. Stops before the last partial block; `at` is then where
// the checked bytes end, possibly inside a character.
namespace simd {

const std::uint8_t kTooShort = 1 << 0;      // lead, then no continuation
const std::uint8_t kTooLong = 1 << 1;       // ASCII, then a continuation
const std::uint8_t kOverlong3 = 1 << 2;     // E0 80..9F
const std::uint8_t kTooLarge = 1 << 3;      // F4 90..BF, F5..FF 90..BF
const std::uint8_t kSurrogate = 1 << 4;     // ED A0..BF
const std::uint8_t kOverlong2 = 1 << 5;     // C0..C1 80..BF
const std::uint8_t kTooLarge1000 = 1 << 6;  // F5..FF 80..8F
const std::uint8_t kOverlong4 = 1 << 6;     // F0 80..8F
const std::uint8_t kTwoContinuations = 1 << 7;
const std::uint8_t kCarry = kTooShort | kTooLong | kTwoContinuations;

inline __m128i table(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3,
                     std::uint8_t b4, std::uint8_t b5, std::uint8_t b6, std::uint8_t b7,
                     std::uint8_t b8, std::uint8_t b9, std::uint8_t b10, std::uint8_t b11,
                     std::uint8_t b12, std::uint8_t b13, std::uint8_t b14, std::uint8_t b15) {
    return _mm_setr_epi8(static_cast<char>(b0), static_cast<char>(b1), static_cast<char>(b2),
                         static_cast<char>(b3), static_cast<char>(b4), static_cast<char>(b5),
                         static_cast<char>(b6), static_cast<char>(b7), static_cast<char>(b8),
                         static_cast<char>(b9), static_cast<char>(b10), static_cast<char>(b11),
                         static_cast<char>(b12), static_cast<char>(b13), static_cast<char>(b14),
                         static_cast<char>(b15));
}

__attribute__((target("ssse3"))) inline __m128i highNibbles(__m128i v) {
    return _mm_and_si128(_mm_srli_epi16(v, 4), _mm_set1_epi8(0x0F));
}

// Error bits of each byte given the byte before it.
__attribute__((target("ssse3"))) inline __m128i checkSpecialCases(__m128i input, __m128i prev1) {
    const __m128i byte1HighTable =
        table(kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong,
              kTwoContinuations, kTwoContinuations, kTwoContinuations, kTwoContinuations,
              kTooShort | kOverlong2, kTooShort, kTooShort | kOverlong3 | kSurrogate,
              kTooShort | kTooLarge | kTooLarge1000 | kOverlong4);
    const std::uint8_t large = kCarry | kTooLarge | kTooLarge1000;
    const __m128i byte1LowTable =
        table(kCarry | kOverlong3 | kOverlong2 | kOverlong4, kCarry | kOverlong2, kCarry, kCarry,
              kCarry | kTooLarge, large, large, large, large, large, large, large, large,
              large | kSurrogate, large, large);
    const std::uint8_t continuation = kTooLong | kOverlong2 | kTwoContinuations;
    const __m128i byte2HighTable =
        table(kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort,
              kTooShort, continuation | kOverlong3 | kTooLarge1000 | kOverlong4,
              continuation | kOverlong3 | kTooLarge, continuation | kSurrogate | kTooLarge,
              continuation | kSurrogate | kTooLarge, kTooShort, kTooShort, kTooShort, kTooShort);
    const __m128i byte1High = _mm_shuffle_epi8(byte1HighTable, highNibbles(prev1));
    const __m128i byte1Low =
        _mm_shuffle_epi8(byte1LowTable, _mm_and_si128(prev1, _mm_set1_epi8(0x0F)));
    const __m128i byte2High = _mm_shuffle_epi8(byte2HighTable, highNibbles(input));
    return _mm_and_si128(_mm_and_si128(byte1High, byte1Low), byte2High);
}

}  // namespace simd

__attribute__((target("ssse3,popcnt"))) bool Utf8Copy::scanBlocks(const unsigned char*& at) {
    const __m128i zero = _mm_setzero_si128();
    // Nonzero where a block's last three bytes start a character it cuts off.
    const __m128i incompleteLimit =
        _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, static_cast<char>(0xEF),
                      static_cast<char>(0xDF), static_cast<char>(0xBF));
    __m128i previous = zero;
    __m128i previousIncomplete = zero;
    __m128i error = zero;
    while (end - at >= 16) {
        const __m128i input = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        error = _mm_or_si128(error, _mm_cmpeq_epi8(input, zero));
        std::uint64_t blockUnits = 16;
        const int highBits = _mm_movemask_epi8(input);
        if (highBits == 0) {
            error = _mm_or_si128(error, previousIncomplete);
            previousIncomplete = zero;
        } else {
            const __m128i prev1 = _mm_alignr_epi8(input, previous, 15);
            const __m128i prev2 = _mm_alignr_epi8(input, previous, 14);
            const __m128i prev3 = _mm_alignr_epi8(input, previous, 13);
            const __m128i special = simd::checkSpecialCases(input, prev1);
            // A third byte after E0..FF two back, a fourth after F0..FF three back.
            const __m128i mustContinue = _mm_and_si128(
                _mm_or_si128(_mm_subs_epu8(prev2, _mm_set1_epi8(static_cast<char>(0xE0 - 0x80))),
                             _mm_subs_epu8(prev3, _mm_set1_epi8(static_cast<char>(0xF0 - 0x80)))),
                _mm_set1_epi8(static_cast<char>(0x80)));
            error = _mm_or_si128(error, _mm_xor_si128(mustContinue, special));
            previousIncomplete = _mm_subs_epu8(input, incompleteLimit);
            // Continuations (80..BF) add no unit, four-byte leads (F0..) two.
            const int continuations =
                _mm_movemask_epi8(_mm_cmplt_epi8(input, _mm_set1_epi8(static_cast<char>(0xC0))));
            const int fourByteLeads =
                _mm_movemask_epi8(_mm_cmpgt_epi8(input, _mm_set1_epi8(static_cast<char>(0xEF)))) &
                highBits;
            blockUnits = 16 - static_cast<unsigned>(__builtin_popcount(continuations)) +
                         static_cast<unsigned>(__builtin_popcount(fourByteLeads));
        }
        previous = input;
        if (units + blockUnits > straddleUnit) {
            findStraddleInBlock(at);
        }
        units += blockUnits;
        at += 16;
    }
    return _mm_movemask_epi8(_mm_cmpeq_epi8(error, zero)) == 0xFFFF;
}

// The block holds the character at unit `straddleUnit`, or the end of one that
// covers it: replay the block's character starts in order. Its bytes are
// checked as a whole; should they be malformed, the copy is dropped anyway.
void Utf8Copy::findStraddleInBlock(const unsigned char* block) {
    std::uint64_t unitIndex = units;
    for (int i = 0; i < 16; ++i) {
        const unsigned char byte = block[i];
        if (!isContinuation(byte)) {
            noteCharacterStart(block + i, unitIndex, byte >= 0xF0);
            unitIndex += byte >= 0xF0 ? 2 : 1;
        }
    }
}
#endif

bool Utf8Copy::run() {
    const unsigned char* at = begin;
#if AVQVL_UTF8_SSSE3
    static const bool haveSsse3 =
        __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("popcnt");
    if (haveSsse3) {
        if (!scanBlocks(at)) {
            return false;
        }
        // The blocks may end inside a character: step back to its start,
        // uncount it, and let the scalar scan check it whole.
        for (std::ptrdiff_t back = 1; back <= 3 && back <= at - begin; ++back) {
            const unsigned char byte = at[-back];
            if (!isContinuation(byte)) {
                // Any lead, well-formed or not, whose pattern asks for more
                // bytes than the blocks held: its successors were never seen.
                const std::ptrdiff_t wanted = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
                if (byte >= 0xC0 && wanted > back) {
                    at -= back;
                    units -= byte >= 0xF0 ? 2 : 1;
                }
                break;
            }
        }
    }
#endif
    if (!scanScalar(at)) {
        return false;
    }
    if (output != nullptr && copiedUpTo < end) {
        output->append(reinterpret_cast<const char*>(copiedUpTo),
                       static_cast<std::size_t>(end - copiedUpTo));
    }
    return true;
}

// What the pump gives for UTF-8 to UTF-8, without the round trip through
// UTF-16, for input that is well-formed and holds no zero byte; false (and
// `output` unspecified) for any other input, which the pump must convert.
bool copyUtf8(const char* input, std::size_t length, std::uint64_t unicodeCapacity,
              std::string& output) {
    return Utf8Copy(input, length, unicodeCapacity, &output).run();
}

// True when copyUtf8 would give back exactly the input.
bool copyKeepsUtf8(const char* input, std::size_t length, std::uint64_t unicodeCapacity) {
    Utf8Copy check(input, length, unicodeCapacity, nullptr);
    return check.run() && !check.replacedAny();
}

// A negative length has no meaningful end; it is refused before the input is
// touched rather than let the widened value become a source limit. A null
// input of length 0 is the empty text.
const char* checkedInput(const char* input, int32_t length) {
    if (length < 0) {
        throw Utf8ConversionException("Invalid input length " + std::to_string(length) + "\n");
    }
    if (input == nullptr) {
        if (length > 0) {
            throw Utf8ConversionException("Invalid input: no bytes for length " +
                                          std::to_string(length) + "\n");
        }
        return "";
    }
    return input;
}

// Source bytes -> UTF-16 (first stage, in passes of at most unicodeCapacity
// units) -> target bytes (second stage, in passes of at most byteCapacity
// bytes). Each second-stage pass is appended as zero-terminated text, so a
// U+0000 in the text ends what that pass contributes. When both converters are
// UTF-8, well-formed input skips the round trip (copyUtf8), with the same result.
// So does input whose one zero byte is its last (a request body's last block,
// sent with its terminator): the zero ends the last pass, and nothing follows.
std::string pump(CodePageConverter& converter, CodePageConverter::Direction direction,
                 const char* input, int32_t length) {
    std::string output;
    const bool terminated = length > 0 && input[length - 1] == '\0';
    if (convertsUtf8ToUtf8(converter) &&
        copyUtf8(input, static_cast<std::size_t>(length - (terminated ? 1 : 0)),
                 converter.unicodeCapacity, output)) {
        return output;
    }
    output.clear();
    // Most texts keep about their length; a longer result grows as usual.
    output.reserve(static_cast<std::size_t>(length));
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

std::string convert(CodePageConverter::Direction direction, const char* input, int32_t length) {
    input = checkedInput(input, length);
    CodePageConverter converter(direction, static_cast<std::uint64_t>(length));
    return pump(converter, direction, input, length);
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
    return convert(CodePageConverter::ToUtf8, input, length);
}

std::string fromUtf8(const char* input, int32_t length) {
    return convert(CodePageConverter::FromUtf8, input, length);
}

// A response may be hundreds of megabytes, and in the usual case (UTF-8 as the
// default code page, a well-formed text) its conversion is the same bytes:
// checked where they lie, they become the result without a second copy.
void fromUtf8InPlace(std::string& text) {
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
        throw Utf8ConversionException("Invalid input length " + std::to_string(text.size()) + "\n");
    }
    const int32_t length = static_cast<int32_t>(text.size());
    CodePageConverter converter(CodePageConverter::FromUtf8, text.size());
    if (convertsUtf8ToUtf8(converter) &&
        copyKeepsUtf8(text.data(), text.size(), converter.unicodeCapacity)) {
        return;
    }
    text = pump(converter, CodePageConverter::FromUtf8, text.data(), length);
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
