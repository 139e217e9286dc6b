/// @file
/// One exchange with the service over the transport: a sorted header block, a
/// body read from the caller's stream when the service asks for it, and the whole
/// response read back and decoded. Used once and discarded.
#ifndef AVQVL_CLIENT_AVQVLREQUEST_H
#define AVQVL_CLIENT_AVQVLREQUEST_H

#include <cstdint>
#include <istream>
#include <string>
#include <utility>
#include <vector>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Client {

/// A request owns its header copies and receive buffer and borrows the body
/// stream. send() throws the classes of Exception.h: transport failures through
/// throwTransportError, and a body or response that will not convert as
/// Utf8ConversionException. A request is used by one thread; requests on
/// distinct threads may run at once, since the transport keeps one exchange and
/// one last error per thread. Each thread keeps the buffer its largest response
/// was gathered in, up to 4 MiB, for its next one.
class AVQVL_EXPORT AvQVLRequest {
public:
    AvQVLRequest();
    ~AvQVLRequest();
    AvQVLRequest(const AvQVLRequest&) = delete;
    AvQVLRequest& operator=(const AvQVLRequest&) = delete;

    /// The first value given for a name wins.
    void addHeader(const char* name, const char* value);
    /// Not owned; must outlive send().
    void setRequestStream(std::istream* stream);
    /// Runs the exchange and returns the response in the default code page.
    std::string send();

private:
    std::string buildHeaderBlock() const;
    void sendHeaders();
    int32_t sendBody();
    std::string readResponse();

    char* receiveBuffer;
    std::istream* requestStream;
    // Sorted by name, one entry per name: a handful of headers, so a vector
    // searched in place costs less than a tree of nodes.
    std::vector<std::pair<std::string, std::string>> headers;
};

/// AvQvl_Init with malloc/free; any non-zero result throws.
AVQVL_EXPORT void initTransport();
/// AvQvl_Term; a negative result throws.
AVQVL_EXPORT void termTransport();
/// Throws the exception the transport code selects, with the last error message.
[[noreturn]] AVQVL_EXPORT void throwTransportError(int32_t code);
/// The calling thread's last failure message from the transport; "" before any.
AVQVL_EXPORT std::string getLastTransportError();

}  // namespace Client
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_CLIENT_AVQVLREQUEST_H
