// The Lua scripts of the Redis store, each one operation done atomically in
// Redis: the membership and limit checks come first, then every write, so a
// refused operation writes nothing. Scripts run by their SHA1 (EVALSHA); when
// Redis does not know one (after a restart or SCRIPT FLUSH) it is sent in full
// once (EVAL), which also loads it again. Thread-safe.
//
// Replies are arrays whose first element is a status (RedisStatus); what
// follows depends on the script (RedisStore.cpp reads them).
#ifndef AVQVL_ENGINE_INTERNAL_REDISSCRIPTS_H
#define AVQVL_ENGINE_INTERNAL_REDISSCRIPTS_H

#include <mutex>
#include <string>
#include <vector>

#include "engine/internal/RedisConnectionPool.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

enum class RedisStatus {
    Done = 0,
    NotRegistered = 1,   // the caller is not a client of the server
    TooManyClients = 2,  // then the count
    TooManyEvents = 3,   // then the recipient and its waiting events
    TooManyBytes = 4,    // then the recipient and its waiting bytes
    TooManyStored = 5    // then the bytes the whole store holds
};

class RedisScripts {
public:
    enum Script {
        // KEYS clients, server; ARGV client, most clients, now -> {status, clients | count}
        Register,
        // KEYS clients, server, bytes, queue, pending, stored; ARGV client
        // -> {status, remaining clients}
        Unregister,
        // KEYS clients, server, bytes, pending, stored; ARGV queue prefix, sender,
        // text, most events, most bytes, most stored
        // -> {status, clients | recipient, waiting | stored}
        Post,
        // KEYS clients, server, bytes, queue, pending, stored; ARGV client, now
        // -> {status, events}
        Take,
        // KEYS clients, bytes, queue, pending, stored; ARGV client, bytes, events
        // newest first -> {status}
        Restore,
        // KEYS clients, bytes; ARGV queue prefix -> {clients, events, bytes}
        Count,
        // KEYS clients, server, bytes; ARGV queue prefix -> {status, {client,
        // events, bytes, registered, fetched, ...}} in registration order
        List,
        // KEYS clients, server, bytes, pending, stored; ARGV queue prefix, idle
        // before -> {status, the expired clients as List gives them}
        Expire,
        kScriptCount
    };

    // Runs script with keys (the first keyCount of keysAndArguments) and
    // arguments. An error reply (Redis out of memory, a script error) throws
    // Failure of kind Limit naming Redis.
    RedisReply run(RedisConnectionPool& pool, Script script,
                   const std::vector<const std::string*>& keysAndArguments, int keyCount);

private:
    std::mutex mutex;               // guards sha
    std::string sha[kScriptCount];  // as Redis named each script, once loaded
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_INTERNAL_REDISSCRIPTS_H
