// The man pages and the bash completion against the programs' own --help: every
// option a program accepts is described and completed, so the pages cannot fall
// behind an option that is added or renamed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "daemon/DaemonHarness.h"

namespace {

const char* const kCommands[] = {"status", "register", "unregister", "clients", "put",
                                 "get",    "watch",    "demo",       "admin"};

// The long options --help lists (those at the start of a help line).
std::set<std::string> optionsIn(const std::string& help) {
    std::set<std::string> options;
    const std::regex option(R"(\n\s+(?:-\w,)?(--[a-z][a-z-]*))");
    for (std::sregex_iterator it(help.begin(), help.end(), option), end; it != end; ++it) {
        options.insert((*it)[1]);
    }
    return options;
}

// roff writes a minus as \-.
std::string roff(const std::string& option) {
    return std::regex_replace(option, std::regex("-"), "\\-");
}

TEST(ToolDocsTest, ManPagesAndCompletionDescribeEveryOption) {
    const std::string share = AVQVL_SOURCE_DIR "/share/";
    const std::string quorvelPage = Harness::run({"/bin/cat", share + "man/man1/quorvel.1"}).out;
    const std::string completionFile = share + "bash-completion/completions/quorvel";
    const std::string completion = Harness::run({"/bin/cat", completionFile}).out;
    std::set<std::string> options = optionsIn(Harness::quorvel({"--help"}).out);
    for (const char* command : kCommands) {
        // A command's entry: ".TP" then its name in bold, alone or with its arguments.
        EXPECT_THAT(quorvelPage,
                    ::testing::ContainsRegex(std::string("\\.TP\n\\.BI? \"?") + command + "\\b"))
            << command;
        EXPECT_NE(completion.find(command), std::string::npos) << command;
        for (const char* sub : {"", "clients", "evict"}) {  // admin's subcommands
            const auto more = optionsIn(Harness::quorvel({command, sub, "--help"}).out);
            options.insert(more.begin(), more.end());
        }
    }
    for (const std::string& option : options) {
        EXPECT_NE(quorvelPage.find(roff(option)), std::string::npos) << option << " in quorvel.1";
        EXPECT_NE(completion.find(option), std::string::npos) << option << " in the completion";
    }

    const std::string daemonPage = Harness::run({"/bin/cat", share + "man/man8/quorveld.8"}).out;
    for (const std::string& option : optionsIn(Harness::run({QUORVELD_BINARY, "--help"}).out)) {
        EXPECT_NE(daemonPage.find(roff(option)), std::string::npos) << option << " in quorveld.8";
    }

    // The completion as bash runs it, without the bash-completion package.
    const std::pair<std::string, std::string> rows[] = {
        {"quorvel admin evict --", "--server --client --admin-token-file --json --help"},
        {"quorvel --url http://h:1 g", "get"},
    };
    for (const auto& [line, expected] : rows) {
        const Harness::Result result = Harness::run(
            {"/bin/bash", "-c",
             "source \"$0\"; read -ra COMP_WORDS <<< \"$1\"; [[ $1 == *' ' ]] && COMP_WORDS+=('');"
             " COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _quorvel; echo \"${COMPREPLY[*]}\"",
             completionFile, line});
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_EQ(result.out, expected + "\n") << line;
    }
}

}  // namespace
