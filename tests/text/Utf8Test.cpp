#include "util/Utf8.h"

#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <algorithm>
#include <string>
#include <vector>

#include "IcuHooks.h"
#include "client/Exception.h"

using Arvant::Net::AvQuorvel::Client::AvQVLException;
using Arvant::Net::AvQuorvel::Util::CodePageConverter;
using Arvant::Net::AvQuorvel::Util::fromUtf8;
using Arvant::Net::AvQuorvel::Util::toUtf8;

namespace {

// Latin-1 bytes to UTF-8, written out independently of ICU.
std::string latin1ToUtf8(const std::string& latin1) {
    std::string utf8;
    for (unsigned char c : latin1) {
        if (c >= 0x80) {
            utf8 += static_cast<char>(0xC0 | (c >> 6));
            c = 0x80 | (c & 0x3F);
        }
        utf8 += static_cast<char>(c);
    }
    return utf8;
}

// "name (alias, alias, ...)" as ICU reports it for `converterName`.
std::string describe(const char* converterName) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(converterName, &status);
    const char* name = ucnv_getName(converter, &status);
    std::string text = std::string(name) + " (";
    const uint16_t count = ucnv_countAliases(name, &status);
    for (uint16_t i = 0; i < count; ++i) {
        text += (i > 0 ? ", " : "") + std::string(ucnv_getAlias(name, i, &status));
    }
    ucnv_close(converter);
    return text + ")";
}

// Every test runs with Latin-1 as ICU's default converter, whatever the
// environment says, and puts the previous default back afterwards. Where ICU
// honours ucnv_setDefaultName that alone does it; ICU built with a fixed UTF-8
// default ignores it, so the open hook substitutes the converter as well.
class CodePageTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved = ucnv_getDefaultName();
        ucnv_setDefaultName("ISO-8859-1");
        IcuHooks::setDefaultConverter("ISO-8859-1");
        IcuHooks::reset();
    }
    void TearDown() override {
        IcuHooks::reset();
        IcuHooks::setDefaultConverter(nullptr);
        ucnv_setDefaultName(saved.c_str());
    }

    // The message of the exception `convert` throws, caught as the exported base.
    template <typename Convert>
    std::string failureOf(Convert convert) {
        try {
            convert();
        } catch (const AvQVLException& e) {
            EXPECT_EQ(0, e.getType());
            return e.getMessage();
        }
        ADD_FAILURE() << "no exception";
        return "";
    }

    void expectConvertersReleased() {
        EXPECT_EQ(IcuHooks::counters().opened, IcuHooks::counters().closed);
    }

    std::string saved;
};

TEST_F(CodePageTest, CapacitiesFollowLengthAndDirection) {
    const auto to = CodePageConverter::ToUtf8, from = CodePageConverter::FromUtf8;
    struct Case {
        CodePageConverter::Direction direction;
        std::uint64_t length, unicodeCapacity, byteCapacity;
    };
    // A negative length widened with its sign compares above the limit.
    const Case cases[] = {{to, 0, 0, 0},
                          {to, 1, 1, 1},
                          {to, 3, 3, 4},
                          {to, 20479, 20479, 30718},
                          {to, 20480, 20480, 30720},
                          {to, 50000, 20480, 30720},
                          {from, 100, 100, 100},
                          {from, 20480, 20480, 20480},
                          {from, static_cast<std::uint64_t>(-1), 20480, 20480}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        CodePageConverter converter(c.direction, c.length);
        EXPECT_EQ(c.unicodeCapacity, converter.unicodeCapacity);
        EXPECT_EQ(c.byteCapacity, converter.byteCapacity);
        EXPECT_TRUE(converter.unicodeBuffer && converter.byteBuffer);
        UErrorCode status = U_ZERO_ERROR;
        EXPECT_STREQ("ISO-8859-1", ucnv_getName(converter.nativeConverter, &status));
        EXPECT_STREQ("UTF-8", ucnv_getName(converter.utf8Converter, &status));
    }
    expectConvertersReleased();
}

TEST_F(CodePageTest, ConvertsBothWays) {
    const std::string latin1("caf\xE9 \xFF\x01", 7);
    const std::string utf8 = latin1ToUtf8(latin1);
    EXPECT_EQ(utf8, toUtf8(latin1.data(), static_cast<int32_t>(latin1.size())));
    EXPECT_EQ(latin1, fromUtf8(utf8.data(), static_cast<int32_t>(utf8.size())));
    // Exactly `length` bytes are read: the rest of the text is ignored.
    EXPECT_EQ("ca", toUtf8("cafe", 2));
    EXPECT_EQ("", toUtf8("cafe", 0));
    EXPECT_EQ("", fromUtf8(nullptr, 0));
    expectConvertersReleased();

    // A two-byte character with a one-byte buffer takes two byte passes.
    IcuHooks::reset();
    EXPECT_EQ("\xC3\xA9", toUtf8("\xE9", 1));
    EXPECT_EQ(1, IcuHooks::counters().toUnicodeCalls);
    EXPECT_EQ(2, IcuHooks::counters().fromUnicodeCalls);
}

TEST_F(CodePageTest, LongInputTakesSeveralPassesInOrder) {
    std::string latin1;
    for (int i = 0; i < 50000; ++i) {
        latin1 += static_cast<char>(0x20 + i % 0xE0);  // 0x20..0xFF, one byte each
    }
    const std::string utf8 = latin1ToUtf8(latin1);
    EXPECT_EQ(utf8, toUtf8(latin1.data(), 50000));
    EXPECT_EQ(3, IcuHooks::counters().toUnicodeCalls);
    // Each pass of 20480 units needs more than 30720 bytes, so two byte passes.
    EXPECT_GT(IcuHooks::counters().fromUnicodeCalls, 3);

    IcuHooks::reset();
    EXPECT_EQ(latin1, fromUtf8(utf8.data(), static_cast<int32_t>(utf8.size())));
    EXPECT_GE(IcuHooks::counters().toUnicodeCalls, 3);
    expectConvertersReleased();
}

// The first stage flushes when the bytes still ahead fit its unit capacity:
// then a character cut short at the end is substituted. A text of more bytes
// than that, whose units all fit in one pass, is never flushed, and the cut
// character is dropped.
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

TEST_F(CodePageTest, ZeroCharacterEndsItsPassOutput) {
    EXPECT_EQ("a", toUtf8("a\0bc", 4));
    EXPECT_EQ("a", fromUtf8("a\0bc", 4));

    // The zero lies in the first of three passes: the rest of that pass is
    // lost, the later passes come through whole.
    std::string text(50000, 'x');
    for (size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>('a' + i % 26);
    }
    text[100] = '\0';
    const std::string expected = text.substr(0, 100) + text.substr(20480);
    EXPECT_EQ(expected, toUtf8(text.data(), 50000));
}

TEST_F(CodePageTest, BadArgumentsFailBeforeTheInputIsRead) {
    const char* const unreadable = reinterpret_cast<const char*>(1);
    EXPECT_EQ("Invalid input length -1\n", failureOf([&] { toUtf8(unreadable, -1); }));
    EXPECT_EQ("Invalid input length -2147483648\n",
              failureOf([&] { fromUtf8(unreadable, INT32_MIN); }));
    EXPECT_EQ("Invalid input: no bytes for length 3\n", failureOf([] { toUtf8(nullptr, 3); }));
    EXPECT_EQ(0, IcuHooks::counters().openCalls);
}

TEST_F(CodePageTest, ConverterThatCannotOpen) {
    // The default converter fails: the UTF-8 converter is not even tried.
    IcuHooks::limitAllocations(0);
    EXPECT_EQ("Error opening converter U_MEMORY_ALLOCATION_ERROR\n",
              failureOf([] { toUtf8("abc", 3); }));
    IcuHooks::limitAllocations(-1);
    EXPECT_EQ(1, IcuHooks::counters().openCalls);
    expectConvertersReleased();

    // Allow just what opening the default converter costs: the UTF-8 one fails.
    UErrorCode status = U_ZERO_ERROR;
    ucnv_close(ucnv_open(nullptr, &status));
    IcuHooks::reset();
    ucnv_close(ucnv_open(nullptr, &status));
    const int nativeCost = IcuHooks::allocations();
    ASSERT_TRUE(U_SUCCESS(status));
    IcuHooks::reset();
    IcuHooks::limitAllocations(nativeCost);
    EXPECT_EQ("Error opening converter U_MEMORY_ALLOCATION_ERROR\n",
              failureOf([] { fromUtf8("abc", 3); }));
    IcuHooks::limitAllocations(-1);
    EXPECT_EQ(2, IcuHooks::counters().openCalls);
    EXPECT_EQ(1, IcuHooks::counters().opened);
    expectConvertersReleased();
}

TEST_F(CodePageTest, FailureMessagesNameTheFailingConverter) {
    const std::string latin1 = describe("ISO-8859-1");
    const std::string utf8 = describe("UTF-8");
    struct Case {
        bool toUtf8;
        bool firstStage;
        bool secondStage;
        std::string message;
    };
    const std::vector<Case> cases = {
        {true, true, false,
         "An error occured converting " + latin1 + " to Unicode.\nU_ILLEGAL_CHAR_FOUND\n"},
        {true, false, true,
         "An error occured converting Unicode to " + utf8 + ".\nU_ILLEGAL_CHAR_FOUND\n"},
        {false, true, false,
         "An error occured converting " + utf8 + " to Unicode.\nU_ILLEGAL_CHAR_FOUND\n"},
        {false, false, true,
         "An error occured converting Unicode to " + latin1 + ".\nU_ILLEGAL_CHAR_FOUND\n"},
        // Both stages fail: the second stage is checked first.
        {true, true, true,
         "An error occured converting Unicode to " + utf8 + ".\nU_ILLEGAL_CHAR_FOUND\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        IcuHooks::reset();
        if (c.firstStage) {
            IcuHooks::injectToUnicode(1,
                                      c.secondStage ? U_INVALID_CHAR_FOUND : U_ILLEGAL_CHAR_FOUND);
        }
        if (c.secondStage) {
            IcuHooks::injectFromUnicode(1, U_ILLEGAL_CHAR_FOUND);
        }
        const std::string message =
            failureOf([&] { c.toUtf8 ? toUtf8("abc", 3) : fromUtf8("abc", 3); });
        EXPECT_EQ(c.message, message);
        EXPECT_EQ(2, std::count(message.begin(), message.end(), '\n'));
        expectConvertersReleased();
    }
}

TEST_F(CodePageTest, FailureInALaterPassDiscardsEverythingButWarningsPass) {
    const std::string text(50000, 'q');
    IcuHooks::injectToUnicode(3, U_INVALID_CHAR_FOUND);
    EXPECT_NE(std::string::npos,
              failureOf([&] { toUtf8(text.data(), 50000); }).find("U_INVALID_CHAR_FOUND"));
    expectConvertersReleased();

    IcuHooks::reset();
    IcuHooks::injectToUnicode(1, U_USING_DEFAULT_WARNING);
    IcuHooks::injectFromUnicode(1, U_AMBIGUOUS_ALIAS_WARNING);
    EXPECT_EQ("abc", toUtf8("abc", 3));
}

}  // namespace
