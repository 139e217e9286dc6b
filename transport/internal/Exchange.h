// One calling thread's exchange with the backend, driven by the AvQvl_ calls:
//
//   SendNoAck(header text)...  SendEOF   Receive -> 19
//   SendNoAck(body chunk)...   SendEOF   Receive -> 20 (the backend answers here)
//   Receive -> piece of at most AVQVL_RECEIVE_BUFFER_BYTES ... Receive -> -1   Complete
//
// A call that does not fit the phase fails with the protocol code; a body or
// header block over its limit fails with the limit code. Every failure returns
// the exchange to idle, so the next header block starts afresh; a malformed header
// block is also reported by the Receive that follows its SendEOF. Text sent while
// a response is still being handed out starts a new exchange: the client gave
// the old one up.
#ifndef AVQVL_TRANSPORT_INTERNAL_EXCHANGE_H
#define AVQVL_TRANSPORT_INTERNAL_EXCHANGE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "transport/internal/Backend.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

constexpr std::size_t kMaxHeaderBlockBytes = 64 * 1024;
// The buffer of an answer up to this size is kept for the thread's next one,
// so steady large answers reuse their memory; a larger one is given back.
constexpr std::size_t kKeptResponseBytes = 4 * 1024 * 1024;

class Exchange {
public:
    explicit Exchange(Backend& backend) : backend(backend) {}

    // Each returns the AvQvl_ result; a failure's message goes to error.
    int32_t sendText(const char* text, std::string& error);
    int32_t endOfInput(std::string& error);
    int32_t receive(char* buffer, std::string& error);
    int32_t complete(std::string& error);
    // Drops whatever is under way.
    void abandon();

private:
    enum class Phase {
        idle,
        headers,       // collecting the header block
        headersEnded,  // header block read; the next receive asks for the body
        body,          // collecting the body
        bodyEnded,     // the next receive runs the request
        responding,    // handing out the response
        finished,      // response read to its end; waiting for Complete
        failed         // a failure not yet reported by a receive
    };

    int32_t fail(int32_t code, const std::string& message, std::string& error);
    int32_t reportPendingFailure(std::string& error);

    Backend& backend;
    Phase phase = Phase::idle;
    std::string headerText;
    HeaderFields headers;
    std::string body;
    std::string response;
    std::size_t responseOffset = 0;
    int32_t pendingCode = 0;
    std::string pendingMessage;
};

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_EXCHANGE_H
