// toUtf8 and fromUtf8 copy well-formed UTF-8 straight through when ICU's
// default converter is UTF-8, and fromUtf8InPlace leaves it where it is.
// Hiding the converter type turns the copy off; these tests compare both ways
// of converting on random texts, well-formed and not, with zero bytes, and
// with lengths around the passes' boundaries.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "IcuHooks.h"
#include "util/Utf8.h"
#include "util/internal/Utf8InPlace.h"

using namespace Arvant::Net::AvQuorvel::Util;

namespace {

class Utf8FastPathTest : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override { IcuHooks::setDefaultConverter(GetParam()); }
    void TearDown() override { IcuHooks::setDefaultConverter(nullptr); }

    // Both directions, copied where the library may and converted by ICU; and
    // the conversion in place, which keeps the text's storage when it may copy.
    void expectSame(const std::string& in) {
        std::string general;
        for (auto convert : {&toUtf8, &fromUtf8}) {
            IcuHooks::hideUtf8Type = true;
            general = convert(in.data(), static_cast<int32_t>(in.size()));
            IcuHooks::hideUtf8Type = false;
            ASSERT_TRUE(general == convert(in.data(), static_cast<int32_t>(in.size())))
                << in.size() << " bytes in";
        }
        std::string text = in;
        const char* const storage = text.data();
        fromUtf8InPlace(text);
        ASSERT_TRUE(general == text) << in.size() << " bytes in place";
        if (GetParam() == std::string("UTF-8") && general == in) {
            EXPECT_EQ(storage, text.data());
        }
    }

    // Random characters, of each UTF-8 length alike, padded to `length` bytes.
    std::string wellFormed(std::size_t length) {
        static const std::uint32_t kFirst[] = {1, 0x80, 0x800, 0x10000, 0x110000};
        std::string text;
        while (text.size() + 4 < length) {
            const int n = static_cast<int>(random() % 4);  // continuation bytes
            std::uint32_t c = kFirst[n] + random() % (kFirst[n + 1] - kFirst[n]);
            c += c >= 0xD800 && c < 0xE000 ? 0x800 : 0;  // no surrogates
            text += static_cast<char>(n == 0 ? c : (0xFF00 >> (n + 1) & 0xFF) | c >> 6 * n);
            for (int i = n - 1; i >= 0; --i) {
                text += static_cast<char>(0x80 | (c >> 6 * i & 0x3F));
            }
        }
        text.resize(length, 'x');
        return text;
    }

    std::mt19937 random{20240607};
};

// Plain ASCII and mixed texts, short and long enough for two or three
// first-stage passes (where a four-byte character may straddle a pass end),
// whole and with a zero byte or a stray, overlong, surrogate, too large or
// cut-short sequence put in.
TEST_P(Utf8FastPathTest, RandomTexts) {
    static const char* const kDamage[] = {
        "\x80",         "\xC0\xAF",         "\xC1\xBF",         "\xE0\x9F\xBF",
        "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
        "\xFF",         "\xE2\x82",         "\xF0\x9F\x98",     "\xBF"};
    for (int round = 0; round < 3000; ++round) {
        const std::size_t lengths[] = {random() % 100, random() % 1100, 41000 + random() % 50000};
        const std::size_t length = lengths[round % 10 == 0 ? 2 : round % 2];
        std::string text = round % 7 ? wellFormed(length) : std::string(length, 'x');
        if (round % 3 == 0) {
            const std::size_t pick = random() % 13;  // 12: a zero byte
            text.insert(random() % (length + 1), pick < 12 ? kDamage[pick] : std::string(1, 0));
        }
        expectSame(text);
    }
    // A four-byte character just before, across and just after a pass end.
    for (std::size_t before : {20477u, 20478u, 20479u, 20480u, 40958u, 40959u}) {
        expectSame(std::string(before, 'a') + "\xF0\x9F\x98\x80");
    }
}

INSTANTIATE_TEST_SUITE_P(CodePages, Utf8FastPathTest, ::testing::Values("UTF-8", "ISO-8859-1"));

}  // namespace
