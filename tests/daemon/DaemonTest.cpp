// quorveld with clients in separate processes: the whole road, the quorvel
// tool, failures of the HTTP backend, and requests no client would send.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/DaemonHarness.h"
#include "transport/HttpWire.h"

using namespace DaemonTesting;
namespace Wire = Arvant::Net::AvQuorvel::Transport;

namespace {

// daemon_client with QUORVEL_URL set to `url` (and the extra settings).
Result client(const std::string& url, const std::vector<std::string>& args,
              const Environment& extra = {}) {
    std::vector<std::string> argv = {DAEMON_CLIENT_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    Environment environment = {{"QUORVEL_URL", url}};
    environment.insert(environment.end(), extra.begin(), extra.end());
    return runChild(argv, environment);
}

void expectCleanStop(Daemon& daemon) {
    const int status = daemon.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

}  // namespace

TEST(HttpWireTest, FieldsSurviveEncodingAndDamageIsRefused) {
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte) {
        everyByte += static_cast<char>(byte);
    }
    for (const std::string& value : {std::string(), std::string("a b=c"),
                                     std::string("n\xC3\xA9 \xE2\x98\x83 100%"), everyByte}) {
        std::string name, decoded, problem;
        const std::string line = Wire::encodeField("Server-ID", value);
        EXPECT_EQ(line.find_first_of(" =%+\x80", line.find('=') + 1), std::string::npos) << line;
        ASSERT_TRUE(Wire::decodeField(line, name, decoded, problem)) << problem;
        EXPECT_EQ(name + "=" + decoded, "Server-ID=" + value);
    }
    // "QQ" is "A"; "QR" has stray low bits, "Q" an impossible length.
    for (const char* line : {"novalue", "=QQ", "QQ=QR", "QQ=Q", "QQ=QQ=", "QQ=Q Q", "QQ=%41",
                             "QQ=Q+Q", "QQ=\xC3\xA9"}) {
        std::string name, value, problem;
        EXPECT_FALSE(Wire::decodeField(line, name, value, problem)) << line;
        EXPECT_FALSE(problem.empty());
    }
    for (const auto& row : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {"f", "Zg"}, {"fo", "Zm8"}, {"foo", "Zm9v"}, {"\xFB\xFF", "-_8"}}) {
        std::string bytes;
        EXPECT_EQ(Wire::base64UrlEncode(row.first), row.second);
        EXPECT_TRUE(Wire::base64UrlDecode(row.second, bytes));
        EXPECT_EQ(bytes, row.first);
    }
}

TEST(HttpWireTest, StatusesMapToTransportCodes) {
    const std::vector<std::pair<int, int32_t>> table = {
        {400, -3017}, {422, -3017}, {413, -3016}, {429, -3016}, {431, -3016},
        {507, -3016}, {404, -3099}, {405, -3099}, {408, -3099}, {500, -3099}};
    for (const auto& row : table) {
        EXPECT_EQ(Wire::transportCodeForStatus(row.first), row.second) << row.first;
    }
}

TEST(DaemonUsageTest, BadCommandLinesExitWithTwo) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--listen", "nohost"},
                                               {"--listen", "127.0.0.1:65536"},
                                               {"--workers", "0"},
                                               {"--bogus"}}) {
        std::vector<std::string> argv = {QUORVELD_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        const Result result = runChild(argv, {}, 5000);
        EXPECT_EQ(result.exitCode, 2) << args[0];
        EXPECT_NE(result.errors, "") << args[0];
    }
}

TEST(DaemonRoadTest, ClientProcessesAndTheToolShareTheDaemon) {
    Daemon daemon;
    const std::string url = daemon.url();
    // Identifiers with spaces, "=" and non-ASCII UTF-8 travel unchanged.
    const std::string server = "road server=1 \xC3\xA9";
    const std::string alice = "alice \xE2\x98\x83";
    EXPECT_EQ(client(url, {"register", server, alice}).output, "shared " + alice + "\n");
    EXPECT_EQ(client(url, {"register", server, "bob"}).output, "shared " + alice + ",bob\n");
    EXPECT_EQ(client(url, {"put", server, alice, "hello = world \xC3\xA9"}).output, "posted\n");

    const Result got = client(url, {"get", server, "bob"});
    EXPECT_EQ(got.exitCode, 0) << got.output;
    EXPECT_NE(got.output.find("sender=\"" + alice + "\" sequence=\"1\">hello = world \xC3\xA9<"),
              std::string::npos)
        << got.output;
    EXPECT_EQ(client(url, {"get", server, "bob"}).output.find("hello"), std::string::npos)
        << "an event arrives once";

    EXPECT_EQ(client(url, {"list", server, "bob"}).output, "shared " + alice + ",bob\n");
    EXPECT_EQ(client(url, {"unregister", server, "bob"}).output, "shared " + alice + "\n");
    EXPECT_EQ(client(url, {"list", server, alice}).output, "shared " + alice + "\n");
    EXPECT_EQ(client(url, {"status"}).output, "status 0\n");
    // The client fails on a piece over 16384 bytes.
    EXPECT_EQ(client(url, {"raw", "getStatus", "s", "c", "100000"}).output, "ok 100000\n");

    const Result bench = client(url, {"bench", "300"});
    ASSERT_EQ(bench.exitCode, 0) << bench.output;
    const long micros = std::stol(bench.output.substr(3));
    std::cout << "[ measured ] status exchange over loopback: " << micros << " us\n";
    EXPECT_LT(micros, 20000) << "about 40 ms each means Nagle and delayed ACKs are at work";

    // The quorvel tool against the same daemon.
    const auto tool = [&](const std::vector<std::string>& args) {
        std::vector<std::string> argv = {QUORVEL_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        return runChild(argv, {{"QUORVEL_URL", url}});
    };
    EXPECT_EQ(tool({"register", "cli-server", "reader"}).exitCode, 0);
    const Result put =
        tool({"put", "--server", "cli-server", "--client", "writer", "across processes"});
    EXPECT_EQ(put.exitCode, 0) << put.output << put.errors;
    const Result fetched = tool({"--json", "get", "--server", "cli-server", "--client", "reader"});
    EXPECT_EQ(fetched.exitCode, 0) << fetched.errors;
    EXPECT_NE(fetched.output.find("\"sender\":\"writer\""), std::string::npos) << fetched.output;
    EXPECT_NE(fetched.output.find("across processes"), std::string::npos) << fetched.output;
    expectCleanStop(daemon);
}

TEST(DaemonFailureTest, DaemonNotRunningOrBadSettings) {
    const std::string url = "http://127.0.0.1:" + std::to_string(unusedPort());
    const Result raw = client(url, {"raw", "getStatus", "s", "c", "4"});
    EXPECT_NE(raw.output.find("code -2999\nmessage Cannot reach the Quorvel service at " + url),
              std::string::npos)
        << raw.output;
    const Result status = client(url, {"status"});
    EXPECT_EQ(status.exitCode, 1);
    EXPECT_EQ(status.output, "AvQVLConnectionException type -1: AvQVL Connection failed\n");
    const Result registered = client(url, {"register", "s", "c"});
    EXPECT_EQ(registered.output.rfind("AvQVLConnectionException type 0: Cannot reach", 0), 0u)
        << registered.output;

    const Result scheme = client("ftp://127.0.0.1:1", {"raw", "getStatus", "s", "c", "0"});
    EXPECT_NE(scheme.output.find("code -2999\nmessage QUORVEL_URL must start with http://"),
              std::string::npos)
        << scheme.output;
    const Result timeout = client("http://127.0.0.1:1", {"raw", "getStatus", "s", "c", "0"},
                                  {{"QUORVEL_TIMEOUT_MS", "soon"}});
    EXPECT_NE(timeout.output.find("QUORVEL_TIMEOUT_MS must be a positive number"),
              std::string::npos)
        << timeout.output;
}

// A stopped daemon: a client with a short time-out gives up (-2998); one
// without is still waiting when the daemon is killed (-2997).
TEST(DaemonFailureTest, DaemonSilentThenKilledMidExchange) {
    Daemon daemon;
    daemon.process().signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    const Result raw =
        client(daemon.url(), {"raw", "getStatus", "s", "c", "4"}, {{"QUORVEL_TIMEOUT_MS", "300"}});
    EXPECT_NE(raw.output.find("code -2998\n"), std::string::npos) << raw.output;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

    ChildProcess exchange({DAEMON_CLIENT_BINARY, "raw", "getStatus", "s", "c", "4"},
                          {{"QUORVEL_URL", daemon.url()}});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    daemon.process().signal(SIGKILL);
    int status = 0;
    ASSERT_TRUE(exchange.wait(10000, status));
    EXPECT_NE(exchange.output().find("code -2997\nmessage The connection to the Quorvel service"),
              std::string::npos)
        << exchange.output();
}

TEST(DaemonFailureTest, LimitsAndRefusalsCarryTheServiceMessage) {
    Daemon daemon({"--max-body", "1000"});
    const Result big = client(daemon.url(), {"raw", "putEvents", "s", "c", "2000"});
    EXPECT_EQ(big.output,
              "code -3016\nmessage The request body of 2000 bytes exceeds the limit of 1000 "
              "bytes.\n");
    const Result unregistered = client(daemon.url(), {"raw", "getEvents", "s", "c", "0"});
    EXPECT_EQ(unregistered.output,
              "code -3017\nmessage Client \"c\" is not registered with server \"s\".\n");
    const Result unknown = client(daemon.url(), {"raw", "shout", "s", "c", "0"});
    EXPECT_EQ(unknown.output, "code -3017\nmessage Unknown \"Operation-Name\" \"shout\".\n");
    expectCleanStop(daemon);
}

// Requests no client of the library sends: each gets a clear status and the
// daemon goes on serving.
TEST(DaemonBadRequestTest, EachGetsAClearStatus) {
    Daemon daemon({"--max-body", "1000"});
    const std::string exchange = "POST /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\n";
    const std::string status =
        "Quorvel-Field: " + Wire::encodeField("Service-Name", "AvQVLRequest") +
        "\r\nQuorvel-Field: " + Wire::encodeField("Operation-Name", "getStatus") + "\r\n";
    const std::vector<std::pair<std::string, std::string>> table = {
        {"GET /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n",
         "HTTP/1.1 405"},
        {"POST /other HTTP/1.1\r\nHost: t\r\nContent-Length: 0\r\n\r\n", "HTTP/1.1 404"},
        {exchange + status + "\r\nabc", "HTTP/1.1 411"},
        {exchange + status + "Quorvel-Field: QQ=Q\r\nContent-Length: 0\r\n\r\n", "HTTP/1.1 400"},
        {exchange + status + "Quorvel-Field: " + Wire::encodeField("Operation-Name", "x") +
             "\r\nContent-Length: 0\r\n\r\n",
         "HTTP/1.1 400"},
        {exchange + status + "Content-Length: 5000\r\n\r\n", "HTTP/1.1 413"},
        {exchange + status + "Content-Length: 99999999999999999999999\r\n\r\n", "HTTP/1.1 413"},
        // Read as 0, "x2" would leave "ok" to be taken for the next request.
        {exchange + status + "Content-Length: x2\r\n\r\nok", "HTTP/1.1 400"},
        {exchange + status + "Content-Length: 2\r\nContent-Length: 3\r\n\r\nok!", "HTTP/1.1 400"},
        {exchange + "X-Long: " + std::string(70000, 'a') + "\r\n\r\n", "HTTP/1.1 431"},
        // Header lines of 8193 bytes and 8192 (CR LF included).
        {exchange + "X-Long: " + std::string(8183, 'a') + "\r\n\r\n", "HTTP/1.1 431"},
        {exchange + status + "X-Long: " + std::string(8182, 'a') +
             "\r\nConnection: close\r\nContent-Length: 0\r\n\r\n",
         "HTTP/1.1 200"},
        {"NOT HTTP AT ALL\r\n\r\n", "HTTP/1.1 400"},
        {exchange + status + "Connection: close\r\nContent-Length: 2\r\n\r\nok", "HTTP/1.1 200"},
    };
    for (const auto& row : table) {
        RawConnection connection(daemon.port());
        connection.send(row.first);
        bool closed = false;
        const std::string answer = connection.receiveAll(3000, closed);
        EXPECT_EQ(answer.rfind(row.second, 0), 0u) << row.first.substr(0, 120) << "\n" << answer;
        if (row.second != "HTTP/1.1 200") {
            EXPECT_NE(answer.find("\r\n\r\n"), answer.size() - 4) << "a message explains it";
        }
    }
    EXPECT_EQ(client(daemon.url(), {"status"}).output, "status 0\n");
    expectCleanStop(daemon);
}

TEST(DaemonBadRequestTest, SlowClientsAreCutOffWithoutBlockingOthers) {
    Daemon daemon({"--workers", "4", "--read-timeout-ms", "300", "--request-timeout-ms", "1000"});
    const std::string head = "POST /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\n";
    RawConnection stalled(daemon.port());
    stalled.send(head);
    RawConnection trickling(daemon.port());
    trickling.send(head + "Content-Length: 100\r\n\r\n");
    // Silent connections beyond the workers give theirs up to those waiting.
    std::vector<std::unique_ptr<RawConnection>> silent;
    for (int i = 0; i < 4; ++i) {
        silent.push_back(std::make_unique<RawConnection>(daemon.port()));
    }
    // Others are served while both hold a worker.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client(daemon.url(), {"status"}).output, "status 0\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));

    bool closed = false;
    for (int i = 0; i < 20 && !closed; ++i) {  // a byte every 100 ms never stalls
        trickling.send("x");
        trickling.receiveAll(100, closed);
    }
    EXPECT_TRUE(closed) << "cut off at the request time-out";
    const std::string stalledAnswer = stalled.receiveAll(3000, closed);
    EXPECT_EQ(stalledAnswer.rfind("HTTP/1.1 408", 0), 0u) << stalledAnswer;
    EXPECT_TRUE(closed);
    expectCleanStop(daemon);
}

TEST(DaemonStopTest, ExchangeUnderWayFinishesThenTheDaemonExits) {
    Daemon daemon({}, true);
    RawConnection connection(daemon.port());
    connection.send("POST /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\nQuorvel-Field: " +
                    Wire::encodeField("Service-Name", "AvQVLRequest") +
                    "\r\nQuorvel-Field: " + Wire::encodeField("Operation-Name", "getStatus") +
                    "\r\nConnection: close\r\nContent-Length: 10\r\n\r\nhello");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    daemon.process().signal(SIGTERM);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(daemon.process().running());
    connection.send("world");
    bool closed = false;
    const std::string answer = connection.receiveAll(3000, closed);
    EXPECT_EQ(answer.rfind("HTTP/1.1 200", 0), 0u) << answer;
    EXPECT_EQ(answer.substr(answer.size() - 10), "helloworld");
    long stopMs = 0;
    const int status = daemon.stop(10000, &stopMs);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_LT(stopMs, 2000);
    // One log line for the exchange; the absent identifiers show empty.
    EXPECT_TRUE(
        std::regex_search(daemon.process().errors(),
                          std::regex("^exchange op=getStatus server= client= status=200 us=[0-9]+ "
                                     "peer=127\\.0\\.0\\.1:[0-9]+\nquorveld stopped\n$")))
        << daemon.process().errors();
}
