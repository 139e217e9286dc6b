/// @file
/// Abstract root of the schema types: a namespace URI, an intrusive (non-atomic)
/// reference count, cloning into an uncounted copy, and the common opening of an
/// element on an XmlStream.
#ifndef AVQVL_UTIL_BASEOBJECT_H
#define AVQVL_UTIL_BASEOBJECT_H

#include <cstdint>
#include <set>
#include <string>

#include "util/Export.h"
#include "util/XmlStream.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Util {

/// A schema object owns its fields; clone() returns a new object the caller
/// owns, and unref() deletes the object when the count reaches zero. Nothing
/// here throws but std::bad_alloc. The count is not atomic: an object and its
/// references are used by one thread at a time; distinct objects need no care.
class AVQVL_EXPORT BaseObject {
protected:
    /// Declared first so that the destructor holds the first virtual slot, ahead
    /// of reallyClone and getNamespaces.
    virtual ~BaseObject();

public:
    /// Copies the namespace URI and the count.
    BaseObject(const BaseObject& other);
    /// Copies the namespace URI and the count.
    BaseObject& operator=(const BaseObject& other);

    /// Counts one more reference.
    void ref();
    /// Deletes the object when the count reaches exactly 0.
    void unref();
    /// The current count.
    int32_t askRefCount() const;
    /// A copy of the most-derived object with a count of 0; the caller owns it.
    BaseObject* clone() const;
    /// A copy of the most-derived object, made by that class; clone() calls it.
    virtual BaseObject* reallyClone() const = 0;
    /// Adds the namespace URIs the object's XML uses to `namespaces`.
    virtual void getNamespaces(std::set<std::string>& namespaces) const = 0;

protected:
    BaseObject();
    /// An object of the namespace `namespaceUri`, with a count of 0.
    BaseObject(const char* namespaceUri);
    /// Registers namespaces while declarations are pending, then writes the open
    /// start tag; true when this element carried the declarations.
    bool outputXMLBase(XmlStream& stream, const std::string& elementName,
                       const char* callerName) const;

    std::string namespaceUri;  ///< the namespace of the object's element
    int32_t refCount;          ///< references counted by ref() and unref()

private:
    void addRef();
    void removeRef();
};

}  // namespace Util
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant

#endif  // AVQVL_UTIL_BASEOBJECT_H
