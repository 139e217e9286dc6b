// AvQVLRequest and the transport functions, driven through the test transport.
#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ClientTestSupport.h"
#include "client/AvQVLRequest.h"
#include "text/IcuHooks.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace ClientTest;
using Strings = std::vector<std::string>;

namespace {

const char* const kHeader = "Name=value\r\n\r\n";

class RequestTest : public TransportTest {
protected:
    void TearDown() override {
        IcuHooks::reset();  // drops the conversion failures a test injected
        IcuHooks::setDefaultConverter(nullptr);
        TransportTest::TearDown();
    }

    // Under UTF-8, well-formed text is copied without ICU's conversion calls;
    // a single-byte code page sends every text through them, where a failure
    // can be injected.
    void injectFromUnicode(int call) {
        IcuHooks::setDefaultConverter("ISO-8859-1");
        IcuHooks::reset();
        IcuHooks::injectFromUnicode(call, U_INVALID_CHAR_FOUND);
    }

    // Runs one request with the given headers over `text`.
    std::string send(const std::string& text,
                     const std::vector<std::pair<const char*, const char*>>& headers = {
                         {"Name", "value"}}) {
        std::istringstream body(text);
        AvQVLRequest request;
        for (const auto& header : headers) {
            request.addHeader(header.first, header.second);
        }
        request.setRequestStream(&body);
        return request.send();
    }
};

TEST_F(RequestTest, HeaderBlockIsSortedByteWiseAndWritesNullAsEmpty) {
    TestTransport::expectExchange("");
    send("b", {{"Log-Correlation-ID", "x"},
               {"Log", "null"},
               {"a", "NULL"},
               {"Z", " null"},
               {"Q", "nullx"},
               {"E", ""},
               {"Log", "second value is dropped"}});
    EXPECT_EQ(
        TestTransport::headerBlocks(),
        Strings{"E=\r\nLog=\r\nLog-Correlation-ID=x\r\nQ=nullx\r\nZ= null\r\na=NULL\r\n\r\n"});
}

TEST_F(RequestTest, NormalExchangeMakesTheDocumentedCallsAndCutsChunksAtANul) {
    TestTransport::expectExchange("answer");
    EXPECT_EQ(send(std::string("ab\0cd", 5)), "answer");
    EXPECT_EQ(TestTransport::functions(), (Strings{kSend, kEof, kReceive, kSend, kEof, kReceive,
                                                   kReceive, kReceive, "AvQvl_Complete"}));
    EXPECT_EQ(TestTransport::bodies(), Strings{"ab"});
    EXPECT_TRUE(TestTransport::scriptDone());
}

TEST_F(RequestTest, FailuresBeforeAnythingIsSent) {
    AvQVLRequest request;  // no stream
    Thrown thrown = thrownBy([&] { request.send(); });
    EXPECT_EQ(thrown.kind, "AvQVLProtocolException");
    EXPECT_EQ(thrown.message, "Failed to read the request stream.");

    injectFromUnicode(1);  // the header block's conversion
    thrown = thrownBy([&] { send("b"); });
    EXPECT_EQ(thrown.kind, "AvQVLRuntimeException");
    EXPECT_EQ(thrown.type, 0);
    EXPECT_EQ(thrown.message, "Exception occurred while converting to UTF-8 bytes.");
    EXPECT_TRUE(TestTransport::calls().empty());
}

TEST_F(RequestTest, ResponseConversionFailurePassesUnchangedWithoutComplete) {
    script({{kSend, 0}, {kEof, 0}, {kReceive, 20}});
    TestTransport::pushResponse("r");
    TestTransport::pushResult(kReceive, -1);
    injectFromUnicode(2);  // the header block, then the response
    Thrown thrown = thrownBy([&] { send("b"); });
    EXPECT_EQ(thrown.kind, "AvQVLException");  // Utf8ConversionException
    EXPECT_EQ(thrown.message.rfind("An error occured converting ", 0), 0u);
    EXPECT_EQ(countCalls("AvQvl_Complete"), 0);
}

TEST_F(RequestTest, HandshakeVariants) {
    struct Row {
        const char* name;
        Steps steps;
        std::string body;
        Strings sent;  // after the header block
    };
    const std::string big(3 * 4098, 'x');
    const Row rows[] = {
        // The SendEOF result is not examined after the header block.
        {"20 after header", {{kSend, 0}, {kEof, -5}, {kReceive, 20}}, "never read", {}},
        {"0 after header", {{kSend, 0}, {kEof, -5}, {kReceive, 0}}, "never read", {}},
        {"empty stream",
         {{kSend, 0}, {kEof, 0}, {kReceive, 19}, {kEof, 0}, {kReceive, 20}},
         "",
         {}},
        {"19 twice",
         {{kSend, 0},
          {kEof, 0},
          {kReceive, 19},
          {kSend, 1},
          {kEof, 0},
          {kReceive, 19},
          {kEof, 0},
          {kReceive, 20}},
         "once",
         {"once"}},
        {"0 from SendNoAck ends the body",
         {{kSend, 0}, {kEof, 0}, {kReceive, 19}, {kSend, 0}, {kEof, 0}, {kReceive, 20}},
         big,
         {big.substr(0, 4098)}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TestTransport::reset();
        script(row.steps);
        TestTransport::pushResponse("ok");
        TestTransport::pushResult(kReceive, -1);
        EXPECT_EQ(send(row.body), "ok");
        Strings sent = {kHeader};
        sent.insert(sent.end(), row.sent.begin(), row.sent.end());
        EXPECT_EQ(sentTexts(), sent);
        EXPECT_TRUE(TestTransport::scriptDone());
    }
}

TEST_F(RequestTest, BodyIsCutInto4098ByteChunks) {
    std::string text;
    for (int i = 0; i < 2 * 4098 + 5; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    TestTransport::expectExchange("");
    send(text);
    EXPECT_EQ(sentTexts(),
              (Strings{kHeader, text.substr(0, 4098), text.substr(4098, 4098), text.substr(8196)}));

    // Exactly one block: the next read finds nothing and ends the loop.
    TestTransport::reset();
    TestTransport::expectExchange("");
    send(text.substr(0, 4098));
    EXPECT_EQ(sentTexts().size(), 2u);
}

TEST_F(RequestTest, ResponsesAcrossBufferGrowthArriveWhole) {
    for (size_t size : {size_t(0), size_t(16384), size_t(16385), size_t(3 * 16384 + 1)}) {
        std::string response;
        for (size_t i = 0; i < size; ++i) {
            response += static_cast<char>('A' + i % 23);
        }
        TestTransport::reset();
        TestTransport::expectExchange(response);
        EXPECT_EQ(send("b"), response) << size;
        EXPECT_EQ(countCalls("AvQvl_Complete"), 1) << size;
    }
    // Empty pieces append nothing.
    TestTransport::reset();
    scriptHandshake();
    for (const char* piece : {"a", "", "b"}) {
        TestTransport::pushResponse(piece);
    }
    TestTransport::pushResult(kReceive, -1);
    EXPECT_EQ(send("b"), "ab");
}

TEST_F(RequestTest, OversizedResponsesAreRefusedBeforeOverflow) {
    const std::pair<int32_t, const char*> rows[] = {
        {std::numeric_limits<int32_t>::max(),
         "Response exceeds the maximum size of 2147483647 bytes"},
        {16385, "16385"}};  // a piece beyond the receive buffer
    for (const auto& row : rows) {
        TestTransport::reset();
        scriptHandshake();
        TestTransport::pushResponse("a");
        TestTransport::pushResult(kReceive, row.first);
        Thrown thrown = thrownBy([&] { send("b"); });
        EXPECT_EQ(thrown.kind,
                  row.first == 16385 ? "AvQVLProtocolException" : "AvQVLRuntimeException");
        EXPECT_NE(thrown.message.find(row.second), std::string::npos) << thrown.message;
        EXPECT_EQ(countCalls("AvQvl_Complete"), 0);
    }
}

TEST_F(RequestTest, FailuresAnywhereEndTheExchangeWithoutComplete) {
    const std::string connection = "AvQVLConnectionException";
    const std::string unrecognised = "AvQVLUnrecognisedException";
    struct Row {
        Steps steps;
        std::string kind;
    };
    const Row rows[] = {
        {{{kSend, -3001}}, connection},
        {{{kSend, 0}, {kEof, 0}, {kReceive, -3001}}, connection},
        {{{kSend, 0}, {kEof, 0}, {kReceive, -1}}, unrecognised},
        {{{kSend, 0}, {kEof, 0}, {kReceive, 19}, {kSend, -3001}}, connection},
        {{{kSend, 0}, {kEof, 0}, {kReceive, 19}, {kSend, 1}, {kEof, -3001}}, connection},
        {{{kSend, 0}, {kEof, 0}, {kReceive, 0}, {kReceive, -3001}}, connection},
        // A positive reply other than 19 or 20, after the header block and after the body.
        {{{kSend, 0}, {kEof, 0}, {kReceive, 21}}, unrecognised},
        {{{kSend, 0}, {kEof, 0}, {kReceive, 19}, {kSend, 1}, {kEof, 0}, {kReceive, 21}},
         unrecognised},
        {{}, unrecognised},  // unscripted: the test transport names the call
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.steps));
        TestTransport::reset();
        TestTransport::setLastError("went wrong", 0);
        script(row.steps);
        Thrown thrown = thrownBy([&] { send("b"); });
        EXPECT_EQ(thrown.kind, row.kind);
        EXPECT_EQ(thrown.message, row.steps.empty()
                                      ? "test transport: no scripted result for AvQvl_SendNoAck"
                                      : "went wrong");
        EXPECT_TRUE(TestTransport::scriptDone());
        EXPECT_EQ(countCalls("AvQvl_Complete"), 0);
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
    const Row rows[] = {{"text", 0, "text"},
                        {nullptr, 0, "No error message received"},
                        {nullptr, 3, "Could not retrieve last error message."},
                        {"text", 3, ""}};
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

}  // namespace
