#include "hardening/OpenHooks.h"

#include <dlfcn.h>
#include <fcntl.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

std::mutex watchMutex;
std::string watched;
std::atomic<int> watchedOpenings{0};

void note(const char* path) {
    if (path == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(watchMutex);
    if (!watched.empty() && std::strstr(path, watched.c_str()) != nullptr) {
        ++watchedOpenings;
    }
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace OpenHooks {

void watch(const std::string& text) {
    std::lock_guard<std::mutex> lock(watchMutex);
    watched = text;
    watchedOpenings = 0;
}

int openings() {
    return watchedOpenings;
}

}  // namespace OpenHooks

// Exported (the build hides symbols by default) so the library binds to them.
extern "C" {

__attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
    note(path);
    static const auto real = next<FILE* (*)(const char*, const char*)>("fopen");
    return real(path, mode);
}

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
    note(path);
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    return real(path, flags, mode);
}

}  // extern "C"
