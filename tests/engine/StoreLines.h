// The stores' tests see events as "sender|sequence|text" lines.
#ifndef AVQVL_TESTS_ENGINE_STORELINES_H
#define AVQVL_TESTS_ENGINE_STORELINES_H

#include <optional>
#include <string>
#include <vector>

#include "engine/Store.h"

using Lines = std::vector<std::string>;

inline std::string lineOf(const Arvant::Net::AvQuorvel::Engine::StoredEvent& event) {
    return event.sender + "|" + std::to_string(event.sequence) + "|" + *event.text;
}

// Registers the clients in order; gives the shared clients after the last.
inline Lines registerAll(Arvant::Net::AvQuorvel::Engine::Store& store, const std::string& server,
                         const Lines& clients) {
    Lines after;
    for (const std::string& client : clients) {
        store.registerClient(server, client, after);
    }
    return after;
}

// The client's events, read after acknowledging ack when given; with take,
// what was read is acknowledged; with clients, they are read with the events.
inline Lines readLines(Arvant::Net::AvQuorvel::Engine::Store& store, const std::string& server,
                       const std::string& client, std::optional<std::uint64_t> ack = std::nullopt,
                       bool take = false, Lines* clients = nullptr) {
    std::vector<Arvant::Net::AvQuorvel::Engine::StoredEvent> events;
    if (clients != nullptr) {
        std::uint64_t logEnd = 0;
        store.readWithClients(server, client, ack, events, *clients, logEnd);
    } else {
        store.read(server, client, ack, events);
    }
    if (take && !events.empty()) {
        store.acknowledge(server, client, events.back().sequence);
    }
    Lines shown;
    for (const auto& event : events) {
        shown.push_back(lineOf(event));
    }
    return shown;
}

#endif  // AVQVL_TESTS_ENGINE_STORELINES_H
