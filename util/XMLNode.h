// One element of a parsed document. A node owns its children; the parser that
// built a tree owns its root. DomException reports every failure of the XML side.
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

struct AVQVL_EXPORT XMLNode {
    std::string uri;
    std::string localName;
    std::vector<XMLNode*> children;                 // owned; null entries are skipped on delete
    std::string text;                               // character data directly inside, untouched
    XMLNode* parent;                                // not owned; null for the root
    std::map<std::string, std::string> attributes;  // local name to value

    XMLNode();
    ~XMLNode();
    XMLNode(const XMLNode&) = delete;
    XMLNode& operator=(const XMLNode&) = delete;

    void setAttribute(const std::string& name, const std::string& value);
    // "" when absent; never inserts.
    std::string getAttribute(const std::string& name) const;
    bool hasAttribute(const std::string& name) const;
    // One tag per line, children indented by two more blanks; flushes each line.
    void print(std::ostream& out, const std::string& indent) const;
};

class AVQVL_EXPORT DomException {
public:
    DomException();
    DomException(const std::string& message);
    DomException(const DomException& other);
    virtual ~DomException();
    virtual void setMessage(const std::string& message);
    virtual const std::string& getMessage() const;

private:
    std::string message;
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_XMLNODE_H
