// quorveld --data DIR keeps what it acknowledged: client processes post and
// fetch while the daemon is killed with SIGKILL and started again on the same
// directory, and readers die or stall with answers on their way; every event
// counted.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "client/AvQVLConnection.h"
#include "daemon/CrashLoad.h"
#include "daemon/DaemonProcess.h"
#include "protocol/Names.h"
#include "support/TempDir.h"

using namespace Harness;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

TEST(DaemonCrash, KillNineLosesNothingAcknowledged) {
    TempDir scratch;
    const Strings store{"--data", scratch.path};
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

namespace {

// b fetches through the client library, attempts times at most, until it has
// `want` events (0: all attempts), printing each as crashClient() does; the
// process then ends normally, so the backend acknowledges what it read.
int fetchAsB(std::size_t want, int attempts) {
    Arvant::Net::AvQuorvel::Client::AvQVLConnection connection;
    std::string server = "S", client = "b", locale, text, correlation;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    std::size_t received = 0;
    for (int i = 0; i < attempts && (received < want || want == 0); ++i) {
        connection.getEvents(text, shared, correlation);
        received += CrashDetail::printEvents(text);
        std::this_thread::sleep_for(std::chrono::milliseconds(received < want || !want ? 50 : 0));
    }
    std::exit(0);  // atexit and static destructors included (Child uses _exit)
}

// Asks for b's events over a bare socket, as the HTTP backend does (ack) or as
// a raw call without Quorvel-Ack does, reads nothing of the answer, says
// whether it came whole ("whole") or fills the socket buffers ("stalled"), and
// waits to be killed.
int stalledReader(int port, bool ack) {
    RawConnection connection(port);
    connection.send(exchangeText(asClient("getEvents", "b"), "",
                                 ack ? std::string(Protocol::kAckHeader) + ": 0\r\n" : ""));
    const std::size_t kBuffered = 64 * 1024;
    for (int i = 0; i < 400; ++i) {
        const std::string seen = connection.peek(kBuffered, 5000);
        const std::size_t head = seen.find("\r\n\r\n"), length = seen.find("Content-Length: ");
        const bool whole = head != std::string::npos && length < head &&
                           seen.size() >= head + 4 + std::stoul(seen.substr(length + 16));
        if (whole || seen.size() == kBuffered) {
            std::printf(whole ? "whole\n" : "stalled\n");
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    std::fflush(stdout);
    ::pause();
    return 0;
}

}  // namespace

// A reader's answer is on its way when the reader stalls or dies; b fetching
// again (a fresh process) gets every event once, in order, in the end.
TEST(DaemonRedelivery, AnswersOfDeadOrStalledReadersAreNotLostNorRepeated) {
    const struct {
        const char* name;
        std::size_t size;    // of each text; 256 KiB: 80 far exceed the socket buffers
        int before, during;  // events posted before the reader asks, and while it stalls
        const char* reader;  // what the reader sees before it is killed
        bool ack = true;     // false: the daemon acknowledges what it wrote whole
    } rows[] = {
        {"an answer cut short by its reader's death", 256 * 1024, 80, 0, "stalled\n"},
        {"a raw answer cut short by its reader's death", 256 * 1024, 80, 0, "stalled\n", false},
        {"an answer written whole, its reader killed before reading", 16, 3, 0, "whole\n"},
        {"a stalled reader while newer events come", 256 * 1024, 80, 10, "stalled\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TempDir scratch;
        DaemonProcess daemon({"--data", scratch.path});
        const auto posting = [&](int first, int count) {
            for (int i = first; i < first + count; ++i) {
                std::string text = "a#" + std::to_string(i) + " ";
                text.resize(std::max(row.size, text.size()), static_cast<char>('a' + i % 26));
                ASSERT_EQ(statusOf(exchangeRaw(daemon.port,
                                               exchangeText(asClient("putEvents", "a"), text))),
                          200);
            }
        };
        registerClients(daemon.port, {"b", "a"});
        posting(0, row.before);
        Child reader([&] { return stalledReader(daemon.port, row.ack); });
        waitUntil([&] { return !reader.out().empty() || !reader.running(); }, 30000);
        ASSERT_EQ(reader.out(), row.reader) << reader.err();
        posting(row.before, row.during);
        if (!row.ack) {  // its answer cut short before b asks: nothing may be acknowledged
            reader.signal(SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the reset reaches it
        }
        const std::size_t all = static_cast<std::size_t>(row.before + row.during);
        Child first([&] { return fetchAsB(all, 100); }, {daemon.url()});  // while it stalls (ack)
        EXPECT_EQ(first.wait(60000), 0) << first.err();
        reader.signal(SIGKILL);
        EXPECT_EQ(reader.wait(), -1);
        // The daemon notices the broken connection when its next write fails: a
        // window for anything given back to come, and once more with nothing.
        Child then([&] { return fetchAsB(0, 20); }, {daemon.url()});
        EXPECT_EQ(then.wait(60000), 0) << then.err();
        const auto got = CrashDetail::parseLog(first.out() + then.out()).received;
        EXPECT_EQ(orderFault("b", got), "");
        EXPECT_EQ(got.size(), all);
        EXPECT_EQ(daemon.stop(), 0);
    }
}
