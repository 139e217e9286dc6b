// AvQVLRequest and the transport functions, driven through the test transport.
#include <gtest/gtest.h>
#include <unicode/ustring.h>

#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "ClientTestSupport.h"
#include "client/AvQVLRequest.h"
#include "text/IcuHooks.h"
#include "util/Utf8.h"

using namespace Arvant::Net::AvQuorvel::Client;
using namespace ClientTest;
using Arvant::Net::AvQuorvel::Util::toUtf8;

namespace {

// Sent sorted byte-wise; the first value of a name wins, and a value that is
// exactly "null" goes out empty.
const char* const kNames[] = {"Log-Correlation-ID", "Log", "a", "Z", "Q", "E", "Log"};
const char* const kValues[] = {"x", "null", "NULL", " null", "nullx", "", "dropped"};
const char* const kHeader =
    "E=\r\nLog=\r\nLog-Correlation-ID=x\r\nQ=nullx\r\nZ= null\r\na=NULL\r\n\r\n";

using RequestTest = TransportTest;

std::string send(const std::string& text) {
    std::istringstream body(text);
    AvQVLRequest request;
    for (int i = 0; i < 7; ++i) {
        request.addHeader(kNames[i], kValues[i]);
    }
    request.setRequestStream(&body);
    return request.send();
}

// Each row scripts the exchange up to the response "ok"; every scripted call
// must happen in order and no other, so the rows pin the call sequence. An
// empty piece of the response ("P") appends nothing.
TEST_F(RequestTest, HandshakeVariants) {
    const std::string big = pattern(3 * 4098), two = pattern(2 * 4098 + 5);
    const struct {
        const char* steps;
        std::string body;
        Strings chunks;
    } rows[] = {
        {"S0 E0 R19 S1 E0 R20 P", std::string("ab\0cd", 5), {"ab"}},  // cut at the NUL byte
        {"S0 E0 R19 S1 S1 S1 E0 R20",
         two,
         {two.substr(0, 4098), two.substr(4098, 4098), two.substr(8196)}},
        {"S0 E-5 R20", "never read", {}},  // the header block's SendEOF is not examined
        {"S0 E0 R19 E0 R20", "", {}},      // empty stream: no chunk, still EOF and receive
        {"S0 E0 R19 S1 E0 R19 E0 R20", "once", {"once"}},     // 19 twice: the stream is at its end
        {"S0 E0 R19 S0 E0 R20", big, {big.substr(0, 4098)}},  // 0 from SendNoAck ends the body
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.steps);
        TestTransport::reset();
        script(row.steps + std::string(" Pok R-1"));
        EXPECT_EQ(send(row.body), "ok");
        Strings sent = {kHeader};
        sent.insert(sent.end(), row.chunks.begin(), row.chunks.end());
        EXPECT_EQ(sentTexts(), sent);
        EXPECT_TRUE(TestTransport::scriptDone());
        EXPECT_EQ(countCalls("AvQvl_Complete"), 1);
    }
}

// A block never ends inside a character: one that straddles a cut goes whole
// into the next chunk, so every chunk is valid UTF-8 on its own and the chunks
// together are the text. UTF-8 is checked by its own rule, Shift_JIS (two-byte
// characters) and UTF-16LE (a surrogate pair) through the converter.
TEST_F(RequestTest, ChunksNeverSplitACharacter) {
    const struct {
        const char* codePage;
        std::string filler, character;  // the filler is one byte in the code page
    } rows[] = {
        {nullptr, "a", "\xF0\x9F\x98\x80"},
        {"Shift_JIS", "a", "\x82\xA0"},
        {"UTF-16LE", std::string("a\0", 2), "\x3D\xD8\x00\xDE"},
    };
    for (const auto& row : rows) {
        IcuHooks::setDefaultConverter(row.codePage);
        const std::size_t unit = row.filler.size();
        for (std::size_t inside = unit; inside < row.character.size(); inside += unit) {
            SCOPED_TRACE(std::to_string(inside));
            std::string text;
            while (text.size() < 4098 - inside) {
                text += row.filler;
            }
            text += row.character + row.filler + row.character;
            TestTransport::reset();
            TestTransport::expectExchange("ok");
            ASSERT_EQ(send(text), "ok");
            const Strings sent = sentTexts();
            ASSERT_EQ(sent.size(), 3u);
            for (std::size_t i = 1; i < sent.size(); ++i) {
                UErrorCode status = U_ZERO_ERROR;
                u_strFromUTF8(nullptr, 0, nullptr, sent[i].data(),
                              static_cast<int32_t>(sent[i].size()), &status);
                EXPECT_EQ(status, U_BUFFER_OVERFLOW_ERROR) << "chunk " << i;
            }
            EXPECT_EQ(sent[1] + sent[2], toUtf8(text.data(), static_cast<int32_t>(text.size())));
            if (unit == 1) {  // cut right before the character
                EXPECT_EQ(sent[1].size(), 4098 - inside);
            }
        }
    }
    IcuHooks::setDefaultConverter(nullptr);
}

// Malformed UTF-8 becomes one U+FFFD per malformed sequence (ICU's default
// substitution), and a NUL byte ends the text the conversion delivers.
TEST_F(RequestTest, ResponsesArriveWholeAndConverted) {
    const std::string big = pattern(3 * 16384 + 1), fffd = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> rows[] = {
        {big, big},
        {"a\xFFz", "a" + fffd + "z"},
        {std::string("ab\0cd", 5), "ab"},
    };
    for (const auto& row : rows) {
        TestTransport::reset();
        TestTransport::expectExchange(row.first);  // in pieces of at most 16384 bytes
        EXPECT_EQ(send("b"), row.second) << row.first.size();
        EXPECT_EQ(countCalls("AvQvl_Complete"), 1);
    }
}

TEST_F(RequestTest, FailuresEndTheExchangeWithoutComplete) {
    const std::string went = "(0): No error message received";  // no last error is set
    // An endless response: the collection buffer really grows to the 32-bit limit
    // (about 3 GiB allocated and copied once), 16384 bytes a piece, and ends one byte past.
    std::string endless = kHandshake;
    for (int i = 0; i < 131072; ++i) {
        endless += "R16384 ";
    }
    const struct {
        std::string steps, thrown;    // the thrown text is a prefix
        int failFromUnicodeCall = 0;  // under a single-byte code page
    } rows[] = {
        {"S-3001", "AvQVLConnectionException" + went},
        {"S0 E0 R-1", "AvQVLUnrecognisedException" + went},  // -1 is a failure code here
        {"S0 E0 R19 S-3099", "AvQVLProtocolException" + went},
        {"S0 E0 R19 S1 E-3001", "AvQVLConnectionException" + went},
        {"S0 E0 R0 R-3010", "AvQVLRuntimeException" + went},
        // A positive reply other than 19 or 20.
        {"S0 E0 R19 S1 E0 R21", "AvQVLUnrecognisedException" + went},
        // Refused before the 32-bit length overflows, and a piece the buffer cannot hold.
        {kHandshake + std::string("Pa R2147483647"),
         "AvQVLRuntimeException(0): Response exceeds the maximum size of 2147483647 bytes"},
        {endless, "AvQVLRuntimeException(0): Response exceeds the maximum size"},
        {kHandshake + std::string("R16385"),
         "AvQVLProtocolException(0): The transport delivered 16385 bytes in one piece; at most "
         "16384 fit"},
        {"", "AvQVLRuntimeException(0): Exception occurred while converting to UTF-8 bytes.", 1},
        {"S0 E0 R20 Pr R-1", "Utf8ConversionException(0): An error occured converting ", 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.steps.substr(0, 40));
        TestTransport::reset();
        script(row.steps);
        IcuHooks::reset();  // a single-byte code page sends even ASCII through ICU's calls
        IcuHooks::setDefaultConverter(row.failFromUnicodeCall != 0 ? "ISO-8859-1" : nullptr);
        IcuHooks::injectFromUnicode(row.failFromUnicodeCall, U_INVALID_CHAR_FOUND);
        const std::string thrown = thrownBy([&] { send("b"); });
        EXPECT_EQ(thrown.rfind(row.thrown, 0), 0u) << thrown;
        EXPECT_TRUE(TestTransport::scriptDone());
        EXPECT_EQ(countCalls("AvQvl_Complete"), 0);
    }
    IcuHooks::reset();
    IcuHooks::setDefaultConverter(nullptr);
    AvQVLRequest request;  // no stream: nothing is sent
    EXPECT_EQ(thrownBy([&] { request.send(); }),
              "AvQVLProtocolException(0): Failed to read the request stream.");
}

// Through AvQvl_Init, whose every non-zero result is a failure code.
TEST_F(RequestTest, TransportErrorsSelectTheirClassWithTypeZeroAndTheLastError) {
    const std::map<std::string, std::vector<int32_t>> table = {
        {"AvQVLProtocolException", {-3099, -3017, -751, 1002}},
        {"AvQVLRuntimeException", {-3016, -3010, -3009, 1003}},
        {"AvQVLConnectionException", {-3001, -2999, -2998, -2997, -2996, 1001}},
        {"AvQVLUnrecognisedException", {-3002, -1000}}};
    TestTransport::setLastError("transport says no", 0);
    for (const auto& row : table) {
        for (int32_t code : row.second) {
            script("I" + std::to_string(code));
            EXPECT_EQ(thrownBy([] { initTransport(); }), row.first + "(0): transport says no");
        }
    }
    const std::tuple<const char*, int32_t, std::string> variants[] = {
        {nullptr, 0, "No error message received"},
        {nullptr, 3, "Could not retrieve last error message."},
        {"text", 3, ""}};
    for (const auto& [message, result, expected] : variants) {
        TestTransport::setLastError(message, result);
        EXPECT_EQ(thrownBy([] { throwTransportError(-3099); }),
                  "AvQVLProtocolException(0): " + expected);
    }
    EXPECT_EQ(TestTransport::calls().at(0).text, "malloc,free");  // the runtime's allocator
}

}  // namespace
