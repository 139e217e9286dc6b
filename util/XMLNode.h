/// @file
/// One element of a parsed document. A node owns its children; the parser that
/// built a tree owns its root. DomException reports every failure of the XML side.
#ifndef AVQVL_UTIL_XMLNODE_H
#define AVQVL_UTIL_XMLNODE_H

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "util/Export.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

/// An element: its namespace URI, local name, attributes, character data and
/// children. Built by SAXToNodeParser; one tree is used by one thread at a time.
struct AVQVL_EXPORT XMLNode {
    std::string uri;                                ///< namespace URI; "" for none
    std::string localName;                          ///< the name without its prefix
    std::vector<XMLNode*> children;                 ///< owned; null entries are skipped on delete
    std::string text;                               ///< character data directly inside, untouched
    XMLNode* parent;                                ///< not owned; null for the root
    std::map<std::string, std::string> attributes;  ///< local name to value

    XMLNode();
    /// Frees the children and their subtrees without recursion: trees of any
    /// depth are safe to delete.
    ~XMLNode();
    XMLNode(const XMLNode&) = delete;
    XMLNode& operator=(const XMLNode&) = delete;

    /// Sets (or replaces) the attribute `name`.
    void setAttribute(const std::string& name, const std::string& value);
    /// "" when absent; never inserts.
    std::string getAttribute(const std::string& name) const;
    /// True when the attribute `name` is present.
    bool hasAttribute(const std::string& name) const;
    /// One tag per line, children indented by two more blanks; flushes each line.
    void print(std::ostream& out, const std::string& indent) const;
};

/// A failure of the XML side: a malformed document or an element that does not
/// fit the schema. Thrown by value; owns a copy of its message.
class AVQVL_EXPORT DomException {
public:
    DomException();
    /// An exception carrying `message`.
    DomException(const std::string& message);
    /// Copies the message.
    DomException(const DomException& other);
    virtual ~DomException();
    /// Replaces the message.
    virtual void setMessage(const std::string& message);
    /// The message; valid while the exception lives and its message is not replaced.
    virtual const std::string& getMessage() const;

private:
    std::string message;
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_XMLNODE_H
