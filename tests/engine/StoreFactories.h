// The stores every store test runs over. A store joins the table with a name
// and a function that makes a fresh, empty instance with the given limits;
// scratch is an empty directory of the test's own, removed afterwards.
#ifndef AVQVL_TESTS_ENGINE_STOREFACTORIES_H
#define AVQVL_TESTS_ENGINE_STOREFACTORIES_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/MemoryStore.h"
#include "engine/RedisStore.h"
#include "engine/SqliteStore.h"
#include "support/RedisServer.h"

namespace StoreTests {

using Arvant::Net::AvQuorvel::Engine::ServiceLimits;
using Arvant::Net::AvQuorvel::Engine::Store;

namespace Engine = Arvant::Net::AvQuorvel::Engine;

struct StoreFactory {
    std::string name;
    std::function<std::unique_ptr<Store>(const ServiceLimits& limits, const std::string& scratch)>
        make;
};

inline std::vector<StoreFactory> storeFactories() {
    return {
        {"Memory",
         [](const ServiceLimits& limits, const std::string&) {
             return std::make_unique<Engine::MemoryStore>(limits);
         }},
        {"Sqlite",
         [](const ServiceLimits& limits, const std::string& scratch) {
             return std::make_unique<Engine::SqliteStore>(scratch, limits);
         }},
        // One redis-server for the whole program, emptied for each store.
        {"Redis",
         [](const ServiceLimits& limits, const std::string&) {
             static RedisServer redis;
             redis.flush();
             Engine::RedisAddress address;
             address.port = redis.port;
             return std::make_unique<Engine::RedisStore>(address, limits);
         }},
    };
}

}  // namespace StoreTests

#endif  // AVQVL_TESTS_ENGINE_STOREFACTORIES_H
