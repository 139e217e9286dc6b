// One HTTP/1.1 connection, plain or TLS: its I/O, its one timer and the phase
// it is in. HeadScanner.h finds and measures each request head before Beast's
// parser (fed by hand) reads it; whole requests go to the handler and the
// replies are written one after the other.
#include "daemon/internal/Connection.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/write.hpp>

#include <malloc.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "daemon/HeadScanner.h"
#include "daemon/Log.h"
#include "daemon/Refusals.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void ServerCore::add(ConnectionBase* connection) {
    std::lock_guard<std::mutex> lock(mutex);
    connections.insert(connection);
    ++open;
}

void ServerCore::remove(ConnectionBase* connection) {
    bool trim = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        connections.erase(connection);
        --open;
        trim = ++closedSinceTrim >= kTrimEvery;
        closedSinceTrim = trim ? 0 : closedSinceTrim;
    }
#ifdef __GLIBC__
    // A connection's buffers (a TLS one holds about 85 KB) are small blocks of
    // the heap, which the allocator keeps after they are freed: after a burst
    // of connections the process would hold their memory for good. Every
    // kTrimEvery closes, the free pages go back to the system.
    if (trim) {
        ::malloc_trim(0);
    }
#endif
}

void ServerCore::note(LogLevel level, const std::string& text) const noexcept {
    try {
        if (log != nullptr && log->enabled(level)) {
            log->message(level, text);
        }
    } catch (...) {
        // Nothing is left to tell it to.
    }
}

void ServerCore::stopAll() {
    stopping = true;
    // Asked outside the lock: the last reference may drop here, and the
    // connection's destructor takes the lock.
    std::vector<std::shared_ptr<ConnectionBase>> alive;
    {
        std::lock_guard<std::mutex> lock(mutex);
        alive.reserve(connections.size());
        for (ConnectionBase* connection : connections) {
            // Empty when the connection is being destroyed (it waits for the lock).
            if (auto kept = connection->weak_from_this().lock()) {
                alive.push_back(std::move(kept));
            }
        }
    }
    for (const auto& connection : alive) {
        connection->stop();
    }
}

namespace {

using PlainStream = tcp::socket;
using TlsStream = asio::ssl::stream<tcp::socket>;

constexpr std::size_t kReadChunkBytes = 16 * 1024;
// After a refusal the client may still be sending; reading that for a moment
// before closing keeps the kernel from resetting the connection, which could
// throw the refusal away before the client reads it.
constexpr long kLingerMs = 1000;
constexpr std::size_t kLingerBytes = 1024 * 1024;
const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";

std::string describePeer(const tcp::socket& socket) {
    error_code ec;
    const tcp::endpoint peer = socket.remote_endpoint(ec);
    if (ec) {
        return "-";
    }
    const std::string address = peer.address().to_string();
    return (peer.address().is_v6() ? "[" + address + "]" : address) + ":" +
           std::to_string(peer.port());
}

bool sendsBody(http::verb method) {
    return method == http::verb::post || method == http::verb::put || method == http::verb::patch;
}

// The value of the one Content-Length line in head when it is a decimal number
// too large for the parser; then the body is simply too long.
bool hugeDecimalLength(beast::string_view head) {
    std::size_t found = 0;
    bool digitsOnly = false;
    std::size_t start = 0;
    while (start < head.size()) {
        std::size_t end = head.find('\n', start);
        if (end == beast::string_view::npos) {
            end = head.size();
        }
        beast::string_view line = head.substr(start, end - start);
        start = end + 1;
        const std::size_t colon = line.find(':');
        if (colon == beast::string_view::npos ||
            !beast::iequals(line.substr(0, colon), "content-length")) {
            continue;
        }
        beast::string_view value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
            value.remove_prefix(1);
        }
        while (!value.empty() &&
               (value.back() == ' ' || value.back() == '\t' || value.back() == '\r')) {
            value.remove_suffix(1);
        }
        ++found;
        digitsOnly = !value.empty() && value.size() > 18 &&
                     value.find_first_not_of("0123456789") == beast::string_view::npos;
    }
    return found == 1 && digitsOnly;
}

template <class Stream>
class Connection final : public ConnectionBase, public PendingRequest {
public:
    static constexpr bool kTls = std::is_same<Stream, TlsStream>::value;

    template <class... StreamArgs>
    Connection(ServerCore& core, StreamArgs&&... streamArgs)
        : ConnectionBase(core),
          stream(std::forward<StreamArgs>(streamArgs)...),
          timer(socket().get_executor()),
          limits(core.limits) {}

    void start() override {
        asio::dispatch(socket().get_executor(),
                       [self = shared_from_this(), this] { guarded([&] { begin(); }); });
    }

    asio::any_io_executor executor() override { return socket().get_executor(); }

    void watchClose(std::function<void()> onClosed) override {
        closeWatch = std::move(onClosed);
        if (buffer.size() == 0) {
            buffer.shrink_to_fit();  // a waiting request holds no read buffer: there may be many
        }
        if (!watching) {
            awaitPeer(answered);
        }
    }

    void stop() override {
        asio::post(socket().get_executor(), [self = shared_from_this(), this] {
            // A connection between requests has nothing to finish.
            if (phase == Phase::Idle || phase == Phase::Handshake) {
                error_code ignored;
                socket().cancel(ignored);
            }
        });
    }

private:
    // Head: the head is arriving (the scanner has it); Body: the parser has the
    // head and reads the body.
    enum class Phase { Handshake, Idle, Head, Body, Handling, Writing, Closing, Closed };

    tcp::socket& socket() { return beast::get_lowest_layer(stream); }

    // Runs one step of the connection. Whatever it throws closes this
    // connection only: an exception that left an Asio handler would end
    // io_context::run, and the daemon with it.
    template <class Step>
    void guarded(Step&& step) noexcept {
        try {
            step();
        } catch (const std::exception& e) {
            failed(e.what());
        } catch (...) {
            failed("an exception of unknown type");
        }
    }

    void failed(const char* what) noexcept {
        core.note(LogLevel::Error, "closing the connection of " + peer + ": " + what);
        try {
            closeNow();
        } catch (...) {
            phase = Phase::Closed;
        }
        error_code ignored;
        socket().close(ignored);
    }

    void begin() {
        peer = describePeer(socket());
        error_code ignored;
        socket().set_option(tcp::no_delay(true), ignored);
        if (core.stopping) {
            closeNow();
            return;
        }
        if constexpr (kTls) {
            phase = Phase::Handshake;
            setDeadline(Clock::now() + milliseconds(limits.tlsHandshakeTimeoutMs));
            stream.async_handshake(asio::ssl::stream_base::server,
                                   [self = shared_from_this(), this](error_code ec) {
                                       guarded([&] { onHandshake(ec); });
                                   });
        } else {
            waitForRequest();
        }
    }

    void onHandshake(error_code ec) {
        if (core.stopping) {
            closeNow();
        } else if (ec || timedOut) {
            core.note(LogLevel::Info,
                      "TLS handshake with " + peer + " failed: " +
                          (timedOut ? "not done within " +
                                          std::to_string(limits.tlsHandshakeTimeoutMs) + " ms"
                                    : ec.message()));
            closeNow();
        } else {
            // The handshake's buffers go back until a request arrives.
            ::SSL_set_mode(stream.native_handle(), SSL_MODE_RELEASE_BUFFERS);
            waitForRequest();
        }
    }

    // ---- reading a request

    void waitForRequest() {
        if (core.stopping || served >= limits.keepAliveRequests) {
            closeGracefully();
            return;
        }
        phase = Phase::Idle;
        request.reset();
        parser.emplace();
        parser->body_limit(limits.maxBodyBytes);
        if (buffer.size() > 0) {  // the client sent its next request already
            beginRequest();
            parse();
            return;
        }
        // An idle connection holds no read buffer: there may be very many.
        buffer.shrink_to_fit();
        setDeadline(Clock::now() + milliseconds(limits.keepAliveMs));
        if constexpr (kTls) {
            read();
        } else {
            socket().async_wait(tcp::socket::wait_read,
                                [self = shared_from_this(), this](error_code ec) {
                                    guarded([&] {
                                        if (ec || timedOut || phase == Phase::Closed) {
                                            closeNow();
                                        } else {
                                            read();
                                        }
                                    });
                                });
        }
    }

    void beginRequest() {
        phase = Phase::Head;
        scanner.emplace(limits.maxHeadBytes, Protocol::kMaxHeaderLineBytes);
        started = Clock::now();
        requestDeadline = started + milliseconds(limits.requestTimeoutMs);
        setDeadline(std::min(requestDeadline, started + milliseconds(limits.readTimeoutMs)));
    }

    void read() {
        stream.async_read_some(buffer.prepare(kReadChunkBytes),
                               [self = shared_from_this(), this](error_code ec, std::size_t n) {
                                   guarded([&] { onRead(ec, n); });
                               });
    }

    void onRead(error_code ec, std::size_t n) {
        if (phase == Phase::Closed) {
            return;
        }
        buffer.commit(n);
        if (timedOut) {
            timedOut = false;
            if (phase == Phase::Idle) {
                closeNow();
            } else {
                refuse(Clock::now() >= requestDeadline ? Unreadable::Late : Unreadable::Stalled);
            }
            return;
        }
        if (ec) {  // closed, reset or stopped: nobody waits for an answer
            closeNow();
            return;
        }
        if (phase == Phase::Idle) {
            beginRequest();
        } else {
            setDeadline(
                std::min(requestDeadline, Clock::now() + milliseconds(limits.readTimeoutMs)));
        }
        parse();
    }

    // Acts on what has arrived: reads more, refuses, or hands the request on.
    void parse() {
        if (phase == Phase::Head && !parseHead()) {
            return;
        }
        for (;;) {
            if (parser->is_done()) {
                handleRequest();
                return;
            }
            if (buffer.size() == 0) {
                read();
                return;
            }
            error_code ec;
            const std::size_t used = parser->put(buffer.data(), ec);
            buffer.consume(used);
            if (ec && ec != http::error::need_more) {
                refuseUnparsable(ec);
                return;
            }
            if (used == 0) {
                read();
                return;
            }
        }
    }

    // The parser gets the head only once the scanner has found it whole and
    // within the limits, and then exactly its bytes: what follows it never
    // counts against it. True when the body (if any) is to be read now.
    bool parseHead() {
        const HeadVerdict verdict =
            scanner->scan(static_cast<const char*>(buffer.data().data()), buffer.size());
        if (verdict.kind == HeadVerdict::Kind::NeedMore) {
            read();
            return false;
        }
        if (verdict.kind == HeadVerdict::Kind::Refused) {
            refuse(verdict.refusal);
            return false;
        }
        parser->header_limit(static_cast<std::uint32_t>(verdict.headBytes));
        error_code ec;
        const std::size_t used = parser->put(asio::buffer(buffer.data(), verdict.headBytes), ec);
        if (!ec && !parser->is_header_done()) {
            ec = http::error::bad_line_ending;  // the parser sees no end where the scanner did
        }
        if (ec) {
            refuseUnparsable(ec);
            return false;
        }
        buffer.consume(used);
        phase = Phase::Body;
        started = Clock::now();
        return admitHead();
    }

    // The head is read: framing, the handler's own checks, and a 100 Continue
    // for a client that waits for one. False when the request was refused.
    bool admitHead() {
        const HttpRequest& head = parser->get();
        // The parser itself refuses a length beside chunked, but takes any
        // other transfer coding, which this server does not decode.
        const auto encoding = head.find(http::field::transfer_encoding);
        const bool hasLength = head.find(http::field::content_length) != head.end();
        if (encoding != head.end() && !beast::iequals(encoding->value(), "chunked")) {
            refuse(Unreadable::BadFraming);
            return false;
        }
        if (!hasLength && encoding == head.end() && sendsBody(head.method())) {
            refuse(Unreadable::NoLength);
            return false;
        }
        HttpReply refusal;
        bool admitted = false;
        try {
            admitted = core.handler.admitHead(head, peer, refusal);
        } catch (...) {
            refusal = HttpReply();
            refusal.status = 500;
            refusal.body = "The server failed to examine the request.\n";
        }
        if (!admitted) {
            request.emplace(parser->release());
            refusal.close = true;
            sendReply(std::move(refusal));
            return false;
        }
        parser->eager(true);
        const auto expect = head.find(http::field::expect);
        if (expect != head.end() && beast::iequals(expect->value(), "100-continue") &&
            head.version() >= 11 && !parser->is_done() && buffer.size() == 0) {
            asio::async_write(stream, asio::buffer(kContinue, sizeof kContinue - 1),
                              [self = shared_from_this(), this](error_code ec, std::size_t) {
                                  guarded([&] {
                                      if (ec || timedOut || phase == Phase::Closed) {
                                          closeNow();
                                      } else {
                                          read();  // the body comes now
                                      }
                                  });
                              });
            return false;
        }
        return true;
    }

    void refuseUnparsable(error_code ec) {
        const beast::string_view pending(static_cast<const char*>(buffer.data().data()),
                                         buffer.size());
        if (ec == http::error::body_limit) {
            refuse(Unreadable::BodyTooLong);
        } else if (ec == http::error::bad_content_length && phase == Phase::Head &&
                   hugeDecimalLength(pending)) {
            refuse(Unreadable::BodyTooLong);
        } else if (ec == http::error::bad_content_length ||
                   ec == http::error::bad_transfer_encoding) {
            refuse(Unreadable::BadFraming);
        } else if (ec == http::error::bad_chunk || ec == http::error::bad_chunk_extension) {
            refuse(Unreadable::BadChunk);
        } else {
            refuse(Unreadable::Malformed);
        }
    }

    void handleRequest() {
        phase = Phase::Handling;
        ++served;
        request.emplace(parser->release());
        // The handler may answer from another thread, later: the connection
        // waits (and keeps the I/O context running) until then, and takes the
        // reply back on its strand.
        auto executor = socket().get_executor();
        try {
            core.handler.handleLater(
                *request, std::shared_ptr<PendingRequest>(shared_from_this(), this),
                [self = shared_from_this(), this, executor,
                 work = asio::make_work_guard(executor)](HttpReply reply) {
                    asio::dispatch(executor, [self, this, reply = std::move(reply)]() mutable {
                        guarded([&] { replyReady(std::move(reply)); });
                    });
                });
        } catch (...) {
            HttpReply reply;
            reply.status = 500;
            reply.body = "The server failed to handle the request.\n";
            replyReady(std::move(reply));
        }
    }

    // ---- watching for the peer's end while the handler works

    void awaitPeer(unsigned round) {
        watching = true;
        socket().async_wait(tcp::socket::wait_read,
                            [self = shared_from_this(), this, round](error_code ec) {
                                guarded([&] { onPeerReadable(ec, round); });
                            });
    }

    void onPeerReadable(error_code ec, unsigned round) {
        if (round != answered || phase != Phase::Handling) {
            return;  // the answer came first
        }
        watching = false;
        if (ec == asio::error::operation_aborted) {  // the request's deadline cancels the socket
            awaitPeer(round);
            return;
        }
        // The peer's end shows as a hang-up even behind bytes it sent (the next
        // request, a TLS close), which stay for whoever reads next.
        pollfd entry{socket().native_handle(), POLLIN | POLLRDHUP, 0};
        const int ready = ec ? -1 : ::poll(&entry, 1, 0);
        if (ready == 0) {
            awaitPeer(round);
        } else if (ready < 0 || (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
            peerGone = true;
            const auto onClosed = std::move(closeWatch);
            closeWatch = nullptr;
            if (onClosed) {
                onClosed();
            }
        }
    }

    void replyReady(HttpReply&& reply) {
        ++answered;
        closeWatch = nullptr;
        if (watching) {
            watching = false;
            error_code ignored;
            socket().cancel(ignored);  // the watch is the socket's only operation now
        }
        if (peerGone) {
            closeNow();  // nobody reads the answer, and its onComplete never says written
            return;
        }
        timedOut = false;  // a deadline that passed while the handler worked
        reply.close = reply.close || !request->keep_alive();
        sendReply(std::move(reply));
    }

    // ---- writing the reply

    // A refusal of a request not read whole: what is left of it on the
    // connection is no next request, so the connection closes after it.
    void refuse(Unreadable why) {
        timedOut = false;
        if (phase == Phase::Body) {
            request.emplace(parser->release());
        } else {
            request.reset();
        }
        HttpReply reply;
        reply.status = refusalStatus(why);
        reply.body = refusalText(why, limits) + "\n";
        reply.close = true;
        sendReply(std::move(reply));
    }

    void sendReply(HttpReply&& answer) {
        phase = Phase::Writing;
        reply = std::move(answer);
        if (core.stopping || served >= limits.keepAliveRequests) {
            reply.close = true;
        }
        response.emplace();
        response->version(request && request->version() == 10 ? 10 : 11);
        try {
            response->result(static_cast<unsigned>(reply.status));
        } catch (const std::exception&) {
            response->result(http::status::internal_server_error);
        }
        response->set(http::field::content_type, reply.contentType);
        for (const auto& header : reply.headers) {
            response->insert(header.first, header.second);
        }
        response->keep_alive(!reply.close);
        response->body() = std::move(reply.body);
        response->prepare_payload();
        serializer.emplace(*response);
        setDeadline(Clock::now() + milliseconds(limits.readTimeoutMs));
        writeSome();
    }

    void writeSome() {
        http::async_write_some(stream, *serializer,
                               [self = shared_from_this(), this](error_code ec, std::size_t) {
                                   guarded([&] { onWrite(ec); });
                               });
    }

    void onWrite(error_code ec) {
        if (phase == Phase::Closed) {
            return;
        }
        if (ec || timedOut) {
            finishReply(false);
            closeNow();
            return;
        }
        if (!serializer->is_done()) {
            // The deadline counts from the last progress: a slow reader of a
            // large answer is served, a reader that takes nothing is not.
            setDeadline(Clock::now() + milliseconds(limits.readTimeoutMs));
            writeSome();
            return;
        }
        finishReply(true);
        if (reply.close) {
            closeGracefully();
        } else {
            waitForRequest();
        }
    }

    void finishReply(bool delivered) {
        if (!response) {
            return;
        }
        if (reply.onComplete) {
            const auto onComplete = std::move(reply.onComplete);
            reply.onComplete = nullptr;
            try {
                onComplete(delivered);
            } catch (...) {
                // The reply is gone either way; nothing else depends on it.
            }
        }
        RequestOutcome outcome;
        outcome.request = request ? &*request : nullptr;
        reply.status = static_cast<int>(response->result_int());
        outcome.reply = &reply;
        outcome.peer = peer;
        outcome.micros =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started).count();
        try {
            core.handler.answered(outcome);
        } catch (...) {
            // A log or metrics failure must not take the connection down.
        }
        serializer.reset();
        response.reset();
    }

    // ---- closing

    void closeGracefully() {
        phase = Phase::Closing;
        setDeadline(Clock::now() + milliseconds(std::min(limits.readTimeoutMs, kLingerMs)));
        if constexpr (kTls) {
            stream.async_shutdown(
                [self = shared_from_this(), this](error_code) { guarded([&] { closeNow(); }); });
        } else {
            error_code ignored;
            socket().shutdown(tcp::socket::shutdown_send, ignored);
            buffer.consume(buffer.size());
            linger(0);
        }
    }

    void linger(std::size_t drained) {
        socket().async_read_some(
            buffer.prepare(kReadChunkBytes),
            [self = shared_from_this(), this, drained](error_code ec, std::size_t n) {
                guarded([&] {
                    buffer.consume(buffer.size());
                    if (ec || timedOut || drained + n > kLingerBytes) {
                        closeNow();
                    } else {
                        linger(drained + n);
                    }
                });
            });
    }

    void closeNow() {
        if (phase == Phase::Closed) {
            return;
        }
        finishReply(false);  // when a write was under way
        phase = Phase::Closed;
        ++timerGeneration;
        timer.cancel();
        error_code ignored;
        socket().shutdown(tcp::socket::shutdown_both, ignored);
        socket().close(ignored);
    }

    // ---- the one timer: fires at the deadline of whatever the connection
    // waits for; a later deadline only re-arms it when it fires.

    void setDeadline(Clock::time_point when) {
        deadline = when;
        if (timerArmed && timer.expiry() <= when) {
            return;
        }
        armTimer(when);
    }

    void armTimer(Clock::time_point when) {
        timer.expires_at(when);
        const unsigned generation = ++timerGeneration;
        timerArmed = true;
        timer.async_wait([self = shared_from_this(), this, generation](error_code ec) {
            guarded([&] { onTimer(ec, generation); });
        });
    }

    void onTimer(error_code ec, unsigned generation) {
        if (generation != timerGeneration) {
            return;  // re-armed or closed since
        }
        timerArmed = false;
        if (ec || phase == Phase::Closed) {
            return;
        }
        if (Clock::now() < deadline) {
            armTimer(deadline);
            return;
        }
        // The pending read, write or handshake ends with an error and
        // sees timedOut.
        timedOut = true;
        error_code ignored;
        socket().cancel(ignored);
    }

    Stream stream;
    asio::steady_timer timer;
    const ServerLimits& limits;
    std::string peer;
    Phase phase = Phase::Idle;
    beast::flat_buffer buffer;

    std::optional<HeadScanner> scanner;
    std::optional<http::request_parser<http::string_body>> parser;
    std::optional<HttpRequest> request;
    std::size_t served = 0;       // requests on this connection
    Clock::time_point started{};  // end of the head, or the first byte
    Clock::time_point requestDeadline{};

    HttpReply reply;
    std::optional<http::response<http::string_body>> response;
    std::optional<http::response_serializer<http::string_body>> serializer;

    Clock::time_point deadline{};
    bool timerArmed = false;
    bool timedOut = false;
    unsigned timerGeneration = 0;

    std::function<void()> closeWatch;  // while the handler works, see watchClose()
    bool watching = false;             // a wait for the peer is under way
    bool peerGone = false;
    unsigned answered = 0;  // replies the handler gave: tells a stale watch
};

}  // namespace

void startConnection(ServerCore& core, tcp::socket socket, asio::ssl::context* tls) {
    std::shared_ptr<ConnectionBase> connection;
    if (tls != nullptr) {
        connection = std::make_shared<Connection<TlsStream>>(core, std::move(socket), *tls);
    } else {
        connection = std::make_shared<Connection<PlainStream>>(core, std::move(socket));
    }
    // Registered before it starts, so a stop() from now on reaches it; one
    // that came just before is seen by start().
    core.add(connection.get());
    connection->start();
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
