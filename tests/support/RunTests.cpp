#include "support/RunTests.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace support {

int RunTests() {
    const int result = RUN_ALL_TESTS();
    if (GTEST_FLAG_GET(list_tests) || testing::UnitTest::GetInstance()->test_to_run_count() > 0) return result;
    fprintf(stderr, "no test was run\n");
    return 1;
}

}  // namespace support
