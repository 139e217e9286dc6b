#include "Json.h"

#include <unicode/utf8.h>

#include <cstdint>
#include <cstdio>

namespace Quorvel {

std::string jsonQuote(const std::string& text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    size_t i = 0;
    while (i < text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            // ICU's strict reading: overlong forms, surrogates and values above
            // U+10FFFF are not UTF-8. Each byte that starts no character becomes
            // one U+FFFD.
            const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
            const int64_t length = static_cast<int64_t>(text.size());
            int64_t next = static_cast<int64_t>(i);
            UChar32 decoded;
            U8_NEXT(bytes, next, length, decoded);
            if (decoded < 0) {
                out += "\xEF\xBF\xBD";  // U+FFFD REPLACEMENT CHARACTER
                ++i;
            } else {
                out.append(text, i, static_cast<size_t>(next) - i);
                i = static_cast<size_t>(next);
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
