// Records which files the process opens. The test executable defines fopen and
// open itself (the XML library imports fopen to read files); they forward to the
// C library and remember every path that contains the watched text.
#ifndef AVQVL_TESTS_HARDENING_OPENHOOKS_H
#define AVQVL_TESTS_HARDENING_OPENHOOKS_H

#include <string>

namespace OpenHooks {

// Starts watching for paths that contain `text`, forgetting earlier openings.
void watch(const std::string& text);
// Openings of watched paths since watch().
int openings();

}  // namespace OpenHooks

#endif  // AVQVL_TESTS_HARDENING_OPENHOOKS_H
