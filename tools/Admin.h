// The operator's exchanges with the service's admin service: every registered
// client with what waits for it, and evicting one client. The daemon serves
// them to loopback peers, or to anyone with its admin token.
#ifndef AVQVL_TOOLS_ADMIN_H
#define AVQVL_TOOLS_ADMIN_H

#include <cstdint>
#include <string>
#include <vector>

namespace Arvant::Net::AvQuorvel::Tools {

struct RegisteredClient {
    std::string server, client;
    std::uint64_t waitingEvents = 0, waitingBytes = 0;
    std::int64_t registeredMs = 0, lastFetchMs = 0;  // Unix epoch ms; 0: never fetched
};

// Puts the first line of `path` in QUORVEL_TOKEN, which the HTTP transport reads
// at the first exchange of the process. Throws ToolError (kExitUsage) when the
// file cannot be read or its first line is empty.
void useAdminToken(const std::string& path);

// Appends the clients of `server` ("" = every server), by server then
// registration order. Needs what sendExchange needs; throws what it throws, and
// DomException for an answer that is not a clients document.
void listRegisteredClients(const std::string& server, std::vector<RegisteredClient>& clients);

// Unregisters `client` of `server` on the operator's behalf and appends the
// server's remaining clients to `remaining`.
void evictClient(const std::string& server, const std::string& client,
                 std::vector<std::string>& remaining);

// "2026-11-25T10:00:00.123Z", or "never" for 0.
std::string isoTime(std::int64_t unixMs);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_ADMIN_H
