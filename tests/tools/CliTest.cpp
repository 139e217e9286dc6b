// Runs the quorvel binary as a child process and checks its output and exit
// codes. Every run has its own embedded service, so each test shows what one
// run can: a registration, an empty fetch, a post, a refused operation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// `arguments` is shell text (quote it as a shell would); `input` becomes stdin.
RunResult run(const std::string& arguments, const std::string& input = "") {
    char directory[] = "/tmp/quorvel-cli-XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
        return RunResult();
    }
    const std::string base = directory;
    std::ofstream(base + "/in", std::ios::binary) << input;
    const std::string command = std::string("'") + QUORVEL_BINARY + "' " + arguments + " <" + base +
                                "/in >" + base + "/out 2>" + base + "/err";
    const int status = std::system(command.c_str());
    RunResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = readFile(base + "/out");
    result.err = readFile(base + "/err");
    for (const char* name : {"/in", "/out", "/err"}) {
        std::remove((base + name).c_str());
    }
    rmdir(directory);
    return result;
}

// True when text is one JSON document: each string (escapes checked, no raw
// control characters), number and literal becomes "S", blanks go, then empty or
// well-separated objects and arrays of S fold into S until one S is left.
bool isJson(const std::string& text) {
    std::string shape;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '"') {
            shape += std::isspace(static_cast<unsigned char>(text[i])) ? ' ' : text[i];
            continue;
        }
        for (++i; i < text.size() && text[i] != '"'; ++i) {
            if (static_cast<unsigned char>(text[i]) < 0x20 ||
                (text[i] == '\\' &&
                 (++i >= text.size() || std::strchr("\"\\/bfnrtu", text[i]) == nullptr))) {
                return false;
            }
        }
        if (i >= text.size()) {
            return false;
        }
        shape += 'S';
    }
    shape = std::regex_replace(shape, std::regex("true|false|null|-?[0-9]+"), "S");
    shape.erase(std::remove(shape.begin(), shape.end(), ' '), shape.end());
    const std::regex container("\\{(S:S(,S:S)*)?\\}|\\[(S(,S)*)?\\]");
    for (std::string folded; (folded = std::regex_replace(shape, container, "S")) != shape;) {
        shape = folded;
    }
    return shape == "S";
}

TEST(CliTest, JsonCheckerTellsValidFromBroken) {
    for (const char* good : {"{}", "[]", "{\"a\":[1,-2,true,null,{\"b\":\"\\u00e9\\\"\"}]}"}) {
        EXPECT_TRUE(isJson(good)) << good;
    }
    for (const char* bad :
         {"", "{", "{\"a\":1,}", "[1 2]", "{\"a\"}", "\"x\ty\"", "\"\\q\"", "{}{}", "[1]]"}) {
        EXPECT_FALSE(isJson(bad)) << bad;
    }
}

TEST(CliTest, StatusReportsTheEcho) {
    const RunResult result = run("status");
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("status: 0"));
}

TEST(CliTest, DemoRunsEveryStepAndShowsTheRefusedFetch) {
    const RunResult result = run("demo");
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    for (const char* line :
         {"<- 0 (the service echoed the status text)", "shared clients: alice, bob, carol",
          "#1 from alice: Build 42 passed", "#2 from alice: Deploy <eu-west> & \"canary\" started",
          "unregistered; shared clients: alice, carol",
          "error, as expected: AvQVLProtocolException (type -2): Client not Registered with "
          "Quorvel",
          "Demo finished"}) {
        EXPECT_THAT(result.out, HasSubstr(line));
    }
    EXPECT_THAT(result.out, Not(HasSubstr("unexpected")));
}

TEST(CliTest, OneRunRegistersPostsAndFetches) {
    const struct {
        std::string arguments;
        std::string input;
        std::string expected;
    } cases[] = {
        {"register S K", "", "shared clients (1): K"},
        {"register S K --locale de-DE", "", "registered client \"K\" with server \"S\""},
        {"clients --server S --client K", "", "shared clients (1): K"},
        {"get --server S --client K", "", "events (0): none"},
        {"put --server S --client K hello", "", "posted 5 bytes"},
        {"put --server S --client K -", "from stdin\n", "posted 11 bytes"},
        {"unregister --server S --client K", "", "shared clients (0): none"},
    };
    for (const auto& c : cases) {
        const RunResult result = run(c.arguments, c.input);
        EXPECT_EQ(result.exitCode, 0) << c.arguments << ": " << result.err;
        EXPECT_THAT(result.out, HasSubstr(c.expected)) << c.arguments;
        EXPECT_EQ(result.err, "") << c.arguments;
    }
}

TEST(CliTest, JsonOutputIsOneValidDocumentWithTheResults) {
    const struct {
        std::string arguments;
        std::string expected;
    } cases[] = {
        {"--json status", "\"status\":0"},
        {"status --json", "\"ok\":true"},
        {"--json register S 'x\"y\\z'", "\"sharedClients\":[\"x\\\"y\\\\z\"]"},
        {"--json register S \"$(printf 'tab\\there')\"", "\"client\":\"tab\\there\""},
        {"--json register S 'caf\xC3\xA9'", "\"sharedClients\":[\"caf\xC3\xA9\"]"},
        {"--json get --server S --client K", "\"events\":[]"},
        {"--json get --server S --client K --correlation-id c1", "\"correlationId\":\"c1\""},
        {"--json put --server S --client K 'a\"b'", "\"bytes\":3"},
        {"--json clients --server S --client K", "\"sharedClients\":[\"K\"]"},
        {"--json unregister --server S --client K", "\"sharedClients\":[]"},
    };
    for (const auto& c : cases) {
        const RunResult result = run(c.arguments);
        EXPECT_EQ(result.exitCode, 0) << c.arguments << ": " << result.err;
        EXPECT_TRUE(isJson(result.out)) << c.arguments << ": " << result.out;
        EXPECT_THAT(result.out, HasSubstr(c.expected)) << c.arguments;
    }
}

TEST(CliTest, OperationsOfAnUnregisteredClientFailWithTheLibrarysException) {
    const std::string refused =
        "error: AvQVLProtocolException (type -2): Client not Registered with Quorvel\n";
    // clients goes through the exception that is thrown as a pointer.
    for (const char* arguments : {"get", "put text", "clients"}) {
        const RunResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 1) << arguments;
        EXPECT_EQ(result.err, refused) << arguments;
    }
    const RunResult json = run("--json clients");
    EXPECT_EQ(json.exitCode, 1);
    EXPECT_TRUE(isJson(json.out)) << json.out;
    EXPECT_THAT(json.out, HasSubstr("\"ok\":false,\"error\":{\"class\":\"AvQVLProtocolException\","
                                    "\"type\":-2,\"message\":\"Client not Registered with "
                                    "Quorvel\"}"));
}

TEST(CliTest, UsageErrorsExitWithTwo) {
    for (const char* arguments :
         {"", "frobnicate", "register S", "put", "get --client K", "get --server S",
          "status --locale de", "status --bogus", "register S K extra"}) {
        const RunResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 2) << "'" << arguments << "'";
        EXPECT_NE(result.err, "") << "'" << arguments << "'";
    }
    // The library would drop what follows a NUL byte.
    const RunResult nul = run("put --server S --client K -", std::string("ab\0cd", 5));
    EXPECT_EQ(nul.exitCode, 2);
    EXPECT_THAT(nul.err, HasSubstr("NUL byte (at byte 2)"));
    EXPECT_EQ(nul.out, "");
}

TEST(CliTest, EverySubcommandHasHelp) {
    const struct {
        std::string command;
        std::string mentions;
    } cases[] = {
        {"", "Exit codes"},          {"status", "status"},    {"register", "SERVER"},
        {"unregister", "--server"},  {"clients", "--client"}, {"put", "standard input"},
        {"get", "--correlation-id"}, {"demo", "scenario"},
    };
    for (const auto& c : cases) {
        const RunResult result = run(c.command + " --help");
        EXPECT_EQ(result.exitCode, 0) << c.command;
        EXPECT_THAT(result.out, HasSubstr("Usage")) << c.command;
        EXPECT_THAT(result.out, HasSubstr(c.mentions)) << c.command;
    }
}

}  // namespace
