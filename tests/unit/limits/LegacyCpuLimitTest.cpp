// The legacy CPU limit: who goes first, the value, the changed and the unchanged path.
#include <climits>

#include "LimitsFixture.h"

namespace {

// A pass of a process that nobody else limits, up to its first log line.
const Lines kReached = {"IsResourceLimitCpuCgroupV2Runtime()", "CResourceMonitor::IsCpuSolarisMode()",
                        "GetResourceLimitUtil()", "IResourceLimitUtil::SyncCpuLimit()"};
const Lines kUnchanged = {"W4 resource limit mode and max limit cpu is not change", "time()"};

Lines Changed(int mode, int maxCpu) {
    return {doubles::Format("F4 [MonitorPri] resource mode user conf:%d", mode),
            doubles::Format("F4 [MonitorPri] resource cpu user conf:%d", maxCpu),
            doubles::Format("F4 [MonitorPri] resource get res:%d", mode & 1)};
}
Lines Started(int percent, int hundredths) {
    return {"W4 not match 0 try to start resource limit",
            doubles::Format("IResourceLimitUtil::StartCpuLimit(%d,%d,error=0)", percent, hundredths),
            "W4 limit cpu success", "IResourceLimitUtil::IsCpuLimited()"};
}
Lines StartFailed(int percent, int hundredths, int error) {
    return {"W4 not match 0 try to start resource limit",
            doubles::Format("IResourceLimitUtil::StartCpuLimit(%d,%d,error=0)", percent, hundredths),
            doubles::Format("F3 [MonitorPri] limit cpu fail, error is %d", error),
            "IResourceLimitUtil::IsCpuLimited()"};
}
const Lines kStopped = {"W4 match 0 try to close resource limit", "IResourceLimitUtil::StopCpuLimit(error=0)",
                        "IResourceLimitUtil::IsCpuLimited()"};
Lines Retried(int maxCpu, int percent, int hundredths) {
    return {doubles::Format("F4 [MonitorPri] try limit cpu again:%d", maxCpu),
            doubles::Format("IResourceLimitUtil::StartCpuLimit(%d,%d,error=0)", percent, hundredths),
            "IResourceLimitUtil::IsCpuLimited()"};
}

class LegacyCpuLimitTest : public LimitsFixture {
protected:
    void SetUp() override {
        LimitsFixture::SetUp();
        platform().journalTime = true;  // only an unchanged pass asks for the time
    }
    /// Runs one pass. Returns: its whole journal.
    Lines Pass(int mode, long maxCpu) {
        EXPECT_TRUE(pri().CpuResourceLimit(mode, maxCpu));
        return journal();
    }
};

}  // namespace

// --- whoever else holds the CPU controller goes first ---

TEST_F(LegacyCpuLimitTest, StepsAsideForTheUnifiedCpuGroups) {
    FillLegacyState();
    BeUnifiedMain();
    platform().manager.cpuEnabled.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                     "CCgroupManager::IsMemCgroupEnabled()", "IsResourceLimitCpuCgroupV2Runtime()",
                     "CCgroupManager::IsCpuCgroupEnabled()", "ClearResourceLimitCpuCgroupState()"}),
              Pass(1, 10));
    EXPECT_EQ(kCpuForgotten, CpuState());  // and the pass is not counted
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyCpuLimitTest, DropsLegacyV2OfBothHalvesForUnifiedOnV2) {
    FillLegacyState();
    BeUnifiedMain();
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    platform().limit.cpuV2Runtime.Always(true);
    platform().limit.memV2Runtime.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                     "IsResourceLimitCpuCgroupV2Runtime()",
                     // the version 2 detach
                     "IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
                     "IsResourceLimitMemCgroupV2Runtime()", "ClearResourceLimitMemCgroupState()",
                     // then the CPU detach of the owner
                     "CCgroupManager::IsCpuCgroupEnabled()", "ClearResourceLimitCpuCgroupState()"}),
              Pass(1, 10));
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyCpuLimitTest, OnlyForgetsWhenUnifiedMemorySharesV2) {
    FillLegacyState();
    BeUnifiedMain();
    platform().manager.memEnabled.Always(true);
    platform().manager.memV2.Always(true);
    platform().manager.cpuV2.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                     "CCgroupManager::IsMemV2()", "IsResourceLimitCpuCgroupV2Runtime()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
                     "CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()"}),
              Pass(1, 10));
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyCpuLimitTest, GoesOnWhenUnifiedHoldsMemoryAndCpuIsV1) {
    BeUnifiedMain();
    platform().manager.memEnabled.Always(true);
    platform().manager.memV2.Always(true);
    EXPECT_EQ(
        Lines(
            {"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
             "CCgroupManager::IsMemV2()", "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitCpuCgroupV2Runtime()",
             "IsResourceLimitMemCgroupV2Runtime()", "CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
             "CResourceMonitor::IsCpuSolarisMode()", "GetResourceLimitUtil()", "IResourceLimitUtil::SyncCpuLimit()"}) +
            Changed(9, 10) + Started(9, 50),
        Pass(9, 10));
}

TEST_F(LegacyCpuLimitTest, GoesOnWhileUnifiedModeHoldsNoController) {
    BeUnifiedMain();
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "CCgroupManager::IsCpuCgroupEnabled()",
                     "CResourceMonitor::IsCpuSolarisMode()", "GetResourceLimitUtil()",
                     "IResourceLimitUtil::SyncCpuLimit()"}) +
                  Changed(9, 10) + Started(9, 50),
              Pass(9, 10));
}

TEST_F(LegacyCpuLimitTest, MainProcessGoesOnWithOwnOldV2Limit) {
    BeUnifiedMain();
    platform().manager.memEnabled.Always(true);
    platform().manager.memV2.Always(true);
    platform().limit.cpuV2Runtime.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                     "CCgroupManager::IsMemV2()", "IsResourceLimitCpuCgroupV2Runtime()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
                     "IsResourceLimitMemCgroupV2Runtime()", "CCgroupManager::IsCpuCgroupEnabled()",
                     "CCgroupManager::IsCpuV2()", "CResourceMonitor::IsCpuSolarisMode()", "GetResourceLimitUtil()",
                     "IResourceLimitUtil::SyncCpuLimit()"}) +
                  Changed(9, 10) + Started(9, 50),
              Pass(9, 10));
}

TEST_F(LegacyCpuLimitTest, DoesNotAskManagerInV2MemoryGroup) {
    pri().m_unifiedActive = true;
    HaveManager();
    platform().manager.cpuV2.Always(true);
    HaveClient();
    platform().client.memJoined.Always(true);
    platform().client.memPath.Always("/cg/zel.agent/main/A");
    platform().files.existing.insert("/cg/zel.agent/main/A/cgroup.controllers");
    EXPECT_EQ(
        Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemCgroupPath()",
               "access(/cg/zel.agent/main/A/cgroup.controllers)", "IsResourceLimitCpuCgroupV2Runtime()",
               "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
               "CCgroupClient::IsCpuJoined()", "CResourceMonitor::IsCpuSolarisMode()", "GetResourceLimitUtil()",
               "IResourceLimitUtil::SyncCpuLimit()"}) +
            Changed(9, 10) + Started(9, 50),
        Pass(9, 10));
}

TEST_F(LegacyCpuLimitTest, DoesNotAskManagerWhenTheUnifiedModeIsOff) {
    pri().m_isMainAgent = true;
    HaveManager();
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    EXPECT_EQ(kReached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
}

TEST_F(LegacyCpuLimitTest, DoesNotAskManagerOutsideTheMainProcess) {
    pri().m_unifiedActive = true;
    HaveManager();
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    EXPECT_EQ(kReached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
}

TEST_F(LegacyCpuLimitTest, ManagesWithoutAManager) {
    pri().m_isMainAgent = true;
    pri().m_unifiedActive = true;
    EXPECT_EQ(kReached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
}

TEST_F(LegacyCpuLimitTest, DetachesWhenItsClientJoinedACpuGroup) {
    FillLegacyState();
    HaveClient();
    platform().client.cpuJoined.Always(true);
    platform().client.cpuPath.Always("/sys/fs/cgroup/cpu/zel.agent/main");  // version 1: no cgroup.controllers
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()",
                     "access(/sys/fs/cgroup/cpu/zel.agent/main/cgroup.controllers)", "CCgroupClient::IsMemJoined()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "CCgroupClient::IsCpuJoined()",
                     "ClearResourceLimitCpuCgroupState()"}),
              Pass(1, 10));
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyCpuLimitTest, ClearsTwiceOnJoiningV2CpuOverV2Limit) {
    FillLegacyState();
    BeClientInV2CpuGroup();
    platform().limit.cpuV2Runtime.Always(true);
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()",
                     "access(/sys/fs/cgroup/zel.agent/main/cgroup.controllers)", "IsResourceLimitCpuCgroupV2Runtime()",
                     // the version 2 detach
                     "IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
                     "IsResourceLimitMemCgroupV2Runtime()",
                     // then the CPU detach of the joined client
                     "CCgroupClient::IsCpuJoined()", "ClearResourceLimitCpuCgroupState()"}),
              Pass(1, 10));
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyCpuLimitTest, IgnoresTheClientInTheMainProcess) {
    pri().m_isMainAgent = true;
    HaveClient();
    platform().client.cpuJoined.Always(true);
    EXPECT_EQ(kReached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
}

TEST_F(LegacyCpuLimitTest, RemembersRunningOnV2AfterLibraryForgot) {
    FillLegacyState();
    BeClientInV2MemoryGroup();
    platform().limit.cpuV2Runtime.Always(true);
    EXPECT_EQ(
        Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemCgroupPath()",
               "access(/sys/fs/cgroup/zel.agent/main/cgroup.controllers)", "IsResourceLimitCpuCgroupV2Runtime()",
               // the detach makes the library forget
               "IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
               "IsResourceLimitMemCgroupV2Runtime()",
               // and the pass still ends here
               "CCgroupClient::IsCpuJoined()"}),
        Pass(1, 10));
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyCpuLimitTest, GoesOnBesideV2MemoryGroupOnV1) {
    BeClientInV2MemoryGroup();
    EXPECT_EQ(
        Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemCgroupPath()",
               "access(/sys/fs/cgroup/zel.agent/main/cgroup.controllers)", "IsResourceLimitCpuCgroupV2Runtime()",
               "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
               "CCgroupClient::IsCpuJoined()", "CResourceMonitor::IsCpuSolarisMode()", "GetResourceLimitUtil()",
               "IResourceLimitUtil::SyncCpuLimit()"}) +
            Changed(1, 10) + Started(9, 50),
        Pass(1, 10));
}

TEST_F(LegacyCpuLimitTest, KeepsRunningLegacyV2WithoutUnifiedGroup) {
    platform().limit.cpuV2Runtime.Always(true);
    EXPECT_EQ(kReached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
}

// --- the value ---

TEST_F(LegacyCpuLimitTest, HandsTheValueOverAsPercentAndHundredths) {
    struct Case {
        long maxCpu;
        int logged, percent, hundredths;
    };
    const std::vector<Case> cases = {
        {10, 10, 9, 50},   {1, 1, 1, 0},       {0, 0, 1, 0},       {-5, -5, 1, 0},     {50, 50, 47, 50},
        {100, 100, 95, 0}, {105, 105, 99, 75}, {106, 106, 100, 0}, {200, 200, 100, 0},
    };
    for (const Case& c : cases) {
        pri().ResetLegacyCpuLimitState();
        EXPECT_EQ(kReached + Changed(1, c.logged) + Started(c.percent, c.hundredths), Pass(1, c.maxCpu)) << c.maxCpu;
    }
}

TEST_F(LegacyCpuLimitTest, CountsShareOverAllProcessorsInSolarisMode) {
    platform().base.solaris = true;
    const Lines reached = {"IsResourceLimitCpuCgroupV2Runtime()", "CResourceMonitor::IsCpuSolarisMode()",
                           "sysconf(_SC_NPROCESSORS_CONF)", "GetResourceLimitUtil()",
                           "IResourceLimitUtil::SyncCpuLimit()"};
    EXPECT_EQ(reached + Changed(1, 50) + Started(190, 0), Pass(1, 50));  // 4750 * 4
    EXPECT_EQ(reached + Changed(1, 10) + Started(38, 0), Pass(1, 10));
    EXPECT_EQ(reached + Changed(1, 300) + Started(400, 0), Pass(1, 300));  // clamped first, then multiplied
    EXPECT_EQ(reached + Changed(1, 0) + Started(4, 0), Pass(1, 0));

    platform().kernel.configuredCpus = 3;
    EXPECT_EQ(reached + Changed(1, 10) + Started(28, 50), Pass(1, 10));
    platform().kernel.configuredCpus = 0;
    EXPECT_EQ(reached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
    platform().kernel.configuredCpus = -1;  // the system does not know: passed on negative
    EXPECT_EQ(reached + Changed(1, 10) + Started(-9, -50), Pass(1, 10));
    EXPECT_EQ(-950, pri().m_legacyCpuLimitValue);
}

// --- changed settings ---

TEST_F(LegacyCpuLimitTest, StartsTheLimitAndRemembersIt) {
    platform().limit.cpuLimited.Always(true);
    EXPECT_EQ(kReached + Changed(13, 10) + Started(9, 50), Pass(13, 10));
    EXPECT_EQ("limited=1 enabled=1 value=950 retry=0 | code=0 mode=13 count=1", CpuState());
    EXPECT_TRUE(pri().IsResourceLimited());
}

TEST_F(LegacyCpuLimitTest, TakesWhatLibrarySaysEvenAfterSuccess) {
    platform().limit.cpuLimited.Always(false);
    EXPECT_EQ(kReached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
    EXPECT_EQ("limited=0 enabled=1 value=950 retry=0 | code=0 mode=1 count=1", CpuState());
}

TEST_F(LegacyCpuLimitTest, LogsErrorOfFailedStartAndKeepsBothNumbers) {
    platform().limit.startCpu.Always({5, 13});
    platform().limit.cpuLimited.Always(true);  // an older limit may still be in force
    EXPECT_EQ(kReached + Changed(1, 10) + StartFailed(9, 50, 13), Pass(1, 10));
    EXPECT_EQ("limited=1 enabled=1 value=950 retry=0 | code=50013 mode=1 count=1", CpuState());
}

TEST_F(LegacyCpuLimitTest, KeepsTheErrorCodeAfterALaterSuccess) {
    platform().limit.startCpu.Then({5, 13});
    Pass(1, 10);
    EXPECT_EQ(kReached + Changed(1, 20) + Started(19, 0), Pass(1, 20));
    EXPECT_EQ(50013, pri().m_legacyCpuErrorCode);
}

TEST_F(LegacyCpuLimitTest, WrapsAnErrorCodeThatDoesNotFit) {
    platform().limit.startCpu.Always({300000, 1});
    Pass(1, 10);
    EXPECT_EQ(-1294967295, pri().m_legacyCpuErrorCode);
}

TEST_F(LegacyCpuLimitTest, StopsOnceOnAFirstCallWithTheLimitOff) {
    EXPECT_EQ(kReached + Changed(0, 10) + kStopped, Pass(0, 10));
    EXPECT_EQ("limited=0 enabled=0 value=950 retry=0 | code=0 mode=0 count=1", CpuState());

    EXPECT_EQ(kReached + kUnchanged, Pass(0, 10));
    EXPECT_EQ("limited=0 enabled=0 value=950 retry=1700000000 | code=0 mode=0 count=2", CpuState());
}

TEST_F(LegacyCpuLimitTest, StopsWhenTheBitIsTakenAway) {
    platform().limit.cpuLimited.Then(true).Then(false);
    Pass(1, 10);
    EXPECT_EQ(kReached + Changed(12, 10) + kStopped, Pass(12, 10));
    EXPECT_EQ("limited=0 enabled=0 value=950 retry=0 | code=0 mode=12 count=2", CpuState());
}

TEST_F(LegacyCpuLimitTest, KeepsNumbersOfAFailedStopWithoutALogLine) {
    platform().limit.cpuLimited.Always(true);
    Pass(1, 10);
    platform().limit.stopCpu.Always({2, 16});
    EXPECT_EQ(kReached + Changed(0, 10) + kStopped, Pass(0, 10));
    EXPECT_EQ("limited=1 enabled=0 value=950 retry=0 | code=20016 mode=0 count=2", CpuState());
}

TEST_F(LegacyCpuLimitTest, ComparesTheComputedValueAndTheOneBitOnly) {
    platform().limit.cpuLimited.Always(true);
    Pass(1, 200);
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 300));   // both 100 %
    EXPECT_EQ(kReached + kUnchanged, Pass(13, 300));  // other bits do not count
    EXPECT_EQ(1, pri().m_legacyCpuMode);              // and are not stored
    EXPECT_EQ(kReached + Changed(3, 30) + Started(28, 50), Pass(3, 30));
    EXPECT_EQ(3, pri().m_legacyCpuMode);
}

TEST_F(LegacyCpuLimitTest, ReadsBit0Only) {
    EXPECT_EQ(kReached + Changed(14, 10) + kStopped, Pass(14, 10));
    EXPECT_EQ(kReached + Changed(-1, 10) + Started(9, 50), Pass(-1, 10));
}

TEST_F(LegacyCpuLimitTest, TakesTheChangedPathAfterAReset) {
    platform().limit.cpuLimited.Always(true);
    Pass(1, 10);
    pri().ResetLegacyCpuLimitState();
    EXPECT_EQ(kReached + Changed(1, 10) + Started(9, 50), Pass(1, 10));
}

// --- unchanged settings ---

TEST_F(LegacyCpuLimitTest, RetriesAWantedLimitAtMostEvery600Seconds) {
    platform().limit.startCpu.Always({5, 13});
    EXPECT_EQ(kReached + Changed(1, 10) + StartFailed(9, 50, 13), Pass(1, 10));
    EXPECT_EQ(0, pri().m_legacyCpuLastRetryTime);  // a change does not arm the gate

    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));  // the first identical call tries and arms it
    EXPECT_EQ(1700000000, pri().m_legacyCpuLastRetryTime);
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 10));
    platform().now += 599;
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 10));
    EXPECT_EQ(1700000000, pri().m_legacyCpuLastRetryTime);  // a call that is held back does not move it
    platform().now += 1;
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
    EXPECT_EQ(1700000600, pri().m_legacyCpuLastRetryTime);
}

TEST_F(LegacyCpuLimitTest, RetriesEvery600SecondsBeyond32BitsToo) {
    platform().now = 4102444800;
    platform().limit.startCpu.Always({5, 13});
    Pass(1, 10);
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
    EXPECT_EQ(static_cast<int32_t>(4102444800), pri().m_legacyCpuLastRetryTime);  // the time as 32 bits hold it
    platform().now += 599;
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 10));
    platform().now += 1;
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
}

TEST_F(LegacyCpuLimitTest, RetriesWhereTheTimeLeaves32Bits) {
    platform().now = 2147483647;
    platform().limit.startCpu.Always({5, 13});
    Pass(1, 10);
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
    EXPECT_EQ(2147483647, pri().m_legacyCpuLastRetryTime);
    platform().now += 1;  // counts as a clock that went backwards
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
    EXPECT_EQ(INT32_MIN, pri().m_legacyCpuLastRetryTime);
    platform().now += 599;
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 10));
}

TEST_F(LegacyCpuLimitTest, KeepsNumbersOfAFailedRetryWithoutALogLine) {
    platform().limit.startCpu.Then({5, 13}).Then({6, 22});
    Pass(1, 10);
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
    EXPECT_EQ(60022, pri().m_legacyCpuErrorCode);
}

TEST_F(LegacyCpuLimitTest, StopsRetryingOnceTheLimitIsInForce) {
    platform().limit.startCpu.Then({5, 13});
    platform().limit.cpuLimited.Then(false).Then(true);
    Pass(1, 10);
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
    EXPECT_EQ("limited=1 enabled=1 value=950 retry=1700000000 | code=50013 mode=1 count=2", CpuState());
    platform().now += 600;
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 10));
    EXPECT_EQ(1700000600, pri().m_legacyCpuLastRetryTime);  // the check itself is what is dated
}

TEST_F(LegacyCpuLimitTest, RetriesAtOnceWhenTheClockWentBackwards) {
    platform().limit.startCpu.Always({5, 13});
    Pass(1, 10);
    Pass(1, 10);
    platform().now -= 1;
    EXPECT_EQ(kReached + kUnchanged + Retried(10, 9, 50), Pass(1, 10));
    EXPECT_EQ(1699999999, pri().m_legacyCpuLastRetryTime);
}

TEST_F(LegacyCpuLimitTest, HoldsBackRetryOfAChangeThatFailsLater) {
    platform().limit.cpuLimited.Then(true);
    Pass(1, 10);
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 10));  // in force: nothing to retry, and the gate is armed
    platform().limit.startCpu.Always({5, 13});
    platform().now += 10;
    EXPECT_EQ(kReached + Changed(1, 20) + StartFailed(19, 0, 13), Pass(1, 20));
    EXPECT_EQ(1700000000, pri().m_legacyCpuLastRetryTime);
    EXPECT_EQ(kReached + kUnchanged, Pass(1, 20));
    platform().now += 590;
    EXPECT_EQ(kReached + kUnchanged + Retried(20, 19, 0), Pass(1, 20));
}

TEST_F(LegacyCpuLimitTest, PrintsConfiguredPercentageAtRetryNotValue) {
    platform().limit.startCpu.Always({5, 13});
    Pass(1, 200);
    EXPECT_EQ(kReached + kUnchanged + Retried(300, 100, 0), Pass(1, 300));
}

TEST_F(LegacyCpuLimitTest, NeverTouchesTheErrorRecord) {
    platform().files.content["/opt/agent/home/cgroup_errors"] = "13-1700000000";
    platform().limit.startCpu.Always({13, 1});
    EXPECT_EQ(kReached + Changed(1, 10) + StartFailed(9, 50, 1), Pass(1, 10));
    EXPECT_EQ("13-1700000000", platform().files.content["/opt/agent/home/cgroup_errors"]);
}

// --- the pass counter ---

TEST_F(LegacyCpuLimitTest, SyncsOnEveryPassAndWrapsItsCounter) {
    Pass(0, 10);
    EXPECT_EQ(1, pri().m_legacyCpuCallCount);
    pri().m_legacyCpuCallCount = 9999;
    EXPECT_EQ(kReached + kUnchanged, Pass(0, 10));
    EXPECT_EQ(10000, pri().m_legacyCpuCallCount);
    EXPECT_EQ(kReached + kUnchanged, Pass(0, 10));
    EXPECT_EQ(10001, pri().m_legacyCpuCallCount);
    EXPECT_EQ(kReached + kUnchanged, Pass(0, 10));
    EXPECT_EQ(1, pri().m_legacyCpuCallCount);
}
