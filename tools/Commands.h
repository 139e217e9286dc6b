// The tool's subcommands. Each runs in this process against the transport the
// library is linked with (the embedded service, or quorveld when QUORVEL_URL is
// set), prints what came back (for a person, or JSON with --json) and returns
// an exit code (Failure.h). Failures are printed here, on standard error, or as
// the JSON result on standard output.
#ifndef AVQVL_TOOLS_COMMANDS_H
#define AVQVL_TOOLS_COMMANDS_H

#include <string>

namespace Quorvel {

struct Options {
    bool json = false;
    // The identity to register under before the operation. Registration lives
    // in the connection, so every run that needs one registers first; with no
    // server and no client the operation runs unregistered.
    std::string server;
    std::string client;
    std::string locale;
    std::string correlationId;  // "Log-Correlation-ID" of get, put and watch

    bool hasIdentity() const { return !server.empty() || !client.empty(); }
};

// What `put` posts: TEXT, or standard input ("-"), whole or one event per line.
struct PutInput {
    std::string text;
    bool standardInput = false;
    bool lines = false;  // one event per line; empty lines are skipped
};

// How `watch` polls: every intervalMs while events arrive, waiting up to
// kWatchMaxIdleFactor times longer (doubling each time) while none do.
struct WatchSettings {
    int intervalMs = 500;
    bool unregisterOnExit = false;
};
constexpr int kWatchMaxIdleFactor = 8;

int runStatus(const Options& options);
int runRegister(const Options& options);
int runUnregister(const Options& options);
// With a server, lists its clients without registering anyone.
int runClients(const Options& options);
int runPut(const Options& options, const PutInput& input);
int runGet(const Options& options);
// Registers, then prints events as they arrive until SIGINT or SIGTERM (exit
// 0) or a failure. Must be called before the process starts any thread, since
// it blocks both signals to wait for them.
int runWatch(const Options& options, const WatchSettings& settings);

}  // namespace Quorvel

#endif  // AVQVL_TOOLS_COMMANDS_H
