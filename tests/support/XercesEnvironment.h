// A GoogleTest global environment that keeps the XML library initialised for the
// whole test program: every parse must run between its SetUp and TearDown.
// Register it once, before RUN_ALL_TESTS:
//   ::testing::AddGlobalTestEnvironment(new XercesEnvironment);
#ifndef AVQVL_TESTS_SUPPORT_XERCESENVIRONMENT_H
#define AVQVL_TESTS_SUPPORT_XERCESENVIRONMENT_H

#include <gtest/gtest.h>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

class XercesEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale);
    }
    void TearDown() override { xercesc::XMLPlatformUtils::Terminate(); }
};

#endif  // AVQVL_TESTS_SUPPORT_XERCESENVIRONMENT_H
