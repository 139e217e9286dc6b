// Inputs shared by the benchmark programs: deterministic texts of a given size
// and the documents the service answers with.
#ifndef AVQVL_BENCH_BENCHINPUTS_H
#define AVQVL_BENCH_BENCHINPUTS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "protocol/Names.h"

namespace BenchInputs {

// Printable ASCII, exactly `size` bytes.
inline std::string asciiText(std::size_t size) {
    std::string text(size, ' ');
    for (std::size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>('a' + (i * 7 + i / 13) % 26);
        if (i % 9 == 8) {
            text[i] = ' ';
        }
    }
    return text;
}

// Valid UTF-8 of exactly `size` bytes: about half ASCII, the rest two-, three-
// and four-byte characters; the tail is padded with ASCII.
inline std::string mixedText(std::size_t size) {
    static const char* const kPieces[] = {"word ",        "\xC3\xA9",    "\xE2\x82\xAC",
                                          "\xE4\xB8\xAD", "\xD0\xB6",    "\xF0\x9F\x98\x80",
                                          "ab",           "\xE3\x81\x82"};
    std::string text;
    text.reserve(size);
    std::uint32_t state = 12345;
    for (;;) {
        state = state * 1103515245u + 12345u;
        const std::string piece = kPieces[(state >> 16) % 8];
        if (text.size() + piece.size() > size) {
            break;
        }
        text += piece;
    }
    text.append(size - text.size(), 'z');
    return text;
}

inline const char* sharedClientsNamespace() {
    return Arvant::Net::AvQuorvel::Protocol::kSchemaNamespace;
}

// The shared-client document as the service writes it, with `count` identifiers.
inline std::string sharedClientsDocument(std::size_t count) {
    std::string document = "\n<ns0:sharedClientIDs xmlns:ns0=\"";
    document += sharedClientsNamespace();
    document += "\">";
    for (std::size_t i = 0; i < count; ++i) {
        document += "<ns0:sharedClients>client-" + std::to_string(i) + "</ns0:sharedClients>";
    }
    document += "</ns0:sharedClientIDs>";
    return document;
}

}  // namespace BenchInputs

#endif  // AVQVL_BENCH_BENCHINPUTS_H
