#include "IcuHooks.h"

#include <dlfcn.h>
#include <unicode/ucnv.h>

// ICU renames its entry points by version; REAL(f) finds the one behind f.
#define ICU_HOOK_NAME2(x) #x
#define ICU_HOOK_NAME(x) ICU_HOOK_NAME2(x)
#define REAL(f) reinterpret_cast<decltype(&f)>(dlsym(RTLD_NEXT, ICU_HOOK_NAME(f)))

namespace {

IcuHookState& state = IcuHooks::state;

// Counts a call; for the injected one, overwrites the status and says so.
bool injected(int& calls, const std::pair<int, UErrorCode>& injection, UErrorCode* status) {
    if (++calls != injection.first) {
        return false;
    }
    *status = injection.second;
    return true;
}

}  // namespace

extern "C" {

UConverter* ucnv_open(const char* name, UErrorCode* status) {
    static const auto open = REAL(ucnv_open);
    if (injected(state.openCalls, state.openFailure, status)) {
        return nullptr;
    }
    UConverter* converter = open(name != nullptr ? name : IcuHooks::defaultConverter, status);
    IcuHooks::open += converter != nullptr;
    return converter;
}

void ucnv_close(UConverter* converter) {
    static const auto close = REAL(ucnv_close);
    IcuHooks::open -= converter != nullptr;
    close(converter);
}

void ucnv_toUnicode(UConverter* converter, UChar** target, const UChar* targetLimit,
                    const char** source, const char* sourceLimit, int32_t* offsets, UBool flush,
                    UErrorCode* status) {
    static const auto toUnicode = REAL(ucnv_toUnicode);
    toUnicode(converter, target, targetLimit, source, sourceLimit, offsets, flush, status);
    injected(state.toUnicodeCalls, state.toUnicodeFailure, status);
}

void ucnv_fromUnicode(UConverter* converter, char** target, const char* targetLimit,
                      const UChar** source, const UChar* sourceLimit, int32_t* offsets, UBool flush,
                      UErrorCode* status) {
    static const auto fromUnicode = REAL(ucnv_fromUnicode);
    fromUnicode(converter, target, targetLimit, source, sourceLimit, offsets, flush, status);
    injected(state.fromUnicodeCalls, state.fromUnicodeFailure, status);
}

UConverterType ucnv_getType(const UConverter* converter) {
    static const auto getType = REAL(ucnv_getType);
    const UConverterType type = getType(converter);
    return IcuHooks::hideUtf8Type && type == UCNV_UTF8 ? UCNV_UNSUPPORTED_CONVERTER : type;
}

}  // extern "C"
