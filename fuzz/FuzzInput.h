// Splits one fuzzer input into parts at a separator byte, so one input can
// carry several arguments.
#ifndef AVQVL_FUZZ_FUZZINPUT_H
#define AVQVL_FUZZ_FUZZINPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

inline std::vector<std::string> splitInput(const uint8_t* data, size_t size, char separator,
                                           size_t maxParts) {
    std::vector<std::string> parts(1);
    for (size_t i = 0; i < size; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == separator && parts.size() < maxParts) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

#endif  // AVQVL_FUZZ_FUZZINPUT_H
