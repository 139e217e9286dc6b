#include "transport/internal/HeaderBlock.h"

#include <string_view>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

std::string lineLabel(int lineNumber) {
    return "Header line " + std::to_string(lineNumber);
}

}  // namespace

// Runs once per exchange: lines are looked at in place, and text is copied only
// into the fields themselves (or into a message when the block is refused).
bool parseHeaderBlock(const std::string& block, HeaderFields& fields, std::string& error) {
    const std::string_view text(block);
    std::size_t lineStart = 0;
    for (int lineNumber = 1;; ++lineNumber) {
        const std::size_t lineEnd = text.find("\r\n", lineStart);
        if (lineEnd == std::string_view::npos) {
            error = "The header block does not end with an empty line.";
            return false;
        }
        const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 2;
        if (line.empty()) {
            if (lineStart != text.size()) {
                error = "The header block has text after its closing empty line.";
                return false;
            }
            return true;
        }
        if (line.find('\r') != std::string_view::npos ||
            line.find('\n') != std::string_view::npos) {
            error = lineLabel(lineNumber) + " holds a lone carriage return or line feed.";
            return false;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || equals == 0) {
            error = lineLabel(lineNumber) + " is not of the form name=value.";
            return false;
        }
        const std::string_view name = line.substr(0, equals);
        // Clients send the fields sorted by name, so a name out of order is most
        // likely part of a value that held CR LF: refused, not read as a field.
        if (!fields.empty()) {
            const int order = name.compare(fields.rbegin()->first);
            if (order < 0) {
                error = lineLabel(lineNumber) + " (\"" + std::string(name) +
                        "\") is out of order; the fields come sorted by name, so a value "
                        "before it may hold a line break.";
                return false;
            }
            if (order == 0) {
                error =
                    lineLabel(lineNumber) + " repeats the header \"" + std::string(name) + "\".";
                return false;
            }
        }
        fields.emplace_hint(fields.end(), name, line.substr(equals + 1));
    }
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
