// toUtf8 and fromUtf8 copy well-formed UTF-8 straight through when ICU's
// default converter is UTF-8. These tests turn that copy off by making the
// library see another converter type, and compare both ways of converting on
// random texts: well-formed and not, with zero bytes, and with lengths around
// the pump's pass boundaries.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <cstdint>
#include <random>
#include <string>

#include "IcuHooks.h"
#include "client/Exception.h"
#include "util/Utf8.h"

using Arvant::Net::AvQuorvel::Client::AvQVLException;
using Arvant::Net::AvQuorvel::Util::fromUtf8;
using Arvant::Net::AvQuorvel::Util::toUtf8;

namespace {

bool hideUtf8Type = false;

#define PERF_HOOK_NAME2(x) #x
#define PERF_HOOK_NAME(x) PERF_HOOK_NAME2(x)

}  // namespace

// The library asks for the converter type to choose the copy; a type other
// than UTF-8 sends every text through the pump.
extern "C" __attribute__((visibility("default"))) UConverterType ucnv_getType(
    const UConverter* converter) {
    using Function = UConverterType (*)(const UConverter*);
    static const Function real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, PERF_HOOK_NAME(ucnv_getType)));
    const UConverterType type = real(converter);
    return hideUtf8Type && type == UCNV_UTF8 ? UCNV_UNSUPPORTED_CONVERTER : type;
}

namespace {

// The result, or the failure message marked as such.
template <typename Convert>
std::string outcome(Convert convert, const std::string& input) {
    try {
        return convert(input.data(), static_cast<int32_t>(input.size()));
    } catch (const AvQVLException& e) {
        return "failure: " + e.getMessage();
    }
}

class Utf8FastPathTest : public ::testing::Test {
protected:
    void SetUp() override {
        IcuHooks::setDefaultConverter("UTF-8");
        IcuHooks::reset();
    }
    void TearDown() override {
        hideUtf8Type = false;
        IcuHooks::setDefaultConverter(nullptr);
    }

    // Both directions, copied and pumped, must agree byte for byte.
    void expectSameBothWays(const std::string& input) {
        for (auto convert : {&toUtf8, &fromUtf8}) {
            hideUtf8Type = false;
            const std::string copied = outcome(convert, input);
            hideUtf8Type = true;
            const std::string pumped = outcome(convert, input);
            hideUtf8Type = false;
            // Long texts: report where they part, not the texts themselves.
            std::size_t at = 0;
            while (at < pumped.size() && at < copied.size() && pumped[at] == copied[at]) {
                ++at;
            }
            ASSERT_TRUE(pumped == copied)
                << "input of " << input.size() << " bytes: " << pumped.size() << " pumped and "
                << copied.size() << " copied bytes part at byte " << at;
        }
    }

    std::mt19937 random{20240607};

    // Well-formed characters of every length, four-byte ones often enough to
    // meet pass boundaries.
    void appendCharacter(std::string& text) {
        static const char* const kCharacters[] = {"a",
                                                  "Z",
                                                  " ",
                                                  "\xC3\xA9",
                                                  "\xDF\xBF",
                                                  "\xE0\xA0\x80",
                                                  "\xE2\x82\xAC",
                                                  "\xED\x9F\xBF",
                                                  "\xEF\xBF\xBF",
                                                  "\xF0\x90\x80\x80",
                                                  "\xF0\x9F\x98\x80",
                                                  "\xF4\x8F\xBF\xBF"};
        text += kCharacters[random() % 12];
    }

    std::string wellFormed(std::size_t length) {
        std::string text;
        while (text.size() < length) {
            appendCharacter(text);
        }
        return text;
    }

    // Damage that the copy must refuse: zero bytes, stray, overlong, surrogate
    // and out-of-range sequences, and characters cut short.
    void damage(std::string& text) {
        static const char* const kDamage[] = {"(zero byte)",
                                              "\x80",
                                              "\xBF",
                                              "\xC0\xAF",
                                              "\xC1\xBF",
                                              "\xE0\x9F\xBF",
                                              "\xED\xA0\x80",
                                              "\xF0\x8F\xBF\xBF",
                                              "\xF4\x90\x80\x80",
                                              "\xF5\x80\x80\x80",
                                              "\xFF",
                                              "\xE2\x82",
                                              "\xF0\x9F\x98"};
        const std::size_t at = text.empty() ? 0 : random() % (text.size() + 1);
        const std::size_t which = random() % 13;
        const std::string piece = which == 0 ? std::string(1, '\0') : std::string(kDamage[which]);
        text.insert(at, piece);
    }
};

TEST_F(Utf8FastPathTest, RandomTextsOfEveryKind) {
    for (int round = 0; round < 300; ++round) {
        const std::size_t length = random() % 3000;
        std::string text = round % 3 == 0 ? std::string(length, 'x') : wellFormed(length);
        if (round % 2 == 1) {
            damage(text);
        }
        expectSameBothWays(text);
    }
}

// Header values, identifiers and status texts are short: every length up to a
// few blocks, whole and damaged at random.
TEST_F(Utf8FastPathTest, ShortTextsOfEveryLength) {
    for (std::size_t length = 0; length <= 80; ++length) {
        for (int round = 0; round < 4; ++round) {
            std::string text = round == 0 ? std::string(length, 'q') : wellFormed(length);
            if (round >= 2) {
                damage(text);
            }
            expectSameBothWays(text);
        }
    }
}

TEST_F(Utf8FastPathTest, LengthsAroundPassBoundaries) {
    // Four-byte characters placed at and around the units where the first
    // stage's passes end; and the same with zero bytes and damage.
    for (std::size_t boundary : {20480u, 40960u}) {
        for (std::size_t before = boundary - 3; before <= boundary + 1; ++before) {
            std::string text(before, 'a');
            text += "\xF0\x9F\x98\x80";
            expectSameBothWays(text);
            expectSameBothWays(text + "tail");
            std::string zero = text + "b";
            zero[before / 2] = '\0';
            expectSameBothWays(zero);
        }
    }
    for (int round = 0; round < 12; ++round) {
        std::string text = wellFormed(20470 + random() % 30000);
        if (round % 3 == 2) {
            damage(text);
        }
        expectSameBothWays(text);
    }
}

// Every lead byte with every second byte, followed by bytes that may or may not
// continue it, at every position within a sixteen-byte block and among the
// last bytes of the text, where the block check hands over to the byte check.
TEST_F(Utf8FastPathTest, EveryTwoBytePrefixAtEveryAlignment) {
    static const unsigned char kFollowers[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90,
                                               0x9F, 0xA0, 0xBF, 0xC0, 0xF0, 0xFF};
    const std::size_t kLength = 1061;  // not a multiple of sixteen
    std::size_t round = 0;
    for (int lead = 0x80; lead <= 0xFF; ++lead) {
        for (int second = 0; second <= 0xFF; ++second, ++round) {
            // Cycle the sequence through 16 block positions and the last four bytes.
            const std::size_t slot = round % 20;
            const std::size_t at = slot < 16 ? 512 + slot : kLength - (slot - 15);
            std::string text = wellFormed(at - 4);
            text.resize(at, 'x');
            text += static_cast<char>(lead);
            text += static_cast<char>(second);
            text += static_cast<char>(kFollowers[random() % 12]);
            text += static_cast<char>(kFollowers[random() % 12]);
            if (text.size() + 3 < kLength) {
                text += wellFormed(kLength - text.size() - 3);
            }
            text.resize(kLength, 'x');
            expectSameBothWays(text);
        }
    }
}

// A four-byte character at the very unit where the first pass ends, reached
// through random text so that it sits at every position within a block.
TEST_F(Utf8FastPathTest, PairAtThePassEndFromEveryAlignment) {
    const std::size_t kPassUnits = 20480;
    for (std::size_t target : {kPassUnits - 1, 2 * kPassUnits - 1}) {
        for (int round = 0; round < 24; ++round) {
            std::string text;
            std::size_t units = 0;
            std::size_t grown = 0;  // by pairs across an earlier pass end
            while (units + 2 < target) {
                const std::size_t before = text.size();
                appendCharacter(text);
                const bool pair = text.size() - before == 4;
                grown += pair && units % kPassUnits == kPassUnits - 1 ? 2 : 0;
                units += pair ? 2 : 1;
            }
            while (units < target) {
                text += 'a';
                ++units;
            }
            const std::size_t pairAt = text.size();
            text += "\xF0\x9F\x98\x80";
            text += wellFormed(random() % 40);
            expectSameBothWays(text);
            const std::string copied = toUtf8(text.data(), static_cast<int32_t>(text.size()));
            ASSERT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD", copied.substr(pairAt + grown, 6))
                << "round " << round;
        }
    }
}

TEST_F(Utf8FastPathTest, PairAcrossAPassBecomesTwoReplacementCharacters) {
    std::string text(20479, 'a');
    text += "\xF0\x9F\x98\x80";
    const std::string expected = std::string(20479, 'a') + "\xEF\xBF\xBD\xEF\xBF\xBD";
    EXPECT_EQ(expected, toUtf8(text.data(), static_cast<int32_t>(text.size())));
    EXPECT_EQ(expected, fromUtf8(text.data(), static_cast<int32_t>(text.size())));
}

TEST_F(Utf8FastPathTest, LongWellFormedTextSkipsTheRoundTrip) {
    const std::string text = wellFormed(100000);
    EXPECT_EQ(text, toUtf8(text.data(), static_cast<int32_t>(text.size())));
    EXPECT_EQ(text, fromUtf8(text.data(), static_cast<int32_t>(text.size())));
    EXPECT_EQ(0, IcuHooks::counters().toUnicodeCalls);
    EXPECT_EQ(IcuHooks::counters().opened, IcuHooks::counters().closed);
}

// Under another code page nothing is copied: Latin-1 text comes back through
// the pump, in both directions, whatever its bytes.
TEST_F(Utf8FastPathTest, Latin1DefaultAlwaysPumps) {
    IcuHooks::setDefaultConverter("ISO-8859-1");
    for (int round = 0; round < 50; ++round) {
        std::string latin1(1024 + random() % 40000, ' ');
        for (char& c : latin1) {
            c = static_cast<char>(1 + random() % 255);
        }
        IcuHooks::reset();
        const std::string utf8 = toUtf8(latin1.data(), static_cast<int32_t>(latin1.size()));
        EXPECT_GT(IcuHooks::counters().toUnicodeCalls, 0);
        ASSERT_EQ(latin1, fromUtf8(utf8.data(), static_cast<int32_t>(utf8.size())));
    }
}

}  // namespace
