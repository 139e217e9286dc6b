#include "Commands.h"

#include <functional>
#include <iostream>
#include <sstream>
#include <vector>

#include "EventList.h"
#include "Failure.h"
#include "Listing.h"
#include "Json.h"
#include "client/AvQVLConnection.h"
#include "util/XMLNode.h"

namespace Quorvel {

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Util::DomException;

namespace {

// One JSON object built field by field: {"command":"...","ok":true,...}.
class JsonObject {
public:
    explicit JsonObject(const char* command) { out << "{\"command\":" << jsonQuote(command); }
    JsonObject& raw(const char* name, const std::string& json) {
        out << ",\"" << name << "\":" << json;
        return *this;
    }
    JsonObject& text(const char* name, const std::string& value) {
        return raw(name, jsonQuote(value));
    }
    JsonObject& number(const char* name, long long value) {
        return raw(name, std::to_string(value));
    }
    JsonObject& flag(const char* name, bool value) { return raw(name, value ? "true" : "false"); }
    JsonObject& list(const char* name, const std::vector<std::string>& values) {
        return raw(name, jsonStringArray(values));
    }
    std::string str() const { return out.str() + "}"; }

private:
    std::ostringstream out;
};

void printSharedClients(const std::vector<std::string>& clients) {
    std::cout << "shared clients (" << clients.size() << "): " << joined(clients) << "\n";
}

// Runs `body`; a failure is printed (stderr, or as the JSON result on stdout)
// and turned into the exit code.
int guarded(const char* command, const Options& options, const std::function<int()>& body) {
    try {
        return body();
    } catch (...) {
        const Failure failure = describeCurrentException();
        if (options.json) {
            std::cout << JsonObject(command).flag("ok", false).raw("error", failure.toJson()).str()
                      << std::endl;
        } else {
            std::cout.flush();
            std::cerr << "error: " << failure.describe() << std::endl;
        }
        return failure.exitCode();
    }
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
    return guarded("status", options, [&options] {
        AvQVLConnection connection;
        registerIfAsked(connection, options);
        const int32_t status = connection.getStatus();
        const bool ok = status == 0;
        if (options.json) {
            std::cout << JsonObject("status").flag("ok", ok).number("status", status).str() << "\n";
        } else if (ok) {
            std::cout << "status: 0 (the service echoed the status text)\n";
        } else {
            std::cout << "status: " << status << " (the service answered with another text)\n";
        }
        return ok ? kExitOk : kExitServiceFailure;
    });
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
        registerIfAsked(connection, options);
        std::vector<std::string> shared;
        connection.getSharedClients(shared);  // throws a pointer when unregistered
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

int runPut(const Options& options, const std::string& text) {
    return guarded("put", options, [&options, &text] {
        AvQVLConnection connection;
        registerIfAsked(connection, options);
        std::string events = text;
        std::string correlationId = options.correlationId;
        std::vector<std::string> shared;
        connection.putEvents(events, shared, correlationId);
        if (options.json) {
            JsonObject result("put");
            result.flag("ok", true);
            identity(result, options)
                .text("correlationId", correlationId)
                .number("bytes", static_cast<long long>(text.size()))
                .list("sharedClients", shared);
            std::cout << result.str() << "\n";
        } else {
            std::cout << "posted " << text.size() << " bytes\n";
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
                    list += (i == 0 ? "{" : ",{");
                    list += "\"sender\":" + jsonQuote(parsed[i].sender);
                    list += ",\"sequence\":" + jsonQuote(parsed[i].sequence);
                    list += ",\"text\":" + jsonQuote(parsed[i].text) + "}";
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
