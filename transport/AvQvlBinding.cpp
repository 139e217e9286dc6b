// The eight AvQvl_ functions. Start/stop counting and the last error live here;
// the phases of an exchange live in Exchange; the answers come from the active
// Backend (the embedded service by default).
// What is per thread and what is process-wide is stated in AvQvlBinding.h.
#include "transport/AvQvlBinding.h"

#include <atomic>
#include <exception>
#include <string>

#include "transport/internal/Backend.h"
#include "transport/internal/Exchange.h"

namespace {

using Arvant::Net::AvQuorvel::Transport::activeBackend;
using Arvant::Net::AvQuorvel::Transport::Exchange;

std::atomic<int32_t> startCount{0};

thread_local std::string lastError;

Exchange& threadExchange() {
    thread_local Exchange exchange(activeBackend());
    return exchange;
}

int32_t failWith(int32_t code, const std::string& message) {
    lastError = message;
    return code;
}

// Runs one exchange step once the transport is started; nothing escapes as a
// C++ exception.
template <typename Step>
int32_t guarded(const char* function, Step step) {
    try {
        if (startCount.load() <= 0) {
            threadExchange().abandon();
            return failWith(AVQVL_UNREACHABLE, std::string(function) +
                                                   " was called while the Quorvel transport "
                                                   "is not started (call AvQvl_Init first).");
        }
        std::string error;
        const int32_t result = step(threadExchange(), error);
        if (result < -1) {  // -1 is the end of a response, not a failure
            lastError = error;
        }
        return result;
    } catch (const std::bad_alloc&) {
        threadExchange().abandon();
        return failWith(AVQVL_LIMIT,
                        std::string(function) + " ran out of memory; the exchange is abandoned.");
    } catch (const std::exception& e) {
        threadExchange().abandon();
        return failWith(AVQVL_REFUSED, std::string(function) + " failed: " + e.what());
    }
}

}  // namespace

// The library is built with hidden visibility; the eight functions are the only
// ones it shows (exports.map then localises anything else).
#define AVQVL_TRANSPORT_API __attribute__((visibility("default")))

extern "C" {

// The allocator pair is accepted and not used: the transport's own allocations
// go through the C++ runtime, and nothing it allocates is handed to the caller.
AVQVL_TRANSPORT_API int32_t AvQvl_Init(AvQvlAllocFn, AvQvlFreeFn) {
    startCount.fetch_add(1);
    return 0;
}

AVQVL_TRANSPORT_API int32_t AvQvl_Term(void) {
    int32_t count = startCount.load();
    while (count > 0 && !startCount.compare_exchange_weak(count, count - 1)) {
    }
    if (count <= 0) {
        return failWith(AVQVL_UNREACHABLE,
                        "AvQvl_Term was called while the Quorvel transport is not started.");
    }
    return 0;
}

// Sending with acknowledgement is the same as without here: the embedded
// backend accepts every piece at once.
AVQVL_TRANSPORT_API int32_t AvQvl_Send(const char* text) {
    return guarded("AvQvl_Send", [&](Exchange& exchange, std::string& error) {
        return exchange.sendText(text, error);
    });
}

AVQVL_TRANSPORT_API int32_t AvQvl_SendNoAck(const char* text) {
    return guarded("AvQvl_SendNoAck", [&](Exchange& exchange, std::string& error) {
        return exchange.sendText(text, error);
    });
}

AVQVL_TRANSPORT_API int32_t AvQvl_SendEOF(void) {
    return guarded("AvQvl_SendEOF", [](Exchange& exchange, std::string& error) {
        return exchange.endOfInput(error);
    });
}

AVQVL_TRANSPORT_API int32_t AvQvl_Receive(char* buffer) {
    return guarded("AvQvl_Receive", [&](Exchange& exchange, std::string& error) {
        return exchange.receive(buffer, error);
    });
}

AVQVL_TRANSPORT_API int32_t AvQvl_Complete(void) {
    return guarded("AvQvl_Complete",
                   [](Exchange& exchange, std::string& error) { return exchange.complete(error); });
}

// The message is the calling thread's last failure; it stays valid until that
// thread's next failing call. Before any failure it is empty.
AVQVL_TRANSPORT_API int32_t AvQvl_GetLastError(char** message) {
    if (message == nullptr) {
        return AVQVL_REFUSED;
    }
    *message = const_cast<char*>(lastError.c_str());
    return 0;
}

}  // extern "C"
