/// @file
/// Text helpers for XML: escaping of eight characters, value-to-text conversion,
/// and two raw-text probes that answer namespace questions without parsing.
#ifndef AVQVL_UTIL_XMLTEXT_H
#define AVQVL_UTIL_XMLTEXT_H

#include <cstdint>
#include <string>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

// Plain functions over the caller's text, returning new strings. None throws
// but std::bad_alloc, and none reports bad text: see each group. All are safe
// to call from any number of threads; the conversions' locale objects are made
// once, on first use, and only read afterwards.

/// Tab, line feed, quotation mark, percent, ampersand, apostrophe, < and > become
/// references; one left-to-right pass. unescapeXml is its exact inverse.
AVQVL_EXPORT std::string escapeXml(const std::string& text);
/// The inverse of escapeXml.
AVQVL_EXPORT std::string unescapeXml(const std::string& text);

/// "1" or "0".
AVQVL_EXPORT std::string toString(const bool& value);
/// The text itself.
AVQVL_EXPORT std::string toString(const std::string& value);
/// %.17e in the classic locale.
AVQVL_EXPORT std::string toString(const double& value);
/// Decimal, in the classic locale.
AVQVL_EXPORT std::string toString(const int& value);
/// %.17e in the classic locale.
AVQVL_EXPORT std::string toString(const float& value);

/// Lenient readers: the longest numeric prefix counts; no text, no number at the
/// start, or a number the type cannot hold gives zero. Integers, like floating
/// point, are read and written in the classic locale.
AVQVL_EXPORT bool parseBool(const std::string& text);
/// A double, read as above.
AVQVL_EXPORT double parseDouble(const std::string& text);
/// An int, read as above.
AVQVL_EXPORT int parseInt(const std::string& text);
/// A float, read as above.
AVQVL_EXPORT float parseFloat(const std::string& text);

/// The URI the root element declares for its own prefix, or "" when it cannot
/// be found.
AVQVL_EXPORT std::string getRootNamespace(const std::string& xml);
/// Position of an element's start tag (just after its name) or end tag; the
/// element is named "uri^localName" (no "^": a local name without URI). Gives
/// std::string::npos when the tag does not occur.
AVQVL_EXPORT std::uint64_t findTagPosition(const std::string& xml, const std::string& qualifiedName,
                                           bool opening);

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_XMLTEXT_H
