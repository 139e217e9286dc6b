// toUtf8 and fromUtf8 copy well-formed UTF-8 straight through when ICU's
// default converter is UTF-8, and fromUtf8InPlace leaves it where it is.
// Hiding the converter type turns the copy off; these tests compare both ways
// of converting on texts well-formed and not, with zero bytes inside or at the
// end, and with lengths around the passes' boundaries.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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
};

// Characters of each UTF-8 length, short and long enough for two or three
// first-stage passes, whole and with a zero byte or a stray, overlong,
// surrogate, too large or cut-short sequence put in, also just at a pass end;
// and a four-byte character just before, across and just after a pass end.
TEST_P(Utf8FastPathTest, FixedTexts) {
    const std::string mixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
    std::string longMixed;
    while (longMixed.size() < 45000) {
        longMixed += mixed;
    }
    std::vector<std::string> texts = {"", mixed, longMixed, std::string(45000, 'x')};
    for (const std::string& damage :
         std::vector<std::string>{"\x80", "\xC0\xAF", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80",
                                  "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
                                  "\xFF", "\xE2\x82", "\xF0\x9F\x98", "\xBF", std::string(1, 0)}) {
        texts.push_back(mixed + damage + mixed);
        texts.push_back(longMixed.substr(0, 20478) + damage + longMixed);
        texts.push_back(std::string(20479, 'a') + damage + "a");
    }
    for (std::size_t before : {20477u, 20478u, 20479u, 20480u, 40958u, 40959u}) {
        texts.push_back(std::string(before, 'a') + "\xF0\x9F\x98\x80");
    }
    for (const std::string& text : texts) {
        expectSame(text);
        expectSame(text + '\0');  // as a request body's last block ends
    }
}

INSTANTIATE_TEST_SUITE_P(CodePages, Utf8FastPathTest, ::testing::Values("UTF-8", "ISO-8859-1"));

}  // namespace
