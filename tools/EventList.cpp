#include "tools/EventList.h"

#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

namespace Arvant::Net::AvQuorvel::Tools {

using Util::SAXToNodeParser;
using Util::XMLNode;

namespace {

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

Event toEvent(const XMLNode& node) {
    Event event;
    event.sender = node.getAttribute("sender");
    event.sequence = node.getAttribute("sequence");
    event.text = node.text;
    return event;
}

}  // namespace

void parseEventDocument(const std::string& document, std::vector<Event>& events) {
    if (isBlank(document)) {
        return;
    }
    SAXToNodeParser parser;  // owns the tree
    const XMLNode* root = parser.parseString(document);
    if (root == nullptr) {
        return;
    }
    if (root->localName == "event") {
        events.push_back(toEvent(*root));
        return;
    }
    for (const XMLNode* child : root->children) {
        if (child != nullptr && child->localName == "event") {
            events.push_back(toEvent(*child));
        }
    }
}

}  // namespace Arvant::Net::AvQuorvel::Tools
