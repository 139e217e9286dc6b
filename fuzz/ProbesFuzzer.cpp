// The raw-text probes on any text and name: whatever they answer stays inside
// the text (ASan watches every read; a position is npos or within the text).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzInput.h"
#include "util/XmlText.h"

using Arvant::Net::AvQuorvel::Util::findTagPosition;
using Arvant::Net::AvQuorvel::Util::getRootNamespace;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // text, 0x00, qualified name
    const auto parts = splitInput(data, size, '\0', 2);
    const std::string& xml = parts[0];
    const std::string name = parts.size() > 1 ? parts[1] : std::string("urn:x^a");

    const std::string uri = getRootNamespace(xml);
    if (uri.size() > xml.size() || (!uri.empty() && xml.find(uri) == std::string::npos)) {
        std::abort();
    }
    for (bool opening : {true, false}) {
        const std::uint64_t position = findTagPosition(xml, name, opening);
        if (position != std::string::npos && position > xml.size()) {
            std::abort();
        }
    }
    return 0;
}
