// AVQVL_EXPORT marks the classes and functions applications may use from the
// shared library. The library is built with hidden visibility; with no
// definition given this header still does the right thing for static builds.
#ifndef AVQVL_UTIL_EXPORT_H
#define AVQVL_UTIL_EXPORT_H

#if defined(_WIN32)
#if defined(AVQVL_BUILDING_LIBRARY)
#define AVQVL_EXPORT __declspec(dllexport)
#else
#define AVQVL_EXPORT __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define AVQVL_EXPORT __attribute__((visibility("default")))
#else
#define AVQVL_EXPORT
#endif

#endif  // AVQVL_UTIL_EXPORT_H
