#include "LoadProfile.h"

#include <gtest/gtest.h>

using namespace agent;

TEST(LoadProfileTest, ReadsKindsWithTheirStandardAmounts) {
    LoadProfile profile;
    std::string problem;
    ASSERT_TRUE(ParseLoadProfile("greedy:2,polite,idle,hog:4", profile, problem)) << problem;
    ASSERT_EQ(3u, profile.size());
    EXPECT_EQ("greedy:2,polite:1,hog:4", FormatLoadProfile(profile));
}

TEST(LoadProfileTest, AnEmptyTextIsIdle) {
    LoadProfile profile{{LoadKind::kHog, 1}};
    std::string problem;
    ASSERT_TRUE(ParseLoadProfile("", profile, problem));
    EXPECT_EQ("idle", FormatLoadProfile(profile));
}

TEST(LoadProfileTest, RefusesWhatItCannotReadAndKeepsTheOldProfile) {
    const char* bad[] = {"busy",      "greedy:",    "greedy:0",
                         "greedy:-1", "greedy:65",  "greedy:1x",
                         "hog:99999", "polite:1:2", "greedy:99999999999999999999"};
    for (const char* text : bad) {
        LoadProfile profile{{LoadKind::kHold, 7}};
        std::string problem;
        EXPECT_FALSE(ParseLoadProfile(text, profile, problem)) << text;
        EXPECT_FALSE(problem.empty()) << text;
        EXPECT_EQ("hold:7", FormatLoadProfile(profile)) << text;
    }
}
