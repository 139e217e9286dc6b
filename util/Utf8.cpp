#include "util/Utf8.h"

#include <unicode/utypes.h>

#include <sstream>

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

// Source bytes -> UTF-16 (first stage, in passes of at most unicodeCapacity
// units) -> target bytes (second stage, in passes of at most byteCapacity
// bytes). Each second-stage pass is appended as zero-terminated text, so a
// U+0000 in the text ends what that pass contributes.
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

    std::ostringstream output;
    CodePageConverter converter(direction, static_cast<std::uint64_t>(length));
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
            output << converter.byteBuffer;
        } while (secondStatus == U_BUFFER_OVERFLOW_ERROR);
        checkConversionStatus(target, secondStatus, FromUnicode);
    } while (firstStatus == U_BUFFER_OVERFLOW_ERROR);
    checkConversionStatus(source, firstStatus, ToUnicode);

    return output.str();
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
