// quorveld with clients in separate processes whose transport QUORVEL_URL points at
// it (the quorvel tool, and forks of this test): the whole road, failures as clients
// see them, requests no client would send, and the bounded load (which ctest runs
// apart, labelled load).
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

#include "client/AvQVLConnection.h"
#include "daemon/DaemonProcess.h"
#include "daemon/Delivery.h"
#include "wire/HttpWire.h"

using namespace Harness;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
namespace Wire = Arvant::Net::AvQuorvel::Wire;

namespace {

// The daemon and raw connections of the server tests (DaemonProcess.h).
using Daemon = DaemonProcess;
using Connection = RawConnection;

// What quorvel prints against the daemon at url: standard output on success, else
// standard error.
std::string cli(const std::string& url, const Strings& args, Strings env = {}) {
    env.push_back(url);
    const Result result = quorvel(args, env);
    return result.code == 0 ? result.out : result.err;
}

const std::string kStatusText = "status: 0 (the service echoed the status text)\n";
const std::string kExchange = "POST /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\n";
const std::string kStatus =
    kExchange + "Quorvel-Field: " + Wire::encodeField("Service-Name", "AvQVLRequest") +
    "\r\nQuorvel-Field: " + Wire::encodeField("Operation-Name", "getStatus") + "\r\n";

}  // namespace

TEST(DaemonTest, BadCommandLinesExitWithTwo) {
    for (const char* option :
         {"--listen=nohost", "--listen=127.0.0.1:65536", "--workers=0", "-x"}) {
        const Result result = run({QUORVELD_BINARY, option});
        EXPECT_EQ(result.code, 2) << option;
        EXPECT_NE(result.err, "") << option;
    }
}

// The operators' side: admin requests with their own token, idle clients
// expired and counted, the store's byte bound, the store named at start, and
// files that others may read.
TEST(DaemonTest, OperatorsGetAdminAccessExpiryBoundsAndSafeFiles) {
    char directory[] = "/tmp/quorvel-operators-XXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    const std::string tokenFile = std::string(directory) + "/token";
    const std::string adminFile = std::string(directory) + "/admin";
    std::ofstream(tokenFile) << "s3rvice\n";
    std::ofstream(adminFile) << "adm1n\n";
    ::chmod(tokenFile.c_str(), 0644);
    ::chmod(adminFile.c_str(), 0600);
    Daemon daemon({"--token-file", tokenFile, "--admin-token-file", adminFile,
                   "--client-idle-expiry", "1s", "--max-stored-bytes", "64"});
    const Strings list = {"Service-Name=AvQVLAdmin", "Operation-Name=listClients"};
    const Strings status = {"Service-Name=AvQVLRequest", "Operation-Name=getStatus"};
    const auto as = [](const char* op, const char* client) {
        return Strings{"Service-Name=AvQVLRequest", std::string("Operation-Name=") + op,
                       "Server-ID=S", std::string("Client-ID=") + client};
    };
    const std::string service = "Authorization: Bearer s3rvice\r\n";
    const std::string admin = "Authorization: Bearer adm1n\r\n";
    const struct {
        Strings fields;
        std::string body, headers;
        int status;
    } table[] = {
        {list, "", admin, 200},
        {list, "", service, 401},
        {list, "", "", 401},
        {status, "", admin, 401},
        {status, "", service, 200},
        {as("registerClient", "alice"), "", service, 200},
        {as("registerClient", "bob"), "", service, 200},
        {as("putEvents", "alice"), std::string(65, 'x'), service, 507},  // past the store's 64
        {as("putEvents", "alice"), std::string(64, 'x'), service, 200},
    };
    for (const auto& row : table) {
        const std::string answer =
            exchangeRaw(daemon.port, exchangeText(row.fields, row.body, row.headers));
        EXPECT_EQ(statusOf(answer), row.status) << row.fields[1] << " " << row.headers << answer;
    }
    // Neither client fetches: both expire.
    std::string metrics;
    for (int i = 0;
         i < 100 && metrics.find("\nquorveld_expired_clients_total 2\n") == std::string::npos;
         ++i) {
        std::this_thread::sleep_for(milliseconds(50));
        metrics = getRaw(daemon.port, "/metrics", service);
    }
    EXPECT_NE(metrics.find("\nquorveld_expired_clients_total 2\n"), std::string::npos) << metrics;
    EXPECT_EQ(daemon.stop(), 0);
    const std::string log = daemon.err();
    EXPECT_NE(log.find("info expired idle client server=S client=alice"), std::string::npos);
    EXPECT_NE(log.find("the token file " + tokenFile + " has mode 0644"), std::string::npos);
    EXPECT_EQ(log.find(adminFile + " has mode"), std::string::npos) << log;
    EXPECT_NE(log.find(", store memory"), std::string::npos) << log;

    // Without an admin token, loopback peers are served; a store directory
    // the daemon makes is its owner's alone.
    const std::string data = std::string(directory) + "/made/data";
    Daemon sqlite({"--data", data});
    Daemon memory;
    EXPECT_EQ(statusOf(exchangeRaw(memory.port, exchangeText(list))), 200);
    EXPECT_EQ(sqlite.stop(), 0);
    EXPECT_NE(sqlite.err().find(", store SQLite " + data), std::string::npos) << sqlite.err();
    struct stat made {};
    ASSERT_EQ(::stat(data.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777, 0700u);
    std::system(("rm -rf '" + std::string(directory) + "'").c_str());
}

TEST(DaemonTest, ClientProcessesShareTheDaemon) {
    // One store thread: a fetch's acknowledgement runs before the next exchange.
    Daemon daemon({"--store-threads=1"});
    // Identifiers with spaces, "=" and non-ASCII UTF-8, and any text, travel unchanged.
    const std::string s = "road server=1 \xC3\xA9", alice = "alice \xE2\x98\x83";
    const std::string text = "a = b \xC3\xA9\n\t" + std::string(100000, 'x');  // many pieces
    const auto as = [&s](const std::string& client, Strings args) {
        args.insert(args.begin() + 1, {"--server", s, "--client", client});
        return args;
    };
    const struct {
        Strings args;
        std::string expected, input = "";
    } road[] = {
        {{"register", s, alice}, "shared clients (1): " + alice + "\n"},
        {{"register", s, "bob"}, "shared clients (2): " + alice + ", bob\n"},
        {as(alice, {"put", "-"}), "posted 100010 bytes", text},
        {as("bob", {"get", "--json"}), "[{\"sender\":\"" + alice +
                                           "\",\"sequence\":\"1\",\"text\":\"a = b \xC3\xA9\\n\\t" +
                                           text.substr(10) + "\"}]"},
        {as("bob", {"get"}), "events (0): none"},  // fetched once: acknowledged at exit
        {as("bob", {"unregister"}), "shared clients (1): " + alice + "\n"},
        {as(alice, {"clients"}), "shared clients (1): " + alice + "\n"},
        {{"register", s, "carol"}, "shared clients (2)"},
        {as(alice, {"put", "for a raw fetch"}), "posted"},
    };
    for (const auto& row : road) {
        const Result result = quorvel(row.args, {daemon.url()}, row.input);
        EXPECT_EQ(result.code, 0) << row.args[0] << ": " << result.err;
        EXPECT_NE(result.out.find(row.expected), std::string::npos) << result.out.substr(0, 999);
    }
    // A fetch without an acknowledgement (a raw call, an older client) is
    // acknowledged once its answer is written whole: the next one is empty.
    const std::string fetch = exchangeText({"Service-Name=AvQVLRequest", "Operation-Name=getEvents",
                                            "Server-ID=" + s, "Client-ID=carol"});
    EXPECT_THAT(exchangeRaw(daemon.port, fetch),
                ::testing::ContainsRegex("Quorvel-Last-Sequence: 2\r\n(.|\n)*for a raw fetch"));
    EXPECT_THAT(exchangeRaw(daemon.port, fetch), Not(HasSubstr("for a raw fetch")));
    EXPECT_EQ(daemon.stop(), 0);
}

bool fileHas(const char* path, const std::string& text) {
    std::ifstream file(path);
    const std::string content((std::istreambuf_iterator<char>(file)),
                              std::istreambuf_iterator<char>());
    return content.find(text) != std::string::npos;
}

TEST(DaemonTest, FailuresReachTheClient) {
    const std::string url = Daemon().url();  // stopped: nothing listens there now
    const std::string failed = "error: AvQVLConnectionException (type 0): ";
    EXPECT_THAT(cli(url, {"status"}),
                StartsWith("error: AvQVLConnectionException (type -1): AvQVL Connection failed "
                           "(cause: Cannot reach the Quorvel"));
    EXPECT_THAT(cli(url, {"register", "s", "c"}), StartsWith(failed + "Cannot reach the Quorvel"));

    // Stopped, then killed while a client waits for its answer.
    Daemon daemon;
    daemon.signal(SIGSTOP);
    Child exchange(program({QUORVEL_BINARY, "register", "s", "c"}), {daemon.url()});
    // The kernel completes the connection for the stopped daemon; wait until the
    // client has made it (a slow start under the sanitizers takes a while).
    char port[8];
    std::snprintf(port, sizeof port, ":%04X ", daemon.port);
    for (int i = 0; i < 200 && !fileHas("/proc/net/tcp", std::string(port) + "01 "); ++i) {
        std::this_thread::sleep_for(milliseconds(50));
    }
    std::this_thread::sleep_for(milliseconds(100));  // and sent its request
    daemon.signal(SIGKILL);
    EXPECT_EQ(exchange.wait(10000), 1);
    EXPECT_THAT(exchange.err(), StartsWith(failed + "The connection to the Quorvel service"));
}

// Each refusal gets a clear status and message; slow clients are cut off with
// 408, and silent connections hold nothing that others wait for.
TEST(DaemonTest, BadAndSlowRequestsAreRefusedWhileOthersAreServed) {
    Daemon daemon(
        {"--max-body=1000", "--threads=2", "--read-timeout-ms=300", "--request-timeout-ms=1000"});
    const std::string overLimit =
        "error: AvQVLRuntimeException (type 0): The request body exceeds the limit of 1000 bytes.";
    EXPECT_THAT(
        cli(daemon.url(), {"put", "--server", "s", "--client", "c", std::string(2000, 'x')}),
        StartsWith(overLimit));
    // Far over it: the daemon answers and closes while the body is still going out.
    EXPECT_THAT(quorvel({"put", "--server", "s", "--client", "c", "-"}, {daemon.url()},
                        std::string(17 << 20, 'x'))
                    .err,
                StartsWith(overLimit));
    EXPECT_THAT(cli(daemon.url(), {"register", "s", ""}),
                StartsWith("error: AvQVLProtocolException (type 0): Cannot register client \"\""));
    const std::pair<std::string, std::string> table[] = {
        {"GET /quorvel/v1/exchange HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n", "405"},
        {"POST /other HTTP/1.1\r\nHost: t\r\nContent-Length: 0\r\n\r\n", "404"},
        {kStatus + "\r\nabc", "411"},
        {kStatus + "Quorvel-Field: QQ=Q\r\nContent-Length: 0\r\n\r\n", "400"},
        {kStatus + "Quorvel-Ack: -1\r\nContent-Length: 0\r\n\r\n", "400"},
        {kStatus + "Quorvel-Ack: 1\r\nQuorvel-Ack-Only: 1\r\nContent-Length: 0\r\n\r\n", "400"},
        {kStatus + "Quorvel-Post-Id: 0123\r\nContent-Length: 0\r\n\r\n", "400"},
        {kStatus + "Content-Length: 99999999999999999999999\r\n\r\n", "413"},
        // Read as 0, "x2" would leave "ok" to be taken for the next request.
        {kStatus + "Content-Length: x2\r\n\r\nok", "400"},
        {kStatus + "Content-Length: 2\r\nContent-Length: 3\r\n\r\nok!", "400"},
        {kExchange + "X-Long: " + std::string(70000, 'a') + "\r\n\r\n", "431"},
        // A header line of 8193 bytes, CR LF included.
        {kExchange + "X-Long: " + std::string(8183, 'a') + "\r\n\r\n", "431"},
    };
    for (const auto& row : table) {
        Connection connection(daemon.port);
        connection.send(row.first);
        const std::string answer = connection.receive(3000);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 " + row.second)) << row.first.substr(0, 99);
        EXPECT_THAT(answer, ::testing::ContainsRegex("\r\n\r\n.")) << "a message explains it";
    }

    Connection stalled(daemon.port), trickling(daemon.port);
    stalled.send(kExchange);
    trickling.send(kExchange + "Content-Length: 100\r\n\r\n");
    Connection silent[] = {Connection(daemon.port), Connection(daemon.port),
                           Connection(daemon.port), Connection(daemon.port)};
    EXPECT_EQ(cli(daemon.url(), {"status"}), kStatusText);
    for (int i = 0; i < 20 && !trickling.closed; ++i) {  // a byte every 100 ms never stalls
        trickling.send("x");
        trickling.receive(100);
    }
    EXPECT_TRUE(trickling.closed) << "cut off at the request time-out";
    EXPECT_THAT(stalled.receive(3000), StartsWith("HTTP/1.1 408"));
    EXPECT_TRUE(stalled.closed);
    EXPECT_EQ(daemon.stop(), 0);
}

TEST(DaemonTest, ExchangeUnderWayFinishesThenTheDaemonExits) {
    Daemon daemon;
    Connection connection(daemon.port);
    connection.send(kStatus + "Connection: close\r\nContent-Length: 10\r\n\r\nhello");
    std::this_thread::sleep_for(milliseconds(100));
    daemon.signal(SIGTERM);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_TRUE(daemon.running());
    connection.send("world");
    const std::string answer = connection.receive(3000);
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(answer, ::testing::EndsWith("\r\n\r\nhelloworld"));
    EXPECT_EQ(daemon.stop(), 0);
    // One line per exchange; the absent identifiers show empty.
    const std::string time = "20[0-9][0-9]-[0-9][0-9]-[0-9][0-9]T[0-9:]+\\.[0-9]{6}Z ";
    EXPECT_THAT(daemon.err(),
                ::testing::ContainsRegex("\n" + time +
                                         "info exchange op=getStatus server= client= status=200 "
                                         "us=[0-9]+ peer=127\\.0\\.0\\.1:[0-9]+\n" +
                                         time + "info quorveld stopped\n$"));
}

// An exchange of client in server S, on a connection of its own; wait, when
// given, asks a getEvents to wait that many milliseconds.
std::string request(const std::string& operation, const std::string& client,
                    const std::string& wait = "", const std::string& body = "") {
    Strings fields{"Service-Name=AvQVLRequest", "Operation-Name=" + operation, "Server-ID=S",
                   "Client-ID=" + client};
    if (!wait.empty()) {
        fields.push_back("Wait-Milliseconds=" + wait);
    }
    return exchangeText(fields, body);
}

// A fetch that waits is answered at once when an event waits, when one is
// posted, or empty at its time; one past --max-waiters is answered at once; a
// waiter that hangs up takes nothing; stopping answers the waiters.
TEST(DaemonTest, WaitingFetchesEndWithAPostTheirTimeOrTheDaemon) {
    Daemon daemon({"--max-waiters=1"});
    const auto send = [&](const std::string& text) { return exchangeRaw(daemon.port, text); };
    for (const char* client : {"a", "b", "c"}) {
        send(request("registerClient", client));
    }
    const auto post = [&](const std::string& text) {
        EXPECT_EQ(statusOf(send(request("putEvents", "a", "", text))), 200);
    };
    post("e1");
    EXPECT_THAT(send(request("getEvents", "b", "20000")), HasSubstr(">e1<"));
    EXPECT_THAT(send(request("getEvents", "c")), HasSubstr(">e1<"));
    Connection waiting(daemon.port);
    waiting.send(request("getEvents", "b", "20000"));
    std::this_thread::sleep_for(milliseconds(200));  // let it wait
    const std::string refused = send(request("getEvents", "c", "20000"));
    EXPECT_THAT(refused, AllOf(StartsWith("HTTP/1.1 200"), Not(HasSubstr("<ns0:event "))));
    EXPECT_THAT(getRaw(daemon.port, "/metrics"),
                AllOf(HasSubstr("\nquorveld_waiting_requests 1\n"),
                      HasSubstr("\nquorveld_waits_refused_total 1\n")));
    post("e2");
    EXPECT_THAT(waiting.receive(3000), HasSubstr(">e2<"));
    EXPECT_THAT(send(request("getEvents", "c", "100")), HasSubstr(">e2<"));
    EXPECT_THAT(send(request("getEvents", "c", "100")),
                AllOf(StartsWith("HTTP/1.1 200"), Not(HasSubstr("<ns0:event "))));
    {
        Connection gone(daemon.port);
        gone.send(request("getEvents", "b", "20000"));
        std::this_thread::sleep_for(milliseconds(200));
    }
    std::this_thread::sleep_for(milliseconds(200));
    post("e3");
    std::this_thread::sleep_for(milliseconds(200));  // a waiter that took it would have by now
    EXPECT_THAT(send(request("getEvents", "b")), HasSubstr(">e3<"));
    Connection last(daemon.port);
    last.send(request("getEvents", "b", "20000"));
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_THAT(last.receive(3000), StartsWith("HTTP/1.1 200"));
}

// A load client: registers, waits for its 15 peers, posts 1000 events, then fetches the
// others' until all are in; prints how many came, once each and in order.
int loadClient(std::string client) {
    Arvant::Net::AvQuorvel::Client::AvQVLConnection connection;
    std::string server = "S", locale, events, correlation;
    std::vector<std::string> shared;
    connection.registerClient(server, client, locale, shared);
    // A bound for a slow machine (the sanitizers make it several times slower), not a timing
    // target.
    const auto deadline = Clock::now() + std::chrono::seconds(150);
    while (shared.size() < 16 && Clock::now() < deadline) {
        shared.clear();
        connection.getSharedClients(shared);
    }
    for (int i = 0; i < 1000; ++i) {
        std::string text = client + "#" + std::to_string(i);
        connection.putEvents(text, shared, correlation);
    }
    std::vector<Delivered> received;
    while (received.size() < 15000 && Clock::now() < deadline) {
        connection.getEvents(events, shared, correlation);
        const std::vector<Delivered> got = scanEvents(events);
        received.insert(received.end(), got.begin(), got.end());
    }
    if (!orderFault(client, received).empty()) {
        return 1;
    }
    std::printf("received %zu\n", received.size());
    return 0;
}

TEST(DaemonLoad, SixteenProcessesPostAndFetchEveryEventOnce) {
    Daemon daemon;
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < 16; ++i) {
        const auto body = [i] { return loadClient("c" + std::to_string(i)); };
        clients.push_back(std::make_unique<Child>(body, Strings{daemon.url()}));
    }
    for (auto& client : clients) {
        EXPECT_EQ(client->wait(200000), 0);
        EXPECT_EQ(client->out(), "received 15000\n");
    }
    EXPECT_EQ(daemon.stop(), 0);  // it stayed up
}
