// The daemon's server in-process: the completion seam of a reply, the head
// limit, handlers that throw, and the pieces the daemon builds on it (the token
// check, the metrics text).
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <regex>
#include <string>
#include <thread>

#include "daemon/HttpServer.h"
#include "daemon/Metrics.h"
#include "daemon/RawConnection.h"
#include "daemon/Token.h"

using namespace Arvant::Net::AvQuorvel::Daemon;
using ::testing::HasSubstr;

namespace {

// A server on an ephemeral loopback port, served by a thread of its own until
// the end of the scope.
class Served {
public:
    Served(HttpHandler& handler, const ServerOptions& options) : server(options, handler) {
        std::string error;
        EXPECT_TRUE(server.bind("127.0.0.1", 0, error)) << error;
        serving = std::thread([this] { server.run(); });
    }
    ~Served() {
        server.stop();
        serving.join();
    }
    int port() const { return server.port(); }

private:
    HttpServer server;
    std::thread serving;
};

// Answers 200; a request for /admit, /handle, /answered or /complete makes
// that call throw something that is no std::exception.
class Thrower : public HttpHandler {
public:
    bool admitHead(const HttpRequest& head, const std::string&, HttpReply&) override {
        throwIf(head, "/admit");
        return true;
    }
    void handle(const HttpRequest& request, HttpReply& reply) override {
        throwIf(request, "/handle");
        if (request.target() == "/complete") {
            reply.onComplete = [](bool) { throw 42; };
        }
    }
    void answered(const RequestOutcome& outcome) override {
        if (outcome.request != nullptr) {
            throwIf(*outcome.request, "/answered");
        }
    }

private:
    static void throwIf(const HttpRequest& request, const char* path) {
        if (request.target() == path) {
            throw 42;
        }
    }
};

// The statuses of the answers in text, in order, space-separated.
std::string statuses(const std::string& text) {
    static const std::regex status("HTTP/1\\.1 ([0-9]{3}) ");
    std::string found;
    for (std::sregex_iterator it(text.begin(), text.end(), status), end; it != end; ++it) {
        found += (found.empty() ? "" : " ") + (*it)[1].str();
    }
    return found;
}

// A GET head of exactly `bytes` bytes, its empty line included, made of header
// lines of at most 8000 bytes.
std::string headOf(std::size_t bytes, bool close) {
    std::string head = close ? "GET / HTTP/1.1\r\nConnection: close\r\n" : "GET / HTTP/1.1\r\n";
    std::size_t left = bytes - head.size() - 2;
    while (left > 0) {
        std::size_t line = std::min<std::size_t>(left, 8000);
        if (left - line > 0 && left - line < 5) {
            line = left - 5;  // the shortest line, "X: \r\n", must still fit
        }
        head += "X: " + std::string(line - 5, 'a') + "\r\n";
        left -= line;
    }
    return head + "\r\n";
}

// Answers every request with `size` bytes and reports, through a promise, what
// the server says became of the answer.
class LargeAnswers : public HttpHandler {
public:
    explicit LargeAnswers(std::size_t size) : size(size) {}
    bool admitHead(const HttpRequest&, const std::string&, HttpReply&) override { return true; }
    void handle(const HttpRequest&, HttpReply& reply) override {
        reply.body.assign(size, 'x');
        reply.onComplete = [this](bool delivered) { outcome.set_value(delivered); };
    }
    void answered(const RequestOutcome&) override {}

    std::promise<bool> outcome;
    const std::size_t size;
};

// A loopback client with a small receive buffer, so a large answer stays
// mostly on the server's side until it is read.
int connectSmall(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int small = 4096;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string request = "GET / HTTP/1.1\r\nHost: t\r\n\r\n";
    EXPECT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    return fd;
}

// Reads until total bytes came, the peer closed, or 10 s of silence.
std::size_t readUpTo(int fd, std::size_t total) {
    std::size_t received = 0;
    char buffer[65536];
    pollfd entry{fd, POLLIN, 0};
    while (received<total&& ::poll(&entry, 1, 10000)> 0) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            break;
        }
        received += static_cast<std::size_t>(n);
    }
    return received;
}

}  // namespace

TEST(HttpServerTest, CompletionSaysWhetherTheAnswerWasWrittenWhole) {
    for (const bool clientReads : {false, true}) {
        const std::size_t size = 32 * 1024 * 1024;  // far more than the socket buffers hold
        LargeAnswers handler(size);
        ServerOptions options;
        options.threads = 2;
        Served served(handler, options);

        const int fd = connectSmall(served.port());
        auto outcome = handler.outcome.get_future();
        // The answer's head is under 100 bytes.
        const std::size_t wanted = clientReads ? size + 80 : 1;
        EXPECT_GE(readUpTo(fd, wanted), wanted);
        ::close(fd);  // with unread bytes: the connection is reset
        ASSERT_EQ(outcome.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        EXPECT_EQ(outcome.get(), clientReads);
    }
}

// Each request head is measured alone, against the documented 64 KiB: however
// much was pipelined before it.
TEST(HttpServerTest, HeadLimitCountsOneHeadAtATime) {
    Thrower handler;
    Served served(handler, ServerOptions());
    std::string pipelined, expected;
    for (int i = 0; i < 200; ++i) {
        pipelined += "POST / HTTP/1.1\r\nContent-Length: 10240\r\n" +
                     std::string(i == 199 ? "Connection: close\r\n\r\n" : "\r\n") +
                     std::string(10240, 'x');
        expected += i == 0 ? "200" : " 200";
    }
    const struct {
        std::string request, statuses;
    } table[] = {
        {pipelined, expected},
        {headOf(64 * 1024, true), "200"},
        {headOf(64 * 1024 + 1, true), "431"},
    };
    for (const auto& row : table) {
        Harness::RawConnection connection(served.port());
        connection.send(row.request);
        EXPECT_EQ(statuses(connection.receive(5000)), row.statuses) << row.request.size();
        EXPECT_TRUE(connection.closed) << row.request.size();
    }
}

// Whatever a handler throws ends its own request at most, never the server.
TEST(HttpServerTest, WhatAHandlerThrowsStaysWithItsRequest) {
    Thrower handler;
    Served served(handler, ServerOptions());
    const std::pair<const char*, const char*> table[] = {
        {"/admit", "500"},    {"/handle", "500"}, {"/answered", "200"},
        {"/complete", "200"}, {"/", "200"},
    };
    for (const auto& row : table) {
        const std::string answer =
            Harness::exchangeRaw(served.port(), std::string("GET ") + row.first +
                                                    " HTTP/1.1\r\nConnection: close\r\n\r\n");
        EXPECT_EQ(statuses(answer), row.second) << row.first;
    }
}

TEST(HttpServerTest, StopBeforeRunEndsRunAtOnce) {
    Thrower handler;
    HttpServer server(ServerOptions(), handler);
    std::string error;
    ASSERT_TRUE(server.bind("127.0.0.1", 0, error)) << error;
    server.stop();
    EXPECT_TRUE(server.run());
    EXPECT_EQ(server.openConnections(), 0u);
}

TEST(TokenTest, OnlyTheExactBearerTokenMatches) {
    const std::pair<const char*, bool> table[] = {
        {"Bearer t0ken", true},   {"bEARER t0ken", true},  {"Bearer t0ke", false},
        {"Bearer t0kenn", false}, {"Bearer T0ken", false}, {"Bearer  t0ken", false},
        {"Basic t0ken", false},   {"t0ken", false},        {"Bearer ", false},
    };
    for (const auto& row : table) {
        EXPECT_EQ(bearerMatches(row.first, "t0ken"), row.second) << row.first;
    }
}

TEST(MetricsTest, OperationLabelsStayFewAndSafe) {
    Metrics metrics;
    for (int i = 0; i < 40; ++i) {
        metrics.recordRequest("op" + std::to_string(i), 200, 150);
    }
    metrics.recordRequest("bad\"name\n", 400, 20000000);
    metrics.recordRequest("", 404, 50);
    // Names sent first crowd no operation of the service out.
    metrics.recordRequest("putEvents", 507, 0);
    metrics.recordRequest("evictClient", 200, 0);
    const std::string text = metrics.render(Gauges{1, 2, 3, 4});
    EXPECT_EQ(text.find("op0"), std::string::npos) << "a name of the client's own";
    EXPECT_THAT(text, HasSubstr("{operation=\"putEvents\",status=\"507\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("{operation=\"evictClient\",status=\"200\"} 1\n"));
    EXPECT_THAT(text,
                HasSubstr("quorveld_requests_total{operation=\"other\",status=\"200\"} 40\n"));
    EXPECT_THAT(text, HasSubstr("quorveld_requests_total{operation=\"other\",status=\"400\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("quorveld_requests_total{operation=\"none\",status=\"404\"} 1\n"));
    // 0 and 50 us fall in the first bucket, the 40 of 150 us in the second, 20 s only in +Inf.
    EXPECT_THAT(text, HasSubstr("quorveld_request_duration_seconds_bucket{le=\"0.0001\"} 3\n"));
    EXPECT_THAT(text, HasSubstr("quorveld_request_duration_seconds_bucket{le=\"0.00025\"} 43\n"));
    EXPECT_THAT(text, HasSubstr("quorveld_request_duration_seconds_bucket{le=\"10\"} 43\n"));
    EXPECT_THAT(text, HasSubstr("quorveld_request_duration_seconds_bucket{le=\"+Inf\"} 44\n"));
    EXPECT_THAT(text, HasSubstr("quorveld_request_duration_seconds_sum 20.006050\n"));
    EXPECT_THAT(text, HasSubstr("\nquorveld_waiting_bytes 3\n"));
    EXPECT_THAT(text, HasSubstr("\nquorveld_open_connections 4\n"));
}
