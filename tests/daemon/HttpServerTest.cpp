// The daemon's server in-process: the completion seam of a reply, and the
// pieces the daemon builds on it (the token check, the metrics text).
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "daemon/HttpServer.h"
#include "daemon/Metrics.h"
#include "daemon/Token.h"

using namespace Arvant::Net::AvQuorvel::Daemon;
using ::testing::HasSubstr;

namespace {

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
        HttpServer server(options, handler);
        std::string error;
        ASSERT_TRUE(server.bind("127.0.0.1", 0, error)) << error;
        std::thread serving([&server] { server.run(); });

        const int fd = connectSmall(server.port());
        auto outcome = handler.outcome.get_future();
        // The answer's head is under 100 bytes.
        const std::size_t wanted = clientReads ? size + 80 : 1;
        EXPECT_GE(readUpTo(fd, wanted), wanted);
        ::close(fd);  // with unread bytes: the connection is reset
        ASSERT_EQ(outcome.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        EXPECT_EQ(outcome.get(), clientReads);
        server.stop();
        serving.join();
    }
}

TEST(HttpServerTest, StopBeforeRunEndsRunAtOnce) {
    LargeAnswers handler(1);
    HttpServer server(ServerOptions(), handler);
    std::string error;
    ASSERT_TRUE(server.bind("127.0.0.1", 0, error)) << error;
    server.stop();
    EXPECT_TRUE(server.run());
    EXPECT_EQ(server.openConnections(), 0u);
}

TEST(TokenTest, OnlyTheExactBearerTokenMatches) {
    const std::pair<const char*, bool> table[] = {
        {"Bearer t0ken", true},   {"bearer t0ken", true},
        {"BEARER t0ken", true},   {"Bearer t0ke", false},
        {"Bearer t0kenn", false}, {"Bearer T0ken", false},
        {"Bearer  t0ken", false}, {"Basic t0ken", false},
        {"t0ken", false},         {"", false},
        {"Bearer ", false},
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
