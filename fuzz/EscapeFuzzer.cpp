// escapeXml then unescapeXml gives the input back; unescapeXml takes any bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "util/XmlText.h"

using Arvant::Net::AvQuorvel::Util::escapeXml;
using Arvant::Net::AvQuorvel::Util::unescapeXml;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (unescapeXml(escapeXml(text)) != text) {
        std::abort();
    }
    // Unescaping only ever shortens.
    if (unescapeXml(text).size() > text.size()) {
        std::abort();
    }
    return 0;
}
