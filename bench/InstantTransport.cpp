// The instant transport: one exchange at a time, driven by the results it hands out.
#include "InstantTransport.h"

#include <cstring>
#include <map>
#include <utility>

#include "protocol/Names.h"
#include "transport/AvQvlBinding.h"

#define INSTANT_TRANSPORT_API extern "C" __attribute__((visibility("default")))

namespace InstantTransport {
namespace {

namespace Protocol = Arvant::Net::AvQuorvel::Protocol;

constexpr std::size_t kPieceLimit = 16384;

enum class Phase { Idle, HeaderSent, Body, BodyDone, Response };

struct State {
    std::map<std::string, std::string> answers;
    Phase phase = Phase::Idle;
    const std::string* answer = nullptr;
    std::size_t offset = 0;
    std::size_t bodyBytes = 0;
};

State& state() {
    static State instance;
    return instance;
}

const std::string& emptyAnswer() {
    static const std::string empty;
    return empty;
}

// The answer for the operation named on the "Operation-Name" line of a header block.
const std::string* answerFor(const char* headerBlock) {
    static const std::string kField = std::string(Protocol::kOperationNameField) + "=";
    const char* at = std::strstr(headerBlock, kField.c_str());
    if (at == nullptr) {
        return &emptyAnswer();
    }
    at += kField.size();
    const char* end = std::strstr(at, "\r\n");
    const std::string operation(
        at, end != nullptr ? static_cast<std::size_t>(end - at) : std::strlen(at));
    auto found = state().answers.find(operation);
    return found != state().answers.end() ? &found->second : &emptyAnswer();
}

}  // namespace

std::string setAnswer(const std::string& operation, std::string answer) {
    std::swap(state().answers[operation], answer);
    return answer;
}

std::size_t takeBodyBytes() {
    const std::size_t bytes = state().bodyBytes;
    state().bodyBytes = 0;
    return bytes;
}

}  // namespace InstantTransport

using InstantTransport::Phase;

INSTANT_TRANSPORT_API int32_t AvQvl_Init(AvQvlAllocFn, AvQvlFreeFn) {
    return 0;
}

INSTANT_TRANSPORT_API int32_t AvQvl_Term(void) {
    return 0;
}

INSTANT_TRANSPORT_API int32_t AvQvl_Send(const char*) {
    return 0;
}

INSTANT_TRANSPORT_API int32_t AvQvl_SendNoAck(const char* text) {
    auto& s = InstantTransport::state();
    if (s.phase == Phase::Idle) {
        s.answer = InstantTransport::answerFor(text);
        s.phase = Phase::HeaderSent;
        return 0;
    }
    s.bodyBytes += std::strlen(text);
    return 1;
}

INSTANT_TRANSPORT_API int32_t AvQvl_SendEOF(void) {
    auto& s = InstantTransport::state();
    if (s.phase == Phase::Body) {
        s.phase = Phase::BodyDone;
    }
    return 0;
}

INSTANT_TRANSPORT_API int32_t AvQvl_Receive(char* buffer) {
    auto& s = InstantTransport::state();
    switch (s.phase) {
        case Phase::HeaderSent:
            s.phase = Phase::Body;
            return 19;
        case Phase::Body:
        case Phase::BodyDone:
            s.phase = Phase::Response;
            s.offset = 0;
            return 20;
        case Phase::Response: {
            const std::size_t left = s.answer->size() - s.offset;
            if (left == 0) {
                s.phase = Phase::Idle;
                return -1;
            }
            const std::size_t piece =
                left < InstantTransport::kPieceLimit ? left : InstantTransport::kPieceLimit;
            std::memcpy(buffer, s.answer->data() + s.offset, piece);
            s.offset += piece;
            return static_cast<int32_t>(piece);
        }
        case Phase::Idle:
            break;
    }
    return -3017;
}

INSTANT_TRANSPORT_API int32_t AvQvl_Complete(void) {
    InstantTransport::state().phase = Phase::Idle;
    return 0;
}

INSTANT_TRANSPORT_API int32_t AvQvl_GetLastError(char** message) {
    static char text[] = "instant transport: out of sequence";
    *message = text;
    return 0;
}
