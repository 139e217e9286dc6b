#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "schemas/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"
#include "util/XmlStream.h"

using Arvant::Net::AvQuorvel::Util::DomException;
using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::XMLNode;
using Arvant::Net::AvQuorvel::Util::XmlStream;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

namespace {

const std::string kUri = "http://schemas.arvant.com/Schemas/AvQuorvel/_2009_06/base";

std::vector<std::string> idsOf(SharedClientIDs& list) {
    std::vector<std::string> ids;
    list.getSharedClients(ids);
    return ids;
}

std::string write(const SharedClientIDs& list, const std::string& element) {
    XmlStream stream;
    list.outputXML(stream, element);
    return stream.str();
}

TEST(SharedClientIDsTest, WritesTheSharedClientDocumentExactly) {
    SharedClientIDs list;
    std::set<std::string> namespaces;
    list.getNamespaces(namespaces);
    EXPECT_EQ(namespaces, std::set<std::string>{kUri});

    EXPECT_EQ(write(list, "E"), "\n<ns0:E xmlns:ns0=\"" + kUri + "\"></ns0:E>");

    list.addSharedClientID("A");
    list.addSharedClientID("a<b&c");
    EXPECT_EQ(write(list, "E"), "\n<ns0:E xmlns:ns0=\"" + kUri +
                                    "\"><ns0:sharedClients>A</ns0:sharedClients>"
                                    "<ns0:sharedClients>a&lt;b&amp;c</ns0:sharedClients></ns0:E>");

    // Inside a stream whose declarations are written: no prefixes.
    XmlStream stream;
    stream << stream.startTag("urn:outer", "outer") << ">";
    SharedClientIDs single;
    single.addSharedClientID("x");
    single.outputXML(stream, "E");
    EXPECT_EQ(stream.str(), "\n<outer>\n<E><sharedClients>x</sharedClients></E>");
}

TEST(SharedClientIDsTest, AWrittenDocumentReadsBackUnchanged) {
    const std::vector<std::string> ids = {
        "client-1",  "",           "  ",      "<&>",
        "tab\there", "line\nfeed", "q\"a'p%", "~!@#$^*()_+{}|:?`-=[]\\;,./",
    };
    SharedClientIDs written;
    written.setSharedClients(ids);
    const std::string document = write(written, "sharedClientList");

    SAXToNodeParser parser;
    XMLNode* root = parser.parseString(document);
    EXPECT_EQ(root->uri, kUri);
    SharedClientIDs read;
    read.parse(*root);
    EXPECT_EQ(idsOf(read), ids);
}

TEST(SharedClientIDsTest, ParseAcceptsOnlySharedClientsChildrenByLocalName) {
    struct Case {
        const char* xml;
        std::vector<std::string> ids;
        const char* error;  // null when the parse succeeds
    };
    const Case cases[] = {
        {"<r/>", {}, nullptr},
        {"<r xmlns:o=\"urn:o\"><o:sharedClients>a</o:sharedClients>"
         "<sharedClients xmlns=\"urn:p\">b</sharedClients><sharedClients/></r>",
         {"a", "b", ""},
         nullptr},
        {"<r><sharedClients>a</sharedClients><sharedClients>b</sharedClients><other/></r>",
         {"a", "b"},
         "Unexpected node name: other"},
        {"<r><SharedClients>a</SharedClients></r>", {}, "Unexpected node name: SharedClients"},
        {"<r><sharedClientsX/></r>", {}, "Unexpected node name: sharedClientsX"},
    };
    for (const Case& c : cases) {
        SAXToNodeParser parser;
        SharedClientIDs list;
        list.addSharedClientID("kept");
        std::vector<std::string> expected = {"kept"};
        expected.insert(expected.end(), c.ids.begin(), c.ids.end());
        try {
            list.parse(*parser.parseString(c.xml));
            EXPECT_EQ(c.error, nullptr) << c.xml;
        } catch (const DomException& e) {
            ASSERT_NE(c.error, nullptr) << c.xml << ": " << e.getMessage();
            EXPECT_EQ(e.getMessage(), c.error);
        }
        EXPECT_EQ(idsOf(list), expected) << c.xml;
    }
}

TEST(SharedClientIDsTest, AccessorsAppendAndCopiesCarryTheList) {
    using Strings = std::vector<std::string>;
    SharedClientIDs source;
    source.addSharedClientID("a");
    source.setSharedClients({"b"});  // appends as well
    Strings out = {"x"};
    source.getSharedClients(out);
    EXPECT_EQ(out, (Strings{"x", "a", "b"}));

    source.ref();
    std::unique_ptr<SharedClientIDs> really(source.reallyClone());
    std::unique_ptr<SharedClientIDs> cloned(dynamic_cast<SharedClientIDs*>(source.clone()));
    ASSERT_NE(cloned, nullptr);
    SharedClientIDs assigned;
    assigned.addSharedClientID("old");
    assigned = source;
    SharedClientIDs& self = assigned;
    assigned = self;
    for (SharedClientIDs* copy : {really.get(), cloned.get(), &assigned}) {
        EXPECT_EQ(idsOf(*copy), (Strings{"a", "b"}));
    }
    EXPECT_EQ(really->askRefCount(), 1);
    EXPECT_EQ(cloned->askRefCount(), 0);
    EXPECT_EQ(assigned.askRefCount(), 1);
}

}  // namespace
