// What the HTTP backend remembers of each identity (the daemon's URL, Server-ID,
// Client-ID) from one exchange to the next, process-wide:
//   - the highest sequence of the last getEvents answer read to its end, sent
//     as the acknowledgement of the identity's next getEvents, and whether the
//     daemon has had it yet (what is still open when the process ends);
//   - the id of a putEvents whose outcome is unknown, with its body, so the
//     same request sent again carries the same id and is posted once.
// One instance, never destroyed (exchanges may run while the process ends).
// Thread-safe, fork-safe: a child inherits the entries, and only the process
// that read an answer acknowledges it at exit. Throws std::bad_alloc, and
// std::system_error from postIdFor when the system gives no random bytes.
#ifndef AVQVL_TRANSPORT_INTERNAL_IDENTITYLEDGER_H
#define AVQVL_TRANSPORT_INTERNAL_IDENTITYLEDGER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

struct Identity {
    std::string url;
    std::string serverId;
    std::string clientId;

    bool operator<(const Identity& other) const {
        return std::tie(url, serverId, clientId) <
               std::tie(other.url, other.serverId, other.clientId);
    }
};

// An acknowledgement the daemon has not had yet.
struct OpenAck {
    Identity identity;
    std::uint64_t upTo = 0;
};

class IdentityLedger {
public:
    static IdentityLedger& instance();

    // The acknowledgement the identity's next getEvents carries.
    std::uint64_t ackToSend(const Identity& identity);
    // A getEvents that carried `sent` was answered and read to its end; its
    // answer's highest sequence was lastSequence (0: no event).
    void fetched(const Identity& identity, std::uint64_t sent, std::uint64_t lastSequence);
    // The client library's getEvents ends with a getSharedClients; when that
    // fails, the call throws and the application never takes the events, so
    // they stay unread (they come again) rather than being acknowledged.
    void fetchCompleted(const Identity& identity, bool succeeded);
    // The daemon has had the acknowledgement upTo (an acknowledge-only request).
    void acknowledged(const Identity& identity, std::uint64_t upTo);
    // What this process read and the daemon has not had acknowledged.
    void takeOpen(std::vector<OpenAck>& open);

    // The post id for a putEvents of body: the one kept for the same body after
    // an unknown outcome, else a new random one.
    std::string postIdFor(const Identity& identity, const std::string& body);
    // How that putEvents ended. An unknown outcome keeps the id for a retry of
    // the same body; so does a retry that fails in a way that says nothing of
    // the first try (connection refused, a limit), since the first may have been
    // applied. Success, or another post failing, forgets it.
    void posted(const Identity& identity, const std::string& body, const std::string& postId,
                bool applied, bool outcomeUnknown);

private:
    IdentityLedger();

    struct Entry {
        std::uint64_t read = 0;        // the highest sequence read to its end
        std::uint64_t readBefore = 0;  // read before the last fetch, until it completes
        bool fetchOpen = false;        // the last fetch's call has not completed
        std::uint64_t confirmed = 0;   // the highest the daemon has had
        long reader = 0;               // the process that read it
        std::string postId;            // of the post whose outcome is unknown
        std::string postBody;
    };

    std::atomic<long> self;  // this process's id
    std::mutex mutex;        // guards entries
    std::map<Identity, Entry> entries;
};

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_IDENTITYLEDGER_H
