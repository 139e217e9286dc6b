// The schema objects: the counted base object and the shared client list.
#include <gtest/gtest.h>

#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"

using namespace Arvant::Net::AvQuorvel::Util;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

namespace {

const std::string kUri = "http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base";

// Counts its destructor runs.
struct Probe : SharedClientIDs {
    explicit Probe(int* destroyed) : destroyed(destroyed) {}
    ~Probe() override { ++*destroyed; }
    int* destroyed;
};

// The last unref deletes; a copy and a clone start their own count.
TEST(BaseObjectTest, CountedObjectsDieAtTheirLastUnref) {
    int destroyed = 0;
    Probe* counted = new Probe(&destroyed);
    counted->ref(), counted->ref(), counted->unref();
    BaseObject* clone = counted->clone();
    EXPECT_EQ(destroyed + clone->askRefCount(), 0);
    clone->ref(), clone->unref(), counted->unref();
    EXPECT_EQ(destroyed, 1);  // the clone is a plain SharedClientIDs
}

// The document written, then read back (with every character escaping
// replaces) and other documents read into a list that holds "kept" before. The
// result is every identifier followed by a comma, then the error, if any.
TEST(SharedClientIDsTest, WritesTheDocumentExactlyAndReadsChildrenByLocalNameOnly) {
    SharedClientIDs list;
    XmlStream stream, outer;
    list.setSharedClients({"", "a&<>%\"'\n\tz"});
    list.outputXML(stream, "E");
    EXPECT_EQ(stream.str(),
              "\n<ns0:E xmlns:ns0=\"" + kUri +
                  "\"><ns0:sharedClients></ns0:sharedClients><ns0:sharedClients>"
                  "a&amp;&lt;&gt;&#x25;&quot;&apos;&#10;&#9;z</ns0:sharedClients></ns0:E>");
    // Inside a stream whose declarations were written without the namespace.
    outer << outer.startTag("urn:outer", "outer") << ">";
    std::unique_ptr<SharedClientIDs>(list.reallyClone())->outputXML(outer, "E");
    EXPECT_EQ(outer.str(),
              "\n<outer>\n<E><sharedClients></sharedClients><sharedClients>"
              "a&amp;&lt;&gt;&#x25;&quot;&apos;&#10;&#9;z</sharedClients></E>");

    const std::pair<std::string, std::string> cases[] = {
        {stream.str(), "kept,,a&<>%\"'\n\tz,"},
        {"<r/>", "kept,"},
        {"<r xmlns:o='urn:o'><o:sharedClients>a</o:sharedClients>"
         "<sharedClients xmlns='urn:p'>b</sharedClients><sharedClients> </sharedClients></r>",
         "kept,a,b, ,"},
        {"<r><sharedClients>a</sharedClients><SharedClients/></r>",
         "kept,a,Unexpected node name: SharedClients"},
    };
    for (const auto& c : cases) {
        SAXToNodeParser parser;
        SharedClientIDs read;
        read.addSharedClientID("kept");
        std::string error, result;
        try {
            read.parse(*parser.parseString(c.first));
        } catch (const DomException& e) {
            error = e.getMessage();
        }
        std::vector<std::string> ids;
        read.getSharedClients(ids);
        for (const std::string& id : ids) {
            result += id + ",";
        }
        EXPECT_EQ(result + error, c.second) << c.first;
    }
}

}  // namespace
