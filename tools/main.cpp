// quorvel: the Quorvel service from the command line, through AvQvlCppBinding.
// This file is the command line itself: each subcommand's options, and the
// callback that picks the function of tools/Commands.h to run once parsing ends.
#include <CLI/CLI.hpp>

#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>

#include "client/Version.h"
#include "tools/Commands.h"
#include "tools/Demo.h"
#include "tools/Failure.h"
#include "tools/Report.h"

namespace {

namespace Tools = Arvant::Net::AvQuorvel::Tools;

// Read by the transport library at the first exchange of the process.
const char* const kUrlVariable = "QUORVEL_URL";

const char* const kCommandNames[] = {"status", "register", "unregister", "clients", "put",
                                     "get",    "watch",    "demo",       "admin"};

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
    "as standard input or output failing.\n"
    "Environment: QUORVEL_URL the service (as --url); QUORVEL_TOKEN the bearer token\n"
    "quorveld asks for (admin --admin-token-file sets it); QUORVEL_TIMEOUT_MS how\n"
    "long to wait for an answer (30000); QUORVEL_CONNECT_TIMEOUT_MS how long to wait\n"
    "for a connection (5000); SSL_CERT_FILE and SSL_CERT_DIR the certificate\n"
    "authorities that check an https:// service (default: the system's).";

const char* const kDashNote =
    "A TEXT that starts with '-' goes after '--': quorvel put --server S --client K -- -x";

// What the command line fills in, and what runs once it is parsed.
struct CommandLine {
    Tools::Options options;
    Tools::PutInput putInput;
    Tools::WatchSettings watchSettings;
    int getWaitMs = -1;  // no --wait: a plain fetch
    std::string url;
    std::string correlationId;
    std::function<int()> action;
};

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

// --server and --client; required unless the command only asks about them.
void addIdentity(CLI::App& command, CommandLine& line, bool required, const char* verb) {
    CLI::Option* server = command.add_option("--server", line.options.server,
                                             std::string("Server identifier ") + verb);
    CLI::Option* client = command.add_option("--client", line.options.client,
                                             std::string("Client identifier ") + verb);
    if (required) {
        server->required();
        client->required();
    } else {
        client->needs(server);
    }
}

void addLocale(CLI::App& command, CommandLine& line) {
    command.add_option("--locale", line.options.locale, "Locale sent with the registration");
}

// The default is "quorvel." and the command's name, set when the command runs.
void addCorrelationId(CLI::App& command, CommandLine& line) {
    command.add_option("--correlation-id", line.correlationId, "Log-Correlation-ID to send")
        ->default_str("quorvel." + command.get_name());
}

// The command's callback sets what runs after parsing; `noted` commands say
// when their effect ends with the process.
void onRun(CLI::App& command, CommandLine& line, bool noted, std::function<int()> run) {
    // "admin clients", not "clients", for a subcommand of a subcommand.
    const CLI::App* parent = command.get_parent();
    std::string name = command.get_name();
    if (parent != nullptr && parent->get_parent() != nullptr) {
        name = parent->get_name() + " " + name;
    }
    command.callback([&line, noted, run, name] {
        line.action = [&line, noted, run, name] {
            if (noted) {
                noteEmbeddedService(name.c_str());
            }
            line.options.correlationId =
                line.correlationId.empty() ? "quorvel." + name : line.correlationId;
            return run();
        };
    });
    command.fallthrough();  // `quorvel get --json`: options after the name reach the main app
}

void addStatusAndRegister(CLI::App& app, CommandLine& line) {
    CLI::App* status = app.add_subcommand(
        "status",
        "Check that the service answers (it must echo the status text); with --server and "
        "--client, also whether that client is registered, without registering it.");
    addIdentity(*status, line, false, "to look in");
    status->get_option("--client")->needs("--server");
    status->get_option("--server")->needs("--client");
    onRun(*status, line, false, [&line] { return Tools::runStatus(line.options); });

    CLI::App* registerCommand = app.add_subcommand(
        "register", "Register CLIENT with SERVER and list the clients sharing the service.");
    registerCommand->add_option("SERVER", line.options.server, "Server identifier")->required();
    registerCommand->add_option("CLIENT", line.options.client, "Client identifier")->required();
    addLocale(*registerCommand, line);
    onRun(*registerCommand, line, true, [&line] {
        line.options.serverArgument = "SERVER";
        line.options.clientArgument = "CLIENT";
        return Tools::runRegister(line.options);
    });
}

void addClientCommands(CLI::App& app, CommandLine& line) {
    const std::string registersFirst =
        " Registers with --server/--client first (registration lives in the connection, and "
        "each run has its own).";
    CLI::App* unregister = app.add_subcommand(
        "unregister", "Unregister and list the remaining shared clients." + registersFirst);
    addIdentity(*unregister, line, true, "to register under");
    addLocale(*unregister, line);
    onRun(*unregister, line, true, [&line] { return Tools::runUnregister(line.options); });

    CLI::App* clients = app.add_subcommand(
        "clients",
        "List the clients of --server without registering anyone (--client, if given, is sent "
        "as the asking client).");
    addIdentity(*clients, line, false, "to list");
    clients->get_option("--server")->required();
    onRun(*clients, line, true, [&line] { return Tools::runClients(line.options); });

    CLI::App* get = app.add_subcommand(
        "get",
        "Fetch the events waiting for the client: the raw text and, when it is an events "
        "document, a listing." +
            registersFirst);
    addIdentity(*get, line, true, "to register under");
    addLocale(*get, line);
    addCorrelationId(*get, line);
    get->add_option("--wait", line.getWaitMs,
                    "Milliseconds the service may hold the fetch until an event arrives "
                    "(quorveld cuts it to its --max-wait; a service that cannot wait answers at "
                    "once)")
        ->check(CLI::Range(0, 2147483647));
    onRun(*get, line, true, [&line] { return Tools::runGet(line.options, line.getWaitMs); });
}

void addPut(CLI::App& app, CommandLine& line) {
    CLI::App* put = app.add_subcommand(
        "put", std::string("Post TEXT as events (\"-\" reads standard input, posted byte for "
                           "byte; text that is not valid in the local code page, or holds a NUL "
                           "byte, is refused). Registers with --server/--client first. ") +
                   kDashNote + ".");
    put->add_option("TEXT", line.putInput.text, "The events text, or - for standard input")
        ->required();
    put->add_flag("--lines", line.putInput.lines,
                  "Post one event per line (empty lines skipped), as the lines arrive");
    addIdentity(*put, line, true, "to register under");
    addLocale(*put, line);
    addCorrelationId(*put, line);
    onRun(*put, line, true, [&line] {
        line.putInput.standardInput = line.putInput.text == "-";
        return Tools::runPut(line.options, line.putInput);
    });
}

void addWatchAndDemo(CLI::App& app, CommandLine& line) {
    CLI::App* watch = app.add_subcommand(
        "watch",
        "Register, then print each event as it arrives (a line each; JSON Lines with --json), "
        "until SIGINT or SIGTERM. Each fetch lets the service wait up to " +
            std::to_string(Tools::kWatchWaitMs / 1000) +
            " s for an event, so events show as they are posted.");
    addIdentity(*watch, line, true, "to register under");
    addLocale(*watch, line);
    watch
        ->add_option("--interval", line.watchSettings.intervalMs,
                     "For a service that cannot wait (it answers an empty fetch at once): "
                     "milliseconds between fetches, doubling up to " +
                         std::to_string(Tools::kWatchMaxIdleFactor) + " times while none come")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600000));
    watch->add_flag("--unregister", line.watchSettings.unregisterOnExit, "Unregister on exit");
    addCorrelationId(*watch, line);
    onRun(*watch, line, true,
          [&line] { return Tools::runWatch(line.options, line.watchSettings); });

    CLI::App* demo = app.add_subcommand(
        "demo",
        "Run a short scenario: three clients register, post, fetch and unregister. On a daemon "
        "(--url or QUORVEL_URL) it uses a server of its own and leaves no client registered.");
    onRun(*demo, line, false, [] { return Tools::runDemo(); });
}

void addAdmin(CLI::App& app, CommandLine& line) {
    CLI::App* admin = app.add_subcommand(
        "admin",
        "The operator's view of the service: every registered client, and evicting one. "
        "quorveld serves it to loopback peers, or to anyone with its admin token.");
    admin->require_subcommand(1);
    admin->fallthrough();
    admin->add_option("--admin-token-file", line.options.adminTokenFile,
                      "File whose first line is quorveld's admin token (sent as QUORVEL_TOKEN)");
    CLI::App* clients = admin->add_subcommand(
        "clients",
        "List the registered clients (of --server, or of every server): waiting "
        "events and bytes, last fetch and registration time (UTC).");
    clients->add_option("--server", line.options.server, "Only the clients of this server");
    onRun(*clients, line, true, [&line] { return Tools::runAdminClients(line.options); });
    CLI::App* evict = admin->add_subcommand(
        "evict", "Unregister a client on the operator's behalf and list the server's others.");
    addIdentity(*evict, line, true, "to evict");
    onRun(*evict, line, true, [&line] { return Tools::runAdminEvict(line.options); });
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

// Every usage error is printed as the commands print their failures, with a
// hint where CLI11's own message would mislead.
int reportParseError(const FirstLook& look, const CLI::ParseError& e) {
    const bool known = look.hasCommand && isCommandName(look.command);
    std::string message = e.what();
    if (look.hasCommand && !known) {
        message = "unknown command \"" + look.command + "\"; the commands are " + commandList() +
                  " (quorvel --help)";
    } else if (known && look.command == "put" &&
               (message.find("TEXT") != std::string::npos ||
                message.find("not expected") != std::string::npos)) {
        // Most likely a TEXT that starts with '-', taken for an option.
        message += std::string(" (") + kDashNote + ")";
    }
    return Tools::reportToolError(known ? look.command.c_str() : nullptr, look.json,
                                  Tools::kExitUsage, "UsageError", message);
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
    if (!failed || code == Tools::kExitInternal) {
        return code;  // a command that stopped on failing output has said so already
    }
    std::cerr << "error: cannot write standard output: " << std::strerror(error != 0 ? error : EIO)
              << std::endl;
    return code == Tools::kExitOk ? Tools::kExitInternal : code;
}

int run(int argc, char** argv) {
    CLI::App app{"quorvel: talk to the Quorvel event service through AvQvlCppBinding."};
    app.footer(kFooter);
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("quorvel ") + AVQVL_VERSION_STRING,
                         "Print the version and exit");
    CommandLine line;
    app.add_flag("--json", line.options.json, "Print JSON instead of text");
    app.add_option("--url", line.url,
                   "The service to talk to, e.g. http://127.0.0.1:7070 (takes precedence over "
                   "QUORVEL_URL; without either, a service inside this process)");
    addStatusAndRegister(app, line);
    addClientCommands(app, line);
    addPut(app, line);
    addWatchAndDemo(app, line);
    addAdmin(app, line);

    const FirstLook look = firstLook(argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {  // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return reportParseError(look, e);
    }
    if (!line.url.empty()) {
        // Before any connection exists: the transport reads it at the first exchange.
        ::setenv(kUrlVariable, line.url.c_str(), 1);
    }
    return line.action ? line.action() : Tools::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    return finishOutput(run(argc, argv));
}
