/// @file
/// The list of client identifiers the service sends back: read from a parsed
/// document's "sharedClients" children, written as the shared-client document.
#ifndef AVQVL_SCHEMAS_SHAREDCLIENTIDS_H
#define AVQVL_SCHEMAS_SHAREDCLIENTIDS_H

#include <set>
#include <string>
#include <vector>

#include "util/BaseObject.h"
#include "util/Export.h"
#include "util/XMLNode.h"
#include "util/XmlStream.h"

namespace Arvant {
namespace Schemas {
namespace AvQuorvel {
namespace _2009_06 {
namespace Base {

/// The list owns copies of its identifiers; parse() only reads the caller's
/// tree. parse() appends in document order and throws Util::DomException at the
/// first element other than "sharedClients", keeping what it appended before;
/// nothing else throws but std::bad_alloc. Like every schema object, one list
/// is used by one thread at a time.
class AVQVL_EXPORT SharedClientIDs : public Arvant::Net::AvQuorvel::Util::BaseObject {
public:
    SharedClientIDs();
    /// Copies the identifiers (and, as every BaseObject, the count).
    SharedClientIDs(const SharedClientIDs& other);
    /// Copies the identifiers (and, as every BaseObject, the count).
    SharedClientIDs& operator=(const SharedClientIDs& other);
    virtual ~SharedClientIDs();

    /// Appends; neither empties its target first.
    void getSharedClients(std::vector<std::string>& out);
    /// Replaces the identifiers with `ids`.
    void setSharedClients(const std::vector<std::string>& ids);
    /// Appends one identifier.
    void addSharedClientID(const std::string& id);
    /// A copy the caller owns.
    SharedClientIDs* reallyClone() const override;
    /// Adds the list's namespace URI.
    void getNamespaces(std::set<std::string>& namespaces) const override;
    /// Appends each child's text; a child not named "sharedClients" throws DomException.
    void parse(const Arvant::Net::AvQuorvel::Util::XMLNode& node);
    /// Writes the list as the element `elementName` with one "sharedClients"
    /// child per identifier, escaped.
    void outputXML(Arvant::Net::AvQuorvel::Util::XmlStream& stream,
                   const std::string& elementName) const;

private:
    std::vector<std::string> sharedClientIds;
};

}  // namespace Base
}  // namespace _2009_06
}  // namespace AvQuorvel
}  // namespace Schemas
}  // namespace Arvant

#endif  // AVQVL_SCHEMAS_SHAREDCLIENTIDS_H
