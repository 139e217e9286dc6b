// The scripted transport: one ordered script shared by the eight AvQvl_
// functions, a record of every call, and a note of which exchange each header
// block and body chunk belongs to.
#include "transport/testing/TestTransport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>

#include "transport/AvQvlBinding.h"

// The executable that links this library must export these definitions so that
// they take precedence over the transport library's, whatever the build's
// default visibility.
#define AVQVL_TEST_TRANSPORT_API extern "C" __attribute__((visibility("default")))

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Testing {
namespace {

constexpr int32_t kPieceLimit = AVQVL_RECEIVE_BUFFER_BYTES;  // the library's receive buffer
constexpr int32_t kUnscripted = -9999;                       // not a code the library knows

struct Entry {
    std::string function;
    int32_t code = 0;
    std::string bytes;    // written by AvQvl_Receive
    bool repeat = false;  // used by every matching call until another function comes
};

struct Record {
    TransportCall call;
    int exchange;  // -1 before the first header block
    bool header;
};

// Where the library stands in an exchange, judged from the results handed out.
enum class Phase { Idle, Handshake, Response };

struct State {
    std::mutex mutex;
    std::deque<Entry> script;
    std::vector<Record> records;
    Phase phase = Phase::Idle;
    int exchange = -1;
    bool receivedSinceHeader = false;
    bool hasMessage = false;
    std::string message;
    int32_t lastErrorResult = 0;
};

State& state() {
    static State instance;
    return instance;
}

// Pops the entry for `function`, skipping repeatable entries of other functions.
bool take(State& s, const char* function, Entry& entry) {
    while (!s.script.empty() && s.script.front().repeat && s.script.front().function != function) {
        s.script.pop_front();
    }
    if (s.script.empty() || s.script.front().function != function) {
        return false;
    }
    entry = s.script.front();
    if (!entry.repeat) {
        s.script.pop_front();
    }
    return true;
}

// An unscripted call: fail with a code the library turns into an exception
// carrying a message that names the call.
int32_t failUnscripted(State& s, const char* function) {
    std::string text = std::string("test transport: no scripted result for ") + function;
    if (!s.script.empty()) {
        text += " (next scripted: " + s.script.front().function + ")";
    }
    std::fprintf(stderr, "%s\n", text.c_str());
    s.hasMessage = true;
    s.message = text;
    s.lastErrorResult = 0;
    return kUnscripted;
}

void record(State& s, const char* function, const std::string& text, int32_t result,
            bool header = false) {
    s.records.push_back(Record{TransportCall{function, text, result}, s.exchange, header});
}

// Strict functions take their result from the script or fail.
int32_t scripted(const char* function) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    Entry entry;
    int32_t result = take(s, function, entry) ? entry.code : failUnscripted(s, function);
    record(s, function, "", result);
    return result;
}

// Lenient functions succeed with 0 unless the next entry is theirs.
int32_t lenient(const char* function, const std::string& text = "") {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    Entry entry;
    int32_t result = take(s, function, entry) ? entry.code : 0;
    record(s, function, text, result);
    return result;
}

}  // namespace

void TestTransport::reset() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.script.clear();
    s.records.clear();
    s.phase = Phase::Idle;
    s.exchange = -1;
    s.receivedSinceHeader = false;
    s.hasMessage = false;
    s.message.clear();
    s.lastErrorResult = 0;
}

void TestTransport::expectExchange(const std::string& response) {
    pushResult("AvQvl_SendNoAck", 0);
    pushResult("AvQvl_SendEOF", 0);
    pushResult("AvQvl_Receive", 19);
    {
        State& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.script.push_back(Entry{"AvQvl_SendNoAck", 1, "", true});
    }
    pushResult("AvQvl_SendEOF", 0);
    pushResult("AvQvl_Receive", 20);
    for (size_t at = 0; at < response.size(); at += kPieceLimit) {
        pushResponse(response.substr(at, kPieceLimit));
    }
    pushResult("AvQvl_Receive", -1);
}

void TestTransport::pushResult(const std::string& function, int32_t code) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.script.push_back(Entry{function, code, "", false});
}

void TestTransport::pushResponse(const std::string& bytes) {
    if (bytes.size() > static_cast<size_t>(kPieceLimit)) {
        throw std::invalid_argument("test transport: a response piece holds at most " +
                                    std::to_string(kPieceLimit) + " bytes");
    }
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.script.push_back(Entry{"AvQvl_Receive", static_cast<int32_t>(bytes.size()), bytes, false});
}

void TestTransport::setLastError(const char* message, int32_t result) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.hasMessage = message != nullptr;
    s.message = message != nullptr ? message : "";
    s.lastErrorResult = result;
}

std::vector<TransportCall> TestTransport::calls() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<TransportCall> out;
    for (const Record& r : s.records) {
        out.push_back(r.call);
    }
    return out;
}

std::vector<std::string> TestTransport::functions() {
    std::vector<std::string> out;
    for (const TransportCall& call : calls()) {
        out.push_back(call.function);
    }
    return out;
}

std::vector<std::string> TestTransport::headerBlocks() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<std::string> out;
    for (const Record& r : s.records) {
        if (r.header) {
            out.push_back(r.call.text);
        }
    }
    return out;
}

std::vector<std::string> TestTransport::bodies() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<std::string> out(static_cast<size_t>(s.exchange + 1));
    for (const Record& r : s.records) {
        if (!r.header && r.exchange >= 0 && r.call.function == "AvQvl_SendNoAck") {
            out[static_cast<size_t>(r.exchange)] += r.call.text;
        }
    }
    return out;
}

bool TestTransport::scriptDone() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return std::all_of(s.script.begin(), s.script.end(), [](const Entry& e) { return e.repeat; });
}

}  // namespace Testing
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

using namespace Arvant::Net::AvQuorvel::Testing;

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_Init(AvQvlAllocFn allocate, AvQvlFreeFn release) {
    // Recorded as "malloc,free" when handed the runtime's pair.
    bool runtimePair = allocate == &std::malloc && release == &std::free;
    return lenient("AvQvl_Init", runtimePair ? "malloc,free" : "");
}

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_Term(void) {
    return lenient("AvQvl_Term");
}

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_Complete(void) {
    State& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.phase = Phase::Idle;
    }
    return lenient("AvQvl_Complete");
}

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_Send(const char* text) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    Entry entry;
    int32_t result = take(s, "AvQvl_Send", entry) ? entry.code : failUnscripted(s, "AvQvl_Send");
    record(s, "AvQvl_Send", text != nullptr ? text : "", result);
    return result;
}

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_SendNoAck(const char* text) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    Entry entry;
    int32_t result =
        take(s, "AvQvl_SendNoAck", entry) ? entry.code : failUnscripted(s, "AvQvl_SendNoAck");
    bool header = s.phase == Phase::Idle;
    if (header) {
        ++s.exchange;
        s.phase = Phase::Handshake;
        s.receivedSinceHeader = false;
    }
    record(s, "AvQvl_SendNoAck", text != nullptr ? text : "", result, header);
    if (result <= -1) {
        s.phase = Phase::Idle;
    }
    return result;
}

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_SendEOF(void) {
    int32_t result = scripted("AvQvl_SendEOF");
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    // Only a failure after the body ends the exchange; after the header block
    // the library does not look at this result.
    if (result <= -1 && s.receivedSinceHeader) {
        s.phase = Phase::Idle;
    }
    return result;
}

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_Receive(char* buffer) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    Entry entry;
    int32_t result =
        take(s, "AvQvl_Receive", entry) ? entry.code : failUnscripted(s, "AvQvl_Receive");
    if (buffer != nullptr && !entry.bytes.empty()) {
        std::memcpy(buffer, entry.bytes.data(),
                    std::min(entry.bytes.size(), static_cast<size_t>(kPieceLimit)));
    }
    record(s, "AvQvl_Receive", "", result);
    if (s.phase == Phase::Handshake) {
        s.receivedSinceHeader = true;
        if (result == AVQVL_REQUEST_COMPLETE || result == 0) {
            s.phase = Phase::Response;
        } else if (result != AVQVL_SEND_BODY) {
            s.phase = Phase::Idle;
        }
    } else if (s.phase == Phase::Response && (result < 0 || result > kPieceLimit)) {
        s.phase = Phase::Idle;
    }
    return result;
}

AVQVL_TEST_TRANSPORT_API int32_t AvQvl_GetLastError(char** message) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (message != nullptr && s.hasMessage) {
        *message = s.message.data();
    }
    record(s, "AvQvl_GetLastError", "", s.lastErrorResult);
    return s.lastErrorResult;
}
