#include "IcuHooks.h"

#include <dlfcn.h>
#include <unicode/uclean.h>
#include <unicode/ucnv.h>

#include <cstdlib>

// ICU renames its entry points by version; these give the real names.
#define ICU_HOOK_NAME2(x) #x
#define ICU_HOOK_NAME(x) ICU_HOOK_NAME2(x)

namespace IcuHooks {
namespace {

Counters state;
const char* defaultConverter = nullptr;
int toUnicodeFailCall = 0;
UErrorCode toUnicodeFailStatus = U_ZERO_ERROR;
int fromUnicodeFailCall = 0;
UErrorCode fromUnicodeFailStatus = U_ZERO_ERROR;
int allocationBudget = -1;
int allocationCount = 0;

template <typename Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void* U_CALLCONV allocate(const void*, size_t size) {
    ++allocationCount;
    if (allocationBudget == 0) {
        return nullptr;
    }
    if (allocationBudget > 0) {
        --allocationBudget;
    }
    return std::malloc(size);
}

void* U_CALLCONV reallocate(const void*, void* block, size_t size) {
    return std::realloc(block, size);
}

void U_CALLCONV release(const void*, void* block) {
    std::free(block);
}

// Installed before any test runs; blocks ICU allocated earlier came from
// malloc too, so release() frees them correctly.
struct AllocatorInstaller {
    AllocatorInstaller() {
        UErrorCode status = U_ZERO_ERROR;
        u_setMemoryFunctions(nullptr, allocate, reallocate, release, &status);
        if (U_FAILURE(status)) {
            std::abort();
        }
    }
} installer;

}  // namespace

void setDefaultConverter(const char* name) {
    defaultConverter = name;
}

void reset() {
    state = Counters();
    toUnicodeFailCall = 0;
    fromUnicodeFailCall = 0;
    allocationBudget = -1;
    allocationCount = 0;
}

const Counters& counters() {
    return state;
}

void injectToUnicode(int call, UErrorCode status) {
    toUnicodeFailCall = call;
    toUnicodeFailStatus = status;
}

void injectFromUnicode(int call, UErrorCode status) {
    fromUnicodeFailCall = call;
    fromUnicodeFailStatus = status;
}

void limitAllocations(int count) {
    allocationBudget = count;
}

int allocations() {
    return allocationCount;
}

}  // namespace IcuHooks

using IcuHooks::state;

extern "C" {

UConverter* ucnv_open(const char* name, UErrorCode* status) {
    using Function = UConverter* (*)(const char*, UErrorCode*);
    static const Function open = IcuHooks::real<Function>(ICU_HOOK_NAME(ucnv_open));
    ++state.openCalls;
    if (name == nullptr) {
        name = IcuHooks::defaultConverter;
    }
    UConverter* converter = open(name, status);
    if (converter != nullptr) {
        ++state.opened;
    }
    return converter;
}

void ucnv_close(UConverter* converter) {
    using Function = void (*)(UConverter*);
    static const Function close = IcuHooks::real<Function>(ICU_HOOK_NAME(ucnv_close));
    if (converter != nullptr) {
        ++state.closed;
    }
    close(converter);
}

void ucnv_toUnicode(UConverter* converter, UChar** target, const UChar* targetLimit,
                    const char** source, const char* sourceLimit, int32_t* offsets, UBool flush,
                    UErrorCode* status) {
    using Function = void (*)(UConverter*, UChar**, const UChar*, const char**, const char*,
                              int32_t*, UBool, UErrorCode*);
    static const Function toUnicode = IcuHooks::real<Function>(ICU_HOOK_NAME(ucnv_toUnicode));
    toUnicode(converter, target, targetLimit, source, sourceLimit, offsets, flush, status);
    if (++state.toUnicodeCalls == IcuHooks::toUnicodeFailCall) {
        *status = IcuHooks::toUnicodeFailStatus;
    }
}

void ucnv_fromUnicode(UConverter* converter, char** target, const char* targetLimit,
                      const UChar** source, const UChar* sourceLimit, int32_t* offsets, UBool flush,
                      UErrorCode* status) {
    using Function = void (*)(UConverter*, char**, const char*, const UChar**, const UChar*,
                              int32_t*, UBool, UErrorCode*);
    static const Function fromUnicode = IcuHooks::real<Function>(ICU_HOOK_NAME(ucnv_fromUnicode));
    fromUnicode(converter, target, targetLimit, source, sourceLimit, offsets, flush, status);
    if (++state.fromUnicodeCalls == IcuHooks::fromUnicodeFailCall) {
        *status = IcuHooks::fromUnicodeFailStatus;
    }
}

}  // extern "C"
