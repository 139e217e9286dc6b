// The quorvel binary run as a child process: through the embedded service (each
// run has its own), and through a real quorveld on an ephemeral loopback port.
// (tests/daemon covers the transport's failures of the classes the embedded
// service cannot bring about.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

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

const std::string kNote = "quorvel: note: no --url or QUORVEL_URL, so ";

// Standard error without the embedded-service note, which its own test checks.
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
        const bool onOut = row.code == 0 || std::count(row.args.begin(), row.args.end(), "--json");
        SCOPED_TRACE(::testing::PrintToString(row.args) + "\n" + result.out + result.err);
        EXPECT_EQ(result.code, row.code);
        EXPECT_THAT(onOut ? result.out : err, HasSubstr(row.expected));
        EXPECT_EQ(err.empty(), onOut);
    }
}

TEST(CliTest, EmbeddedServicePrintsResultsAndExitCodes) {
    const std::vector<Row> rows = {
        {0, {"register", "S", "K", "--locale", "de"}, "with server \"S\"\nshared clients (1): K\n"},
        {0, as({"get"}), "\nevents (0): none\nshared clients (1): K\n"},
        {0, as({"put", "-"}), "\"S\"\nposted 13 bytes\n", "from stdin\n\xC3\xA9"},
        {0, as({"put", "--lines", "-"}), "posted 3 events, 6 bytes\n", "a\nbb\r\n\nccc"},
        {0, as({"put", "--lines", "--json", "a\n\nb\n"}), R"("events":2,"bytes":2,)"},
        {0, {"--json", "status"}, "{\"command\":\"status\",\"ok\":true,\"status\":0}\n"},
        {0,
         {"register", "S", "x\"y\\z\t", "--json"},
         R"("ok":true,"server":"S","client":"x\"y\\z\t",)"},
        {0, as({"get", "--json", "--correlation-id", "c"}),
         R"("correlationId":"c","raw":"\n<ns0:events xmlns:ns0=\"http://schemas.arvant.com/)"},
        {0, as({"clients"}), "shared clients (0): none\n"},  // listing registers no one
        {0, {"--version"}, std::string("quorvel ") + AVQVL_VERSION_STRING + "\n"},
        {0, as({"status"}), "client \"K\" is not registered with server \"S\"\n"},
        {1,
         {"admin", "evict", "--server", "S", "--client", "K"},
         "AvQVLProtocolException (type 0)"},
        {0, {"demo"}, "#2 from alice: Deploy <eu-west> & \"canary\" started"},
        // Usage and input mistakes, which behave the same whatever the service.
        {2, {"get"}, "error: --server is required\n"},
        {2, {"admin", "evict", "--server", "S"}, "error: --client is required\n"},
        {2, {"status", "--client", "K"}, "--client requires --server"},
        // An identifier the local code page cannot read is refused, named, never changed.
        {2, {"register", "S", "k\xC0"}, "error: CLIENT is not valid UTF-8: byte 1 starts"},
        {2,
         {"--json", "frobnicate"},
         R"({"command":null,"ok":false,"error":{"class":"UsageError",)"},
        {2, as({"put", "-x"}), "goes after '--': quorvel put --server S --client K -- -x"},
        {2, as({"put", "caf\xE9"}), "TEXT is not valid UTF-8: byte 3 starts no character"},
        {2, as({"put", "--lines", "-"}),
         "line 3 of standard input is not valid UTF-8: byte 7 starts", "ok\nab\r\n\xFF\n"},
        {2, as({"put", "--json", "-"}),
         R"("class":"InputError","type":null,"message":"standard input holds a NUL byte (at byte 2))",
         std::string("ab\0cd", 5)},
    };
    expectRows(rows, {});
}

// Without a daemon the commands whose effect cannot outlive the process say so,
// once, and how to keep it.
TEST(CliTest, EmbeddedServiceIsNotedWhereTheEffectIsLost) {
    const std::string err = quorvel(as({"get"}), {"QUORVEL_URL="}).err;  // empty: as unset
    EXPECT_THAT(err, StartsWith(kNote + "get ran on a service inside"));
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
    EXPECT_EQ(quorvel({"status"}).err, "");
}

// The check before posting in a code page other than UTF-8, its offsets counted
// from the base given.
TEST(CliTest, LocalTextIsCheckedByCodePage) {
    try {
        Tools::checkLocalText("\x82\xA0\x82", "T", 100, "Shift_JIS");
        ADD_FAILURE() << "accepted";
    } catch (const Tools::ToolError& e) {
        EXPECT_THAT(e.what(), StartsWith("T is not valid Shift_JIS: byte 102 starts"));
    }
}

// Each run is its own process; what one run leaves, the next sees.
TEST(CliDaemonTest, RunsShareTheDaemon) {
    Harness::DaemonProcess daemon({"--quiet"});
    std::vector<Row> rows = {
        {0, {"status"}, "status: 0 (the service echoed the status text)\n"},
        {0, {"register", "S", "A"}, "shared clients (1): A\n"},
        {0, {"status", "--server", "S", "--client", "A"}, "client \"A\" is registered"},
        {0, {"clients", "--server", "S", "--json"}, R"("sharedClients":["A"]})"},
        {0, as({"put", "hi"}), "posted 2 bytes\nshared clients (2): A, K\n"},
        {0, as({"put", "--lines", "-"}), "posted 2 events, 4 bytes\n", "l1\n\nl2\n"},
        {0, {"--json", "admin", "clients"}, R"("client":"A","waitingEvents":3,"waitingBytes":6,)"},
        {0,
         {"get", "--server", "S", "--client", "A"},
         "#1 from K: hi\n  #2 from K: l1\n  #3 from K: l2\n"},
        {0, {"admin", "clients", "--server", "S"}, "SERVER  CLIENT  WAITING EVENTS  WAITING BYTES"},
        {0, as({"unregister"}), "unregistered\nshared clients (1): A\n"},
        {0, {"admin", "evict", "--server", "S", "--client", "A"}, "shared clients (0): none\n"},
        {1, {"admin", "evict", "--server", "S", "--client", "A"}, "is not registered with server"},
        {0, {"demo"}, "on the service at http://127.0.0.1:"},  // a server of its own
        {0, {"admin", "clients"}, "no registered clients\n"},
    };
    expectRows(rows, {daemon.url()});

    // --url takes precedence over QUORVEL_URL.
    const Harness::Result viaUrl = quorvel({"--url", daemon.url().substr(12), "register", "S", "B"},
                                           {"QUORVEL_URL=http://[::1]:1"});
    EXPECT_THAT(viaUrl.out, StartsWith("registered client \"B\" with server \"S\"\n"));
    EXPECT_EQ(viaUrl.err, "");
}

// Standard input or output that fails exits 3 with the system's message; a
// failed status check names the cause the transport knows.
TEST(CliTest, FailuresNameTheirCauseAndExitCode) {
    const std::string down = "QUORVEL_URL=http://127.0.0.1:1";  // a port nobody serves
    const auto runWith = [](const std::string& redirect, Strings args) {
        args.insert(args.begin(),
                    {"/bin/sh", "-c", "exec \"$0\" \"$@\" " + redirect, QUORVEL_BINARY});
        const Harness::Result result = Harness::run(args);
        return std::to_string(result.code) + " " + withoutNote(result.err);
    };
    EXPECT_EQ(runWith("</", as({"put", "-"})),
              "3 error: cannot read standard input: Is a directory\n");
    const std::string full = "3 error: cannot write standard output: No space left on device\n";
    EXPECT_EQ(runWith(">/dev/full", {"--json", "status"}), full);
    EXPECT_EQ(runWith(">/dev/full", as({"watch"})), full);
    const std::string failed = "AvQVLConnectionException (type -1): AvQVL Connection failed";
    const Harness::Result refused = quorvel({"status"}, {down});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("error: " + failed + " (cause: Cannot reach the Quorvel"));
    EXPECT_THAT(quorvel({"status"}, {down, "QUORVEL_TIMEOUT_MS=soon"}).err,
                HasSubstr(" (cause: QUORVEL_TIMEOUT_MS must be"));
    EXPECT_THAT(quorvel({"--json", "status"}, {down}).out,
                HasSubstr(R"("message":"AvQVL Connection failed","cause":"Cannot reach the)"));
}

// get --wait and watch are answered by the daemon as soon as a post comes; an
// hour's --interval keeps watch from finding it by polling instead. watch prints
// every post in order and ends with exit 0 on SIGTERM or SIGINT.
TEST(CliDaemonTest, WaitingFetchesPrintPostsMadeWhileTheyWait) {
    Harness::DaemonProcess daemon({"--quiet"});
    const Strings env = {daemon.url()};
    const struct {
        Strings options;
        int stop;
        std::string first, second;
    } rows[] = {
        {{"get", "--wait", "20000"}, 0, "#1 from P: one\n", ""},
        {{"watch", "--interval", "3600000"}, SIGTERM, "#1 from P: one\n", "#2 from P: two \"2\"\n"},
        {{"watch", "--json", "--unregister"},
         SIGINT,
         "{\"sender\":\"P\",\"sequence\":\"1\",\"text\":\"one\"}\n",
         "{\"sender\":\"P\",\"sequence\":\"2\",\"text\":\"two \\\"2\\\"\"}\n"},
    };
    for (const auto& row : rows) {
        const std::string server = "S" + std::to_string(row.stop);
        Strings args = {QUORVEL_BINARY, row.options[0], "--server", server, "--client", "W"};
        args.insert(args.end(), row.options.begin() + 1, row.options.end());
        Child child(Harness::program(args), env);
        const auto listed = [&](const char* client) {
            return quorvel({"clients", "--server", server}, env).out.find(client) !=
                   std::string::npos;
        };
        EXPECT_TRUE(Harness::waitUntil([&] { return listed("W"); }));
        const auto post = [&](const std::string& text, const std::string& expected) {
            EXPECT_EQ(quorvel({"put", "--server", server, "--client", "P", text}, env).code, 0);
            EXPECT_TRUE(Harness::waitUntil([&] {
                return child.out().find(expected) != std::string::npos;
            })) << child.out()
                << child.err();
        };
        post("one", row.first);
        if (row.stop != 0) {
            post("two \"2\"", row.first + row.second);
            child.signal(row.stop);
        }
        EXPECT_EQ(child.wait(10000), 0) << child.err();
        EXPECT_EQ(listed("W"), row.stop != SIGINT);  // --unregister leaves only the poster
    }
}

// Text the service hands back need not be UTF-8; the JSON output stays valid.
TEST(CliTest, JsonReplacesWhatIsNotUtf8) {
    EXPECT_EQ(Tools::dumpJson(Tools::Json("\x01|\xE9|\xC3\xA9")),
              "\"\\u0001|\xEF\xBF\xBD|\xC3\xA9\"");
}

}  // namespace
