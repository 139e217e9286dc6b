#include "daemon/Token.h"

#include <openssl/crypto.h>

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
    const std::string expected = "bearer " + token;
    // As long as the expected value, whatever was sent, so the compare takes
    // the same time for a given token; the scheme in any case.
    std::string value = authorization;
    value.resize(expected.size(), '\0');
    for (std::size_t i = 0; i < 6 && i < value.size(); ++i) {
        if (value[i] >= 'A' && value[i] <= 'Z') {
            value[i] = static_cast<char>(value[i] - 'A' + 'a');
        }
    }
    const bool same = CRYPTO_memcmp(value.data(), expected.data(), expected.size()) == 0;
    return same && authorization.size() == expected.size();
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
