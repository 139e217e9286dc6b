#include "tools/Input.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "tools/Failure.h"

namespace Arvant::Net::AvQuorvel::Tools {

namespace {

constexpr std::size_t kReadChunkBytes = 64 * 1024;

[[noreturn]] void throwReadFailure(int error) {
    throw ToolError(kExitInternal, "IOError",
                    std::string("cannot read standard input: ") + std::strerror(error));
}

// Appends up to one chunk of standard input to `data`; false at the end.
bool readChunk(std::string& data) {
    char buffer[kReadChunkBytes];
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n > 0) {
            data.append(buffer, static_cast<std::size_t>(n));
            return true;
        }
        if (n == 0) {
            return false;
        }
        if (errno != EINTR) {
            throwReadFailure(errno);
        }
    }
}

struct ConverterCloser {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};

[[noreturn]] void refuse(const std::string& message) {
    throw ToolError(kExitUsage, "InputError", message);
}

}  // namespace

std::string readStandardInput() {
    std::string data;
    while (readChunk(data)) {
    }
    return data;
}

bool LineReader::next(std::string& line) {
    std::size_t newline;
    while ((newline = pending.find('\n')) == std::string::npos && !ended) {
        ended = !readChunk(pending);
    }
    if (pending.empty()) {
        return false;
    }
    const std::size_t length = newline == std::string::npos ? pending.size() : newline + 1;
    line.assign(pending, 0, newline == std::string::npos ? length : newline);
    pending.erase(0, length);
    offset = consumed;
    consumed += length;
    ++number;
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return true;
}

void checkLocalText(const std::string& text, const char* what, std::uint64_t base,
                    const char* codePage) {
    const std::size_t nul = text.find('\0');
    const std::size_t checked = nul == std::string::npos ? text.size() : nul;

    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<UConverter, ConverterCloser> converter(ucnv_open(codePage, &status));
    const char* name = codePage;  // as the caller spelled it, else ICU's name for the default
    if (name == nullptr && U_SUCCESS(status)) {
        name = ucnv_getName(converter.get(), &status);
    }
    if (U_SUCCESS(status)) {
        // Stop at the first byte sequence that is no character, instead of the
        // default replacement with U+FFFD.
        ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr,
                            &status);
    }
    if (U_FAILURE(status)) {
        throw ToolError(
            kExitInternal, "InputError",
            std::string("cannot open the code page's converter: ") + u_errorName(status));
    }
    UChar buffer[4096];
    const char* const begin = text.data();
    const char* source = begin;
    do {
        UChar* target = buffer;
        status = U_ZERO_ERROR;
        ucnv_toUnicode(converter.get(), &target, buffer + sizeof buffer / sizeof buffer[0], &source,
                       begin + checked, nullptr, true, &status);
    } while (status == U_BUFFER_OVERFLOW_ERROR);
    if (U_FAILURE(status)) {
        // The source stops after the sequence it could not read.
        char invalid[32];
        int8_t invalidLength = sizeof invalid;
        UErrorCode ignored = U_ZERO_ERROR;
        ucnv_getInvalidChars(converter.get(), invalid, &invalidLength, &ignored);
        const std::uint64_t offset =
            static_cast<std::uint64_t>(source - begin) - static_cast<std::uint64_t>(invalidLength);
        refuse(std::string(what) + " is not valid " + name + ": byte " +
               std::to_string(base + offset) + " starts no character");
    }
    if (nul != std::string::npos) {
        // The library hands the body over as NUL-terminated text and would drop
        // what follows, so such a text is refused, not cut short.
        refuse(std::string(what) + " holds a NUL byte (at byte " + std::to_string(base + nul) +
               "), which cannot be posted");
    }
}

}  // namespace Arvant::Net::AvQuorvel::Tools
