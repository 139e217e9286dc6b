// A scripted stand-in for the transport library, for unit tests of code that
// uses AvQVLConnection without a running service.
//
// Link the static library AvQvlTestTransport into the test executable beside
// AvQvlCppBinding. It defines the eight AvQvl_ functions in the executable,
// where they take precedence over those of the real transport library. Every
// call is recorded in order; each call takes its result from the front of one
// ordered script. AvQvl_Init, AvQvl_Term and AvQvl_Complete succeed with 0
// unless the next scripted entry is theirs. Any other call that finds no
// matching entry fails with -9999 and the last error
// "test transport: no scripted result for AvQvl_<name>", so the connection
// throws AvQVLUnrecognisedException carrying that text.
//
// Typical use:
//     TestTransport::reset();
//     TestTransport::expectExchange("<r xmlns=\"urn:x\"><sharedClients>A</sharedClients></r>");
//     connection.registerClient(server, client, locale, shared);   // shared == {"A"}
//     EXPECT_NE(TestTransport::headerBlocks()[0].find("Server-ID=S\r\n"), std::string::npos);
//
// waitForEvents is scripted as getEvents is, two exchanges (the fetch, then the
// shared clients); nothing waits here: the scripted answer stands for whatever
// the service answered within the wait, and the fetch's header block carries
// "Wait-Milliseconds=<wait>\r\n".
//
// The transport is process-wide: use it from one thread, and reset() it at the
// start of every test.
#ifndef AVQVL_TRANSPORT_TESTING_TESTTRANSPORT_H
#define AVQVL_TRANSPORT_TESTING_TESTTRANSPORT_H

#include <cstdint>
#include <string>
#include <vector>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Testing {

// One call the library made, in order.
struct TransportCall {
    std::string function;  // "AvQvl_SendNoAck", "AvQvl_Receive", ...
    std::string text;      // the text handed over (SendNoAck, Send); empty otherwise
    int32_t result;        // what the call returned
};

class TestTransport {
public:
    // Forgets the script, the recorded calls and the last error.
    static void reset();

    // Scripts one successful exchange: header block accepted, body requested
    // (19) and accepted in as many chunks as the library sends, request
    // complete (20), then `response` (UTF-8 bytes) in pieces of at most 16384
    // bytes, then the end of the response (-1).
    static void expectExchange(const std::string& response);

    // Appends one result for the named function ("AvQvl_Receive", ...).
    static void pushResult(const std::string& function, int32_t code);
    // Appends one AvQvl_Receive that writes `bytes` (at most 16384) into the
    // library's buffer and returns their number.
    static void pushResponse(const std::string& bytes);

    // What AvQvl_GetLastError reports: the message (nullptr: none) and its result.
    static void setLastError(const char* message, int32_t result);

    static std::vector<TransportCall> calls();
    // Names of the recorded calls only, in order.
    static std::vector<std::string> functions();
    // The header block of each exchange, and its body chunks joined, in order.
    static std::vector<std::string> headerBlocks();
    static std::vector<std::string> bodies();
    // True when every scripted entry has been used.
    static bool scriptDone();
};

}  // namespace Testing
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_TESTING_TESTTRANSPORT_H
