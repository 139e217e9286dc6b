// quorvel: the Quorvel service from the command line, through AvQvlCppBinding.
#include <CLI/CLI.hpp>

#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "Commands.h"
#include "Demo.h"
#include "Failure.h"
#include "Report.h"
#include "client/Version.h"

namespace {

using Quorvel::Options;

// Read by the transport library at the first exchange of the process.
const char* const kUrlVariable = "QUORVEL_URL";

const char* const kCommandNames[] = {"status", "register", "unregister", "clients",
                                     "put",    "get",      "watch",      "demo"};

const char* const kFooter =
    "Every run is its own process with its own connection: commands that need a\n"
    "registered client take --server and --client and register first.\n"
    "Without --url or QUORVEL_URL each run has a service of its own inside the\n"
    "process, which ends with it; start quorveld to share one between runs.\n"
    "--json (before or after the subcommand) prints JSON on standard output,\n"
    "failures and usage errors included.\n"
    "Exit codes: 0 success; 1 the library or the service reported a failure (the\n"
    "error line names the exception's class, type code and message); 2 usage error,\n"
    "or input that is not valid in the local code page; 3 any other failure, such\n"
    "as standard input or output failing.";

const char* const kIdentityNote =
    "Registers with --server/--client first (registration lives in the connection, and each run "
    "has its own); without them the operation runs unregistered.";

const char* const kDashNote =
    "A TEXT that starts with '-' goes after '--': quorvel put --server S --client K -- -x";

void addIdentityOptions(CLI::App& command, Options& options, bool clientOptional = false) {
    CLI::Option* server =
        command.add_option("--server", options.server, "Server identifier to register under");
    CLI::Option* client =
        command.add_option("--client", options.client, "Client identifier to register as");
    if (!clientOptional) {
        server->needs(client);
    }
    client->needs(server);
    command.add_option("--locale", options.locale, "Locale sent with the registration")
        ->needs(server);
}

bool isCommandName(const std::string& word) {
    for (const char* name : kCommandNames) {
        if (word == name) {
            return true;
        }
    }
    return false;
}

std::string commandList() {
    std::string list;
    for (const char* name : kCommandNames) {
        list += (list.empty() ? "" : ", ") + std::string(name);
    }
    return list;
}

// What the command line says before it is parsed: --json anywhere before
// "--", and the first word that is not an option (the subcommand, or what
// stands in its place). Only --url takes a value among the global options.
struct FirstLook {
    bool json = false;
    std::string command;
    bool hasCommand = false;
};

FirstLook firstLook(int argc, char** argv) {
    FirstLook look;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            break;
        }
        if (arg == "--json") {
            look.json = true;
        } else if (arg == "--url") {
            ++i;
        } else if (!look.hasCommand && (arg.empty() || arg[0] != '-')) {
            look.command = arg;
            look.hasCommand = true;
        }
    }
    return look;
}

// One line on standard error when a command's effect dies with the process.
void noteEmbeddedService(const char* command) {
    const char* url = ::getenv(kUrlVariable);
    if (url != nullptr && *url != '\0') {
        return;
    }
    std::cerr << "quorvel: note: no --url or QUORVEL_URL, so " << command
              << " ran on a service inside this process, which ends with it; to keep the effect, "
                 "start quorveld (quorveld --listen 127.0.0.1:7070) and pass --url "
                 "http://127.0.0.1:7070"
              << std::endl;
}

// Standard output is checked once at the end: a full disk or a closed pipe
// turns a success into exit 3 with the system's message.
int finishOutput(int code) {
    errno = 0;  // flushing std::cout flushes stdout, whose failure sets errno
    std::cout.flush();
    bool failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
    int error = errno;
    if (std::fclose(stdout) != 0 && !failed) {
        failed = true;
        error = errno;
    }
    if (!failed || code == Quorvel::kExitInternal) {
        return code;  // a command that stopped on failing output has said so already
    }
    std::cerr << "error: cannot write standard output: " << std::strerror(error != 0 ? error : EIO)
              << std::endl;
    return code == Quorvel::kExitOk ? Quorvel::kExitInternal : code;
}

int run(int argc, char** argv) {
    CLI::App app{"quorvel: talk to the Quorvel event service through AvQvlCppBinding."};
    app.footer(kFooter);
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("quorvel ") + AVQVL_VERSION_STRING,
                         "Print the version and exit");
    Options options;
    app.add_flag("--json", options.json, "Print JSON instead of text");
    std::string url;
    app.add_option("--url", url,
                   "The service to talk to, e.g. http://127.0.0.1:7070 (takes precedence over "
                   "QUORVEL_URL; without either, a service inside this process)");

    CLI::App* status = app.add_subcommand(
        "status", "Check that the service answers (it must echo the status text).");
    addIdentityOptions(*status, options);

    CLI::App* registerCommand = app.add_subcommand(
        "register", "Register CLIENT with SERVER and list the clients sharing the service.");
    registerCommand->add_option("SERVER", options.server, "Server identifier")->required();
    registerCommand->add_option("CLIENT", options.client, "Client identifier")->required();
    registerCommand->add_option("--locale", options.locale, "Locale sent with the registration");

    CLI::App* unregister = app.add_subcommand(
        "unregister",
        std::string("Unregister and list the remaining shared clients. ") + kIdentityNote);
    addIdentityOptions(*unregister, options);

    CLI::App* clients = app.add_subcommand(
        "clients",
        "List the clients of --server without registering anyone (--client, if given, is sent "
        "as the asking client). Without --server the listing runs unregistered and is refused.");
    addIdentityOptions(*clients, options, true);

    Quorvel::PutInput putInput;
    CLI::App* put = app.add_subcommand(
        "put", std::string("Post TEXT as events (\"-\" reads standard input, posted byte for "
                           "byte; text that is not valid in the local code page, or holds a NUL "
                           "byte, is refused). ") +
                   kIdentityNote + " " + kDashNote + ".");
    put->add_option("TEXT", putInput.text, "The events text, or - for standard input")->required();
    put->add_flag("--lines", putInput.lines,
                  "Post one event per line (empty lines skipped), as the lines arrive");
    addIdentityOptions(*put, options);
    std::string putCorrelationId = "quorvel.put";
    put->add_option("--correlation-id", putCorrelationId, "Log-Correlation-ID to send")
        ->capture_default_str();

    CLI::App* get = app.add_subcommand(
        "get", std::string("Fetch the events waiting for the client: the raw text and, when it "
                           "is an events document, a listing. ") +
                   kIdentityNote);
    addIdentityOptions(*get, options);
    std::string getCorrelationId = "quorvel.get";
    get->add_option("--correlation-id", getCorrelationId, "Log-Correlation-ID to send")
        ->capture_default_str();

    Quorvel::WatchSettings watchSettings;
    CLI::App* watch = app.add_subcommand(
        "watch",
        "Register, then print each event as it arrives (a line each; JSON Lines with --json), "
        "until SIGINT or SIGTERM. Fetches every --interval while events come, waiting up to " +
            std::to_string(Quorvel::kWatchMaxIdleFactor) + " times longer while none do.");
    watch->add_option("--server", options.server, "Server identifier to register under")
        ->required();
    watch->add_option("--client", options.client, "Client identifier to register as")->required();
    watch->add_option("--locale", options.locale, "Locale sent with the registration");
    watch->add_option("--interval", watchSettings.intervalMs, "Milliseconds between fetches")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600000));
    watch->add_flag("--unregister", watchSettings.unregisterOnExit, "Unregister on exit");
    std::string watchCorrelationId = "quorvel.watch";
    watch->add_option("--correlation-id", watchCorrelationId, "Log-Correlation-ID to send")
        ->capture_default_str();

    CLI::App* demo = app.add_subcommand(
        "demo", "Run a short scenario: three clients register, post, fetch and unregister.");

    // Options given after the subcommand name (e.g. `quorvel get --json`) reach the main app.
    for (CLI::App* command :
         {status, registerCommand, unregister, clients, put, get, watch, demo}) {
        command->fallthrough();
    }

    const FirstLook look = firstLook(argc, argv);
    const char* commandName =
        look.hasCommand && isCommandName(look.command) ? look.command.c_str() : nullptr;
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {  // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::string message = e.what();
        if (look.hasCommand && commandName == nullptr) {
            message = "unknown command \"" + look.command + "\"; the commands are " +
                      commandList() + " (quorvel --help)";
        } else if (commandName != nullptr && std::strcmp(commandName, "put") == 0 &&
                   (message.find("TEXT") != std::string::npos ||
                    message.find("not expected") != std::string::npos)) {
            // Most likely a TEXT that starts with '-', taken for an option.
            message += std::string(" (") + kDashNote + ")";
        }
        if (look.json || message != e.what()) {
            return Quorvel::reportToolError(commandName, look.json, Quorvel::kExitUsage,
                                            "UsageError", message);
        }
        app.exit(e);
        return Quorvel::kExitUsage;
    }

    if (!url.empty()) {
        // Before any connection exists: the transport reads it at the first exchange.
        ::setenv(kUrlVariable, url.c_str(), 1);
    }
    if (*status) {
        return Quorvel::runStatus(options);
    }
    if (*registerCommand) {
        noteEmbeddedService("register");
        return Quorvel::runRegister(options);
    }
    if (*unregister) {
        noteEmbeddedService("unregister");
        return Quorvel::runUnregister(options);
    }
    if (*clients) {
        noteEmbeddedService("clients");
        return Quorvel::runClients(options);
    }
    if (*put) {
        noteEmbeddedService("put");
        options.correlationId = putCorrelationId;
        putInput.standardInput = putInput.text == "-";
        return Quorvel::runPut(options, putInput);
    }
    if (*get) {
        noteEmbeddedService("get");
        options.correlationId = getCorrelationId;
        return Quorvel::runGet(options);
    }
    if (*watch) {
        noteEmbeddedService("watch");
        options.correlationId = watchCorrelationId;
        return Quorvel::runWatch(options, watchSettings);
    }
    if (*demo) {
        return Quorvel::runDemo();
    }
    return Quorvel::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    return finishOutput(run(argc, argv));
}
