#include <gtest/gtest.h>

#include <sstream>

#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Util::XMLNode;

namespace {

XMLNode* addChild(XMLNode& parent, const std::string& name) {
    XMLNode* child = new XMLNode();
    child->localName = name;
    child->parent = &parent;
    parent.children.push_back(child);
    return child;
}

TEST(XMLNodeTest, AttributesAreLookedUpWithoutInsertingAndReplacedBySecondSet) {
    XMLNode node;
    node.setAttribute("id", "1");
    EXPECT_EQ(node.getAttribute("missing"), "");
    EXPECT_FALSE(node.hasAttribute("missing"));
    EXPECT_EQ(node.attributes.size(), 1u);

    node.setAttribute("id", "2");
    EXPECT_EQ(node.attributes.size(), 1u);
    EXPECT_EQ(node.getAttribute("id"), "2");
    EXPECT_TRUE(node.hasAttribute("id"));
}

TEST(XMLNodeTest, PrintWritesOneTagPerLineIndentedByTwoBlanksAndSkipsNullChildren) {
    XMLNode root;
    root.localName = "r";
    addChild(*addChild(root, "a"), "deep");
    root.children.push_back(nullptr);
    addChild(root, "b");
    root.text = "not printed";
    root.setAttribute("x", "not printed");

    std::ostringstream out;
    root.print(out, "");
    EXPECT_EQ(out.str(), "<r>\n  <a>\n    <deep>\n    </deep>\n  </a>\n  <b>\n  </b>\n</r>\n");

    std::ostringstream indented;
    root.children[2]->print(indented, "--");
    EXPECT_EQ(indented.str(), "--<b>\n--</b>\n");
}

TEST(XMLNodeTest, DeletingATreeWithNullEntriesFreesEveryNode) {
    // Run under a leak checker this also proves that every level is freed.
    XMLNode* root = new XMLNode();
    root->children.push_back(nullptr);
    XMLNode* middle = addChild(*root, "m");
    middle->children.push_back(nullptr);
    addChild(*addChild(*middle, "l"), "leaf");
    delete root;
}

}  // namespace
