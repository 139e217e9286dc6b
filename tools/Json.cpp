#include "Json.h"

#include <cstdio>

namespace Quorvel {

namespace {

// Length of the valid UTF-8 sequence starting at text[i], or 0 when the bytes
// there do not form one (overlong forms, surrogates and values above U+10FFFF
// included).
size_t utf8SequenceLength(const std::string& text, size_t i) {
    const auto byteAt = [&text](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byteAt(i);
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0)
            low = 0xA0;
        if (lead == 0xED)
            high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0)
            low = 0x90;
        if (lead == 0xF4)
            high = 0x8F;
    } else {
        return 0;
    }
    if (i + length > text.size())
        return 0;
    if (byteAt(i + 1) < low || byteAt(i + 1) > high)
        return 0;
    for (size_t k = 2; k < length; ++k) {
        if (byteAt(i + k) < 0x80 || byteAt(i + k) > 0xBF)
            return 0;
    }
    return length;
}

}  // namespace

std::string jsonQuote(const std::string& text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    size_t i = 0;
    while (i < text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            const size_t length = utf8SequenceLength(text, i);
            if (length == 0) {
                out += "\xEF\xBF\xBD";  // U+FFFD REPLACEMENT CHARACTER
                ++i;
            } else {
                out.append(text, i, length);
                i += length;
            }
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
        ++i;
    }
    out += '"';
    return out;
}

std::string jsonStringArray(const std::vector<std::string>& items) {
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i) {
        if (i > 0)
            out += ',';
        out += jsonQuote(items[i]);
    }
    out += ']';
    return out;
}

}  // namespace Quorvel
