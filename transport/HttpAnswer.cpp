#include "transport/internal/HttpAnswer.h"

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <limits>

#include "protocol/Names.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

// The length of text without a last UTF-8 character that was cut short.
std::size_t wholeCharacters(const std::string& text) {
    const std::size_t end = text.size();
    std::size_t lead = end;
    while (lead > 0 && end - lead < 3 &&
           (static_cast<unsigned char>(text[lead - 1]) & 0xC0) == 0x80) {
        --lead;
    }
    if (lead == 0) {
        return end;
    }
    --lead;  // the byte that starts the last character
    const unsigned char first = static_cast<unsigned char>(text[lead]);
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
    return end - lead < length ? lead : end;
}

}  // namespace

HttpAnswer::HttpAnswer(std::string& body, std::uint64_t maxBodyBytes) : body(body) {
    body.clear();
    body_limit(maxBodyBytes);
    // The head of an answer is a few short lines; this bounds a broken one.
    header_limit(64 * 1024);
}

std::size_t HttpAnswer::keepLimit() const {
    return statusCode == 200 ? std::numeric_limits<std::size_t>::max() : kMaxKeptErrorBytes;
}

void HttpAnswer::keep(string_view bytes) {
    receivedBytes += bytes.size();
    const std::size_t room = keepLimit() - std::min(keepLimit(), body.size());
    body.append(bytes.data(), std::min(room, bytes.size()));
}

void HttpAnswer::on_field_impl(boost::beast::http::field, string_view name, string_view value,
                               error_code&) {
    if (boost::beast::iequals(name, Protocol::kLastSequenceHeader)) {
        lastSequenceText.assign(value.data(), value.size());
    } else if (boost::beast::iequals(name, Protocol::kEventsBytesHeader)) {
        eventsBytesText.assign(value.data(), value.size());
    }
}

void HttpAnswer::on_body_init_impl(const boost::optional<std::uint64_t>& length, error_code&) {
    // The whole body in one block when its length is announced (the parser has
    // already refused one over the limit).
    if (length) {
        body.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(*length, keepLimit())));
    }
}

std::size_t HttpAnswer::on_body_impl(string_view bytes, error_code&) {
    keep(bytes);
    return bytes.size();
}

std::size_t HttpAnswer::on_chunk_body_impl(std::uint64_t, string_view bytes, error_code&) {
    keep(bytes);
    return bytes.size();
}

void HttpAnswer::on_finish_impl(error_code&) {
    if (receivedBytes > body.size()) {
        body.resize(wholeCharacters(body));
    }
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
