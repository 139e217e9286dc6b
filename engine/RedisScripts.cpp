#include "engine/internal/RedisScripts.h"

#include <hiredis/hiredis.h>

#include <cstring>
#include <iterator>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

// Before every script: what several share. An event is "SEQUENCE SENDERLENGTH
// SENDERTEXT". The stored total counts each text once: the pending hash of a
// server holds, per sequence, how many queues still hold the event, and the
// text leaves the total when the last one lets it go. A server's hash keeps
// each client's times as 'r:' .. client (registered) and 'f:' .. client (last
// fetch), in milliseconds.
const char* const kPrelude = R"lua(
local function textOf(event)
    local sequence, senderLength, start = string.match(event, '^(%d+) (%d+) ()')
    return sequence, string.len(event) - start + 1 - tonumber(senderLength)
end
local function share(pending, stored, events, first, by)
    local changed = 0
    for i = first, #events do
        local sequence, size = textOf(events[i])
        local holders = redis.call('HINCRBY', pending, sequence, by)
        if by > 0 and holders == 1 then
            changed = changed + size
        elseif by < 0 and holders <= 0 then
            redis.call('HDEL', pending, sequence)
            changed = changed - size
        end
    end
    -- Events queued before the total was kept were never counted in it.
    if changed ~= 0 and redis.call('INCRBY', stored, changed) < 0 then
        redis.call('SET', stored, 0)
    end
end
local function describe(server, bytes, queuePrefix, client, into)
    local times = redis.call('HMGET', server, 'r:' .. client, 'f:' .. client)
    into[#into + 1] = client
    into[#into + 1] = redis.call('LLEN', queuePrefix .. client)
    into[#into + 1] = tonumber(redis.call('HGET', bytes, client) or '0')
    into[#into + 1] = tonumber(times[1] or '0')
    into[#into + 1] = tonumber(times[2] or '0')
end
local function unregister(clients, server, bytes, queue, pending, stored, client)
    if redis.call('ZREM', clients, client) == 0 then
        return
    end
    share(pending, stored, redis.call('LRANGE', queue, 0, -1), 1, -1)
    redis.call('DEL', queue)
    redis.call('HDEL', bytes, client)
    redis.call('HDEL', server, 'r:' .. client, 'f:' .. client)
    if redis.call('ZCARD', clients) == 0 then
        redis.call('DEL', server, bytes, pending)
    end
end
)lua";

// Statuses are the numbers of RedisStatus. A queue key is the queue prefix (which
// carries the server's hash tag) followed by the client's identifier.
const char* const kScriptTexts[RedisScripts::kScriptCount] = {
    // Register: a known client keeps its place; the first client of a server
    // starts its sequence at 1; the order is a counter kept with the server.
    R"lua(
if not redis.call('ZSCORE', KEYS[1], ARGV[1]) then
    local count = redis.call('ZCARD', KEYS[1])
    if count >= tonumber(ARGV[2]) then
        return {2, count}
    end
    if count == 0 then
        redis.call('HSET', KEYS[2], 'sequence', 1)
    end
    local order = redis.call('HINCRBY', KEYS[2], 'registered', 1)
    redis.call('ZADD', KEYS[1], order, ARGV[1])
    redis.call('HSET', KEYS[2], 'r:' .. ARGV[1], ARGV[3])
end
return {0, redis.call('ZRANGE', KEYS[1], 0, -1)}
)lua",
    // Unregister: the client's queue goes with it, the server with its last client.
    R"lua(
unregister(KEYS[1], KEYS[2], KEYS[3], KEYS[4], KEYS[5], KEYS[6], ARGV[1])
return {0, redis.call('ZRANGE', KEYS[1], 0, -1)}
)lua",
    // Post: the event goes to each recipient in turn; at the first one that
    // would pass a limit, everything written is taken back. Redis runs nothing
    // else meanwhile, so no one sees the difference from checking first, and
    // the fan-out costs two commands per recipient. An event is "SEQUENCE
    // SENDERLENGTH SENDERTEXT"; the bytes hash counts the text only.
    R"lua(
if not redis.call('ZSCORE', KEYS[1], ARGV[2]) then
    return {1}
end
local clients = redis.call('ZRANGE', KEYS[1], 0, -1)
local size = string.len(ARGV[3])
local mostEvents, mostBytes = tonumber(ARGV[4]), tonumber(ARGV[5])
local held = tonumber(redis.call('GET', KEYS[5]) or '0')
if #clients > 1 and held + size > tonumber(ARGV[6]) then
    return {5, held}
end
local sequence = redis.call('HINCRBY', KEYS[2], 'sequence', 1) - 1
local event = string.format('%d %d ', sequence, string.len(ARGV[2])) .. ARGV[2] .. ARGV[3]
local refusal, written = nil, 0
for i, client in ipairs(clients) do
    if client ~= ARGV[2] then
        local waiting = redis.call('RPUSH', ARGV[1] .. client, event)
        local waitingBytes = redis.call('HINCRBY', KEYS[3], client, size)
        written = i
        if waiting > mostEvents then
            refusal = {3, client, waiting - 1}
            break
        end
        if waitingBytes > mostBytes then
            refusal = {4, client, waitingBytes - size}
            break
        end
    end
end
if not refusal then
    if #clients > 1 then
        redis.call('HSET', KEYS[4], sequence, #clients - 1)
        redis.call('INCRBY', KEYS[5], size)
    end
    return {0, clients}
end
for i = 1, written do
    local client = clients[i]
    if client ~= ARGV[2] then
        redis.call('RPOP', ARGV[1] .. client)
        if redis.call('HINCRBY', KEYS[3], client, -size) == 0 then
            redis.call('HDEL', KEYS[3], client)
        end
    end
end
redis.call('HINCRBY', KEYS[2], 'sequence', -1)
return refusal
)lua",
    // Take: the whole queue, oldest first.
    R"lua(
if not redis.call('ZSCORE', KEYS[1], ARGV[1]) then
    return {1}
end
local events = redis.call('LRANGE', KEYS[4], 0, -1)
share(KEYS[5], KEYS[6], events, 1, -1)
redis.call('DEL', KEYS[4])
redis.call('HDEL', KEYS[3], ARGV[1])
redis.call('HSET', KEYS[2], 'f:' .. ARGV[1], ARGV[2])
return {0, events}
)lua",
    // Restore: the events arrive newest first, so pushing each at the head in
    // turn leaves the oldest first. Pushed in slices: Lua's unpack has a small
    // stack.
    R"lua(
if not redis.call('ZSCORE', KEYS[1], ARGV[1]) then
    return {0}
end
for first = 3, #ARGV, 1000 do
    redis.call('LPUSH', KEYS[3], unpack(ARGV, first, math.min(first + 999, #ARGV)))
end
share(KEYS[4], KEYS[5], ARGV, 3, 1)
redis.call('HINCRBY', KEYS[2], ARGV[1], ARGV[2])
return {0}
)lua",
    // Count: what one server holds, for the store's statistics.
    R"lua(
local clients = redis.call('ZRANGE', KEYS[1], 0, -1)
local events = 0
for _, client in ipairs(clients) do
    events = events + redis.call('LLEN', ARGV[1] .. client)
end
local bytes = 0
for _, value in ipairs(redis.call('HVALS', KEYS[2])) do
    bytes = bytes + tonumber(value)
end
return {#clients, events, bytes}
)lua",
    // List: one server's clients.
    R"lua(
local listed = {}
for _, client in ipairs(redis.call('ZRANGE', KEYS[1], 0, -1)) do
    describe(KEYS[2], KEYS[3], ARGV[1], client, listed)
end
return {0, listed}
)lua",
    // Expire: one server's clients whose last fetch (else registration) is
    // older than the cutoff, described, then unregistered.
    R"lua(
local expired = {}
local cutoff = tonumber(ARGV[2])
for _, client in ipairs(redis.call('ZRANGE', KEYS[1], 0, -1)) do
    local times = redis.call('HMGET', KEYS[2], 'r:' .. client, 'f:' .. client)
    local seen = tonumber(times[2] or '0')
    if seen == 0 then
        seen = tonumber(times[1] or '0')
    end
    if seen < cutoff then
        describe(KEYS[2], KEYS[3], ARGV[1], client, expired)
        unregister(KEYS[1], KEYS[2], KEYS[3], ARGV[1] .. client, KEYS[4], KEYS[5], client)
    end
end
return {0, expired}
)lua",
};

bool isError(const redisReply& reply, const char* prefix) {
    return reply.type == REDIS_REPLY_ERROR && reply.len >= std::strlen(prefix) &&
           std::strncmp(reply.str, prefix, std::strlen(prefix)) == 0;
}

}  // namespace

RedisReply RedisScripts::run(RedisConnectionPool& pool, Script script,
                             const std::vector<const std::string*>& keysAndArguments,
                             int keyCount) {
    static const std::string kEval = "EVAL", kEvalSha = "EVALSHA", kScript = "SCRIPT",
                             kLoad = "LOAD";
    static const std::vector<std::string> kTexts = [] {
        std::vector<std::string> texts;
        for (const char* text : kScriptTexts) {
            texts.push_back(std::string(kPrelude) + text);
        }
        return texts;
    }();
    const std::string& text = kTexts[script];
    std::string name;
    {
        std::lock_guard<std::mutex> lock(mutex);
        name = sha[script];
    }
    if (name.empty()) {
        RedisReply loaded = pool.command({&kScript, &kLoad, &text});
        if (loaded->type != REDIS_REPLY_STRING) {
            pool.fail("did not load a script", describeReply(*loaded));
        }
        name.assign(loaded->str, loaded->len);
        std::lock_guard<std::mutex> lock(mutex);
        sha[script] = name;
    }
    const std::string keys = std::to_string(keyCount);
    std::vector<const std::string*> command{&kEvalSha, &name, &keys};
    command.insert(command.end(), keysAndArguments.begin(), keysAndArguments.end());
    RedisReply reply = pool.command(command);
    if (isError(*reply, "NOSCRIPT")) {
        command[0] = &kEval;
        command[1] = &text;
        reply = pool.command(command);
    }
    if (reply->type == REDIS_REPLY_ERROR) {
        pool.fail("failed", describeReply(*reply));
    }
    return reply;
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
