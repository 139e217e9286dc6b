#include "tools/Commands.h"

#include <chrono>
#include <iostream>
#include <sstream>
#include <vector>

#include "client/AvQVLConnection.h"
#include "tools/EventList.h"
#include "tools/Input.h"
#include "tools/Listing.h"
#include "tools/Report.h"
#include "tools/SharedClients.h"
#include "util/XMLNode.h"

namespace Arvant::Net::AvQuorvel::Tools {

using Client::AvQVLConnection;

namespace {

void printSharedClients(const std::vector<std::string>& clients) {
    std::cout << "shared clients (" << clients.size() << "): " << joined(clients) << "\n";
}

void registerAs(AvQVLConnection& connection, const Options& options, bool say) {
    std::string server = options.server;
    std::string client = options.client;
    std::string locale = options.locale;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    if (say && !options.json) {
        std::cout << "registered client \"" << client << "\" with server \"" << server << "\"\n";
    }
}

Json identityJson(const char* command, const Options& options) {
    Json result = resultJson(command, true);
    result["server"] = options.server;
    result["client"] = options.client;
    result["locale"] = options.locale;
    return result;
}

// The lines of `text` (a '\r' before the '\n' dropped, empty lines skipped),
// each checked before any is posted.
std::vector<std::string> checkedLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::uint64_t offset = 0;
    std::uint64_t number = 0;
    for (std::string line; std::getline(in, line);) {
        const std::uint64_t length = line.size() + 1;
        checkLocalText(line, ("line " + std::to_string(++number) + " of TEXT").c_str(), offset);
        offset += length;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace

void checkIdentity(const Options& options) {
    checkLocalText(options.server, options.serverArgument);
    checkLocalText(options.client, options.clientArgument);
    checkLocalText(options.locale, "--locale");
}

int runStatus(const Options& options) {
    return guarded("status", options, [&options] {
        checkIdentity(options);
        AvQVLConnection connection;
        const int32_t status = connection.getStatus();
        const bool ok = status == 0;
        // Asked about a client: the server's listing answers without adding
        // the client to it, which registering would.
        bool registered = false;
        if (ok && !options.server.empty()) {
            std::vector<std::string> shared;
            listSharedClients(options.server, options.client, shared);
            for (const std::string& client : shared) {
                registered = registered || client == options.client;
            }
        }
        if (options.json) {
            Json result = resultJson("status", ok);
            result["status"] = status;
            if (ok && !options.server.empty()) {
                result["server"] = options.server;
                result["client"] = options.client;
                result["registered"] = registered;
            }
            std::cout << dumpJson(result) << "\n";
        } else if (ok) {
            std::cout << "status: 0 (the service echoed the status text)\n";
            if (!options.server.empty()) {
                std::cout << "client \"" << options.client << "\" is " << (registered ? "" : "not ")
                          << "registered with server \"" << options.server << "\"\n";
            }
        } else {
            std::cout << "status: " << status << " (the service answered with another text)\n";
        }
        return ok ? kExitOk : kExitServiceFailure;
    });
}

int runRegister(const Options& options) {
    return guarded("register", options, [&options] {
        checkIdentity(options);
        AvQVLConnection connection;
        std::string server = options.server;
        std::string client = options.client;
        std::string locale = options.locale;
        std::vector<std::string> shared;
        connection.registerClient(server, client, locale, shared);
        if (options.json) {
            Json result = identityJson("register", options);
            result["sharedClients"] = shared;
            std::cout << dumpJson(result) << "\n";
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
        checkIdentity(options);
        AvQVLConnection connection;
        registerAs(connection, options, true);
        std::vector<std::string> shared;
        connection.unregisterClient(shared);
        if (options.json) {
            Json result = identityJson("unregister", options);
            result["sharedClients"] = shared;
            std::cout << dumpJson(result) << "\n";
        } else {
            std::cout << "unregistered\n";
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

int runClients(const Options& options) {
    return guarded("clients", options, [&options] {
        checkIdentity(options);
        AvQVLConnection connection;  // keeps the XML library up for the listing
        std::vector<std::string> shared;
        listSharedClients(options.server, options.client, shared);
        if (options.json) {
            Json result = identityJson("clients", options);
            result["sharedClients"] = shared;
            std::cout << dumpJson(result) << "\n";
        } else {
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

int runPut(const Options& options, const PutInput& input) {
    return guarded("put", options, [&options, &input] {
        checkIdentity(options);
        const char* const what = input.standardInput ? "standard input" : "TEXT";
        std::vector<std::string> texts;  // what is posted, when known before connecting
        if (!input.standardInput) {
            texts = input.lines ? checkedLines(input.text) : std::vector<std::string>{input.text};
            if (!input.lines) {
                checkLocalText(input.text, what);
            }
        } else if (!input.lines) {
            texts.push_back(readStandardInput());
            checkLocalText(texts.back(), what);
        }
        AvQVLConnection connection;
        registerAs(connection, options, true);
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
        for (const std::string& text : texts) {
            post(text);
        }
        if (input.standardInput && input.lines) {
            LineReader reader;
            for (std::string line; reader.next(line);) {
                const std::string where =
                    "line " + std::to_string(reader.lineNumber()) + " of " + what;
                checkLocalText(line, where.c_str(), reader.lineOffset());
                if (!line.empty()) {
                    post(line);
                }
            }
        }
        if (options.json) {
            Json result = identityJson("put", options);
            result["correlationId"] = correlationId;
            if (input.lines) {
                result["events"] = events;
            }
            result["bytes"] = bytes;
            result["sharedClients"] = shared;
            std::cout << dumpJson(result) << "\n";
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

namespace {

void printEvents(const std::string& events, bool readable, const std::vector<Event>& parsed) {
    std::cout << "events document (" << events.size() << " bytes):\n";
    std::istringstream lines(events);
    for (std::string line; std::getline(lines, line);) {
        std::cout << "  | " << line << "\n";
    }
    if (!readable) {
        std::cout << "events: not an events document, shown raw only\n";
        return;
    }
    std::cout << "events (" << parsed.size() << "):" << (parsed.empty() ? " none" : "") << "\n";
    for (const Event& event : parsed) {
        std::cout << "  #" << event.sequence << " from " << event.sender << ": " << event.text
                  << "\n";
    }
}

}  // namespace

int runGet(const Options& options, int waitMs) {
    return guarded("get", options, [&options, waitMs] {
        checkIdentity(options);
        AvQVLConnection connection;
        registerAs(connection, options, true);
        std::string events;
        std::string correlationId = options.correlationId;
        std::vector<std::string> shared;
        if (waitMs < 0) {
            connection.getEvents(events, shared, correlationId);
        } else {
            connection.waitForEvents(events, shared, correlationId,
                                     std::chrono::milliseconds(waitMs));
        }
        // The raw text is the result; the listing is a reading aid. The library
        // treats events as opaque, so a text that is not an events document is
        // still printed, only without the listing.
        std::vector<Event> parsed;
        bool readable = true;
        try {
            parseEventDocument(events, parsed);
        } catch (const Util::DomException&) {
            readable = false;
        }
        if (options.json) {
            Json list = nullptr;
            if (readable) {
                list = Json::array();
                for (const Event& event : parsed) {
                    list.push_back(eventJson(event));
                }
            }
            Json result = identityJson("get", options);
            result["correlationId"] = correlationId;
            result["raw"] = events;
            result["events"] = list;
            result["sharedClients"] = shared;
            std::cout << dumpJson(result) << "\n";
        } else {
            printEvents(events, readable, parsed);
            printSharedClients(shared);
        }
        return kExitOk;
    });
}

}  // namespace Arvant::Net::AvQuorvel::Tools
