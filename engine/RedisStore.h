// A Store kept in Redis, so that several daemons (on one machine or many) serve
// one set of clients. Each operation is one Lua script that checks membership
// and limits and writes in the same step, so operations are atomic across
// daemons and the limits hold for all of them together. Every key of one server
// carries the server's identifier as its hash tag, so a server lives in one
// Redis Cluster slot (the key layout is in README.md).
//
// Redis unreachable, timed out or failing: Failure of kind Limit naming
// Redis and the cause. A command timed out or a connection lost after the
// script was sent leaves the operation applied or not (a timed-out script may
// still run): the Failure says the outcome is unknown, and a resend with the
// same post id is safe. Thread-safe; connections are pooled and opened again
// after Redis restarts. Posts and reads are sent by threads of the store's own
// (kPosters), started with the first of them and joined when the store goes:
// the posts waiting for one server go in one script call, each applied as if
// alone, and so do its reads.
#ifndef AVQVL_ENGINE_REDISSTORE_H
#define AVQVL_ENGINE_REDISSTORE_H

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "engine/ServiceLimits.h"
#include "engine/Store.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

class RedisConnectionPool;
class RedisPostWatcher;
class RedisScripts;

struct RedisAddress {
    std::string host = "127.0.0.1";
    int port = 6379;
    int database = 0;  // SELECTed on every connection
    // Sent with AUTH on every connection before SELECT, when the password is not
    // empty (with the user when that is not empty either).
    std::string user;
    std::string password;
    int connectTimeoutMs = 2000;
    int commandTimeoutMs = 10000;  // a reply of 128 MiB of events must fit in it
};

// Reads "redis://[[USER:]PASSWORD@]HOST[:PORT][/DB]" (IPv6 as [::1]; port 6379
// and database 0 by default; "%XX" in the user or password stands for the byte
// XX) into address, keeping its time-outs. False with error filled for anything
// else.
bool parseRedisUrl(const std::string& url, RedisAddress& address, std::string& error);

class RedisStore : public Store {
public:
    // Connects lazily: constructing never fails, the first operation finds out.
    RedisStore(const RedisAddress& address, const ServiceLimits& limits);
    ~RedisStore() override;

    // PING on a connection of its own, bounded to 1 s in all, so that a Redis
    // that hangs cannot hold the caller longer; throws Failure otherwise.
    void ping() override;
    std::string describe() const override;

    void registerClient(const std::string& serverId, const std::string& clientId,
                        ClientList& clients) override;
    void unregisterClient(const std::string& serverId, const std::string& clientId,
                          ClientList& remaining) override;
    void clients(const std::string& serverId, ClientList& clients) override;
    void post(const std::string& serverId, const std::string& senderId, const std::string& text,
              const std::string& postId, ClientList& clients) override;
    void postLater(const std::string& serverId, const std::string& senderId,
                   const std::string& text, const std::string& postId, PostDone done) override;
    bool postsLater() const override { return true; }
    void readWithClients(const std::string& serverId, const std::string& clientId,
                         const std::optional<std::uint64_t>& ackUpTo,
                         std::vector<StoredEvent>& events, ClientList& clients,
                         std::uint64_t& logEnd) override;
    void read(const std::string& serverId, const std::string& clientId,
              const std::optional<std::uint64_t>& ackUpTo,
              std::vector<StoredEvent>& events) override;
    void readLater(const std::string& serverId, const std::string& clientId,
                   const std::optional<std::uint64_t>& ackUpTo, bool clientsToo,
                   ReadDone done) override;
    bool readsLater() const override { return true; }
    void acknowledge(const std::string& serverId, const std::string& clientId,
                     std::uint64_t upTo) override;
    // Every daemon on the same Redis hears every post (this process's own too,
    // so a local post may reach the listener twice), with its PostNews when the
    // call's events and the server's clients fit 64 KiB; see RedisPostWatcher.h.
    void watchPosts(PostListener listener) override;
    // Scans every server in the database: meant for metrics, not for each request.
    StoreStats stats() override;
    // Like stats(), they scan every server: for operators, not for each request.
    void listClients(const std::string& serverId, std::vector<ClientInfo>& clients) override;
    void expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) override;

private:
    struct LaterPost;
    struct LaterRead;
    template <class Work>
    struct Queues;

    std::vector<std::string> serverTags();
    // Queues work for the server in queues, and starts the poster threads
    // with the first work (action names the work should none start).
    template <class Work>
    void queueLater(const std::string& serverId, Queues<Work>& queues, Work&& work,
                    const char* action);
    // Takes the work waiting for one server of queues that no poster is
    // sending (up to kMostPerCall and, for posts, 1 MiB), sends it in one call
    // with the lock released, and queues the server again if more waits.
    template <class Work>
    void sendOneCall(Queues<Work>& queues, std::unique_lock<std::mutex>& lock);
    // What each poster thread does until the store goes: sendOneCall() of
    // posts or of reads, in turns when both wait.
    void sendPosts();
    // Runs the Post script for posts, in turn, and settles each: clients for
    // all, or its refusal. Throws Failure when the call itself failed.
    void postInOneCall(const std::string& serverId, std::list<LaterPost>& posts,
                       ClientList& clients);
    // postInOneCall() (or readInOneCall()), then each one's done.
    void settle(const std::string& serverId, std::list<LaterPost>& posts) noexcept;
    void settle(const std::string& serverId, std::list<LaterRead>& reads) noexcept;
    // Runs the Read script for reads, in turn, and settles each: its events
    // or its refusal, and the clients and the log's end when some asked.
    void readInOneCall(const std::string& serverId, std::list<LaterRead>& reads,
                       ClientList& clients, std::uint64_t& logEnd);
    void stopPosters();
    // readLater(), waited for; with clients given, the server's clients and
    // the log's end too.
    void readEvents(const std::string& serverId, const std::string& clientId,
                    const std::optional<std::uint64_t>& ackUpTo, std::vector<StoredEvent>& events,
                    ClientList* clients, std::uint64_t* logEnd);

    const RedisAddress address;
    const std::unique_ptr<RedisConnectionPool> pool;
    const std::unique_ptr<RedisScripts> scripts;
    // Posts and reads wait by server for a poster thread, which sends those
    // of one server together: concurrent posts share a round trip and the
    // script's reads and writes of the counts, concurrent reads a round trip,
    // and no caller's thread waits on Redis (postLater, readLater). One call
    // of posts per server at a time keeps a server's posts in order (and one
    // of reads beside it); kPosters calls are sent at once. Once a post is
    // queued, nothing a poster does for it allocates (lists move nodes), so
    // that running out of memory cannot strand a post; a read that runs out of
    // memory fails.
    static const std::size_t kPosters = 4;
    template <class Work>
    struct Queues {
        struct Server {
            std::list<Work> waiting;  // in arrival order
            // The server's id: one node, here or in ready while the server
            // waits for a poster.
            std::list<std::string> name;
            bool sending = false;
        };
        std::unordered_map<std::string, Server> servers;
        std::list<std::string> ready;  // servers with work waiting, none being sent
    };
    std::mutex postMutex;  // guards everything down to posters
    std::condition_variable postsWaiting;
    Queues<LaterPost> laterPosts;
    Queues<LaterRead> laterReads;
    bool readsNext = false;  // when both wait: whose turn it is
    bool stopping = false;
    std::vector<std::thread> posters;  // started with the first post
    std::mutex watcherMutex;           // guards watcher
    // Last: it goes first, while the pool it connects through is still there.
    std::unique_ptr<RedisPostWatcher> watcher;
};

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_ENGINE_REDISSTORE_H
