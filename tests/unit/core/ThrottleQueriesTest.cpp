// The queries that worker threads ask: the throttling rule by table, and what each answer costs in calls.
#include "CoreFixture.h"

class ThrottleQueriesTest : public CoreFixture {
protected:
    void SetUp() override {
        CoreFixture::SetUp();
        conf().cpuLimitEnabled.Set(1);
        journal();
    }
};

TEST_F(ThrottleQueriesTest, KnowsThreePriorities) {
    EXPECT_TRUE(CheckPriorityValid(0));
    EXPECT_TRUE(CheckPriorityValid(1));
    EXPECT_TRUE(CheckPriorityValid(2));
    EXPECT_FALSE(CheckPriorityValid(3));
    EXPECT_FALSE(CheckPriorityValid(4294967295u));
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(ThrottleQueriesTest, ThrottlesByLevelAndPriority) {
    struct Case {
        int level;
        unsigned int priority;
        unsigned int pauseMs;  // 0: no throttling
    };
    const Case cases[] = {
        {0, 0, 0},  {0, 1, 0},  {0, 2, 0},               // free
        {1, 0, 0},  {1, 1, 5},  {1, 2, 5},               // busy spares the most important work
        {2, 0, 10}, {2, 1, 10}, {2, 2, 10},              // very busy spares none
        {3, 0, 0},  {3, 2, 0},  {-1, 0, 0}, {-1, 2, 0},  // only 1 and 2 mean anything
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "level " << c.level << " priority " << c.priority);
        platform().base.cpuLevel = c.level;
        const bool expected = c.pauseMs != 0;
        const Lines asked = {"CResourceMonitor::GetCpuUsageLevel()"};
        Lines slept = asked;
        if (expected) slept.push_back(doubles::Format("CToolUtil::msleep(%u)", c.pauseMs));

        EXPECT_EQ(expected, pri().IsCpuNeedLimit(c.priority));
        EXPECT_EQ(asked, journal()) << "asking never sleeps";
        EXPECT_EQ(expected, pri().CpuLimit(c.priority));
        EXPECT_EQ(slept, journal());
        EXPECT_EQ(expected, pri().CheckCpuLimit(c.priority, false));
        EXPECT_EQ(asked, journal());
        EXPECT_EQ(expected, pri().CheckCpuLimit(c.priority, true));
        EXPECT_EQ(slept, journal());
    }
}

TEST_F(ThrottleQueriesTest, CountsWhatItTellsWorkersByPriority) {
    struct Counts {
        unsigned long answers = 0;
        unsigned long sleptMs = 0;
    };
    const auto read = [this](unsigned int priority, bool now) {
        Counts counts;
        EXPECT_EQ(now, pri().GetHoldBacks(priority, counts.answers, counts.sleptMs));
        return counts;
    };
    platform().base.cpuLevel = 1;
    const Counts zero = read(0, false), one = read(1, true), two = read(2, true);
    EXPECT_FALSE(pri().CpuLimit(0));
    EXPECT_TRUE(pri().IsCpuNeedLimit(1));
    EXPECT_TRUE(pri().CpuLimit(1));
    platform().base.cpuLevel = 2;
    EXPECT_TRUE(pri().CpuLimit(1));
    EXPECT_TRUE(pri().IsCpuNeedLimit(2));
    platform().base.cpuLevel = 0;
    EXPECT_FALSE(pri().CpuLimit(2));
    EXPECT_EQ(read(0, false).answers, zero.answers);
    EXPECT_EQ(read(1, false).answers, one.answers + 3);
    EXPECT_EQ(read(1, false).sleptMs, one.sleptMs + 5 + 10);
    EXPECT_EQ(read(2, false).answers, two.answers + 1) << "who asks for the counts is not told";
    EXPECT_EQ(read(2, false).sleptMs, two.sleptMs);
    EXPECT_EQ(read(3, false).answers, 0U) << "no such priority";
}

TEST_F(ThrottleQueriesTest, RefusesUnknownPriorityBeforeItAsks) {
    doubles::ForgetOnlineConf();  // not even the switch is looked up
    for (const int level : {0, 1, 2}) {
        platform().base.cpuLevel = level;
        for (const unsigned int priority : {3u, 4u, 4294967295u}) {
            EXPECT_FALSE(pri().IsCpuNeedLimit(priority));
            EXPECT_FALSE(pri().CpuLimit(priority));
        }
    }
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(ThrottleQueriesTest, ReadsNoLevelWhileThrottlingIsSwitchedOff) {
    conf().cpuLimitEnabled.Set(0);
    journal();
    platform().base.cpuLevel = 2;
    EXPECT_FALSE(pri().IsCpuNeedLimit(2));
    EXPECT_FALSE(pri().CpuLimit(0));
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(ThrottleQueriesTest, ComparesTheSwitchInItsFullWidth) {
    platform().base.cpuLevel = 2;
    for (const long on : {4294967296L, -1L, 2L}) {
        conf().cpuLimitEnabled.Set(on);
        EXPECT_TRUE(pri().IsCpuNeedLimit(0)) << on;
    }
}

TEST_F(ThrottleQueriesTest, CallsMemoryBusyAtEveryLevelButZero) {
    struct Case {
        int level;
        bool busy;
    };
    for (const Case& c : {Case{0, false}, Case{1, true}, Case{2, true}, Case{-1, true}}) {
        platform().base.memLevel = c.level;
        EXPECT_EQ(c.busy, pri().IsMemBusy()) << c.level;
        EXPECT_EQ(Lines({"CResourceMonitor::GetMemUsageLevel()"}), journal());
    }
}

TEST_F(ThrottleQueriesTest, LeavesOutputAloneWhereThereIsNoMaximum) {
    struct Case {
        int maximum;
        bool known;
        long out;
    };
    for (const Case& c : {Case{-2147483647 - 1, false, 77}, Case{-1, false, 77}, Case{0, false, 77}, Case{1, true, 1},
                          Case{25, true, 25}, Case{2147483647, true, 2147483647L}}) {
        SCOPED_TRACE(c.maximum);
        platform().base.maxCpu = c.maximum;
        platform().base.maxMem = 0;
        long out = 77;
        EXPECT_EQ(c.known, pri().GetMaxCpu(out));
        EXPECT_EQ(c.out, out);
        EXPECT_EQ(Lines({"CResourceMonitor::GetMaxCpu()"}), journal());

        platform().base.maxCpu = 0;
        platform().base.maxMem = c.maximum;
        out = 77;
        EXPECT_EQ(c.known, pri().GetMaxMem(out));
        EXPECT_EQ(c.out, out);
        EXPECT_EQ(Lines({"CResourceMonitor::GetMaxMem()"}), journal());
    }
}

TEST_F(ThrottleQueriesTest, TellsTheLimitInForceNotTheOneWanted) {
    pri().m_legacyCpuEnabled = true;
    EXPECT_FALSE(pri().IsResourceLimited());
    pri().m_legacyCpuEnabled = false;
    pri().m_resourceLimited = true;
    EXPECT_TRUE(pri().IsResourceLimited());
    EXPECT_EQ(Lines({}), journal());
}
