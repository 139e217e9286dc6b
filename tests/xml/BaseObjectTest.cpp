#include <gtest/gtest.h>

#include "util/BaseObject.h"
#include "util/XmlStream.h"

using Arvant::Net::AvQuorvel::Util::BaseObject;
using Arvant::Net::AvQuorvel::Util::XmlStream;

namespace {

// A schema object that counts its destructor runs and uses two namespaces.
class Probe : public BaseObject {
public:
    explicit Probe(int* destroyed) : BaseObject("urn:probe"), destroyed(destroyed) {}
    Probe(const Probe& other) = default;
    Probe& operator=(const Probe& other) = default;
    ~Probe() override { ++*destroyed; }

    Probe* reallyClone() const override { return new Probe(*this); }
    void getNamespaces(std::set<std::string>& namespaces) const override {
        namespaces.insert(namespaceUri);
        namespaces.insert("urn:extra");
    }
    bool open(XmlStream& stream, const std::string& name) const {
        return outputXMLBase(stream, name, "Probe::open");
    }
    const std::string& uri() const { return namespaceUri; }

private:
    int* destroyed;
};

TEST(BaseObjectTest, UnrefDestroysExactlyOnceAtZeroAndNeverBelow) {
    int destroyed = 0;
    Probe* probe = new Probe(&destroyed);
    probe->ref();
    probe->ref();
    probe->unref();
    EXPECT_EQ(probe->askRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
    probe->unref();
    EXPECT_EQ(destroyed, 1);
    {
        Probe uncounted(&destroyed);
        uncounted.unref();
        EXPECT_EQ(uncounted.askRefCount(), -1);
        uncounted.ref();  // back to 0 by increment: nothing happens either
        EXPECT_EQ(destroyed, 1);
    }
    EXPECT_EQ(destroyed, 2);
}

TEST(BaseObjectTest, CopiesKeepTheCountAndClonesStartUncounted) {
    int destroyed = 0;
    Probe source(&destroyed);
    source.ref(), source.ref(), source.ref();

    Probe copy(source);
    EXPECT_EQ(copy.askRefCount(), 3);
    EXPECT_EQ(copy.uri(), "urn:probe");

    BaseObject* clone = source.clone();
    EXPECT_EQ(clone->askRefCount(), 0);
    EXPECT_EQ(source.askRefCount(), 3);
    EXPECT_NE(dynamic_cast<Probe*>(clone), nullptr);
    clone->ref();
    clone->unref();  // a clone is an ordinary counted object
    EXPECT_EQ(destroyed, 1);

    Probe other(&destroyed);
    other = source;
    EXPECT_EQ(other.askRefCount(), 3);
    Probe& self = other;
    other = self;
    EXPECT_EQ(other.askRefCount(), 3);
    EXPECT_EQ(other.uri(), "urn:probe");
}

// Once declarations are written nothing is registered (SharedClientIDsTest).
TEST(BaseObjectTest, OutputXMLBaseDeclaresNamespacesOnTheFirstElementOnly) {
    int destroyed = 0;
    Probe probe(&destroyed);
    XmlStream stream;
    EXPECT_TRUE(probe.open(stream, "outer"));
    stream << ">";
    EXPECT_FALSE(probe.open(stream, "inner"));
    EXPECT_EQ(stream.str(),
              "\n<ns1:outer xmlns:ns0=\"urn:extra\" xmlns:ns1=\"urn:probe\">\n<ns1:inner");
}

}  // namespace
