#include "daemon/Waiters.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

std::size_t Waiters::bucket(const std::string& serverId) const {
    return std::hash<std::string>()(serverId) % kBuckets;
}

std::uint64_t Waiters::mark(const std::string& serverId) {
    std::lock_guard<std::mutex> lock(mutex);
    return allPosts + posts[bucket(serverId)];
}

Waiters::Added Waiters::add(const std::shared_ptr<Waiter>& waiter, std::uint64_t since) {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopping) {
        return Added::Stopping;
    }
    if (allPosts + posts[bucket(waiter->serverId)] != since) {
        return Added::Posted;
    }
    if (count >= most) {
        return Added::Full;
    }
    servers[waiter->serverId].emplace(waiter.get(), waiter);
    ++count;
    return Added::Waiting;
}

bool Waiters::remove(const Waiter& waiter) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto server = servers.find(waiter.serverId);
    if (server == servers.end() || server->second.erase(&waiter) == 0) {
        return false;
    }
    --count;
    if (server->second.empty()) {
        servers.erase(server);
    }
    return true;
}

void Waiters::takeWaiters(const std::string& serverId, Server& taken) {
    if (serverId.empty()) {
        ++allPosts;
        for (auto& server : servers) {
            taken.insert(server.second.begin(), server.second.end());
        }
        servers.clear();
    } else {
        ++posts[bucket(serverId)];
        const auto server = servers.find(serverId);
        if (server == servers.end()) {
            return;
        }
        taken = std::move(server->second);
        servers.erase(server);
    }
    count -= taken.size();
}

void Waiters::posted(const std::string& serverId,
                     const std::shared_ptr<const Engine::PostNews>& news) {
    std::vector<std::string_view> clients;  // sorted, to find the waiters' clients in
    // What news can answer is what its read did not see (past logEnd) and
    // did not post itself, for a client that was still registered.
    const auto newsFor = [&](const Waiter& waiter) {
        return std::any_of(
            news->events.begin(), news->events.end(), [&](const Engine::StoredEvent& event) {
                return event.sequence > waiter.logEnd && event.sender != waiter.clientId;
            });
    };
    Server looking, answered;
    {
        std::lock_guard<std::mutex> lock(mutex);
        takeWaiters(serverId, looking);
        if (news && !looking.empty()) {  // most news is of servers with no waiter here
            clients.assign(news->clients.begin(), news->clients.end());
            std::sort(clients.begin(), clients.end());
        }
        for (auto taken = looking.begin(); news && taken != looking.end();) {
            const Waiter& waiter = *taken->second;
            if (waiter.logEnd == 0 ||
                !std::binary_search(clients.begin(), clients.end(), waiter.clientId)) {
                ++taken;
            } else if (newsFor(waiter)) {
                answered.insert(looking.extract(taken++));
            } else {
                servers[serverId].insert(looking.extract(taken++));
                ++count;
            }
        }
    }
    for (const auto& waiter : looking) {
        waiter.second->woken(nullptr);
    }
    for (const auto& waiter : answered) {
        waiter.second->woken(news);
    }
}

void Waiters::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    posted("");
}

std::size_t Waiters::size() {
    std::lock_guard<std::mutex> lock(mutex);
    return count;
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
