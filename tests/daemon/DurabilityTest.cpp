// quorveld --data DIR keeps what it acknowledged: 16 client processes post and
// fetch while the daemon is killed with SIGKILL and started again on the same
// directory; every event counted. And a store that cannot write (a file size
// limit on the daemon) is a clear failure that passes when the limit goes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "daemon/DaemonHarness.h"
#include "wire/HttpWire.h"

using namespace Harness;
using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::AvQVLRuntimeException;
using Arvant::Net::AvQuorvel::Client::Exception;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

const int kClients = 16;
const int kPostsPerClient = 160;

// A scratch directory, removed with everything in it.
struct Scratch {
    Scratch() {
        char pattern[] = "/tmp/quorveld-data-XXXXXX";
        path = ::mkdtemp(pattern) != nullptr ? pattern : "";
        EXPECT_NE(path, "");
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

// quorveld on loopback keeping its state in dataDir; port 0 picks a free one.
class Daemon : public Child {
public:
    Daemon(const std::string& dataDir, int port = 0)
        : Child(program({QUORVELD_BINARY, "--quiet", "--data", dataDir, "--listen",
                         "127.0.0.1:" + std::to_string(port)})) {
        char newline = 0;
        for (int i = 0; i < 2000 && newline != '\n' && running(); ++i) {
            std::this_thread::sleep_for(milliseconds(5));
            std::sscanf(out().c_str(), "quorveld listening on 127.0.0.1:%d%c", &this->port,
                        &newline);
        }
        EXPECT_EQ(newline, '\n') << "quorveld did not start: " << err();
    }
    std::string url() const { return "QUORVEL_URL=http://127.0.0.1:" + std::to_string(port); }
    int port = 0;
};

bool exists(const std::string& path) {
    return std::filesystem::exists(path);
}

// A client of the crash test. It registers, waits for its peers, then posts its
// events "cN#i" in order, fetching now and then; a call that fails (the daemon
// is down) is not repeated. Each line it prints is one fact for the checker:
//   P i ok | P i unsure        a post acknowledged, or failed (maybe applied)
//   F                           a fetch failed: its events may be lost
//   E sender sequence number    an event received
//   posted                      all posts made
// Once drainFlag exists it fetches until nothing is left.
int crashClient(std::string client, const std::string& drainFlag) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // the test reads progress as it comes
    AvQVLConnection connection;
    std::string server = "S", locale, events, correlation;
    std::vector<std::string> shared;
    const auto deadline = Clock::now() + std::chrono::seconds(150);
    // A daemon slow to answer (sanitizers, a busy machine) is asked again.
    for (bool registered = false; !registered && Clock::now() < deadline;) {
        try {
            connection.registerClient(server, client, locale, shared);
            registered = true;
        } catch (const Exception& e) {
            std::fprintf(stderr, "register: %s\n", e.getMessage().c_str());
            std::this_thread::sleep_for(milliseconds(50));
        }
    }
    while (shared.size() < static_cast<std::size_t>(kClients) && Clock::now() < deadline) {
        shared.clear();
        try {
            connection.getSharedClients(shared);
        } catch (Exception* e) {  // how getSharedClients reports the service's failures
            delete e;
        } catch (const Exception&) {  // and the transport's, by value
            std::this_thread::sleep_for(milliseconds(50));
        }
    }
    // True when the fetch worked and brought something.
    auto fetch = [&]() {
        try {
            connection.getEvents(events, shared, correlation);
        } catch (const Exception&) {
            std::printf("F\n");
            std::this_thread::sleep_for(milliseconds(10));
            return true;  // not known to be empty
        }
        // Each event reads <ns0:event sender="cS" sequence="Q">cS#N</ns0:event>;
        // a scan, not a regular expression, which is slow under the sanitizers.
        bool any = false;
        const std::string mark = "sender=\"";
        for (std::size_t at = events.find(mark); at != std::string::npos;
             at = events.find(mark, at + 1)) {
            unsigned sender = 0, number = 0;
            unsigned long sequence = 0;
            const std::string piece = events.substr(at, 80);  // sscanf measures its input
            if (std::sscanf(piece.c_str(), "sender=\"c%u\" sequence=\"%lu\">c%*u#%u<", &sender,
                            &sequence, &number) == 3) {
                std::printf("E c%u %lu %u\n", sender, sequence, number);
                any = true;
            }
        }
        return any;
    };
    for (int i = 0; i < kPostsPerClient && Clock::now() < deadline; ++i) {
        std::string text = client + "#" + std::to_string(i);
        try {
            connection.putEvents(text, shared, correlation);
            std::printf("P %d ok\n", i);
        } catch (const Exception&) {
            std::printf("P %d unsure\n", i);
            // The daemon is likely down: leave it time to come back before
            // this client runs out of posts.
            std::this_thread::sleep_for(milliseconds(50));
        }
        if (i % 8 == 7) {
            fetch();
        }
    }
    std::printf("posted\n");
    while (!exists(drainFlag) && Clock::now() < deadline) {
        fetch();
        std::this_thread::sleep_for(milliseconds(20));
    }
    while (fetch() && Clock::now() < deadline) {
    }
    return Clock::now() < deadline ? 0 : 1;
}

// What one client printed.
struct Log {
    std::set<int> acked, unsure;
    bool posted = false;
    // In arrival order: received events, and -1 entries for failed fetches.
    struct Entry {
        int sender = -1;  // -1: a failed fetch
        long sequence = 0;
        int number = 0;
    };
    std::vector<Entry> entries;
};

Log parse(const std::string& text) {
    Log log;
    std::istringstream lines(text);
    std::string kind;
    while (lines >> kind) {
        if (kind == "P") {
            int number;
            std::string outcome;
            lines >> number >> outcome;
            (outcome == "ok" ? log.acked : log.unsure).insert(number);
        } else if (kind == "F") {
            log.entries.push_back({});
        } else if (kind == "E") {
            std::string sender;
            Log::Entry entry;
            lines >> sender >> entry.sequence >> entry.number;
            entry.sender = std::stoi(sender.substr(1));
            log.entries.push_back(entry);
        } else if (kind == "posted") {
            log.posted = true;
        }
    }
    return log;
}

int progress(const std::vector<std::unique_ptr<Child>>& clients) {
    int acked = 0;
    for (const auto& client : clients) {
        acked += static_cast<int>(parse(client->out()).acked.size());
    }
    return acked;
}

}  // namespace

TEST(DaemonCrash, KillNineLosesNothingAcknowledged) {
    Scratch scratch;
    const std::string data = scratch.path + "/data", drainFlag = scratch.path + "/drain";
    auto daemon = std::make_unique<Daemon>(data);
    const int port = daemon->port;
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < kClients; ++i) {
        const auto body = [i, drainFlag] {
            return crashClient("c" + std::to_string(i), drainFlag);
        };
        clients.push_back(std::make_unique<Child>(body, Strings{daemon->url()}));
    }
    // Kill the daemon once about a third of the posts are acknowledged.
    const auto deadline = Clock::now() + std::chrono::seconds(120);
    while (progress(clients) < kClients * kPostsPerClient / 3 && Clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(20));
    }
    const int ackedBeforeKill = progress(clients);
    daemon->signal(SIGKILL);
    EXPECT_EQ(daemon->wait(), -1);
    daemon = std::make_unique<Daemon>(data, port);  // the clients come back to the same port
    ASSERT_EQ(daemon->port, port);

    for (int i = 0; i < kClients && Clock::now() < deadline; ++i) {
        while (!parse(clients[i]->out()).posted && Clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(20));
        }
    }
    std::fclose(std::fopen(drainFlag.c_str(), "w"));
    std::vector<Log> logs;
    for (auto& client : clients) {
        EXPECT_EQ(client->wait(150000), 0) << client->err();
        logs.push_back(parse(client->out()));
    }
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(10000), 0);

    int acked = 0, unsure = 0, delivered = 0, lostInFailedFetches = 0;
    for (const Log& log : logs) {
        acked += static_cast<int>(log.acked.size());
        unsure += static_cast<int>(log.unsure.size());
        // The last post worked without registering again: registrations survived.
        EXPECT_TRUE(log.acked.count(kPostsPerClient - 1));
    }
    EXPECT_GT(ackedBeforeKill, 0);
    EXPECT_LT(ackedBeforeKill, acked) << "the kill came before the end of the load";
    for (int r = 0; r < kClients; ++r) {
        SCOPED_TRACE("recipient c" + std::to_string(r));
        const auto& entries = logs[r].entries;
        long lastSequence = 0;
        std::map<int, int> lastNumber;                 // sender -> its last number received
        std::map<int, std::map<int, int>> receivedAt;  // sender -> number -> entry index
        for (std::size_t e = 0; e < entries.size(); ++e) {
            const Log::Entry& entry = entries[e];
            if (entry.sender < 0) {
                continue;
            }
            ++delivered;
            // Sequences only grow, across the restart too: no duplicate, no restart at 1.
            EXPECT_GT(entry.sequence, lastSequence);
            lastSequence = entry.sequence;
            EXPECT_NE(entry.sender, r);
            auto last = lastNumber.find(entry.sender);
            EXPECT_TRUE(last == lastNumber.end() || entry.number > last->second)
                << "c" << entry.sender << "#" << entry.number << " out of order";
            lastNumber[entry.sender] = entry.number;
            const Log& sender = logs[entry.sender];
            EXPECT_TRUE(sender.acked.count(entry.number) || sender.unsure.count(entry.number))
                << "c" << entry.sender << "#" << entry.number << " was never posted";
            receivedAt[entry.sender][entry.number] = static_cast<int>(e);
        }
        // An acknowledged event that did not arrive can only have been in the
        // answer of a fetch that failed: one between its neighbours from the
        // same sender.
        for (int s = 0; s < kClients; ++s) {
            if (s == r) {
                continue;
            }
            const auto& got = receivedAt[s];
            for (int number : logs[s].acked) {
                if (got.count(number)) {
                    continue;
                }
                auto after = got.upper_bound(number);
                const int from = after == got.begin() ? 0 : std::prev(after)->second;
                const int to =
                    after == got.end() ? static_cast<int>(entries.size()) : after->second;
                bool failedFetch = false;
                for (int e = from; e < to && !failedFetch; ++e) {
                    failedFetch = entries[e].sender < 0;
                }
                EXPECT_TRUE(failedFetch) << "acknowledged c" << s << "#" << number << " lost";
                ++lostInFailedFetches;
            }
        }
    }
    std::printf(
        "acknowledged %d posts (%d before the kill), %d unsure; %d deliveries, %d lost "
        "with answers cut by the kill\n",
        acked, ackedBeforeKill, unsure, delivered, lostInFailedFetches);
}

// A write the file size limit stops is a Limit failure that names the cause and
// changes nothing; once the limit is raised the same daemon serves again.
TEST(DaemonFullDisk, AStoreThatCannotWriteFailsClearlyAndRecovers) {
    Scratch scratch;
    const std::string data = scratch.path + "/data";
    Daemon daemon(data);
    const std::string wal = data + "/quorvel.sqlite3-wal";
    // One process per step: a and b registered, then posts of 256 KiB by a.
    auto step = [&](const std::string& what) {
        Child child(
            [&] {
                AvQVLConnection connection;
                std::string server = "S", client = what == "get" ? "b" : "a", locale, events,
                            correlation;
                std::vector<std::string> shared;
                try {
                    connection.registerClient(server, client, locale, shared);
                    if (what == "get") {
                        connection.getEvents(events, shared, correlation);
                        // Each event's number ("sequence=" is followed by digits).
                        const std::string mark = "sequence=\"";
                        for (std::size_t at = events.find(mark); at != std::string::npos;
                             at = events.find(mark, at + 1)) {
                            const std::size_t from = at + mark.size();
                            std::printf("#%s ",
                                        events.substr(from, events.find('"', from) - from).c_str());
                        }
                    } else if (what == "put") {
                        events.assign(256 * 1024, 'x');
                        connection.putEvents(events, shared, correlation);
                        std::printf("posted");
                    }
                } catch (const AvQVLRuntimeException& e) {
                    std::printf("limit: %s", e.getMessage().c_str());
                } catch (const Exception& e) {
                    std::printf("failed: %s", e.getMessage().c_str());
                }
                return 0;
            },
            Strings{daemon.url()});
        EXPECT_EQ(child.wait(), 0);
        return child.out();
    };
    step("get");  // registers b
    EXPECT_EQ(step("put"), "posted");
    EXPECT_EQ(step("get"), "#1 ");

    // Files of the daemon may grow to the size they have now, and no further.
    const rlim_t size = std::filesystem::file_size(wal);
    // The soft limit only: lowering and raising it needs no privilege.
    struct rlimit free = {}, tight = {};
    ASSERT_EQ(::prlimit(daemon.id(), RLIMIT_FSIZE, nullptr, &free), 0);
    tight = {size, free.rlim_max};
    ASSERT_EQ(::prlimit(daemon.id(), RLIMIT_FSIZE, &tight, nullptr), 0);
    for (int i = 0; i < 3; ++i) {
        const std::string refused = step("put");
        EXPECT_EQ(refused.rfind("limit: The Quorvel service could not queue the event: its store "
                                "failed (",
                                0),
                  0u)
            << refused;
        EXPECT_NE(refused.find("disk I/O error"), std::string::npos) << refused;
    }
    EXPECT_EQ(step("get"), "");  // reading still works
    ASSERT_EQ(::prlimit(daemon.id(), RLIMIT_FSIZE, &free, nullptr), 0);
    EXPECT_EQ(step("put"), "posted");
    EXPECT_EQ(step("get"), "#2 ");  // none of the refused ones, and no number used up
    EXPECT_TRUE(daemon.running());
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(10000), 0);
}

// A client killed while a large getEvents answer is on its way: the daemon sees
// the connection break before the answer's end and gives the events back, so
// the next getEvents answers every one of them, in order.
TEST(DaemonRedelivery, EventsOfAnAnswerCutShortComeBack) {
    Scratch scratch;
    Daemon daemon(scratch.path + "/data");
    const int events = 80;  // of 256 KiB: 20 MiB, far more than the socket buffers hold
    Child poster(
        [&] {
            AvQVLConnection connection;
            std::string server = "S", reader = "b", poster = "a", locale, text, correlation;
            std::vector<std::string> shared;
            {
                AvQVLConnection readerConnection;
                readerConnection.registerClient(server, reader, locale, shared);
            }
            connection.registerClient(server, poster, locale, shared);
            for (int i = 0; i < events; ++i) {
                text.assign(256 * 1024, static_cast<char>('a' + i % 26));
                connection.putEvents(text, shared, correlation);
            }
            return 0;
        },
        Strings{daemon.url()});
    ASSERT_EQ(poster.wait(60000), 0) << poster.err();

    // Asks for b's events over a bare socket, reads the first bytes of the
    // answer, says so, and waits to be killed.
    Child reader([&] {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(daemon.port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            return 1;
        }
        namespace Wire = Arvant::Net::AvQuorvel::Wire;
        std::string request = std::string("POST ") + Wire::kExchangePath +
                              " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n";
        for (const auto& field :
             {std::make_pair("Service-Name", "AvQVLRequest"),
              std::make_pair("Operation-Name", "getEvents"), std::make_pair("Server-ID", "S"),
              std::make_pair("Client-ID", "b")}) {
            request += std::string(Wire::kFieldHeaderName) + ": " +
                       Wire::encodeField(field.first, field.second) + "\r\n";
        }
        request += "\r\n";
        if (::write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
            return 2;
        }
        char head[1024];
        if (::read(fd, head, sizeof head) <= 0) {
            return 3;
        }
        std::printf("reading\n");
        std::fflush(stdout);
        ::pause();
        return 0;
    });
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (reader.out().find("reading") == std::string::npos && reader.running() &&
           Clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    ASSERT_NE(reader.out().find("reading"), std::string::npos) << reader.err();
    reader.signal(SIGKILL);
    EXPECT_EQ(reader.wait(), -1);

    // The daemon notices the broken connection when its next write fails; a
    // fetch may come first and find nothing, so fetch until all have come back.
    std::string numbers;
    for (int attempt = 0; attempt < 100 && numbers.empty(); ++attempt) {
        Child fetch(
            [&] {
                AvQVLConnection connection;
                std::string server = "S", client = "b", locale, text, correlation;
                std::vector<std::string> shared;
                connection.registerClient(server, client, locale, shared);
                connection.getEvents(text, shared, correlation);
                const std::string mark = "sequence=\"";
                for (std::size_t at = text.find(mark); at != std::string::npos;
                     at = text.find(mark, at + 1)) {
                    const std::size_t from = at + mark.size();
                    std::printf("%s ", text.substr(from, text.find('"', from) - from).c_str());
                }
                return 0;
            },
            Strings{daemon.url()});
        EXPECT_EQ(fetch.wait(60000), 0) << fetch.err();
        numbers = fetch.out();
        if (numbers.empty()) {
            std::this_thread::sleep_for(milliseconds(50));
        }
    }
    std::string expected;
    for (int i = 1; i <= events; ++i) {
        expected += std::to_string(i) + " ";
    }
    EXPECT_EQ(numbers, expected);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(10000), 0);
}
