// Documents a hostile service could send: external entities and DTDs pointing at
// files or the network, entity expansion bombs. The parser loads nothing
// external, stays within bounded time and memory, and reads every document
// without a DOCTYPE as the XML library's defaults would.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include "hardening/OpenHooks.h"
#include "util/SAXToNodeParser.h"
#include "util/XMLNode.h"

using Arvant::Net::AvQuorvel::Util::DomException;
using Arvant::Net::AvQuorvel::Util::SAXToNodeParser;
using Arvant::Net::AvQuorvel::Util::XMLNode;

namespace {

const char* const kMarker = "hardening-secret-4711";

// A file whose contents would show up in the tree if the parser read it.
class SecretFile {
public:
    SecretFile() : path("/tmp/hardening_secret_" + std::to_string(getpid()) + ".txt") {
        std::ofstream(path) << kMarker;
    }
    ~SecretFile() { std::remove(path.c_str()); }
    const std::string path;
};

// A loopback port that accepts connections without ever answering; it tells
// whether anyone connected.
class SilentPort {
public:
    SilentPort() : fd(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 4) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            ADD_FAILURE() << "no loopback port";
        }
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x.dtd";
    }
    ~SilentPort() { close(fd); }
    bool connected() const {
        pollfd pending{fd, POLLIN, 0};
        return poll(&pending, 1, 0) > 0;
    }
    const int fd;
    std::string url;
};

std::string serialize(const XMLNode& node) {
    std::string out = "<{" + node.uri + "}" + node.localName;
    for (const auto& attribute : node.attributes) {
        out += " " + attribute.first + "=[" + attribute.second + "]";
    }
    out += ">" + node.text + "|";
    for (const XMLNode* child : node.children) {
        out += serialize(*child);
    }
    return out + "</>";
}

long peakResidentKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

struct Outcome {
    bool threw = false;
    std::string message;
    std::string tree;
    double seconds = 0;
    long peakGrowthKiB = 0;
};

Outcome parse(const std::string& xml) {
    Outcome outcome;
    const long peakBefore = peakResidentKiB();
    const auto start = std::chrono::steady_clock::now();
    SAXToNodeParser parser;
    try {
        XMLNode* root = parser.parseString(xml);
        outcome.tree = root != nullptr ? serialize(*root) : "";
    } catch (const DomException& e) {
        outcome.threw = true;
        outcome.message = e.getMessage();
    }
    outcome.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    outcome.peakGrowthKiB = peakResidentKiB() - peakBefore;
    return outcome;
}

std::string nestedEntities(int levels, int fanOut, const std::string& leaf) {
    std::string doctype = "<!DOCTYPE r [<!ENTITY e0 \"" + leaf + "\">";
    for (int level = 1; level < levels; ++level) {
        doctype += "<!ENTITY e" + std::to_string(level) + " \"";
        for (int i = 0; i < fanOut; ++i) {
            doctype += "&e" + std::to_string(level - 1) + ";";
        }
        doctype += "\">";
    }
    return doctype + "]>";
}

TEST(HostileDocumentTest, NothingExternalIsLoaded) {
    SecretFile secret;
    SilentPort port;
    const std::string file = "file://" + secret.path;
    struct Case {
        const char* what;
        std::string xml;
        const char* refusal;  // in the message; null: the document parses
    };
    const Case cases[] = {
        {"external general entity, local file",
         "<!DOCTYPE r [<!ENTITY x SYSTEM \"" + file + "\">]><r>&x;</r>", "external entity"},
        {"external general entity, plain path",
         "<!DOCTYPE r [<!ENTITY x SYSTEM \"" + secret.path + "\">]><r>&x;</r>", "external entity"},
        {"external entity in an attribute default",
         "<!DOCTYPE r [<!ENTITY x SYSTEM \"" + file + "\"><!ATTLIST r a CDATA \"&x;\">]><r/>",
         "external entity"},
        {"external parameter entity",
         "<!DOCTYPE r [<!ENTITY % p SYSTEM \"" + file + "\"> %p;]><r/>", "external entity"},
        {"external DTD, local file", "<!DOCTYPE r SYSTEM \"" + secret.path + "\"><r/>", "DTD"},
        {"external DTD with public id", "<!DOCTYPE r PUBLIC \"-//X//Y//EN\" \"" + file + "\"><r/>",
         "DTD"},
        {"external entity over the network",
         "<!DOCTYPE r [<!ENTITY x SYSTEM \"" + port.url + "\">]><r>&x;</r>", "external entity"},
        {"external DTD over the network", "<!DOCTYPE r SYSTEM \"" + port.url + "\"><r/>", "DTD"},
        // Schema locations are no DOCTYPE; the library's defaults would load the
        // schema. It is ignored now and the document reads as it is.
        {"schema location, local file",
         "<r xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
         "xsi:noNamespaceSchemaLocation=\"" +
             secret.path + "\">t</r>",
         nullptr},
        {"schema location over the network",
         "<r xmlns=\"urn:x\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
         "xsi:schemaLocation=\"urn:x " +
             port.url + "\">t</r>",
         nullptr},
    };
    for (const Case& c : cases) {
        OpenHooks::watch(secret.path);
        const Outcome outcome = parse(c.xml);
        EXPECT_EQ(OpenHooks::openings(), 0) << c.what;
        EXPECT_FALSE(port.connected()) << c.what;
        EXPECT_EQ(outcome.tree.find(kMarker), std::string::npos) << c.what;
        EXPECT_LT(outcome.seconds, 5.0) << c.what;
        if (c.refusal != nullptr) {
            EXPECT_TRUE(outcome.threw) << c.what;
            EXPECT_EQ(outcome.message.rfind("Fatal Error: parsing: From-String: line 1, char ", 0),
                      0u)
                << c.what << ": " << outcome.message;
            EXPECT_NE(outcome.message.find(c.refusal), std::string::npos)
                << c.what << ": " << outcome.message;
        } else {
            EXPECT_FALSE(outcome.threw) << c.what << ": " << outcome.message;
            EXPECT_NE(outcome.tree.find(">t|"), std::string::npos) << c.what;
        }
    }
}

TEST(HostileDocumentTest, ParseFileStillReadsTheNamedFileButNothingItReferences) {
    SecretFile secret;
    const std::string path = "/tmp/hardening_doc_" + std::to_string(getpid()) + ".xml";
    std::ofstream(path) << "<!DOCTYPE r [<!ENTITY x SYSTEM \"" << secret.path << "\">]><r>&x;</r>";
    OpenHooks::watch(secret.path);
    SAXToNodeParser parser;
    EXPECT_THROW(parser.parseFile(path), DomException);
    EXPECT_EQ(OpenHooks::openings(), 0);
    std::ofstream(path) << "<r>plain</r>";
    OpenHooks::watch(path);  // the hook does see the XML library open files
    EXPECT_EQ(parser.parseFile(path)->text, "plain");
    EXPECT_EQ(OpenHooks::openings(), 1);
    std::remove(path.c_str());
}

// Several hundred MiB to several GiB of text if expanded or copied; each must
// end early.
TEST(HostileDocumentTest, EntityExpansionIsBounded) {
    const std::string leaf(1000, 'a');
    std::string manyReferences, longDefault, manyElements;
    for (int i = 0; i < 20000; ++i) {
        manyReferences += "&big;";
    }
    for (int i = 0; i < 2000; ++i) {
        longDefault += "&k;";
        manyElements += "<p:e/>";
    }
    struct Case {
        const char* what;
        std::string xml;
        const char* refusal;
    };
    const Case cases[] = {
        {"billion laughs", nestedEntities(10, 10, "lol") + "<r>&e9;</r>", "entity expansions"},
        {"billion laughs in an attribute", nestedEntities(10, 10, "lol") + "<r a=\"&e9;\"/>",
         "entity expansions"},
        {"wide nesting", nestedEntities(4, 200, leaf) + "<r>&e3;</r>", "entity expansions"},
        {"one long entity referenced often",
         "<!DOCTYPE r [<!ENTITY big \"" + std::string(100000, 'x') + "\">]><r>" + manyReferences +
             "</r>",
         "replacement text"},
        {"long attribute default copied into many elements",
         "<!DOCTYPE r [<!ENTITY k \"" + leaf + "\"><!ATTLIST p:e x CDATA \"" + longDefault +
             "\">]><r xmlns:p=\"urn:p\">" + manyElements + "</r>",
         "characters to its elements"},
    };
    for (const Case& c : cases) {
        const Outcome outcome = parse(c.xml);
        EXPECT_TRUE(outcome.threw) << c.what;
        EXPECT_NE(outcome.message.find(c.refusal), std::string::npos)
            << c.what << ": " << outcome.message;
        // Unbounded, these take minutes and gigabytes; bounded, well under a
        // second natively and a few seconds under the sanitizers.
        EXPECT_LT(outcome.seconds, 20.0) << c.what;
        EXPECT_LT(outcome.peakGrowthKiB, 256 * 1024) << c.what;
    }
}

// Internal entities and attribute defaults within the bounds still apply, and
// documents without a DOCTYPE read as the XML library's defaults read them.
TEST(HostileDocumentTest, HarmlessDocumentsParseAsBefore) {
    std::string manyReferences = "<r a=\"&amp;&#65;\">", expanded;
    for (int i = 0; i < 30000; ++i) {
        manyReferences += "&amp;&lt;&#x41;&#66;";
        expanded += "&<AB";
    }
    std::string twenty, twoHundred;
    for (int i = 0; i < 10; ++i) {
        twenty += "ab";
    }
    for (int i = 0; i < 10; ++i) {
        twoHundred += twenty;
    }
    const std::pair<std::string, std::string> cases[] = {
        {nestedEntities(3, 10, "ab") + "<r a=\"&e1;\">&e2;</r>",
         "<{}r a=[" + twenty + "]>" + twoHundred + "|</>"},
        {"<!DOCTYPE r [<!ATTLIST c d CDATA \"1\"><!ATTLIST p:c q CDATA #FIXED \"2\">]>"
         "<r xmlns:p=\"urn:p\"><c/><c d=\"3\"/><p:c/></r>",
         "<{}r>|<{}c d=[1]>|</><{}c d=[3]>|</><{urn:p}c q=[2]>|</></>"},
        {"<a><b>x</b>y<e/>z</a>", "<{}a>yz|<{}b>x|</><{}e>|</></>"},
        {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<p:r xmlns:p=\"urn:x\" q=\"1\"><p:c "
         "p:q=\"2\" q=\"3\"/></p:r>",
         "<{urn:x}r q=[1]>|<{urn:x}c q=[3]>|</></>"},
        {"<r>x<!-- c -->y<![CDATA[z<&>]]><?pi data?></r>", "<{}r>xyz<&>|</>"},
        {"<r xmlns=\"urn:d\"> <c/> &quot;&apos;&gt;</r>", "<{urn:d}r>  \"'>|<{urn:d}c>|</></>"},
        {"\n<ns0:sharedClientIDs xmlns:ns0=\"urn:s\"><ns0:sharedClients>A</ns0:sharedClients>"
         "</ns0:sharedClientIDs>",
         "<{urn:s}sharedClientIDs>|<{urn:s}sharedClients>A|</></>"},
        {"<r>caf\xC3\xA9 \xE2\x82\xAC</r>", "<{}r>caf\xC3\xA9 \xE2\x82\xAC|</>"},
        {manyReferences + "</r>", "<{}r a=[&A]>" + expanded + "|</>"},
    };
    for (const auto& c : cases) {
        const Outcome outcome = parse(c.first);
        EXPECT_FALSE(outcome.threw) << c.first.substr(0, 80) << ": " << outcome.message;
        EXPECT_EQ(outcome.tree, c.second) << c.first.substr(0, 80);
    }
}

}  // namespace
