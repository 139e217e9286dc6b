// A transport that answers at once and records nothing: the header block is
// accepted, the body is asked for (19) and accepted, the request completes (20)
// and the answer prepared for the operation named in the header block follows
// in pieces of 16384 bytes. What a call through it costs is the client
// library's own overhead.
//
// Its AvQvl_ functions are defined in the executable (exported), where they take
// precedence over those of the transport library.
#ifndef AVQVL_BENCH_INSTANTTRANSPORT_H
#define AVQVL_BENCH_INSTANTTRANSPORT_H

#include <string>

namespace InstantTransport {

// The UTF-8 answer to every request whose "Operation-Name" is `operation`;
// returns the answer it replaces, so a benchmark can put it back.
std::string setAnswer(const std::string& operation, std::string answer);
// Bytes of body the transport has been handed since the last call.
std::size_t takeBodyBytes();

}  // namespace InstantTransport

#endif  // AVQVL_BENCH_INSTANTTRANSPORT_H
