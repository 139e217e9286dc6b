/// @file
/// A string stream that keeps a document's namespace bindings (generated prefixes
/// ns0, ns1, ...) and declares them on the first start tag. The tag operations
/// return text for the caller to insert; nothing is escaped.
#ifndef AVQVL_UTIL_XMLSTREAM_H
#define AVQVL_UTIL_XMLSTREAM_H

#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

/// The stream owns the text written into it and its namespace bindings. Its
/// operations throw nothing but std::bad_alloc. One stream is used by one
/// thread at a time; distinct streams may be written on distinct threads.
class AVQVL_EXPORT XmlStream : public std::stringstream {
public:
    XmlStream();

    /// True until the first start tag has carried the namespace declarations.
    bool hasPendingDeclarations() const;
    /// addNamespace for each URI.
    void addNamespaces(std::set<std::string> uris);
    /// True when the URI was new.
    bool addNamespace(const std::string& uri);
    /// "" when the URI is not registered.
    std::string getPrefix(const std::string& uri) const;
    /// "\n<prefix:name", with the declarations of every registered namespace
    /// when they are still pending; a `name` holding ':' is used as it is.
    std::string startTag(const std::string& uri, const std::string& name);
    /// ` name="value"`; the value must already be escaped.
    std::string attribute(const std::string& name, const std::string& value) const;
    /// "/>" for an empty element, else ">".
    std::string endStartTag(const std::string& uri, bool empty) const;
    /// A whole start tag: startTag, each attribute, then ">".
    std::string startElement(const std::string& uri, const std::string& name,
                             const std::vector<std::pair<std::string, std::string>>& attributes);
    /// "</prefix:name>".
    std::string endTag(const std::string& uri, const std::string& name) const;

private:
    std::string qualifyingPrefix(const std::string& uri, const std::string& name) const;

    std::map<std::string, std::string> namespaces;  // URI to prefix
    int32_t nextNamespaceNumber;
    bool declarationsPending;
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_XMLSTREAM_H
