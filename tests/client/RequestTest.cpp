// AvQVLRequest and the transport functions, driven through the test transport.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ClientTestSupport.h"
#include "client/AvQVLRequest.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace ClientTest;

// Interposes ICU's fromUnicode stage so that a test can make one conversion fail.
namespace {
int fromUnicodeFailsIn = 0;  // the n-th call from now fails; 0: none
}

#define CLIENT_TEST_NAME2(x) #x
#define CLIENT_TEST_NAME(x) CLIENT_TEST_NAME2(x)

extern "C" __attribute__((visibility("default"))) void ucnv_fromUnicode(
    UConverter* converter, char** target, const char* targetLimit, const UChar** source,
    const UChar* sourceLimit, int32_t* offsets, UBool flush, UErrorCode* status) {
    using Function = void (*)(UConverter*, char**, const char*, const UChar**, const UChar*,
                              int32_t*, UBool, UErrorCode*);
    static const Function real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, CLIENT_TEST_NAME(ucnv_fromUnicode)));
    real(converter, target, targetLimit, source, sourceLimit, offsets, flush, status);
    if (fromUnicodeFailsIn > 0 && --fromUnicodeFailsIn == 0) {
        *status = U_INVALID_CHAR_FOUND;
    }
}

namespace {

class RequestTest : public TransportTest {
protected:
    void TearDown() override {
        fromUnicodeFailsIn = 0;
        TransportTest::TearDown();
    }

    // Runs one request with the given headers over `body`.
    std::string send(std::istream& body,
                     const std::vector<std::pair<const char*, const char*>>& headers = {
                         {"Name", "value"}}) {
        AvQVLRequest request;
        for (const auto& header : headers) {
            request.addHeader(header.first, header.second);
        }
        request.setRequestStream(&body);
        return request.send();
    }

    std::vector<std::string> sentTexts() {
        std::vector<std::string> texts;
        for (const TransportCall& call : TestTransport::calls()) {
            if (call.function == "AvQvl_SendNoAck") {
                texts.push_back(call.text);
            }
        }
        return texts;
    }
};

TEST_F(RequestTest, HeaderBlockIsSortedByteWiseAndWritesNullAsEmpty) {
    TestTransport::expectExchange("");
    std::istringstream body("b");
    send(body, {{"Log-Correlation-ID", "x"},
                {"Log", "null"},
                {"a", "NULL"},
                {"Z", " null"},
                {"Q", "nullx"},
                {"E", ""},
                {"Log", "second value is dropped"}});
    ASSERT_EQ(TestTransport::headerBlocks().size(), 1u);
    EXPECT_EQ(TestTransport::headerBlocks()[0],
              "E=\r\nLog=\r\nLog-Correlation-ID=x\r\nQ=nullx\r\nZ= null\r\na=NULL\r\n\r\n");
}

TEST_F(RequestTest, NormalExchangeMakesTheDocumentedCallsInOrder) {
    TestTransport::expectExchange("answer");
    std::istringstream body(std::string("body\0", 5));
    EXPECT_EQ(send(body), "answer");
    EXPECT_EQ(TestTransport::functions(),
              (std::vector<std::string>{"AvQvl_SendNoAck", "AvQvl_SendEOF", "AvQvl_Receive",
                                        "AvQvl_SendNoAck", "AvQvl_SendEOF", "AvQvl_Receive",
                                        "AvQvl_Receive", "AvQvl_Receive", "AvQvl_Complete"}));
    EXPECT_EQ(TestTransport::bodies(), (std::vector<std::string>{"body"}));
    EXPECT_TRUE(TestTransport::scriptDone());
}

TEST_F(RequestTest, WithoutStreamNothingIsSent) {
    AvQVLRequest request;
    Thrown thrown = thrownBy([&] { request.send(); });
    EXPECT_EQ(thrown.kind, "AvQVLProtocolException");
    EXPECT_EQ(thrown.message, "Failed to read the request stream.");
    EXPECT_TRUE(TestTransport::calls().empty());
}

TEST_F(RequestTest, HeaderConversionFailureIsReplacedBeforeAnythingIsSent) {
    fromUnicodeFailsIn = 1;
    std::istringstream body("b");
    Thrown thrown = thrownBy([&] { send(body); });
    EXPECT_EQ(thrown.kind, "AvQVLRuntimeException");
    EXPECT_EQ(thrown.type, 0);
    EXPECT_EQ(thrown.message, "Exception occurred while converting to UTF-8 bytes.");
    EXPECT_TRUE(TestTransport::calls().empty());
}

TEST_F(RequestTest, ResponseConversionFailurePassesUnchangedWithoutComplete) {
    TestTransport::pushResult("AvQvl_SendNoAck", 0);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 20);
    TestTransport::pushResponse("r");
    TestTransport::pushResult("AvQvl_Receive", -1);
    fromUnicodeFailsIn = 2;  // the header block, then the response
    std::istringstream body("b");
    Thrown thrown = thrownBy([&] { send(body); });
    EXPECT_EQ(thrown.kind, "AvQVLException");  // Utf8ConversionException
    EXPECT_EQ(thrown.message.rfind("An error occured converting ", 0), 0u);
    EXPECT_EQ(countCalls("AvQvl_Complete"), 0);
}

TEST_F(RequestTest, EmptyStreamSendsNoChunkButStillEndsTheBody) {
    TestTransport::pushResult("AvQvl_SendNoAck", 0);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 19);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 20);
    TestTransport::pushResult("AvQvl_Receive", -1);
    std::istringstream body("");
    EXPECT_EQ(send(body), "");
    EXPECT_EQ(sentTexts().size(), 1u);
    EXPECT_TRUE(TestTransport::scriptDone());
}

TEST_F(RequestTest, ReplyRightAfterHeaderSkipsTheBody) {
    for (int32_t reply : {20, 0}) {
        TestTransport::reset();
        TestTransport::pushResult("AvQvl_SendNoAck", 0);
        TestTransport::pushResult("AvQvl_SendEOF", -5);  // not examined after the header
        TestTransport::pushResult("AvQvl_Receive", reply);
        TestTransport::pushResponse("ok");
        TestTransport::pushResult("AvQvl_Receive", -1);
        std::istringstream body("never read");
        EXPECT_EQ(send(body), "ok") << reply;
        EXPECT_EQ(body.tellg(), 0) << reply;
        EXPECT_EQ(sentTexts().size(), 1u) << reply;
    }
}

TEST_F(RequestTest, SecondBodyRequestFindsTheStreamAtItsEnd) {
    TestTransport::pushResult("AvQvl_SendNoAck", 0);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 19);
    TestTransport::pushResult("AvQvl_SendNoAck", 1);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 19);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 20);
    TestTransport::pushResult("AvQvl_Receive", -1);
    std::istringstream body("once");
    send(body);
    EXPECT_EQ(sentTexts(), (std::vector<std::string>{"Name=value\r\n\r\n", "once"}));
    EXPECT_TRUE(TestTransport::scriptDone());
}

TEST_F(RequestTest, BodyIsCutInto4098ByteChunks) {
    std::string text;
    for (int i = 0; i < 2 * 4098 + 5; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    TestTransport::expectExchange("");
    std::istringstream body(text);
    send(body);
    std::vector<std::string> texts = sentTexts();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[1], text.substr(0, 4098));
    EXPECT_EQ(texts[2], text.substr(4098, 4098));
    EXPECT_EQ(texts[3], text.substr(8196));

    // Exactly one block: the next read finds nothing and ends the loop.
    TestTransport::reset();
    TestTransport::expectExchange("");
    std::istringstream exact(text.substr(0, 4098));
    send(exact);
    EXPECT_EQ(sentTexts().size(), 2u);
}

TEST_F(RequestTest, ZeroFromSendNoAckEndsTheBodyEarly) {
    TestTransport::pushResult("AvQvl_SendNoAck", 0);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 19);
    TestTransport::pushResult("AvQvl_SendNoAck", 0);
    TestTransport::pushResult("AvQvl_SendEOF", 0);
    TestTransport::pushResult("AvQvl_Receive", 20);
    TestTransport::pushResult("AvQvl_Receive", -1);
    std::istringstream body(std::string(3 * 4098, 'x'));
    send(body);
    EXPECT_EQ(sentTexts().size(), 2u);
}

TEST_F(RequestTest, ChunksReachTheTransportUpToTheirFirstNul) {
    TestTransport::expectExchange("");
    std::istringstream body(std::string("ab\0cd", 5));
    send(body);
    EXPECT_EQ(TestTransport::bodies(), (std::vector<std::string>{"ab"}));
}

TEST_F(RequestTest, ResponsesAcrossBufferGrowthArriveWhole) {
    for (size_t size : {size_t(0), size_t(16384), size_t(16385), size_t(3 * 16384 + 1)}) {
        std::string response;
        for (size_t i = 0; i < size; ++i) {
            response += static_cast<char>('A' + i % 23);
        }
        TestTransport::reset();
        TestTransport::expectExchange(response);
        std::istringstream body("b");
        EXPECT_EQ(send(body), response) << size;
        EXPECT_EQ(countCalls("AvQvl_Complete"), 1) << size;
    }
}

TEST_F(RequestTest, EmptyPiecesAppendNothing) {
    scriptHandshake();
    TestTransport::pushResponse("a");
    TestTransport::pushResponse("");
    TestTransport::pushResponse("b");
    TestTransport::pushResult("AvQvl_Receive", -1);
    std::istringstream body("b");
    EXPECT_EQ(send(body), "ab");
}

TEST_F(RequestTest, ResponseBeyond32BitsIsRefusedBeforeOverflow) {
    scriptHandshake();
    TestTransport::pushResponse("a");
    TestTransport::pushResult("AvQvl_Receive", std::numeric_limits<int32_t>::max());
    std::istringstream body("b");
    Thrown thrown = thrownBy([&] { send(body); });
    EXPECT_EQ(thrown.kind, "AvQVLRuntimeException");
    EXPECT_EQ(thrown.message, "Response exceeds the maximum size of 2147483647 bytes");
    EXPECT_EQ(countCalls("AvQvl_Complete"), 0);
}

TEST_F(RequestTest, PieceLargerThanTheReceiveBufferIsRefused) {
    scriptHandshake();
    TestTransport::pushResult("AvQvl_Receive", 16385);
    std::istringstream body("b");
    Thrown thrown = thrownBy([&] { send(body); });
    EXPECT_EQ(thrown.kind, "AvQVLProtocolException");
    EXPECT_NE(thrown.message.find("16385"), std::string::npos);
}

// Where a failure code arrives, and which calls follow it.
struct FailurePoint {
    const char* name;
    std::vector<std::pair<const char*, int32_t>> script;
};

TEST_F(RequestTest, FailureCodesAnywhereEndTheExchangeWithoutComplete) {
    const std::vector<FailurePoint> points = {
        {"header", {{"AvQvl_SendNoAck", -3001}}},
        {"first reply", {{"AvQvl_SendNoAck", 0}, {"AvQvl_SendEOF", 0}, {"AvQvl_Receive", -3001}}},
        {"first reply -1", {{"AvQvl_SendNoAck", 0}, {"AvQvl_SendEOF", 0}, {"AvQvl_Receive", -1}}},
        {"body chunk",
         {{"AvQvl_SendNoAck", 0},
          {"AvQvl_SendEOF", 0},
          {"AvQvl_Receive", 19},
          {"AvQvl_SendNoAck", -3001}}},
        {"end of body",
         {{"AvQvl_SendNoAck", 0},
          {"AvQvl_SendEOF", 0},
          {"AvQvl_Receive", 19},
          {"AvQvl_SendNoAck", 1},
          {"AvQvl_SendEOF", -3001}}},
        {"response",
         {{"AvQvl_SendNoAck", 0},
          {"AvQvl_SendEOF", 0},
          {"AvQvl_Receive", 0},
          {"AvQvl_Receive", -3001}}},
    };
    for (const FailurePoint& point : points) {
        TestTransport::reset();
        TestTransport::setLastError("went wrong", 0);
        for (const auto& entry : point.script) {
            TestTransport::pushResult(entry.first, entry.second);
        }
        std::istringstream body("b");
        Thrown thrown = thrownBy([&] { send(body); });
        EXPECT_EQ(thrown.kind, point.script.back().second == -1 ? "AvQVLUnrecognisedException"
                                                                : "AvQVLConnectionException")
            << point.name;
        EXPECT_EQ(thrown.message, "went wrong") << point.name;
        EXPECT_TRUE(TestTransport::scriptDone()) << point.name;
        EXPECT_EQ(countCalls("AvQvl_Complete"), 0) << point.name;
    }
}

TEST_F(RequestTest, UnknownPositiveReplyEndsTheExchange) {
    // After the header block, and after the body.
    for (bool afterBody : {false, true}) {
        TestTransport::reset();
        TestTransport::setLastError("odd reply", 0);
        TestTransport::pushResult("AvQvl_SendNoAck", 0);
        TestTransport::pushResult("AvQvl_SendEOF", 0);
        if (afterBody) {
            TestTransport::pushResult("AvQvl_Receive", 19);
            TestTransport::pushResult("AvQvl_SendNoAck", 1);
            TestTransport::pushResult("AvQvl_SendEOF", 0);
        }
        TestTransport::pushResult("AvQvl_Receive", 21);
        std::istringstream body("b");
        Thrown thrown = thrownBy([&] { send(body); });
        EXPECT_EQ(thrown.kind, "AvQVLUnrecognisedException") << afterBody;
        EXPECT_EQ(thrown.message, "odd reply") << afterBody;
        EXPECT_TRUE(TestTransport::scriptDone()) << afterBody;
    }
}

TEST(TransportErrorTest, EveryCodeSelectsItsClassWithTypeZero) {
    const std::map<int32_t, std::string> table = {
        {-3099, "AvQVLProtocolException"},     {-3017, "AvQVLProtocolException"},
        {-751, "AvQVLProtocolException"},      {1002, "AvQVLProtocolException"},
        {-3016, "AvQVLRuntimeException"},      {-3010, "AvQVLRuntimeException"},
        {-3009, "AvQVLRuntimeException"},      {1003, "AvQVLRuntimeException"},
        {-3001, "AvQVLConnectionException"},   {-2999, "AvQVLConnectionException"},
        {-2998, "AvQVLConnectionException"},   {-2997, "AvQVLConnectionException"},
        {-2996, "AvQVLConnectionException"},   {1001, "AvQVLConnectionException"},
        {-3002, "AvQVLUnrecognisedException"}, {-1000, "AvQVLUnrecognisedException"},
        {7, "AvQVLUnrecognisedException"},
    };
    for (const auto& row : table) {
        // Through AvQvl_Init, whose every non-zero result is a failure code.
        TestTransport::reset();
        TestTransport::setLastError("transport says no", 0);
        TestTransport::pushResult("AvQvl_Init", row.first);
        Thrown thrown = thrownBy([] { initTransport(); });
        EXPECT_EQ(thrown.kind, row.second) << row.first;
        EXPECT_EQ(thrown.type, 0) << row.first;
        EXPECT_EQ(thrown.message, "transport says no") << row.first;
    }
}

TEST(TransportErrorTest, LastErrorVariants) {
    struct Row {
        const char* message;
        int32_t result;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {"text", 0, "text"},
        {nullptr, 0, "No error message received"},
        {nullptr, 3, "Could not retrieve last error message."},
        {"text", 3, ""},
    };
    for (const Row& row : rows) {
        TestTransport::reset();
        TestTransport::setLastError(row.message, row.result);
        EXPECT_EQ(getLastTransportError(), row.expected) << row.result;
        EXPECT_EQ(thrownBy([] { throwTransportError(-3099); }).message, row.expected);
    }
}

TEST(TransportErrorTest, InitHandsOverTheRuntimeAllocatorAndTermFailsOnlyBelowZero) {
    TestTransport::reset();
    initTransport();
    ASSERT_EQ(TestTransport::calls().size(), 1u);
    EXPECT_EQ(TestTransport::calls()[0].text, "malloc,free");

    TestTransport::pushResult("AvQvl_Term", 5);
    EXPECT_NO_THROW(termTransport());
    TestTransport::pushResult("AvQvl_Term", -2997);
    EXPECT_EQ(thrownBy([] { termTransport(); }).kind, "AvQVLConnectionException");
}

TEST(TransportErrorTest, UnscriptedCallFailsWithAMessageNamingIt) {
    TestTransport::reset();
    std::istringstream body("b");
    AvQVLRequest request;
    request.setRequestStream(&body);
    Thrown thrown = thrownBy([&] { request.send(); });
    EXPECT_EQ(thrown.kind, "AvQVLUnrecognisedException");
    EXPECT_EQ(thrown.message, "test transport: no scripted result for AvQvl_SendNoAck");
}

}  // namespace
