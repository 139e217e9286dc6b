#include "tools/Demo.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "tools/EventList.h"
#include "tools/Failure.h"
#include "tools/Listing.h"

namespace Arvant::Net::AvQuorvel::Tools {

using Client::AvQVLConnection;

namespace {

const char* const kLocale = "en-GB";

// The scenario's server. On a daemon it is new to each run, so the demo
// neither meets clients of another run nor leaves its own behind.
std::string scenarioServer = "demo-server";

// One client of the scenario. Every participant's connection lives until the
// end of the demo: the listing of events parses with the XML library, which is
// up only while some connection lives. A participant still registered when the
// demo ends, however it ends, unregisters.
struct Participant {
    std::string name;
    AvQVLConnection connection;
    bool registered = false;

    ~Participant() {
        if (!registered) {
            return;
        }
        try {
            std::vector<std::string> shared;
            connection.unregisterClient(shared);
        } catch (...) {
            describeCurrentException();  // deletes what was thrown as a pointer
        }
    }
};

// The daemon the demo runs on (the transport reads the same variable), or null
// for the service inside this process.
const char* daemonUrl() {
    const char* url = std::getenv("QUORVEL_URL");
    return url != nullptr && *url != '\0' ? url : nullptr;
}

// A C-style literal, so quotes inside the text stay readable.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

void heading(int number, const std::string& title) {
    std::cout << "\n" << number << ". " << title << "\n";
}

void sends(const Participant& who, const std::string& call) {
    std::cout << "  " << who.name << " -> " << call << "\n";
}

void receives(const std::string& what) {
    std::cout << "  <- " << what << "\n";
}

// Runs one step that should succeed; on failure prints it and returns false.
bool attempt(const std::function<void()>& step, int& exitCode) {
    try {
        step();
        return true;
    } catch (...) {
        const Failure failure = describeCurrentException();
        receives("unexpected error: " + failure.describe());
        exitCode = failure.exitCode;
        return false;
    }
}

// One call of `who` that should succeed: says it, runs it, reports a failure.
bool step(const Participant& who, const std::string& call, const std::function<void()>& body,
          int& exitCode) {
    sends(who, call);
    return attempt(body, exitCode);
}

void printEvents(const std::string& events) {
    receives("events document (" + std::to_string(events.size()) + " bytes):");
    std::istringstream lines(events);
    for (std::string line; std::getline(lines, line);) {
        std::cout << "     | " << line << "\n";
    }
    std::vector<Event> parsed;
    parseEventDocument(events, parsed);
    receives("parsed: " + std::to_string(parsed.size()) + " event(s)");
    for (const Event& event : parsed) {
        std::cout << "       #" << event.sequence << " from " << event.sender << ": " << event.text
                  << "\n";
    }
}

bool registerParticipant(Participant& who, int& exitCode) {
    const std::string call = "registerClient(server " + quoted(scenarioServer) + ", client " +
                             quoted(who.name) + ", locale " + quoted(kLocale) + ")";
    return step(
        who, call,
        [&who] {
            std::string server = scenarioServer;
            std::string client = who.name;
            std::string locale = kLocale;
            std::vector<std::string> shared;
            who.connection.registerClient(server, client, locale, shared);
            who.registered = true;
            receives("registered; shared clients: " + joined(shared));
        },
        exitCode);
}

bool postEvent(Participant& who, const std::string& text, const std::string& correlationId,
               int& exitCode) {
    return step(
        who, "putEvents(" + quoted(text) + ", correlation " + quoted(correlationId) + ")",
        [&] {
            std::string events = text;
            std::string id = correlationId;
            std::vector<std::string> shared;
            who.connection.putEvents(events, shared, id);
            receives("posted; shared clients: " + joined(shared));
        },
        exitCode);
}

bool fetchEvents(Participant& who, int& exitCode) {
    const std::string correlationId = "demo.get." + who.name;
    return step(
        who, "getEvents(correlation " + quoted(correlationId) + ")",
        [&] {
            std::string events;
            std::string id = correlationId;
            std::vector<std::string> shared;
            who.connection.getEvents(events, shared, id);
            printEvents(events);
            receives("shared clients: " + joined(shared));
        },
        exitCode);
}

// The status check: the service must echo the status text.
bool checkStatus(Participant& who, int& exitCode) {
    sends(who, "getStatus() with the body \"AvQVL Status check\"");
    int32_t status = -1;
    if (!attempt([&] { status = who.connection.getStatus(); }, exitCode)) {
        return false;
    }
    if (status != 0) {
        receives(std::to_string(status) + " (the service answered with another text)");
        exitCode = kExitServiceFailure;
        return false;
    }
    receives("0 (the service echoed the status text)");
    return true;
}

bool listShared(Participant& who, int& exitCode) {
    return step(
        who, "getSharedClients()",
        [&] {
            std::vector<std::string> shared;
            who.connection.getSharedClients(shared);
            receives("shared clients: " + joined(shared));
        },
        exitCode);
}

bool leave(Participant& who, int& exitCode) {
    std::vector<std::string> shared;
    if (!step(
            who, "unregisterClient()", [&] { who.connection.unregisterClient(shared); },
            exitCode)) {
        return false;
    }
    who.registered = false;
    receives("unregistered; shared clients: " + joined(shared));
    return true;
}

// The last step: a fetch after unregistering must be refused as unregistered.
int fetchAfterLeaving(Participant& bob) {
    heading(7, "bob, no longer registered, tries to fetch");
    sends(bob, "getEvents(correlation \"demo.get.bob\")");
    try {
        std::string events;
        std::string id = "demo.get.bob";
        std::vector<std::string> shared;
        bob.connection.getEvents(events, shared, id);
        receives("unexpected success: the fetch should have been refused");
        return kExitServiceFailure;
    } catch (...) {
        const Failure failure = describeCurrentException();
        if (failure.className != "AvQVLProtocolException" || failure.type != -2) {
            receives("unexpected error: " + failure.describe());
            return failure.exitCode;
        }
        receives("error, as expected: " + failure.describe());
    }
    return kExitOk;
}

}  // namespace

int runDemo() {
    const std::string where = daemonUrl() != nullptr ? std::string("the service at ") + daemonUrl()
                                                     : "the service inside this process";
    if (daemonUrl() != nullptr) {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        scenarioServer =
            "demo-" + std::to_string(::getpid()) + "-" +
            std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    }
    int exitCode = kExitOk;
    Participant alice{"alice", {}};
    Participant bob{"bob", {}};
    Participant carol{"carol", {}};

    std::cout << "Quorvel demo: three clients of server " << quoted(scenarioServer) << " on "
              << where << ".\n";

    heading(1, "Status check (works before registration)");
    if (!checkStatus(alice, exitCode)) {
        return exitCode;
    }

    heading(2, "Three clients register under one server");
    for (Participant* who : {&alice, &bob, &carol}) {
        if (!registerParticipant(*who, exitCode)) {
            return exitCode;
        }
    }

    heading(3, "alice posts two events");
    if (!postEvent(alice, "Build 42 passed", "demo.put.1", exitCode) ||
        !postEvent(alice, "Deploy <eu-west> & \"canary\" started", "demo.put.2", exitCode)) {
        return exitCode;
    }

    heading(4, "bob and carol fetch the events waiting for them");
    if (!fetchEvents(bob, exitCode) || !fetchEvents(carol, exitCode)) {
        return exitCode;
    }

    heading(5, "carol lists the clients sharing the service");
    if (!listShared(carol, exitCode)) {
        return exitCode;
    }

    heading(6, "bob unregisters");
    if (!leave(bob, exitCode)) {
        return exitCode;
    }

    exitCode = fetchAfterLeaving(bob);
    if (exitCode != kExitOk) {
        return exitCode;
    }

    std::cout << "\nDemo finished on " << where
              << ": every step behaved as expected; alice and carol unregister as it ends.\n";
    return kExitOk;
}

}  // namespace Arvant::Net::AvQuorvel::Tools
