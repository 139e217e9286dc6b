#include "Commands.h"

#include <iostream>
#include <sstream>
#include <vector>

#include "EventList.h"
#include "Failure.h"
#include "Input.h"
#include "Listing.h"
#include "Report.h"
#include "SharedClients.h"
#include "client/AvQVLConnection.h"
#include "util/XMLNode.h"

namespace Quorvel {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Util::DomException;

namespace {

void printSharedClients(const std::vector<std::string>& clients) {
    std::cout << "shared clients (" << clients.size() << "): " << joined(clients) << "\n";
}

// Registers under the options' identity, if there is one.
void registerIfAsked(AvQVLConnection& connection, const Options& options) {
    if (!options.hasIdentity()) {
        return;
    }
    std::string server = options.server;
    std::string client = options.client;
    std::string locale = options.locale;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    if (!options.json) {
        std::cout << "registered client \"" << client << "\" with server \"" << server << "\"\n";
    }
}

JsonObject& identity(JsonObject& object, const Options& options) {
    return object.text("server", options.server)
        .text("client", options.client)
        .text("locale", options.locale);
}

}  // namespace

int runStatus(const Options& options) {
    return guarded(
        "status", options,
        [&options] {
            AvQVLConnection connection;
            registerIfAsked(connection, options);
            const int32_t status = connection.getStatus();
            const bool ok = status == 0;
            if (options.json) {
                std::cout << JsonObject("status").flag("ok", ok).number("status", status).str()
                          << "\n";
            } else if (ok) {
                std::cout << "status: 0 (the service echoed the status text)\n";
            } else {
                std::cout << "status: " << status << " (the service answered with another text)\n";
            }
            return ok ? kExitOk : kExitServiceFailure;
        },
        true);  // the status check hides the transport's reason behind its own message
}

int runRegister(const Options& options) {
    return guarded("register", options, [&options] {
        AvQVLConnection connection;
        std::string server = options.server;
        std::string client = options.client;
        std::string locale = options.locale;
        std::vector<std::string> shared;
        connection.registerClient(server, client, locale, shared);
        if (options.json) {
            JsonObject result("register");
            result.flag("ok", true);
            std::cout << identity(result, options).list("sharedClients", shared).str() << "\n";
        } else {
            std::cout << "registered client \"" << client << "\" with server \"" << server
                      << "\"\n";
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

int runUnregister(const Options& options) {
    return guarded("unregister", options, [&options] {
        AvQVLConnection connection;
        registerIfAsked(connection, options);
        std::vector<std::string> shared;
        connection.unregisterClient(shared);
        if (options.json) {
            JsonObject result("unregister");
            result.flag("ok", true);
            std::cout << identity(result, options).list("sharedClients", shared).str() << "\n";
        } else {
            std::cout << "unregistered\n";
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

int runClients(const Options& options) {
    return guarded("clients", options, [&options] {
        AvQVLConnection connection;
        std::vector<std::string> shared;
        if (options.server.empty()) {
            connection.getSharedClients(shared);  // unregistered: throws a pointer
        } else {
            listSharedClients(options.server, options.client, shared);
        }
        if (options.json) {
            JsonObject result("clients");
            result.flag("ok", true);
            std::cout << identity(result, options).list("sharedClients", shared).str() << "\n";
        } else {
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

int runPut(const Options& options, const PutInput& input) {
    return guarded("put", options, [&options, &input] {
        const char* const what = input.standardInput ? "standard input" : "TEXT";
        if (!input.standardInput) {
            checkLocalText(input.text, what);
        }
        std::string whole;
        if (input.standardInput && !input.lines) {
            whole = readStandardInput();
            checkLocalText(whole, what);
        }
        AvQVLConnection connection;
        registerIfAsked(connection, options);
        std::string correlationId = options.correlationId;
        std::vector<std::string> shared;
        long long events = 0;
        long long bytes = 0;
        const auto post = [&](const std::string& text) {
            std::string body = text;
            shared.clear();
            connection.putEvents(body, shared, correlationId);
            ++events;
            bytes += static_cast<long long>(text.size());
        };
        if (!input.lines) {
            post(input.standardInput ? whole : input.text);
        } else if (input.standardInput) {
            LineReader reader;
            for (std::string line; reader.next(line);) {
                checkLocalText(line, what, reader.lineOffset());
                if (!line.empty()) {
                    post(line);
                }
            }
        } else {
            std::istringstream text(input.text);
            for (std::string line; std::getline(text, line);) {
                if (!line.empty() && line.back() == '\r') {
                    line.pop_back();
                }
                if (!line.empty()) {
                    post(line);
                }
            }
        }
        if (options.json) {
            JsonObject result("put");
            result.flag("ok", true);
            identity(result, options).text("correlationId", correlationId);
            if (input.lines) {
                result.number("events", events);
            }
            result.number("bytes", bytes).list("sharedClients", shared);
            std::cout << result.str() << "\n";
        } else {
            if (input.lines) {
                std::cout << "posted " << events << " events, " << bytes << " bytes\n";
            } else {
                std::cout << "posted " << bytes << " bytes\n";
            }
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

int runGet(const Options& options) {
    return guarded("get", options, [&options] {
        AvQVLConnection connection;
        registerIfAsked(connection, options);
        std::string events;
        std::string correlationId = options.correlationId;
        std::vector<std::string> shared;
        connection.getEvents(events, shared, correlationId);
        // The raw text is the result; the listing is a reading aid. The library
        // treats events as opaque, so a text that is not an events document is
        // still printed, only without the listing.
        std::vector<Event> parsed;
        bool readable = true;
        try {
            parseEventDocument(events, parsed);
        } catch (const DomException&) {
            readable = false;
        }
        if (options.json) {
            std::string list = "null";
            if (readable) {
                list = "[";
                for (size_t i = 0; i < parsed.size(); ++i) {
                    list += (i == 0 ? "" : ",") + eventJson(parsed[i]);
                }
                list += "]";
            }
            JsonObject result("get");
            result.flag("ok", true);
            identity(result, options)
                .text("correlationId", correlationId)
                .text("raw", events)
                .raw("events", list)
                .list("sharedClients", shared);
            std::cout << result.str() << "\n";
        } else {
            std::cout << "events document (" << events.size() << " bytes):\n";
            std::istringstream lines(events);
            for (std::string line; std::getline(lines, line);) {
                std::cout << "  | " << line << "\n";
            }
            if (!readable) {
                std::cout << "events: not an events document, shown raw only\n";
            } else {
                std::cout << "events (" << parsed.size() << "):" << (parsed.empty() ? " none" : "")
                          << "\n";
                for (const Event& event : parsed) {
                    std::cout << "  #" << event.sequence << " from " << event.sender << ": "
                              << event.text << "\n";
                }
            }
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

}  // namespace Quorvel
