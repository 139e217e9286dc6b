// A response that never ends, from a hostile or broken service, through a public
// operation over the scripted test transport. The collection buffer really grows
// to the 32-bit limit (about 3 GiB allocated and copied once, a few seconds).
#include <gtest/gtest.h>

#include <string>

#include "client/AvQVLConnection.h"
#include "client/ClientTestSupport.h"

using namespace ClientTest;
using HostileResponseTest = TransportTest;

TEST_F(HostileResponseTest, EndlessResponseEndsBeforeAnyCounterOverflows) {
    script(kHandshake);
    for (int i = 0; i < 131072; ++i) {  // 16384 bytes each: 2 GiB, one byte past the limit
        TestTransport::pushResult("AvQvl_Receive", 16384);
    }
    Arvant::Net::AvQuorvel::Client::AvQVLConnection connection;
    std::string server = "S", client = "C", locale;
    Strings shared;
    EXPECT_EQ(thrownBy([&] { connection.registerClient(server, client, locale, shared); }),
              "AvQVLRuntimeException(0): Response exceeds the maximum size of 2147483647 bytes");
    EXPECT_TRUE(TestTransport::scriptDone());
    EXPECT_EQ(countCalls("AvQvl_Complete"), 0);
}
