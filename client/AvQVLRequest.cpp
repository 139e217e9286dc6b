// One exchange over the transport, and the one place where a transport result
// code becomes an exception.
#include "client/AvQVLRequest.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "client/Exception.h"
#include "transport/AvQvlBinding.h"
#include "util/Utf8.h"
#include "util/internal/CharacterBoundary.h"
#include "util/internal/Utf8InPlace.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Client {
namespace {

using Util::fromUtf8InPlace;
using Util::toUtf8;

constexpr int32_t kReceiveBufferSize = AVQVL_RECEIVE_BUFFER_BYTES;  // all AvQvl_Receive writes
constexpr std::streamsize kBodyBlockSize = 4098;
constexpr int32_t kMaxResponseSize = std::numeric_limits<int32_t>::max();
// The largest response buffer a thread keeps between exchanges, as the
// transport keeps its own.
constexpr size_t kKeptGatherBytes = 4u << 20;

}  // namespace

AvQVLRequest::AvQVLRequest()
    : receiveBuffer(new char[kReceiveBufferSize]), requestStream(nullptr) {}

AvQVLRequest::~AvQVLRequest() {
    delete[] receiveBuffer;
}

void AvQVLRequest::addHeader(const char* name, const char* value) {
    // A missing name cannot be sent; a missing value goes out as an empty one.
    if (name == nullptr) {
        throw AvQVLRuntimeException("A request header needs a name.");
    }
    if (headers.empty()) {
        headers.reserve(8);  // the most a connection sends; before any iterator is taken
    }
    auto at = headers.begin();
    while (at != headers.end() && at->first.compare(name) < 0) {
        ++at;
    }
    if (at != headers.end() && at->first.compare(name) == 0) {
        return;  // keeps the existing value
    }
    headers.emplace(at, name, value != nullptr ? value : "");
}

void AvQVLRequest::setRequestStream(std::istream* stream) {
    requestStream = stream;
}

std::string AvQVLRequest::send() {
    if (requestStream == nullptr) {
        throw AvQVLProtocolException("Failed to read the request stream.");
    }
    sendHeaders();

    int32_t rc = AvQvl_Receive(receiveBuffer);
    while (rc != AVQVL_REQUEST_COMPLETE && rc > 0) {
        // The service defines no positive reply besides 19 and 20 here, and
        // waiting would never end: treat any other as a failure code.
        if (rc != AVQVL_SEND_BODY) {
            throwTransportError(rc);
        }
        rc = sendBody();
    }
    if (rc <= -1) {
        throwTransportError(rc);
    }

    std::string response = readResponse();
    AvQvl_Complete();
    return response;
}

std::string AvQVLRequest::buildHeaderBlock() const {
    std::size_t size = 2;
    for (const auto& header : headers) {
        size += header.first.size() + header.second.size() + 3;
    }
    std::string block;
    block.reserve(size);  // one allocation; the "null" values only make it shorter
    for (const auto& header : headers) {
        block += header.first;
        block += '=';
        if (header.second != "null") {  // the service reads "null" as no value
            block += header.second;
        }
        block += "\r\n";
    }
    block += "\r\n";
    return block;
}

void AvQVLRequest::sendHeaders() {
    static const char* const kConversionFailed =
        "Exception occurred while converting to UTF-8 bytes.";
    const std::string block = buildHeaderBlock();
    if (block.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        throw AvQVLRuntimeException(kConversionFailed);
    }
    std::string utf8;
    try {
        utf8 = toUtf8(block.data(), static_cast<int32_t>(block.size()));
    } catch (const Utf8ConversionException&) {
        throw AvQVLRuntimeException(kConversionFailed);
    }
    int32_t rc = AvQvl_SendNoAck(utf8.c_str());
    if (rc <= -1) {
        throwTransportError(rc);
    }
    AvQvl_SendEOF();  // after the header block its result means nothing
}

int32_t AvQVLRequest::sendBody() {
    // Blocks of kBodyBlockSize bytes are converted one by one, and each reaches
    // the transport as a NUL-terminated text. A block never ends inside a
    // character: the bytes of one that does not fit wait at the start of the
    // next block, so each converts whole. Only the stream's last block may end
    // with a character cut short, and it converts as any such text would.
    Util::CharacterBoundary boundary;
    char block[kBodyBlockSize];
    std::size_t carried = 0;  // bytes of a cut character, at the start of block
    int32_t rc = 0;
    std::streamsize n = 0;
    do {
        const std::streamsize wanted = kBodyBlockSize - static_cast<std::streamsize>(carried);
        requestStream->read(block + carried, wanted);
        n = requestStream->gcount();
        const std::size_t filled = carried + static_cast<std::size_t>(n);
        if (filled > 0) {
            const bool last = n < wanted;  // end of stream, or it failed
            const std::size_t whole = last ? filled : boundary.wholeCharacters(block, filled);
            const std::string utf8 = toUtf8(block, static_cast<int32_t>(whole));
            rc = AvQvl_SendNoAck(utf8.c_str());
            carried = filled - whole;
            std::memmove(block, block + whole, carried);
        }
    } while (!requestStream->eof() && n != 0 && rc > 0);
    if (rc <= -1) {
        throwTransportError(rc);
    }
    rc = AvQvl_SendEOF();
    if (rc <= -1) {
        throwTransportError(rc);
    }
    return AvQvl_Receive(receiveBuffer);
}

std::string AvQVLRequest::readResponse() {
    // The pieces gather in a buffer the thread keeps for its next response, up
    // to kKeptGatherBytes: on a virtual machine a fresh page costs microseconds
    // to fault in, and a buffer grown afresh for every large answer touched
    // twice its size in new pages. The caller gets a copy of exactly its size;
    // an answer past the bound gives the caller the buffer itself instead.
    thread_local std::string gathered;
    gathered.clear();
    for (;;) {
        const int32_t length = static_cast<int32_t>(gathered.size());
        const int32_t n = AvQvl_Receive(receiveBuffer);
        if (n == AVQVL_END_OF_RESPONSE) {
            break;
        }
        if (n < AVQVL_END_OF_RESPONSE) {
            throwTransportError(n);
        }
        // Length is 32-bit: refuse a response that would not fit before
        // anything overflows.
        if (n > kMaxResponseSize - length) {
            throw AvQVLRuntimeException("Response exceeds the maximum size of " +
                                        std::to_string(kMaxResponseSize) + " bytes");
        }
        // The buffer's size is all the transport may write; never read past it.
        if (n > kReceiveBufferSize) {
            throw AvQVLProtocolException("The transport delivered " + std::to_string(n) +
                                         " bytes in one piece; at most " +
                                         std::to_string(kReceiveBufferSize) + " fit");
        }
        gathered.append(receiveBuffer, static_cast<size_t>(n));  // doubles as it grows
    }
    std::string response;
    if (gathered.capacity() <= kKeptGatherBytes) {
        response.assign(gathered);
    } else {
        response.swap(gathered);
        if (response.size() < response.capacity() / 2) {
            response.shrink_to_fit();  // the caller may keep it: at most half spare
        }
    }
    // Converted where it lies, so a large response is never held twice more.
    fromUtf8InPlace(response);
    return response;
}

void initTransport() {
    const int32_t rc = AvQvl_Init(&std::malloc, &std::free);
    if (rc != 0) {
        throwTransportError(rc);
    }
}

void termTransport() {
    const int32_t rc = AvQvl_Term();
    if (rc < 0) {
        throwTransportError(rc);
    }
}

void throwTransportError(int32_t code) {
    const std::string message = getLastTransportError();
    switch (code) {
        case AVQVL_OTHER_ANSWER:
        case AVQVL_REFUSED:
        case AVQVL_FOREIGN_PROTOCOL_FAILURE:
        case AVQVL_INIT_PROTOCOL_FAILURE:
            throw AvQVLProtocolException(message);
        case AVQVL_LIMIT:
        case AVQVL_FOREIGN_RESOURCE_FAILURE:
        case AVQVL_FOREIGN_RUNTIME_FAILURE:
        case AVQVL_INIT_RUNTIME_FAILURE:
            throw AvQVLRuntimeException(message);
        case AVQVL_FOREIGN_CONNECT_FAILURE:
        case AVQVL_UNREACHABLE:
        case AVQVL_TIMED_OUT:
        case AVQVL_CONNECTION_LOST:
        case AVQVL_TOKEN_REFUSED:
        case AVQVL_INIT_CONNECTION_FAILURE:
            throw AvQVLConnectionException(message);
        default:
            throw AvQVLUnrecognisedException(message);
    }
}

std::string getLastTransportError() {
    char* message = nullptr;
    const int32_t rc = AvQvl_GetLastError(&message);
    if (message == nullptr) {
        return rc != 0 ? "Could not retrieve last error message." : "No error message received";
    }
    // The text stays the transport's: copy it, never free it.
    return rc == 0 ? std::string(message) : std::string();
}

}  // namespace Client
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
