#include <gtest/gtest.h>

#include "client/Exception.h"

using namespace Arvant::Net::AvQuorvel::Client;

namespace {

template <typename T>
void expectConstructorsAndCopies() {
    T plain("plain");
    EXPECT_EQ(plain.getType(), 0);
    EXPECT_EQ(plain.getMessage(), "plain");

    T typed(-2, "typed");
    EXPECT_EQ(typed.getType(), -2);
    EXPECT_EQ(typed.getMessage(), "typed");

    T copy(typed);
    EXPECT_EQ(copy.getType(), -2);
    EXPECT_EQ(copy.getMessage(), "typed");

    copy = plain;
    EXPECT_EQ(copy.getType(), 0);
    EXPECT_EQ(copy.getMessage(), "plain");

    T& self = copy;
    copy = self;
    EXPECT_EQ(copy.getType(), 0);
    EXPECT_EQ(copy.getMessage(), "plain");
}

}  // namespace

TEST(Exception, EveryClassHasBothConstructorsAndValueCopies) {
    expectConstructorsAndCopies<Exception>();
    expectConstructorsAndCopies<AvQVLException>();
    expectConstructorsAndCopies<AvQVLConnectionException>();
    expectConstructorsAndCopies<AvQVLProtocolException>();
    expectConstructorsAndCopies<AvQVLRuntimeException>();
    expectConstructorsAndCopies<AvQVLUnrecognisedException>();
    expectConstructorsAndCopies<Utf8ConversionException>();
}

TEST(Exception, RuntimeExceptionDefaultsToAnEmptyMessage) {
    AvQVLRuntimeException e;
    EXPECT_EQ(e.getType(), 0);
    EXPECT_EQ(e.getMessage(), "");
}

TEST(Exception, HandlersCatchThroughTheirBases) {
    int caughtAsService = 0;
    try {
        throw Utf8ConversionException("conversion");
    } catch (const AvQVLException& e) {
        caughtAsService = 1;
        EXPECT_EQ(e.getMessage(), "conversion");
    }
    EXPECT_EQ(caughtAsService, 1);

    // A plain Exception (what unregisterClient rethrows) is not a service failure.
    bool caughtAsService2 = false;
    bool caughtAsRoot = false;
    try {
        try {
            throw Exception(-1, "plain");
        } catch (const AvQVLException&) {
            caughtAsService2 = true;
        }
    } catch (const Exception& e) {
        caughtAsRoot = true;
        EXPECT_EQ(e.getType(), -1);
    }
    EXPECT_FALSE(caughtAsService2);
    EXPECT_TRUE(caughtAsRoot);
}

TEST(Exception, SlicedCopyKeepsTypeAndMessageButNotTheClass) {
    AvQVLRuntimeException original(7, "runtime");
    Exception sliced(original);
    EXPECT_EQ(sliced.getType(), 7);
    EXPECT_EQ(sliced.getMessage(), "runtime");
}
