#include "transport/internal/HttpBackend.h"

#include <pthread.h>

#include <atomic>
#include <boost/asio/ssl/context.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include "protocol/Failure.h"
#include "protocol/Limits.h"
#include "protocol/Names.h"
#include "transport/internal/HttpConnection.h"
#include "transport/internal/HttpUrl.h"
#include "transport/internal/IdentityLedger.h"
#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

using Wire::transportCodeForStatus;

// The daemon decides the real body limit (it answers 413); this one only keeps
// a runaway caller from buffering without end before anything is sent.
constexpr std::size_t kMaxRequestBodyBytes = 256 * 1024 * 1024;
constexpr std::uint64_t kMaxResponseBytes = 1024 * 1024 * 1024;

bool readMilliseconds(const char* variable, long& value, std::string& problem) {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') {
        return true;
    }
    char* end = nullptr;
    errno = 0;
    const long parsed = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed <= 0) {
        problem = std::string(variable) + " must be a positive number of milliseconds, not \"" +
                  text + "\".";
        return false;
    }
    value = parsed;
    return true;
}

// A token travels in a header line: visible ASCII only, so it can neither break
// the line nor be changed on the way.
bool isTokenText(const std::string& token) {
    for (const char c : token) {
        if (c < 0x21 || c > 0x7E) {
            return false;
        }
    }
    return true;
}

std::string trimmed(const std::string& text) {
    std::size_t end = text.size();
    while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) {
        --end;
    }
    return text.substr(0, end);
}

bool fail(BackendFailure& failure, int32_t code, const std::string& message) {
    failure.code = code;
    failure.message = message;
    return false;
}

// Tells the connections of one backend from those of another (tests make
// several in one process; a thread's connection belongs to the last it served).
std::atomic<std::uint64_t> nextBackendId{1};

// A child process inherits the forking thread's connection, socket and all; two
// processes writing into one socket would mix their exchanges, so after a fork
// the child leaves that socket to the parent and opens its own.
std::atomic<unsigned> forkCount{0};

void countFork() {
    ++forkCount;
}

std::string fieldOf(const HeaderFields& fields, const char* name) {
    const auto found = fields.find(name);
    return found == fields.end() ? std::string() : found->second;
}

// The exchanges whose carrying the backend adds to: fetches it acknowledges,
// posts it makes idempotent, and the client list that completes a fetch.
enum class Kind { other, fetch, post, clients };

Kind kindOf(const HeaderFields& fields) {
    if (fieldOf(fields, Protocol::kServiceNameField) != Protocol::kServiceName) {
        return Kind::other;
    }
    const std::string operation = fieldOf(fields, Protocol::kOperationNameField);
    return operation == Protocol::kGetEvents          ? Kind::fetch
           : operation == Protocol::kPutEvents        ? Kind::post
           : operation == Protocol::kGetSharedClients ? Kind::clients
                                                      : Kind::other;
}

// How long the daemon may hold the request before it answers, in ms: the
// Wait-Milliseconds field. A value the daemon will refuse at once adds nothing.
long waitOf(const HeaderFields& fields) {
    std::int64_t wait = 0;
    Protocol::parseWaitMilliseconds(fieldOf(fields, Protocol::kWaitMillisecondsField), wait);
    return static_cast<long>(wait);
}

std::string headerLine(const char* name, const std::string& value) {
    return std::string(name) + ": " + value + "\r\n";
}

// Whether a post that failed so may have been applied all the same: the
// service said so (answer holds its message, a line), or the request went out
// and its answer never came whole.
bool outcomeUnknown(const HttpOutcome& outcome, const std::string& answer) {
    if (outcome.fault == HttpFault::timedOut || outcome.fault == HttpFault::lost) {
        return true;
    }
    return outcome.fault == HttpFault::none && outcome.status == Wire::kLimitStatus &&
           Protocol::hasUnknownOutcome(trimmed(answer));
}

class HttpBackend : public Backend {
public:
    explicit HttpBackend(const HttpSettings& settings)
        : settings(settings), problem(settings.problem), id(nextBackendId++) {
        static std::once_flag watchForks;
        std::call_once(watchForks, [] { pthread_atfork(nullptr, nullptr, countFork); });
        if (problem.empty() && parseHttpUrl(settings.url, url, problem) && url.secure) {
            tls.reset(new boost::asio::ssl::context(boost::asio::ssl::context::tls_client));
            boost::system::error_code ec;
            tls->set_default_verify_paths(ec);
            tls->set_verify_mode(boost::asio::ssl::verify_peer);
            if (ec) {
                problem = "Cannot load the system's certificate authorities for " + settings.url +
                          ": " + ec.message();
            }
        }
        if (problem.empty() && !isTokenText(settings.token)) {
            problem = "QUORVEL_TOKEN must be printable ASCII without spaces.";
        }
    }

    std::size_t maxBodyBytes() const override { return kMaxRequestBodyBytes; }

    bool exchange(const HeaderFields& headers, const std::string& body, std::string& response,
                  BackendFailure& failure) override {
        response.clear();
        if (!problem.empty()) {
            return fail(failure, AVQVL_UNREACHABLE, problem);
        }
        const Kind kind = kindOf(headers);
        const Identity identity{settings.url, fieldOf(headers, Protocol::kServerIdField),
                                fieldOf(headers, Protocol::kClientIdField)};
        IdentityLedger& ledger = IdentityLedger::instance();
        ThreadState& thread = threadState();
        if (takeHeldClients(thread, kind, identity, response)) {
            ledger.fetchCompleted(identity, true);
            return true;
        }
        std::string lines;
        std::uint64_t ackSent = 0;
        std::string postId;
        if (kind == Kind::fetch) {
            ackSent = ledger.ackToSend(identity);
            lines = headerLine(Protocol::kAckHeader, std::to_string(ackSent)) +
                    headerLine(Protocol::kClientsTooHeader, "1");
        } else if (kind == Kind::post) {
            postId = ledger.postIdFor(identity, body);
            lines = headerLine(Protocol::kPostIdHeader, postId);
        }
        HttpConnection& connection = *thread.connection;
        if (!composeHead(headers, lines, body.size(), connection.requestHead(), failure)) {
            return false;
        }
        const long waitMs = waitOf(headers);
        bool resent = false;
        HttpOutcome outcome = sendResendingOnce(connection, body, response, waitMs, resent);
        if (kind == Kind::post) {
            // A resend that failed says nothing of the first send, which was lost.
            const bool applied = outcome.fault == HttpFault::none && outcome.status == 200;
            ledger.posted(identity, body, postId, applied,
                          (resent && !applied) || outcomeUnknown(outcome, response));
        }
        if (kind == Kind::clients) {
            ledger.fetchCompleted(identity,
                                  outcome.fault == HttpFault::none && outcome.status == 200);
        }
        if (outcome.fault != HttpFault::none) {
            response.clear();
            return failWith(outcome, waitMs, failure);
        }
        if (outcome.status == 200) {
            if (kind == Kind::fetch) {
                if (!holdClients(outcome, identity, response, thread)) {
                    outcome.fault = HttpFault::malformed;
                    outcome.detail = std::string(Protocol::kEventsBytesHeader) + " \"" +
                                     outcome.eventsBytes + "\" is not a length within the body";
                    return failWith(outcome, waitMs, failure);
                }
                // An answer without a readable sequence holds no event to acknowledge.
                std::uint64_t lastSequence = 0;
                Wire::parseSequence(outcome.lastSequence, lastSequence);
                ledger.fetched(identity, ackSent, lastSequence);
            }
            return true;
        }
        return failWithAnswer(outcome, response, failure);
    }

    // One exchange on the thread's connection, sent once more when a kept-alive
    // connection turns out closed before any byte of its answer. The answer
    // may take the time-out plus the wait the daemon was allowed.
    HttpOutcome sendResendingOnce(HttpConnection& connection, const std::string& body,
                                  std::string& response, long waitMs, bool& resent) {
        const auto exchangeBy =
            DeadlineClock::now() + std::chrono::milliseconds(settings.timeoutMs + waitMs);
        const std::chrono::milliseconds connectTimeout(settings.connectTimeoutMs);
        const bool reused = connection.isOpen();
        HttpOutcome outcome =
            connection.exchange(body, response, exchangeBy, connectTimeout, kMaxResponseBytes);
        // A kept-alive connection may have been closed by the daemon while it
        // lay idle (its keep-alive time-out, a restart); the request then went
        // nowhere and is sent once more on a new connection. That is safe even
        // for a POST that changes state because the daemon answers every request
        // it handles, so a connection that closes without a single byte of
        // answer carried no handled request. The honest limit: a daemon that
        // dies after doing the work and before writing its first byte looks the
        // same, and a daemon back up at once would then see the request twice:
        // harmless, since a resent putEvents carries its post id and a getEvents
        // moves nothing until it is acknowledged. Never retried: a new
        // connection, a partial answer, a time-out.
        if (reused && outcome.fault == HttpFault::lost && !outcome.answerStarted) {
            resent = true;
            outcome =
                connection.exchange(body, response, exchangeBy, connectTimeout, kMaxResponseBytes);
        }
        return outcome;
    }

    // A status other than 200: the daemon's message, at most kMaxKeptErrorBytes of it.
    bool failWithAnswer(const HttpOutcome& outcome, std::string& response,
                        BackendFailure& failure) const {
        std::string message = trimmed(response);
        if (outcome.bodyBytes > response.size()) {
            message += " ... (cut: " + std::to_string(outcome.bodyBytes) + " bytes in all)";
        }
        response.clear();
        return failWithStatus(outcome.status, message, failure);
    }

    // Tells the daemon that identity has read up to upTo, on a connection of
    // its own (the thread's may be gone: this runs while the process ends), by
    // exchangeBy at the latest. Failures are dropped: the events come again.
    void acknowledgeOnly(const Identity& identity, std::uint64_t upTo,
                         DeadlineClock::time_point exchangeBy) {
        if (!problem.empty()) {
            return;
        }
        const HeaderFields fields = {{Protocol::kClientIdField, identity.clientId},
                                     {Protocol::kOperationNameField, Protocol::kGetEvents},
                                     {Protocol::kServerIdField, identity.serverId},
                                     {Protocol::kServiceNameField, Protocol::kServiceName}};
        HttpConnection connection(url, tls.get());
        BackendFailure failure;
        const std::string lines = headerLine(Protocol::kAckHeader, std::to_string(upTo)) +
                                  headerLine(Protocol::kAckOnlyHeader, "1");
        if (!composeHead(fields, lines, 0, connection.requestHead(), failure)) {
            return;
        }
        std::string answer;
        const HttpOutcome outcome =
            connection.exchange("", answer, exchangeBy,
                                std::chrono::milliseconds(settings.connectTimeoutMs), 64 * 1024);
        if (outcome.fault == HttpFault::none && outcome.status == 200) {
            IdentityLedger::instance().acknowledged(identity, upTo);
        }
    }

private:
    // What a thread keeps between its exchanges with this backend.
    struct ThreadState {
        std::uint64_t owner = 0;
        unsigned forks = 0;
        std::unique_ptr<HttpConnection> connection;
        // The getSharedClients answer that came with the thread's last
        // getEvents, for that client's getSharedClients if it is the very next
        // exchange: the client library closes every getEvents with one.
        bool holding = false;
        Identity heldFor;
        std::string heldClients;
    };

    ThreadState& threadState() {
        thread_local ThreadState state;
        if (state.owner != id || state.forks != forkCount) {
            state.connection.reset(new HttpConnection(url, tls.get()));
            state.owner = id;
            state.forks = forkCount;
            state.holding = false;
        }
        return state;
    }

    // True with response set when this exchange is the getSharedClients whose
    // answer came with the fetch before it. Any exchange lets the answer go.
    static bool takeHeldClients(ThreadState& thread, Kind kind, const Identity& identity,
                                std::string& response) {
        const bool held = thread.holding;
        thread.holding = false;
        const bool sameClient = !(identity < thread.heldFor) && !(thread.heldFor < identity);
        if (!held || kind != Kind::clients || !sameClient) {
            return false;
        }
        response.swap(thread.heldClients);
        return true;
    }

    // Splits a fetch's answer that carries the getSharedClients answer too;
    // false when its length is not one within the body.
    static bool holdClients(const HttpOutcome& outcome, const Identity& identity,
                            std::string& response, ThreadState& thread) {
        if (outcome.eventsBytes.empty()) {
            return true;  // a daemon that answers the events alone
        }
        std::uint64_t eventsBytes = 0;
        if (!Wire::parseSequence(outcome.eventsBytes, eventsBytes) ||
            eventsBytes > response.size()) {
            return false;
        }
        thread.heldClients.assign(response, static_cast<std::size_t>(eventsBytes));
        response.resize(static_cast<std::size_t>(eventsBytes));
        thread.heldFor = identity;
        thread.holding = true;
        return true;
    }

    // lines: whole header lines of the backend's own, CR LF each.
    bool composeHead(const HeaderFields& headers, const std::string& lines, std::size_t bodyBytes,
                     std::string& head, BackendFailure& failure) const {
        head.clear();
        head.append("POST ").append(url.target).append(" HTTP/1.1\r\nHost: ");
        head.append(url.hostHeader).append("\r\n");
        if (!settings.token.empty()) {
            head.append("Authorization: Bearer ").append(settings.token).append("\r\n");
        }
        for (const auto& field : headers) {
            const std::size_t lineStart = head.size();
            head.append(Wire::kFieldHeaderName).append(": ");
            head.append(Wire::encodeField(field.first, field.second));
            const std::size_t lineBytes = head.size() - lineStart;
            if (lineBytes > Wire::kMaxFieldLineBytes) {
                return fail(failure, AVQVL_LIMIT,
                            "The header field \"" + field.first +
                                "\" cannot travel to the Quorvel service: encoded it takes " +
                                std::to_string(lineBytes) + " bytes, more than the " +
                                std::to_string(Wire::kMaxFieldLineBytes) +
                                " a header line may hold.");
            }
            head.append("\r\n");
        }
        head.append(lines);
        head.append("Content-Type: application/octet-stream\r\nContent-Length: ");
        head.append(std::to_string(bodyBytes)).append("\r\n\r\n");
        return true;
    }

    // The one place where a failed exchange gets its code and its words.
    bool failWith(const HttpOutcome& outcome, long waitMs, BackendFailure& failure) const {
        const std::string where = "the Quorvel service at " + settings.url;
        const std::string& detail = outcome.detail;
        switch (outcome.fault) {
            case HttpFault::unresolved:
                return fail(failure, AVQVL_UNREACHABLE, "Cannot reach " + where + ": " + detail);
            case HttpFault::refused:
                return fail(failure, AVQVL_UNREACHABLE,
                            "Cannot reach " + where + ": couldn't connect (" + detail + ")");
            case HttpFault::untrusted:
                return fail(
                    failure, AVQVL_UNREACHABLE,
                    "Cannot reach " + where + ": its certificate failed verification: " + detail);
            case HttpFault::tlsFailed:
                return fail(failure, AVQVL_UNREACHABLE,
                            "Cannot reach " + where + ": the TLS handshake failed: " + detail);
            // A setting to change, like a bad URL: not worth trying again as it is.
            case HttpFault::speaksTls:
                return fail(failure, AVQVL_UNREACHABLE, "Cannot reach " + where + ": " + detail);
            case HttpFault::connectTimedOut:
                return fail(failure, AVQVL_TIMED_OUT,
                            "Cannot reach " + where + ": couldn't connect within the time-out (" +
                                std::to_string(settings.connectTimeoutMs) + " ms)");
            case HttpFault::timedOut:
                return fail(failure, AVQVL_TIMED_OUT,
                            "No answer from " + where + " within the time-out (" +
                                std::to_string(settings.timeoutMs) + " ms" +
                                (waitMs > 0 ? " plus the wait of " + std::to_string(waitMs) + " ms"
                                            : std::string()) +
                                ")");
            case HttpFault::lost:
                return fail(failure, AVQVL_CONNECTION_LOST,
                            "The connection to " + where + " broke during the exchange: " + detail);
            case HttpFault::malformed:
                return fail(failure, AVQVL_OTHER_ANSWER,
                            "The answer of " + where + " is malformed: " + detail);
            case HttpFault::tooLarge:
                return fail(failure, AVQVL_LIMIT,
                            "The answer of " + where + " is longer than " +
                                std::to_string(kMaxResponseBytes) + " bytes.");
            case HttpFault::none:
                break;
        }
        return fail(failure, AVQVL_OTHER_ANSWER, "The exchange with " + where + " failed.");
    }

    bool failWithStatus(int status, const std::string& message, BackendFailure& failure) const {
        const int32_t code = transportCodeForStatus(status);
        const std::string where = "The Quorvel service at " + settings.url;
        if (code == AVQVL_TOKEN_REFUSED) {
            return fail(
                failure, code,
                settings.token.empty()
                    ? where + " refused the request without a token (set QUORVEL_TOKEN): " + message
                    : where + " refused the token in QUORVEL_TOKEN: " + message);
        }
        if (code == AVQVL_OTHER_ANSWER) {
            return fail(failure, code,
                        where + " answered status " + std::to_string(status) + ": " + message);
        }
        return fail(failure, code, message);
    }

    const HttpSettings settings;
    std::string problem;
    HttpUrl url;
    std::unique_ptr<boost::asio::ssl::context> tls;
    const std::uint64_t id;
};

// What this process has read and not had acknowledged goes to the daemon as
// the process ends normally (a static's destructor runs at exit(), and at the
// library's unloading), so the next process of the same identity does not see
// it again. Every acknowledgement must be done within the exchange time-out of
// the exit's start: the exit waits that long at most. A process killed, or a
// forked child ending with _exit(), sends nothing: the events come again.
class ExitAcknowledgement {
public:
    static void watch(const HttpSettings& settings) {
        static ExitAcknowledgement one;
        std::lock_guard<std::mutex> lock(one.mutex);
        one.settingsByUrl.emplace(settings.url, settings);
    }

    ~ExitAcknowledgement() {
        try {
            std::vector<OpenAck> open;
            IdentityLedger::instance().takeOpen(open);
            const auto start = DeadlineClock::now();
            for (const OpenAck& ack : open) {
                const auto found = settingsByUrl.find(ack.identity.url);
                if (found != settingsByUrl.end()) {
                    HttpBackend backend(found->second);
                    backend.acknowledgeOnly(
                        ack.identity, ack.upTo,
                        start + std::chrono::milliseconds(found->second.timeoutMs));
                }
            }
        } catch (...) {
            // Out of memory while the process ends: the events come again.
        }
    }

private:
    ExitAcknowledgement() = default;

    std::mutex mutex;  // guards settingsByUrl
    std::map<std::string, HttpSettings> settingsByUrl;
};

}  // namespace

bool httpSettingsFromEnvironment(HttpSettings& settings) {
    const char* url = std::getenv("QUORVEL_URL");
    if (url == nullptr || *url == '\0') {
        return false;
    }
    settings.url = url;
    const char* token = std::getenv("QUORVEL_TOKEN");
    settings.token = token != nullptr ? token : "";
    if (readMilliseconds("QUORVEL_TIMEOUT_MS", settings.timeoutMs, settings.problem)) {
        readMilliseconds("QUORVEL_CONNECT_TIMEOUT_MS", settings.connectTimeoutMs, settings.problem);
    }
    return true;
}

std::unique_ptr<Backend> makeHttpBackend(const HttpSettings& settings) {
    ExitAcknowledgement::watch(settings);
    return std::unique_ptr<Backend>(new HttpBackend(settings));
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
