#include "daemon/HttpServer.h"

#include <openssl/ssl.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "daemon/Log.h"
#include "daemon/internal/Connection.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

namespace {

// How long accepting pauses when the process is out of descriptors (or
// memory): without it the loop would spin on the pending connection.
constexpr std::chrono::milliseconds kAcceptRetry{50};

std::string describe(const std::string& host, int port) {
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

}  // namespace

// One io_context per I/O thread, each connection on one of them: a handler a
// connection posts for itself (a woken wait, a timer) runs on the thread that
// posted it, with no wake-up of another thread. On a virtual machine such a
// wake-up can cost more than the rest of a round trip, and one io_context
// shared by every thread hands handlers between threads all the time.
struct HttpServer::Impl {
    using WorkGuard = asio::executor_work_guard<asio::io_context::executor_type>;

    Impl(const ServerOptions& options, HttpHandler& handler)
        : options(options), core(options.limits, handler, options.log), io(makeContexts(options)) {
        for (auto& context : io) {
            busy.emplace_back(context->get_executor());
        }
    }

    static std::vector<std::unique_ptr<asio::io_context>> makeContexts(
        const ServerOptions& options) {
        std::vector<std::unique_ptr<asio::io_context>> made(std::max(1u, options.threads));
        for (auto& context : made) {
            context = std::make_unique<asio::io_context>(1);
        }
        return made;
    }
    // The context of the next connection, in turn.
    asio::io_context& nextContext() { return *io[accepted++ % io.size()]; }

    bool loadTls(std::string& error);
    void accept();
    // Accepts again after kAcceptRetry.
    void acceptLater() noexcept;

    const ServerOptions options;
    ServerCore core;  // outlives the connections the I/O context destroys
    std::unique_ptr<asio::ssl::context> tls;
    const std::vector<std::unique_ptr<asio::io_context>> io;
    // Keep every context running until stop(), connections or not.
    std::mutex busyMutex;  // guards busy
    std::vector<WorkGuard> busy;
    std::size_t accepted = 0;  // on the acceptor's strand
    tcp::acceptor acceptor{asio::make_strand(*io.front())};
    asio::steady_timer acceptPause{acceptor.get_executor()};
    int boundPort = -1;
};

bool HttpServer::Impl::loadTls(std::string& error) {
    if (options.tlsCertificateFile.empty() && options.tlsKeyFile.empty()) {
        return true;
    }
    if (options.tlsCertificateFile.empty() || options.tlsKeyFile.empty()) {
        error = "TLS needs both a certificate file and a key file.";
        return false;
    }
    tls = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
    tls->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                     asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                     asio::ssl::context::no_tlsv1_1 | asio::ssl::context::single_dh_use);
    // An idle connection gives its record buffers back, and the session cache
    // (stateful resumption; tickets need none) cannot grow with the clients.
    SSL_CTX_set_mode(tls->native_handle(), SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(tls->native_handle(), SSL_SESS_CACHE_OFF);
    error_code ec;
    tls->use_certificate_chain_file(options.tlsCertificateFile, ec);
    if (ec) {
        error = "Cannot load the TLS certificate " + options.tlsCertificateFile + ": " +
                ec.message() + ".";
        return false;
    }
    tls->use_private_key_file(options.tlsKeyFile, asio::ssl::context::pem, ec);
    if (ec || SSL_CTX_check_private_key(tls->native_handle()) != 1) {
        error = "Cannot use the TLS key " + options.tlsKeyFile + ": " +
                (ec ? ec.message() : std::string("it does not match the certificate")) + ".";
        return false;
    }
    return true;
}

void HttpServer::Impl::accept() {
    acceptor.async_accept(
        asio::make_strand(nextContext()), [this](error_code ec, tcp::socket socket) {
            if (core.stopping || ec == asio::error::operation_aborted || !acceptor.is_open()) {
                return;
            }
            // Nothing thrown may leave the handler: it would end io_context::run.
            try {
                if (ec) {  // out of descriptors or memory: the pending connection waits
                    acceptLater();
                    return;
                }
                if (core.openConnections() >= options.limits.maxConnections) {
                    error_code ignored;
                    socket.close(ignored);  // past the cap: the client sees its connection closed
                } else {
                    startConnection(core, std::move(socket), tls.get());
                }
                accept();
            } catch (const std::exception& e) {
                core.note(LogLevel::Error, std::string("cannot accept a connection: ") + e.what());
                acceptLater();
            }
        });
}

void HttpServer::Impl::acceptLater() noexcept {
    try {
        acceptPause.expires_after(kAcceptRetry);
        acceptPause.async_wait([this](error_code waited) {
            if (!waited && !core.stopping) {
                try {
                    accept();
                } catch (const std::exception&) {
                    acceptLater();
                }
            }
        });
    } catch (const std::exception& e) {
        core.note(LogLevel::Error, std::string("accepting stopped: ") + e.what());
    }
}

HttpServer::HttpServer(const ServerOptions& options, HttpHandler& handler)
    : impl(new Impl(options, handler)) {}

HttpServer::~HttpServer() = default;

bool HttpServer::bind(const std::string& host, int port, std::string& error) {
    if (!impl->loadTls(error)) {
        return false;
    }
    const std::string where = describe(host, port);
    error_code ec;
    tcp::resolver resolver(*impl->io.front());
    const auto endpoints = resolver.resolve(
        host, std::to_string(port), tcp::resolver::passive | tcp::resolver::numeric_service, ec);
    if (ec || endpoints.empty()) {
        error = "Cannot listen on " + where + ": " +
                (ec ? ec.message() : std::string("no such address")) + ".";
        return false;
    }
    const tcp::endpoint endpoint = *endpoints.begin();
    tcp::acceptor& acceptor = impl->acceptor;
    // SO_REUSEADDR lets a restarted daemon bind while old connections linger in
    // TIME_WAIT; on Linux it never lets two sockets listen on one port.
    acceptor.open(endpoint.protocol(), ec);
    if (!ec) {
        acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    }
    if (!ec) {
        acceptor.bind(endpoint, ec);
    }
    if (!ec) {
        acceptor.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (ec) {
        error = "Cannot listen on " + where + ": " +
                (ec == asio::error::address_in_use ? std::string("address already in use")
                                                   : ec.message()) +
                ".";
        acceptor.close(ec);
        return false;
    }
    impl->boundPort = acceptor.local_endpoint(ec).port();
    return true;
}

int HttpServer::port() const {
    return impl->boundPort;
}

bool HttpServer::run() {
    if (impl->boundPort < 0) {
        return false;
    }
    impl->accept();
    std::vector<std::thread> more;
    for (std::size_t i = 1; i < impl->io.size(); ++i) {
        more.emplace_back([this, i] { impl->io[i]->run(); });
    }
    impl->io.front()->run();
    for (std::thread& thread : more) {
        thread.join();
    }
    return true;
}

void HttpServer::stop() {
    impl->core.stopping = true;
    asio::post(impl->acceptor.get_executor(), [impl = impl.get()] {
        error_code ignored;
        impl->acceptor.close(ignored);
        impl->acceptPause.cancel();
    });
    impl->core.stopAll();
    std::lock_guard<std::mutex> lock(impl->busyMutex);
    impl->busy.clear();  // each context's run() returns once its connections have closed
}

std::size_t HttpServer::openConnections() const {
    return impl->core.openConnections();
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
