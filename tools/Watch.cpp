// `quorvel watch`: register, then fetch in a loop and print each event as it
// arrives, until SIGINT or SIGTERM.
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <vector>

#include "client/AvQVLConnection.h"
#include "tools/Commands.h"
#include "tools/EventList.h"
#include "tools/Failure.h"
#include "tools/Report.h"
#include "util/XMLNode.h"

namespace Arvant::Net::AvQuorvel::Tools {

using Client::AvQVLConnection;

namespace {

// SIGINT and SIGTERM stay blocked and are taken with sigtimedwait between two
// fetches: a signal never interrupts an exchange half-way, and the wait for the
// next fetch ends as soon as one arrives.
class StopSignals {
public:
    StopSignals() {
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigprocmask(SIG_BLOCK, &set, &previous);
    }
    ~StopSignals() { sigprocmask(SIG_SETMASK, &previous, nullptr); }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Waits up to timeoutMs; true when a stop signal arrived (now or before).
    bool wait(int timeoutMs) {
        timespec timeout{timeoutMs / 1000, static_cast<long>(timeoutMs % 1000) * 1000000L};
        for (;;) {
            const int taken = sigtimedwait(&set, nullptr, &timeout);
            if (taken == SIGINT || taken == SIGTERM) {
                return true;
            }
            if (taken < 0 && errno == EAGAIN) {
                return false;
            }
            // EINTR: another signal with a handler; the remaining time is not
            // reported, so waiting the whole interval again is the cost.
        }
    }

private:
    sigset_t set;
    sigset_t previous;
};

// Throws ToolError (kExitInternal) when standard output is gone, so a watch
// whose reader has stopped ends instead of fetching events no one sees.
void flushOrThrow() {
    errno = 0;
    std::cout.flush();
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        throw ToolError(kExitInternal, "IOError",
                        std::string("cannot write standard output: ") +
                            std::strerror(errno != 0 ? errno : EIO));
    }
}

}  // namespace

int runWatch(const Options& options, const WatchSettings& settings) {
    StopSignals signals;
    return guarded("watch", options, [&] {
        checkIdentity(options);
        AvQVLConnection connection;
        std::string server = options.server;
        std::string client = options.client;
        std::string locale = options.locale;
        std::vector<std::string> shared;
        connection.registerClient(server, client, locale, shared);
        if (!options.json) {
            std::cout << "watching as client \"" << client << "\" of server \"" << server
                      << "\" (Ctrl-C stops)\n";
            flushOrThrow();
        }
        const int interval = std::max(1, settings.intervalMs);
        int idleWait = interval;
        while (!signals.wait(0)) {
            std::string document;
            std::string correlationId = options.correlationId;
            connection.getEvents(document, shared, correlationId);
            std::vector<Event> events;
            try {
                parseEventDocument(document, events);
            } catch (const Util::DomException&) {
                // Not an events document: the text is the event.
                events.push_back(Event{"", "", document});
            }
            for (const Event& event : events) {
                if (options.json) {
                    std::cout << dumpJson(eventJson(event)) << "\n";
                } else {
                    std::cout << "#" << event.sequence << " from " << event.sender << ": "
                              << event.text << "\n";
                }
            }
            flushOrThrow();
            // Back off while idle, back to the interval as soon as events come.
            const int next = events.empty() ? idleWait : interval;
            idleWait =
                events.empty() ? std::min(idleWait * 2, interval * kWatchMaxIdleFactor) : interval;
            if (signals.wait(next)) {
                break;
            }
        }
        if (settings.unregisterOnExit) {
            connection.unregisterClient(shared);
        }
        return kExitOk;
    });
}

}  // namespace Arvant::Net::AvQuorvel::Tools
