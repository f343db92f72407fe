// Runs what the flags choose and refuses what chooses nothing.
#include "support/RunTests.h"

#include <fnmatch.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>

namespace support {

namespace {

bool AnyTestIs(const std::string& pattern) {
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *all.GetTestSuite(i);
        for (int k = 0; k < suite.total_test_count(); ++k) {
            const std::string name = std::string(suite.name()) + "." + suite.GetTestInfo(k)->name();
            if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) return true;
        }
    }
    return false;
}

/// The first pattern of what is to run that no test fits; empty when there is none.
std::string PatternWithoutTest() {
    std::string filter = GTEST_FLAG_GET(filter);
    filter.erase(std::min(filter.find('-'), filter.size()));
    std::istringstream patterns(filter);
    std::string pattern;
    while (std::getline(patterns, pattern, ':')) {
        if (!pattern.empty() && !AnyTestIs(pattern)) return pattern;
    }
    return "";
}

}  // namespace

int RunTests() {
    if (GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
    const std::string lost = PatternWithoutTest();
    if (!lost.empty()) {
        fprintf(stderr, "no test fits '%s'\n", lost.c_str());
        return 1;
    }
    const int result = RUN_ALL_TESTS();
    if (testing::UnitTest::GetInstance()->test_to_run_count() > 0) return result;
    fprintf(stderr, "no test was run\n");
    return 1;
}

}  // namespace support
