// `quorvel admin clients` and `quorvel admin evict`.
#include <algorithm>
#include <iostream>
#include <vector>

#include "client/AvQVLConnection.h"
#include "tools/Admin.h"
#include "tools/Commands.h"
#include "tools/Listing.h"
#include "tools/Report.h"

namespace Arvant::Net::AvQuorvel::Tools {

namespace {

// Checks the identity and takes the admin token, before the first exchange.
void prepare(const Options& options) {
    checkIdentity(options);
    if (!options.adminTokenFile.empty()) {
        useAdminToken(options.adminTokenFile);
    }
}

void printTable(const std::vector<RegisteredClient>& clients) {
    std::vector<std::vector<std::string>> rows = {
        {"SERVER", "CLIENT", "WAITING EVENTS", "WAITING BYTES", "LAST FETCH", "REGISTERED"}};
    for (const RegisteredClient& c : clients) {
        rows.push_back({c.server, c.client, std::to_string(c.waitingEvents),
                        std::to_string(c.waitingBytes), isoTime(c.lastFetchMs),
                        isoTime(c.registeredMs)});
    }
    std::vector<std::size_t> widths(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i] + (i + 1 < row.size() ? std::string(widths[i] - row[i].size() + 2, ' ')
                                                 : std::string());
        }
        std::cout << line << "\n";
    }
}

}  // namespace

int runAdminClients(const Options& options) {
    return guarded("admin clients", options, [&options] {
        prepare(options);
        Client::AvQVLConnection connection;  // keeps the XML library up for the answer
        std::vector<RegisteredClient> clients;
        listRegisteredClients(options.server, clients);
        if (options.json) {
            Json list = Json::array();
            for (const RegisteredClient& c : clients) {
                Json entry;
                entry["server"] = c.server;
                entry["client"] = c.client;
                entry["waitingEvents"] = c.waitingEvents;
                entry["waitingBytes"] = c.waitingBytes;
                entry["lastFetch"] =
                    c.lastFetchMs == 0 ? Json(nullptr) : Json(isoTime(c.lastFetchMs));
                entry["registered"] = isoTime(c.registeredMs);
                list.push_back(entry);
            }
            Json result = resultJson("admin clients", true);
            result["server"] = options.server;
            result["clients"] = list;
            std::cout << dumpJson(result) << "\n";
        } else if (clients.empty()) {
            std::cout << "no registered clients\n";
        } else {
            printTable(clients);
        }
        return kExitOk;
    });
}

int runAdminEvict(const Options& options) {
    return guarded("admin evict", options, [&options] {
        prepare(options);
        Client::AvQVLConnection connection;
        std::vector<std::string> remaining;
        evictClient(options.server, options.client, remaining);
        if (options.json) {
            Json result = resultJson("admin evict", true);
            result["server"] = options.server;
            result["client"] = options.client;
            result["sharedClients"] = remaining;
            std::cout << dumpJson(result) << "\n";
        } else {
            std::cout << "evicted client \"" << options.client << "\" of server \""
                      << options.server << "\"\nshared clients (" << remaining.size()
                      << "): " << joined(remaining) << "\n";
        }
        return kExitOk;
    });
}

}  // namespace Arvant::Net::AvQuorvel::Tools
