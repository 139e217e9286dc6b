// What besides its bytes decides how a document reads, so that a reading kept
// from an earlier parse can be known to still hold.
//
// Internal to the library: not installed, not exported. Thread-safe.
#ifndef AVQVL_UTIL_INTERNAL_READINGSETTINGS_H
#define AVQVL_UTIL_INTERNAL_READINGSETTINGS_H

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

// How many times SAXToNodeParser::setReplaceSubChars has been called: a parse
// made before a call may give other text than one made after it.
unsigned long subCharSettingChanges();

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_INTERNAL_READINGSETTINGS_H
