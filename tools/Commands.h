// The tool's subcommands. Each runs in this process against the transport the
// library is linked with (the embedded service by default), prints what came
// back (for a person, or one JSON object with --json) and returns an exit code.
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
    std::string correlationId;  // "Log-Correlation-ID" of get and put

    bool hasIdentity() const { return !server.empty() || !client.empty(); }
};

int runStatus(const Options& options);
int runRegister(const Options& options);
int runUnregister(const Options& options);
int runClients(const Options& options);
// `text` is posted unchanged; "-" has already been replaced by stdin.
int runPut(const Options& options, const std::string& text);
int runGet(const Options& options);

}  // namespace Quorvel

#endif  // AVQVL_TOOLS_COMMANDS_H
