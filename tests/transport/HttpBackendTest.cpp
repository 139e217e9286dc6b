// The transport's HTTP backend against small fake servers on loopback (plain and
// TLS) that misbehave on purpose: each failure gets its own code and words,
// kept-alive connections closed by the server are replaced, nothing is sent twice
// once an answer has begun, and fetches and posts carry their acknowledgement and
// post id. (That the daemon applies a post id once is the engine's tests'.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cctype>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "daemon/DaemonHarness.h"
#include "protocol/Failure.h"
#include "protocol/Names.h"
#include "transport/internal/DeadlineSocket.h"
#include "transport/internal/HttpBackend.h"
#include "transport/internal/HttpUrl.h"
#include "wire/HttpWire.h"

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace Protocol = Arvant::Net::AvQuorvel::Protocol;
namespace Transport = Arvant::Net::AvQuorvel::Transport;
namespace Wire = Arvant::Net::AvQuorvel::Wire;
using ::testing::HasSubstr;
using Request = http::request<http::string_body>;

namespace {

// One accepted connection, plain or TLS, as a fake server's script sees it. Every
// read gives up after five seconds, so no script can hang the test.
class Peer {
public:
    Peer(asio::io_context& io, asio::ip::tcp::socket&& accepted) : socket(io) {
        socket.adopt(std::move(accepted));
        socket.setDeadline(Transport::DeadlineClock::now() + std::chrono::seconds(5));
    }

    // Runs script on the connection, then closes it as a daemon would: bytes
    // left unread (a body being refused) make that a reset.
    void serve(const std::function<void(Peer&)>& script, asio::ssl::context* tls) {
        if (tls != nullptr) {
            secure.reset(new asio::ssl::stream<Transport::DeadlineSocket&>(socket, *tls));
            boost::system::error_code ec;  // a failed handshake fails every read
            secure->handshake(asio::ssl::stream_base::server, ec);
        }
        script(*this);
        std::lock_guard<std::mutex> lock(closing);
        boost::system::error_code ignored;
        socket.lowest_layer().close(ignored);
    }
    // Ends a script that waits on the client; the descriptor is not shut once
    // closed, when it may be another's.
    void shutdown() {
        std::lock_guard<std::mutex> lock(closing);
        if (socket.lowest_layer().is_open()) {
            ::shutdown(socket.lowest_layer().native_handle(), SHUT_RDWR);
        }
    }

    // False when the client closed the connection or went silent, or right after
    // the head of a body over 1 MB (the parser's default limit), left unread.
    bool read(Request& request) {
        request = {};
        boost::system::error_code ec;
        secure ? http::read(*secure, buffer, request, ec) : http::read(socket, buffer, request, ec);
        return !ec;
    }
    void send(const std::string& bytes) {
        boost::system::error_code ec;
        secure ? asio::write(*secure, asio::buffer(bytes), ec)
               : asio::write(socket, asio::buffer(bytes), ec);
    }

private:
    Transport::DeadlineSocket socket;
    std::unique_ptr<asio::ssl::stream<Transport::DeadlineSocket&>> secure;
    boost::beast::flat_buffer buffer;
    std::mutex closing;  // guards the descriptor between serve() and shutdown()
};

// lastSequence: the Quorvel-Last-Sequence header's value, none when empty.
std::string answer(const std::string& body, int status = 200,
                   const std::string& lastSequence = "") {
    return "HTTP/1.1 " + std::to_string(status) + " X\r\n" +
           (lastSequence.empty() ? "" : "Quorvel-Last-Sequence: " + lastSequence + "\r\n") +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A server on 127.0.0.1 and an ephemeral port that runs script on every
// connection it accepts, each in a thread of its own, until it is destroyed.
class FakeServer {
public:
    using Script = std::function<void(Peer&)>;

    explicit FakeServer(Script script, asio::ssl::context* tls = nullptr) {
        acceptor.open(asio::ip::tcp::v4());
        acceptor.bind({asio::ip::address_v4::loopback(), 0});
        acceptor.listen();
        // peers and threads are the accepting thread's until it is joined.
        accepting = std::thread([this, script, tls] {
            boost::system::error_code ec;
            for (asio::ip::tcp::socket accepted(io); (accepted = acceptor.accept(ec), !ec);) {
                ++connections;
                peers.emplace_back(new Peer(io, std::move(accepted)));
                threads.emplace_back(&Peer::serve, peers.back().get(), script, tls);
            }
        });
    }
    // A shutdown wakes the accept, and the scripts still waiting for a request
    // on a kept-alive connection.
    ~FakeServer() {
        ::shutdown(acceptor.native_handle(), SHUT_RDWR);
        accepting.join();
        for (std::size_t i = 0; i < threads.size(); ++i) {
            peers[i]->shutdown();
            threads[i].join();
        }
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port()); }
    int port() const { return acceptor.local_endpoint().port(); }

    std::atomic<int> connections{0}, requests{0};

private:
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor{io};
    std::thread accepting;
    std::vector<std::unique_ptr<Peer>> peers;
    std::vector<std::thread> threads;
};

// A script that answers every request on its connection with reply(request).
FakeServer::Script answering(std::function<std::string(const Request&)> reply) {
    return [reply](Peer& peer) {
        Request request;
        while (peer.read(request)) {
            peer.send(reply(request));
        }
    };
}

struct Outcome {
    int32_t code;      // 0: the exchange worked
    std::string text;  // the response, or the failure's message
};

Transport::HeaderFields fieldsFor(const std::string& operation, const std::string& client = "K") {
    return {{"Client-ID", client},
            {"Operation-Name", operation},
            {"Server-ID", "S"},
            {"Service-Name", "AvQVLRequest"}};
}

Outcome exchange(Transport::Backend& backend, const std::string& body = "AvQVL Status check",
                 const Transport::HeaderFields& fields = fieldsFor("getStatus")) {
    std::string response;
    Transport::BackendFailure failure;
    const bool ok = backend.exchange(fields, body, response, failure);
    return {ok ? 0 : failure.code, ok ? response : failure.message};
}

std::unique_ptr<Transport::Backend> backendFor(const std::string& url, long timeoutMs = 5000,
                                               const std::string& token = "") {
    Transport::HttpSettings settings;
    settings.url = url;
    settings.timeoutMs = timeoutMs;
    settings.token = token;
    return Transport::makeHttpBackend(settings);
}

}  // namespace

// What QUORVEL_URL names, one after the other; "-" for a URL refused.
TEST(HttpUrlTest, TakesApartWhatItCanUseAndNamesWhatItCannot) {
    std::string got;
    for (const char* text :
         {"https://q.example.org/", "http://[::1]:80/prefix//", "ftp://h", "http://", "http://h:0",
          "http://u@h", "http://h/?q", "http://[1.2.3.4]", "http://h h"}) {
        Transport::HttpUrl url;
        std::string problem;
        got += Transport::parseHttpUrl(text, url, problem)
                   ? (url.secure ? "s " : "") + url.host + " " + url.port + " " + url.target + "; "
                   : "-; ";
    }
    EXPECT_EQ(got,
              "s q.example.org 443 /quorvel/v1/exchange; ::1 80 /prefix/quorvel/v1/exchange; "
              "-; -; -; -; -; -; -; ");
}

// Settings that cannot be used fail every exchange before anything is sent; a
// server that cannot be reached, refuses the token, or shows a certificate that
// is not trusted or names another host, is named for what it did; a request the
// daemon may hold (a fetch, its body empty) is given its wait on top of the
// time-out.
TEST(HttpBackendTest, UnusableSettingsRefusalsCertificatesAndWaitsAreNamed) {
    char directory[] = "/tmp/avqvl-tls-XXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    // A throwaway self-signed certificate for localhost, made with the openssl tool.
    const std::string pem = std::string(directory) + "/local.pem",
                      key = std::string(directory) + "/local.key",
                      command =
                          "openssl req -x509 -newkey ec -pkeyopt "
                          "ec_paramgen_curve:prime256v1 -nodes -days 1 -subj /CN=localhost "
                          "-addext subjectAltName=DNS:localhost -keyout " +
                          key + " -out " + pem + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << "the openssl tool failed";
    asio::ssl::context serverTls(asio::ssl::context::tls_server);
    serverTls.use_certificate_chain_file(pem);
    serverTls.use_private_key_file(key, asio::ssl::context::pem);
    FakeServer tlsServer(answering([](const Request&) { return answer("secret answer"); }),
                         &serverTls);
    const std::string tls = ":" + std::to_string(tlsServer.port());
    FakeServer server(answering([](const Request& request) {
        if (request.body().empty()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
        }
        return request[http::field::authorization] == "Bearer s3cret"
                   ? answer("welcome")
                   : answer("wrong token", Wire::kUnauthorizedStatus);
    }));
    const struct {
        std::string url;
        const char* token;
        int32_t code;
        const char* words;
        const char* wait = nullptr;         // a fetch's wait, with a time-out of 300 ms
        std::string trusted = "/dev/null";  // the authorities' file
    } rows[] = {
        {server.url(), "s3cret", 0, "welcome"},
        {server.url(), "guess", AVQVL_TOKEN_REFUSED, "refused the token in QUORVEL_TOKEN: wrong"},
        {server.url(), "", AVQVL_TOKEN_REFUSED, "without a token"},
        {server.url(), "a b", AVQVL_UNREACHABLE, "QUORVEL_TOKEN must be printable"},
        {"ftp://h", "", AVQVL_UNREACHABLE, "QUORVEL_URL \"ftp://h\" cannot be used"},
        {"http://127.0.0.1:1", "", AVQVL_UNREACHABLE, "couldn't connect"},
        {"http://nohost.invalid:1", "", AVQVL_UNREACHABLE, "cannot resolve the host name"},
        {server.url(), "s3cret", AVQVL_TIMED_OUT, "(300 ms plus the wait of 100 ms)", "100"},
        {server.url(), "s3cret", 0, "welcome", "5000"},
        {"https://localhost" + tls, "", 0, "secret answer", nullptr, pem},
        {"https://localhost" + tls, "", AVQVL_UNREACHABLE, "failed verification: self-signed"},
        {"https://127.0.0.1" + tls, "", AVQVL_UNREACHABLE,
         "certificate failed verification: IP address mismatch", nullptr, pem},
    };
    for (const auto& row : rows) {
        Transport::HeaderFields fields = fieldsFor(row.wait ? "getEvents" : "getStatus");
        if (row.wait) {
            fields[Protocol::kWaitMillisecondsField] = row.wait;
        }
        ::setenv("SSL_CERT_FILE", row.trusted.c_str(), 1);  // read when the backend is made
        auto backend = backendFor(row.url, row.wait ? 300 : 5000, row.token);
        ::unsetenv("SSL_CERT_FILE");
        const Outcome outcome = ::exchange(*backend, row.wait ? "" : "status", fields);
        EXPECT_EQ(outcome.code, row.code) << outcome.text;
        EXPECT_THAT(outcome.text, HasSubstr(row.words));
    }
    EXPECT_EQ(std::system(("rm -r " + std::string(directory)).c_str()), 0);
}

// Each way an answer can go wrong, on a connection that had already served one
// exchange (so a retry would be possible): its own code and words, and no retry.
// A refusal sent while the request is still going out is read all the same; a
// long message is kept in part; TLS bytes on a plain connection name the cure.
// The first exchange may be held for a long wait, which the silent server's
// time-out must not inherit (it would outlast the server and read as lost).
TEST(HttpBackendTest, EachBrokenAnswerIsNamedAndNeverRetried) {
    std::string longMessage = "x";  // two-byte characters after one byte: 64 KiB would split one
    while (longMessage.size() < 1024 * 1024) {
        longMessage += "\xC3\xA9";
    }
    const struct {
        std::string second;  // what the server sends for the second request ("": nothing)
        int32_t code;
        const char* words;
        std::size_t bodyBytes = 0;  // of the second request
    } rows[] = {
        {"", AVQVL_TIMED_OUT, "within the time-out (500 ms)"},
        {"hello there\r\n\r\n", AVQVL_OTHER_ANSWER, "is malformed"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", AVQVL_CONNECTION_LOST,
         "before the answer was complete"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n", AVQVL_LIMIT, "longer than"},
        {answer("body over the limit", 413), AVQVL_LIMIT, "body over the limit", 16 << 20},
        {answer(longMessage, 404), AVQVL_OTHER_ANSWER, "\xC3\xA9 ... (cut: 1048577 bytes in all)"},
        {std::string("\x16\x03\x03\x00\x04\x0e\0\0\0", 9), AVQVL_UNREACHABLE, "use https://"},
        {std::string("\x15\x03\x03\x00\x02\x02\x46", 7), AVQVL_UNREACHABLE, "use https://"},
    };
    for (const auto& row : rows) {
        FakeServer server([&](Peer& peer) {
            Request request;
            if (peer.read(request)) {
                peer.send(answer("first"));
            }
            peer.read(request);
            ++server.requests;
            peer.send(row.second);
            if (row.second.empty()) {
                peer.read(request);  // silent until the client gives up
            }
        });
        auto backend = backendFor(server.url(), row.second.empty() ? 500 : 10000);
        Transport::HeaderFields held = fieldsFor("getStatus");
        held[Protocol::kWaitMillisecondsField] = "5000";
        ASSERT_EQ(exchange(*backend, "AvQVL Status check", held).text, "first") << row.words;
        const Outcome broken = ::exchange(*backend, std::string(row.bodyBytes, 'x'));
        EXPECT_EQ(broken.code, row.code) << row.words << ": " << broken.text.substr(0, 200);
        EXPECT_THAT(broken.text, HasSubstr(row.words));
        // The service's own refusal is passed on as it is; the backend's words name where.
        EXPECT_EQ(broken.text.find(server.url()) != std::string::npos, row.bodyBytes == 0);
        EXPECT_EQ(server.requests, 1) << row.words;
    }
}

// What a fetch or a post carries besides its fields, as the fake daemon answers
// each request in turn: a digit 200 with that last sequence, 'd' a
// close without answer, 'c' an answer cut short, 'u' a limit whose outcome is
// unknown, 'r' a refusal, 'h' a fetch's answer holding the getSharedClients
// answer "C" too. expected: per request, the acknowledgement sent, or the post
// id as a letter (the same letter: the same id).
TEST(HttpBackendTest, FetchesCarryTheirAckAndRetriedPostsTheirId) {
    // Calls (one a character, its body that character: '.' a getEvents, 's' the
    // getSharedClients that closes it, 't' another client's, a letter a
    // putEvents), replies, expected.
    const char* rows[][3] = {
        {"AB", "0d0", "abb"},   // resent on a new connection after a close without answer
        {"AA", "u0", "aa"},     // retried after an unknown outcome
        {"AA", "d0", "aa"},     // ... after an answer lost on a new connection (no resend)
        {"AAA", "ur0", "aaa"},  // ... and again after a refusal, which says nothing of the first
        {"AB", "u0", "ab"},     // another body after an unknown outcome
        {"AA", "00", "ab"},     // the same body after a success
        {"AA", "r0", "ab"},     // the same body after a refusal
        {"....", "7090", "0779"},
        {"...", "7c0", "077"},  // a cut answer acknowledges nothing
        {".s.", "7r0", "0-0"},  // a call whose closing exchange failed
        {".s.", "700", "0-7"},
        {".s.", "h0", "07"},  // the shared clients came with the fetch: no request
        {".t", "h0", "0-"},   // ... but not another client's
    };
    const std::map<char, std::string> kReplies = {
        {'c', "HTTP/1.1 200 OK\r\nQuorvel-Last-Sequence: 8\r\nContent-Length: 9\r\n\r\nabc"},
        {'u', answer(std::string("store quiet; ") + Protocol::kUnknownOutcomeEnding,
                     Wire::kLimitStatus)},
        {'r', answer("no", Wire::kRefusedStatus)},
        {'h',
         "HTTP/1.1 200 OK\r\nQuorvel-Last-Sequence: 7\r\nQuorvel-Events-Bytes: 1\r\n"
         "Content-Length: 2\r\n\r\nEC"}};
    for (const auto& row : rows) {
        const std::string calls = row[0], replies = row[1], name = calls + replies;
        const bool post = calls[0] != '.';
        std::mutex mutex;
        std::vector<std::string> seen;  // guarded by mutex
        FakeServer server([&](Peer& peer) {
            Request request;
            while (peer.read(request)) {
                std::lock_guard<std::mutex> lock(mutex);
                seen.emplace_back(request[post ? Protocol::kPostIdHeader : Protocol::kAckHeader]);
                const char reply = seen.size() <= replies.size() ? replies[seen.size() - 1] : '0';
                if (reply == 'd') {
                    return;
                }
                peer.send(std::isdigit(reply) ? answer("", 200, std::string(1, reply))
                                              : kReplies.at(reply));
                if (reply == 'c') {
                    return;
                }
            }
        });
        auto backend = backendFor(server.url());
        std::string texts;
        for (const char call : calls) {
            texts += ::exchange(*backend, std::string(1, call),
                                fieldsFor(call == 's' || call == 't' ? "getSharedClients"
                                          : call == '.'              ? "getEvents"
                                                                     : "putEvents",
                                          call == 't' ? "other" : name))
                         .text;
        }
        if (replies[0] == 'h') {  // the events' part, then the clients' if asked
            EXPECT_EQ(texts, calls[1] == 's' ? "EC" : "E") << name;
        }
        std::string got;
        std::map<std::string, char> letters;
        for (const std::string& value : seen) {
            EXPECT_TRUE(!post || Wire::isPostId(value)) << name << ": " << value;
            got += post            ? letters.emplace(value, 'a' + letters.size()).first->second
                   : value.empty() ? '-'
                                   : value[0];
        }
        EXPECT_EQ(got, row[2]) << name;
    }
}

// Threads, and a forked child, open connections of their own (the
// parent's stays the parent's), and what a process read and never acknowledged goes to the daemon
// when it exits: only what that process read, so the child leaves its parent's alone.
TEST(HttpBackendTest, ThreadsAndForkedChildrenUseTheirOwnConnectionsAndAcknowledgeWhatTheyRead) {
    std::atomic<int> acknowledged{0};  // acknowledgements alone, of sequence 5
    std::mutex posting;
    std::map<std::string, std::string> postIdOf;  // by the post's body
    FakeServer server(answering([&](const Request& request) {
        acknowledged +=
            request[Protocol::kAckOnlyHeader] == "1" && request[Protocol::kAckHeader] == "5";
        std::lock_guard<std::mutex> lock(posting);
        postIdOf[request.body()] = std::string(request[Protocol::kPostIdHeader]);
        return answer(request.body(), 200, "5");  // echoes, so answers cannot cross
    }));
    auto backend = backendFor(server.url());
    const auto fetch = [&backend](const std::string& client) {
        return ::exchange(*backend, client, fieldsFor("getEvents", client)).text == client;
    };
    // The parent posts before and after the fork and the child between: never
    // with the same id.
    const auto post = [&backend](const std::string& body) {
        ::exchange(*backend, body, fieldsFor("putEvents", "poster"));
    };
    post("parent's first");
    EXPECT_TRUE(fetch("parent"));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (const char* client : {"t1", "t2", "t3"}) {
        threads.emplace_back([&fetch, &wrong, client] {
            for (int i = 0; i < 50; ++i) {
                wrong += !fetch(client);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    Harness::Child child([&fetch, &post] {
        fetch("child");
        post("child's");
        std::exit(0);  // the exit of a process that ends normally, static destructors and all
        return 0;
    });
    EXPECT_EQ(child.wait(10000), 0) << child.err();
    EXPECT_TRUE(fetch("parent"));
    post("parent's next");
    EXPECT_NE(postIdOf["child's"], postIdOf["parent's next"]);
    EXPECT_EQ(postIdOf["child's"].size(), Wire::kPostIdDigits);
    EXPECT_EQ(server.connections, 6);  // the parent's, the threads', the child's, its exit
    EXPECT_EQ(acknowledged, 1);        // the child's own read; the parent's stay the parent's
}
