/// @file
/// The characters that travel as references in the service's documents, both
/// ways: the service writes them, the client library reads them back. A
/// constant table, nothing to link.
#ifndef AVQVL_PROTOCOL_XMLESCAPE_H
#define AVQVL_PROTOCOL_XMLESCAPE_H

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Protocol {

/// One character and the reference that stands for it.
struct XmlReference {
    char character;    ///< the character as it is
    const char* name;  ///< what follows the "&" of its reference, ";" included
};

/// The eight characters with a reference of their own, in the order a reader
/// tries the names. Bytes above 127 read as negative and never match.
constexpr XmlReference kXmlReferences[] = {
    {'&', "amp;"},  {'<', "lt;"},    {'>', "gt;"},   {'%', "#x25;"},
    {'"', "quot;"}, {'\'', "apos;"}, {'\n', "#10;"}, {'\t', "#9;"},
};

/// The name of c's reference (without the "&"), or null when c stands as it is.
inline const char* xmlReferenceName(char c) {
    for (const XmlReference& reference : kXmlReferences) {
        if (reference.character == c) {
            return reference.name;
        }
    }
    return nullptr;
}

}  // namespace Protocol
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_PROTOCOL_XMLESCAPE_H
