#include <gtest/gtest.h>

#include "support/XercesEnvironment.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new XercesEnvironment);
    return RUN_ALL_TESTS();
}
