#include "engine/Store.h"

#include <unistd.h>

#include <chrono>
#include <new>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string cannotQueue(const std::string& serverId, const std::string& senderId,
                        const std::string& recipientId) {
    return "Cannot queue the event of client " + quoted(senderId) + ": client " +
           quoted(recipientId) + " of server " + quoted(serverId) + " already has ";
}

}  // namespace

void Store::postLater(const std::string& serverId, const std::string& senderId,
                      const std::string& text, const std::string& postId, PostDone done) {
    ClientList clients;
    try {
        post(serverId, senderId, text, postId, clients);
    } catch (const Failure& failure) {
        done(nullptr, &failure);
        return;
    } catch (const std::bad_alloc&) {
        const Failure failure{FailureKind::Limit, outOfMemoryMessage()};
        done(nullptr, &failure);
        return;
    }
    done(&clients, nullptr);
}

void Store::readLater(const std::string& serverId, const std::string& clientId,
                      const std::optional<std::uint64_t>& ackUpTo, bool clientsToo, ReadDone done) {
    std::vector<StoredEvent> events;
    ClientList clients;
    std::uint64_t logEnd = 0;
    try {
        if (clientsToo) {
            readWithClients(serverId, clientId, ackUpTo, events, clients, logEnd);
        } else {
            read(serverId, clientId, ackUpTo, events);
        }
    } catch (const Failure& failure) {
        done(nullptr, nullptr, 0, &failure);
        return;
    } catch (const std::bad_alloc&) {
        const Failure failure{FailureKind::Limit, outOfMemoryMessage()};
        done(nullptr, nullptr, 0, &failure);
        return;
    }
    done(&events, clientsToo ? &clients : nullptr, logEnd, nullptr);
}

// The memory store holds every text in this process, and a getEvents answer
// briefly holds a client's texts again, escaped; a quarter of the physical
// memory leaves room for that, for the rest of the process and for the other
// programs of the machine. The same default bounds the SQLite and Redis stores,
// whose data are served through this process's memory too. Without a page
// count, 1 GiB.
std::size_t defaultMaxStoredBytes() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) {
        return std::size_t(1) << 30;
    }
    return static_cast<std::size_t>(pages) / 4 * static_cast<std::size_t>(pageSize);
}

std::int64_t epochMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string notRegisteredMessage(const std::string& serverId, const std::string& clientId) {
    return "Client " + quoted(clientId) + " is not registered with server " + quoted(serverId) +
           ".";
}

std::string tooManyClientsMessage(const std::string& serverId, const std::string& clientId,
                                  std::size_t count) {
    return "Cannot register client " + quoted(clientId) + ": server " + quoted(serverId) +
           " already has " + std::to_string(count) + " clients, the most one server may have.";
}

std::string tooManyEventsMessage(const std::string& serverId, const std::string& senderId,
                                 const std::string& recipientId, std::size_t waiting) {
    return cannotQueue(serverId, senderId, recipientId) + std::to_string(waiting) +
           " events waiting, the most a client may have.";
}

std::string tooManyBytesMessage(const std::string& serverId, const std::string& senderId,
                                const std::string& recipientId, std::size_t waitingBytes,
                                std::size_t moreBytes, std::size_t limit) {
    return cannotQueue(serverId, senderId, recipientId) + std::to_string(waitingBytes) +
           " bytes of events waiting; " + std::to_string(moreBytes) +
           " more would pass the limit of " + std::to_string(limit) + " bytes.";
}

std::string tooManyStoredBytesMessage(const std::string& serverId, const std::string& senderId,
                                      std::size_t storedBytes, std::size_t moreBytes,
                                      std::size_t limit) {
    return "Cannot queue the event of client " + quoted(senderId) + " of server " +
           quoted(serverId) + ": the service already holds " + std::to_string(storedBytes) +
           " bytes of events; " + std::to_string(moreBytes) + " more would pass its limit of " +
           std::to_string(limit) + " bytes for all servers.";
}

std::string outOfMemoryMessage() {
    return "The Quorvel service ran out of memory while handling the request.";
}

std::string storeFailedMessage(const std::string& action, const std::string& cause) {
    return "The Quorvel service could not " + action + ": its store failed (" + cause +
           "); nothing was changed.";
}

std::string unknownOutcomeMessage(const std::string& action, const std::string& cause) {
    return "The Quorvel service got no answer from its store while trying to " + action + " (" +
           cause + "); the outcome is unknown; retrying the same request is safe";
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
