// Reads one answer of the daemon with Beast's HTTP parser: the status, whether
// the connection may serve another exchange, and the body, appended straight
// to the caller's string (of the head fields only the last sequence of a
// getEvents answer is kept: the backend needs no other). The body of an error answer (any status
// but 200) is a message for a person: only its first kMaxKeptErrorBytes are kept, cut where a UTF-8
// character ends; the rest is read and dropped, so the answer is still read
// whole and the connection may serve again. One parser per answer; it does not
// throw (failures come back through Beast's error_code), and it belongs to one
// thread.
#ifndef AVQVL_TRANSPORT_INTERNAL_HTTPANSWER_H
#define AVQVL_TRANSPORT_INTERNAL_HTTPANSWER_H

#include <boost/beast/http/basic_parser.hpp>
#include <string>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

constexpr std::size_t kMaxKeptErrorBytes = 64 * 1024;

class HttpAnswer : public boost::beast::http::basic_parser<false> {
public:
    // body must outlive the parser; it is cleared first. maxBodyBytes bounds
    // the body (Beast's body_limit error beyond it).
    HttpAnswer(std::string& body, std::uint64_t maxBodyBytes);

    int status() const { return statusCode; }
    // The body's length as it came: more than the body kept when an error
    // body was cut.
    std::uint64_t bodyBytes() const { return receivedBytes; }
    // The Quorvel-Last-Sequence line's value as it came; empty when absent.
    const std::string& lastSequence() const { return lastSequenceText; }
    // The Quorvel-Events-Bytes line's value as it came; empty when absent.
    const std::string& eventsBytes() const { return eventsBytesText; }

private:
    using string_view = boost::beast::string_view;
    using error_code = boost::beast::error_code;

    void on_request_impl(boost::beast::http::verb, string_view, string_view, int,
                         error_code&) override {}
    void on_response_impl(int code, string_view, int, error_code&) override { statusCode = code; }
    void on_field_impl(boost::beast::http::field, string_view name, string_view value,
                       error_code&) override;
    void on_header_impl(error_code&) override {}
    void on_body_init_impl(const boost::optional<std::uint64_t>& length, error_code&) override;
    std::size_t on_body_impl(string_view bytes, error_code&) override;
    void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, string_view bytes, error_code&) override;
    void on_finish_impl(error_code&) override;

    std::size_t keepLimit() const;
    void keep(string_view bytes);

    std::string& body;
    int statusCode = 0;
    std::uint64_t receivedBytes = 0;
    std::string lastSequenceText;
    std::string eventsBytesText;
};

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_TRANSPORT_INTERNAL_HTTPANSWER_H
