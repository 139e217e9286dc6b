#include "transport/internal/HttpAnswer.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

HttpAnswer::HttpAnswer(std::string& body, std::uint64_t maxBodyBytes) : body(body) {
    body.clear();
    body_limit(maxBodyBytes);
    // The head of an answer is a few short lines; this bounds a broken one.
    header_limit(64 * 1024);
}

void HttpAnswer::on_body_init_impl(const boost::optional<std::uint64_t>& length, error_code&) {
    // The whole body in one block when its length is announced (the parser has
    // already refused one over the limit).
    if (length) {
        body.reserve(static_cast<std::size_t>(*length));
    }
}

std::size_t HttpAnswer::on_body_impl(string_view bytes, error_code&) {
    body.append(bytes.data(), bytes.size());
    return bytes.size();
}

std::size_t HttpAnswer::on_chunk_body_impl(std::uint64_t, string_view bytes, error_code&) {
    body.append(bytes.data(), bytes.size());
    return bytes.size();
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
