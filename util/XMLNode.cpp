#include "util/XMLNode.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

XMLNode::XMLNode() : parent(nullptr) {}

// Destruction never recurses, so a tree of any depth is freed with constant use
// of the call stack and no allocation: the nodes still to free form a stack
// threaded through their own parent pointers, which nothing reads any more.
XMLNode::~XMLNode() {
    XMLNode* pending = nullptr;
    auto adoptChildren = [&pending](std::vector<XMLNode*>& nodes) {
        for (XMLNode* node : nodes) {
            if (node != nullptr) {  // null entries are skipped
                node->parent = pending;
                pending = node;
            }
        }
        nodes.clear();
    };
    adoptChildren(children);
    while (pending != nullptr) {
        XMLNode* node = pending;
        pending = node->parent;
        adoptChildren(node->children);
        delete node;  // childless now: its destructor returns at once
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

// Walks the tree with an explicit stack of open elements, so deep trees print
// as well as shallow ones; a line's indentation is written, never stored.
void XMLNode::print(std::ostream& out, const std::string& indent) const {
    struct Open {
        const XMLNode* node;
        std::size_t nextChild;
    };
    auto writeTag = [&](const char* opening, const XMLNode& node, std::size_t level) {
        out << indent;
        std::fill_n(std::ostreambuf_iterator<char>(out), 2 * level, ' ');
        out << opening << node.localName << ">" << std::endl;
    };
    std::vector<Open> open{Open{this, 0}};
    writeTag("<", *this, 0);
    while (!open.empty()) {
        Open& top = open.back();
        if (top.nextChild == top.node->children.size()) {
            writeTag("</", *top.node, open.size() - 1);
            open.pop_back();
            continue;
        }
        const XMLNode* child = top.node->children[top.nextChild++];
        if (child != nullptr) {
            writeTag("<", *child, open.size());
            open.push_back(Open{child, 0});  // top is invalid from here on
        }
    }
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
