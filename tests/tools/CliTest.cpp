// The quorvel binary run as a child process: through the embedded service (each
// run has its own), and through a real quorveld on an ephemeral loopback port.
// (tests/daemon covers the transport's failures of the classes the embedded
// service cannot bring about.)
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "client/Version.h"
#include "daemon/DaemonProcess.h"
#include "tools/Failure.h"
#include "tools/Input.h"
#include "tools/Report.h"

namespace {

namespace Tools = Arvant::Net::AvQuorvel::Tools;

using Harness::Child;
using Harness::quorvel;
using Harness::Strings;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const std::string kRefused = "AvQVLProtocolException (type -2): Client not Registered with Quorvel";
const std::string kNote = "quorvel: note: no --url or QUORVEL_URL, so ";

// Standard error without the embedded-service note, which the table of notes checks.
std::string withoutNote(const std::string& err) {
    return err.compare(0, kNote.size(), kNote) == 0 ? err.substr(err.find('\n') + 1) : err;
}

Strings as(Strings args) {
    args.insert(args.begin() + 1, {"--server", "S", "--client", "K"});
    return args;
}

struct Row {
    int code;
    Strings args;
    std::string expected, input = "";
};

// The expected text is looked for on standard output, or on standard error for a
// failure printed as text; the other stream must then stay empty.
void expectRows(const std::vector<Row>& rows, const Strings& env) {
    for (const Row& row : rows) {
        const Harness::Result result = quorvel(row.args, env, row.input);
        const std::string err = withoutNote(result.err);
        const bool json = std::count(row.args.begin(), row.args.end(), "--json") > 0;
        const bool onOut = row.code == 0 || json;
        SCOPED_TRACE(::testing::PrintToString(row.args) + "\n" + result.out + result.err);
        EXPECT_EQ(result.code, row.code);
        EXPECT_THAT(onOut ? result.out : err, HasSubstr(row.expected));
        EXPECT_EQ(err.empty(), onOut);
    }
}

// Rows that behave the same whatever the service: usage and input mistakes.
const std::vector<Row> kMistakes = {
    {2, {}, "A subcommand is required"},
    {2, {"register", "S"}, "CLIENT is required"},
    // Every command that needs an identity says which part is missing.
    {2, {"get"}, "error: --server is required\n"},
    {2, {"unregister", "--server", "S"}, "error: --client is required\n"},
    {2, {"clients", "--client", "K"}, "error: --server is required\n"},
    {2, {"put", "--client", "K", "x"}, "error: --server is required\n"},
    {2, {"admin", "evict", "--server", "S"}, "error: --client is required\n"},
    // An identifier the local code page cannot read is refused, named, never changed.
    {2, {"register", "S", "k\xC0"}, "error: CLIENT is not valid UTF-8: byte 1 starts"},
    {2, {"register", "S\xFE", "K"}, "error: SERVER is not valid UTF-8: byte 1 starts"},
    {2,
     {"get", "--server", "srv\xFF", "--client", "K"},
     "error: --server is not valid UTF-8: byte 3"},
    {2, {"status", "--server", "S", "--client", "\xFE"}, "error: --client is not valid UTF-8"},
    {2, {"admin", "clients", "--server", "\xC0"}, "error: --server is not valid UTF-8"},
    {2, {"status", "--client", "K"}, "--client requires --server"},
    {2,
     {"frobnicate"},
     "unknown command \"frobnicate\"; the commands are status, register, unregister, clients, "
     "put, get, watch, demo"},
    {2,
     {"--json", "frobnicate", "x"},
     R"({"command":null,"ok":false,"error":{"class":"UsageError","type":null,"message":)"
     R"("unknown command \"frobnicate\";)"},
    {2,
     {"register", "S", "--json"},
     R"({"command":"register","ok":false,"error":{"class":"UsageError","type":null,)"
     R"("message":"CLIENT is required"}})"},
    {2, as({"put", "-x"}), "goes after '--': quorvel put --server S --client K -- -x"},
    {2, as({"watch", "--interval", "0"}), "--interval"},
    // Not valid UTF-8 (the local code page with the locale the tests run in).
    {2, as({"put", "caf\xE9"}), "TEXT is not valid UTF-8: byte 3 starts no character"},
    {2, as({"put", "-"}), "standard input is not valid UTF-8: byte 4", "ok\xC3\xA9\xC3"},
    {2, as({"put", "--lines", "-"}), "line 3 of standard input is not valid UTF-8: byte 7 starts",
     "ok\nab\r\n\xFF\n"},
    {2, as({"put", "--lines", "ok\n\nab\xFF"}), "line 3 of TEXT is not valid UTF-8: byte 6 starts"},
    {2, as({"put", "--json", "-"}),
     R"("error":{"class":"InputError","type":null,"message":"standard input holds a NUL byte )"
     R"((at byte 2), which cannot be posted"}})",
     std::string("ab\0cd", 5)},
};

TEST(CliTest, EmbeddedServicePrintsResultsAndExitCodes) {
    std::vector<Row> rows = {
        {0, {"register", "S", "K", "--locale", "de"}, "with server \"S\"\nshared clients (1): K\n"},
        {0, as({"get"}), "\nevents (0): none\nshared clients (1): K\n"},
        {0, as({"put", "-"}), "\"S\"\nposted 13 bytes\n", "from stdin\n\xC3\xA9"},
        {0, as({"put", "--", "-x"}), "posted 2 bytes\n"},
        {0, as({"put", "--lines", "-"}), "posted 3 events, 6 bytes\n", "a\nbb\r\n\nccc"},
        {0, as({"put", "--lines", "--json", "a\n\nb\n"}), R"("events":2,"bytes":2,)"},
        // --json before or after the subcommand: one object on one line.
        {0, {"--json", "status"}, "{\"command\":\"status\",\"ok\":true,\"status\":0}\n"},
        {0,
         {"register", "S", "x\"y\\z\t", "--json"},
         R"({"command":"register","ok":true,"server":"S","client":"x\"y\\z\t","locale":"",)"
         R"("sharedClients":["x\"y\\z\t"]})"},
        {0, as({"get", "--json", "--correlation-id", "c"}),
         R"("correlationId":"c","raw":"\n<ns0:events xmlns:ns0=\"http://schemas.arvant.com/)"},
        {0, as({"put", "--json", "a\"b"}), R"("quorvel.put","bytes":3,"sharedClients":["K"]})"},
        // Listing registers no one: the server has no client in this process.
        {0, as({"clients"}), "shared clients (0): none\n"},
        {0, {"--version"}, std::string("quorvel ") + AVQVL_VERSION_STRING + "\n"},
        // The embedded service of the run has no clients but those the run registers.
        {0, as({"status"}), "client \"K\" is not registered with server \"S\"\n"},
        {0, {"admin", "clients"}, "no registered clients\n"},
        {1,
         {"admin", "evict", "--server", "S", "--client", "K"},
         "error: AvQVLProtocolException (type 0): Client \"K\" is not registered with server"},
        // The demo: three clients, two events, and a fetch by an unregistered connection.
        {0, {"demo"}, "shared clients: alice, bob, carol"},
        {0, {"demo"}, "#2 from alice: Deploy <eu-west> & \"canary\" started"},
        {0, {"demo"}, "error, as expected: " + kRefused},
    };
    rows.insert(rows.end(), kMistakes.begin(), kMistakes.end());
    expectRows(rows, {});
}

// Without a daemon the commands whose effect cannot outlive the process say so,
// once, and how to keep it; --url or QUORVEL_URL silences them.
TEST(CliTest, EmbeddedServiceIsNotedWhereTheEffectIsLost) {
    const struct {
        bool noted;
        Strings args;
    } rows[] = {
        {true, {"register", "S", "K"}},
        {true, as({"unregister"})},
        {true, as({"clients"})},
        {true, as({"put", "x"})},
        {true, as({"get"})},
        {false, {"status"}},
        {false, {"demo"}},
        {false, {"--version"}},
    };
    for (const auto& row : rows) {
        const Harness::Result result = quorvel(row.args);
        SCOPED_TRACE(::testing::PrintToString(row.args) + "\n" + result.err);
        EXPECT_EQ(result.code, 0);
        if (row.noted) {
            EXPECT_THAT(result.err, StartsWith(kNote + row.args[0] + " ran on a service inside"));
            EXPECT_THAT(result.err, HasSubstr("start quorveld"));
            EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
        } else {
            EXPECT_EQ(result.err, "");
        }
    }
    // An unset and an empty QUORVEL_URL both mean the embedded service.
    EXPECT_THAT(quorvel(as({"get"}), {"QUORVEL_URL="}).err, StartsWith(kNote));
}

// The check before posting, in code pages named here: the offset of the first
// byte that starts no character, or of a NUL byte.
TEST(CliTest, LocalTextIsCheckedByCodePage) {
    const struct {
        const char* codePage;
        std::string text;
        std::string refusal;  // empty: accepted
    } rows[] = {
        {"UTF-8", "caf\xC3\xA9", ""},
        {"UTF-8", "caf\xE9", "T is not valid UTF-8: byte 3 starts no character"},
        {"UTF-8", "ab\xC3", "T is not valid UTF-8: byte 2 starts"},
        {"UTF-8", "\xED\xA0\x80", "T is not valid UTF-8: byte 0 starts"},
        {"UTF-8", std::string("a\0b", 3), "T holds a NUL byte (at byte 1)"},
        {"ISO-8859-1", "caf\xE9 \xFF", ""},
        {"ISO-8859-1", std::string("\xE9\0", 2), "T holds a NUL byte (at byte 1)"},
        {"US-ASCII", "cafe\xE9", "T is not valid US-ASCII: byte 4 starts"},
        {"Shift_JIS",
         "\x82\xA0"
         "a\x82",
         "T is not valid Shift_JIS: byte 3 starts"},
    };
    for (const auto& row : rows) {
        std::string refusal;
        int code = 0;
        try {
            Tools::checkLocalText(row.text, "T", 0, row.codePage);
        } catch (const Tools::ToolError& e) {
            refusal = e.what();
            code = e.code;
        }
        EXPECT_THAT(refusal, StartsWith(row.refusal)) << row.codePage << ": " << row.text;
        EXPECT_EQ(code, row.refusal.empty() ? 0 : Tools::kExitUsage);
    }
    try {
        Tools::checkLocalText("ab\xFF", "line", 100);
        ADD_FAILURE() << "accepted";
    } catch (const Tools::ToolError& e) {
        EXPECT_THAT(e.what(), HasSubstr("byte 102 starts"));  // counted from the base
    }
}

// The address of a daemon, for --url.
std::string address(const Harness::DaemonProcess& daemon) {
    return "http://127.0.0.1:" + std::to_string(daemon.port);
}

// Waits (10 s at most) until the child has printed `text` on standard output.
bool printed(Child& child, const std::string& text) {
    for (int i = 0; i < 1000 && child.out().find(text) == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return child.out().find(text) != std::string::npos;
}

// Waits (10 s at most) until the daemon lists client as one of server's.
void awaitRegistered(const std::string& server, const std::string& client, const Strings& env) {
    for (int i = 0; i < 1000 && quorvel({"clients", "--server", server}, env).out.find(client) ==
                                    std::string::npos;
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// Each run is its own process; what one run leaves, the next sees.
TEST(CliDaemonTest, RunsShareTheDaemon) {
    Harness::DaemonProcess daemon({"--quiet"});
    const Strings env = {daemon.url()};
    const Strings asA = {"--server", "S", "--client", "A"};
    std::vector<Row> rows = {
        {0, {"status"}, "status: 0 (the service echoed the status text)\n"},
        {0, as({"clients"}), "shared clients (0): none\n"},
        {0, {"register", "S", "A"}, "shared clients (1): A\n"},
        // Neither checking nor listing as K registers K.
        {0, as({"status"}), "client \"K\" is not registered with server \"S\"\n"},
        {0, {"status", "--server", "S", "--client", "A"}, "client \"A\" is registered"},
        {0, as({"clients"}), "shared clients (1): A\n"},
        {0, {"clients", "--server", "S", "--json"}, R"("sharedClients":["A"]})"},
        {0, as({"put", "hi"}), "posted 2 bytes\nshared clients (2): A, K\n"},
        {0, as({"put", "--lines", "-"}), "posted 2 events, 4 bytes\n", "l1\n\nl2\n"},
        {0,
         {"--json", "admin", "clients"},
         R"("clients":[{"server":"S","client":"A","waitingEvents":3,"waitingBytes":6,)"
         R"("lastFetch":null,"registered":"20)"},
        {0,
         {"get", asA[0], asA[1], asA[2], asA[3]},
         "  #1 from K: hi\n  #2 from K: l1\n  #3 from K: l2\n"},
        {0, {"get", asA[0], asA[1], asA[2], asA[3], "--json"}, R"("events":[],)"},
        {0, {"admin", "clients", "--server", "S"}, "SERVER  CLIENT  WAITING EVENTS  WAITING BYTES"},
        {0, as({"unregister"}), "unregistered\nshared clients (1): A\n"},
        {0, {"admin", "evict", "--server", "S", "--client", "A"}, "shared clients (0): none\n"},
        {1, {"admin", "evict", "--server", "S", "--client", "A"}, "is not registered with server"},
        // The demo runs on a server of its own and leaves nothing registered.
        {0, {"demo"}, "on the service at http://127.0.0.1:"},
        {0, {"admin", "clients"}, "no registered clients\n"},
    };
    rows.insert(rows.end(), kMistakes.begin(), kMistakes.end());
    expectRows(rows, env);

    // --url takes precedence over QUORVEL_URL.
    const Harness::Result viaUrl =
        quorvel({"--url", address(daemon), "register", "S", "B"}, {"QUORVEL_URL=http://[::1]:1"});
    EXPECT_EQ(viaUrl.code, 0) << viaUrl.err;
    EXPECT_EQ(viaUrl.out, "registered client \"B\" with server \"S\"\nshared clients (2): K, B\n");
    EXPECT_EQ(viaUrl.err, "");
}

// A failed status check names the cause the transport knows.
TEST(CliDaemonTest, StatusNamesTheCause) {
    Harness::DaemonProcess stopped({"--quiet"});
    stopped.stop();
    const std::string down = address(stopped);  // nothing listens there now
    const std::string failed = "error: AvQVLConnectionException (type -1): AvQVL Connection failed";
    const struct {
        Strings args, env;
        std::string expected;
    } rows[] = {
        {{"status"}, {"QUORVEL_URL=" + down}, failed + " (cause: Cannot reach the Quorvel service"},
        {{"--url", down, "status"}, {}, failed + " (cause: Cannot reach the Quorvel service"},
        {{"status"},
         {"QUORVEL_URL=" + down, "QUORVEL_TIMEOUT_MS=soon"},
         failed + " (cause: QUORVEL_TIMEOUT_MS must be"},
        {{"--json", "status"},
         {"QUORVEL_URL=" + down},
         R"("message":"AvQVL Connection failed","cause":"Cannot reach the Quorvel service)"},
    };
    for (const auto& row : rows) {
        const Harness::Result result = quorvel(row.args, row.env);
        EXPECT_EQ(result.code, 1);
        EXPECT_THAT(result.out + result.err, HasSubstr(row.expected));
    }
}

// Standard input or output that fails: exit 3 with the system's message, through
// either service.
TEST(CliDaemonTest, InputAndOutputFailuresExitThree) {
    Harness::DaemonProcess daemon({"--quiet"});
    for (const Strings& env : {Strings{}, Strings{daemon.url()}}) {
        const auto runWith = [&env](const char* path, int fd, const Strings& args) {
            Child child(
                [=] {
                    const int opened = ::open(path, fd == 0 ? O_RDONLY : O_WRONLY);
                    ::dup2(opened, fd);
                    Strings argv = args;
                    argv.insert(argv.begin(), QUORVEL_BINARY);
                    return Harness::program(argv)();
                },
                env);
            const int code = child.wait();
            return std::make_pair(code, withoutNote(child.err()));
        };
        SCOPED_TRACE(::testing::PrintToString(env));
        EXPECT_EQ(
            runWith("/", 0, as({"put", "-"})),
            std::make_pair(3, std::string("error: cannot read standard input: Is a directory\n")));
        EXPECT_EQ(runWith("/", 0, as({"put", "--lines", "-"})).first, 3);
        const std::string full = "error: cannot write standard output: No space left on device\n";
        EXPECT_EQ(runWith("/dev/full", 1, {"status"}), std::make_pair(3, full));
        EXPECT_EQ(runWith("/dev/full", 1, {"--json", "status"}), std::make_pair(3, full));
        // watch stops at its first line that cannot be written.
        EXPECT_EQ(runWith("/dev/full", 1, as({"watch"})), std::make_pair(3, full));
    }
}

// watch prints what another process posts while it runs, and ends with exit 0
// on SIGTERM or SIGINT.
TEST(CliDaemonTest, WatchPrintsEventsUntilStopped) {
    Harness::DaemonProcess daemon({"--quiet"});
    const Strings env = {daemon.url()};
    const struct {
        Strings options;
        int stop;
        std::string first, second;
    } rows[] = {
        {{}, SIGTERM, "#1 from P: one\n", "#2 from P: two \"2\"\n"},
        {{"--json", "--unregister"},
         SIGINT,
         R"({"sender":"P","sequence":"3","text":"one"})"
         "\n",
         R"({"sender":"P","sequence":"4","text":"two \"2\""})"
         "\n"},
    };
    for (const auto& row : rows) {
        Strings args = {QUORVEL_BINARY, "watch", "--server",   "S",
                        "--client",     "W",     "--interval", "20"};
        args.insert(args.end(), row.options.begin(), row.options.end());
        Child watch(Harness::program(args), env);
        awaitRegistered("S", "W", env);
        EXPECT_EQ(quorvel({"put", "--server", "S", "--client", "P", "one"}, env).code, 0);
        EXPECT_TRUE(printed(watch, row.first)) << watch.out() << watch.err();
        EXPECT_EQ(quorvel({"put", "--server", "S", "--client", "P", "two \"2\""}, env).code, 0);
        EXPECT_TRUE(printed(watch, row.first + row.second)) << watch.out() << watch.err();
        watch.signal(row.stop);
        EXPECT_EQ(watch.wait(10000), 0) << watch.err();
        EXPECT_EQ(watch.err(), "");
    }
    // --unregister left only the poster.
    EXPECT_EQ(quorvel({"clients", "--server", "S"}, env).out, "shared clients (1): P\n");

    // With the service inside the process no other process can post; it still
    // runs, says so, and stops the same way.
    Child alone(Harness::program({QUORVEL_BINARY, "watch", "--server", "S", "--client", "W"}));
    EXPECT_TRUE(printed(alone, "watching as client \"W\" of server \"S\""));
    alone.signal(SIGTERM);
    EXPECT_EQ(alone.wait(10000), 0);
    EXPECT_THAT(alone.err(), StartsWith(kNote + "watch ran on a service inside"));
}

// get --wait and watch are answered by the daemon as soon as a post comes; an
// hour's --interval keeps watch from finding it by polling instead.
TEST(CliDaemonTest, WaitingFetchesPrintAPostMadeWhileTheyWait) {
    Harness::DaemonProcess daemon({"--quiet"});
    const Strings env = {daemon.url()};
    for (const Strings& row :
         {Strings{"get", "--wait", "20000"}, Strings{"watch", "--interval", "3600000"}}) {
        Strings args = {QUORVEL_BINARY, row[0], "--server", row[0], "--client", "W"};
        args.insert(args.end(), row.begin() + 1, row.end());
        Child child(Harness::program(args), env);
        awaitRegistered(row[0], "W", env);
        EXPECT_EQ(quorvel({"put", "--server", row[0], "--client", "P", "hi"}, env).code, 0);
        EXPECT_TRUE(printed(child, "1 from P: hi\n")) << child.out() << child.err();
        child.signal(SIGTERM);  // watch only: get has ended
        EXPECT_EQ(child.wait(10000), 0) << child.err();
    }
}

// Text the service hands back need not be UTF-8; the JSON output stays valid.
TEST(CliTest, JsonReplacesWhatIsNotUtf8) {
    EXPECT_EQ(Tools::dumpJson(Tools::Json("\x01|\xE9|\xC3\xA9")),
              "\"\\u0001|\xEF\xBF\xBD|\xC3\xA9\"");
}

}  // namespace
