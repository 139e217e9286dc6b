#include "transport/HeaderBlock.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {
const std::string kLineEnd = "\r\n";
}

bool parseHeaderBlock(const std::string& block, HeaderFields& fields, std::string& error) {
    std::size_t lineStart = 0;
    for (int lineNumber = 1;; ++lineNumber) {
        const std::size_t lineEnd = block.find(kLineEnd, lineStart);
        if (lineEnd == std::string::npos) {
            error = "The header block does not end with an empty line.";
            return false;
        }
        const std::string line = block.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + kLineEnd.size();
        if (line.empty()) {
            if (lineStart != block.size()) {
                error = "The header block has text after its closing empty line.";
                return false;
            }
            return true;
        }
        const std::string where = "Header line " + std::to_string(lineNumber);
        if (line.find_first_of("\r\n") != std::string::npos) {
            error = where + " holds a lone carriage return or line feed.";
            return false;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos || equals == 0) {
            error = where + " is not of the form name=value.";
            return false;
        }
        const std::string name = line.substr(0, equals);
        // Clients send the fields sorted by name, so a name out of order is most
        // likely part of a value that held CR LF: refused, not read as a field.
        if (!fields.empty() && name < fields.rbegin()->first) {
            error = where + " (\"" + name + "\") is out of order; the fields come sorted by " +
                    "name, so a value before it may hold a line break.";
            return false;
        }
        if (!fields.emplace(name, line.substr(equals + 1)).second) {
            error = where + " repeats the header \"" + name + "\".";
            return false;
        }
    }
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
