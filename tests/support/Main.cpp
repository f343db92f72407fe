// The test programs' own beginning.
#include <gtest/gtest.h>

#include "support/RunTests.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return support::RunTests();
}
