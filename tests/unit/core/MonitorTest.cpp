// The facade: what it forwards and to whom, what it does without a private object, and the state of its own.
#include "Monitor.h"

#include <functional>
#include <type_traits>
#include <utility>

#include "CoreFixture.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"

namespace {

class MonitorProbe : public CMonitor {
public:
    using CMonitor::m_monitorPointLock;
    using CMonitor::m_monitorPoints;
    using CMonitor::m_pri;
    using CMonitor::m_sysIntf;
    using CMonitor::m_sysIntfLock;
};

class SysIntfDouble final : public CSysIntf {
public:
    void GetHighCpuUsageThread(long&, unsigned int&) override {}
    void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>&) override {}
    unsigned long GetCurrThreadId() override {
        doubles::P().Record("CSysIntf::GetCurrThreadId()");
        return 5000000000UL;
    }
};

class SilentPoint final : public IMonitorInfo {
public:
    std::string GetMonitorMessage() override { return ""; }
};

void Broadcast(const std::string&, const std::string&) {}
void OtherBroadcast(const std::string&, const std::string&) {}

}  // namespace

class MonitorTest : public CoreFixture {
protected:
    void SetUp() override {
        CoreFixture::SetUp();
        m_pri.reset();  // the facade makes its own
        journal();
        m_monitor = std::make_unique<MonitorProbe>();
        m_constructed = calls();
        conf().cpuLimitEnabled.Set(1);
        journal();
    }
    void TearDown() override {
        m_monitor.reset();
        CoreFixture::TearDown();
    }

    /// Gives the facade a private object whose members are open. Owns: the facade.
    MonitorPriProbe& OpenPrivateObject() {
        delete std::exchange(m_monitor->m_pri, nullptr);
        auto* probe = new MonitorPriProbe;
        m_monitor->m_pri = probe;
        journal();
        return *probe;
    }

    std::unique_ptr<MonitorProbe> m_monitor;
    Lines m_constructed;
};

static_assert(std::has_virtual_destructor<CMonitor>::value, "deleted through the singleton's type");
static_assert(std::is_base_of<CSingleton<CMonitor>, CMonitor>::value, "reached through the singleton");
static_assert(!std::is_copy_constructible<CMonitor>::value, "there is one");

using MonitorSingletonTest = CoreFixture;

TEST_F(MonitorSingletonTest, GetInstanceNeverCreates) {
    EXPECT_EQ(nullptr, CSingleton<CMonitor>::GetInstance());
    EXPECT_EQ(Lines({}), journal());
}

// The host is called while the private object is made, and may call back.
TEST_F(MonitorTest, BeginsWithoutWhatACallDuringConstructionSet) {
    m_monitor.reset();
    SysIntfDouble sysIntf;
    int early = 0;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "CMtIntf::RegMtInfoCallback()") {
            ++early;
            CSingleton<CMonitor>::GetInstance()->SetSysIntf(&sysIntf);
        }
        return true;
    };
    m_monitor = std::make_unique<MonitorProbe>();
    platform().keepInJournal = nullptr;
    EXPECT_EQ(1, early);
    EXPECT_EQ(nullptr, m_monitor->m_sysIntf);
}

TEST_F(MonitorTest, ConstructsItsPrivateObjectAndStartsNothing) {
    EXPECT_EQ(Lines({"CToolUtil::GetApplicationDirPath()", "CMtIntf::RegMtInfoCallback()",
                     "CToolUtil::GetApplicationDirPath()"}),
              m_constructed);
    EXPECT_EQ(m_monitor.get(), CSingleton<CMonitor>::GetInstance());
    EXPECT_NE(nullptr, m_monitor->m_pri);
    EXPECT_EQ(nullptr, m_monitor->m_sysIntf);
    EXPECT_TRUE(m_monitor->m_monitorPoints.empty());
}

TEST_F(MonitorTest, LaysItsMembersOutInTheSharedOrder) {
    MonitorProbe& m = *m_monitor;
    ExpectInOrder(&m, {{"CSingleton", static_cast<CSingleton<CMonitor>*>(&m)},
                       {"m_pri", &m.m_pri},
                       {"m_sysIntfLock", &m.m_sysIntfLock},
                       {"m_monitorPointLock", &m.m_monitorPointLock},
                       {"m_sysIntf", &m.m_sysIntf},
                       {"m_monitorPoints", &m.m_monitorPoints}});
}

TEST_F(MonitorTest, AnswersTheHostWhileItsPrivateObjectIsBeingBuilt) {
    int asked = 0;
    platform().base.cpuLevel = platform().base.memLevel = 2;
    platform().keepInJournal = [&asked](const std::string& line) {
        if (line.rfind("CMtIntf::RegMtInfoCallback", 0) != 0) return true;
        ++asked;
        CMonitor* half = CSingleton<CMonitor>::GetInstance();
        EXPECT_EQ(0, half->GetCpuUsageLevel());
        EXPECT_FALSE(half->CpuLimit(2));
        EXPECT_FALSE(half->IsMemBusy());
        EXPECT_EQ(0u, half->GetCurrThreadId());
        return true;
    };
    journal();
    MonitorProbe another;
    EXPECT_EQ(1, asked);
    EXPECT_EQ(Lines({"CToolUtil::GetApplicationDirPath()", "CMtIntf::RegMtInfoCallback()",
                     "CToolUtil::GetApplicationDirPath()"}),
              journal());
    platform().keepInJournal = nullptr;
}

TEST_F(MonitorTest, DestroysItsObjectUnstoppedAndLeavesThePointer) {
    const CMonitor* address = m_monitor.get();
    m_monitor->m_pri->SetConfigPath(WriteConfig(""));
    ASSERT_TRUE(m_monitor->StartMonitor(nullptr, "collector"));
    journal();
    m_monitor.reset();
    EXPECT_EQ(Lines({"CMtIntf::UnRegMtInfoCallback()"}), journal());
    EXPECT_EQ(address, CSingleton<CMonitor>::GetInstance());
    platform().notifies.clear();
}

TEST_F(MonitorTest, ASecondOneTakesTheSingletonPointer) {
    MonitorProbe second;
    EXPECT_EQ(&second, CSingleton<CMonitor>::GetInstance());
}

TEST_F(MonitorTest, IsDeletedThroughTheSingletonsType) {
    journal();
    delete static_cast<CSingleton<CMonitor>*>(m_monitor.release());
    EXPECT_EQ(Lines({"CMtIntf::UnRegMtInfoCallback()"}), journal());
}

TEST_F(MonitorTest, DestroysAHalfBuiltInstance) {
    delete m_monitor->m_pri;
    m_monitor->m_pri = nullptr;
    journal();
    m_monitor.reset();
    EXPECT_EQ(Lines({}), journal());
}

// --- forwarding ---

TEST_F(MonitorTest, ForwardsEveryQueryToThePrivateObjectUnchanged) {
    CMonitor& m = *m_monitor;
    doubles::FakeMonitorBase& base = platform().base;

    for (const int level : {0, 1, 2, 7, -1, -3}) {
        base.cpuLevel = level;
        base.memLevel = level + 1;
        EXPECT_EQ(level, m.GetCpuUsageLevel());
        EXPECT_EQ(level + 1, m.GetMemUsageLevel());
        EXPECT_EQ(level + 1 != 0, m.IsMemBusy());
        EXPECT_EQ(Lines({"CResourceMonitor::GetCpuUsageLevel()", "CResourceMonitor::GetMemUsageLevel()",
                         "CResourceMonitor::GetMemUsageLevel()"}),
                  journal());
    }

    for (const bool answer : {true, false}) {
        base.cpuHighAllRound = answer;
        base.cpuBusyLastHour = !answer;
        base.avgCpuMinuteBusy = answer;
        base.avgCpuWindowBusy = !answer;
        EXPECT_EQ(answer, m.GetCpuHighAllRound());
        EXPECT_EQ(!answer, m.GetCpuBusyLastHour());
        EXPECT_EQ(answer, m.GetAvgCpuMinuteBusy());
        EXPECT_EQ(!answer, m.GetAvgCpuWindowBusy());
        EXPECT_EQ(Lines({"CResourceMonitor::GetCpuHighAllRound()", "CResourceMonitor::GetCpuBusyLastHour()",
                         "CResourceMonitor::GetAvgCpuMinuteBusy()", "CResourceMonitor::GetAvgCpuWindowBusy()"}),
                  journal());
    }

    for (const bool known : {true, false}) {
        base.maxCpu = known ? 25 : 0;
        base.maxMem = known ? 0 : 30;
        long cpu = 1, mem = 1;
        EXPECT_EQ(known, m.GetMaxCpu(cpu));
        EXPECT_EQ(!known, m.GetMaxMem(mem));
        EXPECT_EQ(known ? 25 : 1, cpu);
        EXPECT_EQ(known ? 1 : 30, mem);
        EXPECT_EQ(Lines({"CResourceMonitor::GetMaxCpu()", "CResourceMonitor::GetMaxMem()"}), journal());
    }

    base.cpuLevel = 1;
    EXPECT_TRUE(m.IsCpuNeedLimit(1));
    EXPECT_FALSE(m.IsCpuNeedLimit(0));
    EXPECT_TRUE(m.CpuLimit(2));
    EXPECT_FALSE(m.CpuLimit(3));
    EXPECT_EQ(Lines({"CResourceMonitor::GetCpuUsageLevel()", "CResourceMonitor::GetCpuUsageLevel()",
                     "CResourceMonitor::GetCpuUsageLevel()", "CToolUtil::msleep(5)"}),
              journal());

    EXPECT_FALSE(m.IsResourceLimited());
    EXPECT_FALSE(m.IsDiskFull());
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(MonitorTest, TellsWhetherTheLegacyLimitIsInForce) {
    platform().limit.cpuLimited.Always(true);
    m_monitor->m_pri->CpuResourceLimit(1, 10);
    EXPECT_TRUE(m_monitor->IsResourceLimited());
}

TEST_F(MonitorTest, TellsAFullDisk) {
    MonitorPriProbe& pri = OpenPrivateObject();
    conf().osAbnormalSwitch.Set(1);
    platform().disk.freeSpace = 0;
    pri.m_osAbnormalMonitor.CheckOsAbnormal(0);
    EXPECT_TRUE(m_monitor->IsDiskFull());
    platform().disk.freeSpace = doubles::FakeDisk().freeSpace;
    pri.m_osAbnormalMonitor.CheckOsAbnormal(0);
    EXPECT_FALSE(m_monitor->IsDiskFull());
}

TEST_F(MonitorTest, ForwardsSettingsToTheSamplingClass) {
    CMonitor& m = *m_monitor;
    m.SetThreadHeartbeat(11, "worker", 60);
    m.RemoveThreadHeartbeat(12);
    m.SetMonitorIOEnable(true);
    m.SetMonitorIOEnable(false);
    std::map<unsigned int, std::string> processes = {{7, "guard"}, {3, "net"}};
    m.SetWatcherProcess(processes);
    EXPECT_EQ(Lines({"CResourceMonitor::SetThreadHeartbeat(11,worker,60)",
                     "CResourceMonitor::RemoveThreadHeartbeat(12)", "CResourceMonitor::SetMonitorIOEnable(1)",
                     "CResourceMonitor::SetMonitorIOEnable(0)", "CResourceMonitor::SetWatcherProcess(3=net 7=guard )"}),
              journal());
    EXPECT_EQ(2u, processes.size()) << "the caller's map is not touched";
}

TEST_F(MonitorTest, StartsAndStopsThePrivateObjectNotItsBase) {
    const std::string path = WriteConfig("");
    m_monitor->SetConfigPath(path);
    m_monitor->SetConfigPath("");
    EXPECT_TRUE(m_monitor->StartMonitor(nullptr, "collector"));
    const Lines started = calls();
    ASSERT_FALSE(started.empty());
    EXPECT_EQ("CFileUtil::IsFile(" + path + ")", started.front());
    EXPECT_EQ("CResourceMonitor::StartMonitor()", started.back());
    EXPECT_TRUE(m_monitor->StopMonitor());
    EXPECT_EQ(Lines({"CTimerEvent::killTimer(9001)", "COnlineClientConf::RemoveNotify()",
                     "CThreadUtil::IsThreadRunning()", "CResourceMonitor::StopMonitor()"}),
              journal());
    platform().base.stop.Always(false);
    EXPECT_FALSE(m_monitor->StopMonitor());
    m_monitor->SetConfigPath("/no/such/file");
    EXPECT_FALSE(m_monitor->StartMonitor(nullptr, "collector"));
}

TEST_F(MonitorTest, HandsTheEventSinkAndTheNameToThePrivateObject) {
    MonitorPriProbe& pri = OpenPrivateObject();
    m_monitor->SetConfigPath(WriteConfig(""));
    IResourceMonitorEvent event, otherEvent;
    EXPECT_TRUE(m_monitor->StartMonitor(&event, "collector"));
    EXPECT_EQ(&event, platform().base.lastEvent);
    EXPECT_EQ("collector", pri.m_appName);
    EXPECT_FALSE(pri.m_isMainAgent);
    EXPECT_TRUE(m_monitor->StartMonitor(&otherEvent, "tervane"));
    EXPECT_EQ(&otherEvent, platform().base.lastEvent);
    EXPECT_EQ("tervane", pri.m_appName);
    EXPECT_TRUE(pri.m_isMainAgent);
}

TEST_F(MonitorTest, HandsThisBroadcastToThePrivateObjectAndNoOther) {
    MonitorPriProbe& pri = OpenPrivateObject();
    m_monitor->SetIpcBroadcastCallback(Broadcast);
    EXPECT_EQ(&Broadcast, pri.m_ipcBroadcastCallback);
    m_monitor->SetIpcBroadcastCallback(OtherBroadcast);
    EXPECT_EQ(&OtherBroadcast, pri.m_ipcBroadcastCallback);
    m_monitor->SetIpcBroadcastCallback(nullptr);
    EXPECT_EQ(nullptr, pri.m_ipcBroadcastCallback);
}

TEST_F(MonitorTest, HandsTheClientAndTheBroadcastToThePrivateObject) {
    zel::CCgroupClient client;
    EXPECT_FALSE(m_monitor->ReloadCgroupClientConfig());
    EXPECT_EQ(Lines({"W3 MonitorPri: no cgroup client, cannot reload cgroup config"}), journal());
    m_monitor->SetCgroupClient(&client);
    EXPECT_EQ(
        Lines({doubles::Format("F4 [MonitorPri] MonitorPri: cgroup client set to %p", static_cast<void*>(&client))}),
        journal());
    EXPECT_TRUE(m_monitor->ReloadCgroupClientConfig());
    EXPECT_EQ("CCgroupClient::ReloadConfig()", journal().front());
    platform().client.reload.Always(false);
    EXPECT_FALSE(m_monitor->ReloadCgroupClientConfig());
    journal();

    m_monitor->m_pri->NotifyCgroupConfigChanged();
    EXPECT_EQ(Lines({"W3 MonitorPri: no IPC broadcast callback, cannot send cgroup config notify"}), journal());
    m_monitor->SetIpcBroadcastCallback(Broadcast);
    m_monitor->m_pri->NotifyCgroupConfigChanged();
    EXPECT_EQ(Lines({"W4 MonitorPri: sent cgroup config change notify via IPC"}), journal());
    m_monitor->SetIpcBroadcastCallback(nullptr);
    m_monitor->m_pri->NotifyCgroupConfigChanged();
    EXPECT_EQ(Lines({"W3 MonitorPri: no IPC broadcast callback, cannot send cgroup config notify"}), journal());
}

TEST_F(MonitorTest, DoesNothingWithoutAPrivateObject) {
    CMonitorPri* pri = std::exchange(m_monitor->m_pri, nullptr);
    CMonitor& m = *m_monitor;
    doubles::FakeMonitorBase& base = platform().base;
    base.cpuLevel = base.memLevel = 2;
    base.maxCpu = base.maxMem = 50;
    base.cpuHighAllRound = base.cpuBusyLastHour = base.avgCpuMinuteBusy = base.avgCpuWindowBusy = true;
    zel::CCgroupClient client;
    journal();

    EXPECT_FALSE(m.StartMonitor(nullptr, "tervane"));
    EXPECT_FALSE(m.StopMonitor());
    m.SetConfigPath("/x");
    EXPECT_FALSE(m.IsResourceLimited());
    EXPECT_EQ(0, m.GetCpuUsageLevel());
    EXPECT_EQ(0, m.GetMemUsageLevel());
    EXPECT_FALSE(m.IsCpuNeedLimit(2));
    EXPECT_FALSE(m.CpuLimit(2));
    EXPECT_FALSE(m.IsMemBusy());
    EXPECT_FALSE(m.GetCpuHighAllRound());
    EXPECT_FALSE(m.GetCpuBusyLastHour());
    EXPECT_FALSE(m.GetAvgCpuMinuteBusy());
    EXPECT_FALSE(m.GetAvgCpuWindowBusy());
    long value = 77;
    EXPECT_FALSE(m.GetMaxMem(value));
    EXPECT_FALSE(m.GetMaxCpu(value));
    EXPECT_EQ(77, value);
    EXPECT_FALSE(m.IsDiskFull());
    EXPECT_FALSE(m.SleepByCpuUsage());
    m.SetThreadHeartbeat(1, "x", 2);
    m.RemoveThreadHeartbeat(1);
    m.SetMonitorIOEnable(true);
    m.SetWatcherProcess({{1, "x"}});
    EXPECT_FALSE(m.ReloadCgroupClientConfig());
    m.SetCgroupClient(&client);
    m.SetIpcBroadcastCallback(Broadcast);
    EXPECT_EQ(Lines({}), journal());
    m_monitor->m_pri = pri;
}

TEST_F(MonitorTest, ReportsThreadsAlsoWithoutAPrivateObject) {
    CMonitorPri* pri = std::exchange(m_monitor->m_pri, nullptr);
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_NE(std::string::npos, report.find("curr pid 0\n"));
    m_monitor->m_pri = pri;
}

// --- state of its own ---

TEST_F(MonitorTest, AsksTheSystemInterfaceForTheCallersThread) {
    EXPECT_EQ(0u, m_monitor->GetCurrThreadId());
    SysIntfDouble sysIntf;
    m_monitor->SetSysIntf(&sysIntf);
    EXPECT_EQ(&sysIntf, m_monitor->m_sysIntf);
    EXPECT_EQ(5000000000UL, m_monitor->GetCurrThreadId());
    m_monitor->SetSysIntf(nullptr);
    EXPECT_EQ(nullptr, m_monitor->m_sysIntf);
    EXPECT_EQ(0u, m_monitor->GetCurrThreadId());
    EXPECT_EQ(Lines({"CSysIntf::GetCurrThreadId()"}), journal());
}

TEST_F(MonitorTest, KeepsMonitorPointsInOrderDuplicatesIncluded) {
    SilentPoint a, b;
    m_monitor->AddMonitorPoint(&a);
    m_monitor->AddMonitorPoint(&b);
    m_monitor->AddMonitorPoint(&a);
    m_monitor->AddMonitorPoint(nullptr);
    EXPECT_EQ((std::list<IMonitorInfo*>{&a, &b, &a}), m_monitor->m_monitorPoints);
}

TEST_F(MonitorTest, RemovesTheFirstEqualMonitorPointOnly) {
    SilentPoint a, b, stranger;
    for (IMonitorInfo* point : {&a, &b, &a, &a}) m_monitor->AddMonitorPoint(point);
    m_monitor->RemoveMonitorPoint(&a);
    EXPECT_EQ((std::list<IMonitorInfo*>{&b, &a, &a}), m_monitor->m_monitorPoints);
    m_monitor->RemoveMonitorPoint(nullptr);
    m_monitor->RemoveMonitorPoint(&stranger);
    EXPECT_EQ((std::list<IMonitorInfo*>{&b, &a, &a}), m_monitor->m_monitorPoints);
    m_monitor->RemoveMonitorPoint(&a);
    m_monitor->RemoveMonitorPoint(&b);
    EXPECT_EQ((std::list<IMonitorInfo*>{&a}), m_monitor->m_monitorPoints);
    m_monitor->RemoveMonitorPoint(&a);
    m_monitor->RemoveMonitorPoint(&a);
    EXPECT_TRUE(m_monitor->m_monitorPoints.empty());
}

TEST_F(MonitorTest, AddedTwiceAndRemovedOnceAPointStays) {
    SilentPoint a;
    m_monitor->AddMonitorPoint(&a);
    m_monitor->AddMonitorPoint(&a);
    m_monitor->RemoveMonitorPoint(&a);
    EXPECT_EQ((std::list<IMonitorInfo*>{&a}), m_monitor->m_monitorPoints);
}

TEST_F(MonitorTest, SleepsOnlyAboveFreeLevelAndReturnsSleepsResult) {
    struct Case {
        int level;
        bool sleeps;
    };
    for (const Case& c : {Case{-1, false}, Case{0, false}, Case{1, true}, Case{2, true}, Case{9, true}}) {
        for (const bool answer : {true, false}) {
            platform().base.cpuLevel = c.level;
            platform().sleepForLoop = answer;
            EXPECT_EQ(c.sleeps && answer, m_monitor->SleepByCpuUsage()) << c.level;
            Lines expected = {"CResourceMonitor::GetCpuUsageLevel()"};
            if (c.sleeps) expected.push_back("CSleepUtil::SleepForLoop()");
            EXPECT_EQ(expected, journal());
        }
    }
}
