// quorvel: the Quorvel service from the command line, through AvQvlCppBinding.
#include <CLI/CLI.hpp>

#include <iostream>
#include <sstream>
#include <string>

#include "Commands.h"
#include "Demo.h"
#include "Failure.h"

namespace {

using Quorvel::Options;

const char* const kFooter =
    "Every run is its own process with its own connection: commands that need a\n"
    "registered client take --server and --client and register first.\n"
    "--json (before or after the subcommand) prints one JSON object on standard\n"
    "output, failures included.\n"
    "Exit codes: 0 success; 1 the library or the service reported a failure (the\n"
    "error line names the exception's class, type code and message); 2 usage error;\n"
    "3 any other failure.";

const char* const kIdentityNote =
    "Registers with --server/--client first (registration lives in the connection, and each run "
    "has its own); without them the operation runs unregistered.";

void addIdentityOptions(CLI::App& command, Options& options) {
    CLI::Option* server =
        command.add_option("--server", options.server, "Server identifier to register under");
    CLI::Option* client =
        command.add_option("--client", options.client, "Client identifier to register as");
    server->needs(client);
    client->needs(server);
    command.add_option("--locale", options.locale, "Locale sent with the registration")
        ->needs(server);
}

bool readAll(std::istream& in, std::string& text) {
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"quorvel: talk to the Quorvel event service through AvQvlCppBinding."};
    app.footer(kFooter);
    app.require_subcommand(1);
    Options options;
    app.add_flag("--json", options.json, "Print one JSON object instead of text");

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
        "clients", std::string("List the clients sharing the service. ") + kIdentityNote);
    addIdentityOptions(*clients, options);

    std::string putText;
    CLI::App* put = app.add_subcommand(
        "put", std::string("Post TEXT as events (\"-\" reads standard input, posted byte for "
                           "byte; a text holding a NUL byte is refused). ") +
                   kIdentityNote);
    put->add_option("TEXT", putText, "The events text, or - for standard input")->required();
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

    CLI::App* demo = app.add_subcommand(
        "demo", "Run a short scenario: three clients register, post, fetch and unregister.");

    // Options given after the subcommand name (e.g. `quorvel get --json`) reach the main app.
    for (CLI::App* command : {status, registerCommand, unregister, clients, put, get, demo}) {
        command->fallthrough();
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {  // --help
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return Quorvel::kExitUsage;
    }

    if (*status) {
        return Quorvel::runStatus(options);
    }
    if (*registerCommand) {
        return Quorvel::runRegister(options);
    }
    if (*unregister) {
        return Quorvel::runUnregister(options);
    }
    if (*clients) {
        return Quorvel::runClients(options);
    }
    if (*put) {
        options.correlationId = putCorrelationId;
        if (putText == "-" && !readAll(std::cin, putText)) {
            std::cerr << "error: cannot read standard input" << std::endl;
            return Quorvel::kExitInternal;
        }
        // The library hands the body over as NUL-terminated text and would drop
        // what follows a NUL byte, so such a text is refused, not cut short.
        const std::size_t nul = putText.find('\0');
        if (nul != std::string::npos) {
            std::cerr << "error: the events text holds a NUL byte (at byte " << nul
                      << "), which cannot be posted" << std::endl;
            return Quorvel::kExitUsage;
        }
        return Quorvel::runPut(options, putText);
    }
    if (*get) {
        options.correlationId = getCorrelationId;
        return Quorvel::runGet(options);
    }
    if (*demo) {
        return Quorvel::runDemo();
    }
    return Quorvel::kExitUsage;
}
