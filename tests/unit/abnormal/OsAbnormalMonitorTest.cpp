// The OS abnormal monitor: its thread, its schedule, its checks, and what it sends and stores.
#include "OsAbnormalMonitor.h"

#include <climits>

#include "OsAbnormalFixture.h"
#include "abnormal/OsAbnormalDecisions.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kMemory = "COSInfo::GetMemoryUsage(available)";
const std::string kVmstat = "CFileUtil::ReadFileLineToList(/proc/vmstat,10240)";
const std::string kDisk = "CToolUtil::GetSelfDiskFreeSpace()";
const std::string kSecond = "CToolUtil::sleep(1)";
const std::string kSend = "IMsgTransmit::SendMsg(T_MSG_OS_ABNORMAL,body,\"\",1,0)";
constexpr time_t kNow = 1700000000;

Strings operator+(Strings left, const Strings& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class OsAbnormalMonitorTest : public OsAbnormalFixture {
protected:
    void SetUp() override {
        OsAbnormalFixture::SetUp();
        // The store has had its first rotation and a sample is remembered: what a test sees is its own.
        platform().files.content["/proc/vmstat"] = Vmstat(m_counters);
        platform().files.content["/opt/agent/home/current_os_abnormal.db"] = "";
        EXPECT_TRUE(monitor().m_eventStore.InsertData(OS_ABNORMAL_NONE, 0, "", ""));
        std::map<std::string, unsigned long> sample;
        monitor().ReadSwapIndexForSwap(sample);
        monitor().m_prevSwapIndex = sample;
        monitor().m_lastSwapTime = kNow - 10;
        journal();
    }

    /// Memory is short from now on, without a rise since the last check.
    void ShortOfMemory(int usage = 90, unsigned long available = 8000) {
        platform().memory = {usage, available};
        monitor().m_lastMemUsage = usage;
    }
    void FillDisk() { platform().disk.freeSpace = 1; }
    /// Raises every kernel counter far beyond its threshold until the next sample, ten seconds on.
    void SwapStorm() {
        m_counters += 1000000;
        platform().files.content["/proc/vmstat"] = Vmstat(m_counters);
        platform().now += 10;
    }
    void SwapCalm() { platform().now += 10; }

    /// Lines of a row of the store.
    Strings Row(int type, long eventTime, const std::string& data) {
        const std::string current = "/opt/agent/home/current_os_abnormal.db";
        return {"CFileUtil::IsFile(" + current + ")",
                "GetSqliteDB(" + current + ")",
                "ISqliteDB::Execute(create table if not exists os_abnormal(event_time integer UNIQUE, type integer, "
                "info varchar, data varchar);)",
                "ISqliteDB::Compile(insert into os_abnormal values(:event_time,:type,:info,:data);)",
                doubles::Format("ISqliteStatement::BindInt(:event_time,%ld)", eventTime),
                doubles::Format("ISqliteStatement::BindInt(:type,%d)", type),
                "ISqliteStatement::BindString(:info,)",
                "ISqliteStatement::BindString(:data," + data + ")",
                "ISqliteStatement::Step()",
                "ISqliteDB::ReleaseStatement()",
                "RemoveSqliteDB()"};
    }
    /// The data that was bound last.
    static std::string BoundData(const Strings& lines) {
        const std::string start = "ISqliteStatement::BindString(:data,";
        for (const std::string& line : lines) {
            if (line.compare(0, start.size(), start) != 0) continue;
            return line.substr(start.size(), line.size() - start.size() - 1);
        }
        return "nothing stored";
    }
    std::string LastBody() { return platform().sent.empty() ? "nothing sent" : platform().sent.back().body; }
    bool Sends(unsigned long tick) {
        const size_t before = platform().sent.size();
        monitor().CheckOsAbnormal(tick);
        return platform().sent.size() > before;
    }

    unsigned long m_counters = 1000;
};

}  // namespace

// --- construction, start and stop ---

TEST_F(OsAbnormalMonitorTest, StartsUnsetWithElevenThresholds) {
    OsAbnormalMonitorProbe fresh;
    EXPECT_FALSE(fresh.m_initialised);
    EXPECT_FALSE(fresh.m_diskFull);
    EXPECT_FALSE(fresh.m_stopRequested);
    EXPECT_FALSE(fresh.m_memRising);
    EXPECT_EQ(0, fresh.m_lastMemUsage);
    EXPECT_EQ(0u, fresh.m_lastReportTick);
    EXPECT_EQ(0, fresh.m_lastSwapTime);
    EXPECT_TRUE(fresh.m_prevSwapIndex.empty());
    EXPECT_EQ((std::map<std::string, uint64_t>{{"maj_flt", 5},
                                               {"nr_vmscan_immediate_reclaim", 10},
                                               {"nr_vmscan_write", 10},
                                               {"pageoutrun", 10},
                                               {"pgmajfault", 50},
                                               {"pgrotated", 2},
                                               {"pgscan_kswapd_dma", 20},
                                               {"pgscan_kswapd_dma32", 1000},
                                               {"pgsteal_kswapd_dma", 20},
                                               {"pgsteal_kswapd_dma32", 1000},
                                               {"workingset_refault", 1000}}),
              fresh.m_swapThresholds);
    EXPECT_EQ(Strings({"CToolUtil::GetApplicationDirPath()"}), journal());
}

TEST_F(OsAbnormalMonitorTest, StartClearsStopRequestBeforeTheThread) {
    monitor().m_stopRequested = true;
    platform().startThread.Then(true).Then(false);
    EXPECT_TRUE(monitor().Start());
    EXPECT_FALSE(monitor().m_stopRequested);
    EXPECT_EQ(Strings({"CThreadUtil::IsThreadRunning()", "CThreadUtil::startThread()"}), journal());

    monitor().m_stopRequested = true;
    EXPECT_TRUE(monitor().Start());  // runs already
    EXPECT_FALSE(monitor().m_stopRequested);
    EXPECT_EQ(Strings({"CThreadUtil::IsThreadRunning()"}), journal());

    platform().threadRunning = false;
    EXPECT_FALSE(monitor().Start());  // refused
    EXPECT_EQ(Strings({"CThreadUtil::IsThreadRunning()", "CThreadUtil::startThread()"}), journal());
}

TEST_F(OsAbnormalMonitorTest, UninitStopsARunningThreadOnly) {
    EXPECT_FALSE(monitor().Uninit());
    EXPECT_TRUE(monitor().m_stopRequested);
    EXPECT_EQ(Strings({"CThreadUtil::IsThreadRunning()"}), journal());

    for (bool stopped : {true, false}) {
        monitor().m_stopRequested = false;
        platform().threadRunning = true;
        platform().stopThread.Then(stopped);
        EXPECT_EQ(stopped, monitor().Uninit());
        EXPECT_TRUE(monitor().m_stopRequested);
        EXPECT_EQ(Strings({"CThreadUtil::IsThreadRunning()", "CThreadUtil::stopThread()"}), journal());
    }
}

TEST_F(OsAbnormalMonitorTest, DestructorStopsNothing) {
    platform().threadRunning = true;
    m_monitor.reset();
    EXPECT_EQ(Strings(), journal());
    EXPECT_TRUE(platform().threadRunning);
}

TEST_F(OsAbnormalMonitorTest, InitIsAlwaysTrue) {
    EXPECT_TRUE(monitor().Init());
    EXPECT_EQ(Strings(), journal());
}

// --- the thread's body ---

TEST_F(OsAbnormalMonitorTest, RunNamesThreadWaitsTenTicksEveryTwo) {
    int ticks = 0;
    platform().onSleep = [&](unsigned int seconds) {
        if (seconds == 2 && ++ticks == 6) monitor().m_stopRequested = true;
    };
    monitor().run();
    EXPECT_EQ(
        Strings({"W4 COsAbnormalMonitor::run Enter", "CThreadUtil::SetThreadName(OsAbnormalMonitor)",
                 "CToolUtil::sleep(10)", "CToolUtil::sleep(2)", kMemory, kDisk, "CToolUtil::sleep(2)",
                 "CToolUtil::sleep(2)", "CToolUtil::sleep(2)", "CToolUtil::sleep(2)", "CToolUtil::sleep(2)", kMemory}),
        journal());
}

TEST_F(OsAbnormalMonitorTest, StopDuringTheFirstWaitRunsNoTick) {
    platform().onSleep = [&](unsigned int) { monitor().m_stopRequested = true; };
    monitor().run();
    EXPECT_EQ(Strings({"W4 COsAbnormalMonitor::run Enter", "CThreadUtil::SetThreadName(OsAbnormalMonitor)",
                       "CToolUtil::sleep(10)"}),
              journal());
}

TEST_F(OsAbnormalMonitorTest, SecondRunCountsItsTicksFromZero) {
    monitor().m_lastReportTick = 5000;
    ShortOfMemory();
    platform().onSleep = [&](unsigned int seconds) {
        if (seconds == 2) monitor().m_stopRequested = true;
    };
    monitor().run();
    EXPECT_EQ(1u, platform().sent.size());
    EXPECT_EQ(0u, monitor().m_lastReportTick);
}

// --- switch ---

TEST_F(OsAbnormalMonitorTest, BitZeroOfTheOnlineValueIsTheSwitch) {
    const struct {
        long value;
        bool on;
    } cases[] = {{0, false},       {1, true},         {2, false},
                 {3, true},        {4, false},        {-1, true},
                 {-2, false},      {1L << 32, false}, {(1L << 32) + 1, true},
                 {LONG_MIN, false}};
    for (const auto& c : cases) {
        conf().osAbnormalSwitch.Set(c.value);
        EXPECT_EQ(c.on, IsMoniitorOsAbnormal()) << c.value;
    }
}

TEST_F(OsAbnormalMonitorTest, SwitchOffDoesNothingAndKeepsEveryFlag) {
    ShortOfMemory();
    FillDisk();
    monitor().m_diskFull = true;
    monitor().m_memRising = true;
    for (long off : {0L, 2L}) {
        Set(conf().osAbnormalSwitch, off);
        for (unsigned long tick : {0UL, 1UL, 5UL, 1800UL, 21600UL}) monitor().CheckOsAbnormal(tick);
    }
    EXPECT_EQ(Strings(), journal());
    EXPECT_TRUE(monitor().IsDiskFull());
    EXPECT_TRUE(monitor().m_memRising);
    EXPECT_FALSE(monitor().m_initialised);
}

TEST_F(OsAbnormalMonitorTest, WithoutOnlineConfigurationMonitorIsOff) {
    ShortOfMemory();
    doubles::ForgetOnlineConf();
    EXPECT_FALSE(IsMoniitorOsAbnormal());
    monitor().CheckOsAbnormal(0);
    EXPECT_EQ(Strings(), journal());
    EXPECT_TRUE(monitor().IsCheckMemory(50, 199));
    EXPECT_FALSE(monitor().IsCheckMemory(50, 200));
}

// --- schedule ---

TEST_F(OsAbnormalMonitorTest, MemoryEveryFifthTickDiskEvery21600th) {
    const struct {
        unsigned long tick;
        Strings lines;
    } cases[] = {
        {0, {kMemory, kDisk}},
        {1, {}},
        {2, {}},
        {3, {}},
        {4, {}},
        {5, {kMemory}},
        {6, {}},
        {10, {kMemory}},
        {1800, {kMemory}},
        {21595, {kMemory}},
        {21599, {}},
        {21600, {kMemory, kDisk}},
        {21601, {}},
        {21605, {kMemory}},
        {43200, {kMemory, kDisk}},
        {15768000, {kMemory, kDisk}},
    };
    for (const auto& c : cases) {
        monitor().CheckOsAbnormal(c.tick);
        EXPECT_EQ(c.lines, journal()) << c.tick;
    }
}

TEST_F(OsAbnormalMonitorTest, MemoryIsCheckedOnEveryTickWhileItRises) {
    platform().memory = {86, 8000};
    monitor().CheckOsAbnormal(5);  // 0 -> 86
    EXPECT_TRUE(monitor().m_memRising);
    journal();
    platform().memory.usagePercent = 88;
    platform().now += 2;
    monitor().CheckOsAbnormal(6);
    EXPECT_TRUE(monitor().m_memRising);
    EXPECT_EQ(kMemory, journal()[0]);
    platform().memory.usagePercent = 89;  // one point is no rise
    platform().now += 2;
    monitor().CheckOsAbnormal(7);
    EXPECT_FALSE(monitor().m_memRising);
    EXPECT_EQ(kMemory, journal()[0]);
    monitor().CheckOsAbnormal(8);
    EXPECT_EQ(Strings(), journal());
}

TEST_F(OsAbnormalMonitorTest, RiseEndsWhenMemoryIsWellAgain) {
    monitor().m_memRising = true;
    monitor().CheckOsAbnormal(1);
    EXPECT_EQ(Strings({kMemory}), journal());
    EXPECT_FALSE(monitor().m_memRising);
    monitor().CheckOsAbnormal(2);
    EXPECT_EQ(Strings(), journal());
}

TEST_F(OsAbnormalMonitorTest, InitialisesEvery1800TicksGatingNothing) {
    monitor().CheckOsAbnormal(5);
    EXPECT_FALSE(monitor().m_initialised);
    EXPECT_EQ(Strings({kMemory}), journal());
    monitor().CheckOsAbnormal(1799);
    EXPECT_FALSE(monitor().m_initialised);
    monitor().CheckOsAbnormal(1800);
    EXPECT_TRUE(monitor().m_initialised);
    monitor().m_initialised = false;
    monitor().CheckOsAbnormal(0);
    EXPECT_TRUE(monitor().m_initialised);
}

// --- memory verdict ---

TEST_F(OsAbnormalMonitorTest, MemoryVerdicts) {
    const struct {
        int usage;
        unsigned long available;
        long threshold;  // as configured
        bool abnormal;
    } cases[] = {
        {85, 1000000, 0, true},
        {85, 0, 0, true},
        {100, 1000000, 0, true},
        {84, 1000, 0, false},
        {84, 400, 0, false},
        {84, 399, 0, true},
        {80, 400, 0, false},
        {80, 399, 0, true},
        {79, 399, 0, false},
        {79, 200, 0, false},
        {79, 199, 0, true},
        {0, 199, 0, true},
        {0, 200, 0, false},
        {0, 0, 0, true},
        {-1, 1000, 0, false},
        {-1, 0, 0, true},
        {79, 399, 200, false},
        {50, 100, 100, false},
        {50, 99, 100, true},
        {50, 1, 1, false},
        {50, 0, 1, true},
        {50, 199, -1, true},
        {50, 200, -1, false},
        {50, 199, LONG_MIN, true},
        {50, 999, 1000, true},
        {50, 1000, 1000, false},
        {50, ULONG_MAX - 1, LONG_MAX, false},
        {50, 5000000000, 5000000001, true},
    };
    for (const auto& c : cases) {
        Set(conf().availableMemThreshold, c.threshold);
        EXPECT_EQ(c.abnormal, monitor().IsCheckMemory(c.usage, c.available))
            << c.usage << " " << c.available << " " << c.threshold;
        EXPECT_EQ(c.abnormal, IsMemoryShort(c.usage, c.available, EffectiveAvailableMemThreshold(c.threshold)));
    }
    EXPECT_EQ(Strings(), journal());
}

TEST_F(OsAbnormalMonitorTest, HealthyMemoryClearsRiseAndAlarmOnly) {
    platform().memory = {50, 8000};
    monitor().m_memRising = true;
    monitor().m_lastMemUsage = 77;
    Json::Value out(Json::objectValue);
    int eventTime = 42;
    bool swapAlarm = true;
    EXPECT_FALSE(monitor().IsMemoryAbnormal(out, eventTime, swapAlarm));
    EXPECT_FALSE(swapAlarm);
    EXPECT_FALSE(monitor().m_memRising);
    EXPECT_EQ(77, monitor().m_lastMemUsage);
    EXPECT_EQ(42, eventTime);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(Strings({kMemory}), journal());
}

TEST_F(OsAbnormalMonitorTest, RiseIsOverOnePointSinceLastAbnormal) {
    const struct {
        int before, now;
        bool rising;
    } cases[] = {{0, 85, true}, {85, 85, false}, {85, 86, false}, {85, 87, true}, {90, 86, false}, {86, 100, true}};
    for (const auto& c : cases) {
        platform().memory = {c.now, 8000};
        platform().now += 10;
        monitor().m_lastMemUsage = c.before;
        monitor().m_memRising = !c.rising;
        Json::Value out(Json::objectValue);
        int eventTime = 0;
        bool swapAlarm = false;
        EXPECT_TRUE(monitor().IsMemoryAbnormal(out, eventTime, swapAlarm));
        EXPECT_EQ(c.rising, monitor().m_memRising) << c.before << " " << c.now;
        EXPECT_EQ(c.now, monitor().m_lastMemUsage);
    }
}

TEST_F(OsAbnormalMonitorTest, MemoryFindingHoldsUsageFreeAndRates) {
    platform().memory = {90, ULONG_MAX};
    platform().kernel.majorFaults.Always(30);
    monitor().m_prevSwapIndex["maj_flt"] = 10;
    Json::Value out(Json::objectValue);
    int eventTime = 0;
    bool swapAlarm = true;
    EXPECT_TRUE(monitor().IsMemoryAbnormal(out, eventTime, swapAlarm));
    EXPECT_EQ(90, out["mem_usage"].asInt());
    EXPECT_TRUE(out["mem_usage"].isInt());
    EXPECT_EQ(ULONG_MAX, out["available_mem"].asUInt64());
    EXPECT_EQ(2u, out["maj_flt"].asUInt64());
    EXPECT_EQ(0u, out["pgmajfault"].asUInt64());
    EXPECT_EQ(13u, out.size());
    EXPECT_EQ(kNow, eventTime);
    EXPECT_FALSE(swapAlarm);
    EXPECT_EQ(Strings({kMemory, kVmstat}), journal());
}

TEST_F(OsAbnormalMonitorTest, EventTimeIsTakenBeforeSwapSampleSleeps) {
    monitor().m_lastSwapTime = 0;
    ShortOfMemory();
    Json::Value out(Json::objectValue);
    int eventTime = 0;
    bool swapAlarm = false;
    EXPECT_TRUE(monitor().IsMemoryAbnormal(out, eventTime, swapAlarm));
    EXPECT_EQ(Strings({kMemory, kVmstat, kSecond, kVmstat}), journal());
    EXPECT_EQ(kNow, eventTime);
    EXPECT_EQ(kNow + 1, platform().now);
}

// --- disk verdict ---

TEST_F(OsAbnormalMonitorTest, DiskVerdicts) {
    const struct {
        unsigned long space, inodes;
        bool abnormal;
    } cases[] = {{67108865, 33, false}, {67108864, 33, true},          {67108865, 32, true}, {67108864, 32, true},
                 {0, 0, true},          {ULONG_MAX, ULONG_MAX, false}, {ULONG_MAX, 0, true}, {0, ULONG_MAX, true}};
    for (const auto& c : cases) {
        platform().disk.freeSpace = c.space;
        platform().disk.freeInodes = c.inodes;
        Json::Value out(Json::objectValue);
        int eventTime = 42;
        EXPECT_EQ(c.abnormal, monitor().IsDiskAbnormal(out, eventTime)) << c.space << " " << c.inodes;
        EXPECT_EQ(c.abnormal ? kNow : 42, eventTime);
        EXPECT_EQ(c.abnormal ? 2u : 0u, out.size());
        if (c.abnormal) {
            EXPECT_EQ(c.space, out["free_space"].asUInt64());
            EXPECT_EQ(c.inodes, out["free_inode"].asUInt64());
        }
        EXPECT_EQ(Strings({kDisk}), journal());  // with an empty path: the agent's own disk
    }
}

TEST_F(OsAbnormalMonitorTest, FailedDiskQueryIsLoggedAndFindsNothing) {
    platform().disk.ok = false;
    Json::Value out(Json::objectValue);
    int eventTime = 42;
    EXPECT_FALSE(monitor().IsDiskAbnormal(out, eventTime));
    EXPECT_EQ(Strings({kDisk, "W3 get disk free space fail"}), journal());
    EXPECT_EQ(42, eventTime);
    EXPECT_TRUE(out.empty());
}

// --- the swap sample ---

TEST_F(OsAbnormalMonitorTest, SampleTakesOwnFaultsAndKernelsNames) {
    platform().kernel.majorFaults.Always(7);
    platform().files.content["/proc/vmstat"] =
        "nr_free_pages 1\npgmajfault 2\nworkingset_refault_anon 3\npgrotated 18446744073709551615\n";
    std::map<std::string, unsigned long> sample{{"kept", 1}};
    monitor().ReadSwapIndexForSwap(sample);
    EXPECT_EQ((std::map<std::string, unsigned long>{
                  {"kept", 1}, {"maj_flt", 7}, {"pgmajfault", 2}, {"pgrotated", ULONG_MAX}}),
              sample);
    EXPECT_EQ(Strings({kVmstat}), journal());
}

TEST_F(OsAbnormalMonitorTest, SampleGoesOnWithoutOwnFaults) {
    platform().kernel.getrusageResult = -1;
    platform().files.content["/proc/vmstat"] = "pgmajfault 2\n";
    std::map<std::string, unsigned long> sample;
    monitor().ReadSwapIndexForSwap(sample);
    EXPECT_EQ((std::map<std::string, unsigned long>{{"pgmajfault", 2}}), sample);
}

TEST_F(OsAbnormalMonitorTest, SampleWithoutKernelCountersIsOwnFaults) {
    platform().files.failRead.insert("/proc/vmstat");
    std::map<std::string, unsigned long> sample;
    monitor().ReadSwapIndexForSwap(sample);
    EXPECT_EQ((std::map<std::string, unsigned long>{{"maj_flt", 0}}), sample);
}

TEST_F(OsAbnormalMonitorTest, KernelLinesAreReadByFirstTwoFields) {
    const struct {
        const char* line;
        const char* shown;
    } cases[] = {
        {"pgmajfault 12", "12"},
        {"pgmajfault 12 13", "12"},
        {"pgmajfault 0", "0"},
        {"pgmajfault 18446744073709551615", "18446744073709551615"},
        {"pgmajfault 18446744073709551616", "none"},
        {"pgmajfault", "none"},
        {"pgmajfault ", "none"},
        {"pgmajfault  12", "none"},
        {"pgmajfault\t12", "none"},
        {" pgmajfault 12", "none"},
        {"pgmajfault x", "none"},
        {"pgmajfault -1", "none"},
        {"pgmajfault 12x", "none"},
        {"PGMAJFAULT 12", "none"},
        {"pgmajfaults 12", "none"},
        {"", "none"},
        {" ", "none"},
    };
    for (const auto& c : cases) {
        SwapIndexMap out;
        ParseVmstat({c.line}, monitor().m_swapThresholds, out);
        EXPECT_EQ(c.shown, out.empty() ? "none" : std::to_string(out.begin()->second)) << c.line;
        EXPECT_LE(out.size(), 1u);
    }
}

TEST_F(OsAbnormalMonitorTest, ReadingStopsAtTheTenthFoundName) {
    std::string text = Vmstat(1);
    text += "pgmajfault 99\n";  // behind the tenth: never read
    platform().files.content["/proc/vmstat"] = text;
    std::map<std::string, unsigned long> sample;
    monitor().ReadSwapIndexForSwap(sample);
    EXPECT_EQ(11u, sample.size());
    EXPECT_EQ(1u, sample["pgmajfault"]);
}

TEST_F(OsAbnormalMonitorTest, NoNumberIsLeftOutButCountsAsFound) {
    std::list<std::string> lines;
    for (int i = 0; i < 9; ++i) lines.push_back("pageoutrun oops");
    lines.push_back("pgrotated 1");
    lines.push_back("pgmajfault 1");
    SwapIndexMap out;
    ParseVmstat(lines, monitor().m_swapThresholds, out);
    EXPECT_EQ((SwapIndexMap{{"pgrotated", 1}}), out);
}

TEST_F(OsAbnormalMonitorTest, RepeatedNameKeepsLastCountsEachTime) {
    std::list<std::string> lines;
    for (int i = 1; i <= 12; ++i) lines.push_back("pgrotated " + std::to_string(i));
    SwapIndexMap out;
    ParseVmstat(lines, monitor().m_swapThresholds, out);
    EXPECT_EQ((SwapIndexMap{{"pgrotated", 10}}), out);
}

TEST_F(OsAbnormalMonitorTest, KernelLineNamedAsOwnFaultsIsTaken) {
    platform().kernel.majorFaults.Always(7);
    platform().files.content["/proc/vmstat"] = "maj_flt 9\n";
    std::map<std::string, unsigned long> sample;
    monitor().ReadSwapIndexForSwap(sample);
    EXPECT_EQ((std::map<std::string, unsigned long>{{"maj_flt", 9}}), sample);
}

// --- rates and alarm ---

TEST_F(OsAbnormalMonitorTest, EmptySampleGivesNoRatesAndNoError) {
    platform().kernel.getrusageResult = -1;
    platform().files.failRead.insert("/proc/vmstat");
    const auto before = monitor().m_prevSwapIndex;
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(before, monitor().m_prevSwapIndex);
    EXPECT_EQ(kNow - 10, monitor().m_lastSwapTime);
}

TEST_F(OsAbnormalMonitorTest, FirstSampleReadsTwiceAndCanAlarm) {
    monitor().m_lastSwapTime = 0;
    monitor().m_prevSwapIndex = {{"stale", 1}};
    platform().files.content["/proc/vmstat"] = Vmstat(0);
    platform().onSleep = [&](unsigned int) { platform().files.content["/proc/vmstat"] = Vmstat(1000); };
    Json::Value out(Json::objectValue);
    EXPECT_TRUE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(Strings({kVmstat, kSecond, kVmstat}), journal());
    EXPECT_EQ(1, out["swap"].asInt());
    EXPECT_TRUE(out["swap"].isInt());
    EXPECT_EQ(1000u, out["pgmajfault"].asUInt64());
    EXPECT_EQ(0u, out["maj_flt"].asUInt64());
    EXPECT_EQ(12u, out.size());
    EXPECT_EQ(kNow + 1, monitor().m_lastSwapTime);
    EXPECT_EQ(11u, monitor().m_prevSwapIndex.size());
    EXPECT_EQ(1000u, monitor().m_prevSwapIndex["pgmajfault"]);
}

TEST_F(OsAbnormalMonitorTest, FirstSampleIsKeptWhenSecondIsEmpty) {
    monitor().m_lastSwapTime = 0;
    monitor().m_prevSwapIndex.clear();
    platform().onSleep = [&](unsigned int) {
        platform().kernel.getrusageResult = -1;
        platform().files.failRead.insert("/proc/vmstat");
    };
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(kNow, monitor().m_lastSwapTime);
    EXPECT_EQ(11u, monitor().m_prevSwapIndex.size());
    EXPECT_EQ(Strings({kVmstat, kSecond, kVmstat}), journal());
}

TEST_F(OsAbnormalMonitorTest, FirstSampleIsKeptWhenClockStandsStill) {
    for (time_t after : {kNow, kNow - 1, kNow - 86400}) {
        monitor().m_lastSwapTime = 0;
        monitor().m_prevSwapIndex = {{"stale", 1}};
        platform().now = kNow;
        platform().files.content["/proc/vmstat"] = Vmstat(7);
        platform().onSleep = [&](unsigned int) {
            platform().now = after;
            platform().files.content["/proc/vmstat"] = Vmstat(1000000);
        };
        Json::Value out(Json::objectValue);
        EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
        EXPECT_EQ(1u, out.size());
        EXPECT_EQ("fetch time error", out["error"].asString());
        EXPECT_EQ(Strings({kVmstat, kSecond, kVmstat}), journal());
        EXPECT_EQ(kNow, monitor().m_lastSwapTime);
        EXPECT_EQ(11u, monitor().m_prevSwapIndex.size());
        EXPECT_EQ(7u, monitor().m_prevSwapIndex["pgmajfault"]);
    }
    // The next sample is compared with the first one.
    platform().onSleep = nullptr;
    platform().now = kNow + 3;
    platform().files.content["/proc/vmstat"] = Vmstat(7 + 9000);
    Json::Value out(Json::objectValue);
    EXPECT_TRUE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(3000u, out["pgmajfault"].asUInt64());
    EXPECT_EQ(Strings({kVmstat}), journal());
}

TEST_F(OsAbnormalMonitorTest, ClockBeforeOriginIsErrorThenFirstAgain) {
    for (time_t start : {time_t(0), time_t(-1), time_t(-86400)}) {
        monitor().m_lastSwapTime = 0;
        monitor().m_prevSwapIndex.clear();
        platform().now = start;  // the sleep moves it on by a second
        Json::Value out(Json::objectValue);
        EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
        EXPECT_EQ(1u, out.size());
        EXPECT_EQ("fetch time error", out["error"].asString());
        EXPECT_EQ(Strings({kVmstat, kSecond, kVmstat}), journal());
        EXPECT_EQ(start, monitor().m_lastSwapTime);
        EXPECT_EQ(11u, monitor().m_prevSwapIndex.size());
    }
    platform().now = 1;
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_FALSE(out.isMember("error"));
    EXPECT_EQ(11u, out.size());
    EXPECT_EQ(Strings({kVmstat, kSecond, kVmstat}), journal());
    EXPECT_EQ(2, monitor().m_lastSwapTime);
}

TEST_F(OsAbnormalMonitorTest, LaterSamplesReadOnceDivideByElapsed) {
    platform().files.content["/proc/vmstat"] = Vmstat(1000 + 69);
    platform().now = kNow - 3;  // seven seconds after the last sample
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(Strings({kVmstat}), journal());
    EXPECT_EQ(9u, out["pgmajfault"].asUInt64());  // 69 / 7
    EXPECT_FALSE(out.isMember("swap"));
    EXPECT_FALSE(out.isMember("error"));
    EXPECT_EQ(kNow - 3, monitor().m_lastSwapTime);
    EXPECT_EQ(1069u, monitor().m_prevSwapIndex["pgmajfault"]);
}

TEST_F(OsAbnormalMonitorTest, StandingClockIsErrorKeepingOldSample) {
    const auto before = monitor().m_prevSwapIndex;
    platform().files.content["/proc/vmstat"] = Vmstat(1000000);
    for (time_t now : {kNow - 10, kNow - 11, time_t(1)}) {
        platform().now = now;
        Json::Value out(Json::objectValue);
        EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
        EXPECT_EQ(1u, out.size());
        EXPECT_EQ("fetch time error", out["error"].asString());
        EXPECT_EQ(before, monitor().m_prevSwapIndex);
        EXPECT_EQ(kNow - 10, monitor().m_lastSwapTime);
    }
    platform().now = kNow - 9;
    Json::Value out(Json::objectValue);
    EXPECT_TRUE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(999000u, out["pgmajfault"].asUInt64());
}

TEST_F(OsAbnormalMonitorTest, NamesMissingInEitherSampleGiveNoRate) {
    monitor().m_prevSwapIndex = {{"pgmajfault", 0}, {"gone", 0}};
    platform().files.content["/proc/vmstat"] = "pgmajfault 100\npgrotated 100\n";
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ((Strings{"pgmajfault"}), out.getMemberNames());
    EXPECT_EQ((std::map<std::string, uint64_t>{{"maj_flt", 0}, {"pgmajfault", 100}, {"pgrotated", 100}}),
              monitor().m_prevSwapIndex);
}

TEST_F(OsAbnormalMonitorTest, RateAtThresholdCountsOneBelowDoesNot) {
    for (const auto& threshold : monitor().m_swapThresholds) {
        const SwapIndexMap before{{threshold.first, 100}};
        EXPECT_EQ(
            1u, ComputeSwapRates(before, {{threshold.first, 100 + 3 * threshold.second}}, 3, monitor().m_swapThresholds)
                    .reached);
        EXPECT_EQ(0u, ComputeSwapRates(before, {{threshold.first, 100 + 3 * threshold.second - 1}}, 3,
                                       monitor().m_swapThresholds)
                          .reached);
    }
    const SwapRates unknown = ComputeSwapRates({{"other", 0}}, {{"other", 1000000}}, 1, monitor().m_swapThresholds);
    EXPECT_EQ(0u, unknown.reached);
    EXPECT_EQ(1000000u, unknown.rates.at("other"));
}

TEST_F(OsAbnormalMonitorTest, FiveOfElevenIndicesRaiseTheAlarm) {
    for (size_t raised = 0; raised <= 10; ++raised) {
        monitor().m_lastSwapTime = platform().now - 1;
        platform().files.content["/proc/vmstat"] = Vmstat(0);
        std::map<std::string, unsigned long> sample;
        monitor().ReadSwapIndexForSwap(sample);
        monitor().m_prevSwapIndex = sample;
        platform().files.content["/proc/vmstat"] = Vmstat(1000, raised);
        Json::Value out(Json::objectValue);
        EXPECT_EQ(raised >= 5, monitor().FetchSwapIndexIncrement(out)) << raised;
        EXPECT_EQ(raised >= 5, out.isMember("swap")) << raised;
    }
}

TEST_F(OsAbnormalMonitorTest, OwnFaultsCountLikeAnyOtherIndex) {
    monitor().m_lastSwapTime = platform().now - 1;
    platform().files.content["/proc/vmstat"] = Vmstat(0);
    std::map<std::string, unsigned long> sample;
    monitor().ReadSwapIndexForSwap(sample);
    monitor().m_prevSwapIndex = sample;
    platform().files.content["/proc/vmstat"] = Vmstat(1000, 4);
    platform().kernel.majorFaults.Always(5);
    Json::Value out(Json::objectValue);
    EXPECT_TRUE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(5u, out["maj_flt"].asUInt64());
}

TEST_F(OsAbnormalMonitorTest, CounterThatFellGivesHugeRateThatCounts) {
    platform().files.content["/proc/vmstat"] = Vmstat(0);  // all ten fell from 1000
    Json::Value out(Json::objectValue);
    EXPECT_TRUE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ((0 - uint64_t{1000}) / 10, out["pgmajfault"].asUInt64());
    EXPECT_EQ(1, out["swap"].asInt());
}

// --- what is sent and stored ---

TEST_F(OsAbnormalMonitorTest, MemoryFindingIsSentAndStored) {
    ShortOfMemory();
    monitor().CheckOsAbnormal(90);
    const std::string body = LastBody();
    EXPECT_EQ(Strings({kMemory, kVmstat, kSend}) + Row(1, kNow, body), journal());
    EXPECT_EQ(90u, monitor().m_lastReportTick);
    ASSERT_EQ(1u, platform().sent.size());
    EXPECT_EQ("T_MSG_OS_ABNORMAL", platform().sent[0].type);
    const Json::Value root = Parsed(body);
    EXPECT_EQ(root.toStyledString(), body);
    EXPECT_EQ(13u, root.size());
    for (const char* other : {"type", "process", "items", "detect_time", "swap", "error", "free_space"}) {
        EXPECT_FALSE(root.isMember(other)) << other;
    }
}

TEST_F(OsAbnormalMonitorTest, DiskFindingIsSentAndNeverStored) {
    FillDisk();
    platform().disk.freeInodes = 2;
    monitor().CheckOsAbnormal(0);
    EXPECT_EQ(Strings({kMemory, kDisk, kSend}), journal());
    EXPECT_TRUE(monitor().IsDiskFull());
    const Json::Value root = Parsed(LastBody());
    EXPECT_EQ((Strings{"free_inode", "free_space"}), root.getMemberNames());
    EXPECT_EQ(1u, root["free_space"].asUInt64());
    EXPECT_EQ(2u, root["free_inode"].asUInt64());
}

TEST_F(OsAbnormalMonitorTest, FailedMemoryQueryIsAFinding) {
    platform().memory = {-1, 8000, false};
    monitor().CheckOsAbnormal(90);
    const Strings lines = journal();
    EXPECT_EQ(Strings({kMemory, kVmstat, kSend}) + Row(1, kNow, LastBody()), lines);
    EXPECT_EQ(-1, Parsed(LastBody())["mem_usage"].asInt());
    EXPECT_EQ(0u, Parsed(LastBody())["available_mem"].asUInt64());
    EXPECT_FALSE(monitor().m_memRising);
    EXPECT_EQ(-1, monitor().m_lastMemUsage);
}

TEST_F(OsAbnormalMonitorTest, BothFindingsShareOneMessage) {
    ShortOfMemory();
    FillDisk();
    monitor().CheckOsAbnormal(21600);
    EXPECT_EQ(Strings({kMemory, kVmstat, kDisk, kSend}), journal());
    const Json::Value root = Parsed(LastBody());
    EXPECT_EQ(15u, root.size());
    EXPECT_TRUE(root.isMember("mem_usage"));
    EXPECT_TRUE(root.isMember("free_space"));
    EXPECT_TRUE(monitor().IsDiskFull());
}

TEST_F(OsAbnormalMonitorTest, NothingIsStoredUntilDiskHasRoomAgain) {
    ShortOfMemory();
    FillDisk();
    monitor().CheckOsAbnormal(0);
    platform().disk.freeSpace = 1UL << 40;
    journal();
    platform().now += 7200;
    monitor().CheckOsAbnormal(3600);  // hours later: no disk check yet
    EXPECT_EQ(Strings({kMemory, kVmstat, kSend}), journal());
    EXPECT_TRUE(monitor().IsDiskFull());
    platform().now += 36000;
    monitor().CheckOsAbnormal(21600);
    EXPECT_EQ(Strings({kMemory, kVmstat, kDisk, kSend}) + Row(1, platform().now, LastBody()), journal());
    EXPECT_FALSE(monitor().IsDiskFull());
}

TEST_F(OsAbnormalMonitorTest, FailedDiskQueryClearsTheFullFlag) {
    monitor().m_diskFull = true;
    platform().disk.ok = false;
    monitor().CheckOsAbnormal(0);
    EXPECT_EQ(Strings({kMemory, kDisk, "W3 get disk free space fail"}), journal());
    EXPECT_FALSE(monitor().IsDiskFull());
}

TEST_F(OsAbnormalMonitorTest, HealthyDiskClearsFullFlagWithoutEvent) {
    monitor().m_diskFull = true;
    monitor().CheckOsAbnormal(21600);
    EXPECT_EQ(Strings({kMemory, kDisk}), journal());
    EXPECT_FALSE(monitor().IsDiskFull());
}

TEST_F(OsAbnormalMonitorTest, FindingThatIsHeldBackIsStoredAllSame) {
    ShortOfMemory();
    monitor().m_lastReportTick = 91;
    monitor().CheckOsAbnormal(95);
    const Strings lines = journal();
    EXPECT_EQ(Strings({kMemory, kVmstat}) + Row(1, kNow, BoundData(lines)), lines);
    EXPECT_EQ(90, Parsed(BoundData(lines))["mem_usage"].asInt());
    EXPECT_EQ(91u, monitor().m_lastReportTick);
    EXPECT_TRUE(platform().sent.empty());
}

TEST_F(OsAbnormalMonitorTest, FailedSendIsNotNoticed) {
    ShortOfMemory();
    platform().sendMsg.Always(false);
    monitor().CheckOsAbnormal(90);
    EXPECT_EQ(Strings({kMemory, kVmstat, kSend}) + Row(1, kNow, LastBody()), journal());
    EXPECT_EQ(90u, monitor().m_lastReportTick);
}

TEST_F(OsAbnormalMonitorTest, MissingTransmitLeavesTheStoreAtWork) {
    ShortOfMemory();
    platform().transmitPresent = false;
    monitor().CheckOsAbnormal(90);
    const Strings lines = journal();
    EXPECT_EQ(Strings({kMemory, kVmstat}) + Row(1, kNow, BoundData(lines)), lines);
    EXPECT_EQ(90u, monitor().m_lastReportTick);
}

TEST_F(OsAbnormalMonitorTest, StoreThatFailsIsLoggedByTheStoreOnly) {
    ShortOfMemory();
    platform().sqlite.openError.Always(14);
    monitor().CheckOsAbnormal(90);
    const Strings lines = journal();
    ASSERT_EQ(7u, lines.size());
    EXPECT_EQ("F4 [OsAbnormalDataBase] open os abnormal db fail, error is 14", lines[5]);
    EXPECT_EQ("W3 save obnormal event to db fail when open db", lines[6]);
    platform().now += 10;
    monitor().CheckOsAbnormal(180);
    EXPECT_EQ(2u, platform().sent.size());
}

TEST_F(OsAbnormalMonitorTest, ClockErrorIsPartOfTheMessage) {
    ShortOfMemory();
    platform().now = kNow - 10;
    monitor().CheckOsAbnormal(90);
    const Json::Value root = Parsed(LastBody());
    EXPECT_EQ((Strings{"available_mem", "error", "mem_usage"}), root.getMemberNames());
    EXPECT_EQ("fetch time error", root["error"].asString());
}

// --- when a finding is sent ---

TEST_F(OsAbnormalMonitorTest, InIntervalOnlyMultiplesAreReported) {
    ShortOfMemory();
    const struct {
        unsigned long tick;
        bool sent;
    } cases[] = {
        {0, true},  // 0 - 0 is inside the interval, but its multiple
        {5, false},   {85, false},  {90, true},   {95, false},
        {175, false}, {180, true},  {200, false}, {305, true},  // the interval has passed
        {360, true},                                            // 55 ticks later, but a multiple
        {365, false}, {445, false}, {450, true},
    };
    for (const auto& c : cases) {
        platform().now += 10;
        EXPECT_EQ(c.sent, Sends(c.tick)) << c.tick;
    }
}

TEST_F(OsAbnormalMonitorTest, IntervalIsTheOnlineOneWhenItIsPositive) {
    const struct {
        long online;
        uint64_t ticks;
    } cases[] = {{0, 90}, {-7, 90}, {LONG_MIN, 90}, {1, 1}, {90, 90}, {91, 91}, {LONG_MAX, 9223372036854775807u}};
    for (const auto& c : cases) EXPECT_EQ(c.ticks, EffectiveReportIntervalTicks(c.online)) << c.online;

    Set(conf().osAbnormalReportInterval, 20);
    ShortOfMemory();
    monitor().m_lastReportTick = 1001;
    EXPECT_FALSE(Sends(1015));
    EXPECT_TRUE(Sends(1020));
    Set(conf().osAbnormalReportInterval, 1);
    EXPECT_TRUE(Sends(1025));
}

TEST_F(OsAbnormalMonitorTest, RisingMemoryIsSentInSpiteOfTheInterval) {
    ShortOfMemory(86);
    monitor().m_lastReportTick = 91;
    EXPECT_FALSE(Sends(95));
    platform().memory.usagePercent = 88;
    platform().now += 10;
    EXPECT_TRUE(Sends(100));
    EXPECT_EQ(100u, monitor().m_lastReportTick);
    platform().memory.usagePercent = 90;
    platform().now += 2;
    EXPECT_TRUE(Sends(101));
    platform().now += 2;
    EXPECT_FALSE(Sends(102));
}

TEST_F(OsAbnormalMonitorTest, NewSwapAlarmIsSentTickAfterMessage) {
    ShortOfMemory();
    EXPECT_TRUE(Sends(90));
    monitor().m_memRising = true;  // so that the next tick is looked at
    SwapStorm();
    EXPECT_TRUE(Sends(91));
    EXPECT_FALSE(monitor().m_memRising);
    EXPECT_EQ(1, Parsed(LastBody())["swap"].asInt());
    EXPECT_EQ(91u, monitor().m_lastReportTick);
}

TEST_F(OsAbnormalMonitorTest, SwapAlarmThatHoldsKeepsTheInterval) {
    ShortOfMemory();
    monitor().m_lastReportTick = 91;
    SwapStorm();
    EXPECT_TRUE(Sends(95));
    SwapStorm();
    EXPECT_FALSE(Sends(100));
    SwapStorm();
    EXPECT_FALSE(Sends(175));
}

TEST_F(OsAbnormalMonitorTest, SwapAlarmGoesDownOnMultipleInside) {
    ShortOfMemory();
    monitor().m_lastReportTick = 91;
    SwapStorm();
    EXPECT_TRUE(Sends(95));
    SwapStorm();
    EXPECT_TRUE(Sends(180));  // 85 ticks later, a multiple: sent, and the alarm is down
    SwapStorm();
    EXPECT_TRUE(Sends(185));  // so it is raised anew
    SwapStorm();
    EXPECT_FALSE(Sends(190));
}

TEST_F(OsAbnormalMonitorTest, SwapAlarmStaysUpWhenIntervalHasPassed) {
    ShortOfMemory();
    monitor().m_lastReportTick = 91;
    SwapStorm();
    EXPECT_TRUE(Sends(95));
    SwapCalm();
    EXPECT_TRUE(Sends(270));  // 175 ticks later: sent, although a multiple it does not take the alarm down
    SwapStorm();
    EXPECT_FALSE(Sends(275));
}

TEST_F(OsAbnormalMonitorTest, SwapAlarmOutlivesTheMonitor) {
    ShortOfMemory();
    monitor().m_lastReportTick = 91;
    SwapStorm();
    EXPECT_TRUE(Sends(95));
    OsAbnormalMonitorProbe second;
    second.m_lastMemUsage = 90;
    second.m_lastReportTick = 96;
    second.m_lastSwapTime = platform().now;
    second.m_prevSwapIndex = monitor().m_prevSwapIndex;
    SwapStorm();
    second.CheckOsAbnormal(100);
    EXPECT_EQ(1u, platform().sent.size());
}

TEST_F(OsAbnormalMonitorTest, RestartedThreadIsNotHeldBackByOldTick) {
    ShortOfMemory();
    monitor().m_lastReportTick = 100000;
    EXPECT_TRUE(Sends(5));
    EXPECT_EQ(5u, monitor().m_lastReportTick);
    EXPECT_FALSE(Sends(10));
}

// --- the process's own memory ---

TEST_F(OsAbnormalMonitorTest, HighMemoryIsOneOfThreeAboveBound) {
    const std::string query = "IProcessUtil::GetProcessMemory(4242)";
    platform().process.processMemory.Then(153601);
    EXPECT_TRUE(IsHighMem());
    EXPECT_EQ(Strings({query}), journal());

    platform().process.processMemory.Then(153600).Then(0).Then(ULONG_MAX);
    EXPECT_TRUE(IsHighMem());
    EXPECT_EQ(Strings({query, kSecond, query, kSecond, query}), journal());

    platform().process.processMemory.Always(153600);
    EXPECT_FALSE(IsHighMem());
    EXPECT_EQ(Strings({query, kSecond, query, kSecond, query, kSecond}), journal());
}

// --- what only a caller in between, a later call or a wide value shows ---

TEST_F(OsAbnormalMonitorTest, StopRequestStandsWhenTheThreadIsAsked) {
    int seen = 0;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "CThreadUtil::startThread()") {
            ++seen;
            EXPECT_FALSE(monitor().m_stopRequested);
        } else if (line == "CThreadUtil::stopThread()") {
            ++seen;
            EXPECT_TRUE(monitor().m_stopRequested);
        }
        return true;
    };
    monitor().m_stopRequested = true;
    EXPECT_TRUE(monitor().Start());
    platform().threadRunning = true;
    EXPECT_TRUE(monitor().Uninit());
    platform().keepInJournal = nullptr;
    EXPECT_EQ(2, seen);
}

TEST_F(OsAbnormalMonitorTest, TakesMemoryOf64BitsWhole) {
    constexpr unsigned long kBeyond = 1UL << 32;  // its lower half is 0, which would be short
    EXPECT_FALSE(monitor().IsCheckMemory(50, kBeyond));
    EXPECT_FALSE(monitor().IsCheckMemory(83, kBeyond));
    conf().availableMemThreshold.Set(static_cast<long>(kBeyond + 1));
    EXPECT_TRUE(monitor().IsCheckMemory(50, kBeyond));
    EXPECT_FALSE(monitor().IsCheckMemory(50, kBeyond + 1));

    platform().memory = {90, 2 * kBeyond + 3};
    Json::Value out(Json::objectValue);
    int eventTime = 0;
    bool swapAlarm = true;
    EXPECT_TRUE(monitor().IsMemoryAbnormal(out, eventTime, swapAlarm));
    EXPECT_EQ(2 * kBeyond + 3, out["available_mem"].asUInt64());
    EXPECT_FALSE(swapAlarm);
}

TEST_F(OsAbnormalMonitorTest, TakesDiskFiguresOf64BitsWhole) {
    constexpr unsigned long kBeyond = 1UL << 32;
    Json::Value out(Json::objectValue);
    int eventTime = 0;
    platform().disk.freeSpace = kBeyond;
    platform().disk.freeInodes = kBeyond;
    EXPECT_FALSE(monitor().IsDiskAbnormal(out, eventTime));
    platform().disk.freeInodes = 5;
    EXPECT_TRUE(monitor().IsDiskAbnormal(out, eventTime));
    EXPECT_EQ(kBeyond, out["free_space"].asUInt64());
    platform().disk.freeSpace = 5;
    platform().disk.freeInodes = kBeyond + 7;
    EXPECT_TRUE(monitor().IsDiskAbnormal(out, eventTime));
    EXPECT_EQ(kBeyond + 7, out["free_inode"].asUInt64());
}

// Ticks are counted in 64 bits: of these the lower half falls on no check.
TEST_F(OsAbnormalMonitorTest, CountsTicksBeyond32Bits) {
    constexpr unsigned long kBeyond = 21600UL << 30;
    static_assert(kBeyond % (1UL << 32) == 0, "the lower half is tick 0");
    platform().memory = {90, 8000};
    monitor().m_lastMemUsage = 90;
    monitor().m_lastReportTick = kBeyond + 2;
    conf().osAbnormalReportInterval.Set(10);
    monitor().CheckOsAbnormal(kBeyond + 5);
    EXPECT_TRUE(platform().sent.empty()) << "three ticks after the last report";
    monitor().CheckOsAbnormal(kBeyond + 15);
    EXPECT_EQ(1u, platform().sent.size());
    EXPECT_EQ(kBeyond + 15, monitor().m_lastReportTick);
    conf().osAbnormalReportInterval.Set(static_cast<long>(1UL << 32) + 10);
    monitor().CheckOsAbnormal(kBeyond + 35);
    EXPECT_EQ(1u, platform().sent.size()) << "an interval beyond 32 bits has not passed";
}

TEST_F(OsAbnormalMonitorTest, ComputesSwapRatesBeyond32BitsAnd2038) {
    constexpr unsigned long kBeyond = 1UL << 40;
    for (const time_t now : {time_t{2147483647}, time_t{4294967296}, time_t{8000000000}}) {
        platform().now = now;
        platform().files.content["/proc/vmstat"] = Vmstat(3 * kBeyond + 8, 4);
        monitor().m_lastSwapTime = now - 2;
        monitor().m_prevSwapIndex = {{"pgmajfault", kBeyond}, {"pgsteal_kswapd_dma", 3 * kBeyond}};
        Json::Value out(Json::objectValue);
        EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out)) << now;
        EXPECT_EQ(kBeyond + 4, out["pgmajfault"].asUInt64()) << now;
        EXPECT_EQ(4u, out["pgsteal_kswapd_dma"].asUInt64()) << now;
        EXPECT_EQ(now, monitor().m_lastSwapTime);
        EXPECT_EQ(3 * kBeyond + 8, monitor().m_prevSwapIndex["pgsteal_kswapd_dma32"]);
    }
}

// Of the ticks beyond 32 bits the lower half falls on checks that the whole does not.
TEST_F(OsAbnormalMonitorTest, ChecksAreDueByTheWholeTick) {
    constexpr unsigned long kLowerHalfIsZero = 1UL << 32;
    monitor().CheckOsAbnormal(kLowerHalfIsZero);
    EXPECT_EQ(Strings(), journal());
    EXPECT_FALSE(monitor().m_initialised);
    monitor().CheckOsAbnormal(5 * kLowerHalfIsZero);
    EXPECT_EQ(Strings({kMemory}), journal());
    EXPECT_FALSE(monitor().m_initialised);
}

TEST_F(OsAbnormalMonitorTest, ConfigurationThatWentIsTheDefault) {
    ShortOfMemory();
    monitor().m_lastReportTick = 91;
    platform().keepInJournal = [](const std::string& line) {
        if (line == kMemory) doubles::ForgetOnlineConf();
        return true;
    };
    EXPECT_FALSE(Sends(95)) << "the interval is 90 ticks without it";
    platform().keepInJournal = nullptr;
}

TEST_F(OsAbnormalMonitorTest, DecisionsTakeWideValuesWhole) {
    constexpr uint64_t kWide = 1UL << 32;  // its lower half is 0
    const struct {
        uint64_t tick, last, interval;
        bool sent;
    } cases[] = {
        {kWide + 100, 100, 200, true}, {150, 100, kWide + 10, false},     {kWide, kWide - 5, 10, false},
        {8, 5, kWide + 4, false},      {kWide + 5, kWide + 3, 10, false}, {kWide + 5, 3, 10, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.sent, DecideSend(c.tick, c.last, c.interval, false, true, false).send) << c.tick << " " << c.last;
    }
    EXPECT_FALSE(DecideSend(kWide, kWide - 5, 3 * kWide, false, true, false).send);
    EXPECT_EQ(kWide, EffectiveAvailableMemThreshold(static_cast<long>(kWide)));
    EXPECT_EQ(kWide + 1, EffectiveReportIntervalTicks(static_cast<long>(kWide + 1)));
    EXPECT_TRUE(IsSwapAlarm(kWide, 2));
    EXPECT_FALSE(IsSwapAlarm(5, 2 * kWide));
    EXPECT_TRUE(IsMemoryShort(50, 0, 0)) << "none at all is short of any threshold";
}

TEST_F(OsAbnormalMonitorTest, RatesAndReadingsAreTakenWhole) {
    constexpr unsigned long kWide = 1UL << 32;
    EXPECT_EQ(0u, ComputeSwapRates({{"a", 0}}, {{"a", 10}}, 1, {{"a", kWide + 5}}).reached);
    EXPECT_EQ(1u, ComputeSwapRates({{"a", 0}}, {{"a", kWide}}, 1, {{"a", 1}}).reached);
    EXPECT_EQ(1u, ComputeSwapRates({{"a", 0}}, {{"a", kWide + 1}}, kWide + 1, {}).rates["a"]);

    platform().kernel.majorFaults.Always(static_cast<long>(kWide + 3));
    platform().files.failRead.insert("/proc/vmstat");
    platform().files.failedReadLeavesLines = true;
    std::map<std::string, unsigned long> sample;
    monitor().ReadSwapIndexForSwap(sample);
    EXPECT_EQ((std::map<std::string, unsigned long>{{"maj_flt", kWide + 3}}), sample) << "and nothing half read";

    platform().memory = {50, kWide};
    Json::Value out(Json::objectValue);
    int eventTime = 0;
    bool swapAlarm = false;
    EXPECT_FALSE(monitor().IsMemoryAbnormal(out, eventTime, swapAlarm));
    platform().process.processMemory.Always(kWide);
    EXPECT_TRUE(IsHighMem());
}

TEST_F(OsAbnormalMonitorTest, FirstSampleAfter2038AlarmsToo) {
    for (const time_t now : {time_t{2147483647}, time_t{4294967297}}) {
        monitor().m_lastSwapTime = 0;
        platform().now = now;
        platform().files.content["/proc/vmstat"] = Vmstat(0);
        platform().onSleep = [&](unsigned int) { platform().files.content["/proc/vmstat"] = Vmstat(1000); };
        Json::Value out(Json::objectValue);
        EXPECT_TRUE(monitor().FetchSwapIndexIncrement(out)) << now;
        EXPECT_EQ(1000u, out["pgmajfault"].asUInt64()) << now;
        EXPECT_EQ(now + 1, monitor().m_lastSwapTime);
    }
    platform().onSleep = nullptr;
    constexpr long kWide = 1L << 32;
    monitor().m_lastSwapTime = 1;
    monitor().m_prevSwapIndex = {{"pgmajfault", 0}};
    platform().now = kWide + 2;
    platform().files.content["/proc/vmstat"] = "pgmajfault " + std::to_string(kWide + 1) + "\n";
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(1u, out["pgmajfault"].asUInt64());
}

TEST_F(OsAbnormalMonitorTest, SampleOfTheFirstSecondsIsASample) {
    monitor().m_lastSwapTime = 1;
    platform().now = 3;
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(Strings({kVmstat}), journal());
    EXPECT_EQ(3, monitor().m_lastSwapTime);
}

TEST_F(OsAbnormalMonitorTest, FirstSampleHoldsWhileSecondIsAwaited) {
    monitor().m_lastSwapTime = 0;
    monitor().m_prevSwapIndex.clear();
    platform().onSleep = [&](unsigned int) {
        EXPECT_EQ(kNow, monitor().m_lastSwapTime);
        EXPECT_EQ(11u, monitor().m_prevSwapIndex.size());
    };
    Json::Value out(Json::objectValue);
    EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
    EXPECT_EQ(Strings({kVmstat, kSecond, kVmstat}), journal());
}

TEST_F(OsAbnormalMonitorTest, StandingClockIsAnErrorAfter2038Too) {
    for (const time_t now : {time_t{2147483648}, time_t{4294967290}, time_t{4294967297}}) {
        monitor().m_lastSwapTime = now + 5;
        platform().now = now;
        Json::Value out(Json::objectValue);
        EXPECT_FALSE(monitor().FetchSwapIndexIncrement(out));
        EXPECT_EQ("fetch time error", out["error"].asString()) << now;
        EXPECT_EQ(now + 5, monitor().m_lastSwapTime);
    }
}

// A child of its own, because the alarm belongs to the process: the first one after loading is new.
TEST(OsAbnormalAlarmDeathTest, AlarmIsDownAfterLoading) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            doubles::ResetPlatform();
            COnlineClientConf conf;
            conf.osAbnormalSwitch.Set(1);
            conf.osAbnormalReportInterval.Set(10);
            OsAbnormalMonitorProbe monitor;
            doubles::P().memory.usagePercent = 90;
            monitor.m_lastMemUsage = 90;
            monitor.m_lastReportTick = 9;
            monitor.CheckOsAbnormal(15);  // the first sample of a run: nothing has risen
            const size_t before = doubles::P().sent.size();
            monitor.m_lastSwapTime = doubles::P().now - 1;
            for (auto& index : monitor.m_swapThresholds) monitor.m_prevSwapIndex[index.first] = 0;
            std::string vmstat;
            for (const auto& index : monitor.m_swapThresholds) vmstat += index.first + " 100000\n";
            doubles::P().files.content["/proc/vmstat"] = vmstat;
            monitor.CheckOsAbnormal(15);
            _exit(before == 0 && doubles::P().sent.size() == 1 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
