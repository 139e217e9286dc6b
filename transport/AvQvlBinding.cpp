// Placeholder transport: every call fails with "not started" until a backend exists.
#include "transport/AvQvlBinding.h"

namespace {
char notStarted[] = "The Quorvel transport is not started";
}

extern "C" {
int32_t AvQvl_Init(AvQvlAllocFn, AvQvlFreeFn) { return -2999; }
int32_t AvQvl_Term(void) { return -2999; }
int32_t AvQvl_Send(const char*) { return -2999; }
int32_t AvQvl_SendNoAck(const char*) { return -2999; }
int32_t AvQvl_SendEOF(void) { return -2999; }
int32_t AvQvl_Receive(char*) { return -2999; }
int32_t AvQvl_Complete(void) { return 0; }
int32_t AvQvl_GetLastError(char** message) {
    *message = notStarted;
    return 0;
}
}
