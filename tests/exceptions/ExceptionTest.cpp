// The exception classes, linked against libAvQvlCppBinding.so as an application
// links. DomException, and the plain Exception of unregisterClient, are caught
// across the library in the client tests.
#include <gtest/gtest.h>

#include <type_traits>

#include "client/Exception.h"
#include "util/Utf8.h"

using namespace Arvant::Net::AvQuorvel::Client;

namespace {

template <typename T, typename Base>
void expectConstructorsAndCopies() {
    static_assert(std::is_base_of<Base, T>::value, "wrong base class");
    const T typed(-2, "typed");
    T copied(typed);
    EXPECT_EQ(copied.getType(), -2);
    EXPECT_EQ(copied.getMessage(), "typed");
    copied = T("plain");
    T& self = copied;
    copied = self;
    EXPECT_EQ(copied.getType(), 0);
    EXPECT_EQ(copied.getMessage(), "plain");
}

TEST(ExceptionTest, EveryClassHasBothConstructorsAndValueCopies) {
    expectConstructorsAndCopies<Exception, Exception>();
    expectConstructorsAndCopies<AvQVLException, Exception>();
    expectConstructorsAndCopies<AvQVLConnectionException, AvQVLException>();
    expectConstructorsAndCopies<AvQVLProtocolException, AvQVLException>();
    expectConstructorsAndCopies<AvQVLRuntimeException, AvQVLException>();
    expectConstructorsAndCopies<AvQVLUnrecognisedException, AvQVLException>();
    expectConstructorsAndCopies<Utf8ConversionException, AvQVLException>();
    EXPECT_EQ(AvQVLRuntimeException().getType(), 0);
    EXPECT_EQ(AvQVLRuntimeException().getMessage(), "");
    // A conversion failure thrown inside the library, caught through its exported base.
    EXPECT_THROW(Arvant::Net::AvQuorvel::Util::toUtf8("x", -1), AvQVLException);
}

}  // namespace
