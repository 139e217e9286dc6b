// quorveld's server side as clients meet it: many slow and idle connections,
// strict framing, the connection cap, health and metrics, the bearer token,
// TLS and logs. The daemon runs in this process (InProcessDaemon) unless the
// test is about the program itself: its command line, its exit codes, or a
// number of connections that one process could not hold on both ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <map>
#include <sstream>

#include "daemon/DaemonProcess.h"
#include "support/TempDir.h"
#include "wire/HttpWire.h"

using namespace Harness;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;
namespace Wire = Arvant::Net::AvQuorvel::Wire;
namespace Daemon = Arvant::Net::AvQuorvel::Daemon;

namespace {

const std::string kStatus =
    "POST /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\nQuorvel-Field: " +
    Wire::encodeField("Service-Name", "AvQVLRequest") +
    "\r\nQuorvel-Field: " + Wire::encodeField("Operation-Name", "getStatus") + "\r\n";
const std::string kStatusText = "status: 0 (the service echoed the status text)\n";

std::string bodyOf(const std::string& answer) {
    const std::size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : answer.substr(end + 4);
}

// A scrape of /metrics: the value of series (name and labels), -1 when missing.
long long sample(int port, const std::string& series) {
    std::istringstream lines(bodyOf(getRaw(port, "/metrics")));
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, series.size() + 1, series + " ") == 0) {
            return std::stoll(line.substr(series.size() + 1));
        }
    }
    return -1;
}

// What quorvel prints against the daemon: standard output on success, else error.
std::string cli(const std::string& url, const Strings& args, Strings env = {}) {
    env.push_back(url);
    const Result result = quorvel(args, env);
    return result.code == 0 ? result.out : result.err;
}

Strings joined(Strings argv, const Strings& more, const Strings& last = {}) {
    argv.insert(argv.end(), more.begin(), more.end());
    argv.insert(argv.end(), last.begin(), last.end());
    return argv;
}

InProcessDaemon::Options with(const std::function<void(InProcessDaemon::Options&)>& set) {
    InProcessDaemon::Options options;
    set(options);
    return options;
}

}  // namespace

// 64 clients that never finish their head and 10 000 that never send a byte
// hold nothing the others need.
TEST(ServerTest, SlowAndIdleConnectionsLeaveRoomForOthers) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 10200) {
        GTEST_SKIP() << "needs 10 200 descriptors, the hard limit is " << limit.rlim_max;
    }
    DaemonProcess daemon(
        {"--read-timeout-ms=60000", "--request-timeout-ms=60000", "--keep-alive-s=600"});
    std::vector<std::unique_ptr<RawConnection>> slow, idle;
    for (int i = 0; i < 64; ++i) {
        slow.push_back(std::make_unique<RawConnection>(daemon.port));
        slow.back()->send(kStatus + "X-Slow: ");
    }
    for (int i = 0; i < 10000; ++i) {
        idle.push_back(std::make_unique<RawConnection>(daemon.port));
        ASSERT_TRUE(idle.back()->connected) << i;
    }
    EXPECT_EQ(cli(daemon.url(), {"status"}), kStatusText);
    // Accepted in order: every connection before the scrape's is open.
    EXPECT_GE(sample(daemon.port, "quorveld_open_connections"), 10064);
    slow.clear();  // a request under way would hold the stop up to its time-out
    EXPECT_EQ(daemon.stop(), 0);
}

// A request is framed one way only; anything else, damaged exchange fields
// included, is refused at once (the read time-out is far away), the connection
// closes and nothing after it is read as a request.
TEST(ServerTest, AmbiguousOrMalformedRequestsAreRefusedAndClose) {
    InProcessDaemon daemon(with([](auto& o) { o.readTimeoutMs = 20000; }));
    const std::string smuggled = "GET /healthz HTTP/1.1\r\nHost: t\r\n\r\n";
    const std::string empty = "Content-Length: 0\r\n\r\n" + smuggled;
    const std::string table[] = {
        kStatus + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + smuggled,
        kStatus + "Transfer-Encoding: gzip\r\n\r\n" + smuggled,
        kStatus + "Transfer-Encoding: gzip\r\nContent-Length: 5\r\n\r\nhello" + smuggled,
        kStatus + "Transfer-Encoding: chunked\r\n\r\nzz\r\nx\r\n",
        kStatus + "Transfer-Encoding: chunked\r\n\r\n2\r\nxyzzy\r\n",
        kStatus + "Content-Length: 1\r\nContent-Length: 1, 2\r\n\r\nx" + smuggled,
        kStatus + "Quorvel-Field: no-equals-sign\r\n" + empty,
        kStatus + "Quorvel-Field: " + Wire::encodeField("Server-ID", "S") + "!!\r\n" + empty,
        kStatus + "Quorvel-Field: " + Wire::encodeField("Service-Name", "AvQVLRequest") + "\r\n" +
            empty,
    };
    for (const std::string& request : table) {
        RawConnection connection(daemon.port);
        connection.send(request);
        const std::string answer = connection.receive(5000);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 400")) << request;
        EXPECT_EQ(answer.find("HTTP/1.1", 1), std::string::npos) << "one answer only";
        EXPECT_TRUE(connection.closed) << request;
    }
    // A well-formed chunked body is read whole.
    const std::string chunked =
        exchangeRaw(daemon.port, kStatus +
                                     "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
                                     "5\r\nhello\r\n6;x=y\r\n world\r\n0\r\n\r\n");
    EXPECT_THAT(chunked, StartsWith("HTTP/1.1 200"));
    EXPECT_EQ(bodyOf(chunked), "hello world");
}

// Past the cap a connection is closed at once; once the others have closed,
// the daemon serves again.
TEST(ServerTest, ConnectionsPastTheCapAreClosedAtOnce) {
    InProcessDaemon daemon(with([](auto& o) {
        o.maxConnections = 3;
        o.keepAliveSeconds = 600;
    }));
    std::vector<std::unique_ptr<RawConnection>> held;
    for (int i = 0; i < 3; ++i) {
        held.push_back(std::make_unique<RawConnection>(daemon.port));
    }
    RawConnection past(daemon.port);
    EXPECT_EQ(past.receive(5000), "");
    EXPECT_TRUE(past.closed);
    held.clear();
    std::string health;
    for (int i = 0; i < 250 && health.empty(); ++i) {  // until the daemon has seen them close
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        health = getRaw(daemon.port, "/healthz");
    }
    EXPECT_THAT(health, StartsWith("HTTP/1.1 200"));
}

// The program's own failures: a busy port, token files it cannot use; and its version.
TEST(ServerTest, TheProgramExitsWithOneWhenItCannotServe) {
    DaemonProcess first;
    TempDir dir;
    const std::pair<Strings, std::string> table[] = {
        {{"--listen", "127.0.0.1:" + std::to_string(first.port)}, "address already in use"},
        {{"--listen", "127.0.0.1:0", "--token-file", dir.file("missing")}, dir.file("missing")},
        {{"--listen", "127.0.0.1:0", "--token-file", dir.file("empty", "\n")}, dir.file("empty")},
    };
    for (const auto& row : table) {
        const Result refused = run(joined({QUORVELD_BINARY}, row.first));
        EXPECT_EQ(refused.code, 1) << row.second;
        EXPECT_THAT(refused.err, HasSubstr(row.second));
    }
    EXPECT_EQ(cli(first.url(), {"status"}), kStatusText) << "the first one serves on";
    EXPECT_EQ(first.stop(), 0);
    const Result version = run({QUORVELD_BINARY, "--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_THAT(version.out, ::testing::MatchesRegex("quorveld [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(ServerTest, HealthAndMetricsFollowTheService) {
    InProcessDaemon daemon;
    const std::string health = getRaw(daemon.port, "/healthz");
    EXPECT_THAT(health, StartsWith("HTTP/1.1 200"));
    EXPECT_EQ(bodyOf(health), "ok\n");
    EXPECT_THAT(getRaw(daemon.port, "/metrics"),
                HasSubstr("Content-Type: text/plain; version=0.0.4"));
    EXPECT_EQ(sample(daemon.port, "quorveld_registered_clients"), 0);
    const long long before = sample(daemon.port, "quorveld_request_duration_seconds_count");
    ASSERT_THAT(cli(daemon.url(), {"register", "s", "alice"}), HasSubstr("shared clients (1)"));
    ASSERT_THAT(cli(daemon.url(), {"register", "s", "bob"}), HasSubstr("shared clients (2)"));
    ASSERT_THAT(cli(daemon.url(), {"put", "--server", "s", "--client", "alice", "hello"}),
                HasSubstr("posted 5 bytes"));
    EXPECT_THAT(getRaw(daemon.port, "/nothing"), StartsWith("HTTP/1.1 404"));
    // Counters: at least; quorvel may send more than one request per command.
    const std::tuple<std::string, long long, bool> after[] = {
        {"quorveld_registered_clients", 2, true},
        {"quorveld_waiting_events", 1, true},
        {"quorveld_waiting_bytes", 5, true},
        {"quorveld_requests_total{operation=\"registerClient\",status=\"200\"}", 2, false},
        {"quorveld_requests_total{operation=\"putEvents\",status=\"200\"}", 1, false},
        {"quorveld_requests_total{operation=\"none\",status=\"404\"}", 1, true},
        {"quorveld_open_connections", 1, false},
    };
    for (const auto& [series, value, exact] : after) {
        const long long found = sample(daemon.port, series);
        EXPECT_TRUE(exact ? found == value : found >= value) << series << " " << found;
    }
    const long long count = sample(daemon.port, "quorveld_request_duration_seconds_count");
    EXPECT_GT(count, before);
    EXPECT_GE(sample(daemon.port, "quorveld_request_duration_seconds_bucket{le=\"+Inf\"}"), count);
    ASSERT_THAT(cli(daemon.url(), {"get", "--server", "s", "--client", "bob"}), HasSubstr("hello"));
    EXPECT_EQ(sample(daemon.port, "quorveld_waiting_events"), 0);
    EXPECT_EQ(sample(daemon.port, "quorveld_waiting_bytes"), 0);
}

// Bearer matching itself is TokenTest's (HttpServerTest.cpp); here, what it guards.
TEST(ServerTest, TokenGuardsEverythingButHealth) {
    InProcessDaemon daemon(with([](auto& o) { o.token = "s3cret-token"; }));
    const std::string status = kStatus + "Content-Length: 2\r\nConnection: close\r\n";
    const std::string metrics = "GET /metrics HTTP/1.1\r\nHost: t\r\nConnection: close\r\n";
    const std::pair<std::string, std::string> table[] = {
        {"GET /healthz HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n", "200"},
        {status + "\r\nhi", "401"},
        {status + "Authorization: Bearer wrong\r\n\r\nhi", "401"},
        {status + "Authorization: Bearer s3cret-token\r\n\r\nhi", "200"},
        {metrics + "\r\n", "401"},
        {metrics + "Authorization: Bearer s3cret-token\r\n\r\n", "200"},
    };
    for (const auto& row : table) {
        const std::string answer = exchangeRaw(daemon.port, row.first);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 " + row.second)) << row.first;
        if (row.second == "401") {
            EXPECT_THAT(answer, HasSubstr("WWW-Authenticate: Bearer"));
        }
    }
    // Through the client library: the token from QUORVEL_TOKEN, or its refusal named.
    EXPECT_EQ(cli(daemon.url(), {"status"}, {"QUORVEL_TOKEN=s3cret-token"}), kStatusText);
    for (const char* token : {"QUORVEL_TOKEN=wrong", "QUORVEL_TOKEN="}) {
        const Result refused = quorvel({"register", "s", "k"}, {daemon.url(), token});
        EXPECT_EQ(refused.code, 1) << token;
        EXPECT_THAT(refused.err, ContainsRegex("AvQVLConnectionException.*token")) << token;
    }
}

// A throwaway authority signs a certificate for 127.0.0.1; a client trusting
// that authority is served over HTTPS, one trusting another is refused. Plain
// HTTP gets no answer; a client that never begins its handshake is closed after
// the handshake time-out; both are logged with the peer.
TEST(ServerTest, TlsServesClientsThatTrustTheCertificate) {
    TempDir dir;
    const std::string ca = dir.file("ca.pem"), key = dir.file("key.pem");
    const Strings newKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    const std::vector<Strings> steps = {
        {"req", "-x509", "-days", "1", "-subj", "/CN=test authority", "-keyout", dir.file("ca.key"),
         "-out", ca},
        {"req", "-subj", "/CN=127.0.0.1", "-keyout", key, "-out", dir.file("cert.csr")},
        {"x509", "-req", "-days", "1", "-in", dir.file("cert.csr"), "-CA", ca, "-CAkey",
         dir.file("ca.key"), "-CAcreateserial", "-extfile",
         dir.file("ext.cnf", "subjectAltName=IP:127.0.0.1\n"), "-out", dir.file("cert.pem")},
        {"req", "-x509", "-days", "1", "-subj", "/CN=another authority", "-keyout",
         dir.file("other.key"), "-out", dir.file("other.pem")},
    };
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const Result made =
            run(joined({"/usr/bin/openssl"}, steps[i], i == 2 ? Strings{} : newKey));
        ASSERT_EQ(made.code, 0) << made.err;
    }
    InProcessDaemon daemon(with([&](auto& o) {
        o.tlsCertificateFile = dir.file("cert.pem");
        o.tlsKeyFile = key;
        o.readTimeoutMs = 60000;
        o.tlsHandshakeTimeoutMs = 300;
    }));
    const std::string url = "QUORVEL_URL=https://127.0.0.1:" + std::to_string(daemon.port);
    const Result registered = quorvel({"register", "s", "k"}, {url, "SSL_CERT_FILE=" + ca});
    EXPECT_EQ(registered.code, 0) << registered.err;
    const Result unverified =
        quorvel({"register", "s", "k"}, {url, "SSL_CERT_FILE=" + dir.file("other.pem")});
    EXPECT_EQ(unverified.code, 1);
    EXPECT_THAT(unverified.err, ContainsRegex("AvQVLConnectionException.*certificate"));
    EXPECT_THAT(getRaw(daemon.port, "/healthz"), ::testing::Not(StartsWith("HTTP/1.1 200")));
    RawConnection silent(daemon.port);
    EXPECT_EQ(silent.receive(20000), "");
    EXPECT_TRUE(silent.closed) << "well before the read time-out";
    daemon.stop();
    EXPECT_THAT(daemon.log(), ContainsRegex(" info TLS handshake with 127\\.0\\.0\\.1:[0-9]+ "
                                            "failed: [^\n]+\n"));
    EXPECT_THAT(daemon.log(), HasSubstr("failed: not done within 300 ms\n"));
}

TEST(ServerTest, LogsAsJsonOrTextAtTheChosenLevel) {
    InProcessDaemon json(with([](auto& o) { o.logFormat = Daemon::LogFormat::Json; }));
    EXPECT_THAT(getRaw(json.port, "/healthz"), StartsWith("HTTP/1.1 200"));
    json.stop();
    EXPECT_THAT(
        json.log(),
        ContainsRegex("\\{\"time\":\"20[0-9-]+T[0-9:]+\\.[0-9]{6}Z\",\"level\":\"info\","
                      "\"event\":\"request\",\"method\":\"GET\",\"path\":\"/healthz\","
                      "\"status\":200,\"us\":[0-9]+,\"peer\":\"127\\.0\\.0\\.1:[0-9]+\"\\}\n"));
    // At warn, only the failed request is logged.
    InProcessDaemon warn(with([](auto& o) { o.logLevel = Daemon::LogLevel::Warn; }));
    EXPECT_THAT(getRaw(warn.port, "/healthz"), StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(getRaw(warn.port, "/p%20q"), StartsWith("HTTP/1.1 404"));
    warn.stop();
    EXPECT_THAT(warn.log(), ::testing::MatchesRegex("[0-9T:.Z-]+ warn request method=GET "
                                                    "path=/p%2520q status=404 us=[0-9]+ "
                                                    "peer=127\\.0\\.0\\.1:[0-9]+\n"));
}
