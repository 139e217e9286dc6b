// The transport library: first its AvQvl_ functions called directly, as a client
// would, against the embedded service; then the client library over it, with
// nothing stubbed between AvQVLConnection and the service.
#include "transport/AvQvlBinding.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "client/AvQVLConnection.h"
#include "client/ClientTestSupport.h"

using Arvant::Net::AvQuorvel::Client::AvQVLConnection;
using Ids = std::vector<std::string>;

namespace {

constexpr std::size_t kPiece = 16384;
const std::string kStatus = "Operation-Name=getStatus\r\nService-Name=AvQVLRequest\r\n\r\n";

// Plays one call per letter and returns the last result: H sends the status
// header block, B a body piece, E ends, R receives, C completes.
int32_t play(const std::string& steps) {
    std::vector<char> buffer(kPiece);
    int32_t rc = 0;
    for (const char step : steps) {
        rc = step == 'H'   ? AvQvl_SendNoAck(kStatus.c_str())
             : step == 'B' ? AvQvl_SendNoAck("body")
             : step == 'E' ? AvQvl_SendEOF()
             : step == 'R' ? AvQvl_Receive(buffer.data())
                           : AvQvl_Complete();
    }
    return rc;
}

// One status exchange checked call by call: 19 after the header block, 20
// after the body, pieces of at most 16384 bytes with nothing written past them,
// -1 at the end. Returns the echoed body.
std::string echoed(const std::string& body) {
    std::vector<char> buffer(kPiece + 64, '#');
    EXPECT_EQ(play("HER"), 19);
    for (std::size_t at = 0; at < body.size(); at += 4098) {
        EXPECT_GT(AvQvl_SendNoAck(body.substr(at, 4098).c_str()), 0);
    }
    EXPECT_EQ(AvQvl_SendEOF(), 0);
    EXPECT_EQ(AvQvl_Receive(buffer.data()), 20);
    std::string response;
    for (int32_t n; (n = AvQvl_Receive(buffer.data())) >= 0 && response.size() < 4 * kPiece;) {
        EXPECT_LE(n, 16384);
        EXPECT_EQ(std::string(buffer.data() + kPiece, 64), std::string(64, '#'));
        response.append(buffer.data(), n);
    }
    EXPECT_EQ(AvQvl_Complete(), 0);
    return response;
}

// A call out of turn fails with a message saying why, and a response given up
// midway (by a client that threw) is dropped: the next exchange works either way.
TEST(RawTransportTest, CallsOutOfTurnAndGivenUpResponsesDoNotSpoilTheNextExchange) {
    ASSERT_EQ(AvQvl_Init(std::malloc, std::free), 0);
    const std::string body = ClientTest::pattern(2 * kPiece + 1);  // three pieces back
    const std::pair<const char*, const char*> rows[] = {
        {"R", "no exchange open"},
        {"HERBERC", "before the response was read to its end"},
        {"HERBER", nullptr},
    };
    for (const auto& row : rows) {
        const int32_t rc = play(row.first);
        if (row.second != nullptr) {
            char* message = nullptr;
            EXPECT_EQ(AvQvl_GetLastError(&message), 0);
            EXPECT_EQ(rc, -3017) << row.first;
            EXPECT_NE(std::string(message ? message : "").find(row.second), std::string::npos);
        }
        EXPECT_EQ(echoed(body), body) << row.first;
    }
    EXPECT_EQ(AvQvl_Term(), 0);
}

// Header values go out unescaped, so CR LF in one splits its line: the transport
// refuses a split that breaks the sorted order or the block, and reads one that
// falls in order as a header line of its own. Every hostile argument ends in its
// outcome, and the service keeps nothing half-done: alice sees exactly what was
// accepted.
TEST(EndToEndTest, HostileArgumentsEndInTheirOutcomeAndLeaveNothingHalfDone) {
    AvQVLConnection alice, bob;
    std::string server = "E2E", aliceId = "alice", bobId = "bob", locale = "en_GB";
    Ids shared;
    alice.registerClient(server, aliceId, locale, shared);
    bob.registerClient(server, bobId, locale, shared);

    const char *ok = "none", *protocol = "AvQVLProtocolException",
               *runtime = "AvQVLRuntimeException";
    const struct {
        char field;
        std::string text;
        const char* outcome;
    } rows[] = {
        {'E', "hi <bob> & 100%", ok},
        {'C', "C\nD", protocol},                      // a lone line feed
        {'C', "C\r\nServer-ID=other", protocol},      // repeats a header
        {'C', "C\r\n\r\nrest", protocol},             // ends the block early
        {'C', "C\r\nX-Extra=1", protocol},            // a line out of the sorted order
        {'C', "C\r\nD-Extra=1", ok},                  // in order: "C" registers
        {'C', std::string(1 << 20, 'x'), runtime},    // header block over the transport's limit
        {'E', std::string("before\0after", 12), ok},  // the text before the NUL byte
        {'E', "a\001b", protocol},                    // a control character: nothing queued
        {'E', std::string(17 << 20, 'e'), runtime},   // over the service's body limit
    };
    // Registers a fresh connection with `text` as its client identifier (C), or
    // posts `text` from bob (E); compares the class thrown, or "none".
    for (const auto& row : rows) {
        std::string text = row.text, none, correlation = "k";
        AvQVLConnection fresh;
        const std::string thrown = ClientTest::thrownBy([&] {
            row.field == 'E' ? bob.putEvents(text, shared, correlation)
                             : fresh.registerClient(server, text, none, shared);
        });
        EXPECT_EQ(thrown.substr(0, thrown.find('(')), row.outcome)
            << row.field << " " << text.substr(0, 20);
    }

    std::string received, correlation = "drain";
    Ids texts;
    alice.getEvents(received, shared, correlation);
    EXPECT_EQ(shared, (Ids{"alice", "bob", "C"}));
    for (std::size_t at = 0; (at = received.find("<ns0:event ", at)) != std::string::npos;) {
        at = received.find('>', at) + 1;
        texts.push_back(received.substr(at, received.find("</ns0:event>", at) - at));
    }
    EXPECT_EQ(texts, (Ids{"hi &lt;bob&gt; &amp; 100&#x25;", "before"}));
}

}  // namespace
