#include "transport/internal/Exchange.h"

#include <algorithm>
#include <cstring>

#include "transport/internal/HeaderBlock.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

// A successful SendNoAck answers 1: above 0 lets a client's body loop go on.
constexpr int32_t acceptedReply = 1;

void Exchange::abandon() {
    phase = Phase::idle;
    headerText.clear();
    headers.clear();
    body.clear();
    response.clear();
    responseOffset = 0;
    pendingCode = 0;
    pendingMessage.clear();
}

int32_t Exchange::fail(int32_t code, const std::string& message, std::string& error) {
    abandon();
    error = message;
    return code;
}

// A failure found at SendEOF after the header block, whose result clients do not
// examine, is reported again by the next Receive, SendEOF or Complete so it cannot
// go unnoticed; a new header block instead starts a new exchange.
int32_t Exchange::reportPendingFailure(std::string& error) {
    const int32_t code = pendingCode;
    const std::string message = pendingMessage;
    return fail(code, message, error);
}

int32_t Exchange::sendText(const char* text, std::string& error) {
    if (text == nullptr) {
        return fail(AVQVL_REFUSED, "AvQvl_SendNoAck was given no text.", error);
    }
    const std::size_t length = std::strlen(text);
    // After a failure SendEOF has reported, or a response the client stopped
    // reading (it abandons an exchange without AvQvl_Complete when it throws while
    // collecting or converting the response), the text is a new header block.
    if (phase == Phase::failed || phase == Phase::responding || phase == Phase::finished) {
        abandon();
    }
    switch (phase) {
        case Phase::idle:
            phase = Phase::headers;
            [[fallthrough]];
        case Phase::headers:
            if (headerText.size() + length > kMaxHeaderBlockBytes) {
                return fail(AVQVL_LIMIT,
                            "The header block is longer than " +
                                std::to_string(kMaxHeaderBlockBytes) + " bytes.",
                            error);
            }
            headerText.append(text, length);
            return acceptedReply;
        case Phase::headersEnded:
            return fail(AVQVL_REFUSED,
                        "Body text was sent before the service asked for it (AvQvl_Receive "
                        "after the header block).",
                        error);
        case Phase::body:
            if (body.size() + length > backend.maxBodyBytes()) {
                return fail(AVQVL_LIMIT,
                            "The request body is longer than " +
                                std::to_string(backend.maxBodyBytes()) + " bytes.",
                            error);
            }
            body.append(text, length);
            return acceptedReply;
        case Phase::failed:
        case Phase::bodyEnded:
        case Phase::responding:
        case Phase::finished:
            break;
    }
    return fail(AVQVL_REFUSED,
                "Text was sent after the request body had ended; the exchange is abandoned.",
                error);
}

int32_t Exchange::endOfInput(std::string& error) {
    switch (phase) {
        case Phase::headers: {
            std::string problem;
            if (!parseHeaderBlock(headerText, headers, problem)) {
                abandon();
                phase = Phase::failed;
                pendingCode = AVQVL_REFUSED;
                pendingMessage = problem;
                error = problem;
                return AVQVL_REFUSED;
            }
            headerText.clear();
            phase = Phase::headersEnded;
            return 0;
        }
        case Phase::body:
            phase = Phase::bodyEnded;
            return 0;
        case Phase::failed:
            return reportPendingFailure(error);
        case Phase::idle:
            return fail(AVQVL_REFUSED, "AvQvl_SendEOF was called with no exchange open.", error);
        case Phase::headersEnded:
        case Phase::bodyEnded:
        case Phase::responding:
        case Phase::finished:
            break;
    }
    return fail(AVQVL_REFUSED, "AvQvl_SendEOF was called twice, or after the request had ended.",
                error);
}

int32_t Exchange::receive(char* buffer, std::string& error) {
    if (buffer == nullptr) {
        return fail(AVQVL_REFUSED, "AvQvl_Receive was given no buffer.", error);
    }
    switch (phase) {
        case Phase::idle:
            return fail(AVQVL_REFUSED, "AvQvl_Receive was called with no exchange open.", error);
        case Phase::headers:
            return fail(AVQVL_REFUSED,
                        "AvQvl_Receive was called before the header block was ended with "
                        "AvQvl_SendEOF.",
                        error);
        case Phase::headersEnded:
            phase = Phase::body;
            return AVQVL_SEND_BODY;
        case Phase::body:
            return fail(AVQVL_REFUSED,
                        "AvQvl_Receive was called before the body was ended with AvQvl_SendEOF.",
                        error);
        case Phase::bodyEnded: {
            BackendFailure failure;
            std::string answer;
            answer.swap(response);  // the last answer's buffer: no fresh pages to fault in
            if (!backend.exchange(headers, body, answer, failure)) {
                // Codes of -1 and above mean something else to a client.
                const int32_t code = failure.code < -1 ? failure.code : AVQVL_REFUSED;
                return fail(code, failure.message, error);
            }
            abandon();
            response.swap(answer);
            phase = Phase::responding;
            return AVQVL_REQUEST_COMPLETE;
        }
        case Phase::responding: {
            const std::size_t count =
                std::min<std::size_t>(AVQVL_RECEIVE_BUFFER_BYTES, response.size() - responseOffset);
            if (count == 0) {
                phase = Phase::finished;
                response.clear();
                if (response.capacity() > kKeptResponseBytes) {
                    std::string().swap(response);
                }
                return AVQVL_END_OF_RESPONSE;
            }
            std::memcpy(buffer, response.data() + responseOffset, count);
            responseOffset += count;
            return static_cast<int32_t>(count);
        }
        case Phase::finished:
            return AVQVL_END_OF_RESPONSE;
        case Phase::failed:
            return reportPendingFailure(error);
    }
    return fail(AVQVL_REFUSED, "The exchange is in an unknown state.", error);
}

int32_t Exchange::complete(std::string& error) {
    switch (phase) {
        case Phase::finished:
            abandon();
            return 0;
        case Phase::idle:
            return fail(AVQVL_REFUSED, "AvQvl_Complete was called with no exchange open.", error);
        case Phase::failed:
            return reportPendingFailure(error);
        default:
            return fail(AVQVL_REFUSED,
                        "AvQvl_Complete was called before the response was read to its end; the "
                        "exchange is abandoned.",
                        error);
    }
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
