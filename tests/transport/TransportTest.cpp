// Drives the eight AvQvl_ functions of the transport library directly, as a
// client would, against the embedded service.
#include "transport/AvQvlBinding.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int32_t kProtocol = -3017;
constexpr int32_t kLimit = -3016;
constexpr int32_t kNotStarted = -2999;
constexpr std::size_t kPiece = 16384;
const std::string kStatus = "Operation-Name=getStatus\r\nService-Name=AvQVLRequest\r\n\r\n";

std::string lastError() {
    char* message = nullptr;
    EXPECT_EQ(AvQvl_GetLastError(&message), 0);
    return message == nullptr ? std::string("<null>") : std::string(message);
}

// Plays one call per letter and returns the last result: T sends `text` (the
// status header block when empty), B a body piece, E ends, R receives, C
// completes, N sends null, n receives into null, L sends 1000-byte header lines
// until refused.
int32_t play(const std::string& steps, const std::string& text = "") {
    std::vector<char> buffer(kPiece);
    const std::string line = "X=" + std::string(1000, 'x') + "\r\n";
    int32_t rc = 0;
    for (const char step : steps) {
        for (int i = 0; i < 100 && (i == 0 || (step == 'L' && rc >= 0)); ++i) {
            rc = step == 'T'   ? AvQvl_SendNoAck((text.empty() ? kStatus : text).c_str())
                 : step == 'B' ? AvQvl_SendNoAck("body")
                 : step == 'E' ? AvQvl_SendEOF()
                 : step == 'R' ? AvQvl_Receive(buffer.data())
                 : step == 'C' ? AvQvl_Complete()
                 : step == 'N' ? AvQvl_SendNoAck(nullptr)
                 : step == 'n' ? AvQvl_Receive(nullptr)
                               : AvQvl_SendNoAck(line.c_str());
        }
    }
    return rc;
}

// One whole status exchange checked call by call; the response pieces' sizes.
std::vector<int32_t> echo(const std::string& body, std::string& response) {
    std::vector<char> buffer(kPiece + 64, '#');
    std::vector<int32_t> sizes;
    EXPECT_GE(AvQvl_SendNoAck(kStatus.c_str()), 0);
    EXPECT_EQ(AvQvl_SendEOF(), 0);
    EXPECT_EQ(AvQvl_Receive(buffer.data()), 19);
    for (std::size_t at = 0; at < body.size(); at += 4098) {
        EXPECT_GT(AvQvl_SendNoAck(body.substr(at, 4098).c_str()), 0);
    }
    EXPECT_EQ(AvQvl_SendEOF(), 0);
    EXPECT_EQ(AvQvl_Receive(buffer.data()), 20);
    response.clear();
    for (int32_t n; (n = AvQvl_Receive(buffer.data())) != -1 && sizes.size() < 10;) {
        sizes.push_back(n);
        if (n < 0) {
            return sizes;
        }
        response.append(buffer.data(), n);
        EXPECT_EQ(std::string(buffer.data() + kPiece, 64), std::string(64, '#'));
    }
    EXPECT_EQ(AvQvl_Complete(), 0);
    return sizes;
}

std::string echoed(const std::string& body) {
    std::string response;
    echo(body, response);
    return response;
}

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(AvQvl_Init(std::malloc, std::free), 0); }
    void TearDown() override {
        EXPECT_EQ(echoed("still fine"), "still fine");
        EXPECT_EQ(AvQvl_Term(), 0);
    }
};

TEST(TransportStartTest, CallsBeforeInitFailAndInitIsCounted) {
    const std::vector<std::pair<const char*, std::function<int32_t()>>> calls = {
        {"AvQvl_SendNoAck", [] { return play("B"); }},
        {"AvQvl_Send", [] { return AvQvl_Send("x"); }},
        {"AvQvl_SendEOF", [] { return play("E"); }},
        {"AvQvl_Receive", [] { return play("R"); }},
        {"AvQvl_Complete", [] { return play("C"); }},
        {"AvQvl_Term", [] { return AvQvl_Term(); }},
    };
    for (const auto& call : calls) {
        EXPECT_EQ(call.second(), kNotStarted) << call.first;
        EXPECT_NE(lastError().find(std::string(call.first) +
                                   " was called while the Quorvel transport is not started"),
                  std::string::npos)
            << lastError();
    }
    ASSERT_EQ(AvQvl_Init(std::malloc, std::free), 0);
    ASSERT_EQ(AvQvl_Init(nullptr, nullptr), 0);
    EXPECT_EQ(AvQvl_Term(), 0);
    EXPECT_EQ(echoed("one left"), "one left");
    EXPECT_EQ(AvQvl_Term(), 0);
    EXPECT_EQ(AvQvl_Term(), kNotStarted);
    EXPECT_EQ(play("T"), kNotStarted);
}

// Reply 19 after the header block, 20 after the body, pieces of at most 16384
// bytes (nothing written past them), -1 at the end.
TEST_F(TransportTest, EchoComesInPiecesOfAtMost16384Bytes) {
    std::string big;
    for (int i = 0; big.size() < 2 * kPiece + 1000; ++i) {
        big += std::to_string(i) + ",";
    }
    const int32_t rest = static_cast<int32_t>(big.size() - 2 * kPiece);
    const std::vector<std::pair<std::string, std::vector<int32_t>>> cases = {
        {"", {}}, {"AvQVL Status check", {18}}, {big, {16384, 16384, rest}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first.size());
        std::string response;
        EXPECT_EQ(echo(c.first, response), c.second);
        EXPECT_EQ(response, c.first);
    }
}

// Each misuse fails with the code and a message holding the text; a fresh
// exchange works right after.
TEST_F(TransportTest, MisuseFailsWithCodeAndMessage) {
    struct Case {
        const char* steps;
        const char* text;
        int32_t code;
        const char* messagePart;
    };
    const Case cases[] = {
        {"R", "", kProtocol, "no exchange open"},
        {"E", "", kProtocol, "no exchange open"},
        {"C", "", kProtocol, "no exchange open"},
        {"TE", "Operation-Name=getStatus\r\nService-Name=AvQVLRequest\r\n", kProtocol,
         "does not end with an empty line"},
        {"TER", "Operation-Name=getStatus\r\n", kProtocol, "does not end with an empty line"},
        {"TE", "Operation-Name getStatus\r\n\r\n", kProtocol,
         "Header line 1 is not of the form name=value"},
        {"TE", "A=b\r\n\r\nC=d\r\n", kProtocol, "text after its closing empty line"},
        {"TE", "A=b\r\nA=c\r\n\r\n", kProtocol, "repeats the header \"A\""},
        // A value "S\r\nInjected=1" splits its line.
        {"TE", "Server-ID=S\r\nInjected=1\r\nService-Name=AvQVLRequest\r\n\r\n", kProtocol,
         "Header line 2 (\"Injected\") is out of order"},
        {"TR", "", kProtocol, "before the header block was ended"},
        {"TEB", "", kProtocol, "before the service asked for it"},
        {"TERBR", "", kProtocol, "before the body was ended"},
        {"TEREB", "", kProtocol, "after the request body had ended"},
        {"TERBERC", "", kProtocol, "before the response was read to its end"},
        {"N", "", kProtocol, "no text"},
        {"n", "", kProtocol, "no buffer"},
        {"L", "", kLimit, "header block is longer than 65536 bytes"},
        {"TERER", "Operation-Name=getstatus\r\nService-Name=AvQVLRequest\r\n\r\n", kProtocol,
         "Unknown \"Operation-Name\" \"getstatus\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.steps) + " " + c.text);
        EXPECT_EQ(play(c.steps, c.text), c.code);
        EXPECT_NE(lastError().find(c.messagePart), std::string::npos) << lastError();
        EXPECT_EQ(echoed("recovered"), "recovered");
    }
    EXPECT_EQ(AvQvl_GetLastError(nullptr), kProtocol);
}

// A client that throws while collecting or converting a response gives the
// exchange up without AvQvl_Complete; its next operation must not pay for that.
TEST_F(TransportTest, ResponseGivenUpMidwayDoesNotSpoilTheNextExchange) {
    for (const char* steps : {"TERER", "TERERR", "TERERRR"}) {
        SCOPED_TRACE(steps);
        play(steps, "Operation-Name=getStatus\r\nService-Name=AvQVLRequest\r\n\r\n");
        EXPECT_EQ(echoed("next one"), "next one");
    }
}

TEST_F(TransportTest, BodyOverTheServiceLimitStopsEarly) {
    ASSERT_EQ(play("TER"), 19);
    const std::string chunk(1024 * 1024, 'b');
    int32_t rc = 1;
    int chunks = 0;
    for (; rc > 0 && chunks < 40; ++chunks) {
        rc = AvQvl_SendNoAck(chunk.c_str());
    }
    EXPECT_EQ(rc, kLimit);
    EXPECT_EQ(chunks, 17);  // 16 MiB fit
    EXPECT_NE(lastError().find("request body is longer than 16777216 bytes"), std::string::npos);
}

TEST_F(TransportTest, ThreadsRunTheirOwnExchangesAndKeepTheirOwnErrors) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 50;
    std::vector<int> good(kThreads, 0);
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string body(5000 + t, static_cast<char>('a' + t));
            for (int r = 0; r < kRounds; ++r) {
                good[t] += echoed(body) == body;
            }
            if (t % 2 == 0) {
                play("R");  // fails on this thread only
            }
            errors[t] = lastError();
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(good[t], kRounds);
        EXPECT_EQ(errors[t].empty(), t % 2 != 0) << errors[t];
    }
}

}  // namespace
