// The stores every store test runs over. A store joins the table with a name
// and a function that makes a fresh, empty instance with the given limits;
// scratch is an empty directory of the test's own, removed afterwards.
#ifndef AVQVL_TESTS_ENGINE_STOREFACTORIES_H
#define AVQVL_TESTS_ENGINE_STOREFACTORIES_H

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "engine/MemoryStore.h"
#include "engine/RedisStore.h"
#include "engine/SqliteStore.h"
#include "support/RedisServer.h"

namespace StoreTests {

using Arvant::Net::AvQuorvel::Engine::ServiceLimits;
using Arvant::Net::AvQuorvel::Engine::Store;

struct StoreFactory {
    std::string name;
    std::function<std::unique_ptr<Store>(const ServiceLimits& limits, const std::string& scratch)>
        make;
};

// The test framework names each instance by printing its parameter; without
// this it would dump the factory's bytes, padding included.
inline void PrintTo(const StoreFactory& factory, std::ostream* out) {
    *out << factory.name;
}

inline std::vector<StoreFactory> storeFactories() {
    std::vector<StoreFactory> factories;
    factories.push_back({"Memory", [](const ServiceLimits& limits, const std::string&) {
                             return std::make_unique<Arvant::Net::AvQuorvel::Engine::MemoryStore>(
                                 limits);
                         }});
    factories.push_back({"Sqlite", [](const ServiceLimits& limits, const std::string& scratch) {
                             return std::make_unique<Arvant::Net::AvQuorvel::Engine::SqliteStore>(
                                 scratch, limits);
                         }});
    // One redis-server for the whole program, emptied for each store.
    factories.push_back({"Redis", [](const ServiceLimits& limits, const std::string&) {
                             static RedisServer redis;
                             redis.flush();
                             Arvant::Net::AvQuorvel::Engine::RedisAddress address;
                             address.port = redis.port;
                             return std::make_unique<Arvant::Net::AvQuorvel::Engine::RedisStore>(
                                 address, limits);
                         }});
    return factories;
}

}  // namespace StoreTests

#endif  // AVQVL_TESTS_ENGINE_STOREFACTORIES_H
