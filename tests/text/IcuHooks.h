// Test doubles around ICU, shared by the conversion tests. The test executable
// defines ucnv_open, ucnv_close, ucnv_toUnicode, ucnv_fromUnicode and
// ucnv_getType itself; the library binds to these, which forward to ICU and can
// make one numbered call fail. Used as a namespace.
#ifndef AVQVL_TESTS_TEXT_ICUHOOKS_H
#define AVQVL_TESTS_TEXT_ICUHOOKS_H

#include <unicode/utypes.h>

#include <utility>

// The calls counted since IcuHooks::reset(), and which of them fail: the
// call's number, from 1 (0 for none), and the status it ends with.
struct IcuHookState {
    int openCalls = 0, toUnicodeCalls = 0, fromUnicodeCalls = 0;
    std::pair<int, UErrorCode> openFailure, toUnicodeFailure, fromUnicodeFailure;
};

struct IcuHooks {
    // Makes ucnv_open(NULL), ICU's default converter, open `name` instead; null
    // restores ICU's own. ICU built with U_CHARSET_IS_UTF8 (the Linux default)
    // ignores ucnv_setDefaultName, so tests choose a code page this way.
    static void setDefaultConverter(const char* name) { defaultConverter = name; }
    // Resets counters and injections; the default converter stays as set.
    static void reset() { state = {}; }
    // A failed open gives no converter; a failed conversion has its status overwritten.
    static void injectOpen(int call, UErrorCode status) { state.openFailure = {call, status}; }
    static void injectToUnicode(int call, UErrorCode s) { state.toUnicodeFailure = {call, s}; }
    static void injectFromUnicode(int call, UErrorCode s) { state.fromUnicodeFailure = {call, s}; }

    static inline IcuHookState state;
    static inline const char* defaultConverter = nullptr;
    static inline int open = 0;  // converters opened and not closed yet, never reset
    // Makes ucnv_getType report no UTF-8 converter, which turns off the
    // library's copy of UTF-8 to UTF-8.
    static inline bool hideUtf8Type = false;
};

#endif  // AVQVL_TESTS_TEXT_ICUHOOKS_H
