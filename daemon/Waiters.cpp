#include "daemon/Waiters.h"

#include <functional>
#include <utility>

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

void Waiters::posted(const std::string& serverId) {
    Server taken;
    {
        std::lock_guard<std::mutex> lock(mutex);
        takeWaiters(serverId, taken);
    }
    for (const auto& waiter : taken) {
        waiter.second->woken();
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
