// Lifecycle of the private object: construction, start, stop, timer, schedule, memory line and online updates. Every
// journal is compared whole, calls and log lines of the limits included.
#include <algorithm>
#include <climits>

#include "CoreFixture.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"

namespace {

const Lines kStarted = {"COnlineClientConf::AddNotify()", "CTimerEvent::StringToMagicNum(main_heartbeat)",
                        "CTimerEvent::startTimer(60000,4711)", "CResourceMonitor::StartMonitor()"};

Lines Thresholds(int cpu, int mem, int fd, int rio, int wio, int pid, int all) {
    return {
        doubles::Format("CResourceMonitor::SetMaxResourceConfig(cpu=%d mem=%d fd=%d a=5 b=1000 rio=%d wio=%d "
                        "pid=%d all=%d)",
                        cpu, mem, fd, rio, wio, pid, all)};
}

const Lines kDefaultThresholds = Thresholds(10, 200, 1024, 20480, 20480, 100, 0);

// The process-wide memory line remembers when it was last forced, so every test that looks at it moves on to an hour
// that no test had before.
time_t FreshHour() {
    static time_t next = 1800000000;
    next += 100000;
    return next;
}

}  // namespace

class MonitorPriTest : public CoreFixture {
protected:
    /// A process that is not the main agent parses the empty file.
    Lines ParsedDefaults(const std::string& path) {
        return Joined({{"CFileUtil::IsFile(" + path + ")"},
                       Published().lines(),
                       {"CResourceMonitor::SetCpuSolarisMode(0)"},
                       LegacyCpuOff(0, 10),
                       LegacyMemOff()});
    }
    Lines ParsedDefaultsAsMain(const std::string& path) {
        return Joined({{"CFileUtil::IsFile(" + path + ")"},
                       Published().lines(),
                       {"CResourceMonitor::SetCpuSolarisMode(0)"},
                       NoUnifiedLeftovers(),
                       LegacyCpuOff(0, 10),
                       LegacyMemOff()});
    }
    /// The tail of an online update after the memory limit.
    static Lines UpdateTail(int memOut, int rio, int wio, int pid, int fd, int hash) {
        return {doubles::Format("CResourceMonitor::SetMaxMem(%d)", memOut),
                doubles::Format("CResourceMonitor::SetMaxIO(%d,%d)", rio, wio),
                doubles::Format("CResourceMonitor::SetMaxPidCheck(%d)", pid),
                doubles::Format("CResourceMonitor::SetMaxFdCount(%d)", fd),
                doubles::Format("CAlgorithmUtil::SetHashMode(%d)", hash),
                doubles::Format("F4 [MonitorPri] set hash mode %u", static_cast<unsigned int>(hash))};
    }
};

// --- construction and destruction ---

TEST_F(MonitorPriTest, RegistersThenAsksForConfigurationDirectory) {
    {
        MonitorPriProbe another;
        // The first directory is the event store's.
        EXPECT_EQ(Lines({"CToolUtil::GetApplicationDirPath()", "CMtIntf::RegMtInfoCallback()",
                         "CToolUtil::GetApplicationDirPath()"}),
                  calls());
        EXPECT_EQ("/opt/agent/home/conf/resource_config", another.m_configPath);
        ASSERT_EQ(2u, platform().registered.size());
        EXPECT_EQ(static_cast<IMtInfo*>(&another), platform().registered.back());
        EXPECT_TRUE(platform().notifies.empty());
    }
    EXPECT_EQ(Lines({"CMtIntf::UnRegMtInfoCallback()"}), calls()) << "the destructor stops nothing";
    ASSERT_EQ(1u, platform().registered.size());
    EXPECT_EQ(static_cast<IMtInfo*>(&pri()), platform().registered.back());
}

TEST_F(MonitorPriTest, AppendsTheFileNameToTheDirectoryAsItStands) {
    platform().appDir = "/opt/agent//";
    MonitorPriProbe slashes;
    EXPECT_EQ("/opt/agent///conf/resource_config", slashes.m_configPath);
    platform().appDir = "";
    MonitorPriProbe empty;
    EXPECT_EQ("/conf/resource_config", empty.m_configPath);
}

TEST_F(MonitorPriTest, StartsFromTheInitialValues) {
    const MonitorPriProbe& p = pri();
    EXPECT_FALSE(p.m_resourceLimited);
    EXPECT_EQ(0u, p.m_heartbeatTimerId);
    EXPECT_EQ("", p.m_appName);
    EXPECT_FALSE(p.m_isMainAgent);
    EXPECT_FALSE(p.m_legacyCpuEnabled);
    EXPECT_EQ(0, p.m_legacyCpuErrorCode);
    EXPECT_EQ(-1, p.m_legacyCpuMode);
    EXPECT_EQ(0, p.m_legacyCpuLimitValue);
    EXPECT_EQ(0, p.m_legacyCpuCallCount);
    EXPECT_EQ(0, p.m_legacyCpuLastRetryTime);
    EXPECT_FALSE(p.m_legacyMemLimited);
    EXPECT_FALSE(p.m_legacyMemEnabled);
    EXPECT_EQ(0, p.m_legacyMemFirstLimit);
    EXPECT_EQ(0, p.m_legacyMemSecondLimit);
    EXPECT_EQ(0, p.m_legacyMemErrorCode);
    EXPECT_EQ(0u, p.m_localKernel.major);
    EXPECT_EQ(0u, p.m_localKernel.minor);
    EXPECT_EQ(0u, p.m_localKernel.patch);
    EXPECT_EQ(0u, p.m_localKernel.build);
    EXPECT_EQ("", p.m_localKernel.release);
    EXPECT_EQ("", p.m_memLimitKernelRange);
    EXPECT_EQ("", p.m_memLimitExcludeKernels);
    EXPECT_EQ("", p.m_memLimitExcludeRange);
    EXPECT_EQ(nullptr, static_cast<zel::CCgroupManager*>(p.m_cgroupManager));
    EXPECT_FALSE(p.m_unifiedActive);
    EXPECT_EQ(0, p.m_lastUnifiedMaxMem);
    EXPECT_EQ(0, p.m_lastUnifiedMaxCpu);
    EXPECT_EQ(0, p.m_lastUnifiedMode);
    EXPECT_EQ(0, p.m_effectiveMaxCpu);
    EXPECT_EQ(0, p.m_effectiveMaxMem);
    EXPECT_FALSE(p.m_unifiedCpuQuotaActive);
    EXPECT_FALSE(p.m_unifiedMemQuotaActive);
    EXPECT_EQ(0, p.m_unifiedCpuQuota100Times);
    EXPECT_EQ(0, p.m_unifiedMemQuotaKB);
    EXPECT_EQ(nullptr, p.m_cgroupClient);
    EXPECT_EQ(nullptr, p.m_ipcBroadcastCallback);
    EXPECT_EQ("", p.m_cgroupGroupsSpec);
    EXPECT_EQ("", p.m_cgroupComponentsSpec);
    EXPECT_EQ(0, p.m_lastRuntimeOomReportTime);
}

TEST_F(MonitorPriTest, LaysItsBasesAndMembersOutInTheSharedOrder) {
    MonitorPriProbe& p = pri();
    ExpectInOrder(&p, {{"IMtInfo", static_cast<IMtInfo*>(&p)},
                       {"IOnlineClientConfNotify", static_cast<IOnlineClientConfNotify*>(&p)},
                       {"CResourceMonitor", static_cast<CResourceMonitor*>(&p)},
                       {"CTimerEvent", static_cast<zel::CTimerEvent*>(&p)},
                       {"m_resourceLimited", &p.m_resourceLimited},
                       {"m_heartbeatTimerId", &p.m_heartbeatTimerId},
                       {"m_appName", &p.m_appName},
                       {"m_isMainAgent", &p.m_isMainAgent},
                       {"m_legacyCpuEnabled", &p.m_legacyCpuEnabled},
                       {"m_legacyCpuErrorCode", &p.m_legacyCpuErrorCode},
                       {"m_legacyCpuMode", &p.m_legacyCpuMode},
                       {"m_legacyCpuLimitValue", &p.m_legacyCpuLimitValue},
                       {"m_legacyCpuCallCount", &p.m_legacyCpuCallCount},
                       {"m_legacyCpuLastRetryTime", &p.m_legacyCpuLastRetryTime},
                       {"m_legacyMemLimited", &p.m_legacyMemLimited},
                       {"m_legacyMemEnabled", &p.m_legacyMemEnabled},
                       {"m_legacyMemFirstLimit", &p.m_legacyMemFirstLimit},
                       {"m_legacyMemSecondLimit", &p.m_legacyMemSecondLimit},
                       {"m_legacyMemErrorCode", &p.m_legacyMemErrorCode},
                       {"m_configPath", &p.m_configPath},
                       {"m_osAbnormalMonitor", &p.m_osAbnormalMonitor},
                       {"m_localKernel", &p.m_localKernel},
                       {"m_memLimitKernelRange", &p.m_memLimitKernelRange},
                       {"m_memLimitExcludeKernels", &p.m_memLimitExcludeKernels},
                       {"m_memLimitExcludeRange", &p.m_memLimitExcludeRange},
                       {"m_cgroupManager", &p.m_cgroupManager},
                       {"m_unifiedActive", &p.m_unifiedActive},
                       {"m_lastUnifiedMaxMem", &p.m_lastUnifiedMaxMem},
                       {"m_lastUnifiedMaxCpu", &p.m_lastUnifiedMaxCpu},
                       {"m_lastUnifiedMode", &p.m_lastUnifiedMode},
                       {"m_effectiveMaxCpu", &p.m_effectiveMaxCpu},
                       {"m_effectiveMaxMem", &p.m_effectiveMaxMem},
                       {"m_unifiedCpuQuotaActive", &p.m_unifiedCpuQuotaActive},
                       {"m_unifiedMemQuotaActive", &p.m_unifiedMemQuotaActive},
                       {"m_unifiedCpuQuota100Times", &p.m_unifiedCpuQuota100Times},
                       {"m_unifiedMemQuotaKB", &p.m_unifiedMemQuotaKB},
                       {"m_cgroupClient", &p.m_cgroupClient},
                       {"m_ipcBroadcastCallback", &p.m_ipcBroadcastCallback},
                       {"m_cgroupGroupsSpec", &p.m_cgroupGroupsSpec},
                       {"m_cgroupComponentsSpec", &p.m_cgroupComponentsSpec},
                       {"m_lastRuntimeOomReportTime", &p.m_lastRuntimeOomReportTime}});
}

TEST_F(MonitorPriTest, UnregistersBeforeManagerGoesKeepsTheClient) {
    zel::CCgroupClient client;
    {
        MonitorPriProbe another;
        another.m_cgroupManager = new zel::CCgroupManager;
        another.m_cgroupClient = &client;
        journal();
    }
    EXPECT_EQ(Lines({"CMtIntf::UnRegMtInfoCallback()", "CCgroupManager::~CCgroupManager()"}), journal());
}

TEST_F(MonitorPriTest, IsDestroyedThroughAnyOfItsBases) {
    delete static_cast<IMtInfo*>(new MonitorPriProbe);
    delete static_cast<IOnlineClientConfNotify*>(new MonitorPriProbe);
    delete static_cast<CResourceMonitor*>(new MonitorPriProbe);
    delete static_cast<zel::CTimerEvent*>(new MonitorPriProbe);
    ASSERT_EQ(1u, platform().registered.size());
}

TEST_F(MonitorPriTest, IgnoresAnEmptyConfigurationPath) {
    pri().SetConfigPath("/etc/agent/limits");
    EXPECT_EQ("/etc/agent/limits", pri().m_configPath);
    pri().SetConfigPath("");
    EXPECT_EQ("/etc/agent/limits", pri().m_configPath);
    EXPECT_EQ(Lines({}), journal());
}

// --- start ---

TEST_F(MonitorPriTest, StartsAComponentProcessInOrder) {
    const std::string path = WriteConfig("");
    pri().SetConfigPath(path);
    EXPECT_TRUE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(Joined({ParsedDefaults(path), kDefaultThresholds, kStarted}), calls());
    EXPECT_EQ("collector", pri().m_appName);
    EXPECT_FALSE(pri().m_isMainAgent);
    EXPECT_EQ(9001u, pri().m_heartbeatTimerId);
    ASSERT_EQ(1u, platform().notifies.size());
    EXPECT_EQ(static_cast<IOnlineClientConfNotify*>(&pri()), platform().notifies.front());
}

TEST_F(MonitorPriTest, StartsMainProcessWithOsAbnormalMonitorFirst) {
    const std::string path = WriteConfig("");
    pri().SetConfigPath(path);
    EXPECT_TRUE(pri().StartMonitor(nullptr, "tervane"));
    EXPECT_EQ(Joined({{"CThreadUtil::IsThreadRunning()", "CThreadUtil::startThread()"},
                      ParsedDefaultsAsMain(path),
                      kDefaultThresholds,
                      kStarted}),
              calls());
    EXPECT_EQ("tervane", pri().m_appName);
    EXPECT_TRUE(pri().m_isMainAgent);
}

TEST_F(MonitorPriTest, CarriesOnWhenTheOsAbnormalMonitorDoesNotStart) {
    platform().startThread.Always(false);
    const std::string path = WriteConfig("");
    pri().SetConfigPath(path);
    EXPECT_TRUE(pri().StartMonitor(nullptr, "tervane"));
    EXPECT_EQ(Joined({{"CThreadUtil::IsThreadRunning()", "CThreadUtil::startThread()",
                       "W3 start os os abnormal monitor fail"},
                      ParsedDefaultsAsMain(path),
                      kDefaultThresholds,
                      kStarted}),
              calls());
    EXPECT_TRUE(pri().m_isMainAgent);
}

TEST_F(MonitorPriTest, TakesOnlyTheExactNameForTheMainProcess) {
    const std::string path = WriteConfig("");
    pri().SetConfigPath(path);
    for (const std::string name : {"Tervane", "TERVANE", "tervane ", "tervan", "tervanectl", ""}) {
        EXPECT_TRUE(pri().StartMonitor(nullptr, name));
        EXPECT_FALSE(pri().m_isMainAgent) << name;
        EXPECT_EQ(name, pri().m_appName);
    }
    for (const std::string& line : journal()) EXPECT_EQ(std::string::npos, line.find("startThread")) << line;
}

TEST_F(MonitorPriTest, StaysMainProcessWhenStartedUnderOtherName) {
    pri().SetConfigPath(WriteConfig(""));
    EXPECT_TRUE(pri().StartMonitor(nullptr, "tervane"));
    EXPECT_TRUE(pri().StartMonitor(nullptr, "guard"));
    EXPECT_TRUE(pri().m_isMainAgent);
    EXPECT_EQ("guard", pri().m_appName);
}

TEST_F(MonitorPriTest, StartsNothingElseWhenConfigurationIsMissing) {
    EXPECT_FALSE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(Lines({"CFileUtil::IsFile(/opt/agent/home/conf/resource_config)", "W2 ParseMonitorConfig Fail"}),
              journal());
    EXPECT_TRUE(platform().notifies.empty());
    EXPECT_EQ(0u, pri().m_heartbeatTimerId);
}

TEST_F(MonitorPriTest, KeepsOsAbnormalMonitorWithoutConfiguration) {
    EXPECT_FALSE(pri().StartMonitor(nullptr, "tervane"));
    EXPECT_EQ(Lines({"CThreadUtil::IsThreadRunning()", "CThreadUtil::startThread()",
                     "CFileUtil::IsFile(/opt/agent/home/conf/resource_config)", "W2 ParseMonitorConfig Fail"}),
              journal());
    EXPECT_TRUE(platform().threadRunning);
}

TEST_F(MonitorPriTest, FailsInTheParseWithoutAnOnlineConfiguration) {
    const std::string path = WriteConfig("");
    pri().SetConfigPath(path);
    doubles::ForgetOnlineConf();
    EXPECT_FALSE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(Lines({"CFileUtil::IsFile(" + path + ")", "W2 ParseMonitorConfig Fail"}), journal());
}

TEST_F(MonitorPriTest, FailsWhenOnlineConfigurationGoesAfterParse) {
    const std::string path = WriteConfig("");
    pri().SetConfigPath(path);
    platform().base.onSetMaxResourceConfig = [] { doubles::ForgetOnlineConf(); };
    EXPECT_FALSE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(Joined({ParsedDefaults(path), kDefaultThresholds, {"W2 get COnlineClientConf instance fail"}}), calls());
}

TEST_F(MonitorPriTest, KeepsTheSubscriptionWhenTheTimerDoesNotStart) {
    const std::string path = WriteConfig("");
    pri().SetConfigPath(path);
    platform().timerId.Always(0);
    EXPECT_FALSE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(Joined({ParsedDefaults(path),
                      kDefaultThresholds,
                      {"COnlineClientConf::AddNotify()", "CTimerEvent::StringToMagicNum(main_heartbeat)",
                       "CTimerEvent::startTimer(60000,4711)", "W3 start timer fail for monitor timer"}}),
              calls());
    EXPECT_EQ(1u, platform().notifies.size());
    EXPECT_EQ(0u, pri().m_heartbeatTimerId);
}

TEST_F(MonitorPriTest, ReportsTheSamplingThreadsOwnResult) {
    pri().SetConfigPath(WriteConfig(""));
    platform().base.start.Always(false);
    EXPECT_FALSE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ("CResourceMonitor::StartMonitor()", journal().back());
    EXPECT_EQ(9001u, pri().m_heartbeatTimerId) << "the timer runs until StopMonitor";
}

TEST_F(MonitorPriTest, HandsItsEventSinkToTheSamplingThread) {
    pri().SetConfigPath(WriteConfig(""));
    IResourceMonitorEvent event;
    EXPECT_TRUE(pri().StartMonitor(&event, "collector"));
    EXPECT_EQ(&event, platform().base.lastEvent);
    EXPECT_TRUE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(nullptr, platform().base.lastEvent);
}

TEST_F(MonitorPriTest, HandsTheFilesThresholdsToTheSamplingClass) {
    const std::string path =
        WriteConfig("max_cpu=20\nmax_memory=300\nmax_fd=500\nmax_rio=11\nmax_wio=12\nmax_pid_check=13\ncpu_all=1\n");
    pri().SetConfigPath(path);
    EXPECT_TRUE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(1000, platform().base.lastConfig.auxValueB);
    EXPECT_EQ(5, platform().base.lastConfig.auxValueA);
    const Lines all = calls();
    const Lines expected = Thresholds(20, 300, 500, 11, 12, 13, 1);
    EXPECT_EQ(1, std::count(all.begin(), all.end(), expected.front()));
}

// --- stop ---

TEST_F(MonitorPriTest, StopsTimerSubscriptionOsAbnormalThenSampling) {
    pri().SetConfigPath(WriteConfig(""));
    ASSERT_TRUE(pri().StartMonitor(nullptr, "tervane"));
    journal();
    EXPECT_TRUE(pri().StopMonitor());
    EXPECT_EQ(Lines({"CTimerEvent::killTimer(9001)", "COnlineClientConf::RemoveNotify()",
                     "CThreadUtil::IsThreadRunning()", "CThreadUtil::stopThread()", "CResourceMonitor::StopMonitor()"}),
              journal());
    EXPECT_EQ(0u, pri().m_heartbeatTimerId);
    EXPECT_TRUE(platform().notifies.empty());
}

TEST_F(MonitorPriTest, StopsAnObjectThatNeverStarted) {
    EXPECT_TRUE(pri().StopMonitor());
    EXPECT_EQ(Lines({"COnlineClientConf::RemoveNotify()", "CThreadUtil::IsThreadRunning()",
                     "CResourceMonitor::StopMonitor()"}),
              journal());
}

TEST_F(MonitorPriTest, StopsTwice) {
    pri().SetConfigPath(WriteConfig(""));
    ASSERT_TRUE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_TRUE(pri().StopMonitor());
    journal();
    EXPECT_TRUE(pri().StopMonitor());
    EXPECT_EQ(Lines({"COnlineClientConf::RemoveNotify()", "CThreadUtil::IsThreadRunning()",
                     "CResourceMonitor::StopMonitor()"}),
              journal());
}

TEST_F(MonitorPriTest, StopsWithoutOnlineConfigWithSamplingsResult) {
    doubles::ForgetOnlineConf();
    platform().base.stop.Always(false);
    EXPECT_FALSE(pri().StopMonitor());
    EXPECT_EQ(Lines({"CThreadUtil::IsThreadRunning()", "CResourceMonitor::StopMonitor()"}), journal());
}

TEST_F(MonitorPriTest, TakesTheSubscriptionBackAfterAFailedStart) {
    pri().SetConfigPath(WriteConfig(""));
    platform().timerId.Always(0);
    ASSERT_FALSE(pri().StartMonitor(nullptr, "collector"));
    journal();
    EXPECT_TRUE(pri().StopMonitor());
    EXPECT_EQ(Lines({"COnlineClientConf::RemoveNotify()", "CThreadUtil::IsThreadRunning()",
                     "CResourceMonitor::StopMonitor()"}),
              journal());
    EXPECT_TRUE(platform().notifies.empty());
}

// --- timer ---

TEST_F(MonitorPriTest, RefreshesTheMainHeartbeatFromTheTimersThread) {
    pri().m_heartbeatTimerId = 9001;
    platform().threadId = 123456;
    pri().timeEvent(9001);
    EXPECT_EQ(Lines({"CResourceMonitor::SetThreadHeartbeat(123456,main,1800)"}), journal());
}

TEST_F(MonitorPriTest, IgnoresOtherTimers) {
    pri().m_heartbeatTimerId = 9001;
    pri().timeEvent(9000);
    pri().timeEvent(0);
    pri().timeEvent(ULONG_MAX);
    EXPECT_EQ(Lines({}), journal());
}

// The upper half of a timer's id counts like the lower one.
TEST_F(MonitorPriTest, KeepsTimerIdsAndMagicNumbersWhole) {
    constexpr unsigned long kId = 0x700000000UL;
    platform().timerId.Always(kId);
    platform().magicNum = 0x900000001UL;
    pri().SetConfigPath(WriteConfig(""));
    EXPECT_TRUE(pri().StartMonitor(nullptr, "collector"));
    EXPECT_EQ(kId, pri().m_heartbeatTimerId);
    EXPECT_THAT(journal(), testing::Contains("CTimerEvent::startTimer(60000,38654705665)"));
    pri().timeEvent(0);
    pri().timeEvent(0x800000000UL);
    EXPECT_EQ(Lines({}), journal());
    pri().timeEvent(kId);
    EXPECT_EQ(Lines({"CResourceMonitor::SetThreadHeartbeat(77,main,1800)"}), journal());
    pri().m_heartbeatTimerId = 5;
    pri().timeEvent(0x700000005UL);
    EXPECT_EQ(Lines({}), journal());
    pri().m_heartbeatTimerId = kId;
    EXPECT_TRUE(pri().StopMonitor());
    EXPECT_EQ("CTimerEvent::killTimer(30064771072)", journal().front());
}

// What the start calls may ask the object back: its name and role stand before.
TEST_F(MonitorPriTest, KnowsItsNameBeforeTheOsAbnormalMonitorStarts) {
    pri().SetConfigPath(WriteConfig(""));
    int seen = 0;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "CThreadUtil::startThread()") {
            ++seen;
            EXPECT_EQ("tervane", pri().m_appName);
            EXPECT_TRUE(pri().m_isMainAgent);
        }
        return true;
    };
    EXPECT_TRUE(pri().StartMonitor(nullptr, "tervane"));
    platform().keepInJournal = nullptr;
    EXPECT_EQ(1, seen);
}

TEST_F(MonitorPriTest, LooksForConfigurationAfterItsTimerHasEnded) {
    pri().m_heartbeatTimerId = 9001;
    platform().keepInJournal = [](const std::string& line) {
        if (line == "CTimerEvent::killTimer(9001)") doubles::ForgetOnlineConf();
        return true;
    };
    EXPECT_TRUE(pri().StopMonitor());
    platform().keepInJournal = nullptr;
    EXPECT_EQ(
        Lines({"CTimerEvent::killTimer(9001)", "CThreadUtil::IsThreadRunning()", "CResourceMonitor::StopMonitor()"}),
        journal());
}

// --- periodic schedule and memory line ---

class MonitorScheduleTest : public MonitorPriTest {
protected:
    void SetUp() override {
        MonitorPriTest::SetUp();
        // A main process whose unified mode is off: the OOM check shows as one call on the manager.
        pri().m_isMainAgent = true;
        pri().m_cgroupManager = new zel::CCgroupManager;
        platform().now = FreshHour();
        journal();
    }
    const std::string m_oomCheck = "CCgroupManager::ResetMemoryOomMonitor()";
    const std::string m_memoryAsked = "COSInfo::GetMemoryUsage(null)";
};

TEST_F(MonitorScheduleTest, LogsMemoryEvery60thChecksOomEvery15th) {
    LogMemInfo();  // the forced line of this hour
    journal();
    for (const unsigned long tick : {0UL, 60UL, 120UL, 3600UL, ULONG_MAX - 15UL}) {
        pri().MonitorOther(tick);
        EXPECT_EQ(Lines({m_memoryAsked, m_oomCheck}), journal()) << tick;
    }
    for (const unsigned long tick : {15UL, 30UL, 45UL, 75UL, ULONG_MAX}) {
        pri().MonitorOther(tick);
        EXPECT_EQ(Lines({m_oomCheck}), journal()) << tick;
    }
    for (const unsigned long tick : {1UL, 7UL, 14UL, 16UL, 59UL, 61UL}) {
        pri().MonitorOther(tick);
        EXPECT_EQ(Lines({}), journal()) << tick;
    }
}

// 2^32 is 16 rounds after a minute's and one after a quarter's.
TEST_F(MonitorScheduleTest, CountsRoundsBeyond32Bits) {
    LogMemInfo();
    journal();
    constexpr unsigned long kBeyond = 1UL << 32;
    pri().MonitorOther(kBeyond);
    EXPECT_EQ(Lines({}), journal());
    pri().MonitorOther(kBeyond + 14);
    EXPECT_EQ(Lines({m_oomCheck}), journal());
    pri().MonitorOther(kBeyond + 44);
    EXPECT_EQ(Lines({m_memoryAsked, m_oomCheck}), journal());
}

TEST_F(MonitorScheduleTest, AsksTheClockOnceAndThenTheMemory) {
    platform().journalTime = true;
    LogMemInfo();
    const Lines all = journal();
    ASSERT_EQ(3u, all.size());
    EXPECT_EQ(1, std::count_if(all.begin(), all.end(), [](const std::string& l) { return l.rfind("time(", 0) == 0; }));
    EXPECT_EQ(m_memoryAsked, all[1]);
}

TEST_F(MonitorScheduleTest, ForcesTheMemoryLineOnceAnHour) {
    platform().memory.usagePercent = 12;
    const time_t start = platform().now;
    const std::string line = "F4 [MonitorPri] system memory usage is 12";
    struct Case {
        time_t after;
        bool forced;
    };
    // The hour must have passed: 3600 seconds after the line are not enough.
    for (const Case& c : {Case{0, true}, Case{0, false}, Case{3599, false}, Case{3600, false}, Case{3601, true},
                          Case{3602, false}, Case{7201, false}, Case{7202, true}}) {
        platform().now = start + c.after;
        LogMemInfo();
        EXPECT_EQ(c.forced ? Lines({m_memoryAsked, line}) : Lines({m_memoryAsked}), journal()) << c.after;
    }
}

TEST_F(MonitorScheduleTest, LogsMemoryAtEveryCallFromEightyPercentOn) {
    LogMemInfo();
    journal();
    struct Case {
        int usage;
        bool logged;
    };
    for (const Case& c : {Case{79, false}, Case{80, true}, Case{80, true}, Case{81, true}, Case{100, true},
                          Case{0, false}, Case{-1, false}}) {
        platform().memory.usagePercent = c.usage;
        LogMemInfo();
        Lines expected = {m_memoryAsked};
        if (c.logged) expected.push_back(doubles::Format("F4 [MonitorPri] system memory usage is %d", c.usage));
        EXPECT_EQ(expected, journal()) << c.usage;
    }
}

TEST_F(MonitorScheduleTest, DoesNotPutHourlyLineOffByFullMemory) {
    const time_t start = platform().now;
    LogMemInfo();
    platform().memory.usagePercent = 90;
    platform().now = start + 3000;
    LogMemInfo();
    journal();
    platform().memory.usagePercent = 10;
    platform().now = start + 3601;
    LogMemInfo();
    EXPECT_EQ(Lines({m_memoryAsked, "F4 [MonitorPri] system memory usage is 10"}), journal());
}

TEST_F(MonitorScheduleTest, LogsAnUnreadableMemoryAsItWasReturned) {
    platform().memory.usagePercent = -1;
    LogMemInfo();
    EXPECT_EQ(Lines({m_memoryAsked, "F4 [MonitorPri] system memory usage is -1"}), journal());
}

TEST_F(MonitorScheduleTest, SharesTheMemoryLinesHourBetweenObjects) {
    pri().MonitorOther(60);
    journal();
    MonitorPriProbe another;
    journal();
    another.MonitorOther(60);
    EXPECT_EQ(Lines({m_memoryAsked}), journal());
}

// A child of its own, because the process-wide time must be the one after loading.
TEST(MonitorMemoryLineDeathTest, ForcesTheFirstLineAfterLoading) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            doubles::ResetPlatform();
            doubles::P().memory.usagePercent = 3;
            doubles::P().now = 3600;  // not yet more than an hour after 0
            LogMemInfo();
            const bool quiet = doubles::P().LogJournal().empty();
            doubles::P().now = 3601;
            LogMemInfo();
            const bool forced = doubles::P().LogJournal() == Lines({"F4 [MonitorPri] system memory usage is 3"});
            _exit(quiet && forced ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(MonitorMemoryLineDeathTest, ForcesTheLineBeyondTheYear2038) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            doubles::ResetPlatform();
            doubles::P().memory.usagePercent = 3;
            std::string seen;
            for (const time_t now : {2147483000L, 2147486600L, 2147486601L, 2147490201L, 2147490202L, 8000000000L,
                                     8000003600L, 8000003601L}) {
                doubles::P().now = now;
                doubles::P().journal.clear();
                doubles::P().logs.clear();
                LogMemInfo();
                seen += doubles::P().LogJournal().empty() ? '-' : 'L';
            }
            _exit(seen == "L-L-LL-L" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(MonitorPriTest, SkipsTheOomCheckOutsideTheMainProcess) {
    pri().m_cgroupManager = new zel::CCgroupManager;
    journal();
    pri().MonitorOther(15);
    EXPECT_EQ(Lines({}), journal());
}

// --- online updates ---

TEST_F(MonitorPriTest, IgnoresAnUpdateWithoutAnOnlineConfiguration) {
    doubles::ForgetOnlineConf();
    pri().OnUpdate();
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(MonitorPriTest, ReappliesEverythingInOrderAfterAnUpdate) {
    conf().maxCpu.Set(20);
    conf().maxMemory.Set(300);
    conf().groupMaxCpu.Set(40);
    conf().groupMaxMemory.Set(400);
    conf().resourceLimitMode.Set(1);
    conf().maxReadIo.Set(111);
    conf().maxWriteIo.Set(222);
    conf().maxPidCheck.Set(33);
    conf().maxFdCount.Set(44);
    conf().hashMode.Set(2);
    journal();
    pri().OnUpdate();
    EXPECT_EQ(Joined({{"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuOn(1, 20, 19, 0),
                      {"CResourceMonitor::SetMaxCpu(20)"},
                      LegacyMemOff(),
                      UpdateTail(300, 111, 222, 33, 44, 2)}),
              calls());
    EXPECT_EQ(20, pri().m_effectiveMaxCpu);
    EXPECT_EQ(300, pri().m_effectiveMaxMem);
    EXPECT_EQ(300 * 1024 * 3 / 2, pri().m_legacyMemFirstLimit) << "the larger limit comes first";
    EXPECT_EQ(300 * 1024, pri().m_legacyMemSecondLimit);
}

// Another update may come while one is applied: each works with one set of values, and with one configuration.
TEST_F(MonitorPriTest, AppliesOneSetOfValuesWhateverComesMeanwhile) {
    conf().maxCpu.Set(20);
    conf().maxMemory.Set(300);
    conf().groupMaxCpu.Set(40);
    conf().groupMaxMemory.Set(400);
    conf().resourceLimitMode.Set(1);
    conf().hashMode.Set(2);
    journal();
    platform().keepInJournal = [this](const std::string& line) {
        if (line.rfind("COnlineClientConf::", 0) == 0) return false;
        if (line == "CResourceMonitor::SetCpuSolarisMode(0)") {
            doubles::ForgetOnlineConf();
            conf().maxCpu.Set(77);
            conf().maxMemory.Set(777);
            conf().groupMaxCpu.Set(78);
            conf().groupMaxMemory.Set(778);
            conf().resourceLimitMode.Set(12);
            conf().cpuAll.Set(1);
        }
        if (line == "CResourceMonitor::SetMaxFdCount(0)") conf().hashMode.Set(3);
        return true;
    };
    pri().OnUpdate();
    platform().keepInJournal = nullptr;
    EXPECT_EQ(Joined({{"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuOn(1, 20, 19, 0),
                      {"CResourceMonitor::SetMaxCpu(20)"},
                      LegacyMemOff(),
                      UpdateTail(300, 0, 0, 0, 0, 3)}),
              calls());
    EXPECT_EQ(20, pri().m_effectiveMaxCpu);
    EXPECT_EQ(300, pri().m_effectiveMaxMem);
    EXPECT_EQ(300 * 1024, pri().m_legacyMemSecondLimit);
}

TEST_F(MonitorPriTest, WidensByTheValueItReadWhateverComesMeanwhile) {
    conf().groupMaxCpu.Set(40);
    conf().resourceLimitMode.Set(8);
    platform().keepInJournal = [this](const std::string& line) {
        if (line == "CResourceMonitor::SetCpuSolarisMode(0)") conf().cpuAll.Set(1);
        return true;
    };
    pri().OnUpdate();
    platform().keepInJournal = nullptr;
    EXPECT_EQ(45, pri().m_effectiveMaxCpu);
}

TEST_F(MonitorPriTest, UpdatesGroupsThenKillsThenLegacyInMainProcess) {
    pri().m_isMainAgent = true;
    pri().m_cgroupManager = new zel::CCgroupManager;
    journal();
    platform().keepInJournal = [this](const std::string& line) {
        if (line == "CResourceMonitor::SetCpuSolarisMode(0)") conf().resourceLimitMode.Set(13);
        return true;
    };
    pri().OnUpdate();
    platform().keepInJournal = nullptr;
    const Lines all = journal();
    const auto at = [&](const std::string& line) { return std::find(all.begin(), all.end(), line) - all.begin(); };
    const auto left = at("CFileUtil::IsFile(/opt/agent/home/conf/cgroup_resource.json)");
    const auto kills = at("CCgroupManager::ResetMemoryOomMonitor()");
    const auto legacy = at("GetResourceLimitUtil()");
    EXPECT_LT(left, kills) << "the mode that was read at the start leaves the unified mode";
    EXPECT_LT(kills, legacy);
    EXPECT_LT(legacy, static_cast<std::ptrdiff_t>(all.size()));
    for (const std::string& line : all) EXPECT_EQ(std::string::npos, line.find("Reconcile")) << line;
}

// All of four processors, not the twenty percent that the lower half says.
TEST_F(MonitorPriTest, TakesGroupMaximumBeyond32BitsWhole) {
    pri().m_isMainAgent = true;
    conf().cpuAll.Set(1);
    conf().groupMaxCpu.Set((1L << 32) + 20);
    conf().resourceLimitMode.Set(8);
    pri().OnUpdate();
    EXPECT_EQ(400, pri().m_lastUnifiedMaxCpu);
}

// With the percent of one processor taken for that of all, no widening bounds the value first.
TEST_F(MonitorPriTest, TakesCpuMaximaBeyond32BitsWhole) {
    constexpr long kBeyond = (1L << 32) + 20;
    conf().cpuAll.Set(1);
    conf().groupMaxCpu.Set(kBeyond);
    conf().resourceLimitMode.Set(8);
    pri().OnUpdate();
    EXPECT_EQ(kBeyond, pri().m_effectiveMaxCpu);
    conf().maxCpu.Set(kBeyond + 1);
    conf().resourceLimitMode.Set(0);
    pri().OnUpdate();
    EXPECT_EQ(kBeyond + 1, pri().m_effectiveMaxCpu);
    conf().resourceLimitMode.Set(1);
    journal();
    pri().OnUpdate();
    EXPECT_THAT(calls(), testing::Contains("IResourceLimitUtil::StartCpuLimit(400,0,error=0)"));
}

TEST_F(MonitorPriTest, ReappliesThresholdsAlsoWhenNothingChanged) {
    conf().maxCpu.Set(20);
    conf().maxMemory.Set(300);
    pri().OnUpdate();
    journal();
    pri().OnUpdate();
    EXPECT_EQ(Joined({{"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuUnchanged(),
                      {"CResourceMonitor::SetMaxCpu(20)"},
                      LegacyMemUnchanged(),
                      UpdateTail(300, 0, 0, 0, 0, 0)}),
              calls());
}

TEST_F(MonitorPriTest, TakesWidenedGroupThresholdsInUnifiedModeOnly) {
    conf().maxCpu.Set(10);
    conf().maxMemory.Set(200);
    conf().groupMaxCpu.Set(40);
    conf().groupMaxMemory.Set(400);
    struct Case {
        long mode, cpuAll;
        int cpu, mem;
    };
    for (const Case& c : {Case{0, 0, 10, 200}, Case{5, 0, 10, 200}, Case{8, 0, 45, 500}, Case{15, 0, 45, 500},
                          Case{8, 1, 40, 500}, Case{0, 1, 10, 200}}) {
        SCOPED_TRACE(testing::Message() << "mode " << c.mode << " cpuAll " << c.cpuAll);
        conf().resourceLimitMode.Set(c.mode);
        conf().cpuAll.Set(c.cpuAll);
        journal();
        pri().OnUpdate();
        EXPECT_EQ(c.cpu, pri().m_effectiveMaxCpu);
        EXPECT_EQ(c.mem, pri().m_effectiveMaxMem);
        const Lines all = calls();
        EXPECT_THAT(all, testing::Contains(doubles::Format("CResourceMonitor::SetMaxCpu(%d)", c.cpu)));
        EXPECT_THAT(all, testing::Contains(doubles::Format("CResourceMonitor::SetMaxMem(%d)", c.mem)));
        EXPECT_EQ(200 * 1024, pri().m_legacyMemSecondLimit) << "the memory limit takes the plain value in any mode";
        EXPECT_EQ(300 * 1024, pri().m_legacyMemFirstLimit);
    }
}

TEST_F(MonitorPriTest, RemembersMaximaAfterCpuLimitBeforeSelfKill) {
    zel::CCgroupClient client;
    pri().m_cgroupClient = &client;
    platform().client.memJoined.Always(true);
    pri().m_effectiveMaxCpu = 11;
    pri().m_effectiveMaxMem = 22;
    conf().maxCpu.Set(20);
    conf().maxMemory.Set(300);
    Lines seen;
    const auto look = [this, &seen](const std::string& line) {
        const bool endOfCpuLimit = line == "IResourceLimitUtil::IsCpuLimited()";
        const bool selfKillLimits = line == "CCgroupClient::GetMemQuotaKB()";
        if (endOfCpuLimit || selfKillLimits) {
            seen.push_back(doubles::Format("%s cpu=%ld mem=%d", line.c_str(),
                                           static_cast<long>(pri().m_effectiveMaxCpu),
                                           static_cast<int>(pri().m_effectiveMaxMem)));
        }
        return true;
    };
    platform().keepInJournal = look;
    pri().OnUpdate();
    platform().keepInJournal = nullptr;
    EXPECT_EQ(
        Lines({"IResourceLimitUtil::IsCpuLimited() cpu=11 mem=22", "CCgroupClient::GetMemQuotaKB() cpu=20 mem=300"}),
        seen);
}

TEST_F(MonitorPriTest, ReadsWhatIsNotNeededBeforeAtItsOwnStep) {
    conf().maxReadIo.Set(1);
    conf().maxWriteIo.Set(2);
    conf().maxPidCheck.Set(3);
    conf().maxFdCount.Set(4);
    conf().hashMode.Set(5);
    platform().keepInJournal = [this](const std::string& line) {
        if (line.rfind("COnlineClientConf::", 0) == 0) return false;
        if (line == "CResourceMonitor::SetMaxMem(0)") {
            conf().maxReadIo.Set(111);
            conf().maxWriteIo.Set(222);
            conf().maxPidCheck.Set(33);
            conf().maxFdCount.Set(44);
            conf().hashMode.Set(6);
        }
        return true;
    };
    journal();
    pri().OnUpdate();
    platform().keepInJournal = nullptr;
    Lines all = calls();
    const Lines tail = UpdateTail(0, 111, 222, 33, 44, 6);
    ASSERT_GT(all.size(), tail.size());
    all.erase(all.begin(), all.end() - static_cast<std::ptrdiff_t>(tail.size()));
    EXPECT_EQ(tail, all);
}

TEST_F(MonitorPriTest, HandsPlainCpuToTheLegacyLimitInUnifiedModeToo) {
    conf().maxCpu.Set(10);
    conf().groupMaxCpu.Set(40);
    conf().resourceLimitMode.Set(9);
    journal();
    pri().OnUpdate();
    EXPECT_EQ(Joined({{"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuOn(9, 10, 9, 50),
                      {"CResourceMonitor::SetMaxCpu(45)"},
                      LegacyMemUnchanged(),
                      UpdateTail(0, 0, 0, 0, 0, 0)}),
              calls());
}

TEST_F(MonitorPriTest, ReadsCpuAllInItsFullWidthAndTruncatesTheRest) {
    const long high = 4294967296L;  // 2^32
    conf().cpuAll.Set(high);
    conf().resourceLimitMode.Set(high);
    conf().maxMemory.Set(high + 7);
    conf().maxReadIo.Set(high + 1);
    conf().maxWriteIo.Set(high + 2);
    conf().maxPidCheck.Set(high + 3);
    conf().maxFdCount.Set(high + 4);
    conf().hashMode.Set(high + 5);
    platform().kernel.configuredCpus = 1;
    journal();
    pri().OnUpdate();
    EXPECT_EQ(
        Joined({{"CResourceMonitor::SetCpuSolarisMode(1)", "IsResourceLimitCpuCgroupV2Runtime()",
                 "CResourceMonitor::IsCpuSolarisMode()", "sysconf(_SC_NPROCESSORS_CONF)", "GetResourceLimitUtil()",
                 "IResourceLimitUtil::SyncCpuLimit()", "F4 [MonitorPri] resource mode user conf:0",
                 "F4 [MonitorPri] resource cpu user conf:0", "F4 [MonitorPri] resource get res:0",
                 "W4 match 0 try to close resource limit", "IResourceLimitUtil::StopCpuLimit(error=0)",
                 "IResourceLimitUtil::IsCpuLimited()", "CResourceMonitor::SetMaxCpu(0)"},
                LegacyMemOff(),
                UpdateTail(7, 1, 2, 3, 4, 5)}),
        calls());
}

TEST_F(MonitorPriTest, KeepsCpuIn64BitsUntilTheThresholdIsClamped) {
    conf().maxCpu.Set(4294967296L + 10);
    journal();
    pri().OnUpdate();
    EXPECT_EQ(4294967306L, pri().m_effectiveMaxCpu);
    EXPECT_THAT(calls(), testing::Contains("CResourceMonitor::SetMaxCpu(2147483647)"));
}

TEST_F(MonitorPriTest, ShowsNegativeHashModeAsUnsignedAsLogged) {
    conf().hashMode.Set(-1);
    journal();
    pri().OnUpdate();
    const Lines all = calls();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ("CAlgorithmUtil::SetHashMode(-1)", all[all.size() - 2]);
    EXPECT_EQ("F4 [MonitorPri] set hash mode 4294967295", all.back());
}

TEST_F(MonitorPriTest, ReloadsAComponentsCgroupClientAtEveryUpdate) {
    zel::CCgroupClient client;
    pri().m_cgroupClient = &client;
    journal();
    for (int round = 0; round < 2; ++round) {
        pri().OnUpdate();
        const Lines all = calls();
        ASSERT_GE(all.size(), 3u);
        EXPECT_EQ("CResourceMonitor::SetCpuSolarisMode(0)", all[0]);
        EXPECT_EQ("W4 MonitorPri: compensation reload cgroup config after online config update", all[1]);
        EXPECT_EQ("CCgroupClient::ReloadConfig()", all[2]);
        EXPECT_EQ(1, std::count(all.begin(), all.end(), "CCgroupClient::ReloadConfig()"));
    }
}

TEST_F(MonitorPriTest, CarriesOnWhenTheClientsReloadFails) {
    zel::CCgroupClient client;
    pri().m_cgroupClient = &client;
    platform().client.reload.Always(false);
    pri().OnUpdate();
    EXPECT_EQ("F4 [MonitorPri] set hash mode 0", journal().back());
}

TEST_F(MonitorPriTest, NeverReloadsAClientInTheMainProcess) {
    zel::CCgroupClient client;
    pri().m_cgroupClient = &client;
    pri().m_isMainAgent = true;
    conf().maxCpu.Set(20);
    journal();
    pri().OnUpdate();
    EXPECT_EQ(Joined({{"CResourceMonitor::SetCpuSolarisMode(0)"},
                      NoUnifiedLeftovers(),
                      LegacyCpuOff(0, 20),
                      {"CResourceMonitor::SetMaxCpu(20)"},
                      {"IsResourceLimitMemCgroupV2Runtime()", "W4 resource limit mode and max limit mem is not change"},
                      UpdateTail(0, 0, 0, 0, 0, 0)}),
              calls());
}

TEST_F(MonitorPriTest, ReappliesUnifiedModeWithTheWidenedGroupPair) {
    pri().m_isMainAgent = true;
    platform().manager.cpuEnabled.Always(true);
    pri().m_cgroupGroupsSpec = "main:20:15360";
    pri().m_cgroupComponentsSpec = "Tervane:main:main:2000:15360";
    conf().maxCpu.Set(10);
    conf().maxMemory.Set(100);
    conf().groupMaxCpu.Set(20);
    conf().groupMaxMemory.Set(200);
    conf().resourceLimitMode.Set(9);
    journal();
    const Lines versionAsked = {"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                                "CCgroupManager::IsMemCgroupEnabled()"};
    const Lines limitsAndThresholds =
        Joined({{"CCgroupManager::PollMemoryOomEvents()"},
                versionAsked,
                {"IsResourceLimitCpuCgroupV2Runtime()", "CCgroupManager::IsCpuCgroupEnabled()",
                 "ClearResourceLimitCpuCgroupState()",
                 "F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=25 mem=300) effective(cpu=1 mem=300) "
                 "unified(cpu=1 mem=0)",
                 "CResourceMonitor::SetMaxCpu(1)"},
                versionAsked,
                {"IsResourceLimitMemCgroupV2Runtime()", "CCgroupManager::IsMemCgroupEnabled()"}});

    pri().OnUpdate();
    EXPECT_EQ(Joined({{"CResourceMonitor::SetCpuSolarisMode(0)"},
                      {"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()",
                       "CResourceMonitor::IsCpuSolarisMode()", "uname()",
                       "F4 [MonitorPri] MonitorPri: parsed 1 cgroup groups from config",
                       "F4 [MonitorPri] MonitorPri: parsed 1 cgroup components from config",
                       "CCgroupManager::Reconcile(1,0,total{cpu=1 23.00 mem=0 460800KB},groups[main cpu=1 4.60 mem=0 "
                       "0KB])",
                       "CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                       "CCgroupManager::IsParentCpuActive()", "CCgroupManager::IsParentMemActive()",
                       "CCgroupManager::AddPidToGroup(main,4242)",
                       "CCgroupManager::WriteComponentConfig(/opt/agent/home/conf/cgroup_resource.json,"
                       "quotas[Tervane@main/main 92 23040KB],0,0)",
                       "F4 [MonitorPri] MonitorPri: unified self-kill quota cpuActive=1 cpuQ=92 memActive=0 memQ=0"},
                      versionAsked,
                      {"ClearResourceLimitCpuCgroupState()", "CCgroupManager::SnapshotSelfMemoryOomCounters()",
                       "W3 MonitorPri: no IPC broadcast callback, cannot send cgroup config notify",
                       "W4 MonitorPri: multi-cgroup initialized"},
                      limitsAndThresholds,
                      {"W4 match 0 try to close mem limit", "GetResourceLimitUtil()",
                       "IResourceLimitUtil::StopMemLimit(error=0,1)", "IResourceLimitUtil::IsMemLimited()"},
                      UpdateTail(300, 0, 0, 0, 0, 0)}),
              calls());
    EXPECT_EQ(25, pri().m_effectiveMaxCpu);
    EXPECT_EQ(300, pri().m_effectiveMaxMem);
    EXPECT_EQ(100 * 1024, pri().m_legacyMemSecondLimit) << "the plain maximum, not the group's";

    pri().OnUpdate();
    EXPECT_EQ(Joined({{"CResourceMonitor::SetCpuSolarisMode(0)", "CResourceMonitor::IsCpuSolarisMode()"},
                      limitsAndThresholds,
                      {"W4 resource limit mode and max limit mem is not change"},
                      UpdateTail(300, 0, 0, 0, 0, 0)}),
              calls());
}

TEST_F(MonitorPriTest, AsksOomCheckEveryFifteenthRoundInUnified) {
    pri().m_isMainAgent = true;
    pri().m_unifiedActive = true;
    pri().m_cgroupManager = new zel::CCgroupManager;
    journal();
    pri().MonitorOther(15);
    EXPECT_EQ(Lines({"CCgroupManager::PollMemoryOomEvents()"}), journal());
    pri().m_unifiedActive = false;
}

TEST_F(MonitorPriTest, TellsWhatTheLastDiskCheckFound) {
    EXPECT_FALSE(pri().IsDiskFull());
    conf().osAbnormalSwitch.Set(1);
    platform().disk.freeSpace = 0;
    pri().m_osAbnormalMonitor.CheckOsAbnormal(0);
    EXPECT_TRUE(pri().IsDiskFull());
}
