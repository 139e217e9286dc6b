// quorveld: the Quorvel service as a daemon over HTTP (protocol in
// transport/HttpWire.h). Prints "quorveld listening on HOST:PORT" on standard
// output once it accepts connections, logs one line per request on standard
// error (unless --quiet), and on SIGINT or SIGTERM lets the exchanges under way
// finish and exits 0. With --data DIR the state is kept in an SQLite database in
// DIR and outlives the process; without it, in memory.
#include <pthread.h>
#include <signal.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <memory>
#include <thread>

#include "daemon/Daemon.h"
#include "engine/RedisStore.h"
#include "engine/SqliteStore.h"

using Arvant::Net::AvQuorvel::Daemon::Daemon;
using Arvant::Net::AvQuorvel::Daemon::DaemonOptions;
using Arvant::Net::AvQuorvel::Daemon::parseListenAddress;
namespace Engine = Arvant::Net::AvQuorvel::Engine;

int main(int argc, char** argv) {
    DaemonOptions options;
    std::string listen = "127.0.0.1:7070";
    CLI::App app{"quorveld: the Quorvel event service over HTTP/1.1 (POST /quorvel/v1/exchange)."};
    app.add_option("--listen", listen, "HOST:PORT to listen on; port 0 picks a free one")
        ->capture_default_str();
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
    app.add_option("--workers", options.workers,
                   "Worker threads; each serves one connection at a time")
        ->capture_default_str()
        ->check(CLI::Range(1, 1024));
    app.add_option("--read-timeout-ms", options.readTimeoutMs,
                   "Close a connection that sends nothing for this long")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--request-timeout-ms", options.requestTimeoutMs,
                   "Answer 408 when a request body takes longer than this")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--keep-alive-s", options.keepAliveSeconds,
                   "Close an idle kept-alive connection after this many seconds")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
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
    app.add_flag("--quiet", options.quiet, "No log line per request");
    std::string redisUrl;
    app.add_option("--redis", redisUrl,
                   "Keep the state in Redis at redis://HOST[:PORT][/DB], shared by every daemon "
                   "started with the same URL");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;  // --help, or a usage error like a bad --listen
    }

    std::string error;
    if (!parseListenAddress(listen, options.host, options.port, error)) {
        std::cerr << "quorveld: " << error << "\n";
        return 2;
    }

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
        } catch (const Engine::StoreFailure& failure) {
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
        } catch (const Engine::StoreFailure& failure) {
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
    // (the workers inherit this mask) leaves them alone.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Daemon daemon(options, stderr, std::move(store));
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
    std::cout << "quorveld listening on " << (v6 ? "[" : "") << options.host << (v6 ? "]" : "")
              << ":" << daemon.port() << std::endl;

    const bool served = daemon.run();
    if (!served) {
        std::cerr << "quorveld: the listening socket failed.\n";
        // Wake the waiter so the process can end.
        pthread_kill(signalWaiter.native_handle(), SIGTERM);
    }
    signalWaiter.join();
    if (!options.quiet) {
        std::cerr << "quorveld stopped\n";
    }
    return served ? 0 : 1;
}
