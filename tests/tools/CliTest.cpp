// The quorvel binary run as a child process; each run has its own embedded service.
// (tests/daemon runs it against the daemon: the whole road, and failures of the
// classes the embedded service cannot bring about.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "Json.h"
#include "daemon/DaemonHarness.h"

namespace {

using Harness::quorvel;
using ::testing::HasSubstr;

const std::string kRefused = "AvQVLProtocolException (type -2): Client not Registered with Quorvel";

// The expected text is looked for on standard output, or on standard error for a
// failure printed as text; the other stream must then stay empty.
TEST(CliTest, SubcommandsPrintTheirResultsAndExitCodes) {
    const auto as = [](Harness::Strings args) {
        args.insert(args.begin() + 1, {"--server", "S", "--client", "K"});
        return args;
    };
    const struct {
        int code;
        Harness::Strings args;
        std::string expected, input = "";
    } rows[] = {
        {0, {"register", "S", "K", "--locale", "de"}, "with server \"S\"\nshared clients (1): K\n"},
        {0, as({"get"}), "\nevents (0): none\nshared clients (1): K\n"},
        {0, as({"put", "-"}), "\"S\"\nposted 13 bytes\n", "from stdin\n\xC3\xA9"},
        // --json before or after the subcommand: one object on one line.
        {0, {"--json", "status"}, "{\"command\":\"status\",\"ok\":true,\"status\":0}\n"},
        {0,
         {"register", "S", "x\"y\\z\t", "--json"},
         R"({"command":"register","ok":true,"server":"S","client":"x\"y\\z\t","locale":"",)"
         R"("sharedClients":["x\"y\\z\t"]})"},
        {0, as({"get", "--json", "--correlation-id", "c"}),
         R"("correlationId":"c","raw":"\n<ns0:events xmlns:ns0=\"http://schemas.arvant.com/)"},
        {0, as({"put", "--json", "a\"b"}), R"("quorvel.put","bytes":3,"sharedClients":["K"]})"},
        // The library's exception, thrown by value or (clients) as a pointer.
        {1, {"get"}, "error: " + kRefused + "\n"},
        {1, {"clients"}, "error: " + kRefused + "\n"},
        {1,
         {"--json", "clients"},
         R"({"command":"clients","ok":false,"error":{"class":"AvQVLProtocolException",)"
         R"("type":-2,"message":"Client not Registered with Quorvel"}})"},
        // The demo: three clients, two events, and a fetch by an unregistered connection.
        {0, {"demo"}, "shared clients: alice, bob, carol"},
        {0, {"demo"}, "#2 from alice: Deploy <eu-west> & \"canary\" started"},
        {0, {"demo"}, "error, as expected: " + kRefused},
        // Usage errors; the library would drop what follows a NUL byte.
        {2, {}, ""},
        {2, {"register", "S"}, ""},
        {2, {"get", "--client", "K"}, ""},
        {2, {"status", "--locale", "de"}, ""},
        {2, as({"put", "-"}), "NUL byte (at byte 2)", std::string("ab\0cd", 5)},
    };
    for (const auto& row : rows) {
        const Harness::Result result = quorvel(row.args, {}, row.input);
        const bool json = std::count(row.args.begin(), row.args.end(), "--json") > 0;
        const std::string& where = row.code != 0 && !json ? result.err : result.out;
        SCOPED_TRACE(::testing::PrintToString(row.args) + "\n" + result.out + result.err);
        EXPECT_EQ(result.code, row.code);
        EXPECT_THAT(where, HasSubstr(row.expected));
        EXPECT_EQ(result.err.empty(), &where == &result.out);
    }
}

TEST(CliTest, EverySubcommandHasHelp) {
    for (const char* command :
         {"status", "register", "unregister", "clients", "put", "get", "demo"}) {
        const Harness::Result result = quorvel({command, "--help"});
        EXPECT_EQ(result.code, 0) << command;
        EXPECT_THAT(result.out,
                    HasSubstr(QUORVEL_BINARY + std::string(" ") + command + " [OPTIONS]"));
    }
    EXPECT_THAT(quorvel({"--help"}).out, HasSubstr("Exit codes: 0 success; 1"));
}

// Bytes that are not UTF-8 (Latin-1, cut short, overlong, a surrogate) become U+FFFD
// each, so the output stays JSON whatever the service hands back.
TEST(CliTest, JsonQuoteReplacesWhatIsNotUtf8) {
    const std::string r = "\xEF\xBF\xBD";
    EXPECT_EQ(
        Quorvel::jsonQuote("\x01\x1f|\xE9|\xE2\x82|\xC0\xAF|\xED\xA0\x80|\xC3\xA9"),
        "\"\\u0001\\u001f|" + r + "|" + r + r + "|" + r + r + "|" + r + r + r + "|\xC3\xA9\"");
}

}  // namespace
