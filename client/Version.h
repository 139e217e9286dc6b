/// @file
/// The version of AvQvlCppBinding. This header is its one home: the build reads
/// the three numbers from here for the CMake package, the pkg-config file and
/// the libraries' file names, so they all agree with what an application
/// compiles against. Plain macros, usable from C and C++ and in preprocessor
/// conditions.
#ifndef AVQVL_CLIENT_VERSION_H
#define AVQVL_CLIENT_VERSION_H

/// Major version: changes when applications must change to keep building.
#define AVQVL_VERSION_MAJOR 0
/// Minor version: changes when the library gains features and stays compatible.
#define AVQVL_VERSION_MINOR 1
/// Patch version: changes with fixes only.
#define AVQVL_VERSION_PATCH 0
/// The three numbers as "MAJOR.MINOR.PATCH", e.g. for `quorvel --version`.
#define AVQVL_VERSION_STRING "0.1.0"
/// One number that grows with each release, for comparisons in preprocessor conditions:
/// MAJOR * 10000 + MINOR * 100 + PATCH.
#define AVQVL_VERSION_NUMBER \
    (AVQVL_VERSION_MAJOR * 10000 + AVQVL_VERSION_MINOR * 100 + AVQVL_VERSION_PATCH)

#endif  // AVQVL_CLIENT_VERSION_H
