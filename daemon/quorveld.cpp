// quorveld: the Quorvel service as a daemon over HTTP (protocol in
// wire/HttpWire.h). Prints "quorveld listening on HOST:PORT" on standard
// output once it accepts connections, logs one line per request on standard
// error (unless --quiet), and on SIGINT or SIGTERM lets the exchanges under way
// finish and exits 0. Exits 1 when it cannot listen (a port in use: "address
// already in use") or read its token or TLS files, 2 on a usage error. With
// --data DIR the state is kept in an SQLite database in DIR, with --redis URL in
// Redis; either outlives the process. Without them it is kept in memory.
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <thread>
#include <variant>
#include <vector>

#include "daemon/Daemon.h"
#include "daemon/Token.h"
#include "engine/RedisStore.h"
#include "engine/SqliteStore.h"
#include "protocol/Failure.h"

using namespace Arvant::Net::AvQuorvel::Daemon;
namespace Engine = Arvant::Net::AvQuorvel::Engine;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

namespace {

// Read by quorveld, so that the secret stays out of the process list.
const char* const kRedisPasswordVariable = "QUORVEL_REDIS_PASSWORD";
const char* const kEnvironmentHelp =
    "Environment:\n"
    "  QUORVEL_REDIS_PASSWORD  the password of --redis (overrides one in the URL)\n";

// What the command line says, before it is checked.
struct CommandLine {
    DaemonOptions options;
    std::string listen = "127.0.0.1:7070";
    std::size_t workers = 0;
    std::string logLevel = "info";
    std::string logFormat = "text";
    bool quiet = false;
    std::string tokenFile, adminTokenFile;
    std::string idleExpiry;
    std::string dataDirectory, dataSync = "normal", redisUrl;
};

// Start-up ends with this exit code (0 after --help or --version).
struct Exit {
    int code;
};

[[noreturn]] void fail(int code, const std::string& message) {
    std::cerr << "quorveld: " << message << "\n";
    throw Exit{code};
}

// A number option whose default is shown in --help and whose range is checked.
struct NumberOption {
    const char* name;
    std::variant<unsigned*, long*, std::size_t*> value;
    const char* help;
    CLI::Validator range;
};

void addNumbers(CLI::App& app, const std::vector<NumberOption>& table) {
    for (const NumberOption& option : table) {
        std::visit(
            [&](auto* value) {
                app.add_option(option.name, *value, option.help)
                    ->capture_default_str()
                    ->check(option.range);
            },
            option.value);
    }
}

void addServiceOptions(CLI::App& app, CommandLine& line) {
    Engine::ServiceLimits& limits = line.options.limits;
    addNumbers(app, {{"--max-body", &limits.maxBodyBytes, "Largest request body in bytes",
                      CLI::PositiveNumber},
                     {"--max-queued-events", &limits.maxQueuedEventsPerClient,
                      "Most events waiting for one client", CLI::PositiveNumber},
                     {"--max-queued-bytes", &limits.maxQueuedBytesPerClient,
                      "Most bytes of event text waiting for one client", CLI::PositiveNumber},
                     {"--max-stored-bytes", &limits.maxStoredBytes,
                      "Most bytes of event text the store holds in all, each text counted once "
                      "(default: a quarter of the memory)",
                      CLI::PositiveNumber},
                     {"--max-clients-per-server", &limits.maxClientsPerServer,
                      "Most clients registered under one server identifier", CLI::PositiveNumber}});
    app.add_option("--client-idle-expiry", line.idleExpiry,
                   "Unregister clients that have not fetched for this long (e.g. 30m, 12h; "
                   "default: never)");
}

void addServerOptions(CLI::App& app, CommandLine& line) {
    DaemonOptions& options = line.options;
    app.add_option("--listen", line.listen, "HOST:PORT to listen on; port 0 picks a free one")
        ->capture_default_str();
    app.add_option("--workers", line.workers,
                   "Accepted for old command lines and ignored: connections hold no thread")
        ->check(CLI::Range(1, 1024));
    addNumbers(
        app,
        {{"--threads", &options.threads,
          "I/O threads serving every connection (default: the number of cores)",
          CLI::Range(1, 256)},
         {"--store-threads", &options.storeThreads,
          "Threads running the exchanges, each waiting on the store at most", CLI::Range(1, 1024)},
         {"--store-queue", &options.storeQueue,
          "Exchanges that may wait for a store thread; more are answered 503", CLI::PositiveNumber},
         {"--read-timeout-ms", &options.readTimeoutMs,
          "Answer 408 when a client is silent this long in the middle of a request",
          CLI::PositiveNumber},
         {"--request-timeout-ms", &options.requestTimeoutMs,
          "Answer 408 when a request (head and body) takes longer than this", CLI::PositiveNumber},
         {"--keep-alive-s", &options.keepAliveSeconds,
          "Close a connection idle between requests after this many seconds", CLI::Range(1, 3600)},
         {"--max-connections", &options.maxConnections,
          "Most open connections, TLS handshakes included; one past it is closed at once",
          CLI::PositiveNumber},
         {"--tls-handshake-timeout-ms", &options.tlsHandshakeTimeoutMs,
          "Close a TLS connection whose handshake is not done after this", CLI::PositiveNumber},
         {"--max-wait", &options.maxWaitSeconds,
          "Most seconds a fetch waits for an event (longer waits asked for are cut; 0: none "
          "waits)",
          CLI::Range(0, 86400)},
         {"--max-waiters", &options.maxWaiters,
          "Most fetches waiting at once; more are answered at once", CLI::Range(0, 1000000)}});
}

// Text options: a file, a directory, a URL.
struct TextOption {
    const char* name;
    std::string* value;
    const char* help;
};

void addTexts(CLI::App& app, const std::vector<TextOption>& table) {
    for (const TextOption& option : table) {
        app.add_option(option.name, *option.value, option.help);
    }
}

// Files, the data directory and the Redis URL.
void addTextOptions(CLI::App& app, CommandLine& line) {
    addTexts(app, {{"--token-file", &line.tokenFile,
                    "Every request but GET /healthz and /readyz must carry Authorization: "
                    "Bearer <the file's token>"},
                   {"--admin-token-file", &line.adminTokenFile,
                    "Admin requests must carry this file's token (then from any peer); without "
                    "it they are served to loopback peers only"},
                   {"--tls-cert", &line.options.tlsCertificateFile,
                    "Serve HTTPS with this PEM certificate chain (with --tls-key)"},
                   {"--tls-key", &line.options.tlsKeyFile, "The PEM private key of --tls-cert"},
                   {"--data", &line.dataDirectory,
                    "Keep registrations and waiting events in an SQLite database in this "
                    "directory (made 0700 when missing); without it they are kept in memory"},
                   {"--redis", &line.redisUrl,
                    "Keep the state in Redis at redis://[[USER:]PASSWORD@]HOST[:PORT][/DB], "
                    "shared by every daemon started with the same URL"}});
}

void addStoreAndLogOptions(CLI::App& app, CommandLine& line) {
    app.add_option("--data-sync", line.dataSync,
                   "normal: a put answered survives the end of the daemon; full: also a "
                   "power cut, at a far lower rate")
        ->capture_default_str()
        ->check(CLI::IsMember({"normal", "full"}));
    app.add_option("--log-level", line.logLevel, logLevelChoices())
        ->capture_default_str()
        ->check([](const std::string& text) {
            LogLevel level;
            return parseLogLevel(text, level) ? std::string() : "one of " + logLevelChoices();
        });
    app.add_option("--log-format", line.logFormat, "text or json (one object per line)")
        ->capture_default_str()
        ->check(CLI::IsMember({"text", "json"}));
    app.add_flag("--quiet", line.quiet, "No log at all (as --log-level off)");
}

// Throws Exit on --help, --version and usage errors.
CommandLine parseCommandLine(int argc, char** argv) {
    CommandLine line;
    line.options.threads = std::max(1u, std::thread::hardware_concurrency());
    CLI::App app{"quorveld: the Quorvel event service over HTTP/1.1 (POST /quorvel/v1/exchange)."};
    app.set_version_flag("--version", std::string("quorveld ") + QUORVELD_VERSION);
    app.footer(kEnvironmentHelp);
    addServerOptions(app, line);
    addServiceOptions(app, line);
    addTextOptions(app, line);
    addStoreAndLogOptions(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        throw Exit{code == 0 ? 0 : 2};  // --help, --version, or a usage error
    }
    return line;
}

// The usage errors that no single option shows.
void checkCommandLine(CommandLine& line) {
    DaemonOptions& options = line.options;
    std::string error;
    if (!parseListenAddress(line.listen, options.host, options.port, error)) {
        fail(2, error);
    }
    if (options.tlsCertificateFile.empty() != options.tlsKeyFile.empty()) {
        fail(2, "--tls-cert and --tls-key go together.");
    }
    if (!line.dataDirectory.empty() && !line.redisUrl.empty()) {
        fail(2, "--data and --redis exclude each other: the state lives in one store");
    }
    if (!line.idleExpiry.empty() &&
        !parseDuration(line.idleExpiry, options.clientIdleExpiryMs, error)) {
        fail(2, "--client-idle-expiry: " + error);
    }
    parseLogLevel(line.quiet ? "off" : line.logLevel, options.logLevel);
    parseLogFormat(line.logFormat, options.logFormat);
}

// Reads a token file; a file that group or others may read is said in warnings.
void readSecret(const std::string& path, std::string& token, std::vector<std::string>& warnings) {
    std::string error;
    if (!readTokenFile(path, token, error)) {
        fail(1, error);
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
        warnings.push_back("the token file " + path + " has mode " + mode +
                           ": others than its owner may read it (chmod 600 " + path + ")");
    }
}

// The directory of --data is made here, 0700, so that no one else may even list
// it; the store makes its database 0600 in it.
void makeDataDirectory(const std::string& directory) {
    struct stat status {};
    if (::stat(directory.c_str(), &status) == 0) {
        return;
    }
    const std::string parent = directory.substr(0, directory.find_last_of('/'));
    if (parent != directory && !parent.empty()) {
        makeDataDirectory(parent);
    }
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        fail(1, "cannot make the directory " + directory + ": " + std::strerror(errno));
    }
}

std::unique_ptr<Engine::Store> makeStore(const CommandLine& line) {
    const Engine::ServiceLimits& limits = line.options.limits;
    try {
        if (!line.dataDirectory.empty()) {
            makeDataDirectory(line.dataDirectory);
            return std::make_unique<Engine::SqliteStore>(line.dataDirectory, limits,
                                                         line.dataSync == "full"
                                                             ? Engine::SqliteStore::Sync::Full
                                                             : Engine::SqliteStore::Sync::Normal);
        }
        if (!line.redisUrl.empty()) {
            Engine::RedisAddress address;
            std::string error;
            if (!Engine::parseRedisUrl(line.redisUrl, address, error)) {
                fail(2, "--redis: " + error);
            }
            if (const char* password = std::getenv(kRedisPasswordVariable)) {
                address.password = password;
            }
            auto redis = std::make_unique<Engine::RedisStore>(address, limits);
            redis->ping();  // a wrong address shows now, not at the first request
            return redis;
        }
    } catch (const Protocol::Failure& failure) {
        fail(1, failure.message);
    }
    return nullptr;  // memory
}

// Signals the process reacts to, set before any thread starts so that every
// thread inherits them.
sigset_t prepareSignals() {
    // A peer that goes away mid-answer must not kill the daemon.
    signal(SIGPIPE, SIG_IGN);
    // A store file that reaches the file size limit fails that write, which the
    // store reports, instead of ending the daemon.
    signal(SIGXFSZ, SIG_IGN);
    // SIGINT and SIGTERM are taken by one thread with sigwait; every other thread
    // leaves them alone.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // Every connection is a descriptor: take as many as the hard limit allows.
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    return stopSignals;
}

void announce(Daemon& daemon, const DaemonOptions& options) {
    // An IPv6 address in brackets, as a URL wants it.
    const bool v6 = options.host.find(':') != std::string::npos;
    const std::string where =
        (v6 ? "[" : "") + options.host + (v6 ? "]" : "") + ":" + std::to_string(daemon.port());
    std::cout << "quorveld listening on " << where << std::endl;
    daemon.log().message(LogLevel::Info,
                         std::string("quorveld ") + QUORVELD_VERSION + " listening on " + where +
                             (options.tlsCertificateFile.empty() ? "" : " (TLS)") + " with " +
                             std::to_string(options.threads) + " I/O threads, " +
                             std::to_string(options.storeThreads) + " store threads, store " +
                             daemon.describeStore() +
                             (options.token.empty() ? "" : ", token required"));
}

int serve(const CommandLine& line, std::unique_ptr<Engine::Store> store,
          const std::vector<std::string>& warnings) {
    sigset_t stopSignals = prepareSignals();
    Daemon daemon(line.options, stderr, std::move(store));
    for (const std::string& warning : warnings) {
        daemon.log().message(LogLevel::Warn, warning);
    }
    if (line.workers != 0) {
        daemon.log().message(LogLevel::Warn,
                             "--workers is ignored: connections hold no thread; --threads sets "
                             "the I/O threads.");
    }
    std::string error;
    if (!daemon.bind(error)) {
        fail(1, error);
    }
    std::thread signalWaiter([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        daemon.stop();
    });
    announce(daemon, line.options);
    const bool served = daemon.run();
    if (!served) {
        std::cerr << "quorveld: the listening socket failed.\n";
        // Wake the waiter so the process can end.
        pthread_kill(signalWaiter.native_handle(), SIGTERM);
    }
    signalWaiter.join();
    daemon.log().message(LogLevel::Info, "quorveld stopped");
    return served ? 0 : 1;
}

// Events and answers of a few MiB come and go with every exchange. By default
// the heap hands blocks of that size back to the system when they are freed,
// and every next one is faulted in afresh, page by page, which on a virtual
// machine costs more than the copying. Blocks up to kKeptHeapBytes come from
// the heap, and up to that much freed memory per arena stays for reuse.
void keepFreedMemory() {
    constexpr int kKeptHeapBytes = 32 << 20;
    mallopt(M_MMAP_THRESHOLD, kKeptHeapBytes);
    mallopt(M_TRIM_THRESHOLD, kKeptHeapBytes);
}

}  // namespace

int main(int argc, char** argv) {
    keepFreedMemory();
    try {
        CommandLine line = parseCommandLine(argc, argv);
        checkCommandLine(line);
        std::vector<std::string> warnings;
        if (!line.tokenFile.empty()) {
            readSecret(line.tokenFile, line.options.token, warnings);
        }
        if (!line.adminTokenFile.empty()) {
            readSecret(line.adminTokenFile, line.options.adminToken, warnings);
        }
        return serve(line, makeStore(line), warnings);
    } catch (const Exit& exit) {
        return exit.code;
    }
}
