#include "LoadProfile.h"

#include <gtest/gtest.h>

using namespace agent;

TEST(LoadProfileTest, ReadsKindsWithTheirStandardAmounts) {
    const base::Result<LoadProfile> profile = ParseLoadProfile("greedy:2,polite,idle,hog:4");
    ASSERT_TRUE(profile) << profile.GetError().Text();
    ASSERT_EQ(3u, profile->size());
    EXPECT_EQ("greedy:2,polite:1,hog:4", FormatLoadProfile(*profile));
}

TEST(LoadProfileTest, AnEmptyTextIsIdle) {
    const base::Result<LoadProfile> profile = ParseLoadProfile("");
    ASSERT_TRUE(profile);
    EXPECT_EQ("idle", FormatLoadProfile(*profile));
}

TEST(LoadProfileTest, RefusesWhatItCannotReadAndSaysWhat) {
    const std::pair<const char*, const char*> bad[] = {
        {"busy", "unknown load \"busy\", known are idle, greedy, polite, hold, hog, hang"},
        {"greedy:", "amount \"\" of greedy: a number from 1 to 64"},
        {"greedy:0", "amount \"0\" of greedy: a number from 1 to 64"},
        {"greedy:-1", "amount \"-1\" of greedy: a number from 1 to 64"},
        {"greedy:65", "amount \"65\" of greedy: a number from 1 to 64"},
        {"greedy:1x", "amount \"1x\" of greedy: a number from 1 to 64"},
        {"hog:99999", "amount \"99999\" of hog: a number from 1 to 4096"},
        {"polite:1:2", "amount \"1:2\" of polite: a number from 1 to 64"},
        {"greedy:99999999999999999999", "amount \"99999999999999999999\" of greedy: a number from 1 to 64"},
        {"polite,busy", "unknown load \"busy\", known are idle, greedy, polite, hold, hog, hang"},
    };
    for (const auto& item : bad) {
        const base::Result<LoadProfile> profile = ParseLoadProfile(item.first);
        ASSERT_FALSE(profile) << item.first;
        EXPECT_EQ(item.second, profile.GetError().Text());
    }
}
