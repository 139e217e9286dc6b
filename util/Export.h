/// @file
/// AVQVL_EXPORT marks the classes and functions applications may use from the
/// shared library. The library is built with hidden visibility; with no
/// definition given it exports from the shared library; define AVQVL_STATIC when
/// compiling the sources into a static library or another build.
#ifndef AVQVL_UTIL_EXPORT_H
#define AVQVL_UTIL_EXPORT_H

#if defined(AVQVL_STATIC)
#define AVQVL_EXPORT
#elif defined(_WIN32)
#if defined(AVQVL_BUILDING_LIBRARY)
#define AVQVL_EXPORT __declspec(dllexport)
#elif defined(AVQVL_IMPORT)
#define AVQVL_EXPORT __declspec(dllimport)
#else
#define AVQVL_EXPORT
#endif
#elif defined(__GNUC__)
#define AVQVL_EXPORT __attribute__((visibility("default")))
#else
#define AVQVL_EXPORT
#endif

#endif  // AVQVL_UTIL_EXPORT_H
