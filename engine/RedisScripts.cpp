#include "engine/internal/RedisScripts.h"

#include <hiredis/hiredis.h>

#include <cstdint>
#include <cstring>
#include <iterator>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

// Before every script: what several share. A server's log is the sorted set
// `log`, score the sequence, member the event as a read answers it:
// "SEQUENCE THROUGH SENDERLENGTH SENDERTEXT", where THROUGH counts the bytes
// of every text the server stored up to this one. A read hands the members on
// unparsed, and a trim learns the bytes it frees from its last member alone.
// `cursors` holds each client's last acknowledged sequence; `waiting` and
// `bytes` what of the log past it others posted. The server's hash keeps
// 'sequence' (the next), 'through' (the bytes stored so far), 'trimmed' (the
// THROUGH of the last event trimmed), 'registered' (the order counter) and
// each client's times as 'r:' .. client (registered) and 'f:' .. client (last
// fetch), in milliseconds. The store's total counts the bytes of every text
// held.
const char* const kPrelude = R"lua(
local K = {clients = KEYS[1], server = KEYS[2], bytes = KEYS[3], waiting = KEYS[4],
           cursors = KEYS[5], log = KEYS[6], stored = KEYS[7]}
local postsPrefix = ARGV[1]
-- The sequence, the text's size and the sender of an event of the log.
local function entryOf(member)
    local sequence, through, senderLength = string.match(member, '^(%d+) (%d+) (%d+) ')
    local senderStart = string.len(sequence) + string.len(through) + string.len(senderLength) + 4
    local senderEnd = senderStart + tonumber(senderLength) - 1
    return sequence, string.len(member) - senderEnd, string.sub(member, senderStart, senderEnd)
end
-- Drops the events at or below `lowest` ('+inf': all) and their bytes.
local function dropBelow(lowest)
    local last = redis.call('ZREVRANGEBYSCORE', K.log, lowest, '-inf', 'LIMIT', 0, 1)[1]
    if not last then
        return
    end
    local through = tonumber(string.match(last, '^%d+ (%d+) '))
    local freed = through - tonumber(redis.call('HGET', K.server, 'trimmed') or '0')
    redis.call('HSET', K.server, 'trimmed', through)
    redis.call('ZREMRANGEBYSCORE', K.log, '-inf', lowest)
    if redis.call('INCRBY', K.stored, -freed) < 0 then
        redis.call('SET', K.stored, 0)
    end
end
local function trim()
    local lowest = nil
    for _, cursor in ipairs(redis.call('HVALS', K.cursors)) do
        cursor = tonumber(cursor)
        if lowest == nil or cursor < lowest then
            lowest = cursor
        end
    end
    if lowest ~= nil then
        dropBelow(lowest)
    end
end
-- The values of fields of hash, false for a missing one; in slices, as above.
local function getAll(hash, fields)
    local values = {}
    for first = 1, #fields, 1000 do
        local got = redis.call('HMGET', hash, unpack(fields, first, math.min(first + 999, #fields)))
        for i = 1, #got do
            values[first + i - 1] = got[i]
        end
    end
    return values
end
-- Sets fields[i] of hash to values[i], a whole number, in slices.
local function setAll(hash, fields, values)
    for first = 1, #fields, 1000 do
        local flat = {}
        for i = first, math.min(first + 999, #fields) do
            flat[#flat + 1] = fields[i]
            flat[#flat + 1] = string.format('%d', values[i])
        end
        redis.call('HSET', hash, unpack(flat))
    end
end
local function waitingOf(client)
    return tonumber(redis.call('HGET', K.waiting, client) or '0')
end
local function lastSequence()
    return tonumber(redis.call('HGET', K.server, 'sequence')) - 1
end
-- The cursor to upTo (never back, never past the log); to the log's end when
-- nothing of others waits past it any more. True when it moved: the caller
-- trims (once for several).
local function advance(client, upTo)
    local cursor = tonumber(redis.call('HGET', K.cursors, client))
    local last = lastSequence()
    if upTo > last then
        upTo = last
    end
    if upTo <= cursor then
        return false
    end
    -- What waits is what others posted past the cursor. Whichever side of
    -- upTo holds fewer sequences is parsed: what was taken (and is subtracted),
    -- or what still waits (and is counted afresh), usually the few events
    -- posted since a long answer was read.
    local taken = upTo - cursor <= last - upTo
    local from, to = cursor, upTo
    if not taken then
        from, to = upTo, '+inf'
    end
    local events, size = 0, 0
    for _, member in ipairs(redis.call('ZRANGEBYSCORE', K.log, string.format('(%d', from), to)) do
        local _, bytes, sender = entryOf(member)
        if sender ~= client then
            events, size = events + 1, size + bytes
        end
    end
    local left = events
    if taken then
        redis.call('HINCRBY', K.bytes, client, -size)
        left = redis.call('HINCRBY', K.waiting, client, -events)
    else
        redis.call('HSET', K.bytes, client, size)
        redis.call('HSET', K.waiting, client, events)
    end
    if left <= 0 then
        upTo = last
    end
    redis.call('HSET', K.cursors, client, string.format('%d', upTo))
    return true
end
local function describe(client, into)
    local times = redis.call('HMGET', K.server, 'r:' .. client, 'f:' .. client)
    into[#into + 1] = client
    into[#into + 1] = waitingOf(client)
    into[#into + 1] = tonumber(redis.call('HGET', K.bytes, client) or '0')
    into[#into + 1] = tonumber(times[1] or '0')
    into[#into + 1] = tonumber(times[2] or '0')
end
local function unregister(client)
    if redis.call('ZREM', K.clients, client) == 0 then
        return
    end
    redis.call('HDEL', K.bytes, client)
    redis.call('HDEL', K.waiting, client)
    redis.call('HDEL', K.cursors, client)
    redis.call('HDEL', K.server, 'r:' .. client, 'f:' .. client)
    redis.call('DEL', postsPrefix .. client)
    if redis.call('ZCARD', K.clients) == 0 then
        dropBelow('+inf')
        redis.call('DEL', K.server, K.bytes, K.waiting, K.cursors, K.log)
    else
        trim()
    end
end
)lua";

// Statuses are the numbers of RedisStatus.
const char* const kScriptTexts[RedisScripts::kScriptCount] = {
    // Register: a known client keeps its place and cursor; a new one starts at
    // the log's head; the first client of a server starts its sequence at 1;
    // the order is a counter kept with the server.
    R"lua(
local client = ARGV[2]
if not redis.call('ZSCORE', K.clients, client) then
    local count = redis.call('ZCARD', K.clients)
    if count >= tonumber(ARGV[3]) then
        return {2, count}
    end
    if count == 0 then
        redis.call('HSET', K.server, 'sequence', 1)
    end
    local order = redis.call('HINCRBY', K.server, 'registered', 1)
    redis.call('ZADD', K.clients, order, client)
    redis.call('HSET', K.server, 'r:' .. client, ARGV[4])
    redis.call('HSET', K.cursors, client, string.format('%d', lastSequence()))
end
return {0, redis.call('ZRANGE', K.clients, 0, -1)}
)lua",
    // Unregister: the client's counts go with it, the server with its last client.
    R"lua(
unregister(ARGV[2])
return {0, redis.call('ZRANGE', K.clients, 0, -1)}
)lua",
    // Post: the posts of one call in turn, each as if alone: every check
    // first, then every write, so a refused post writes nothing and the next
    // sees what the one before it left. A repeated post id answers as the first
    // post did. Counts are read once for the call, kept in Lua as the posts go,
    // and written once at the end, with one PUBLISH when any event was added
    // (in the same step, so that no one hears of it before it can be read): a
    // call of eight posts to 16 clients makes about 60 calls into Redis instead
    // of about 130. The publication is the news of the call (see
    // decodePostNews) when it fits ARGV[10] bytes, else the server id alone.
    // The ids of a sender are a sorted set by time, cut to the newest, gone
    // with the sender or after their age.
    R"lua(
local now, mostEvents, mostBytes, mostStored = tonumber(ARGV[2]), tonumber(ARGV[3]),
                                               tonumber(ARGV[4]), tonumber(ARGV[5])
local remembered, age = tonumber(ARGV[6]), tonumber(ARGV[7])
local clients = redis.call('ZRANGE', K.clients, 0, -1)
local results = {0, clients}
if #clients == 0 then
    for _ = 11, #ARGV, 3 do
        results[#results + 1] = {1}
    end
    return results
end
local place, waiting, bytes = {}, getAll(K.waiting, clients), getAll(K.bytes, clients)
for i, client in ipairs(clients) do
    place[client] = i
    waiting[i], bytes[i] = tonumber(waiting[i] or '0'), tonumber(bytes[i] or '0')
end
local held = tonumber(redis.call('GET', K.stored) or '0')
local unstored = 0  -- bytes added to held but not yet to the store's total
local function storeHeld()
    if unstored > 0 then
        redis.call('INCRBY', K.stored, unstored)
        unstored = 0
    end
end
local counters = redis.call('HMGET', K.server, 'sequence', 'through')
local nextSequence, through = tonumber(counters[1]), tonumber(counters[2] or '0')
local firstSequence, added = nextSequence, false
local function field(text)
    return string.len(text) .. ':' .. text
end
local news, newsRoom = {}, tonumber(ARGV[10])  -- the members added, while they fit
local function postOne(sender, text, postId)
    local mine = place[sender]
    if not mine then
        return {1}
    end
    -- An id older than its age is no repeat; it stays in the set until the
    -- count cuts it or the set expires, which bounds the set as well.
    local posts = postsPrefix .. sender
    if postId ~= '' then
        local seen = redis.call('ZSCORE', posts, postId)
        if seen and tonumber(seen) >= now - age then
            return {0}
        end
    end
    local size = string.len(text)
    if #clients > 1 and held + size > mostStored then
        return {5, held}
    end
    for i, client in ipairs(clients) do
        if i ~= mine then
            if waiting[i] >= mostEvents then
                return {3, client, waiting[i]}
            end
            if bytes[i] + size > mostBytes then
                return {4, client, bytes[i]}
            end
        end
    end
    local sequence = nextSequence
    nextSequence = nextSequence + 1
    if #clients > 1 then
        for i = 1, #clients do
            if i ~= mine then
                waiting[i], bytes[i] = waiting[i] + 1, bytes[i] + size
            end
        end
        through = through + size
        local member = string.format('%d %d %d ', sequence, through, string.len(sender)) ..
                           sender .. text
        redis.call('ZADD', K.log, sequence, member)
        newsRoom = newsRoom - string.len(member)
        if newsRoom >= 0 then
            news[#news + 1] = field(member)
        end
        held, unstored, added = held + size, unstored + size, true
    end
    if waiting[mine] == 0 then
        -- Its cursor follows its own posts: a client that only posts holds nothing.
        redis.call('HSET', K.cursors, sender, sequence)
        storeHeld()
        trim()
        held = tonumber(redis.call('GET', K.stored) or '0')
    end
    if postId ~= '' then
        redis.call('ZADD', posts, now, postId)
        local extra = redis.call('ZCARD', posts) - remembered
        if extra > 0 then
            redis.call('ZREMRANGEBYRANK', posts, 0, extra - 1)
        end
        redis.call('PEXPIRE', posts, age)
    end
    return {0}
end
for first = 11, #ARGV, 3 do
    results[#results + 1] = postOne(ARGV[first], ARGV[first + 1], ARGV[first + 2])
end
storeHeld()
if nextSequence ~= firstSequence then
    redis.call('HSET', K.server, 'sequence', nextSequence, 'through', through)
end
if added then
    setAll(K.waiting, clients, waiting)
    setAll(K.bytes, clients, bytes)
    local message = {field(ARGV[9]), field(tostring(#clients))}
    for _, client in ipairs(clients) do
        newsRoom = newsRoom - string.len(client)
        if newsRoom < 0 then
            break
        end
        message[#message + 1] = field(client)
    end
    if newsRoom >= 0 then
        for _, member in ipairs(news) do
            message[#message + 1] = member
        end
        redis.call('PUBLISH', ARGV[8], table.concat(message))
    else
        redis.call('PUBLISH', ARGV[8], field(ARGV[9]))
    end
end
return results
)lua",
    // Read: the reads of one call in turn, each as if alone: acknowledges
    // first when asked, then the log past the cursor, oldest first, the
    // client's own posts among them for the caller to leave out (telling them
    // apart here would parse every entry in Lua, which costs Redis more than
    // sending the few of them). When asked (ARGV[3]), the server's clients and
    // the log's last sequence after the reads.
    R"lua(
local now, results, moved = ARGV[2], {}, false
for first = 4, #ARGV, 2 do
    local client, ack = ARGV[first], ARGV[first + 1]
    if not redis.call('ZSCORE', K.clients, client) then
        results[#results + 1] = {1}
    else
        if ack ~= '' and advance(client, tonumber(ack)) then
            moved = true
        end
        local events = {}
        if waitingOf(client) > 0 then
            local cursor = redis.call('HGET', K.cursors, client)
            events = redis.call('ZRANGEBYSCORE', K.log, '(' .. cursor, '+inf')
        end
        redis.call('HSET', K.server, 'f:' .. client, now)
        results[#results + 1] = {0, events}
    end
end
if moved then
    trim()
end
if ARGV[3] == '1' then
    results[#results + 1] = redis.call('ZRANGE', K.clients, 0, -1)
    results[#results + 1] = tonumber(redis.call('HGET', K.server, 'sequence') or '1') - 1
end
return results
)lua",
    // Acknowledge: an unknown client is no error.
    R"lua(
if redis.call('ZSCORE', K.clients, ARGV[2]) and advance(ARGV[2], tonumber(ARGV[3])) then
    trim()
end
return {0}
)lua",
    // Count: what one server holds, for the store's statistics.
    R"lua(
local events, bytes = 0, 0
for _, value in ipairs(redis.call('HVALS', K.waiting)) do
    events = events + tonumber(value)
end
for _, value in ipairs(redis.call('HVALS', K.bytes)) do
    bytes = bytes + tonumber(value)
end
return {redis.call('ZCARD', K.clients), events, bytes}
)lua",
    // List: one server's clients.
    R"lua(
local listed = {}
for _, client in ipairs(redis.call('ZRANGE', K.clients, 0, -1)) do
    describe(client, listed)
end
return {0, listed}
)lua",
    // Expire: one server's clients whose last fetch (else registration) is
    // older than the cutoff, described, then unregistered.
    R"lua(
local expired = {}
local cutoff = tonumber(ARGV[2])
for _, client in ipairs(redis.call('ZRANGE', K.clients, 0, -1)) do
    local times = redis.call('HMGET', K.server, 'r:' .. client, 'f:' .. client)
    local seen = tonumber(times[2] or '0')
    if seen == 0 then
        seen = tonumber(times[1] or '0')
    end
    if seen < cutoff then
        describe(client, expired)
        unregister(client)
    end
end
return {0, expired}
)lua",
};

bool isError(const redisReply& reply, const char* prefix) {
    return reply.type == REDIS_REPLY_ERROR && reply.len >= std::strlen(prefix) &&
           std::strncmp(reply.str, prefix, std::strlen(prefix)) == 0;
}

// The decimal at data[at, size): one digit or more, no overflow; at passes it.
bool readDigits(const char* data, std::size_t size, std::size_t& at, std::uint64_t& value) {
    const std::size_t first = at;
    value = 0;
    for (; at < size && data[at] >= '0' && data[at] <= '9'; ++at) {
        if (value > (UINT64_MAX - 9) / 10) {
            return false;
        }
        value = value * 10 + static_cast<std::uint64_t>(data[at] - '0');
    }
    return at != first;
}

// readDigits(), then the byte stop, passed too.
bool readDecimal(const char* data, std::size_t size, std::size_t& at, char stop,
                 std::uint64_t& value) {
    return readDigits(data, size, at, value) && at < size && data[at++] == stop;
}

// A "LENGTH:BYTES" field at data[at, size).
bool readField(const char* data, std::size_t size, std::size_t& at, const char*& field,
               std::size_t& length) {
    std::uint64_t declared = 0;
    if (!readDecimal(data, size, at, ':', declared) || declared > size - at) {
        return false;
    }
    field = data + at;
    length = static_cast<std::size_t>(declared);
    at += length;
    return true;
}

}  // namespace

bool decodeEvent(const char* data, std::size_t size, StoredEvent& event) {
    std::size_t at = 0;
    std::uint64_t sequence = 0, through = 0, senderLength = 0;
    if (!readDecimal(data, size, at, ' ', sequence) || !readDecimal(data, size, at, ' ', through) ||
        !readDecimal(data, size, at, ' ', senderLength) || senderLength > size - at) {
        return false;
    }
    event.sequence = sequence;
    event.sender.assign(data + at, static_cast<std::size_t>(senderLength));
    at += static_cast<std::size_t>(senderLength);
    event.text = std::make_shared<const std::string>(data + at, size - at);
    return true;
}

bool decodePostNews(const char* data, std::size_t size, std::string& serverId,
                    std::shared_ptr<const PostNews>& news) {
    std::size_t at = 0, length = 0;
    const char* field = nullptr;
    if (!readField(data, size, at, field, length)) {
        return false;
    }
    serverId.assign(field, length);
    news.reset();
    if (at == size) {
        return true;
    }
    auto heard = std::make_shared<PostNews>();
    std::uint64_t count = 0;
    std::size_t countAt = 0;
    if (!readField(data, size, at, field, length) || !readDigits(field, length, countAt, count) ||
        countAt != length || count > size) {
        return false;
    }
    heard->clients.reserve(static_cast<std::size_t>(count));
    for (std::uint64_t i = 0; i < count; ++i) {
        if (!readField(data, size, at, field, length)) {
            return false;
        }
        heard->clients.emplace_back(field, length);
    }
    while (at < size) {
        StoredEvent event;
        if (!readField(data, size, at, field, length) || !decodeEvent(field, length, event)) {
            return false;
        }
        heard->events.push_back(std::move(event));
    }
    news = std::move(heard);
    return true;
}

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
