// The tool's subcommands. Each runs in this process against the transport the
// library is linked with (the embedded service, or quorveld when QUORVEL_URL is
// set), prints what came back (for a person, or JSON with --json) and returns
// an exit code (Failure.h). Failures are printed here, on standard error, or as
// the JSON result on standard output.
#ifndef AVQVL_TOOLS_COMMANDS_H
#define AVQVL_TOOLS_COMMANDS_H

#include <string>

namespace Arvant::Net::AvQuorvel::Tools {

struct Options {
    bool json = false;
    // The identity a command registers under, lists or checks. Registration
    // lives in the connection, so every run that needs one registers first.
    std::string server;
    std::string client;
    std::string locale;
    std::string correlationId;  // "Log-Correlation-ID" of get, put and watch
    // How the command line names the identity, for refusals.
    const char* serverArgument = "--server";
    const char* clientArgument = "--client";
    std::string adminTokenFile;  // admin commands: the daemon's admin token, first line
};

// Throws ToolError (kExitUsage) naming the argument whose identifier (or
// locale) is not valid in the local code page, which the library would
// otherwise turn into another identifier without a word.
void checkIdentity(const Options& options);

// What `put` posts: TEXT, or standard input ("-"), whole or one event per line.
struct PutInput {
    std::string text;
    bool standardInput = false;
    bool lines = false;  // one event per line; empty lines are skipped
};

// How `watch` fetches: each fetch lets the service wait up to kWatchWaitMs for
// an event. A service that answers an empty fetch sooner than kWatchNoWaitMs
// does not wait, and is polled instead: intervalMs after an empty answer,
// doubling up to kWatchMaxIdleFactor times that while none come (Watch.cpp).
struct WatchSettings {
    int intervalMs = 500;
    bool unregisterOnExit = false;
};
constexpr int kWatchMaxIdleFactor = 8;
// Long enough that an idle watch costs two requests a minute, short enough
// that a connection that died without a word is noticed within the minute.
constexpr int kWatchWaitMs = 30000;
constexpr int kWatchNoWaitMs = 1000;

// With --server (and --client), also says whether the client is registered,
// without registering anyone.
int runStatus(const Options& options);
int runRegister(const Options& options);
int runUnregister(const Options& options);
// Lists the server's clients without registering anyone.
int runClients(const Options& options);
int runPut(const Options& options, const PutInput& input);
// With waitMs zero or more, the service may hold the fetch that long while no
// event waits (waitForEvents); negative: a plain getEvents.
int runGet(const Options& options, int waitMs);
// Registers, then prints events as they arrive until SIGINT or SIGTERM (exit
// 0) or a failure. Must be called before the process starts any thread, since
// it blocks both signals to wait for them.
int runWatch(const Options& options, const WatchSettings& settings);
// The operator's view through the admin service: every registered client (of
// --server, if given) with what waits for it; evicting one client.
int runAdminClients(const Options& options);
int runAdminEvict(const Options& options);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_COMMANDS_H
