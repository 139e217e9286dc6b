// The HTTP protocol between the transport's HTTP backend and the quorveld
// daemon. One exchange is one request:
//
//   POST /quorvel/v1/exchange HTTP/1.1
//   Quorvel-Field: <name>=<value>      one line per header field, name and
//   ...                                value in base64url (below)
//   Content-Type: application/octet-stream
//   Content-Length: <n>
//
//   <the request body, UTF-8 bytes as the client sent them>
//
// The answer is 200 with the response bytes as its body, or an error status with
// a text/plain body holding the service's message and a "Quorvel-Code" header
// holding the transport code:
//   400 the request is malformed (field encoding, repeated field), 422 the
//       service refused the request: -3017, the message is the service's own
//   413 body over the daemon's limit, 431 header fields too large, 507 a queue
//       or client limit of the service: -3016
//   404 unknown path, 405 wrong method, 408 the body did not arrive in time,
//       anything else: -3099 ("status N: message")
//
// Name and value travel in base64url without padding (RFC 4648, alphabet A-Z a-z
// 0-9 "-" "_"), so spaces, "=", non-ASCII UTF-8 and every other byte arrive
// unchanged. (Percent-encoding would not do: the server library decodes "%XX"
// in header values by itself.)
#ifndef AVQVL_TRANSPORT_HTTPWIRE_H
#define AVQVL_TRANSPORT_HTTPWIRE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

extern const char* const exchangePath;     // "/quorvel/v1/exchange"
extern const char* const fieldHeaderName;  // "Quorvel-Field"
extern const char* const codeHeaderName;   // "Quorvel-Code"

// The daemon reads header lines of at most 8192 bytes; a field whose line would
// be longer cannot travel and is refused by the client before anything is sent.
constexpr std::size_t maxFieldLineBytes = 8000;

std::string base64UrlEncode(const std::string& bytes);
// False when text is not exactly what base64UrlEncode makes of some bytes (a
// character outside the alphabet, an impossible length, stray low bits), so a
// damaged line is refused, not guessed at.
bool base64UrlDecode(const std::string& text, std::string& bytes);

// "<encoded name>=<encoded value>", the value of one Quorvel-Field line.
std::string encodeField(const std::string& name, const std::string& value);
// False with problem set when the line is not of that form.
bool decodeField(const std::string& line, std::string& name, std::string& value,
                 std::string& problem);

// The transport code an error status of the daemon stands for.
int32_t transportCodeForStatus(int status);

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_HTTPWIRE_H
