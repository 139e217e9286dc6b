// Test doubles around ICU, shared by the conversion tests. The test executable
// defines ucnv_open, ucnv_close, ucnv_toUnicode and ucnv_fromUnicode itself;
// the library binds to these, which count the calls, forward to ICU and can
// overwrite the status a conversion call returns. ICU's allocator is replaced
// by one that can be told to fail after a number of allocations.
#ifndef AVQVL_TESTS_TEXT_ICUHOOKS_H
#define AVQVL_TESTS_TEXT_ICUHOOKS_H

#include <unicode/utypes.h>

namespace IcuHooks {

struct Counters {
    int opened = 0;  // ucnv_open calls that returned a converter
    int openCalls = 0;
    int closed = 0;  // ucnv_close calls with a converter
    int toUnicodeCalls = 0;
    int fromUnicodeCalls = 0;
};

// Makes ucnv_open(NULL), ICU's default converter, open `name` instead; null
// restores ICU's own default. ICU built with U_CHARSET_IS_UTF8 (the Linux
// default) ignores ucnv_setDefaultName, so tests choose a code page this way.
void setDefaultConverter(const char* name);

// Resets counters and injections; the default converter stays as set.
void reset();
const Counters& counters();

// Overwrites the status of the call with this 1-based number.
void injectToUnicode(int call, UErrorCode status);
void injectFromUnicode(int call, UErrorCode status);

// Lets `count` more ICU allocations succeed, then fails them; -1 lifts the limit.
void limitAllocations(int count);
// Allocations made since the last reset().
int allocations();

}  // namespace IcuHooks

#endif  // AVQVL_TESTS_TEXT_ICUHOOKS_H
