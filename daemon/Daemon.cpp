#include "daemon/Daemon.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "daemon/HttpServer.h"
#include "daemon/Metrics.h"
#include "daemon/StoreWatch.h"
#include "daemon/Token.h"
#include "daemon/Waiters.h"
#include "daemon/WorkPool.h"
#include "engine/MemoryStore.h"
#include "protocol/Failure.h"
#include "protocol/HostPort.h"
#include "protocol/Names.h"
#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

namespace http = boost::beast::http;
using Engine::RequestHeaders;
using Protocol::Failure;

namespace {

const char* const kHealthPath = "/healthz";
const char* const kReadyPath = "/readyz";
const char* const kMetricsPath = "/metrics";
// How long a probe or a scrape waits on an I/O thread for the store's answer
// before it takes the last one (StoreWatch.h): short enough that a hung store
// never makes a probe late, long enough for any store that is well.
constexpr std::chrono::milliseconds kProbeWait{50};

bool probePath(const std::string& path) {
    return path == kHealthPath || path == kReadyPath;
}

void answer(HttpReply& reply, int status, const std::string& message) {
    reply.status = status;
    reply.contentType = "text/plain; charset=utf-8";
    reply.body = message + "\n";
}

// A client that got the protocol wrong (wrong path, method or field encoding)
// is not one to keep a connection for; refusals of the service keep it.
void wrongMethod(HttpReply& reply, const HttpRequest& request, const char* allowed) {
    reply.close = true;
    reply.headers.emplace_back("Allow", allowed);
    answer(reply, 405,
           "Method " + std::string(request.method_string()) + " is not allowed on " +
               std::string(request.target()) + "; use " + allowed + ".");
}

std::string pathOf(const HttpRequest& request) {
    const auto target = request.target();
    return std::string(target.substr(0, target.find('?')));
}

bool isExchange(const HttpRequest& request) {
    return request.method() == http::verb::post && pathOf(request) == Wire::kExchangePath;
}

// The header fields of an exchange; false with problem set when a line is
// damaged or a name comes twice.
bool readFields(const HttpRequest& request, RequestHeaders& fields, std::string& problem) {
    const auto lines = request.equal_range(Wire::kFieldHeaderName);
    for (auto line = lines.first; line != lines.second; ++line) {
        std::string name;
        std::string value;
        if (!Wire::decodeField(std::string(line->value()), name, value, problem)) {
            return false;
        }
        if (!fields.emplace(name, value).second) {
            problem = "The header field \"" + name + "\" is given twice.";
            return false;
        }
    }
    return true;
}

std::string fieldOf(const RequestHeaders& fields, const char* name) {
    const auto found = fields.find(name);
    return found == fields.end() ? std::string() : found->second;
}

// The header lines the HTTP backend adds to an exchange (HttpWire.h): the
// acknowledgement of a getEvents, the post id of a putEvents. False with
// problem set when a value is not of its form, or an acknowledge-only request
// is not a getEvents with an acknowledgement.
bool readCarriage(const HttpRequest& request, const RequestHeaders& fields,
                  Engine::ExchangeOptions& carriage, bool& ackOnly, std::string& problem) {
    const auto ack = request.find(Protocol::kAckHeader);
    if (ack != request.end()) {
        std::uint64_t upTo = 0;
        if (!Wire::parseSequence(std::string(ack->value()), upTo)) {
            problem = std::string(Protocol::kAckHeader) + " takes a sequence number, not \"" +
                      std::string(ack->value()) + "\".";
            return false;
        }
        carriage.ack = upTo;
    }
    const auto only = request.find(Protocol::kAckOnlyHeader);
    ackOnly = only != request.end();
    if (ackOnly && (only->value() != "1" || !carriage.ack ||
                    fieldOf(fields, Protocol::kOperationNameField) != Protocol::kGetEvents)) {
        problem = std::string(Protocol::kAckOnlyHeader) + ": 1 goes with " + Protocol::kAckHeader +
                  " on a getEvents only.";
        return false;
    }
    const auto postId = request.find(Protocol::kPostIdHeader);
    if (postId != request.end()) {
        carriage.postId = std::string(postId->value());
        if (!Wire::isPostId(carriage.postId)) {
            problem = std::string(Protocol::kPostIdHeader) + " takes " +
                      std::to_string(Wire::kPostIdDigits) + " lowercase hex digits, not \"" +
                      carriage.postId + "\".";
            return false;
        }
    }
    return true;
}

ServerOptions serverOptions(const DaemonOptions& options, Log& log) {
    ServerOptions server;
    server.limits.readTimeoutMs = options.readTimeoutMs;
    server.limits.requestTimeoutMs = options.requestTimeoutMs;
    server.limits.keepAliveMs = options.keepAliveSeconds * 1000;
    server.limits.keepAliveRequests = options.keepAliveRequests;
    server.limits.maxHeadBytes = options.maxHeadBytes;
    server.limits.maxBodyBytes = options.limits.maxBodyBytes;
    server.limits.maxConnections = options.maxConnections;
    server.limits.tlsHandshakeTimeoutMs = options.tlsHandshakeTimeoutMs;
    server.log = &log;
    server.threads = options.threads;
    server.tlsCertificateFile = options.tlsCertificateFile;
    server.tlsKeyFile = options.tlsKeyFile;
    return server;
}

// An exchange's answer: the engine's response, as the HTTP backend reads it.
void succeed(HttpReply& reply, std::string&& response) {
    reply.status = 200;
    reply.contentType = "application/octet-stream";
    reply.body = std::move(response);
}

// What a getEvents that found nothing asks of its carrier.
struct WaitAsk {
    std::chrono::milliseconds wait{0};  // 0: answer now
    std::string serverId, clientId;
    std::uint64_t mark = 0;           // Waiters::mark() from before the look
    std::uint64_t logEnd = 0;         // ExchangeResult::logEnd
    bool clientAcknowledges = false;  // the request carried its own ack
};

}  // namespace

struct Daemon::Impl : HttpHandler {
    Impl(const DaemonOptions& options, std::FILE* out, std::unique_ptr<Engine::Store> store)
        : options(options),
          log(out, options.logLevel, options.logFormat),
          waiters(options.maxWaiters),
          engine(store ? std::move(store) : std::make_unique<Engine::MemoryStore>(options.limits)),
          storeOnIoThreads(engine.storeNeverWaits()),
          storeWatch(engine),
          server(serverOptions(options, log), *this),
          pool(options.storeThreads, options.storeQueue) {
        engine.setPostListener([this](const std::string& serverId,
                                      const std::shared_ptr<const Engine::PostNews>& news) {
            waiters.posted(serverId, news);
        });
    }

    struct Call;

    bool admitHead(const HttpRequest& head, const std::string& peer, HttpReply& refusal) override;
    bool admitAdmin(const HttpRequest& head, const std::string& peer, HttpReply& refusal);
    void handle(const HttpRequest& request, HttpReply& reply) override;
    void handleLater(const HttpRequest& request, const std::shared_ptr<PendingRequest>& pending,
                     std::function<void(HttpReply)> done) override;
    bool exchangeLater(const std::shared_ptr<Call>& call);
    void look(const std::shared_ptr<Call>& call);
    void settle(const std::shared_ptr<Call>& call, HttpReply& reply, const WaitAsk& ask) noexcept;
    void wait(const std::shared_ptr<Call>& call, std::uint64_t mark, HttpReply& reply);
    void lookLater(const std::shared_ptr<Call>& call) noexcept;
    void answerFromNews(const std::shared_ptr<Call>& call, const Engine::PostNews& news) noexcept;
    void answered(const RequestOutcome& outcome) override;
    using Client = std::pair<std::string, std::string>;  // (server, client)
    // A request read for its exchange.
    struct Prepared {
        RequestHeaders fields;
        Engine::ExchangeOptions carriage;  // as the request carries it
        Engine::ExchangeOptions options;   // for the engine
        bool ackOnly = false;
        Client client;
        std::uint64_t mark = 0;  // Waiters::mark() when the request may wait
    };
    // False, with reply its refusal, when the request is malformed.
    bool prepare(const HttpRequest& request, Prepared& prepared, HttpReply& reply);
    void exchange(const HttpRequest& request, HttpReply& reply, WaitAsk& ask);
    // The reply to an exchange the engine did (done) or refused; ask when it waits.
    void finish(const Prepared& prepared, bool done, std::string&& response, const Failure& failure,
                const Engine::ExchangeResult& result, HttpReply& reply, WaitAsk& ask);
    void answerEvents(HttpReply& reply, std::string&& response,
                      const Engine::ExchangeResult& result, const Client& client,
                      bool clientAcknowledges);
    void acknowledgeWhenWritten(HttpReply& reply, const Client& client, std::uint64_t upTo);
    std::optional<std::uint64_t> writtenNotAcknowledged(const Client& client);
    void scrape(HttpReply& reply);
    void sweepIdleClients();
    void sweepEvery(std::chrono::milliseconds interval);

    const DaemonOptions options;
    Log log;
    Waiters waiters;  // outlives the engine, whose store may report posts until it goes
    Engine::ServiceEngine engine;
    // A store that never waits (the memory store) is called on the I/O
    // threads: a post and the answers it wakes then cross no thread but the
    // waiters' own. Any other store is called on the pool only.
    const bool storeOnIoThreads;
    Metrics metrics;
    StoreWatch storeWatch;
    HttpServer server;
    // Destroyed first: its threads are joined while the server (whose
    // connections its tasks answer, and may hold the last reference to) and the
    // engine (which its tasks call) still exist.
    WorkPool pool;

    std::mutex sweepMutex;  // guards stopping
    std::condition_variable sweepWake;
    bool stopping = false;
    std::atomic<bool> sweeping{false};  // a sweep is queued or running

    // getEvents answers written whole whose acknowledgement may not have reached
    // the store yet, by (server, client): the client's next getEvents
    // acknowledges them first, so that it never gets them twice.
    std::mutex deliveredMutex;  // guards delivered
    std::map<Client, std::uint64_t> delivered;

    // Exchanges the store has yet to answer (exchangeLater()): the daemon waits
    // for them before the server, whose connections they answer, goes.
    std::mutex laterMutex;  // guards laterExchanges
    std::condition_variable laterAnswered;
    std::size_t laterExchanges = 0;

    ~Impl() {
        std::unique_lock<std::mutex> lock(laterMutex);
        laterAnswered.wait(lock, [this] { return laterExchanges == 0; });
    }
};

// One exchange on its way: looked at on the pool, and when it is a getEvents
// that waits, waiting in waiters with a timer on its connection's strand.
struct Daemon::Impl::Call : Waiters::Waiter, std::enable_shared_from_this<Call> {
    Call(Impl& impl, const HttpRequest& request, std::shared_ptr<PendingRequest> pending,
         std::function<void(HttpReply)> done)
        : impl(impl),
          request(request),
          pending(std::move(pending)),
          done(std::move(done)),
          timer(this->pending->executor()) {}

    // A post or stop(): the timer goes (on the strand) and the store is looked
    // at again, or the news answers.
    void woken(const std::shared_ptr<const Engine::PostNews>& news) override {
        if (news) {
            try {
                boost::asio::post(pending->executor(), [self = shared_from_this(), news] {
                    boost::system::error_code ignored;
                    self->timer.cancel(ignored);
                    self->impl.answerFromNews(self, *news);
                });
                return;
            } catch (...) {
                // Out of memory: a look answers instead (the timer finds the call taken).
            }
        }
        if (impl.storeOnIoThreads) {
            try {  // both in one handler: a woken waiter costs its thread one dispatch
                boost::asio::post(pending->executor(), [self = shared_from_this()] {
                    boost::system::error_code ignored;
                    self->timer.cancel(ignored);
                    self->impl.look(self);
                });
            } catch (...) {
                impl.lookLater(shared_from_this());  // answers 500 when it cannot post either
            }
            return;
        }
        try {
            boost::asio::post(pending->executor(), [self = shared_from_this()] {
                boost::system::error_code ignored;
                self->timer.cancel(ignored);
            });
        } catch (...) {
            // The timer stays; when it fires it finds the call taken.
        }
        impl.lookLater(shared_from_this());
    }
    // Answers, once; never throws (the connection waits for it).
    void answer(HttpReply&& reply) noexcept {
        try {
            done(std::move(reply));
        } catch (...) {
            // Out of memory on the way to the connection: nothing else can tell it.
        }
    }

    Impl& impl;
    const HttpRequest& request;
    const std::shared_ptr<PendingRequest> pending;
    const std::function<void(HttpReply)> done;
    boost::asio::steady_timer timer;
    std::optional<std::chrono::steady_clock::time_point> deadline;  // set by the first look
    bool clientAcknowledges = false;                                // WaitAsk's, set with serverId
    unsigned round = 0;  // waits begun, on the strand: tells a stale timer
};

namespace {

// "ADDRESS:PORT" or "[V6ADDRESS]:PORT", as HttpServer.h gives peers.
bool loopbackPeer(const std::string& peer) {
    return peer.rfind("127.", 0) == 0 || peer.rfind("[::1]:", 0) == 0 ||
           peer.rfind("[::ffff:127.", 0) == 0;
}

// 401 for a bearer token that is missing or not the expected one.
bool bearerAdmitted(const HttpRequest& head, const std::string& token, HttpReply& refusal) {
    const auto authorization = head.find(http::field::authorization);
    if (authorization != head.end() && bearerMatches(std::string(authorization->value()), token)) {
        return true;
    }
    refusal.headers.emplace_back("WWW-Authenticate", "Bearer");
    answer(refusal, 401,
           authorization == head.end() ? "The request needs an Authorization: Bearer token."
                                       : "The bearer token is not the daemon's.");
    return false;
}

}  // namespace

bool Daemon::Impl::admitHead(const HttpRequest& head, const std::string& peer, HttpReply& refusal) {
    if (probePath(pathOf(head))) {
        return true;
    }
    if (isExchange(head)) {
        // The fields are all in the head. Damaged ones are refused (400) when the
        // exchange is read; until then they make no admin request.
        RequestHeaders fields;
        std::string problem;
        if (readFields(head, fields, problem) &&
            fieldOf(fields, Protocol::kServiceNameField) == Protocol::kAdminServiceName) {
            return admitAdmin(head, peer, refusal);
        }
    }
    return options.token.empty() || bearerAdmitted(head, options.token, refusal);
}

// With an admin token, it alone admits (the service token is not asked for);
// without one, loopback peers only, with the service token if there is one.
bool Daemon::Impl::admitAdmin(const HttpRequest& head, const std::string& peer,
                              HttpReply& refusal) {
    if (!options.adminToken.empty()) {
        return bearerAdmitted(head, options.adminToken, refusal);
    }
    if (!loopbackPeer(peer)) {
        answer(refusal, 403,
               "admin requests are served to loopback peers only (start quorveld with "
               "--admin-token-file to allow others)");
        return false;
    }
    return options.token.empty() || bearerAdmitted(head, options.token, refusal);
}

void Daemon::Impl::handle(const HttpRequest& request, HttpReply& reply) {
    const std::string path = pathOf(request);
    const bool get = request.method() == http::verb::get;
    if (path == Wire::kExchangePath) {
        if (request.method() == http::verb::post) {
            WaitAsk unheard;  // exchanges come through handleLater
            exchange(request, reply, unheard);
        } else {
            wrongMethod(reply, request, "POST");
        }
    } else if (path == kHealthPath) {
        if (get) {
            answer(reply, 200, "ok");
        } else {
            wrongMethod(reply, request, "GET");
        }
    } else if (path == kReadyPath) {
        if (!get) {
            wrongMethod(reply, request, "GET");
            return;
        }
        const StoreHealth health = storeWatch.check(kProbeWait);
        answer(reply, health.ready ? 200 : 503, health.ready ? "ready" : health.cause);
    } else if (path == kMetricsPath) {
        if (get) {
            scrape(reply);
        } else {
            wrongMethod(reply, request, "GET");
        }
    } else {
        reply.close = true;
        answer(reply, 404,
               "There is nothing at " + path + "; an exchange is a POST to " + Wire::kExchangePath +
                   ".");
    }
}

// Exchanges call the store: they run on the pool, and a full pool answers 503
// at once rather than queue without end behind a store that hangs; on a store
// that never waits they run here. The rest answers here, on the I/O thread,
// never waiting long on the store.
void Daemon::Impl::handleLater(const HttpRequest& request,
                               const std::shared_ptr<PendingRequest>& pending,
                               std::function<void(HttpReply)> done) {
    if (!isExchange(request)) {
        HttpHandler::handleLater(request, pending, std::move(done));
        return;
    }
    auto call = std::make_shared<Call>(*this, request, pending, done);
    if (storeOnIoThreads) {
        look(call);
        return;
    }
    if (exchangeLater(call)) {
        return;
    }
    const bool queued = pool.trySubmit([this, call] { look(call); });
    if (!queued) {
        HttpReply busy;
        busy.headers.emplace_back("Retry-After", "1");
        answer(busy, 503,
               "The daemon has " + std::to_string(options.storeQueue) +
                   " exchanges waiting for its store already; try again later.");
        done(std::move(busy));
    }
}

// A putEvents or getEvents on a store that takes them later goes to the store
// from here (an I/O thread, or whoever looks again) and is settled on the
// store's thread, so that no pool thread sits out its round trip, and the
// store sends those that meet in one call. Only the requests the library
// sends are looked at (a putEvents with a post id, a getEvents that asks for
// the clients too), so that the pool's exchanges are not read twice; false
// leaves the call to the pool.
bool Daemon::Impl::exchangeLater(const std::shared_ptr<Call>& call) {
    const HttpRequest& request = call->request;
    if (storeOnIoThreads || (request.find(Protocol::kPostIdHeader) == request.end() &&
                             request.find(Protocol::kClientsTooHeader) == request.end())) {
        return false;
    }
    auto prepared = std::make_shared<Prepared>();
    HttpReply malformed;
    if (!prepare(request, *prepared, malformed) || prepared->ackOnly) {
        return false;
    }
    {
        // The store queue's bound holds for these too: past it, the pool
        // answers 503 as it would for any exchange.
        std::lock_guard<std::mutex> lock(laterMutex);
        if (laterExchanges >= options.storeQueue) {
            return false;
        }
        ++laterExchanges;
    }
    bool taken = false;
    try {
        taken = engine.exchangeLater(
            prepared->fields, request.body(), prepared->options,
            [this, prepared, held = std::shared_ptr<Call>(call)](
                bool done, std::string&& response, const Failure& failure,
                const Engine::ExchangeResult& result) mutable {
                HttpReply reply;
                WaitAsk ask;
                try {
                    finish(*prepared, done, std::move(response), failure, result, reply, ask);
                } catch (...) {
                    reply = HttpReply();
                    ask = WaitAsk();
                    answer(reply, 500, "The daemon failed to serve the exchange.");
                }
                settle(held, reply, ask);
                held.reset();  // before the count: once it is 0 the server may go
                std::lock_guard<std::mutex> lock(laterMutex);
                --laterExchanges;
                laterAnswered.notify_all();
            });
    } catch (...) {
        // Out of memory before the store took it: the pool's exchange answers.
    }
    if (!taken) {
        std::lock_guard<std::mutex> lock(laterMutex);
        --laterExchanges;
        laterAnswered.notify_all();
    }
    return taken;
}

// On the pool, or on the connection's strand when the store never waits.
void Daemon::Impl::look(const std::shared_ptr<Call>& call) {
    HttpReply reply;
    WaitAsk ask;
    try {
        exchange(call->request, reply, ask);
    } catch (...) {
        reply = HttpReply();
        ask = WaitAsk();
        answer(reply, 500, "The daemon failed to serve the exchange.");
    }
    settle(call, reply, ask);
}

// After the exchange, on the thread that did it: answers, or waits when it is a
// getEvents that found nothing and has time left (the first look sets its
// deadline).
void Daemon::Impl::settle(const std::shared_ptr<Call>& call, HttpReply& reply,
                          const WaitAsk& ask) noexcept {
    try {
        const auto now = std::chrono::steady_clock::now();
        if (!call->deadline) {
            call->deadline = now + std::min<std::chrono::milliseconds>(
                                       ask.wait, std::chrono::seconds(options.maxWaitSeconds));
        }
        if (ask.wait.count() > 0 && now < *call->deadline) {
            if (call->serverId.empty()) {  // written once: waiters reads it from other threads
                call->serverId = ask.serverId;
                call->clientId = ask.clientId;
                call->clientAcknowledges = ask.clientAcknowledges;
            }
            call->logEnd = ask.logEnd;  // this look's: the call is out of the waiters
            if (storeOnIoThreads) {
                wait(call, ask.mark, reply);
            } else {
                boost::asio::post(
                    call->pending->executor(),
                    [this, call, mark = ask.mark, reply]() mutable { wait(call, mark, reply); });
            }
            return;
        }
    } catch (...) {
        reply = HttpReply();
        answer(reply, 500, "The daemon failed to serve the exchange.");
    }
    call->answer(std::move(reply));
}

// On the connection's strand: reply is the answer should the wait not begin.
// Whoever takes the call out of waiters (a post, the timer, the closed
// connection) ends the wait.
void Daemon::Impl::wait(const std::shared_ptr<Call>& call, std::uint64_t mark, HttpReply& reply) {
    const unsigned round = ++call->round;
    bool added = false;
    try {
        switch (waiters.add(call, mark)) {
            case Waiters::Added::Posted:  // since the look: look again
                lookLater(call);
                return;
            case Waiters::Added::Full:
                metrics.addRefusedWait();
                call->answer(std::move(reply));
                return;
            case Waiters::Added::Stopping:
                call->answer(std::move(reply));
                return;
            case Waiters::Added::Waiting:
                added = true;
        }
        call->timer.expires_at(*call->deadline);
        call->timer.async_wait([this, call, round](boost::system::error_code ec) {
            try {
                if (!ec && round == call->round && waiters.remove(*call)) {
                    lookLater(call);
                }
            } catch (...) {
                // Nothing may leave an Asio handler; a post or stop() still ends the wait.
            }
        });
        // Gone, the client takes nothing: an acknowledged fetch took nothing
        // yet, and an answer never written moves no cursor.
        call->pending->watchClose([this, call] {
            if (waiters.remove(*call)) {
                boost::system::error_code ignored;
                call->timer.cancel(ignored);
                call->answer(HttpReply());
            }
        });
    } catch (...) {  // out of memory: answer what was found, unless a post took the call
        if (!added || waiters.remove(*call)) {
            call->answer(std::move(reply));
        }
    }
}

// On the connection's strand: the waiting getEvents answered from the news of
// a post, as exchange() would answer it had it read the store now (Waiters
// made sure the news holds something for it and that none was missed).
void Daemon::Impl::answerFromNews(const std::shared_ptr<Call>& call,
                                  const Engine::PostNews& news) noexcept {
    HttpReply reply;
    try {
        Engine::ExchangeResult result;
        std::string response = engine.eventsFromNews(news, call->clientId, call->logEnd, result);
        answerEvents(reply, std::move(response), result, {call->serverId, call->clientId},
                     call->clientAcknowledges);
    } catch (...) {
        reply = HttpReply();
        answer(reply, 500, "The daemon failed to serve the exchange.");
    }
    call->answer(std::move(reply));
}

// Store work goes on the pool, past its bound: a waiting call was admitted.
void Daemon::Impl::lookLater(const std::shared_ptr<Call>& call) noexcept {
    try {
        if (storeOnIoThreads) {
            boost::asio::post(call->pending->executor(), [this, call] { look(call); });
        } else if (!exchangeLater(call)) {
            pool.submit([this, call] { look(call); });
        }
    } catch (...) {
        HttpReply failed;
        answer(failed, 500, "The daemon failed to serve the exchange.");
        call->answer(std::move(failed));
    }
}

// While the store fails, the scrape fails (503 with the cause) instead of
// showing the request counters without the store gauges: a scraper keeps no
// part of a failed scrape, so an incomplete page would only hide the outage,
// and the counters lose nothing by waiting for the next scrape.
void Daemon::Impl::scrape(HttpReply& reply) {
    const StoreHealth health = storeWatch.check(kProbeWait);
    if (!health.ready) {
        answer(reply, 503, "The store's figures are not available: " + health.cause);
        return;
    }
    Gauges gauges;
    gauges.registeredClients = health.stats.registeredClients;
    gauges.waitingEvents = health.stats.waitingEvents;
    gauges.waitingBytes = health.stats.waitingBytes;
    gauges.openConnections = server.openConnections();
    gauges.waitingRequests = waiters.size();
    reply.contentType = "text/plain; version=0.0.4; charset=utf-8";
    reply.body = metrics.render(gauges);
}

bool Daemon::Impl::prepare(const HttpRequest& request, Prepared& prepared, HttpReply& reply) {
    std::string problem;
    if (!readFields(request, prepared.fields, problem) ||
        !readCarriage(request, prepared.fields, prepared.carriage, prepared.ackOnly, problem)) {
        reply.close = true;
        answer(reply, Wire::kMalformedStatus, problem);
        return false;
    }
    prepared.client = Client{fieldOf(prepared.fields, Protocol::kServerIdField),
                             fieldOf(prepared.fields, Protocol::kClientIdField)};
    prepared.options = prepared.carriage;
    if (fieldOf(prepared.fields, Protocol::kOperationNameField) == Protocol::kGetEvents) {
        if (!prepared.carriage.ack) {
            prepared.options.ack = writtenNotAcknowledged(prepared.client);
        }
        // The carrier answers the client library's next getSharedClients from
        // what follows the events: one round trip instead of two.
        prepared.options.clientsToo = request.find(Protocol::kClientsTooHeader) != request.end();
    }
    if (prepared.fields.count(Protocol::kWaitMillisecondsField) != 0) {
        prepared.mark = waiters.mark(prepared.client.first);
    }
    return true;
}

void Daemon::Impl::exchange(const HttpRequest& request, HttpReply& reply, WaitAsk& ask) {
    Prepared prepared;
    if (!prepare(request, prepared, reply)) {
        return;
    }
    std::string response;
    Failure failure;
    Engine::ExchangeResult result;
    const Client& client = prepared.client;
    const bool done =
        prepared.ackOnly
            ? engine.acknowledge(client.first, client.second, *prepared.carriage.ack, failure)
            : engine.exchange(prepared.fields, request.body(), prepared.options, response, failure,
                              result);
    finish(prepared, done, std::move(response), failure, result, reply, ask);
}

void Daemon::Impl::finish(const Prepared& prepared, bool done, std::string&& response,
                          const Failure& failure, const Engine::ExchangeResult& result,
                          HttpReply& reply, WaitAsk& ask) {
    if (!done) {
        answer(reply, Wire::statusForFailure(Protocol::failureCode(failure.kind)), failure.message);
        return;
    }
    const bool clientAcknowledges = prepared.carriage.ack.has_value();
    if (result.lastSequence == 0 && !prepared.ackOnly && result.wait.count() > 0) {
        ask.wait = result.wait;
        ask.serverId = prepared.client.first;
        ask.clientId = prepared.client.second;
        ask.mark = prepared.mark;
        ask.logEnd = result.logEnd;
        ask.clientAcknowledges = clientAcknowledges;
    }
    answerEvents(reply, std::move(response), result, prepared.client, clientAcknowledges);
}

void Daemon::Impl::answerEvents(HttpReply& reply, std::string&& response,
                                const Engine::ExchangeResult& result, const Client& client,
                                bool clientAcknowledges) {
    if (result.clients) {
        reply.headers.emplace_back(Protocol::kEventsBytesHeader, std::to_string(response.size()));
        response += *result.clients;
    }
    succeed(reply, std::move(response));
    if (result.lastSequence == 0) {
        return;
    }
    reply.headers.emplace_back(Protocol::kLastSequenceHeader, std::to_string(result.lastSequence));
    if (!clientAcknowledges) {
        acknowledgeWhenWritten(reply, client, result.lastSequence);
    }  // else the client acknowledges what it read with its next request
}

// Without an ack (an older client, a raw call), a getEvents answer moves the
// client's cursor once written whole; one the connection could not carry leaves
// its events to come again. An answer written whole but lost after that (the
// client dies before reading it) is not seen here: that loss stays at most once.
// Acknowledging is store work, on the pool (past its bound) unless the store
// never waits; until it is done the client's next getEvents carries the
// acknowledgement itself (writtenNotAcknowledged), so a quick fetch never gets
// the events twice.
void Daemon::Impl::acknowledgeWhenWritten(HttpReply& reply, const Client& client,
                                          std::uint64_t upTo) {
    reply.onComplete = [this, client, upTo](bool written) {
        if (!written) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(deliveredMutex);
            std::uint64_t& known = delivered[client];
            known = std::max(known, upTo);
        }
        auto acknowledge = [this, client, upTo] {
            Failure failed;
            if (!engine.acknowledge(client.first, client.second, upTo, failed)) {
                log.message(LogLevel::Error,
                            "a delivered answer could not be acknowledged; its events come "
                            "again: " +
                                failed.message);
                return;
            }
            std::lock_guard<std::mutex> lock(deliveredMutex);
            auto found = delivered.find(client);
            if (found != delivered.end() && found->second <= upTo) {
                delivered.erase(found);
            }
        };
        if (storeOnIoThreads) {
            acknowledge();
        } else {
            pool.submit(acknowledge);
        }
    };
}

std::optional<std::uint64_t> Daemon::Impl::writtenNotAcknowledged(const Client& client) {
    std::lock_guard<std::mutex> lock(deliveredMutex);
    auto found = delivered.find(client);
    if (found == delivered.end()) {
        return std::nullopt;
    }
    return found->second;
}

// Idle clients go on the pool, like any store work; one sweep at a time, so a
// store that hangs collects no queue of sweeps.
void Daemon::Impl::sweepIdleClients() {
    if (sweeping.exchange(true)) {
        return;
    }
    pool.submit([this] {
        try {
            std::vector<Engine::ClientInfo> expired;
            engine.expireIdleClients(std::chrono::milliseconds(options.clientIdleExpiryMs),
                                     expired);
            for (const Engine::ClientInfo& client : expired) {
                log.message(LogLevel::Info,
                            "expired idle client server=" + printable(client.serverId) +
                                " client=" + printable(client.clientId) +
                                " waiting_events=" + std::to_string(client.waitingEvents));
            }
            metrics.addExpiredClients(expired.size());
        } catch (const Protocol::Failure& failure) {
            log.message(LogLevel::Warn, "the sweep of idle clients failed: " + failure.message);
        } catch (...) {
            log.message(LogLevel::Warn, "the sweep of idle clients failed");
        }
        sweeping = false;  // whatever happened, the next sweep may run
    });
}

void Daemon::Impl::sweepEvery(std::chrono::milliseconds interval) {
    std::unique_lock<std::mutex> lock(sweepMutex);
    while (!sweepWake.wait_for(lock, interval, [this] { return stopping; })) {
        sweepIdleClients();
    }
}

// The log line and the metrics of every answered request. An exchange's
// fields are read again here so that the refusals of the server (which never
// reach handle()) name their operation too.
void Daemon::Impl::answered(const RequestOutcome& outcome) {
    RequestLine line;
    line.status = outcome.reply->status;
    line.micros = outcome.micros;
    line.peer = outcome.peer;
    if (outcome.request != nullptr && isExchange(*outcome.request)) {
        RequestHeaders fields;
        std::string problem;
        readFields(*outcome.request, fields, problem);
        line.exchange = true;
        line.operation = fieldOf(fields, Protocol::kOperationNameField);
        line.server = fieldOf(fields, Protocol::kServerIdField);
        line.client = fieldOf(fields, Protocol::kClientIdField);
    } else if (outcome.request != nullptr) {
        line.method = std::string(outcome.request->method_string());
        line.path = pathOf(*outcome.request);
    } else {
        line.method = "-";
        line.path = "-";
    }
    metrics.recordRequest(line.operation, line.status, line.micros);
    log.request(line);
}

Daemon::Daemon(const DaemonOptions& options, std::FILE* log, std::unique_ptr<Engine::Store> store)
    : impl(new Impl(options, log, std::move(store))) {}

Daemon::~Daemon() = default;

bool Daemon::bind(std::string& error) {
    return impl->server.bind(impl->options.host, impl->options.port, error);
}

int Daemon::port() const {
    return impl->server.port();
}

bool Daemon::run() {
    std::thread sweeper;
    if (impl->options.clientIdleExpiryMs > 0) {
        // A client is expired at most a tenth of the expiry late (100 ms to 1 min).
        const long interval =
            std::min(60000L, std::max(100L, impl->options.clientIdleExpiryMs / 10));
        sweeper = std::thread(
            [this, interval] { impl->sweepEvery(std::chrono::milliseconds(interval)); });
    }
    const bool served = impl->server.run();
    if (sweeper.joinable()) {
        stop();  // when the server ended by itself
        sweeper.join();
    }
    return served;
}

void Daemon::stop() {
    {
        std::lock_guard<std::mutex> lock(impl->sweepMutex);
        impl->stopping = true;
    }
    impl->sweepWake.notify_all();
    impl->waiters.stop();
    impl->server.stop();
}

std::string Daemon::describeStore() const {
    return impl->engine.describeStore();
}

Log& Daemon::log() {
    return impl->log;
}

bool parseDuration(const std::string& text, long& milliseconds, std::string& error) {
    static const struct {
        const char* suffix;
        long milliseconds;
    } kUnits[] = {{"ms", 1}, {"s", 1000}, {"m", 60000}, {"h", 3600000}, {"d", 86400000}};
    error = "A duration is a whole number with a unit (ms, s, m, h or d), e.g. 30m, not \"" + text +
            "\".";
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || number <= 0 || text[0] == '-' || text[0] == '+') {
        return false;
    }
    for (const auto& unit : kUnits) {
        if (std::string(end) == unit.suffix && number <= LONG_MAX / unit.milliseconds) {
            milliseconds = number * unit.milliseconds;
            error.clear();
            return true;
        }
    }
    return false;
}

bool parseListenAddress(const std::string& text, std::string& host, int& port, std::string& error) {
    error = "--listen takes HOST:PORT (e.g. 127.0.0.1:7070, [::1]:0), not \"" + text + "\".";
    std::string hostPart, portPart, problem;
    int number = 0;
    if (!Protocol::splitHostPort(text, hostPart, portPart, problem) ||
        !Protocol::parsePort(portPart, 0, number)) {
        return false;
    }
    host = hostPart.empty() ? "127.0.0.1" : hostPart;
    port = number;
    error.clear();
    return true;
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
