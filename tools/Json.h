// Hand-written JSON for the tool's --json output: one quoted string at a time.
#ifndef AVQVL_TOOLS_JSON_H
#define AVQVL_TOOLS_JSON_H

#include <string>
#include <vector>

namespace Quorvel {

// A JSON string literal, quotes included. Quotes, backslashes and control
// characters are escaped; valid UTF-8 passes through unchanged. A byte that is
// not part of a valid UTF-8 sequence becomes U+FFFD, so the output is always a
// valid JSON document even when the service hands back text in another code page.
std::string jsonQuote(const std::string& text);

// ["a","b"] with each element quoted by jsonQuote.
std::string jsonStringArray(const std::vector<std::string>& items);

}  // namespace Quorvel

#endif  // AVQVL_TOOLS_JSON_H
