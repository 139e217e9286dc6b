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
// a text/plain body holding the message. Statuses and transport codes, both ways
// (transportCodeForStatus, statusForFailure):
//   400 malformed request (field encoding, repeated field)  <->  AVQVL_REFUSED
//   422 the service refused the request, with its message   <->  AVQVL_REFUSED
//   413 body over the daemon's limit                        <->  AVQVL_LIMIT
//   431 request head or a header line too large             <->  AVQVL_LIMIT
//   429 too many requests (from a proxy in front)            ->  AVQVL_LIMIT
//   401 the access token is missing or wrong                 ->  AVQVL_TOKEN_REFUSED
//   507 a queue or client limit of the service              <->  AVQVL_LIMIT
//   404, 405, 408, 411 and any other status                 <->  AVQVL_OTHER_ANSWER
//                                                     ("status N: message")
// The daemon answers a refusal of the service with 422 and a limit with 507.
//
// Beside the fields, the backend and the daemon make fetches acknowledged and
// posts idempotent with a few header lines (their names in protocol/Names.h):
//   Quorvel-Ack: N            on getEvents: the highest sequence of the last answer
//                             this identity read to its end (0: none yet). With it
//                             the answer moves nothing: what it holds comes again
//                             until a later request acknowledges it. Without it (an
//                             older client, a raw call) the daemon acknowledges an
//                             answer once it has written it whole.
//   Quorvel-Ack-Only: 1       with Quorvel-Ack: acknowledges, answers no events.
//   Quorvel-Last-Sequence: N  on a getEvents answer: its highest sequence (absent
//                             or 0: no event), so the backend never parses events.
//   Quorvel-Post-Id: HEX      on putEvents: 32 lowercase hex digits, random, the
//                             same whenever that post is sent again; the service
//                             posts it once.
//   Quorvel-Clients-Too: 1    on getEvents: answer the getSharedClients that the
//                             client library sends next, too.
//   Quorvel-Events-Bytes: N   on the answer to one: its first N body bytes answer
//                             the getEvents, the rest the getSharedClients (absent:
//                             the events alone, and the client asks itself).
// A value not of its form is refused with 400.
//
// Name and value travel in base64url without padding (RFC 4648, alphabet A-Z a-z
// 0-9 "-" "_"), so spaces, "=", non-ASCII UTF-8 and every other byte arrive
// unchanged. (Percent-encoding would not do: the server library decodes "%XX"
// in header values by itself.)
#ifndef AVQVL_WIRE_HTTPWIRE_H
#define AVQVL_WIRE_HTTPWIRE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "protocol/Limits.h"
#include "protocol/ResultCodes.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Wire {

extern const char* const kExchangePath;     // "/quorvel/v1/exchange"
extern const char* const kFieldHeaderName;  // "Quorvel-Field"

// The daemon reads header lines of at most Protocol::kMaxHeaderLineBytes, CR LF
// included; a field whose line would be longer cannot travel and is refused by
// the client before anything is sent.
constexpr std::size_t kMaxFieldLineBytes = Protocol::kMaxHeaderLineBytes - 2;

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

constexpr std::size_t kPostIdDigits = 32;

// A sequence as it travels: decimal digits only, no sign, no spaces, and no
// more than fit 64 bits. False for anything else.
bool parseSequence(const std::string& text, std::uint64_t& value);
// kPostIdDigits lowercase hex digits.
bool isPostId(const std::string& text);

// Statuses with a meaning of their own in the exchange.
constexpr int kMalformedStatus = 400;
constexpr int kBodyTooLargeStatus = 413;
constexpr int kHeadTooLargeStatus = 431;
constexpr int kTooManyRequestsStatus = 429;
constexpr int kRefusedStatus = 422;
constexpr int kLimitStatus = 507;
constexpr int kUnauthorizedStatus = 401;

// The transport code an error status of the daemon stands for.
int32_t transportCodeForStatus(int status);
// The status for a failure of the service: 422 for AVQVL_REFUSED, 507 for
// AVQVL_LIMIT (what the client reads back as that code).
int statusForFailure(int32_t code);

}  // namespace Wire
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_WIRE_HTTPWIRE_H
