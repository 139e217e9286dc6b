// Drives the eight AvQvl_ functions of the transport library directly, as a
// client would, against the embedded service.
#include "transport/AvQvlBinding.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int32_t kProtocol = -3017;
constexpr int32_t kLimit = -3016;
constexpr int32_t kNotStarted = -2999;
constexpr std::size_t kPiece = 16384;

std::string lastError() {
    char* message = nullptr;
    EXPECT_EQ(AvQvl_GetLastError(&message), 0);
    return message == nullptr ? std::string("<null>") : std::string(message);
}

std::string headerBlock(const std::string& operation, const std::string& server = "",
                        const std::string& client = "") {
    std::string block;
    if (!client.empty()) {
        block += "Client-ID=" + client + "\r\n";
    }
    block += "Log-Correlation-ID=test\r\nOperation-Name=" + operation + "\r\n";
    if (!server.empty()) {
        block += "Server-ID=" + server + "\r\n";
    }
    return block + "Service-Name=AvQVLRequest\r\n\r\n";
}

// One whole exchange; the response, or the first failure code as "#code".
std::string runExchange(const std::string& headers, const std::string& body) {
    if (AvQvl_SendNoAck(headers.c_str()) < 0) {
        return "#send";
    }
    AvQvl_SendEOF();
    int32_t rc = AvQvl_Receive(std::vector<char>(kPiece).data());
    if (rc == 19) {
        for (std::size_t at = 0; at < body.size(); at += 4098) {
            if (AvQvl_SendNoAck(body.substr(at, 4098).c_str()) <= 0) {
                return "#body";
            }
        }
        if (AvQvl_SendEOF() < 0) {
            return "#eof";
        }
        rc = AvQvl_Receive(std::vector<char>(kPiece).data());
    }
    if (rc != 20) {
        return "#" + std::to_string(rc);
    }
    std::string response;
    std::vector<char> buffer(kPiece);
    for (int n; (n = AvQvl_Receive(buffer.data())) != -1;) {
        if (n < 0) {
            return "#" + std::to_string(n);
        }
        response.append(buffer.data(), n);
    }
    EXPECT_EQ(AvQvl_Complete(), 0);
    return response;
}

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(AvQvl_Init(std::malloc, std::free), 0); }
    void TearDown() override {
        EXPECT_EQ(runExchange(headerBlock("getStatus"), "still fine"), "still fine");
        EXPECT_EQ(AvQvl_Term(), 0);
    }
};

TEST(TransportStartTest, CallsBeforeInitFailAndInitIsCounted) {
    std::vector<char> buffer(kPiece);
    const std::vector<std::pair<const char*, std::function<int32_t()>>> calls = {
        {"AvQvl_SendNoAck", [] { return AvQvl_SendNoAck("x"); }},
        {"AvQvl_Send", [] { return AvQvl_Send("x"); }},
        {"AvQvl_SendEOF", [] { return AvQvl_SendEOF(); }},
        {"AvQvl_Receive", [&] { return AvQvl_Receive(buffer.data()); }},
        {"AvQvl_Complete", [] { return AvQvl_Complete(); }},
        {"AvQvl_Term", [] { return AvQvl_Term(); }},
    };
    for (const auto& call : calls) {
        EXPECT_EQ(call.second(), kNotStarted) << call.first;
        EXPECT_NE(lastError().find(std::string(call.first) + " was called while the Quorvel "
                                                             "transport is not started"),
                  std::string::npos)
            << lastError();
    }
    ASSERT_EQ(AvQvl_Init(std::malloc, std::free), 0);
    ASSERT_EQ(AvQvl_Init(nullptr, nullptr), 0);
    EXPECT_EQ(AvQvl_Term(), 0);
    EXPECT_EQ(runExchange(headerBlock("getStatus"), "one left"), "one left");
    EXPECT_EQ(AvQvl_Term(), 0);
    EXPECT_EQ(AvQvl_Term(), kNotStarted);
    EXPECT_EQ(AvQvl_SendNoAck(headerBlock("getStatus").c_str()), kNotStarted);
}

TEST_F(TransportTest, StatusEchoStepByStep) {
    std::vector<char> buffer(kPiece);
    EXPECT_GE(AvQvl_SendNoAck(headerBlock("getStatus").c_str()), 0);
    EXPECT_EQ(AvQvl_SendEOF(), 0);
    EXPECT_EQ(AvQvl_Receive(buffer.data()), 19);
    EXPECT_GT(AvQvl_SendNoAck("AvQVL Status"), 0);
    EXPECT_GT(AvQvl_SendNoAck(" check"), 0);
    EXPECT_EQ(AvQvl_SendEOF(), 0);
    EXPECT_EQ(AvQvl_Receive(buffer.data()), 20);
    ASSERT_EQ(AvQvl_Receive(buffer.data()), 18);
    EXPECT_EQ(std::string(buffer.data(), 18), "AvQVL Status check");
    EXPECT_EQ(AvQvl_Receive(buffer.data()), -1);
    EXPECT_EQ(AvQvl_Complete(), 0);
}

TEST_F(TransportTest, EmptyBodyAndEmptyResponse) {
    std::vector<char> buffer(kPiece);
    AvQvl_SendNoAck(headerBlock("getStatus").c_str());
    AvQvl_SendEOF();
    EXPECT_EQ(AvQvl_Receive(buffer.data()), 19);
    EXPECT_EQ(AvQvl_SendEOF(), 0);
    EXPECT_EQ(AvQvl_Receive(buffer.data()), 20);
    EXPECT_EQ(AvQvl_Receive(buffer.data()), -1);
    EXPECT_EQ(AvQvl_Complete(), 0);
}

TEST_F(TransportTest, LargeResponseComesInPiecesOfAtMost16384Bytes) {
    std::string body;
    for (int i = 0; body.size() < 2 * kPiece + 1000; ++i) {
        body += std::to_string(i) + ",";
    }
    AvQvl_SendNoAck(headerBlock("getStatus").c_str());
    AvQvl_SendEOF();
    std::vector<char> buffer(kPiece + 64, '#');
    ASSERT_EQ(AvQvl_Receive(buffer.data()), 19);
    for (std::size_t at = 0; at < body.size(); at += 4098) {
        ASSERT_GT(AvQvl_SendNoAck(body.substr(at, 4098).c_str()), 0);
    }
    AvQvl_SendEOF();
    ASSERT_EQ(AvQvl_Receive(buffer.data()), 20);
    std::string response;
    std::vector<int32_t> sizes;
    for (int32_t n; (n = AvQvl_Receive(buffer.data())) != -1 && sizes.size() < 10;) {
        ASSERT_GE(n, 0);
        sizes.push_back(n);
        response.append(buffer.data(), n);
        EXPECT_EQ(std::string(buffer.data() + kPiece, 64), std::string(64, '#'));
    }
    EXPECT_EQ(sizes,
              (std::vector<int32_t>{16384, 16384, static_cast<int32_t>(body.size() - 2 * kPiece)}));
    EXPECT_EQ(response, body);
    EXPECT_EQ(AvQvl_Complete(), 0);
}

// Each case drives a misuse; the last call fails with the code and a message
// holding the text. TearDown then checks that a fresh exchange still works.
TEST_F(TransportTest, MisuseFailsWithCodeAndMessage) {
    std::vector<char> buffer(kPiece);
    char* const out = buffer.data();
    const std::string status = headerBlock("getStatus");
    struct Case {
        const char* label;
        std::function<int32_t()> misuse;
        int32_t code;
        const char* messagePart;
    };
    const std::vector<Case> cases = {
        {"receive without exchange", [&] { return AvQvl_Receive(out); }, kProtocol,
         "no exchange open"},
        {"eof without exchange", [] { return AvQvl_SendEOF(); }, kProtocol, "no exchange open"},
        {"complete without exchange", [] { return AvQvl_Complete(); }, kProtocol,
         "no exchange open"},
        {"no final empty line",
         [] {
             AvQvl_SendNoAck("Operation-Name=getStatus\r\nService-Name=AvQVLRequest\r\n");
             return AvQvl_SendEOF();
         },
         kProtocol, "does not end with an empty line"},
        {"failure reported again by the next receive",
         [&] {
             AvQvl_SendNoAck("Operation-Name=getStatus\r\n");
             AvQvl_SendEOF();
             return AvQvl_Receive(out);
         },
         kProtocol, "does not end with an empty line"},
        {"line without equals",
         [] {
             AvQvl_SendNoAck("Operation-Name getStatus\r\n\r\n");
             return AvQvl_SendEOF();
         },
         kProtocol, "Header line 1 is not of the form name=value"},
        {"text after the empty line",
         [] {
             AvQvl_SendNoAck("A=b\r\n\r\nC=d\r\n");
             return AvQvl_SendEOF();
         },
         kProtocol, "text after its closing empty line"},
        {"repeated header",
         [] {
             AvQvl_SendNoAck("A=b\r\nA=c\r\n\r\n");
             return AvQvl_SendEOF();
         },
         kProtocol, "repeats the header \"A\""},
        {"receive before header eof",
         [&] {
             AvQvl_SendNoAck(status.c_str());
             return AvQvl_Receive(out);
         },
         kProtocol, "before the header block was ended"},
        {"body before it was asked for",
         [&] {
             AvQvl_SendNoAck(status.c_str());
             AvQvl_SendEOF();
             return AvQvl_SendNoAck("body");
         },
         kProtocol, "before the service asked for it"},
        {"receive before body eof",
         [&] {
             AvQvl_SendNoAck(status.c_str());
             AvQvl_SendEOF();
             AvQvl_Receive(out);
             AvQvl_SendNoAck("body");
             return AvQvl_Receive(out);
         },
         kProtocol, "before the body was ended"},
        {"send after body ended",
         [&] {
             AvQvl_SendNoAck(status.c_str());
             AvQvl_SendEOF();
             AvQvl_Receive(out);
             AvQvl_SendEOF();
             return AvQvl_SendNoAck("late");
         },
         kProtocol, "after the request body had ended"},
        {"complete before response read",
         [&] {
             AvQvl_SendNoAck(status.c_str());
             AvQvl_SendEOF();
             AvQvl_Receive(out);
             AvQvl_SendNoAck("x");
             AvQvl_SendEOF();
             AvQvl_Receive(out);
             return AvQvl_Complete();
         },
         kProtocol, "before the response was read to its end"},
        {"null text", [] { return AvQvl_SendNoAck(nullptr); }, kProtocol, "no text"},
        {"null buffer", [] { return AvQvl_Receive(nullptr); }, kProtocol, "no buffer"},
        {"header block too long",
         [] {
             const std::string line = "X=" + std::string(1000, 'x') + "\r\n";
             int32_t rc = 0;
             for (int i = 0; i < 100 && rc >= 0; ++i) {
                 rc = AvQvl_SendNoAck(line.c_str());
             }
             return rc;
         },
         kLimit, "header block is longer than 65536 bytes"},
        {"engine refusal",
         [&] {
             AvQvl_SendNoAck(headerBlock("getstatus").c_str());
             AvQvl_SendEOF();
             AvQvl_Receive(out);
             AvQvl_SendEOF();
             return AvQvl_Receive(out);
         },
         kProtocol, "Unknown \"Operation-Name\" \"getstatus\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(c.misuse(), c.code);
        EXPECT_NE(lastError().find(c.messagePart), std::string::npos) << lastError();
        EXPECT_EQ(runExchange(status, "recovered"), "recovered");
    }
    EXPECT_EQ(AvQvl_GetLastError(nullptr), kProtocol);
}

TEST_F(TransportTest, BodyOverTheServiceLimitStopsEarly) {
    std::vector<char> buffer(kPiece);
    AvQvl_SendNoAck(headerBlock("getStatus").c_str());
    AvQvl_SendEOF();
    ASSERT_EQ(AvQvl_Receive(buffer.data()), 19);
    const std::string chunk(1024 * 1024, 'b');
    int32_t rc = 1;
    int chunks = 0;
    while (rc > 0 && chunks < 40) {
        rc = AvQvl_SendNoAck(chunk.c_str());
        ++chunks;
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
                good[t] += runExchange(headerBlock("getStatus"), body) == body;
            }
            std::vector<char> buffer(kPiece);
            if (t % 2 == 0) {
                AvQvl_Receive(buffer.data());  // fails on this thread only
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
