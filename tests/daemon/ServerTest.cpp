// quorveld's server side as clients meet it, the daemon in this process: strict
// framing and its refusals, slow and idle connections, the connection cap,
// health and metrics, the bearer token, TLS and logs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <sstream>
#include <thread>

#include "daemon/DaemonProcess.h"
#include "daemon/Delivery.h"
#include "engine/MemoryStore.h"
#include "support/TempDir.h"
#include "wire/HttpWire.h"

using namespace Harness;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;
namespace Wire = Arvant::Net::AvQuorvel::Wire;
using Options = InProcessDaemon::Options;

namespace {

const std::string kExchange = "POST /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\n";
const std::string kStatus =
    kExchange + "Quorvel-Field: " + Wire::encodeField("Service-Name", "AvQVLRequest") +
    "\r\nQuorvel-Field: " + Wire::encodeField("Operation-Name", "getStatus") + "\r\n";

// A scrape of /metrics: the value of series (name and labels), -1 when missing.
long long sample(int port, const std::string& series, const std::string& headers = "") {
    std::istringstream lines(getRaw(port, "/metrics", headers));
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, series.size() + 1, series + " ") == 0) {
            return std::stoll(line.substr(series.size() + 1));
        }
    }
    return -1;
}

InProcessDaemon::Options with(const std::function<void(Options&)>& set) {
    Options options;
    set(options);
    return options;
}

}  // namespace

// A request is framed one way only, within the limits; anything else, damaged
// exchange fields included, is refused at once (the read time-out is far away)
// with a status and a message, the connection closes and nothing after it is
// read as a request.
TEST(ServerTest, MalformedAmbiguousOrOversizedRequestsAreRefusedAndClose) {
    InProcessDaemon daemon(with([](Options& o) {
        o.readTimeoutMs = 20000;
        o.limits.maxBodyBytes = 1000;
    }));
    const std::string smuggled = "GET /healthz HTTP/1.1\r\nHost: t\r\n\r\n";
    const std::string empty = "Content-Length: 0\r\n\r\n" + smuggled;
    const std::pair<std::string, int> table[] = {
        {"GET /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\n\r\n" + smuggled, 405},
        {"POST /other HTTP/1.1\r\nHost: t\r\nConnection: close\r\n" + empty, 404},
        {kStatus + "\r\nabc", 411},
        {kStatus + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + smuggled,
         400},
        {kStatus + "Transfer-Encoding: gzip\r\n\r\n" + smuggled, 400},
        {kStatus + "Transfer-Encoding: chunked\r\n\r\n2\r\nxyzzy\r\n", 400},
        {kStatus + "Content-Length: 1\r\nContent-Length: 1, 2\r\n\r\nx" + smuggled, 400},
        // Read as 0, "x2" would leave "ok" to be taken for the next request.
        {kStatus + "Content-Length: x2\r\n\r\nok" + smuggled, 400},
        {kStatus + "Quorvel-Field: no-equals-sign\r\n" + empty, 400},
        {kStatus + "Quorvel-Ack: -1\r\n" + empty, 400},
        {kStatus + "Quorvel-Ack: 1\r\nQuorvel-Ack-Only: 1\r\n" + empty, 400},
        {kStatus + "Quorvel-Post-Id: 0123\r\n" + empty, 400},
        {kStatus + "Content-Length: 1001\r\n\r\n", 413},
        {kStatus + "Content-Length: 99999999999999999999999\r\n\r\n", 413},
        // A header line of 8193 bytes, CR LF included.
        {kExchange + "X-Long: " + std::string(8183, 'a') + "\r\n\r\n", 431},
    };
    for (const auto& [request, status] : table) {
        RawConnection connection(daemon.port);
        connection.send(request);
        const std::string answer = connection.receive(5000);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 " + std::to_string(status))) << request;
        EXPECT_THAT(answer, ContainsRegex("\r\n\r\n.")) << "a message explains it";
        EXPECT_EQ(answer.find("HTTP/1.1", 1), std::string::npos) << "one answer only";
        EXPECT_TRUE(connection.closed) << request;
    }
    // A well-formed chunked body is read whole.
    EXPECT_THAT(
        exchangeRaw(daemon.port, kStatus + "Transfer-Encoding: chunked\r\nConnection: close\r\n"
                                           "\r\n5\r\nhello\r\n6;x=y\r\n world\r\n0\r\n\r\n"),
        ::testing::EndsWith("\r\n\r\nhello world"));
}

// Slow clients are cut off (408 for a head that stalls, a close for a body
// that trickles past the request time-out) while others are served. Past the
// cap a connection is closed at once; once the others have closed, the daemon
// serves again.
TEST(ServerTest, SlowAndSurplusConnectionsLeaveRoomForOthers) {
    InProcessDaemon daemon(with([](Options& o) {
        o.threads = 2;
        o.readTimeoutMs = 300;
        o.requestTimeoutMs = 1000;
    }));
    RawConnection stalled(daemon.port), trickling(daemon.port);
    stalled.send(kExchange);
    trickling.send(kStatus + "Content-Length: 100\r\n\r\n");
    EXPECT_EQ(statusOf(getRaw(daemon.port, "/healthz")), 200);
    for (int i = 0; i < 20 && !trickling.closed; ++i) {  // a byte every 100 ms never stalls
        trickling.send("x");
        trickling.receive(100);
    }
    EXPECT_TRUE(trickling.closed) << "cut off at the request time-out";
    EXPECT_THAT(stalled.receive(3000), StartsWith("HTTP/1.1 408"));
    EXPECT_TRUE(stalled.closed);

    InProcessDaemon capped(with([](Options& o) { o.maxConnections = 2; }));
    {
        RawConnection first(capped.port), second(capped.port), past(capped.port);
        EXPECT_EQ(past.receive(2000), "");
        EXPECT_TRUE(past.closed) << "well before the read time-out";
    }
    // Until the daemon has seen them close.
    EXPECT_TRUE(waitUntil([&] { return statusOf(getRaw(capped.port, "/healthz")) == 200; }));
}

// Health and metrics follow the service; the log, here JSON at warn, has the
// failed request only.
TEST(ServerTest, HealthMetricsAndLogsFollowTheService) {
    namespace Daemon = Arvant::Net::AvQuorvel::Daemon;
    InProcessDaemon daemon(with([](Options& o) {
        o.logFormat = Daemon::LogFormat::Json;
        o.logLevel = Daemon::LogLevel::Warn;
    }));
    EXPECT_THAT(getRaw(daemon.port, "/healthz"), ::testing::EndsWith("\r\n\r\nok\n"));
    registerClients(daemon.port, {"alice", "bob"});
    EXPECT_EQ(
        statusOf(exchangeRaw(daemon.port, exchangeText(asClient("putEvents", "alice"), "hello"))),
        200);
    EXPECT_EQ(statusOf(getRaw(daemon.port, "/p%20q")), 404);
    const std::pair<std::string, long long> after[] = {
        {"quorveld_registered_clients", 2},
        {"quorveld_waiting_events", 1},
        {"quorveld_waiting_bytes", 5},
        {"quorveld_requests_total{operation=\"putEvents\",status=\"200\"}", 1},
        {"quorveld_requests_total{operation=\"none\",status=\"404\"}", 1},
        {"quorveld_open_connections", 1}};
    for (const auto& [series, value] : after) {
        EXPECT_EQ(sample(daemon.port, series), value) << series;
    }
    EXPECT_EQ(statusOf(exchangeRaw(daemon.port, exchangeText(asClient("getEvents", "bob")))), 200);
    EXPECT_EQ(sample(daemon.port, "quorveld_waiting_events"), 0);
    daemon.stop();
    EXPECT_THAT(daemon.log(),
                ::testing::MatchesRegex(
                    "\\{\"time\":\"20[0-9-]+T[0-9:]+\\.[0-9]{6}Z\",\"level\":\"warn\","
                    "\"event\":\"request\",\"method\":\"GET\",\"path\":\"/p%2520q\","
                    "\"status\":404,\"us\":[0-9]+,\"peer\":\"127\\.0\\.0\\.1:[0-9]+\"\\}\n"));
}

// What the tokens guard and how a bearer token matches, with the
// store's byte bound, a raw fetch acknowledged once written whole, and idle
// clients expired.
TEST(ServerTest, TokensGuardEverythingButHealth) {
    InProcessDaemon daemon(with([](Options& o) {
        o.token = "s3rvice";
        o.adminToken = "adm1n";
        o.limits.maxStoredBytes = 64;
        o.clientIdleExpiryMs = 1000;
    }));
    const Strings list = {"Service-Name=AvQVLAdmin", "Operation-Name=listClients"};
    const Strings status = {"Service-Name=AvQVLRequest", "Operation-Name=getStatus"};
    const std::string metrics = "GET /metrics HTTP/1.1\r\nHost: t\r\nConnection: close\r\n";
    const std::string service = "Authorization: Bearer s3rvice\r\n", full(64, 'x');
    const std::string admin = "Authorization: Bearer adm1n\r\n", bob = "bob = \xE2\x98\x83";
    const struct {
        std::string request;
        int status;
        std::size_t events = 0;
    } table[] = {
        {"GET /healthz HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n", 200},
        {exchangeText(status), 401},
        {exchangeText(status, "", admin), 401},
        {exchangeText(status, "", service), 200},
        {exchangeText(status, "", "Authorization: bEARER s3rvice\r\n"), 200},
        {exchangeText(status, "", "Authorization: Bearer s3rvicee\r\n"), 401},
        {exchangeText(status, "", "Authorization: Bearer S3RVICE\r\n"), 401},
        {metrics + "\r\n", 401},
        {metrics + service + "\r\n", 200},
        {exchangeText(list, "", admin), 200},
        {exchangeText(list, "", service), 401},
        // Identifiers with spaces, "=" and UTF-8 travel in the fields unchanged.
        {exchangeText(asClient("registerClient", "alice"), "", service), 200},
        {exchangeText(asClient("registerClient", bob), "", service), 200},
        {exchangeText(asClient("putEvents", "alice"), full + "x", service), 507},  // past 64
        {exchangeText(asClient("putEvents", "alice"), full, service), 200},
        // Without Quorvel-Ack (a raw call, an older client) the answer written
        // whole acknowledges itself: the next fetch is empty.
        {exchangeText(asClient("getEvents", bob), "", service), 200, 1},
        {exchangeText(asClient("getEvents", bob), "", service), 200, 0},
    };
    for (const auto& row : table) {
        const std::string answer = exchangeRaw(daemon.port, row.request);
        EXPECT_EQ(statusOf(answer), row.status) << row.request << answer;
        EXPECT_EQ(answer.find("WWW-Authenticate: Bearer") != std::string::npos, row.status == 401);
        EXPECT_EQ(scanEvents(answer).size(), row.events) << answer;
    }
    EXPECT_TRUE(waitUntil([&] {  // neither fetches now
        return sample(daemon.port, "quorveld_expired_clients_total", service) == 2;
    }));
    EXPECT_THAT(daemon.log(), HasSubstr("info expired idle client server=S client=alice"));
}

// A client trusting the daemon's certificate (made with the openssl tool) is
// served over HTTPS, one that does not is refused; a fetch waits over HTTPS
// until a post (made until it returns) releases it. Plain HTTP gets no answer; a
// client that never begins its handshake is closed after the handshake
// time-out; both are logged with the peer.
TEST(ServerTest, TlsServesClientsThatTrustTheCertificate) {
    TempDir dir;
    const std::string cert = dir.file("cert.pem"), key = dir.file("key.pem");
    const Result made =
        run({"/usr/bin/openssl", "req", "-x509", "-days", "1", "-subj", "/CN=127.0.0.1", "-addext",
             "subjectAltName=IP:127.0.0.1", "-newkey", "ec", "-pkeyopt",
             "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key, "-out", cert});
    ASSERT_EQ(made.code, 0) << made.err;
    InProcessDaemon daemon(with([&](Options& o) {
        o.tlsCertificateFile = cert;
        o.tlsKeyFile = key;
        o.readTimeoutMs = 60000;
        o.tlsHandshakeTimeoutMs = 300;
    }));
    const std::string url = "QUORVEL_URL=https://127.0.0.1:" + std::to_string(daemon.port);
    const Strings trusted{url, "SSL_CERT_FILE=" + cert};
    const Result served = quorvel({"register", "s", "k"}, trusted);
    EXPECT_EQ(served.code, 0) << served.err;
    std::atomic<bool> fetched{false};
    std::thread poster([&] {
        for (int i = 0; i < 100 && !fetched; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            quorvel({"put", "--server", "w", "--client", "p", "over TLS"}, trusted);
        }
    });
    const Result waited =
        quorvel({"get", "--server", "w", "--client", "k", "--wait", "30000"}, trusted);
    fetched = true;
    poster.join();
    EXPECT_THAT(waited.out, HasSubstr("over TLS")) << waited.err;
    const Result refused = quorvel({"register", "s", "k"}, {url});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, ContainsRegex("AvQVLConnectionException.*certificate"));
    EXPECT_NE(statusOf(getRaw(daemon.port, "/healthz")), 200);
    RawConnection silent(daemon.port);
    EXPECT_EQ(silent.receive(20000), "");
    EXPECT_TRUE(silent.closed) << "well before the read time-out";
    daemon.stop();
    EXPECT_THAT(daemon.log(), ContainsRegex(" info TLS handshake with 127\\.0\\.0\\.1:[0-9]+ "
                                            "failed: [^\n]+\n"));
    EXPECT_THAT(daemon.log(), HasSubstr("failed: not done within 300 ms\n"));
}

// A memory store whose acknowledge waits (10 s at most) until the test opens
// gate: a store that may wait, called on the daemon's pool.
struct HeldAckStore : Arvant::Net::AvQuorvel::Engine::MemoryStore {
    explicit HeldAckStore(std::shared_future<void> gate) : gate(std::move(gate)) {}
    bool neverWaits() const override { return false; }
    void acknowledge(const std::string& server, const std::string& client,
                     std::uint64_t upTo) override {
        gate.wait_for(std::chrono::seconds(10));
        MemoryStore::acknowledge(server, client, upTo);
    }
    std::shared_future<void> gate;
};

// A raw fetch that comes before the daemon's pool has acknowledged the answer
// written before it carries that acknowledgement itself: nothing comes twice.
TEST(ServerTest, AFetchBeforeTheAcknowledgementGetsNothingTwice) {
    std::promise<void> gate;
    InProcessDaemon daemon({}, std::make_unique<HeldAckStore>(gate.get_future().share()));
    registerClients(daemon.port, {"alice", "bob"});
    const std::string fetch = exchangeText(asClient("getEvents", "bob"));
    const auto events = [&] { return scanEvents(exchangeRaw(daemon.port, fetch)).size(); };
    EXPECT_EQ(
        statusOf(exchangeRaw(daemon.port, exchangeText(asClient("putEvents", "alice"), "e1"))),
        200);
    EXPECT_EQ(events(), 1u);
    EXPECT_EQ(events(), 0u) << "the daemon's acknowledgement is still held";
    gate.set_value();
    // Asked so, a fetch's answer ends with what a getSharedClients would answer.
    const auto body = [](const std::string& answer) {
        return answer.substr(answer.find("\r\n\r\n") + 4);
    };
    const std::string both = exchangeRaw(
        daemon.port, exchangeText(asClient("getEvents", "bob"), "", "Quorvel-Clients-Too: 1\r\n"));
    const std::size_t at = both.find("Quorvel-Events-Bytes: ");
    ASSERT_NE(at, std::string::npos) << both;
    EXPECT_EQ(body(both).substr(std::stoul(both.substr(at + 22))),
              body(exchangeRaw(daemon.port, exchangeText(asClient("getSharedClients", "bob")))));
}

// What moves a client's cursor: a fetch with Quorvel-Ack moves nothing (what it
// answered comes again until acknowledged), one without moves it only once its
// answer is written whole (one whose reader resets the connection comes again).
TEST(ServerTest, OnlyAnAcknowledgedOrWholeAnswerMovesTheCursor) {
    InProcessDaemon daemon;
    registerClients(daemon.port, {"alice", "bob"});
    const std::string big(8 << 20, 'e');  // past the socket buffers of both ends
    ASSERT_EQ(statusOf(exchangeRaw(daemon.port, exchangeText(asClient("putEvents", "alice"), big))),
              200);
    const auto fetch = [&](const std::string& headers) {
        return scanEvents(exchangeRaw(daemon.port,
                                      exchangeText(asClient("getEvents", "bob"), "", headers),
                                      10000))
            .size();
    };
    EXPECT_EQ(fetch("Quorvel-Ack: 0\r\n"), 1u);
    EXPECT_EQ(fetch("Quorvel-Ack: 0\r\n"), 1u) << "an answer moves nothing when acked";
    {
        RawConnection reader(daemon.port);
        reader.send(exchangeText(asClient("getEvents", "bob")));
        ASSERT_FALSE(reader.peek(16, 5000).empty());
    }  // closed with the answer unread: a reset
    EXPECT_TRUE(waitUntil([&] { return sample(daemon.port, "quorveld_open_connections") == 1; }));
    EXPECT_EQ(fetch(""), 1u) << "an answer cut short moved the cursor";
}
