#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Wire {

const char* const kExchangePath = "/quorvel/v1/exchange";
const char* const kFieldHeaderName = "Quorvel-Field";

namespace {

const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

int sextet(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '-') {
        return 62;
    }
    if (c == '_') {
        return 63;
    }
    return -1;
}

}  // namespace

bool parseSequence(const std::string& text, std::uint64_t& value) {
    if (text.empty() || text.size() > 20) {
        return false;
    }
    std::uint64_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        if (number > (UINT64_MAX - digit) / 10) {
            return false;
        }
        number = number * 10 + digit;
    }
    value = number;
    return true;
}

bool isPostId(const std::string& text) {
    if (text.size() != kPostIdDigits) {
        return false;
    }
    for (const char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

std::string base64UrlEncode(const std::string& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    uint32_t bits = 0;
    int count = 0;
    for (char c : bytes) {
        bits = (bits << 8) | static_cast<unsigned char>(c);
        count += 8;
        while (count >= 6) {
            count -= 6;
            text += alphabet[(bits >> count) & 0x3F];
        }
    }
    if (count > 0) {
        text += alphabet[(bits << (6 - count)) & 0x3F];
    }
    return text;
}

bool base64UrlDecode(const std::string& text, std::string& bytes) {
    bytes.clear();
    if (text.size() % 4 == 1) {
        return false;
    }
    uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        const int value = sextet(c);
        if (value < 0) {
            return false;
        }
        bits = (bits << 6) | static_cast<uint32_t>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return (bits & ((1u << count) - 1)) == 0;  // the unused low bits must be zero
}

std::string encodeField(const std::string& name, const std::string& value) {
    return base64UrlEncode(name) + "=" + base64UrlEncode(value);
}

bool decodeField(const std::string& line, std::string& name, std::string& value,
                 std::string& problem) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
        problem = "A Quorvel-Field line has no \"=\" between name and value.";
        return false;
    }
    if (!base64UrlDecode(line.substr(0, equals), name) ||
        !base64UrlDecode(line.substr(equals + 1), value)) {
        problem = "A Quorvel-Field line is not in base64url.";
        return false;
    }
    if (name.empty()) {
        problem = "A Quorvel-Field line has an empty name.";
        return false;
    }
    return true;
}

int32_t transportCodeForStatus(int status) {
    switch (status) {
        case kMalformedStatus:
        case kRefusedStatus:
            return AVQVL_REFUSED;
        case kBodyTooLargeStatus:
        case kHeadTooLargeStatus:
        case kTooManyRequestsStatus:
        case kLimitStatus:
            return AVQVL_LIMIT;
        case kUnauthorizedStatus:
            return AVQVL_TOKEN_REFUSED;
        default:
            return AVQVL_OTHER_ANSWER;
    }
}

int statusForFailure(int32_t code) {
    return code == AVQVL_LIMIT ? kLimitStatus : kRefusedStatus;
}

}  // namespace Wire
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
