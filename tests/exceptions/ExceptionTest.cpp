#include <gtest/gtest.h>

#include <type_traits>

#include "client/Exception.h"

using namespace Arvant::Net::AvQuorvel::Client;

namespace {

// Both constructors, value copies and self-assignment, and the place in the
// hierarchy that handlers rely on.
template <typename T, typename Base>
void expectConstructorsAndCopies() {
    static_assert(std::is_base_of<Base, T>::value, "wrong base class");
    T plain("plain");
    T copy(-2, "typed");
    EXPECT_EQ(copy.getType(), -2);
    T copied(copy);
    EXPECT_EQ(copied.getMessage(), "typed");
    EXPECT_EQ(copied.getType(), -2);
    copied = plain;
    T& self = copied;
    copied = self;
    EXPECT_EQ(copied.getType(), 0);
    EXPECT_EQ(copied.getMessage(), "plain");
}

}  // namespace

TEST(Exception, EveryClassHasBothConstructorsAndValueCopies) {
    expectConstructorsAndCopies<Exception, Exception>();
    expectConstructorsAndCopies<AvQVLException, Exception>();
    expectConstructorsAndCopies<AvQVLConnectionException, AvQVLException>();
    expectConstructorsAndCopies<AvQVLProtocolException, AvQVLException>();
    expectConstructorsAndCopies<AvQVLRuntimeException, AvQVLException>();
    expectConstructorsAndCopies<AvQVLUnrecognisedException, AvQVLException>();
    expectConstructorsAndCopies<Utf8ConversionException, AvQVLException>();
    static_assert(!std::is_base_of<AvQVLException, Exception>::value, "wrong base class");

    AvQVLRuntimeException empty;
    EXPECT_EQ(empty.getType(), 0);
    EXPECT_EQ(empty.getMessage(), "");
}
