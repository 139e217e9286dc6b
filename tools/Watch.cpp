// `quorvel watch`: register, then fetch in a loop and print each event as it
// arrives, until SIGINT or SIGTERM.
//
// Each fetch lets the service hold it for kWatchWaitMs while nothing waits, so
// a service that waits answers as soon as an event is posted and watch sends
// nothing more while idle. A service that does not wait (a daemon without the
// waiting fetch, or at its --max-waiters, or with --max-wait 0) answers an
// empty fetch at once. An empty answer sooner than kWatchNoWaitMs is taken for
// that: a daemon that waits at all waits at least a second, since its
// --max-wait counts seconds. Watch then sleeps between fetches as it always
// did, --interval, doubling up to kWatchMaxIdleFactor times while none come.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <mutex>
#include <thread>
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

// SIGINT and SIGTERM stay blocked in every thread, and a thread of their own
// takes them. Between fetches a stop ends the loop, which leaves the way it
// always did (unregistering with --unregister; the transport acknowledging
// what was read as the process ends). During a fetch the service may hold it
// for the whole wait and nothing cuts an exchange short, so the stop runs
// `stopNow` on the signal thread, which ends the process: what was printed is
// already acknowledged, by the very request in flight, and that request's own
// answer, never read, comes again to the next fetch of the client.
class Stopper {
public:
    Stopper() {
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, &previous);
    }
    ~Stopper() {
        if (taker.joinable()) {
            {
                std::lock_guard<std::mutex> hold(mutex);
                finished = true;
            }
            pthread_kill(taker.native_handle(), SIGTERM);  // wakes its sigwait
            taker.join();
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }
    Stopper(const Stopper&) = delete;
    Stopper& operator=(const Stopper&) = delete;

    // stopNow must not return; what it uses must live while a Fetch does.
    void start(std::function<void()> stopNow) {
        taker = std::thread([this, stopNow] {
            for (;;) {
                int signal = 0;
                sigwait(&set, &signal);
                std::lock_guard<std::mutex> hold(mutex);
                if (finished) {
                    return;
                }
                stopped = true;
                if (fetching) {
                    stopNow();
                }
                woken.notify_all();
            }
        });
    }

    // Marks the scope of one fetch; begun() is false when a stop came first.
    class Fetch {
    public:
        explicit Fetch(Stopper& stopper) : stopper(stopper) {
            std::lock_guard<std::mutex> hold(stopper.mutex);
            stopper.fetching = !stopper.stopped;
        }
        ~Fetch() {
            std::lock_guard<std::mutex> hold(stopper.mutex);
            stopper.fetching = false;
        }
        bool begun() const { return stopper.fetching; }  // read by this thread only

    private:
        Stopper& stopper;
    };

    // Sleeps up to ms; true when a stop came (now or before).
    bool sleep(int ms) {
        std::unique_lock<std::mutex> hold(mutex);
        return woken.wait_for(hold, std::chrono::milliseconds(ms), [this] { return stopped; });
    }

private:
    sigset_t set;
    sigset_t previous;
    std::thread taker;
    std::mutex mutex;  // guards the three flags
    std::condition_variable woken;
    bool stopped = false;
    bool fetching = false;
    bool finished = false;
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

// Prints the events of a fetch; returns how many there were.
std::size_t printEvents(const Options& options, const std::string& document) {
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
            std::cout << "#" << event.sequence << " from " << event.sender << ": " << event.text
                      << "\n";
        }
    }
    flushOrThrow();
    return events.size();
}

}  // namespace

int runWatch(const Options& options, const WatchSettings& settings) {
    Stopper stopper;
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
        // The connection is busy during a fetch: a stop then unregisters on a copy.
        AvQVLConnection spare(connection);
        stopper.start([&] {
            std::_Exit(guarded("watch", options, [&] {
                std::vector<std::string> remaining;
                if (settings.unregisterOnExit) {
                    spare.unregisterClient(remaining);
                }
                flushOrThrow();
                return kExitOk;
            }));
        });
        const int interval = std::max(1, settings.intervalMs);
        int idleWait = interval;
        for (;;) {
            std::string document;
            const auto asked = std::chrono::steady_clock::now();
            {
                Stopper::Fetch fetch(stopper);
                if (!fetch.begun()) {
                    break;
                }
                std::string correlationId = options.correlationId;
                connection.waitForEvents(document, shared, correlationId,
                                         std::chrono::milliseconds(kWatchWaitMs));
            }
            const bool waited = std::chrono::steady_clock::now() - asked >=
                                std::chrono::milliseconds(kWatchNoWaitMs);
            if (printEvents(options, document) > 0 || waited) {
                idleWait = interval;
                continue;
            }
            // The service did not wait: poll, backing off while idle.
            const int next = idleWait;
            idleWait = std::min(idleWait * 2, interval * kWatchMaxIdleFactor);
            if (stopper.sleep(next)) {
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
