// Reads the service's events document (event elements with sender and
// sequence attributes and the event text as content) into a list.
#ifndef AVQVL_TOOLS_EVENTLIST_H
#define AVQVL_TOOLS_EVENTLIST_H

#include <string>
#include <vector>

namespace Arvant::Net::AvQuorvel::Tools {

struct Event {
    std::string sender;
    std::string sequence;
    std::string text;  // unescaped
};

// Appends the events of `document` to `events`. A blank document holds no
// events. The root may be a single event or any element whose event children
// are listed in document order; other elements are ignored. Throws
// DomException when the document is not well-formed. The XML library must be
// initialised, which a live AvQVLConnection guarantees.
void parseEventDocument(const std::string& document, std::vector<Event>& events);

}  // namespace Arvant::Net::AvQuorvel::Tools

#endif  // AVQVL_TOOLS_EVENTLIST_H
