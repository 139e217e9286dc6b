#include "transport/internal/HttpConnection.h"

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>

#include "transport/internal/HttpAnswer.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
using tcp = asio::ip::tcp;

// The most Beast's read takes from the socket at once.
constexpr std::size_t kReadBufferBytes = 64 * 1024;

HttpOutcome faulted(HttpFault fault, const std::string& detail, bool answerStarted = false) {
    HttpOutcome outcome;
    outcome.fault = fault;
    outcome.detail = detail;
    outcome.answerStarted = answerStarted;
    return outcome;
}

// What a failed write or read means for the exchange.
HttpOutcome classify(const error_code& ec, bool answerStarted) {
    if (ec == asio::error::timed_out) {
        return faulted(HttpFault::timedOut, ec.message(), answerStarted);
    }
    if (ec == http::error::body_limit) {
        return faulted(HttpFault::tooLarge, ec.message(), answerStarted);
    }
    if (ec == http::error::end_of_stream || ec == asio::error::eof ||
        ec == asio::ssl::error::stream_truncated) {
        return faulted(HttpFault::lost,
                       answerStarted ? "the service closed the connection before the answer "
                                       "was complete"
                                     : "the service closed the connection without answering",
                       answerStarted);
    }
    if (ec == http::error::partial_message) {
        return faulted(HttpFault::lost,
                       "the service closed the connection before the answer was complete",
                       answerStarted);
    }
    if (ec.category() == http::make_error_code(http::error::bad_version).category()) {
        return faulted(HttpFault::malformed, ec.message(), answerStarted);
    }
    return faulted(HttpFault::lost, ec.message(), answerStarted);
}

// A write the daemon broke by closing: its answer may be waiting to be read.
bool peerClosed(const error_code& ec) {
    return ec == asio::error::broken_pipe || ec == asio::error::connection_reset;
}

// Whether the bytes that came back start with a TLS record header: a handshake
// (22) or an alert (21), then major version 3. A server speaking TLS sends one
// of them, or just closes, when a plain HTTP request reaches it.
bool isTlsRecord(const boost::beast::flat_buffer& bytes) {
    const auto* start = static_cast<const unsigned char*>(bytes.data().data());
    const std::size_t size = bytes.size();
    return size != 0 && (start[0] == 0x16 || start[0] == 0x15) && (size < 2 || start[1] == 0x03);
}

}  // namespace

HttpConnection::HttpConnection(const HttpUrl& url, asio::ssl::context* tls)
    : url(url), tls(tls), socket(io) {
    // Beast reads as much as the buffer has room for (at least 512 bytes, at
    // most 64 KiB), and the parser takes each piece at once, so the buffer never
    // grows by itself: without this room a 1 MiB answer took 2048 reads.
    readBuffer.reserve(kReadBufferBytes);
}

HttpConnection::~HttpConnection() {
    close();
}

void HttpConnection::close() {
    // No TLS close_notify: the daemon reads a closed connection as the end
    // either way, and waiting for its reply would only delay the caller.
    tlsStream.reset();
    socket.close();
    readBuffer.clear();
}

HttpOutcome HttpConnection::exchange(const std::string& body, std::string& answerBody,
                                     DeadlineClock::time_point exchangeBy,
                                     DeadlineClock::duration connectTimeout,
                                     std::uint64_t maxAnswerBytes) {
    if (!isOpen()) {
        const HttpOutcome connected =
            connect(std::min(exchangeBy, DeadlineClock::now() + connectTimeout));
        if (connected.fault != HttpFault::none) {
            close();
            return connected;
        }
    }
    socket.setDeadline(exchangeBy);
    HttpOutcome outcome = tlsStream ? transfer(*tlsStream, body, answerBody, maxAnswerBytes)
                                    : transfer(socket, body, answerBody, maxAnswerBytes);
    if (outcome.fault != HttpFault::none) {
        close();
    }
    return outcome;
}

HttpOutcome HttpConnection::connect(DeadlineClock::time_point connectBy) {
    error_code ec;
    tcp::resolver resolver(io);
    const tcp::resolver::results_type addresses =
        resolver.resolve(url.host, url.port, tcp::resolver::numeric_service, ec);
    if (ec) {
        return faulted(HttpFault::unresolved,
                       "cannot resolve the host name \"" + url.host + "\": " + ec.message());
    }
    std::string tried;
    for (const auto& address : addresses) {
        ec = socket.connect(address.endpoint(), connectBy);
        if (!ec) {
            return tls != nullptr ? handshake(connectBy) : HttpOutcome();
        }
        if (ec == asio::error::timed_out) {
            return faulted(HttpFault::connectTimedOut, ec.message());
        }
        tried += (tried.empty() ? "" : "; ") + address.endpoint().address().to_string() + " port " +
                 url.port + ": " + ec.message();
    }
    return faulted(HttpFault::refused, tried);
}

HttpOutcome HttpConnection::handshake(DeadlineClock::time_point connectBy) {
    tlsStream.reset(new asio::ssl::stream<DeadlineSocket&>(socket, *tls));
    SSL* const ssl = tlsStream->native_handle();
    X509_VERIFY_PARAM* const checks = SSL_get0_param(ssl);
    // The certificate must name the host of the URL: its address, or its name,
    // which also travels as SNI so a server with several names picks the right one.
    const bool named = url.hostIsAddress
                           ? X509_VERIFY_PARAM_set1_ip_asc(checks, url.host.c_str()) == 1
                           : X509_VERIFY_PARAM_set1_host(checks, url.host.c_str(), 0) == 1 &&
                                 SSL_set_tlsext_host_name(ssl, url.host.c_str()) == 1;
    if (!named) {
        return faulted(HttpFault::tlsFailed, "cannot check certificates for \"" + url.host + "\"");
    }
    X509_VERIFY_PARAM_set_hostflags(checks, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    socket.setDeadline(connectBy);
    error_code ec;
    tlsStream->handshake(asio::ssl::stream_base::client, ec);
    if (!ec) {
        return HttpOutcome();
    }
    const long verified = SSL_get_verify_result(ssl);
    if (verified != X509_V_OK) {
        return faulted(HttpFault::untrusted, X509_verify_cert_error_string(verified));
    }
    if (ec == asio::error::timed_out) {
        return faulted(HttpFault::connectTimedOut, ec.message());
    }
    return faulted(HttpFault::tlsFailed, ec.message());
}

template <typename Stream>
HttpOutcome HttpConnection::transfer(Stream& stream, const std::string& body,
                                     std::string& answerBody, std::uint64_t maxAnswerBytes) {
    error_code writeFailed;
    const std::array<asio::const_buffer, 2> request = {asio::buffer(head), asio::buffer(body)};
    asio::write(stream, request, writeFailed);
    if (writeFailed && !peerClosed(writeFailed)) {
        return classify(writeFailed, false);
    }
    error_code ec;
    HttpAnswer answer(answerBody, maxAnswerBytes);
    http::read(stream, readBuffer, answer, ec);
    const bool answerStarted = answer.got_some() || readBuffer.size() != 0;
    // Until the head is whole the parser consumes nothing, so the buffer then
    // starts with the first byte that came back.
    if (ec && tls == nullptr && !answer.is_header_done() && isTlsRecord(readBuffer)) {
        return faulted(HttpFault::speaksTls, "the service speaks TLS: use https://", true);
    }
    if (ec) {
        return classify(writeFailed ? writeFailed : ec, answerStarted);
    }
    // Only a refusal answers a request that did not go out whole; anything
    // else after a broken write cannot be this request's answer.
    if (writeFailed && answer.status() < 400) {
        return classify(writeFailed, true);
    }
    // After a broken write the connection is done. Bytes beyond the answer
    // belong to no exchange of ours: the connection's state is unknown, so the
    // next exchange starts on a new one.
    if (writeFailed || !answer.keep_alive() || readBuffer.size() != 0) {
        close();
    }
    HttpOutcome outcome;
    outcome.answerStarted = true;
    outcome.status = answer.status();
    outcome.bodyBytes = answer.bodyBytes();
    outcome.lastSequence = answer.lastSequence();
    outcome.eventsBytes = answer.eventsBytes();
    return outcome;
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
