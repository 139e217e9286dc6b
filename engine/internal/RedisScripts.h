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

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/Store.h"
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

// An event as the log holds it and a read returns it: "SEQUENCE THROUGH
// SENDERLENGTH SENDERTEXT" (THROUGH is of use to Redis only). False when data
// is not one.
bool decodeEvent(const char* data, std::size_t size, StoredEvent& event);

// A message of the Post script: the server id, then, when the news of the call
// fit, the server's clients and the events added, each field as "LENGTH:BYTES":
// SERVER [COUNT CLIENT... EVENT...]. news is null for a server id alone. False
// when data is not such a message.
bool decodePostNews(const char* data, std::size_t size, std::string& serverId,
                    std::shared_ptr<const PostNews>& news);

class RedisScripts {
public:
    // Every script takes the server's keys, in the order of RedisServerKeys
    // (RedisStore.cpp): clients, server, bytes, waiting, cursors, log, and the
    // store's total; then ARGV[1], the prefix of the per-sender post
    // id keys, and what follows below.
    enum Script {
        // ARGV client, most clients, now -> {status, clients | count}
        Register,
        // ARGV client -> {status, remaining clients}
        Unregister,
        // ARGV now, most events, most bytes, most stored, ids remembered, their
        // age in ms, the channel to publish on, the server id, the most bytes
        // of news, then sender, text and post id of each post in turn -> {0,
        // clients, {status} | {status, recipient, waiting} | {status, stored}
        // for each post}
        Post,
        // ARGV now, clients too ("1" or ""), then client and acknowledged (""
        // for none) of each read in turn -> {{status[, events]} for each read,
        // [clients, the log's last sequence]}
        Read,
        // ARGV client, acknowledged -> {status}
        Acknowledge,
        // -> {clients, events, bytes}
        Count,
        // -> {status, {client, events, bytes, registered, fetched, ...}} in
        // registration order
        List,
        // ARGV idle before -> {status, the expired clients as List gives them}
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
