// Failures raised inside libAvQvlCppBinding.so reach this executable and are
// caught by the types an application sees.
#include <gtest/gtest.h>

#include "client/Exception.h"
#include "schemas/SharedClientIDs.h"
#include "util/Utf8.h"
#include "util/XMLNode.h"

using namespace Arvant::Net::AvQuorvel::Client;
using Arvant::Net::AvQuorvel::Util::DomException;
using Arvant::Net::AvQuorvel::Util::XMLNode;
using Arvant::Schemas::AvQuorvel::_2009_06::Base::SharedClientIDs;

TEST(CrossLibraryCatch, ConversionFailureIsCaughtAsItsExportedBases) {
    EXPECT_THROW(Arvant::Net::AvQuorvel::Util::toUtf8("x", -1), AvQVLException);
    EXPECT_THROW(Arvant::Net::AvQuorvel::Util::fromUtf8("x", -1), Exception);
}

TEST(CrossLibraryCatch, DomExceptionIsCaughtByItsOwnType) {
    XMLNode root;
    XMLNode* child = new XMLNode;
    child->localName = "intruder";
    child->parent = &root;
    root.children.push_back(child);

    SharedClientIDs ids;
    try {
        ids.parse(root);
        FAIL() << "parse accepted an unexpected child";
    } catch (const DomException& e) {
        EXPECT_EQ(e.getMessage(), "Unexpected node name: intruder");
    }
}
