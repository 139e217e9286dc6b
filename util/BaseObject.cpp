#include "util/BaseObject.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

BaseObject::BaseObject() : refCount(0) {}

// A null URI is taken as empty rather than left to undefined behaviour.
BaseObject::BaseObject(const char* namespaceUri)
    : namespaceUri(namespaceUri != nullptr ? namespaceUri : ""), refCount(0) {}

BaseObject::BaseObject(const BaseObject& other)
    : namespaceUri(other.namespaceUri), refCount(other.refCount) {}

BaseObject& BaseObject::operator=(const BaseObject& other) {
    if (this != &other) {
        namespaceUri = other.namespaceUri;
        refCount = other.refCount;
    }
    return *this;
}

BaseObject::~BaseObject() {}

void BaseObject::ref() {
    ++refCount;
}

void BaseObject::unref() {
    // Only the step from 1 to 0 destroys; a count driven negative leaves the
    // object to whoever created it.
    if (--refCount == 0) {
        delete this;
    }
}

void BaseObject::addRef() {
    ref();
}

void BaseObject::removeRef() {
    unref();
}

int32_t BaseObject::askRefCount() const {
    return refCount;
}

BaseObject* BaseObject::clone() const {
    BaseObject* copy = reallyClone();
    copy->refCount = 0;
    return copy;
}

bool BaseObject::outputXMLBase(XmlStream& stream, const std::string& elementName,
                               const char* /*callerName*/) const {
    const bool declaring = stream.hasPendingDeclarations();
    if (declaring) {
        std::set<std::string> uris;
        getNamespaces(uris);
        stream.addNamespaces(uris);
    }
    stream << stream.startTag(namespaceUri, elementName);
    return declaring;
}

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
