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
#include "engine/SqliteStore.h"

namespace StoreTests {

using Arvant::Net::AvQuorvel::Engine::ServiceLimits;
using Arvant::Net::AvQuorvel::Engine::Store;

struct StoreFactory {
    std::string name;
    std::function<std::unique_ptr<Store>(const ServiceLimits& limits, const std::string& scratch)>
        make;
};

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
    return factories;
}

}  // namespace StoreTests

#endif  // AVQVL_TESTS_ENGINE_STOREFACTORIES_H
