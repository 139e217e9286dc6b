#include "schemas/SharedClientIDs.h"

#include "protocol/Names.h"
#include "util/XmlText.h"

namespace Arvant {
namespace Schemas {
namespace AvQuorvel {
namespace _2009_06 {
namespace Base {

using Arvant::Net::AvQuorvel::Util::DomException;
using Arvant::Net::AvQuorvel::Util::escapeXml;
using Arvant::Net::AvQuorvel::Util::XMLNode;
using Arvant::Net::AvQuorvel::Util::XmlStream;

namespace {
// The base schema namespace of the service.
const char* const kBaseNamespaceUri = Arvant::Net::AvQuorvel::Protocol::kSchemaNamespace;
const char* const kChildName = "sharedClients";
const char* const kOutputCallerName =
    "Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs::outputXML";
}  // namespace

SharedClientIDs::SharedClientIDs() : BaseObject(kBaseNamespaceUri) {}

SharedClientIDs::SharedClientIDs(const SharedClientIDs& other)
    : BaseObject(other), sharedClientIds(other.sharedClientIds) {}

SharedClientIDs& SharedClientIDs::operator=(const SharedClientIDs& other) {
    BaseObject::operator=(other);
    if (this != &other) {
        sharedClientIds = other.sharedClientIds;
    }
    return *this;
}

SharedClientIDs::~SharedClientIDs() {}

void SharedClientIDs::getSharedClients(std::vector<std::string>& out) {
    out.insert(out.end(), sharedClientIds.begin(), sharedClientIds.end());
}

void SharedClientIDs::setSharedClients(const std::vector<std::string>& ids) {
    sharedClientIds.insert(sharedClientIds.end(), ids.begin(), ids.end());
}

void SharedClientIDs::addSharedClientID(const std::string& id) {
    sharedClientIds.push_back(id);
}

SharedClientIDs* SharedClientIDs::reallyClone() const {
    return new SharedClientIDs(*this);
}

void SharedClientIDs::getNamespaces(std::set<std::string>& namespaces) const {
    namespaces.insert(namespaceUri);
}

void SharedClientIDs::parse(const XMLNode& node) {
    if (sharedClientIds.capacity() < node.children.size()) {
        sharedClientIds.reserve(node.children.size());
    }
    for (const XMLNode* child : node.children) {
        if (child == nullptr) {
            continue;  // the parser never stores one; a hand-built tree might
        }
        if (child->localName != kChildName) {
            throw DomException("Unexpected node name: " + child->localName);
        }
        sharedClientIds.push_back(child->text);
    }
}

void SharedClientIDs::outputXML(XmlStream& stream, const std::string& elementName) const {
    outputXMLBase(stream, elementName, kOutputCallerName);
    stream << stream.endStartTag(namespaceUri, false);
    const std::string prefix = stream.getPrefix(namespaceUri);
    const std::string qualifier = prefix.empty() ? prefix : prefix + ":";
    for (const std::string& id : sharedClientIds) {
        stream << "<" << qualifier << kChildName << ">" << escapeXml(id) << "</" << qualifier
               << kChildName << ">";
    }
    stream << stream.endTag(namespaceUri, elementName);
}

}  // namespace Base
}  // namespace _2009_06
}  // namespace AvQuorvel
}  // namespace Schemas
}  // namespace Arvant
