#include "util/Utf8.h"
#include "util/internal/Utf8InPlace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "IcuHooks.h"
#include "client/Exception.h"

using namespace Arvant::Net::AvQuorvel::Util;
using Arvant::Net::AvQuorvel::Client::AvQVLException;
using ::testing::StartsWith;

namespace {

// The message of the Utf8ConversionException (type 0) that `convert` throws.
template <typename Convert>
std::string failureOf(Convert convert) {
    try {
        convert();
    } catch (const AvQVLException& e) {
        EXPECT_EQ(0, e.getType());
        return e.getMessage();
    }
    return "no exception";
}

// Every test runs with Latin-1 as the default converter, whatever the
// environment, and must close every converter it opens.
class CodePageTest : public ::testing::Test {
protected:
    void SetUp() override {
        IcuHooks::setDefaultConverter("ISO-8859-1");
        IcuHooks::reset();
    }
    void TearDown() override {
        EXPECT_EQ(0, IcuHooks::open);
        IcuHooks::setDefaultConverter(nullptr);
    }
};

// Warnings are no failure (here on an empty text); a text longer than a pass converts whole and in
// order; U+0000 ends what its second-stage pass appends, later passes come through.
TEST_F(CodePageTest, ConvertsInPassesCompleteAndInOrder) {
    IcuHooks::injectToUnicode(1, U_USING_DEFAULT_WARNING);
    IcuHooks::injectFromUnicode(1, U_AMBIGUOUS_ALIAS_WARNING);
    EXPECT_EQ("", toUtf8("abc", 0));
    EXPECT_EQ("\xC3\xA9", toUtf8("\xE9", 1));
    std::string text;  // the alphabet over and over
    for (int i = 0; i < 50000; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    EXPECT_EQ(text, toUtf8(text.data(), 50000));
    EXPECT_EQ(text, fromUtf8(text.data(), 50000));
    EXPECT_EQ("a", fromUtf8("a\0bc", 4));
    text[100] = '\0';
    EXPECT_EQ(text.substr(0, 100) + text.substr(20480), toUtf8(text.data(), 50000));
}

// The first stage flushes when the bytes ahead fit its unit capacity; only then
// is a character cut short at the end substituted rather than dropped.
TEST_F(CodePageTest, FirstStageFlushComparesBytesWithUnits) {
    std::string text;
    for (int i = 0; i < 10300; ++i) {
        text += "\xC3\xA9";
    }
    const std::string flushed = text.substr(0, 20478) + "\xC3";
    EXPECT_EQ(std::string(10239, '\xE9') + "\x1A", fromUtf8(flushed.data(), 20479));
    text += "\xC3";
    EXPECT_EQ(std::string(10300, '\xE9'), fromUtf8(text.data(), 20601));
}

// A negative length, or no bytes for a positive one, is refused before the
// input is read or a converter opened.
TEST_F(CodePageTest, BadArgumentsFailBeforeTheInputIsRead) {
    const char* const unreadable = reinterpret_cast<const char*>(1);
    EXPECT_EQ("Invalid input length -1\n", failureOf([&] { toUtf8(unreadable, -1); }));
    EXPECT_EQ("Invalid input: no bytes for length 3\n", failureOf([] { toUtf8(nullptr, 3); }));
    EXPECT_EQ("", fromUtf8(nullptr, 0));
}

// A failure opening a converter or in either stage throws, naming the failing
// converter; a failure in a later pass discards the earlier ones, and in place
// leaves the text as it was.
TEST_F(CodePageTest, FailuresNameTheFailingConverter) {
    const std::string text(50000, 'q'), converting = "An error occured converting ";
    // Direction, the call of each kind that fails (0: none), the message's start.
    const std::tuple<bool, int, int, int, std::string> cases[] = {
        {false, 2, 0, 0, "Error opening converter U_FILE_ACCESS_ERROR\n"},
        {true, 0, 3, 0, converting + "ISO-8859-1 ("},
        {false, 0, 2, 0, converting + "UTF-8 ("},
        {true, 0, 1, 1, converting + "Unicode to UTF-8 ("}};  // the second stage checked first
    for (const auto& [toUtf8Direction, openCall, toUnicodeCall, fromUnicodeCall, message] : cases) {
        std::string inPlace = text;
        for (int run = toUtf8Direction ? 1 : 0; run < 2; ++run) {  // fromUtf8 also in place
            IcuHooks::reset();
            IcuHooks::injectOpen(openCall, U_FILE_ACCESS_ERROR);
            IcuHooks::injectToUnicode(toUnicodeCall, U_INVALID_CHAR_FOUND);
            IcuHooks::injectFromUnicode(fromUnicodeCall, U_ILLEGAL_CHAR_FOUND);
            EXPECT_THAT(failureOf([&] {
                            run == 1
                                ? (void)(toUtf8Direction ? toUtf8 : fromUtf8)(text.data(), 50000)
                                : fromUtf8InPlace(inPlace);
                        }),
                        StartsWith(message));
        }
        EXPECT_EQ(text, inPlace);
    }
}

}  // namespace
