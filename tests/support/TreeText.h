// A parsed tree as one line, to compare whole trees at once: each node is
// "<{uri}name a=[value]...>text|", its children, then "</>". A node whose parent
// link is wrong starts with "!".
#ifndef AVQVL_TESTS_SUPPORT_TREETEXT_H
#define AVQVL_TESTS_SUPPORT_TREETEXT_H

#include <string>

#include "util/XMLNode.h"

inline std::string treeText(const Arvant::Net::AvQuorvel::Util::XMLNode& node,
                            const Arvant::Net::AvQuorvel::Util::XMLNode* parent = nullptr) {
    std::string out = (node.parent == parent ? "<{" : "!<{") + node.uri + "}" + node.localName;
    for (const auto& attribute : node.attributes) {
        out += " " + attribute.first + "=[" + attribute.second + "]";
    }
    out += ">" + node.text + "|";
    for (const auto* child : node.children) {
        out += treeText(*child, &node);
    }
    return out + "</>";
}

#endif  // AVQVL_TESTS_SUPPORT_TREETEXT_H
