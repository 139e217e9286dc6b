/// @file
/// The transport library's C interface: eight plain functions through which the
/// client library hands over header blocks and bodies and reads responses back.
/// All results are signed 32-bit integers; texts are NUL-terminated UTF-8.
#ifndef AVQVL_TRANSPORT_AVQVLBINDING_H
#define AVQVL_TRANSPORT_AVQVLBINDING_H

#include <stddef.h>
#include <stdint.h>

#include "protocol/ResultCodes.h" /* the results and failure codes */

#ifdef __cplusplus
extern "C" {
#endif

// Exchanges are per calling thread: each thread has its own exchange (header
// block, body, response) and its own last-error message, so any number of
// threads may run exchanges at once, each its own. AvQvl_Init and AvQvl_Term
// keep one process-wide count and may be called from any thread. A message
// from AvQvl_GetLastError belongs to the transport and stays valid until the
// same thread's next failing call. No function throws: failures are results.
//
// AvQvl_Init may be called once per connection; each call is counted and
// AvQvl_Term takes one back. The allocator pair is accepted but not used: the
// transport allocates through the C++ runtime and hands the caller no memory to free.

typedef void* (*AvQvlAllocFn)(size_t);  ///< an allocator, as malloc
typedef void (*AvQvlFreeFn)(void*);     ///< its release, as free
/// Starts the transport (counted); 0 on success.
int32_t AvQvl_Init(AvQvlAllocFn allocate, AvQvlFreeFn release);
/// Takes back one AvQvl_Init; 0 on success, a failure code when none is left.
int32_t AvQvl_Term(void);
/// Hands over the next piece of the header block or body; a reply code or a failure.
int32_t AvQvl_Send(const char* text);
/// As AvQvl_Send, without waiting for an acknowledgement.
int32_t AvQvl_SendNoAck(const char* text);
/// Ends the header block, then the body.
int32_t AvQvl_SendEOF(void);
/// Writes the next piece of the response, at most AVQVL_RECEIVE_BUFFER_BYTES;
/// its length, a reply code, AVQVL_END_OF_RESPONSE or a failure code.
int32_t AvQvl_Receive(char* buffer);
/// Ends the exchange, ready for the next one.
int32_t AvQvl_Complete(void);
/// Points `message` at the calling thread's last failure message, which stays the transport's.
int32_t AvQvl_GetLastError(char** message);

#ifdef __cplusplus
}
#endif

#endif  // AVQVL_TRANSPORT_AVQVLBINDING_H
