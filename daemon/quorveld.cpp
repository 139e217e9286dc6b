// quorveld: the Quorvel service as a daemon over HTTP (protocol in
// wire/HttpWire.h). Prints "quorveld listening on HOST:PORT" on standard
// output once it accepts connections, logs one line per request on standard
// error (unless --quiet), and on SIGINT or SIGTERM lets the exchanges under way
// finish and exits 0. Exits 1 when it cannot listen (a port in use: "address
// already in use") or read its token or TLS files, 2 on a usage error. With
// --data DIR the state is kept in an SQLite database in DIR, with --redis URL in
// Redis; either outlives the process. Without them it is kept in memory.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <memory>
#include <thread>

#include "daemon/Daemon.h"
#include "daemon/Token.h"
#include "engine/RedisStore.h"
#include "engine/SqliteStore.h"
#include "protocol/Failure.h"

using namespace Arvant::Net::AvQuorvel::Daemon;
namespace Engine = Arvant::Net::AvQuorvel::Engine;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

namespace {

// Every connection is a descriptor: take as many as the hard limit allows.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char** argv) {
    DaemonOptions options;
    options.threads = std::max(1u, std::thread::hardware_concurrency());
    std::string listen = "127.0.0.1:7070";
    std::size_t workers = 0;
    std::string logLevel = "info";
    std::string logFormat = "text";
    bool quiet = false;
    std::string tokenFile;
    CLI::App app{"quorveld: the Quorvel event service over HTTP/1.1 (POST /quorvel/v1/exchange)."};
    app.set_version_flag("--version", std::string("quorveld ") + QUORVELD_VERSION);
    app.add_option("--listen", listen, "HOST:PORT to listen on; port 0 picks a free one")
        ->capture_default_str();
    app.add_option("--threads", options.threads,
                   "I/O threads serving every connection (default: the number of cores)")
        ->capture_default_str()
        ->check(CLI::Range(1, 256));
    app.add_option("--workers", workers,
                   "Accepted for old command lines and ignored: connections hold no thread")
        ->check(CLI::Range(1, 1024));
    app.add_option("--max-body", options.limits.maxBodyBytes, "Largest request body in bytes")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--max-queued-events", options.limits.maxQueuedEventsPerClient,
                   "Most events waiting for one client")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--max-queued-bytes", options.limits.maxQueuedBytesPerClient,
                   "Most bytes of event text waiting for one client")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--max-clients-per-server", options.limits.maxClientsPerServer,
                   "Most clients registered under one server identifier")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--read-timeout-ms", options.readTimeoutMs,
                   "Answer 408 when a client is silent this long in the middle of a request")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--request-timeout-ms", options.requestTimeoutMs,
                   "Answer 408 when a request (head and body) takes longer than this")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--keep-alive-s", options.keepAliveSeconds,
                   "Close a connection idle between requests after this many seconds")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    app.add_option("--max-connections", options.maxConnections,
                   "Most open connections, TLS handshakes included; one past it is closed at once")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--tls-handshake-timeout-ms", options.tlsHandshakeTimeoutMs,
                   "Close a TLS connection whose handshake is not done after this")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--token-file", tokenFile,
                   "Every request but GET /healthz must carry Authorization: Bearer <the "
                   "file's token>");
    app.add_option("--tls-cert", options.tlsCertificateFile,
                   "Serve HTTPS with this PEM certificate chain (with --tls-key)");
    app.add_option("--tls-key", options.tlsKeyFile, "The PEM private key of --tls-cert");
    app.add_option("--log-level", logLevel, "debug, info, warn, error or off")
        ->capture_default_str()
        ->check(CLI::IsMember({"debug", "info", "warn", "error", "off"}));
    app.add_option("--log-format", logFormat, "text or json (one object per line)")
        ->capture_default_str()
        ->check(CLI::IsMember({"text", "json"}));
    app.add_flag("--quiet", quiet, "No log at all (as --log-level off)");
    std::string dataDirectory;
    app.add_option("--data", dataDirectory,
                   "Keep registrations and waiting events in an SQLite database in this "
                   "directory (made when missing); without it they are kept in memory");
    std::string dataSync = "normal";
    app.add_option("--data-sync", dataSync,
                   "normal: a put answered survives the end of the daemon; full: also a "
                   "power cut, at a far lower rate")
        ->capture_default_str()
        ->check(CLI::IsMember({"normal", "full"}));
    std::string redisUrl;
    app.add_option("--redis", redisUrl,
                   "Keep the state in Redis at redis://HOST[:PORT][/DB], shared by every daemon "
                   "started with the same URL");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;  // --help, --version, or a usage error
    }

    std::string error;
    if (!parseListenAddress(listen, options.host, options.port, error)) {
        std::cerr << "quorveld: " << error << "\n";
        return 2;
    }
    if (options.tlsCertificateFile.empty() != options.tlsKeyFile.empty()) {
        std::cerr << "quorveld: --tls-cert and --tls-key go together.\n";
        return 2;
    }
    parseLogLevel(quiet ? "off" : logLevel, options.logLevel);
    parseLogFormat(logFormat, options.logFormat);
    if (!tokenFile.empty() && !readTokenFile(tokenFile, options.token, error)) {
        std::cerr << "quorveld: " << error << "\n";
        return 1;
    }
    raiseDescriptorLimit();

    if (!dataDirectory.empty() && !redisUrl.empty()) {
        std::cerr << "quorveld: --data and --redis exclude each other: the state lives in one "
                     "store\n";
        return 2;
    }
    std::unique_ptr<Engine::Store> store;
    if (!dataDirectory.empty()) {
        try {
            store = std::make_unique<Engine::SqliteStore>(dataDirectory, options.limits,
                                                          dataSync == "full"
                                                              ? Engine::SqliteStore::Sync::Full
                                                              : Engine::SqliteStore::Sync::Normal);
        } catch (const Protocol::Failure& failure) {
            std::cerr << "quorveld: " << failure.message << "\n";
            return 1;
        }
    }
    if (!redisUrl.empty()) {
        Engine::RedisAddress address;
        if (!Engine::parseRedisUrl(redisUrl, address, error)) {
            std::cerr << "quorveld: --redis: " << error << "\n";
            return 2;
        }
        auto redis = std::make_unique<Engine::RedisStore>(address, options.limits);
        try {
            redis->ping();  // a wrong address shows now, not at the first request
        } catch (const Protocol::Failure& failure) {
            std::cerr << "quorveld: " << failure.message << "\n";
            return 1;
        }
        store = std::move(redis);
    }

    // A peer that goes away mid-answer must not kill the daemon.
    signal(SIGPIPE, SIG_IGN);
    // A store file that reaches the file size limit fails that write, which the
    // store reports, instead of ending the daemon.
    signal(SIGXFSZ, SIG_IGN);
    // SIGINT and SIGTERM are taken by one thread with sigwait; every other thread
    // (the I/O threads inherit this mask) leaves them alone.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Daemon daemon(options, stderr, std::move(store));
    if (workers != 0) {
        daemon.log().message(LogLevel::Warn,
                             "--workers is ignored: connections hold no thread; --threads sets "
                             "the I/O threads.");
    }
    if (!daemon.bind(error)) {
        std::cerr << "quorveld: " << error << "\n";
        return 1;
    }
    std::thread signalWaiter([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        daemon.stop();
    });
    // An IPv6 address in brackets, as a URL wants it.
    const bool v6 = options.host.find(':') != std::string::npos;
    const std::string where =
        (v6 ? "[" : "") + options.host + (v6 ? "]" : "") + ":" + std::to_string(daemon.port());
    std::cout << "quorveld listening on " << where << std::endl;
    daemon.log().message(LogLevel::Info,
                         std::string("quorveld ") + QUORVELD_VERSION + " listening on " + where +
                             (options.tlsCertificateFile.empty() ? "" : " (TLS)") + " with " +
                             std::to_string(options.threads) + " I/O threads" +
                             (options.token.empty() ? "" : ", token required"));

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
