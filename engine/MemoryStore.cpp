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

// For std::upper_bound over a log: the first event past a sequence.
bool laterThan(std::uint64_t sequence, const StoredEvent& event) {
    return sequence < event.sequence;
}

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
        ServerGroup& target = servers[serverId];
        Client added;
        added.id = clientId;
        added.cursor = target.nextSequence - 1;  // a new client starts at the head
        added.registeredMs = epochMilliseconds();
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
            } else {
                trim(group->second);  // the lowest cursor may have gone with it
            }
        }
        remaining.swap(after);
    });
}

void MemoryStore::clients(const std::string& serverId, ClientList& clients) {
    guarded([&] { copyIds(serverId, clients); });
}

// Forgets the ids past their age, then tells whether postId is among the rest.
bool MemoryStore::remembered(Client& sender, const std::string& postId, std::int64_t now) {
    while (!sender.posts.empty() && sender.posts.front().postedMs < now - kRememberedPostAgeMs) {
        forgetOldestPost(sender);
    }
    return sender.postIds.count(postId) != 0;
}

void MemoryStore::forgetOldestPost(Client& sender) {
    sender.postIds.erase(sender.postIds.find(*sender.posts.front().id));
    sender.posts.pop_front();
}

void MemoryStore::forgetNewestPost(Client& sender) {
    sender.postIds.erase(sender.postIds.find(*sender.posts.back().id));
    sender.posts.pop_back();
}

// Throws the Limit a post of `size` bytes would pass, if any.
void MemoryStore::checkLimits(const ServerGroup& group, const std::string& serverId,
                              const std::string& senderId, std::size_t size) const {
    const ServiceLimits& limit = limits();
    const std::size_t held = *storedBytes;
    if (group.clients.size() > 1 && held + size > limit.maxStoredBytes) {
        throw Failure{FailureKind::Limit, tooManyStoredBytesMessage(serverId, senderId, held, size,
                                                                    limit.maxStoredBytes)};
    }
    for (const Client& recipient : group.clients) {
        if (recipient.id == senderId) {
            continue;
        }
        // The messages are made only when a post is refused: puts are frequent.
        if (recipient.waitingEvents >= limit.maxQueuedEventsPerClient) {
            throw Failure{FailureKind::Limit, tooManyEventsMessage(serverId, senderId, recipient.id,
                                                                   recipient.waitingEvents)};
        }
        if (recipient.waitingBytes + size > limit.maxQueuedBytesPerClient) {
            throw Failure{FailureKind::Limit, tooManyBytesMessage(serverId, senderId, recipient.id,
                                                                  recipient.waitingBytes, size,
                                                                  limit.maxQueuedBytesPerClient)};
        }
    }
}

void MemoryStore::post(const std::string& serverId, const std::string& senderId,
                       const std::string& text, const std::string& postId, ClientList& clients) {
    guarded([&] {
        Client* sender = findClient(serverId, senderId);
        if (sender == nullptr) {
            throw Failure{FailureKind::Refused, notRegisteredMessage(serverId, senderId)};
        }
        ServerGroup& group = servers.find(serverId)->second;
        const std::int64_t now = epochMilliseconds();
        ClientList after;
        copyIds(serverId, after);
        if (!postId.empty() && remembered(*sender, postId, now)) {
            clients.swap(after);  // posted already: answered as the first time
            return;
        }
        const bool othersListen = group.clients.size() > 1;
        checkLimits(group, serverId, senderId, text.size());
        const std::uint64_t sequence = group.nextSequence;
        if (!postId.empty()) {
            const auto id = sender->postIds.insert(postId).first;
            try {
                sender->posts.push_back(RememberedPost{&*id, now});
            } catch (...) {
                sender->postIds.erase(id);
                throw;
            }
        }
        if (othersListen) {
            try {
                auto* copy = new std::string(text);
                *storedBytes += text.size();  // given back by TextRelease, even if reset throws
                StoredEvent event{senderId, sequence, nullptr};
                event.text.reset(copy, TextRelease{storedBytes, text.size()});
                group.log.push_back(std::move(event));
            } catch (...) {
                if (!postId.empty()) {
                    forgetNewestPost(*sender);
                }
                throw;
            }
        }
        // Nothing below allocates.
        if (sender->posts.size() > kRememberedPosts) {
            forgetOldestPost(*sender);
        }
        ++group.nextSequence;
        if (othersListen) {
            for (Client& recipient : group.clients) {
                if (recipient.id != senderId) {
                    ++recipient.waitingEvents;
                    recipient.waitingBytes += text.size();
                }
            }
        }
        if (sender->waitingEvents == 0) {
            advance(group, *sender, sequence);  // its cursor follows its own posts
        }
        clients.swap(after);
    });
}

void MemoryStore::advance(ServerGroup& group, Client& client, std::uint64_t upTo) {
    if (upTo <= client.cursor) {
        return;
    }
    auto first = std::upper_bound(group.log.begin(), group.log.end(), client.cursor, laterThan);
    for (auto event = first; event != group.log.end() && event->sequence <= upTo; ++event) {
        if (event->sender != client.id) {
            --client.waitingEvents;
            client.waitingBytes -= event->text->size();
        }
    }
    // Nothing of others waits past upTo: the rest are its own posts. An upTo
    // past the log has passed every event, so the cursor stops at the log's end.
    client.cursor = client.waitingEvents == 0 ? group.nextSequence - 1 : upTo;
    trim(group);
}

void MemoryStore::trim(ServerGroup& group) {
    std::uint64_t lowest = group.nextSequence;
    for (const Client& client : group.clients) {
        lowest = std::min(lowest, client.cursor);
    }
    while (!group.log.empty() && group.log.front().sequence <= lowest) {
        group.log.pop_front();
    }
}

void MemoryStore::read(const std::string& serverId, const std::string& clientId,
                       const std::optional<std::uint64_t>& ackUpTo,
                       std::vector<StoredEvent>& events) {
    guarded([&] {
        Client* client = findClient(serverId, clientId);
        if (client == nullptr) {
            throw Failure{FailureKind::Refused, notRegisteredMessage(serverId, clientId)};
        }
        ServerGroup& group = servers.find(serverId)->second;
        // Read past where the acknowledgement puts the cursor before moving it,
        // so that running out of memory leaves the cursor where it was.
        const std::uint64_t from =
            std::max(client->cursor, std::min(ackUpTo.value_or(0), group.nextSequence - 1));
        std::vector<StoredEvent> found;
        found.reserve(client->waitingEvents);
        auto first = std::upper_bound(group.log.begin(), group.log.end(), from, laterThan);
        for (auto event = first; event != group.log.end(); ++event) {
            if (event->sender != clientId) {
                found.push_back(*event);
            }
        }
        if (ackUpTo) {
            advance(group, *client, *ackUpTo);
        }
        client->lastFetchMs = epochMilliseconds();
        events.swap(found);
    });
}

void MemoryStore::acknowledge(const std::string& serverId, const std::string& clientId,
                              std::uint64_t upTo) {
    guarded([&] {
        Client* client = findClient(serverId, clientId);
        if (client != nullptr) {
            advance(servers.find(serverId)->second, *client, upTo);
        }
    });
}

StoreStats MemoryStore::stats() {
    StoreStats stats;
    guarded([&] {
        for (const auto& group : servers) {
            stats.registeredClients += group.second.clients.size();
            for (const Client& client : group.second.clients) {
                stats.waitingEvents += client.waitingEvents;
                stats.waitingBytes += client.waitingBytes;
            }
        }
    });
    return stats;
}

ClientInfo MemoryStore::describeClient(const std::string& serverId, const Client& client) {
    return ClientInfo{serverId,
                      client.id,
                      client.waitingEvents,
                      client.waitingBytes,
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
            if (clients.empty()) {
                group = servers.erase(group);
            } else {
                trim(group->second);
                ++group;
            }
        }
        expired.swap(found);
    });
}

}  // namespace Engine
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
