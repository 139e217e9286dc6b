// The daemon's server in-process: the completion seam of a reply, the head
// limit, handlers that throw, and the pieces the daemon builds on it (the token
// check, the metrics text).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>

#include "daemon/DaemonHarness.h"
#include "daemon/HttpServer.h"
#include "daemon/Metrics.h"
#include "daemon/Token.h"

using namespace Arvant::Net::AvQuorvel::Daemon;
using Harness::RawConnection;
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
// that call throw something that is no std::exception. (Whether a reply was
// written whole, the other side of onComplete, is DaemonRedelivery's.)
class Handler : public HttpHandler {
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

// A GET head of exactly `bytes` bytes, its empty line included, in header
// lines of 8000 bytes and one shorter (of 5 at least, "X: \r\n").
std::string headOf(std::size_t bytes) {
    std::string head = "GET / HTTP/1.1\r\nConnection: close\r\n";
    for (std::size_t left = bytes - head.size() - 2; left > 0;) {
        const std::size_t line = left % 8000 == 0 ? 8000 : left % 8000;
        head += "X: " + std::string(line - 5, 'a') + "\r\n";
        left -= line;
    }
    return head + "\r\n";
}

}  // namespace

// Each request head is measured alone, against the documented 64 KiB, however
// much was pipelined before it; whatever a handler throws ends its own request
// at most, never the server.
TEST(HttpServerTest, HeadLimitCountsOneHeadAtATimeAndThrowsStayWithTheirRequest) {
    Handler handler;
    Served served(handler, ServerOptions());
    std::string pipelined, expected;
    for (int i = 0; i < 200; ++i) {
        pipelined += "POST / HTTP/1.1\r\nContent-Length: 10240\r\n" +
                     std::string(i == 199 ? "Connection: close\r\n\r\n" : "\r\n") +
                     std::string(10240, 'x');
        expected += i == 0 ? "200" : " 200";
    }
    const std::pair<std::string, std::string> table[] = {
        {pipelined, expected},
        {headOf(64 * 1024), "200"},
        {headOf(64 * 1024 + 1), "431"},
        {"GET /admit HTTP/1.1\r\nConnection: close\r\n\r\n", "500"},
        {"GET /handle HTTP/1.1\r\nConnection: close\r\n\r\n", "500"},
        {"GET /answered HTTP/1.1\r\nConnection: close\r\n\r\n", "200"},
        {"GET /complete HTTP/1.1\r\nConnection: close\r\n\r\n", "200"},
        {"GET / HTTP/1.1\r\nConnection: close\r\n\r\n", "200"},
    };
    for (const auto& [request, answers] : table) {
        RawConnection connection(served.port());
        connection.send(request);
        EXPECT_EQ(statuses(connection.receive(5000)), answers) << request.substr(0, 40);
        EXPECT_TRUE(connection.closed) << request.size();
    }
}

TEST(TokenTest, OnlyTheExactBearerTokenMatches) {
    const std::pair<const char*, bool> table[] = {
        {"Bearer t0ken", true},   {"bEARER t0ken", true},  {"Bearer t0ke", false},
        {"Bearer t0kenn", false}, {"Bearer T0ken", false}, {"Bearer  t0ken", false},
        {"Basic t0ken", false},   {"t0ken", false},        {"Bearer ", false},
    };
    for (const auto& [authorization, matches] : table) {
        EXPECT_EQ(bearerMatches(authorization, "t0ken"), matches) << authorization;
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
    const std::string text = metrics.render(Gauges{1, 2, 3, 4});
    EXPECT_EQ(text.find("op0"), std::string::npos) << "a name of the client's own";
    // 0 and 50 us fall in the first bucket, the 40 of 150 us in the second, 20 s only in +Inf.
    for (const char* line :
         {"{operation=\"putEvents\",status=\"507\"} 1\n",
          "{operation=\"other\",status=\"200\"} 40\n", "{operation=\"other\",status=\"400\"} 1\n",
          "{operation=\"none\",status=\"404\"} 1\n", "_bucket{le=\"0.0001\"} 2\n",
          "_bucket{le=\"0.00025\"} 42\n", "_bucket{le=\"+Inf\"} 43\n",
          "_seconds_sum 20.006050\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
}
