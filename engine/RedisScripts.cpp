#include "engine/internal/RedisScripts.h"

#include <hiredis/hiredis.h>

#include <cstring>
#include <iterator>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

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
end
return {0, redis.call('ZRANGE', KEYS[1], 0, -1)}
)lua",
    // Unregister: the client's queue goes with it, the server with its last client.
    R"lua(
if redis.call('ZREM', KEYS[1], ARGV[1]) == 1 then
    redis.call('DEL', KEYS[4])
    redis.call('HDEL', KEYS[3], ARGV[1])
    if redis.call('ZCARD', KEYS[1]) == 0 then
        redis.call('DEL', KEYS[2], KEYS[3])
    end
end
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
local events = redis.call('LRANGE', KEYS[3], 0, -1)
redis.call('DEL', KEYS[3])
redis.call('HDEL', KEYS[2], ARGV[1])
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
    static const std::vector<std::string> kTexts(std::begin(kScriptTexts), std::end(kScriptTexts));
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
