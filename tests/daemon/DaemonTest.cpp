// quorveld as a program, with clients as separate processes: its command line
// and exit codes, the operators' token files, expiry and store bound, and the
// waiting fetch with the graceful stop that SIGTERM starts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "daemon/DaemonProcess.h"
#include "support/TempDir.h"

using namespace Harness;
using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Its command line and exit codes, and the operators' files: a token file
// others may read is named in the log, a store directory the daemon makes is
// its owner's alone, and the store in use is named at start.
TEST(DaemonTest, TheProgramChecksItsCommandLineAndFiles) {
    TempDir dir;
    const std::string tokenFile = dir.file("token", "s3rvice\n");
    const std::string adminFile = dir.file("admin", "adm1n\n");
    ::chmod(tokenFile.c_str(), 0644);
    ::chmod(adminFile.c_str(), 0600);
    const std::string data = dir.path + "/made/data";
    DaemonProcess first(
        {"--token-file", tokenFile, "--admin-token-file", adminFile, "--data", data});
    const std::string any = "--listen=127.0.0.1:0",
                      busy = "127.0.0.1:" + std::to_string(first.port);
    const struct {
        Strings args;
        int code;
        std::string says;
    } table[] = {
        {{"--listen=nohost"}, 2, "nohost"},
        {{"--listen=127.0.0.1:65536"}, 2, "65536"},
        {{any, "--workers=0"}, 2, "workers"},
        {{"--listen", busy}, 1, "address already in use"},
        {{any, "--token-file", dir.file("missing")}, 1, dir.file("missing")},
        {{any, "--token-file", dir.file("empty", "\n")}, 1, dir.file("empty")},
    };
    for (const auto& row : table) {
        Strings argv{QUORVELD_BINARY};
        argv.insert(argv.end(), row.args.begin(), row.args.end());
        const Result result = run(argv);
        EXPECT_EQ(result.code, row.code) << row.args[0];
        EXPECT_THAT(result.err, HasSubstr(row.says));
    }
    EXPECT_EQ(statusOf(getRaw(first.port, "/healthz")), 200) << "the first one serves on";
    EXPECT_EQ(first.stop(), 0);
    EXPECT_THAT(first.err(), AllOf(HasSubstr("the token file " + tokenFile + " has mode 0644"),
                                   Not(HasSubstr(adminFile + " has mode")),
                                   HasSubstr(", store SQLite " + data)));
    struct stat made {};
    ASSERT_EQ(::stat(data.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777, 0700u);
}

// A getEvents of client in server S, waiting wait ms when given.
std::string fetch(const std::string& client, const std::string& wait = "") {
    Strings fields = asClient("getEvents", client);
    if (!wait.empty()) {
        fields.push_back("Wait-Milliseconds=" + wait);
    }
    return exchangeText(fields);
}

// A fetch that waits is answered at once when an event waits, when one is
// posted, or empty at its time; one past --max-waiters is answered at once; a
// waiter that hangs up takes nothing. SIGTERM answers the waiters and lets an
// exchange under way finish, then the daemon exits.
TEST(DaemonTest, WaitingFetchesEndWithAPostTheirTimeOrTheDaemon) {
    DaemonProcess daemon({"--max-waiters=1"});
    const auto send = [&](const std::string& text) { return exchangeRaw(daemon.port, text); };
    const auto post = [&](const std::string& text) {
        EXPECT_EQ(statusOf(send(exchangeText(asClient("putEvents", "a"), text))), 200);
    };
    const auto settle = [] { std::this_thread::sleep_for(milliseconds(200)); };
    const auto empty = AllOf(StartsWith("HTTP/1.1 200"), Not(HasSubstr("<ns0:event ")));
    registerClients(daemon.port, {"a", "b", "c"});
    post("e1");
    EXPECT_THAT(send(fetch("b", "20000")), HasSubstr(">e1<"));
    RawConnection waiting(daemon.port);
    waiting.send(fetch("b", "20000"));
    settle();
    EXPECT_THAT(send(fetch("c", "20000")), HasSubstr(">e1<"));  // an event waits
    EXPECT_THAT(send(fetch("c", "20000")), empty);              // past --max-waiters
    EXPECT_THAT(getRaw(daemon.port, "/metrics"),
                AllOf(HasSubstr("\nquorveld_waiting_requests 1\n"),
                      HasSubstr("\nquorveld_waits_refused_total 1\n")));
    post("e2");
    EXPECT_THAT(waiting.receive(3000), HasSubstr(">e2<"));
    EXPECT_THAT(send(fetch("c", "100")), HasSubstr(">e2<"));
    EXPECT_THAT(send(fetch("c", "100")), empty);
    {
        RawConnection gone(daemon.port);
        gone.send(fetch("b", "20000"));
        settle();
    }
    settle();
    post("e3");
    settle();  // a waiter that took it would have by now
    EXPECT_THAT(send(fetch("b")), HasSubstr(">e3<"));
    RawConnection last(daemon.port), partial(daemon.port);
    last.send(fetch("b", "20000"));
    const std::string status =
        exchangeText({"Service-Name=AvQVLRequest", "Operation-Name=getStatus"}, "helloworld");
    partial.send(status.substr(0, status.size() - 5));
    settle();
    daemon.signal(SIGTERM);
    EXPECT_THAT(last.receive(3000), StartsWith("HTTP/1.1 200"));
    EXPECT_TRUE(daemon.running()) << "an exchange is under way";
    partial.send("world");
    EXPECT_THAT(partial.receive(3000),
                AllOf(StartsWith("HTTP/1.1 200"), ::testing::EndsWith("\r\n\r\nhelloworld")));
    EXPECT_EQ(daemon.wait(10000), 0);
    EXPECT_THAT(daemon.err(), HasSubstr(", store memory"));
    // One line per exchange, the absent identifiers empty.
    EXPECT_THAT(daemon.err(), ContainsRegex("Z info exchange op=getStatus server= client= "
                                            "status=200 us=[0-9]+ peer=127\\.0\\.0\\.1:[0-9]+\n"
                                            "[^\n]+Z info quorveld stopped\n$"));
}
