// Who reads the kernel and when, and what the two matchers make of it.
#include "LimitsFixture.h"

using KernelPolicyTest = LimitsFixture;

TEST_F(KernelPolicyTest, StartsWithAnUnreadKernel) {
    EXPECT_EQ(0U, pri().m_localKernel.major);
    EXPECT_EQ(0U, pri().m_localKernel.minor);
    EXPECT_EQ(0U, pri().m_localKernel.patch);
    EXPECT_EQ(0U, pri().m_localKernel.build);
    EXPECT_EQ("", pri().m_localKernel.release);
    EXPECT_EQ(0, platform().kernel.unameCalls);
}

TEST_F(KernelPolicyTest, ReadsTheKernelOnce) {
    platform().kernel.release = "4.9.93-010.x86_64";
    EXPECT_TRUE(pri().GetLocalKernel());
    EXPECT_EQ(Lines({"uname()"}), journal());
    EXPECT_EQ(4U, pri().m_localKernel.major);
    EXPECT_EQ(9U, pri().m_localKernel.minor);
    EXPECT_EQ(93U, pri().m_localKernel.patch);
    EXPECT_EQ(10U, pri().m_localKernel.build);
    EXPECT_EQ("4.9.93-010.x86_64", pri().m_localKernel.release);

    platform().kernel.release = "5.10.0-1";
    EXPECT_FALSE(pri().GetLocalKernel());  // filled already: false, and nothing is read
    EXPECT_EQ(Lines({}), journal());
    EXPECT_EQ("4.9.93-010.x86_64", pri().m_localKernel.release);
}

TEST_F(KernelPolicyTest, TakesAReleaseWithoutABuild) {
    platform().kernel.release = "5.10.0";
    EXPECT_TRUE(pri().GetLocalKernel());
    EXPECT_EQ(5U, pri().m_localKernel.major);
    EXPECT_EQ(0U, pri().m_localKernel.build);
    EXPECT_EQ("5.10.0", pri().m_localKernel.release);
}

TEST_F(KernelPolicyTest, AsksAgainWhenReleaseHasNoThreeNumbers) {
    for (const char* release : {"abc", "5.10"}) {
        platform().kernel.release = release;
        EXPECT_FALSE(pri().GetLocalKernel()) << release;
        EXPECT_EQ(0U, pri().m_localKernel.major) << release;
        EXPECT_EQ(0U, pri().m_localKernel.minor) << release;
        EXPECT_EQ("", pri().m_localKernel.release) << release;
    }
    EXPECT_EQ(Lines({"uname()", "uname()"}), journal());

    platform().kernel.release = "5.10.3-7";
    EXPECT_TRUE(pri().GetLocalKernel());
    EXPECT_EQ(7U, pri().m_localKernel.build);
}

TEST_F(KernelPolicyTest, FailsWhenTheSystemDoesNotSayItsRelease) {
    platform().kernel.unameResult = -1;
    EXPECT_FALSE(pri().GetLocalKernel());
    EXPECT_FALSE(pri().GetLocalKernel());
    EXPECT_EQ(Lines({"uname()", "uname()"}), journal());
    EXPECT_EQ(0U, pri().m_localKernel.major);
    EXPECT_EQ("", pri().m_localKernel.release);
}

TEST_F(KernelPolicyTest, MatchesPrefixesWithoutEverReadingTheKernel) {
    platform().kernel.release = "4.9.93-010.x86_64";
    EXPECT_FALSE(pri().CheckKernelHits("4.9"));  // not read yet: nothing to match
    EXPECT_EQ(Lines({}), journal());

    ASSERT_TRUE(pri().GetLocalKernel());
    journal();
    EXPECT_TRUE(pri().CheckKernelHits(MULTI_CGROUP_CPU_KERNEL_BLACKLIST));
    EXPECT_TRUE(pri().CheckKernelHits("5.4.0-1  4.9.93-010"));
    EXPECT_FALSE(pri().CheckKernelHits("4.9.93-012 4.9.135-013"));
    EXPECT_FALSE(pri().CheckKernelHits(""));
    EXPECT_EQ(Lines({}), journal());  // and nothing is logged
}

TEST_F(KernelPolicyTest, HoldsTheBuiltInBlacklist) {
    EXPECT_STREQ("4.9.93-010 4.9.93-012 4.9.135-013 4.9.151-014", MULTI_CGROUP_CPU_KERNEL_BLACKLIST);
}

TEST_F(KernelPolicyTest, ReadsTheKernelForTheFirstRangeTestOnly) {
    platform().kernel.release = "4.9.93-011.x86_64";
    std::string list = " 4.9.93-010,4.9.93-012\r\n";
    EXPECT_TRUE(pri().LocalKernelLimits(list));
    EXPECT_EQ(" 4.9.93-010,4.9.93-012\r\n", list);  // untouched
    EXPECT_EQ(Lines({"uname()"}), journal());

    std::string other = "5.10.0-1,5.10.9-1";
    EXPECT_FALSE(pri().LocalKernelLimits(other));
    EXPECT_TRUE(pri().LocalKernelLimits(list));
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(KernelPolicyTest, SkipsMalformedRangesSilently) {
    std::string list = "4.9.93,4.9.151 4.9-1,4.10-1  6.1.0-13,6.1.0-13";
    EXPECT_TRUE(pri().LocalKernelLimits(list));
    EXPECT_EQ(Lines({"uname()"}), journal());
    std::string malformed = "4.9.93,9.9.151 4.9-1,9.10-1";
    EXPECT_FALSE(pri().LocalKernelLimits(malformed));
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(KernelPolicyTest, AnswersBlankRangeListWithoutReadingKernel) {
    for (const char* blank : {"", " ", "    ", " \t\r\n"}) {
        std::string list = blank;
        EXPECT_FALSE(pri().LocalKernelLimits(list));
        EXPECT_EQ(blank, list);
    }
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(KernelPolicyTest, FindsNoRangeWhenTheKernelCannotBeRead) {
    platform().kernel.unameResult = -1;
    std::string list = "0.0.0-0,9.9.9-9";
    EXPECT_FALSE(pri().LocalKernelLimits(list));
    EXPECT_FALSE(pri().LocalKernelLimits(list));
    EXPECT_FALSE(pri().CheckKernelHits("6"));
    EXPECT_EQ(Lines({"uname()", "uname()"}), journal());
}

TEST_F(KernelPolicyTest, ComparesTheBuildOnlyAtAnEqualEnd) {
    platform().kernel.release = "4.14.7-500.x86_64";
    std::string wide = "4.9.0-0,4.19.0-0";
    EXPECT_TRUE(pri().LocalKernelLimits(wide));
    std::string lowEnd = "4.14.7-501,4.19.0-0";
    EXPECT_FALSE(pri().LocalKernelLimits(lowEnd));
    std::string highEnd = "4.9.0-0,4.14.7-499";
    EXPECT_FALSE(pri().LocalKernelLimits(highEnd));
    std::string exact = "4.14.7-500,4.14.7-500";
    EXPECT_TRUE(pri().LocalKernelLimits(exact));
}
