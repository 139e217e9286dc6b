// One thread's connection to the daemon: a kept-alive TCP socket (TLS over it
// for https://), with the buffers it reuses from one exchange to the next so a
// steady stream of exchanges allocates next to nothing. It connects on demand
// and reports each exchange as an HttpOutcome; turning that into a transport
// code and message, and deciding to retry, is the backend's job.
//
// Not thread-safe: each thread has its own (HttpBackend.cpp keeps one per
// thread). Does not throw except std::bad_alloc. The TLS context, when there is
// one, is shared and must outlive every connection made while it is in use.
#ifndef AVQVL_TRANSPORT_INTERNAL_HTTPCONNECTION_H
#define AVQVL_TRANSPORT_INTERNAL_HTTPCONNECTION_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "transport/internal/DeadlineSocket.h"
#include "transport/internal/HttpUrl.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

enum class HttpFault {
    none,             // an answer arrived whole (any status)
    unresolved,       // the host name did not resolve
    refused,          // no address of the host accepted the connection
    connectTimedOut,  // no connection within the connect time-out
    untrusted,        // the daemon's certificate did not verify
    tlsFailed,        // the TLS handshake failed for another reason
    timedOut,         // no whole answer within the exchange time-out
    lost,             // the connection closed or broke before the answer was whole
    malformed,        // the bytes that came back are not an HTTP answer
    tooLarge,         // the answer's body is over the limit
    speaksTls,        // a plain request was answered with TLS: the URL wants https://
};

struct HttpOutcome {
    HttpFault fault = HttpFault::none;
    bool answerStarted = false;   // at least one byte of the answer arrived
    int status = 0;               // with HttpFault::none
    std::uint64_t bodyBytes = 0;  // the body as it came (more than kept when an error was cut)
    std::string detail;           // the system's or library's words for a fault
    std::string lastSequence;     // the answer's Quorvel-Last-Sequence, as it came
    std::string eventsBytes;      // the answer's Quorvel-Events-Bytes, as it came
};

class HttpConnection {
public:
    // tls is null for http://.
    HttpConnection(const HttpUrl& url, boost::asio::ssl::context* tls);
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    bool isOpen() const { return socket.isOpen(); }
    void close();

    // The request head is composed here by the caller, so its buffer is reused.
    std::string& requestHead() { return head; }

    // Sends requestHead() and body, and reads the answer's body into answerBody.
    // When no connection is open, connects first, within connectTimeout and
    // before exchangeBy. After any fault the connection is closed. A daemon that
    // refuses a request while it is still being sent (a body over its limit)
    // answers and closes: a write that breaks is followed by a read, and an
    // error answer found whole is the outcome (the connection is closed then too).
    HttpOutcome exchange(const std::string& body, std::string& answerBody,
                         DeadlineClock::time_point exchangeBy,
                         DeadlineClock::duration connectTimeout, std::uint64_t maxAnswerBytes);

private:
    HttpOutcome connect(DeadlineClock::time_point connectBy);
    HttpOutcome handshake(DeadlineClock::time_point connectBy);
    template <typename Stream>
    HttpOutcome transfer(Stream& stream, const std::string& body, std::string& answerBody,
                         std::uint64_t maxAnswerBytes);

    const HttpUrl url;
    boost::asio::ssl::context* const tls;
    boost::asio::io_context io;
    DeadlineSocket socket;
    std::unique_ptr<boost::asio::ssl::stream<DeadlineSocket&>> tlsStream;
    boost::beast::flat_buffer readBuffer;
    std::string head;
};

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_HTTPCONNECTION_H
