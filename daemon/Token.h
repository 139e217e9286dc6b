// The shared secret of --token-file: every request must carry
// "Authorization: Bearer <token>".
#ifndef AVQVL_DAEMON_TOKEN_H
#define AVQVL_DAEMON_TOKEN_H

#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

// Reads the token from path: the file's text without the white space that ends
// it. False with error set when the file cannot be read, or the token is empty
// or holds anything but printable ASCII without spaces (it must fit in a header).
bool readTokenFile(const std::string& path, std::string& token, std::string& error);

// True when authorization (the header's value) is "Bearer <token>" (scheme in
// any case). Takes the same time whatever the value, for a given token, so the
// time of a refusal says nothing about how much of the token was right.
bool bearerMatches(const std::string& authorization, const std::string& token);

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_DAEMON_TOKEN_H
