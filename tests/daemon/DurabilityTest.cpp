// quorveld --data DIR keeps what it acknowledged: client processes post and
// fetch while the daemon is killed with SIGKILL and started again on the same
// directory, and readers die or stall with answers on their way; every event
// counted. And a store that cannot write (a file size limit on the daemon) is
// a clear failure that passes when the limit goes.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "client/AvQVLConnection.h"
#include "client/Exception.h"
#include "daemon/CrashLoad.h"
#include "daemon/DaemonProcess.h"
#include "protocol/Names.h"

using namespace Harness;
using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Arvant::Net::AvQuorvel::Client::AvQVLRuntimeException;
using Arvant::Net::AvQuorvel::Client::Exception;
using Clock = std::chrono::steady_clock;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;
using std::chrono::milliseconds;

namespace {

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

}  // namespace

TEST(DaemonCrash, KillNineLosesNothingAcknowledged) {
    Scratch scratch;
    const Strings store{"--data", scratch.path + "/data"};
    auto daemon = std::make_unique<DaemonProcess>(store);
    const int failed = runCrashLoad(CrashLoad{}, daemon->url(), [&] {
        const int port = daemon->port;
        daemon->signal(SIGKILL);
        EXPECT_EQ(daemon->wait(), -1);
        // The clients come back to the same port.
        daemon = std::make_unique<DaemonProcess>(store, Strings{}, port);
        ASSERT_EQ(daemon->port, port);
    });
    EXPECT_GT(failed, 0) << "the kill did not hit";
    EXPECT_EQ(daemon->stop(), 0);
}

// A write the file size limit stops is a Limit failure that names the cause and
// changes nothing; once the limit is raised the same daemon serves again.
TEST(DaemonFullDisk, AStoreThatCannotWriteFailsClearlyAndRecovers) {
    Scratch scratch;
    const std::string data = scratch.path + "/data";
    DaemonProcess daemon({"--data", data});
    const std::string wal = data + "/quorvel.sqlite3-wal";
    // One process per step: a and b registered, then posts of 256 KiB by a.
    auto step = [&](const std::string& what) {
        Child child(
            [&]() -> int {
                AvQVLConnection connection;
                std::string server = "S", client = what == "get" ? "b" : "a", locale, events,
                            correlation;
                std::vector<std::string> shared;
                try {
                    connection.registerClient(server, client, locale, shared);
                    if (what == "get") {
                        connection.getEvents(events, shared, correlation);
                        for (const Delivered& event : scanEvents(events)) {
                            std::printf("#%lu ", event.sequence);
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
                std::fflush(stdout);
                std::exit(0);  // a normal end: the backend acknowledges what it read
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
    EXPECT_EQ(daemon.stop(), 0);
}

namespace {

// Posts "a#first" to "a#(first+count-1)", each padded to size bytes, for b.
int post(int first, int count, std::size_t size) {
    AvQVLConnection connection, reader;
    std::string server = "S", b = "b", a = "a", locale, text, correlation;
    std::vector<std::string> shared;
    reader.registerClient(server, b, locale, shared);
    connection.registerClient(server, a, locale, shared);
    for (int i = first; i < first + count; ++i) {
        text = "a#" + std::to_string(i) + " ";
        text.resize(std::max(size, text.size()), static_cast<char>('a' + i % 26));
        connection.putEvents(text, shared, correlation);
    }
    return 0;
}

// b fetches, attempts times at most, until it has `want` events, printing each
// as crashClient() does; the process then ends normally.
int fetchAsB(std::size_t want, int attempts) {
    AvQVLConnection connection;
    std::string server = "S", client = "b", locale, text, correlation;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    std::size_t received = 0;
    for (int i = 0; i < attempts && (received < want || want == 0); ++i) {
        connection.getEvents(text, shared, correlation);
        for (const Delivered& event : scanEvents(text)) {
            std::printf("E %s %lu %d\n", event.sender.c_str(), event.sequence, event.number);
            ++received;
        }
        std::this_thread::sleep_for(milliseconds(received < want || want == 0 ? 50 : 0));
    }
    std::exit(0);  // a normal end, atexit and static destructors included (Child uses _exit)
}

// Asks for b's events over a bare socket as the HTTP backend does, reads
// nothing of the answer, says whether it came whole ("whole") or fills the
// socket buffers ("stalled"), and waits to be killed.
int stalledReader(int port) {
    RawConnection connection(port);
    connection.send(exchangeText(
        {"Service-Name=AvQVLRequest", "Operation-Name=getEvents", "Server-ID=S", "Client-ID=b"}, "",
        std::string(Protocol::kAckHeader) + ": 0\r\n"));
    const std::size_t kBuffered = 64 * 1024;
    for (int i = 0; i < 400; ++i) {
        const std::string seen = connection.peek(kBuffered, 5000);
        const std::size_t head = seen.find("\r\n\r\n");
        const std::size_t length = seen.find("Content-Length: ");
        if (head != std::string::npos && length < head &&
            seen.size() >= head + 4 + std::stoul(seen.substr(length + 16))) {
            std::printf("whole\n");
            break;
        }
        if (seen.size() == kBuffered) {
            std::printf("stalled\n");
            break;
        }
        std::this_thread::sleep_for(milliseconds(25));
    }
    std::fflush(stdout);
    ::pause();
    return 0;
}

struct Limbo {
    const char* name;
    std::size_t size;    // of each text; 256 KiB: 80 far exceed the socket buffers
    int before, during;  // events posted before the reader asks, and while it stalls
    const char* reader;  // what the reader sees before it is killed
};

}  // namespace

// A reader's answer is on its way when the reader stalls or dies; b fetching
// again (a fresh process) gets every event once, in order, in the end.
TEST(DaemonRedelivery, AnswersOfDeadOrStalledReadersAreNotLostNorRepeated) {
    const Limbo rows[] = {
        {"an answer cut short by its reader's death", 256 * 1024, 80, 0, "stalled\n"},
        {"an answer written whole, its reader killed before reading", 16, 3, 0, "whole\n"},
        {"a stalled reader while newer events come", 256 * 1024, 80, 10, "stalled\n"},
    };
    for (const Limbo& row : rows) {
        SCOPED_TRACE(row.name);
        Scratch scratch;
        DaemonProcess daemon({"--data", scratch.path + "/data"});
        const Strings url{daemon.url()};
        const auto posting = [&](int first, int count) {
            Child poster([&] { return post(first, count, row.size); }, url);
            EXPECT_EQ(poster.wait(60000), 0) << poster.err();
        };
        posting(0, row.before);
        Child reader([&] { return stalledReader(daemon.port); });
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        while (reader.out().empty() && reader.running() && Clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(10));
        }
        ASSERT_EQ(reader.out(), row.reader) << reader.err();
        posting(row.before, row.during);
        const std::size_t all = static_cast<std::size_t>(row.before + row.during);
        Child first([&] { return fetchAsB(all, 100); }, url);  // while the reader stalls
        EXPECT_EQ(first.wait(60000), 0) << first.err();
        reader.signal(SIGKILL);
        EXPECT_EQ(reader.wait(), -1);
        // The daemon notices the broken connection when its next write fails: a
        // window for anything given back to come, and once more with nothing.
        Child then([&] { return fetchAsB(0, 20); }, url);
        EXPECT_EQ(then.wait(60000), 0) << then.err();
        const auto got = CrashDetail::parseLog(first.out() + then.out()).received;
        EXPECT_EQ(orderFault("b", got), "");
        EXPECT_EQ(got.size(), all);
        EXPECT_EQ(daemon.stop(), 0);
    }
}
