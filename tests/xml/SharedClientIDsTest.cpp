// The schema objects: the counted base object and the shared client list.
#include <gtest/gtest.h>

#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"

using namespace Arvant::Net::AvQuorvel::Util;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

namespace {

const std::string kUri = "http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base";

// Counts its destructor runs and opens elements.
struct Probe : SharedClientIDs {
    explicit Probe(int* destroyed) : destroyed(destroyed) {}
    ~Probe() override { ++*destroyed; }
    Probe* reallyClone() const override { return new Probe(*this); }
    bool open(XmlStream& stream, const char* name) const { return outputXMLBase(stream, name, ""); }
    int* destroyed;
};

TEST(BaseObjectTest, CountingCopiesAndClones) {
    int destroyed = 0;
    Probe* counted = new Probe(&destroyed);
    EXPECT_EQ(counted->askRefCount(), 0);
    counted->ref(), counted->ref(), counted->unref();
    EXPECT_EQ(counted->askRefCount(), 1);
    counted->unref();
    EXPECT_EQ(destroyed, 1);

    Probe source(&destroyed);
    source.unref();
    EXPECT_EQ(source.askRefCount(), -1);
    source.ref(), source.ref(), source.ref(), source.ref();  // back through 0: still alive
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(Probe(source).askRefCount(), 3);
    BaseObject* clone = source.clone();
    EXPECT_EQ(clone->askRefCount(), 0);
    EXPECT_EQ(source.askRefCount(), 3);
    clone->ref(), clone->unref();  // a clone is an ordinary counted object
    EXPECT_EQ(destroyed, 3);       // the temporary copy and the clone
    Probe& self = source;
    source = self;
    EXPECT_EQ(source.askRefCount(), 3);

    XmlStream stream;  // declarations only on the first element, and no ">"
    EXPECT_TRUE(source.open(stream, "outer"));
    EXPECT_FALSE(source.open(stream, "inner"));
    EXPECT_EQ(stream.str(), "\n<ns0:outer xmlns:ns0=\"" + kUri + "\"\n<ns0:inner");
}

// The document written, then read back (with every character escaping
// replaces) and other documents read into a list that holds "kept" before. The
// result is every identifier followed by a comma, then the error, if any.
TEST(SharedClientIDsTest, WritesTheDocumentExactlyAndReadsChildrenByLocalNameOnly) {
    SharedClientIDs list;
    XmlStream empty, stream, outer;
    list.outputXML(empty, "E");
    EXPECT_EQ(empty.str(), "\n<ns0:E xmlns:ns0=\"" + kUri + "\"></ns0:E>");
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
        {"<r><sharedClients>a</sharedClients><sharedClients>b</sharedClients><other/></r>",
         "kept,a,b,Unexpected node name: other"},
        {"<r><SharedClients>a</SharedClients></r>", "kept,Unexpected node name: SharedClients"},
        {"<r><sharedClientsX/></r>", "kept,Unexpected node name: sharedClientsX"},
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
