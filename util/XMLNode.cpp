#include "util/XMLNode.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

XMLNode::XMLNode() : parent(nullptr) {}

XMLNode::~XMLNode() {
    for (XMLNode* child : children) {
        delete child;  // deleting null is a no-op, so null entries are skipped
    }
}

void XMLNode::setAttribute(const std::string& name, const std::string& value) {
    attributes[name] = value;
}

std::string XMLNode::getAttribute(const std::string& name) const {
    auto found = attributes.find(name);
    return found == attributes.end() ? std::string() : found->second;
}

bool XMLNode::hasAttribute(const std::string& name) const {
    return attributes.find(name) != attributes.end();
}

void XMLNode::print(std::ostream& out, const std::string& indent) const {
    out << indent << "<" << localName << ">" << std::endl;
    const std::string childIndent = indent + "  ";
    for (const XMLNode* child : children) {
        if (child != nullptr) {
            child->print(out, childIndent);
        }
    }
    out << indent << "</" << localName << ">" << std::endl;
}

DomException::DomException() {}

DomException::DomException(const std::string& message) : message(message) {}

DomException::DomException(const DomException& other) : message(other.message) {}

DomException::~DomException() {}

void DomException::setMessage(const std::string& message) {
    this->message = message;
}

const std::string& DomException::getMessage() const {
    return message;
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
