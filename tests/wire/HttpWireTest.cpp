// The HTTP exchange format on its own: a field travels unchanged whatever its
// bytes, a damaged line is refused, and statuses and transport codes map both ways.
#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <utility>

#include "wire/HttpWire.h"

namespace Wire = Arvant::Net::AvQuorvel::Wire;

TEST(HttpWireTest, FieldsSurviveAnyBytesAndDamageIsRefused) {
    std::string everyByte(255, '\0');
    std::iota(everyByte.begin(), everyByte.end(), '\1');
    std::string name, value, problem;
    for (const std::string sent : {"", "a b=c", "n\xC3\xA9 \xE2\x98\x83", everyByte.c_str()}) {
        const std::string line = Wire::encodeField("Server-ID", sent);
        EXPECT_EQ(line.find_first_of(" =%+\x80", line.find('=') + 1), std::string::npos) << line;
        EXPECT_TRUE(Wire::decodeField(line, name, value, problem)) << problem;
        EXPECT_EQ(name + "=" + value, "Server-ID=" + sent);
    }
    // "QQ" is "A"; "QR" has stray low bits, "Q" an impossible length.
    for (const char* line : {"novalue", "=QQ", "QQ=QR", "QQ=Q", "QQ=Q Q"}) {
        problem.clear();
        EXPECT_FALSE(Wire::decodeField(line, name, value, problem)) << line;
        EXPECT_NE(problem, "") << line;
    }
    // 422 and 507 come back below, as the daemon's statuses for the two failures.
    const std::pair<int, int32_t> codes[] = {{400, AVQVL_REFUSED},       {413, AVQVL_LIMIT},
                                             {429, AVQVL_LIMIT},         {431, AVQVL_LIMIT},
                                             {401, AVQVL_TOKEN_REFUSED}, {404, AVQVL_OTHER_ANSWER}};
    for (const auto& row : codes) {
        EXPECT_EQ(Wire::transportCodeForStatus(row.first), row.second) << row.first;
    }
    // The daemon's status for a failure of the service reads back as that failure.
    for (const int32_t code : {AVQVL_REFUSED, AVQVL_LIMIT}) {
        EXPECT_EQ(Wire::transportCodeForStatus(Wire::statusForFailure(code)), code);
    }
}
