#include "daemon/Token.h"

#include <fstream>
#include <iterator>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

bool readTokenFile(const std::string& path, std::string& token, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "Cannot read the token file " + path + ".";
        return false;
    }
    token.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r' || token.back() == ' ' ||
                              token.back() == '\t')) {
        token.pop_back();
    }
    for (char c : token) {
        if (c <= 0x20 || c >= 0x7F) {
            error = "The token in " + path + " must be printable ASCII without spaces.";
            return false;
        }
    }
    if (token.empty()) {
        error = "The token file " + path + " is empty.";
        return false;
    }
    return true;
}

bool bearerMatches(const std::string& authorization, const std::string& token) {
    static const char scheme[] = "bearer ";
    constexpr std::size_t schemeLength = sizeof scheme - 1;
    unsigned difference = authorization.size() != schemeLength + token.size() ? 1 : 0;
    for (std::size_t i = 0; i < schemeLength; ++i) {
        const char c = i < authorization.size() ? authorization[i] : '\0';
        difference |= static_cast<unsigned>((c >= 'A' && c <= 'Z' ? c + 32 : c) ^ scheme[i]);
    }
    // Every byte of the token is compared, whatever the value's length.
    for (std::size_t i = 0; i < token.size(); ++i) {
        const std::size_t at = schemeLength + i;
        const char c = at < authorization.size() ? authorization[at] : '\0';
        difference |= static_cast<unsigned>(static_cast<unsigned char>(c) ^
                                            static_cast<unsigned char>(token[i]));
    }
    return difference == 0;
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
