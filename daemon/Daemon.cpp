#include "daemon/Daemon.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>

#include "daemon/GuardedServer.h"
#include "daemon/Refusals.h"
#include "engine/MemoryStore.h"
#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Daemon {

using Engine::FailureKind;
using Engine::RequestHeaders;
using Engine::ServiceFailure;
using Clock = std::chrono::steady_clock;

namespace {

// What the log line of the request being served on this worker reports; the
// logger runs on the same thread once the answer is written.
struct RequestRecord {
    Clock::time_point start{};
    bool started = false;
    std::string operation;
    std::string server;
    std::string client;
};
thread_local RequestRecord record;

void answer(httplib::Response& res, int status, const std::string& message) {
    res.status = status;
    res.set_content(message + "\n", "text/plain; charset=utf-8");
}

// True when the request has no Content-Length, or exactly one that is a
// decimal number. The library would read "abc" as 0 and the bytes that follow
// as the next request, and would pick one of two differing lengths.
bool wellFormedContentLength(const httplib::Request& req) {
    const std::size_t count = req.get_header_value_count("Content-Length");
    if (count == 0) {
        return true;
    }
    const std::string text = req.get_header_value("Content-Length");
    return count == 1 && !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// The declared body length (checked by wellFormedContentLength) is over max.
bool declaredLengthOver(const httplib::Request& req, std::size_t max) {
    std::string digits = req.get_header_value("Content-Length");
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    const std::string limit = std::to_string(max);
    return digits.size() > limit.size() || (digits.size() == limit.size() && digits > limit);
}

// For answers given before the body was read to its end: what is left of it
// on the connection is no next request.
void closeAfter(httplib::Response& res) {
    res.set_header("Connection", "close");
    markCloseAfterAnswer();
}

// Log text: bytes outside printable ASCII, and space, "=" and "%", as %XX, so a
// line stays one line and its fields stay apart whatever they hold.
std::string printable(const std::string& text) {
    static const char digits[] = "0123456789ABCDEF";
    std::string shown;
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7F && byte != '=' && byte != '%') {
            shown += c;
        } else {
            shown += '%';
            shown += digits[byte >> 4];
            shown += digits[byte & 0x0F];
        }
    }
    return shown;
}

int statusForFailure(const ServiceFailure& failure) {
    return Wire::statusForFailure(failure.kind == FailureKind::Limit ? AVQVL_LIMIT : AVQVL_REFUSED);
}

}  // namespace

struct Daemon::Impl {
    Impl(const DaemonOptions& options, std::FILE* log, std::unique_ptr<Engine::Store> store)
        : options(options),
          log(options.quiet ? nullptr : log),
          engine(store ? std::move(store) : std::make_unique<Engine::MemoryStore>(options.limits)),
          server(connectionLimits(options), options.workers) {}

    static ConnectionLimits connectionLimits(const DaemonOptions& options) {
        ConnectionLimits limits;
        limits.readTimeoutMs = options.readTimeoutMs;
        limits.requestTimeoutMs = options.requestTimeoutMs;
        limits.keepAliveMs = options.keepAliveSeconds * 1000;
        limits.keepAliveRequests = options.keepAliveRequests;
        limits.maxHeadBytes = options.maxHeadBytes;
        limits.maxBodyBytes = options.limits.maxBodyBytes;
        return limits;
    }
    httplib::Server::HandlerResponse explainError(const httplib::Request& req,
                                                  httplib::Response& res) const;

    void configure();
    void exchange(const httplib::Request& req, httplib::Response& res,
                  const httplib::ContentReader& reader);
    bool readFields(const httplib::Request& req, RequestHeaders& fields, std::string& problem);
    void writeLog(const httplib::Request& req, const httplib::Response& res);

    const DaemonOptions options;
    std::FILE* const log;
    Engine::ServiceEngine engine;
    GuardedServer server;
    int boundPort = -1;
    std::mutex logMutex;
    std::atomic<bool> stopRequested{false};
};

void Daemon::Impl::configure() {
    // Without it every exchange on a kept-alive connection waits for a delayed ACK
    // (accepted sockets inherit it from the listening one).
    server.set_tcp_nodelay(true);
    server.set_payload_max_length(options.limits.maxBodyBytes);
    // Only advertised in the Keep-Alive answer header; GuardedServer enforces them.
    server.set_keep_alive_max_count(options.keepAliveRequests);
    server.set_keep_alive_timeout(options.keepAliveSeconds);

    server.set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
        markRequestHeadRead();
        record = RequestRecord();
        record.start = Clock::now();
        record.started = true;
        if (!wellFormedContentLength(req)) {
            answer(res, Wire::kMalformedStatus,
                   "The request must have at most one Content-Length, a decimal number of bytes.");
            closeAfter(res);
            return httplib::Server::HandlerResponse::Handled;
        }
        // A body without a length would be read until the client closes.
        const bool sendsBody = req.method == "POST" || req.method == "PUT" || req.method == "PATCH";
        if (sendsBody && !req.has_header("Content-Length") &&
            req.get_header_value("Transfer-Encoding").find("chunked") == std::string::npos) {
            answer(res, 411, "The request has a body but no Content-Length.");
            closeAfter(res);
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.Post(Wire::kExchangePath,
                [this](const httplib::Request& req, httplib::Response& res,
                       const httplib::ContentReader& reader) { exchange(req, res, reader); });
    const auto wrongMethod = [](const httplib::Request& req, httplib::Response& res) {
        res.set_header("Allow", "POST");
        answer(res, 405,
               "Method " + req.method + " is not allowed on " + Wire::kExchangePath +
                   "; an exchange is a POST.");
    };
    server.Get(Wire::kExchangePath, wrongMethod);
    server.Put(Wire::kExchangePath, wrongMethod);
    server.Patch(Wire::kExchangePath, wrongMethod);
    server.Delete(Wire::kExchangePath, wrongMethod);
    server.Options(Wire::kExchangePath, wrongMethod);

    // Answers the library produced itself (unknown path, malformed request,
    // body over the limit) get a message like every other error.
    server.set_error_handler(httplib::Server::HandlerWithResponse(
        [this](const httplib::Request& req, httplib::Response& res) {
            return explainError(req, res);
        }));
    server.set_logger(
        [this](const httplib::Request& req, const httplib::Response& res) { writeLog(req, res); });
}

// Answers the library produced itself (unknown path, malformed or oversize
// request) get a message and a code like every other error.
httplib::Server::HandlerResponse Daemon::Impl::explainError(const httplib::Request& req,
                                                            httplib::Response& res) const {
    if (!res.body.empty()) {
        return httplib::Server::HandlerResponse::Unhandled;
    }
    // What is left of a request that could not be read is no next request.
    markCloseAfterAnswer();
    res.set_header("Connection", "close");
    // The library answers 400 when the connection gave up on the head.
    const RequestTrouble& trouble = currentRequestTrouble();
    const ConnectionLimits limits = connectionLimits(options);
    std::string message;
    if (trouble.headTooLong || (res.status == 400 && trouble.headerLineTooLong)) {
        const Unreadable why =
            trouble.headTooLong ? Unreadable::HeadTooLong : Unreadable::HeaderLineTooLong;
        res.status = refusalStatus(why);
        message = refusalText(why, limits);
    } else if (trouble.late || trouble.stalled) {
        const Unreadable why = trouble.late ? Unreadable::Late : Unreadable::Stalled;
        res.status = refusalStatus(why);
        message = refusalText(why, limits);
    } else if (res.status == Wire::kBodyTooLargeStatus) {
        message = refusalText(Unreadable::BodyTooLong, limits);
    } else if (res.status == 404) {
        message = "There is nothing at " + req.path + "; an exchange is a POST to " +
                  Wire::kExchangePath + ".";
    } else if (res.status == 414) {
        message = "The request line is too long.";
    } else {
        message = "The request is not a valid HTTP/1.1 request (status " +
                  std::to_string(res.status) + ").";
    }
    answer(res, res.status, message);
    return httplib::Server::HandlerResponse::Handled;
}

bool Daemon::Impl::readFields(const httplib::Request& req, RequestHeaders& fields,
                              std::string& problem) {
    const std::size_t count = req.get_header_value_count(Wire::kFieldHeaderName);
    for (std::size_t i = 0; i < count; ++i) {
        std::string name;
        std::string value;
        if (!Wire::decodeField(req.get_header_value(Wire::kFieldHeaderName, i), name, value,
                               problem)) {
            return false;
        }
        if (!fields.emplace(name, value).second) {
            problem = "The header field \"" + name + "\" is given twice.";
            return false;
        }
    }
    return true;
}

void Daemon::Impl::exchange(const httplib::Request& req, httplib::Response& res,
                            const httplib::ContentReader& reader) {
    RequestHeaders fields;
    std::string problem;
    const bool fieldsRead = readFields(req, fields, problem);
    const auto field = [&fields](const char* name) {
        const auto found = fields.find(name);
        return found == fields.end() ? std::string() : found->second;
    };
    record.operation = field("Operation-Name");
    record.server = field("Server-ID");
    record.client = field("Client-ID");
    if (!fieldsRead) {
        answer(res, Wire::kMalformedStatus, problem);
        closeAfter(res);
        return;
    }
    if (declaredLengthOver(req, options.limits.maxBodyBytes)) {
        answer(res, refusalStatus(Unreadable::BodyTooLong),
               refusalText(Unreadable::BodyTooLong, connectionLimits(options)));
        closeAfter(res);
        return;
    }

    // The connection cuts the body off at the request time-out.
    std::string body;
    bool tooLong = false;
    const bool complete = reader([&](const char* data, size_t length) {
        if (body.size() + length > options.limits.maxBodyBytes) {
            tooLong = true;
            return false;
        }
        body.append(data, length);
        return true;
    });
    if (!complete || tooLong) {
        const RequestTrouble& trouble = currentRequestTrouble();
        closeAfter(res);
        if (tooLong || res.status == Wire::kBodyTooLargeStatus) {
            answer(res, refusalStatus(Unreadable::BodyTooLong),
                   refusalText(Unreadable::BodyTooLong, connectionLimits(options)));
        } else if (trouble.late || trouble.stalled) {
            const Unreadable why = trouble.late ? Unreadable::Late : Unreadable::Stalled;
            answer(res, refusalStatus(why), refusalText(why, connectionLimits(options)));
        } else {
            answer(res, Wire::kMalformedStatus, "The request body ended before its length.");
        }
        return;
    }

    std::string response;
    ServiceFailure failure;
    if (!engine.handle(fields, body, response, failure)) {
        answer(res, statusForFailure(failure), failure.message);
        return;
    }
    res.status = 200;
    res.set_content(response, "application/octet-stream");
}

// One line per request: operation, server, client, status, microseconds from
// the end of the request head to the answer, and the peer.
void Daemon::Impl::writeLog(const httplib::Request& req, const httplib::Response& res) {
    if (log == nullptr) {
        record = RequestRecord();
        return;
    }
    const long long micros =
        record.started
            ? std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - record.start)
                  .count()
            : 0;
    std::string line;
    if (req.path == Wire::kExchangePath && req.method == "POST") {
        line = "exchange op=" + printable(record.operation) +
               " server=" + printable(record.server) + " client=" + printable(record.client);
    } else {
        // Whatever the client sent as method and path, the line stays short.
        line = "request " + printable(req.method.substr(0, 16)) + " " +
               printable(req.path.substr(0, 200));
    }
    line += " status=" + std::to_string(res.status) + " us=" + std::to_string(micros) +
            " peer=" + req.remote_addr + ":" + std::to_string(req.remote_port) + "\n";
    record = RequestRecord();
    std::lock_guard<std::mutex> lock(logMutex);
    std::fwrite(line.data(), 1, line.size(), log);
    std::fflush(log);
}

Daemon::Daemon(const DaemonOptions& options, std::FILE* log, std::unique_ptr<Engine::Store> store)
    : impl(new Impl(options, log, std::move(store))) {
    impl->configure();
}

Daemon::~Daemon() = default;

bool Daemon::bind(std::string& error) {
    if (impl->options.port == 0) {
        impl->boundPort = impl->server.bind_to_any_port(impl->options.host);
    } else if (impl->server.bind_to_port(impl->options.host, impl->options.port)) {
        impl->boundPort = impl->options.port;
    }
    if (impl->boundPort <= 0) {
        error = "Cannot listen on " + impl->options.host + ":" +
                std::to_string(impl->options.port) +
                " (address in use, not a local address, or not allowed).";
        impl->boundPort = -1;
        return false;
    }
    impl->server.widenBacklog();
    return true;
}

int Daemon::port() const {
    return impl->boundPort;
}

bool Daemon::run() {
    if (impl->stopRequested) {
        return true;
    }
    const bool ok = impl->server.listen_after_bind();
    return ok || impl->stopRequested;
}

// A stop that comes before run() has started listening is not lost: run() sees
// the flag, or the library's listening ends as soon as it begins.
void Daemon::stop() {
    impl->stopRequested = true;
    impl->server.beginStop();
}

bool parseListenAddress(const std::string& text, std::string& host, int& port, std::string& error) {
    const std::size_t colon = text.rfind(':');
    error = "--listen takes HOST:PORT (e.g. 127.0.0.1:7070, [::1]:0), not \"" + text + "\".";
    if (colon == std::string::npos) {
        return false;
    }
    std::string hostPart = text.substr(0, colon);
    const std::string portPart = text.substr(colon + 1);
    if (hostPart.size() >= 2 && hostPart.front() == '[' && hostPart.back() == ']') {
        hostPart = hostPart.substr(1, hostPart.size() - 2);
    } else if (hostPart.find(':') != std::string::npos) {
        return false;  // a bare IPv6 address needs brackets
    }
    char* end = nullptr;
    const long number = std::strtol(portPart.c_str(), &end, 10);
    if (portPart.empty() || *end != '\0' || number < 0 || number > 65535) {
        return false;
    }
    host = hostPart.empty() ? "127.0.0.1" : hostPart;
    port = static_cast<int>(number);
    error.clear();
    return true;
}

}  // namespace Daemon
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
