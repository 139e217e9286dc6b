// The transport's HTTP backend against servers that misbehave on purpose (small
// fake servers on loopback, plain and TLS) and against a real quorveld that is
// stopped and started again: each failure gets its own code and its own words,
// kept-alive connections closed by the server are replaced without the caller
// noticing, and nothing is sent twice once an answer has begun.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "daemon/DaemonHarness.h"
#include "protocol/Failure.h"
#include "protocol/Names.h"
#include "support/TcpBalancer.h"
#include "transport/internal/DeadlineSocket.h"
#include "transport/internal/HttpBackend.h"
#include "transport/internal/HttpUrl.h"
#include "wire/HttpWire.h"

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace Transport = Arvant::Net::AvQuorvel::Transport;
namespace Wire = Arvant::Net::AvQuorvel::Wire;
using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::Not;
using Request = http::request<http::string_body>;

namespace {

// One accepted connection, plain or TLS, as a fake server's script sees it. Every
// read gives up after five seconds, so no script can hang the test.
class Peer {
public:
    Peer(asio::io_context& io, asio::ip::tcp::socket&& accepted, asio::ssl::context* tls)
        : socket(io) {
        socket.adopt(std::move(accepted));
        socket.setDeadline(Transport::DeadlineClock::now() + std::chrono::seconds(5));
        if (tls != nullptr) {
            secure.reset(new asio::ssl::stream<Transport::DeadlineSocket&>(socket, *tls));
            boost::system::error_code ec;
            secure->handshake(asio::ssl::stream_base::server, ec);
            handshaken = !ec;
        }
    }
    bool handshaken = true;

    // False when the client closed the connection (or went silent), or right
    // after the head of a body over 1 MB (the parser's default limit for a
    // request), whose bytes are left unread.
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
};

std::string answer(const std::string& body, int status = 200) {
    return "HTTP/1.1 " + std::to_string(status) +
           " X\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A server on 127.0.0.1 and an ephemeral port that runs script on every
// connection it accepts, each in a thread of its own, until it is destroyed.
class FakeServer {
public:
    using Script = std::function<void(Peer&)>;

    explicit FakeServer(Script script, asio::ssl::context* tls = nullptr)
        : script(std::move(script)), tls(tls) {
        acceptor.open(asio::ip::tcp::v4());
        acceptor.bind({asio::ip::address_v4::loopback(), 0});
        acceptor.listen();
        acceptor.non_blocking(true);
        accepting = std::thread([this] { acceptLoop(); });
    }
    ~FakeServer() {
        stopping = true;
        accepting.join();
        {
            // Wakes the scripts still waiting for a request on a kept-alive connection.
            std::lock_guard<std::mutex> lock(mutex);
            for (const int fd : open) {
                ::shutdown(fd, SHUT_RDWR);
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    std::string url(const char* scheme = "http") const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(port());
    }
    int port() const { return acceptor.local_endpoint().port(); }
    // Waits (two seconds at most) until count connections have ended.
    bool waitEnded(int count) {
        for (int i = 0; i < 1000 && ended < count; ++i) {
            std::this_thread::sleep_for(milliseconds(2));
        }
        return ended >= count;
    }

    std::atomic<int> connections{0}, requests{0}, ended{0};

private:
    void acceptLoop() {
        while (!stopping) {
            pollfd entry{acceptor.native_handle(), POLLIN, 0};
            if (::poll(&entry, 1, 20) <= 0) {
                continue;
            }
            boost::system::error_code ec;
            asio::ip::tcp::socket accepted = acceptor.accept(ec);
            if (ec) {
                continue;
            }
            ++connections;
            const int fd = accepted.native_handle();
            std::lock_guard<std::mutex> lock(mutex);
            open.insert(fd);
            threads.emplace_back(
                [this, fd](asio::ip::tcp::socket socket) { serve(fd, std::move(socket)); },
                std::move(accepted));
        }
    }
    void serve(int fd, asio::ip::tcp::socket&& accepted) {
        {
            Peer peer(io, std::move(accepted), tls);
            if (peer.handshaken) {
                script(peer);
            }
            std::lock_guard<std::mutex> lock(mutex);
            open.erase(fd);
        }  // closed here, after it left the set the destructor shuts down
        ++ended;
    }

    Script script;
    asio::ssl::context* tls;
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor{io};
    std::atomic<bool> stopping{false};
    std::thread accepting;
    std::mutex mutex;
    std::set<int> open;
    std::vector<std::thread> threads;
};

struct Outcome {
    bool ok;
    int32_t code;
    std::string text;  // the response, or the failure's message
};

const Transport::HeaderFields kStatusFields = {{"Service-Name", "AvQVLRequest"},
                                               {"Operation-Name", "getStatus"}};

Outcome exchange(Transport::Backend& backend, const std::string& body = "AvQVL Status check",
                 const Transport::HeaderFields& fields = kStatusFields) {
    std::string response;
    Transport::BackendFailure failure;
    const bool ok = backend.exchange(fields, body, response, failure);
    return {ok, ok ? 0 : failure.code, ok ? response : failure.message};
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

TEST(HttpUrlTest, TakesApartWhatItCanUseAndNamesWhatItCannot) {
    const struct {
        const char* text;
        bool secure;
        const char *host, *port, *target;
    } good[] = {
        {"http://127.0.0.1:7070", false, "127.0.0.1", "7070", "/quorvel/v1/exchange"},
        {"https://q.example.org/", true, "q.example.org", "443", "/quorvel/v1/exchange"},
        {"http://[::1]:80/prefix//", false, "::1", "80", "/prefix/quorvel/v1/exchange"},
        {"http://localhost", false, "localhost", "80", "/quorvel/v1/exchange"},
        {"https://[::1]", true, "::1", "443", "/quorvel/v1/exchange"},
    };
    for (const auto& row : good) {
        Transport::HttpUrl url;
        std::string problem;
        ASSERT_TRUE(Transport::parseHttpUrl(row.text, url, problem)) << row.text << problem;
        EXPECT_EQ(url.secure, row.secure) << row.text;
        EXPECT_EQ(url.host, row.host) << row.text;
        EXPECT_EQ(url.port, row.port) << row.text;
        EXPECT_EQ(url.target, row.target) << row.text;
    }
    for (const char* text :
         {"ftp://h", "http://", "http://:80", "http://h:0", "http://h:65536", "http://h:8x",
          "http://h:+80", "http://u@h", "http://h/?q", "http://[::1", "http://[::1]x80",
          "http://::1:80", "http://[1.2.3.4]", "http://h h"}) {
        Transport::HttpUrl url;
        std::string problem;
        EXPECT_FALSE(Transport::parseHttpUrl(text, url, problem)) << text;
        EXPECT_THAT(problem, HasSubstr("QUORVEL_URL")) << text;
    }
    // A bad URL or token is every exchange's failure, before anything is sent.
    const Outcome bad = exchange(*backendFor("ftp://h"));
    EXPECT_EQ(bad.code, AVQVL_UNREACHABLE);
    EXPECT_THAT(bad.text, HasSubstr("http://"));
    EXPECT_EQ(exchange(*backendFor("http://127.0.0.1:1", 5000, "a b")).code, AVQVL_UNREACHABLE);
    EXPECT_EQ(Wire::transportCodeForStatus(Wire::kUnauthorizedStatus), AVQVL_TOKEN_REFUSED);
}

TEST(HttpBackendTest, ConnectionClosedWhileIdleIsReplacedTransparently) {
    FakeServer server([&server](Peer& peer) {
        Request request;
        if (peer.read(request)) {  // one answer, kept alive, then closed as if idle too long
            peer.send(answer("answer " + std::to_string(++server.requests)));
        }
    });
    auto backend = backendFor(server.url());
    EXPECT_EQ(exchange(*backend).text, "answer 1");
    ASSERT_TRUE(server.waitEnded(1));
    const Outcome second = exchange(*backend);
    EXPECT_TRUE(second.ok) << second.text;
    EXPECT_EQ(second.text, "answer 2");
    EXPECT_EQ(server.connections, 2);
    EXPECT_EQ(server.requests, 2) << "the request went out once on the new connection";
}

TEST(HttpBackendTest, ForkedChildOpensItsOwnConnection) {
    FakeServer server([&server](Peer& peer) {
        Request request;
        while (peer.read(request)) {
            peer.send(answer("answer " + std::to_string(++server.requests)));
        }
    });
    auto backend = backendFor(server.url());
    EXPECT_EQ(exchange(*backend).text, "answer 1");
    // The parent's connection stays open; the child must not write into it. The
    // child's verdict is what it prints (under memcheck its exit code is the
    // tool's, which counts the parent's threads' memory as lost in the child).
    Harness::Child child([&backend] {
        std::printf("%s", exchange(*backend).text.c_str());
        return 0;
    });
    child.wait(10000);
    EXPECT_EQ(child.out(), "answer 2") << child.err();
    EXPECT_EQ(exchange(*backend).text, "answer 3");
    EXPECT_EQ(server.connections, 2);
}

// Each way an answer can go wrong, on a connection that had already served one
// exchange (so a retry would be possible): its own code and words, and no retry.
// A refusal sent while the request is still going out is read all the same; a
// long message is kept in part; TLS bytes on a plain connection name the cure.
TEST(HttpBackendTest, EachBrokenAnswerIsNamedAndNeverRetried) {
    const struct {
        const char* name;
        std::function<void(Peer&)> second;  // what the server does with the second request
        int32_t code;
        const char* words;
        long timeoutMs = 10000;     // short only where the time-out is the point
        std::size_t bodyBytes = 0;  // of the second request
        bool namesTheUrl = true;    // false: the service's own message, passed on
    } rows[] = {
        {"silent",
         [](Peer& peer) {
             Request r;
             peer.read(r);
         },
         AVQVL_TIMED_OUT, "within the time-out (500 ms)", 500},
        {"garbage", [](Peer& peer) { peer.send("hello there\r\n\r\n"); }, AVQVL_OTHER_ANSWER,
         "is malformed"},
        {"cut short",
         [](Peer& peer) { peer.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc"); },
         AVQVL_CONNECTION_LOST, "before the answer was complete"},
        {"huge",
         [](Peer& peer) { peer.send("HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n"); },
         AVQVL_LIMIT, "longer than"},
        // Answered after the head, then closed with most of the body unsent.
        {"refused while sent",
         [](Peer& peer) { peer.send(answer("body over the limit of 1024 bytes", 413)); },
         AVQVL_LIMIT, "body over the limit of 1024 bytes", 10000, 16 << 20, false},
        // 1 MB of two-byte characters after one byte: 64 KiB would split one.
        {"long message",
         [](Peer& peer) {
             std::string text = "x";
             while (text.size() < 1024 * 1024) {
                 text += "\xC3\xA9";
             }
             peer.send(answer(text, 404));
         },
         AVQVL_OTHER_ANSWER, "\xC3\xA9 ... (cut: 1048577 bytes in all)"},
        {"tls handshake",
         [](Peer& peer) { peer.send(std::string("\x16\x03\x03\x00\x04\x0e\0\0\0", 9)); },
         AVQVL_UNREACHABLE, "the service speaks TLS: use https://"},
        {"tls alert, closed",
         [](Peer& peer) { peer.send(std::string("\x15\x03\x03\x00\x02\x02\x46", 7)); },
         AVQVL_UNREACHABLE, "the service speaks TLS: use https://"},
    };
    for (const auto& row : rows) {
        FakeServer server([&](Peer& peer) {
            Request request;
            if (peer.read(request)) {
                peer.send(answer("first"));
            }
            peer.read(request);
            ++server.requests;
            row.second(peer);
        });
        auto backend = backendFor(server.url(), row.timeoutMs);
        ASSERT_EQ(exchange(*backend).text, "first") << row.name;
        const Outcome broken = ::exchange(*backend, std::string(row.bodyBytes, 'x'));
        EXPECT_FALSE(broken.ok) << row.name;
        EXPECT_EQ(broken.code, row.code) << row.name << ": " << broken.text.substr(0, 200);
        EXPECT_THAT(broken.text, HasSubstr(row.words)) << row.name;
        EXPECT_EQ(broken.text.find(server.url()) != std::string::npos, row.namesTheUrl) << row.name;
        EXPECT_LE(broken.text.size(), 64 * 1024 + 200) << row.name;
        EXPECT_EQ(server.connections, 1) << row.name;
        EXPECT_EQ(server.requests, 1) << row.name;
    }
}

// A request the daemon may hold is given its wait on top of the time-out.
TEST(HttpBackendTest, AWaitStretchesTheTimeOut) {
    FakeServer server([](Peer& peer) {
        Request request;
        while (peer.read(request)) {
            std::this_thread::sleep_for(milliseconds(600));
            peer.send(answer("late"));
        }
    });
    const std::pair<const char*, const char*> rows[] = {
        {"", "within the time-out (300 ms)"},
        {"100", "within the time-out (300 ms plus the wait of 100 ms)"},
        {"5000", "late"}};
    for (const auto& row : rows) {
        Transport::HeaderFields fields = {{"Client-ID", "K"},
                                          {"Operation-Name", "getEvents"},
                                          {"Server-ID", "S"},
                                          {"Service-Name", "AvQVLRequest"}};
        if (*row.first != '\0') {
            fields[Arvant::Net::AvQuorvel::Protocol::kWaitMillisecondsField] = row.first;
        }
        EXPECT_THAT(::exchange(*backendFor(server.url(), 300), "", fields).text,
                    HasSubstr(row.second));
    }
}

// Runs quorveld on 127.0.0.1:port (0: any free port) and returns the port, or 0.
int startDaemon(std::unique_ptr<Harness::Child>& daemon, int port) {
    daemon.reset(new Harness::Child(Harness::program(
        {QUORVELD_BINARY, "--listen", "127.0.0.1:" + std::to_string(port), "--quiet"})));
    int listening = 0;
    char newline = 0;
    for (int i = 0; i < 2000 && newline != '\n' && daemon->running(); ++i) {
        std::this_thread::sleep_for(milliseconds(5));
        std::sscanf(daemon->out().c_str(), "quorveld listening on 127.0.0.1:%d%c", &listening,
                    &newline);
    }
    return newline == '\n' ? listening : 0;
}

TEST(HttpBackendTest, ClientRecoversAcrossADaemonRestart) {
    std::unique_ptr<Harness::Child> daemon;
    const int port = startDaemon(daemon, 0);
    ASSERT_NE(port, 0) << daemon->err();
    // The default time-out: a daemon built with a sanitizer answers slowly.
    auto backend = backendFor("http://127.0.0.1:" + std::to_string(port), 30000);
    const Outcome up = exchange(*backend);
    EXPECT_TRUE(up.ok) << up.text;

    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(10000), 0);
    // Down: the kept-alive connection is found closed, and the new one refused.
    for (int attempt = 0; attempt < 2; ++attempt) {
        const Outcome down = exchange(*backend);
        EXPECT_EQ(down.code, AVQVL_UNREACHABLE) << down.text;
        EXPECT_THAT(down.text, HasSubstr("couldn't connect"));
        EXPECT_THAT(down.text, Not(HasSubstr("reset")));
    }

    ASSERT_EQ(startDaemon(daemon, port), port) << daemon->err();
    const Outcome back = exchange(*backend);
    EXPECT_TRUE(back.ok) << back.text;
    EXPECT_NE(back.text, "");
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(10000), 0);
}

TEST(HttpBackendTest, EveryThreadKeepsItsOwnConnection) {
    FakeServer server([&server](Peer& peer) {
        Request request;
        while (peer.read(request)) {
            ++server.requests;
            peer.send(answer(request.body()));  // echoes, so answers cannot cross
        }
    });
    auto backend = backendFor(server.url());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&backend, &wrong, t] {
            for (int i = 0; i < 50; ++i) {
                const std::string body = std::to_string(t) + "/" + std::to_string(i);
                wrong += exchange(*backend, body).text != body;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(server.requests, 200);
    EXPECT_EQ(server.connections, 4);
}

TEST(HttpBackendTest, TokenTravelsAsBearerAndRefusalIsNamed) {
    FakeServer server([](Peer& peer) {
        Request request;
        while (peer.read(request)) {
            peer.send(request[http::field::authorization] == "Bearer s3cret"
                          ? answer("welcome")
                          : answer("missing or wrong token", Wire::kUnauthorizedStatus));
        }
    });
    const struct {
        const char* token;
        int32_t code;
        const char* words;
    } rows[] = {
        {"s3cret", 0, "welcome"},
        {"guess", AVQVL_TOKEN_REFUSED, "refused the token in QUORVEL_TOKEN: missing or wrong"},
        {"", AVQVL_TOKEN_REFUSED, "without a token"},
    };
    for (const auto& row : rows) {
        const Outcome outcome = exchange(*backendFor(server.url(), 5000, row.token));
        EXPECT_EQ(outcome.code, row.code) << row.token;
        EXPECT_THAT(outcome.text, HasSubstr(row.words)) << row.token;
    }
    // The client library raises the refusal as a connection failure.
    const Harness::Result cli = Harness::quorvel(
        {"register", "s", "c"}, {"QUORVEL_URL=" + server.url(), "QUORVEL_TOKEN=guess"});
    EXPECT_EQ(cli.code, 1);
    EXPECT_THAT(cli.err, HasSubstr("AvQVLConnectionException"));
    EXPECT_THAT(cli.err, HasSubstr("refused the token"));
}

// A throwaway certificate authority made with the openssl tool: a self-signed
// certificate for the names given, and its key.
class Certificate {
public:
    Certificate(const std::string& directory, const std::string& name, const std::string& names)
        : cert(directory + "/" + name + ".pem"), key(directory + "/" + name + ".key") {
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1"
            " -subj /CN=" +
            name + " -addext subjectAltName=" + names + " -keyout " + key + " -out " + cert +
            " >/dev/null 2>&1";
        made = std::system(command.c_str()) == 0;
    }
    bool made;
    const std::string cert, key;
};

TEST(HttpBackendTest, TlsVerifiesTheCertificateAndTheName) {
    char directory[] = "/tmp/avqvl-tls-XXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    const Certificate local(directory, "local", "DNS:localhost,IP:127.0.0.1");
    const Certificate elsewhere(directory, "elsewhere", "DNS:elsewhere.invalid");
    ASSERT_TRUE(local.made && elsewhere.made) << "the openssl tool failed";

    const struct {
        const char* name;
        const Certificate& served;
        const Certificate& trusted;
        const char* host;
        int32_t code;
        const char* words;
    } rows[] = {
        {"trusted by address", local, local, "127.0.0.1", 0, "secret answer"},
        {"trusted by name", local, local, "localhost", 0, "secret answer"},
        {"unknown authority", local, elsewhere, "127.0.0.1", AVQVL_UNREACHABLE,
         "certificate failed verification: self-signed certificate"},
        {"other name", elsewhere, elsewhere, "127.0.0.1", AVQVL_UNREACHABLE,
         "certificate failed verification: IP address mismatch"},
    };
    for (const auto& row : rows) {
        asio::ssl::context serverTls(asio::ssl::context::tls_server);
        serverTls.use_certificate_chain_file(row.served.cert);
        serverTls.use_private_key_file(row.served.key, asio::ssl::context::pem);
        // The client reads its authorities when the backend is made.
        ::setenv("SSL_CERT_FILE", row.trusted.cert.c_str(), 1);
        ::setenv("SSL_CERT_DIR", directory, 1);
        FakeServer server(
            [](Peer& peer) {
                Request request;
                while (peer.read(request)) {
                    peer.send(answer("secret answer"));
                }
            },
            &serverTls);
        auto backend =
            backendFor(std::string("https://") + row.host + ":" + std::to_string(server.port()));
        ::unsetenv("SSL_CERT_FILE");
        ::unsetenv("SSL_CERT_DIR");
        const Outcome outcome = exchange(*backend);
        EXPECT_EQ(outcome.code, row.code) << row.name << ": " << outcome.text;
        EXPECT_THAT(outcome.text, HasSubstr(row.words)) << row.name;
    }
    for (const Certificate* made : {&local, &elsewhere}) {
        std::remove(made->cert.c_str());
        std::remove(made->key.c_str());
    }
    ::rmdir(directory);
}

// What a fetch or a post carries besides its fields, as the fake daemon answers
// each request in turn: 'o' 200, a digit 200 with that last sequence, 'd' a
// close without answer, 'c' an answer cut short, 'u' a limit whose outcome is
// unknown, 'r' a refusal. expected: per request, the acknowledgement sent, or
// the post id as a letter (the same letter: the same id).
TEST(HttpBackendTest, FetchesCarryTheirAckAndRetriedPostsTheirId) {
    namespace Protocol = Arvant::Net::AvQuorvel::Protocol;
    const struct {
        const char* name;
        const char* operation;
        const char* bodies;  // one call per character, the body that character; 's' a
                             // getSharedClients, which closes the client's getEvents call
        const char* replies;
        const char* expected;
    } rows[] = {
        {"resent after an idle close", "putEvents", "AB", "odo", "abb"},
        {"retried after an unknown outcome", "putEvents", "AA", "uo", "aa"},
        {"retried after a lost answer", "putEvents", "AA", "do", "aa"},
        {"another body after an unknown outcome", "putEvents", "AB", "uo", "ab"},
        {"the same body after a success", "putEvents", "AA", "oo", "ab"},
        {"the same body after a refusal", "putEvents", "AA", "ro", "ab"},
        {"the last whole answer", "getEvents", "....", "7o9o", "0779"},
        {"a cut answer", "getEvents", "...", "7co", "077"},
        {"a lost answer", "getEvents", "..", "do", "00"},
        {"a call whose closing exchange failed", "getEvents", ".s.", "7ro", "0-0"},
        {"a call whose closing exchange worked", "getEvents", ".s.", "7oo", "0-7"},
    };
    for (const auto& row : rows) {
        const std::string replies = row.replies;
        std::mutex mutex;
        std::vector<std::string> seen;  // guarded by mutex
        FakeServer server([&](Peer& peer) {
            Request request;
            while (peer.read(request)) {
                const std::size_t n = server.requests++;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    seen.emplace_back(request[row.operation[0] == 'p' ? Protocol::kPostIdHeader
                                                                      : Protocol::kAckHeader]);
                }
                const char reply = n < replies.size() ? replies[n] : 'o';
                const std::string sequence =
                    reply >= '0' && reply <= '9' ? std::string(1, reply) : "0";
                if (reply == 'd') {
                    return;
                } else if (reply == 'c') {
                    peer.send(
                        "HTTP/1.1 200 OK\r\nQuorvel-Last-Sequence: 8\r\n"
                        "Content-Length: 9\r\n\r\nabc");
                    return;
                } else if (reply == 'u' || reply == 'r') {
                    peer.send(answer(std::string("the store went quiet; ") +
                                         (reply == 'u' ? Protocol::kUnknownOutcomeEnding : "no") +
                                         "\n",
                                     reply == 'u' ? Wire::kLimitStatus : Wire::kRefusedStatus));
                } else {
                    peer.send("HTTP/1.1 200 OK\r\nQuorvel-Last-Sequence: " + sequence +
                              "\r\nContent-Length: 0\r\n\r\n");
                }
            }
        });
        auto backend = backendFor(server.url());
        const Transport::HeaderFields fields = {{"Client-ID", row.name},
                                                {"Operation-Name", row.operation},
                                                {"Server-ID", "S"},
                                                {"Service-Name", "AvQVLRequest"}};
        for (const char* body = row.bodies; *body != '\0'; ++body) {
            Transport::HeaderFields call = fields;
            if (*body == 's') {
                call["Operation-Name"] = "getSharedClients";
            }
            ::exchange(*backend, std::string(1, *body), call);
        }
        std::string got;
        std::map<std::string, char> letters;
        for (const std::string& value : seen) {
            const bool post = row.operation[0] == 'p';
            EXPECT_TRUE(!post || Wire::isPostId(value)) << row.name << ": " << value;
            got += post            ? letters.emplace(value, 'a' + letters.size()).first->second
                   : value.empty() ? '-'
                                   : value[0];
        }
        EXPECT_EQ(got, row.expected) << row.name;
    }
}

// What a process read and never acknowledged goes to the daemon when it exits,
// and only what that process read: a forked child leaves its parent's alone.
TEST(HttpBackendTest, ExitAcknowledgesWhatThisProcessRead) {
    namespace Protocol = Arvant::Net::AvQuorvel::Protocol;
    std::mutex mutex;
    std::vector<std::string> ackOnly;  // "client=ack", guarded by mutex
    FakeServer server([&](Peer& peer) {
        Request request;
        while (peer.read(request)) {
            if (request[Protocol::kAckOnlyHeader] == "1") {
                std::string name, client, problem;
                Wire::decodeField(std::string(request[Wire::kFieldHeaderName]), name, client,
                                  problem);  // the first field line: the Client-ID
                std::lock_guard<std::mutex> lock(mutex);
                ackOnly.push_back(client + "=" + std::string(request[Protocol::kAckHeader]));
            }
            peer.send("HTTP/1.1 200 OK\r\nQuorvel-Last-Sequence: 5\r\nContent-Length: 0\r\n\r\n");
        }
    });
    auto backend = backendFor(server.url());
    const auto fetch = [&backend](const char* client) {
        return ::exchange(*backend, "",
                          {{"Client-ID", client},
                           {"Operation-Name", "getEvents"},
                           {"Server-ID", "S"},
                           {"Service-Name", "AvQVLRequest"}});
    };
    EXPECT_TRUE(fetch("parent").ok);
    Harness::Child child([&fetch] {
        fetch("child");
        std::exit(0);  // the exit of a process that ends normally, static destructors and all
        return 0;
    });
    EXPECT_EQ(child.wait(10000), 0) << child.err();
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(ackOnly, std::vector<std::string>{"child=5"});
}

// A daemon that did the work and whose answer never came: a post sent again,
// by the backend on a kept-alive connection or by the caller after the
// failure, is posted once; a fetch's events come in the next fetch, once.
TEST(HttpBackendTest, AnswersLostOnTheWayLoseAndRepeatNothing) {
    std::unique_ptr<Harness::Child> daemon;
    const int port = startDaemon(daemon, 0);
    ASSERT_NE(port, 0) << daemon->err();
    TcpBalancer proxy({port});
    const std::string url = "http://127.0.0.1:" + std::to_string(proxy.port);
    const struct {
        const char* name;
        const char* dropped;  // the operation whose answer the proxy drops
        bool keptAlive;       // on a connection that served before (else a new one)
    } rows[] = {
        {"post resent by the backend", "putEvents", true},
        {"post retried by the caller", "putEvents", false},
        {"fetch sent again by the backend", "getEvents", true},
        {"fetch retried by the caller", "getEvents", false},
    };
    for (const auto& row : rows) {
        const auto as = [&row](const char* client, const char* operation) {
            return Transport::HeaderFields{{"Client-ID", client},
                                           {"Operation-Name", operation},
                                           {"Server-ID", row.name},
                                           {"Service-Name", "AvQVLRequest"}};
        };
        auto backend = backendFor(url, 30000);
        for (const char* client : {"alice", "bob"}) {
            ASSERT_TRUE(::exchange(*backend, "", as(client, "registerClient")).ok) << row.name;
        }
        const std::string text = std::string("event of ") + row.name;
        // Sends once, and again when the first failed; a new backend has no
        // connection of its own yet.
        const auto send = [&](const char* client, const char* operation, const std::string& body) {
            const bool dropped = row.dropped == std::string(operation);
            if (dropped) {
                proxy.dropNextAnswer();
                if (!row.keptAlive) {
                    backend = backendFor(url, 30000);
                }
            }
            Outcome outcome = ::exchange(*backend, body, as(client, operation));
            EXPECT_EQ(outcome.ok, !dropped || row.keptAlive) << row.name << ": " << outcome.text;
            if (!outcome.ok) {
                outcome = ::exchange(*backend, body, as(client, operation));
            }
            EXPECT_TRUE(outcome.ok) << row.name << ": " << outcome.text;
            return outcome.text;
        };
        const auto count = [&text](const std::string& answer) {
            std::size_t found = 0;
            for (std::size_t at = answer.find(text); at != std::string::npos;
                 at = answer.find(text, at + 1)) {
                ++found;
            }
            return found;
        };
        send("alice", "putEvents", text);
        EXPECT_EQ(count(send("bob", "getEvents", "")), 1u) << row.name;
        EXPECT_EQ(count(::exchange(*backend, "", as("bob", "getEvents")).text), 0u) << row.name;
    }
    EXPECT_EQ(proxy.dropped(), 4);
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(10000), 0);
}
