#include "engine/MemoryStore.h"

#include <algorithm>
#include <new>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Engine {

namespace {

// Gives a text's bytes back to the store's count when its last copy goes.
struct TextRelease {
    std::shared_ptr<std::atomic<std::size_t>> storedBytes;
    std::size_t size;
    void operator()(const std::string* text) const {
        *storedBytes -= size;
        delete text;
    }
};

}  // namespace

// Runs one operation under the lock; running out of memory is a Limit failure,
// and each operation below changes nothing before its last allocation.
template <typename Operation>
void MemoryStore::guarded(Operation operation) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        operation();
    } catch (const std::bad_alloc&) {
        throw Failure{FailureKind::Limit, outOfMemoryMessage()};
    }
}

MemoryStore::Client* MemoryStore::findClient(const std::string& serverId,
                                             const std::string& clientId) {
    auto group = servers.find(serverId);
    if (group == servers.end()) {
        return nullptr;
    }
    for (Client& client : group->second.clients) {
        if (client.id == clientId) {
            return &client;
        }
    }
    return nullptr;
}

void MemoryStore::copyIds(const std::string& serverId, ClientList& clients) const {
    clients.clear();
    auto group = servers.find(serverId);
    if (group != servers.end()) {
        for (const Client& client : group->second.clients) {
            clients.push_back(client.id);
        }
    }
}

void MemoryStore::registerClient(const std::string& serverId, const std::string& clientId,
                                 ClientList& clients) {
    guarded([&] {
        if (findClient(serverId, clientId) != nullptr) {
            copyIds(serverId, clients);  // already known: its events stay
            return;
        }
        auto group = servers.find(serverId);
        const std::size_t count = group == servers.end() ? 0 : group->second.clients.size();
        if (count >= limits().maxClientsPerServer) {
            throw Failure{FailureKind::Limit, tooManyClientsMessage(serverId, clientId, count)};
        }
        ClientList after;
        copyIds(serverId, after);
        after.push_back(clientId);
        Client added{clientId, {}, 0, epochMilliseconds(), 0};
        ServerGroup& target = servers[serverId];
        try {
            target.clients.push_back(std::move(added));
        } catch (...) {
            if (target.clients.empty()) {
                servers.erase(serverId);  // nothing half-done
            }
            throw;
        }
        clients.swap(after);
    });
}

void MemoryStore::unregisterClient(const std::string& serverId, const std::string& clientId,
                                   ClientList& remaining) {
    guarded([&] {
        ClientList after;
        copyIds(serverId, after);
        after.erase(std::remove(after.begin(), after.end(), clientId), after.end());
        auto group = servers.find(serverId);
        if (group != servers.end()) {
            auto& clients = group->second.clients;
            clients.erase(
                std::remove_if(clients.begin(), clients.end(),
                               [&](const Client& client) { return client.id == clientId; }),
                clients.end());
            if (clients.empty()) {
                servers.erase(group);  // the sequence restarts with the next client
            }
        }
        remaining.swap(after);
    });
}

void MemoryStore::clients(const std::string& serverId, ClientList& clients) {
    guarded([&] { copyIds(serverId, clients); });
}

void MemoryStore::checkLimits(const ServerGroup& group, const std::string& serverId,
                              const std::string& senderId, std::size_t textBytes) const {
    const ServiceLimits& limit = limits();
    const std::size_t held = *storedBytes;
    if (group.clients.size() > 1 && held + textBytes > limit.maxStoredBytes) {
        throw Failure{
            FailureKind::Limit,
            tooManyStoredBytesMessage(serverId, senderId, held, textBytes, limit.maxStoredBytes)};
    }
    for (const Client& recipient : group.clients) {
        if (recipient.id == senderId) {
            continue;
        }
        // The messages are made only when a post is refused: puts are frequent.
        if (recipient.pending.size() >= limit.maxQueuedEventsPerClient) {
            throw Failure{FailureKind::Limit, tooManyEventsMessage(serverId, senderId, recipient.id,
                                                                   recipient.pending.size())};
        }
        if (recipient.pendingBytes + textBytes > limit.maxQueuedBytesPerClient) {
            throw Failure{FailureKind::Limit, tooManyBytesMessage(serverId, senderId, recipient.id,
                                                                  recipient.pendingBytes, textBytes,
                                                                  limit.maxQueuedBytesPerClient)};
        }
    }
}

void MemoryStore::queueForAll(ServerGroup& group, const std::string& senderId,
                              const StoredEvent& event, std::size_t textBytes) {
    std::size_t queued = 0;
    try {
        for (Client& recipient : group.clients) {
            if (recipient.id != senderId) {
                recipient.pending.push_back(event);
                recipient.pendingBytes += textBytes;
                ++queued;
            }
        }
    } catch (...) {
        // Take the event back from the recipients that already got it.
        for (Client& recipient : group.clients) {
            if (queued == 0) {
                break;
            }
            if (recipient.id != senderId) {
                recipient.pending.pop_back();
                recipient.pendingBytes -= textBytes;
                --queued;
            }
        }
        throw;
    }
}

void MemoryStore::post(const std::string& serverId, const std::string& senderId,
                       const std::string& text, ClientList& clients) {
    guarded([&] {
        if (findClient(serverId, senderId) == nullptr) {
            throw Failure{FailureKind::Refused, notRegisteredMessage(serverId, senderId)};
        }
        ServerGroup& group = servers.find(serverId)->second;
        checkLimits(group, serverId, senderId, text.size());
        ClientList after;
        copyIds(serverId, after);
        StoredEvent event{senderId, group.nextSequence, nullptr};
        auto* copy = new std::string(text);
        *storedBytes += text.size();  // given back by TextRelease, even if the next line throws
        event.text.reset(copy, TextRelease{storedBytes, text.size()});
        queueForAll(group, senderId, event, text.size());
        ++group.nextSequence;
        clients.swap(after);
    });
}

void MemoryStore::take(const std::string& serverId, const std::string& clientId,
                       std::vector<StoredEvent>& events) {
    guarded([&] {
        Client* client = findClient(serverId, clientId);
        if (client == nullptr) {
            throw Failure{FailureKind::Refused, notRegisteredMessage(serverId, clientId)};
        }
        std::vector<StoredEvent> taken(std::make_move_iterator(client->pending.begin()),
                                       std::make_move_iterator(client->pending.end()));
        client->pending.clear();  // nothing can throw from here on
        client->pendingBytes = 0;
        client->lastFetchMs = epochMilliseconds();
        events.swap(taken);
    });
}

void MemoryStore::restore(const std::string& serverId, const std::string& clientId,
                          const std::vector<StoredEvent>& events) {
    guarded([&] {
        Client* client = findClient(serverId, clientId);
        if (client == nullptr || events.empty()) {
            return;  // the client has left: its events went with it
        }
        std::deque<StoredEvent> pending(events.begin(), events.end());
        std::size_t bytes = 0;
        for (const StoredEvent& event : events) {
            bytes += event.text->size();
        }
        pending.insert(pending.end(), client->pending.begin(), client->pending.end());
        client->pending.swap(pending);
        client->pendingBytes += bytes;
    });
}

StoreStats MemoryStore::stats() {
    StoreStats stats;
    guarded([&] {
        for (const auto& group : servers) {
            stats.registeredClients += group.second.clients.size();
            for (const Client& client : group.second.clients) {
                stats.waitingEvents += client.pending.size();
                stats.waitingBytes += client.pendingBytes;
            }
        }
    });
    return stats;
}

ClientInfo MemoryStore::describeClient(const std::string& serverId, const Client& client) {
    return ClientInfo{serverId,
                      client.id,
                      client.pending.size(),
                      client.pendingBytes,
                      client.registeredMs,
                      client.lastFetchMs};
}

void MemoryStore::listClients(const std::string& serverId, std::vector<ClientInfo>& clients) {
    guarded([&] {
        std::vector<ClientInfo> listed;
        for (const auto& group : servers) {
            if (serverId.empty() || group.first == serverId) {
                for (const Client& client : group.second.clients) {
                    listed.push_back(describeClient(group.first, client));
                }
            }
        }
        clients.swap(listed);
    });
}

void MemoryStore::expireIdleClients(std::int64_t idleBeforeMs, std::vector<ClientInfo>& expired) {
    guarded([&] {
        auto idle = [idleBeforeMs](const Client& client) {
            const std::int64_t lastSeen =
                client.lastFetchMs != 0 ? client.lastFetchMs : client.registeredMs;
            return lastSeen < idleBeforeMs;
        };
        std::vector<ClientInfo> found;
        for (const auto& group : servers) {
            for (const Client& client : group.second.clients) {
                if (idle(client)) {
                    found.push_back(describeClient(group.first, client));
                }
            }
        }
        // Nothing below allocates: the clients go as unregistering them would.
        for (auto group = servers.begin(); group != servers.end();) {
            auto& clients = group->second.clients;
            clients.erase(std::remove_if(clients.begin(), clients.end(), idle), clients.end());
            group = clients.empty() ? servers.erase(group) : std::next(group);
        }
        expired.swap(found);
    });
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
