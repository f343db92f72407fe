// The sampling class on the real kernel, with short rounds.
#include <fcntl.h>
#include <json/json.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <thread>

#include "sampling/ActiveSampler.h"
#include "sampling/Sampler.h"
#include "sampling/SamplerEvents.h"
#include "sampling/SamplingSettings.h"
#include "HostSupport.h"
#include "base/Fd.h"
#include "base/FileIo.h"
#include "platform/host/HostServices.h"
#include "platform/host/ResourceEventSink.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"

using std::chrono::milliseconds;
using support::Burn;
using support::Eventually;
using support::NamesIn;

namespace {

class Sink : public IResourceEventSink {
public:
    void OnResourceWarning(const ResourceWarning& warning) override {
        std::lock_guard<std::mutex> lock(m_lock);
        m_warnings.push_back(warning);
    }
    void OnSelfKill(const SelfKillRecord& record) override {
        std::lock_guard<std::mutex> lock(m_lock);
        m_kills.push_back(record);
        m_onDiskAtKill.push_back(support::ReadText(record.path));
    }
    void OnThreadStalled(const ThreadStall& stall) override {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stalls.push_back(stall);
    }
    void OnBuildRecord(ResourceKind, std::string& extra) override { extra = "what the host adds"; }

    size_t Count(ResourceKind kind, WarningStage stage) {
        std::lock_guard<std::mutex> lock(m_lock);
        size_t count = 0;
        for (const auto& w : m_warnings) count += w.kind == kind && w.stage == stage ? 1 : 0;
        return count;
    }
    size_t Kills() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_kills.size();
    }
    std::mutex m_lock;
    std::vector<ResourceWarning> m_warnings;
    std::vector<SelfKillRecord> m_kills;
    std::vector<std::string> m_onDiskAtKill;
    std::vector<ThreadStall> m_stalls;
};

class Counting : public CResourceMonitor {
public:
    void MonitorOther(unsigned long tick) override {
        for (const int64_t end = ThreadCpuMs() + m_burnMs; ThreadCpuMs() < end;) {
        }
        m_thread = gettid();
        std::lock_guard<std::mutex> lock(m_lock);
        m_ticks.push_back(tick);
        if (m_throws) throw std::runtime_error("from a round");
    }
    std::vector<unsigned long> Ticks() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_ticks;
    }
    std::mutex m_lock;
    std::vector<unsigned long> m_ticks;
    bool m_throws = false;
    int64_t m_burnMs = 0;  // CPU of every round; set before the start
    std::atomic<pid_t> m_thread{0};

private:
    static int64_t ThreadCpuMs() {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return now.tv_sec * 1000 + now.tv_nsec / 1000000;
    }
};

class SamplerTest : public ::testing::Test {
protected:
    SamplerTest() { Settings(10, 0); }
    ~SamplerTest() override { m_monitor.StopMonitor(); }
    void Settings(unsigned int roundMs, unsigned int breachRounds, bool selfKill = true) {
        zelhost::SamplingSettings settings;
        settings.processName = "tervane";
        settings.options.roundMs = roundMs;
        settings.options.breachRounds = breachRounds;
        settings.options.selfKill = selfKill;
        settings.options.recordDir = m_dir / "records";
        zelhost::SetSamplingSettings(settings);
        support::TakeLog();
    }
    zelhost::SamplerFigures Figures() {
        zelhost::SamplerFigures figures;
        zelhost::ReadActiveSampler(figures);
        return figures;
    }
    bool Rounds(uint64_t count) {
        const uint64_t from = Figures().rounds;
        return Eventually([&] { return Figures().rounds >= from + count; });
    }
    support::TempDir m_dir;
    Sink m_sink;
    Counting m_monitor;
};

}  // namespace

TEST_F(SamplerTest, TicksCountFromZeroWithoutAGap) {
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    EXPECT_FALSE(m_monitor.StartMonitor(nullptr)) << "runs already";
    ASSERT_TRUE(Eventually([&] { return m_monitor.Ticks().size() >= 20; }));
    EXPECT_TRUE(m_monitor.StopMonitor());
    EXPECT_FALSE(m_monitor.StopMonitor()) << "runs no more";
    const auto ticks = m_monitor.Ticks();
    for (size_t i = 0; i < ticks.size(); ++i) EXPECT_EQ(ticks[i], i);
}

TEST_F(SamplerTest, AStartAfterAStopBeginsAnew) {
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return m_monitor.Ticks().size() >= 3; }));
    ASSERT_TRUE(m_monitor.StopMonitor());
    m_monitor.m_ticks.clear();
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return m_monitor.Ticks().size() >= 3; }));
    m_monitor.StopMonitor();
    EXPECT_EQ(m_monitor.Ticks()[0], 0u);
}

TEST_F(SamplerTest, StopsAtOnceInTheMiddleOfALongRound) {
    Settings(3600000, 0);
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return m_monitor.Ticks().size() == 1; }));
    EXPECT_TRUE(m_monitor.StopMonitor());  // the test's own time limit is far below the round
}

TEST_F(SamplerTest, ItsThreadGoesBeforeThoseOfItsGroup) {
    const auto niceOf = [](pid_t thread) { return getpriority(PRIO_PROCESS, static_cast<id_t>(thread)); };
    const int own = niceOf(0);
    if (geteuid() != 0 || own < -10) GTEST_SKIP() << "only root may go before others";
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return m_monitor.m_thread != 0; }));
    EXPECT_LT(niceOf(m_monitor.m_thread), own);
    EXPECT_EQ(niceOf(0), own) << "and nobody else";
}

TEST_F(SamplerTest, AnExceptionInARoundDoesNotEndTheRounds) {
    m_monitor.m_throws = true;
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return m_monitor.Ticks().size() >= 3; }));
}

TEST_F(SamplerTest, FiguresAreThoseOfTheKernel) {
    m_monitor.SetMaxCpu(50);
    m_monitor.SetMaxMem(4096);
    m_monitor.SetMaxFdCount(500);
    m_monitor.SetMaxIO(100000, 200000);
    ResourceMonitorInfo info;
    EXPECT_FALSE(m_monitor.FetchResourceMonitorInfo(info)) << "nothing was sampled yet";
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Rounds(5));
    const auto before = Figures();
    std::vector<base::Fd> fds;
    for (int i = 0; i < 30; ++i) fds.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    constexpr size_t kBytes = 64 << 20;
    void* block = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    ASSERT_TRUE(Rounds(12));
    const auto after = Figures();
    munmap(block, kBytes);
    EXPECT_EQ(after.descriptors, before.descriptors + 30);
    EXPECT_GE(after.memKb, before.memKb + static_cast<int64_t>(kBytes / 1024) * 9 / 10);
    EXPECT_EQ(after.maxCpu, 50);
    EXPECT_EQ(after.maxMemMb, 4096);
    EXPECT_EQ(after.maxDescriptors, 500);
    EXPECT_EQ(after.roundMs, 10);
    ASSERT_TRUE(m_monitor.FetchResourceMonitorInfo(info));
    EXPECT_EQ(info.maxCpu, 50u);
    EXPECT_EQ(info.maxMem, 4096u);
    EXPECT_EQ(info.maxReadIo, 100000u);
    EXPECT_EQ(info.maxWriteIo, 200000u);
    EXPECT_GT(info.avgMem, 0u);
    EXPECT_GT(info.avgFdCount, 2u);
    const double load = std::stod(support::ReadText("/proc/loadavg"));
    EXPECT_NEAR(info.loadAvg, load, 1.0);
    EXPECT_NEAR(info.singleLoadAvg, info.loadAvg / static_cast<float>(sysconf(_SC_NPROCESSORS_CONF)), 0.01);
}

TEST_F(SamplerTest, CpuOfTheProcessMatchesItsClock) {
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Rounds(2));
    Burn(milliseconds(300));
    ASSERT_TRUE(Rounds(2));
    const auto figures = Figures();
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    const int64_t clockNs = now.tv_sec * 1000000000L + now.tv_nsec;
    EXPECT_LE(figures.cpuTotalNs, clockNs);
    EXPECT_GE(figures.cpuTotalNs, clockNs / 2);
    EXPECT_GT(figures.cpuMinute100Times, 0);
}

TEST_F(SamplerTest, LevelsFollowTheLoadAndTheSettings) {
    m_monitor.SetMaxCpu(1);
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    EXPECT_TRUE(Eventually([&] {
        Burn(milliseconds(10));
        return m_monitor.GetCpuUsageLevel() == 2;
    }));
    m_monitor.SetMaxCpu(0);
    EXPECT_TRUE(Eventually([&] { return m_monitor.GetCpuUsageLevel() == 0; }));
    m_monitor.SetMaxMem(1);
    EXPECT_TRUE(Eventually([&] { return m_monitor.GetMemUsageLevel() == 2; }));
    m_monitor.SetMaxMem(1 << 20);
    EXPECT_TRUE(Eventually([&] { return m_monitor.GetMemUsageLevel() == 0; }));
    EXPECT_GT(Figures().cpuWarnCount, 0u);
    EXPECT_GT(Figures().cpuHighCount, 0u);
    m_monitor.StopMonitor();
    EXPECT_EQ(m_monitor.GetCpuUsageLevel(), 0);
}

TEST_F(SamplerTest, ObservedCpuLimitTellsNobodyToHoldBack) {
    zel::ObserveLimits(zel::ObservationOrder::kAgent, zel::kModeCpu);
    m_monitor.SetMaxCpu(1);
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    const bool counted = Eventually([&] {
        Burn(milliseconds(10));
        EXPECT_EQ(m_monitor.GetCpuUsageLevel(), 0);
        return Figures().observedHoldBacks > 0;
    });
    EXPECT_TRUE(counted);
    EXPECT_GT(Figures().cpuWarnCount, 0u) << "it is judged all the same";
    // What a status asks is no work's question.
    ASSERT_TRUE(Rounds(2));
    const uint64_t before = Figures().observedHoldBacks;
    {
        const zelhost::CUncountedQueries uncounted;
        for (int i = 0; i < 20; ++i) {
            Burn(milliseconds(10));
            EXPECT_EQ(m_monitor.GetCpuUsageLevel(), 0);
        }
    }
    ASSERT_TRUE(Rounds(2));
    EXPECT_EQ(before, Figures().observedHoldBacks);
    zel::ObserveLimits(zel::ObservationOrder::kAgent, 0);
    EXPECT_TRUE(Eventually([&] {
        Burn(milliseconds(10));
        return m_monitor.GetCpuUsageLevel() > 0;
    }));
}

TEST_F(SamplerTest, WholeMachinePercentagesAreDividedByTheCpus) {
    const long cpus = sysconf(_SC_NPROCESSORS_CONF);
    if (cpus < 2) GTEST_SKIP() << "needs two CPUs";
    std::atomic<bool> stop{false};
    std::thread burner([&] {
        while (!stop.load()) Burn(milliseconds(1));
    });
    m_monitor.SetCpuSolarisMode(true);
    EXPECT_TRUE(m_monitor.IsCpuSolarisMode());
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Rounds(30));
    // One busy thread can fill one CPU, which is a share of the machine.
    EXPECT_LE(Figures().cpuMinute100Times, 10000 / cpus + 1500);
    EXPECT_TRUE(Figures().solaris);
    stop = true;
    burner.join();
}

TEST_F(SamplerTest, PeriodsAreBusyOnlyOnceTheyWereSeenWhole) {
    Settings(2, 0);
    ResourceConfig config;
    config.maxCpu = 1;
    config.auxValueA = 1;  // minutes of the window
    config.auxValueB = 1000;
    m_monitor.SetMaxResourceConfig(config);
    std::atomic<bool> stop{false};
    std::thread burner([&] {
        while (!stop.load()) Burn(milliseconds(1));
    });
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Rounds(5));
    EXPECT_FALSE(m_monitor.GetAvgCpuMinuteBusy() && Figures().rounds < 60);
    EXPECT_TRUE(Eventually([&] { return m_monitor.GetAvgCpuMinuteBusy(); }));
    EXPECT_GE(Figures().rounds, 59u);
    EXPECT_TRUE(Eventually([&] { return m_monitor.GetAvgCpuWindowBusy(); }));
    EXPECT_FALSE(m_monitor.GetCpuBusyLastHour() && Figures().rounds < 3600);
    EXPECT_TRUE(Eventually([&] { return Figures().cpuMinuteHighCount >= 1; }));
    EXPECT_TRUE(Eventually([&] { return m_monitor.GetCpuBusyLastHour(); }, milliseconds(60000)));
    EXPECT_GE(Figures().rounds, 3599u);
    stop = true;
    burner.join();
}

TEST_F(SamplerTest, EveryRoundHighNeedsAWholeWindow) {
    ResourceConfig config;
    config.maxCpu = 1;
    config.auxValueA = 1;
    m_monitor.SetMaxResourceConfig(config);
    m_monitor.m_burnMs = 5;  // in every round, however few of them a busy machine leaves us
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    EXPECT_TRUE(Eventually([&] { return m_monitor.GetCpuHighAllRound(); }));
    EXPECT_GE(Figures().rounds, 60u);
    m_monitor.SetMaxCpu(10000);
    EXPECT_TRUE(Eventually([&] { return !m_monitor.GetCpuHighAllRound(); }));
}

TEST_F(SamplerTest, TheRoundLengthIsTheSecondAuxiliaryValue) {
    Settings(0, 0);
    ResourceConfig config;
    config.auxValueB = 150;
    m_monitor.SetMaxResourceConfig(config);
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return Figures().rounds >= 2; }));
    EXPECT_EQ(Figures().roundMs, 150);
    for (int unfit : {0, -1, 99, 60001}) {
        config.auxValueB = unfit;
        m_monitor.SetMaxResourceConfig(config);
        EXPECT_TRUE(Eventually([&] { return Figures().roundMs == 1000; })) << unfit;
    }
}

TEST_F(SamplerTest, IoIsMeasuredCountedAndCanBeSwitchedOff) {
    m_monitor.SetMaxIO(0, 1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Rounds(3));
    base::Fd fd(open((m_dir / "data").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string block(1 << 20, 'x');
    const auto write = [&] { EXPECT_TRUE(support::IsOk(base::WriteAll(fd, block, "data"))); };
    write();
    ASSERT_TRUE(Rounds(3));
    if (Figures().writeBytesTotal == 0) GTEST_SKIP() << "the temporary directory is not on storage";
    EXPECT_TRUE(Eventually([&] {
        write();
        return m_sink.Count(ResourceKind::kWriteIo, WarningStage::kReached) == 1;
    }));
    EXPECT_GE(Figures().writeIoWarnCount, 1u);
    EXPECT_EQ(Figures().readIoWarnCount, 0u);
    m_monitor.SetMonitorIOEnable(false);
    ASSERT_TRUE(Rounds(3));
    const uint64_t count = Figures().writeIoWarnCount;
    write();
    ASSERT_TRUE(Rounds(5));
    EXPECT_EQ(Figures().writeIoWarnCount, count);
    EXPECT_EQ(Figures().writeKbps, 0);
}

TEST_F(SamplerTest, ASustainedBreachWarnsThenWritesItsRecordThenAsks) {
    Settings(10, 8);
    m_monitor.SetMaxMem(1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Eventually([&] { return m_sink.Kills() >= 1; }));
    m_monitor.StopMonitor();
    ASSERT_GE(m_sink.m_warnings.size(), 2u);
    EXPECT_EQ(m_sink.m_warnings[0].stage, WarningStage::kReached);
    EXPECT_EQ(m_sink.m_warnings[1].stage, WarningStage::kSustained);
    const SelfKillRecord& kill = m_sink.m_kills[0];
    EXPECT_EQ(kill.kind, ResourceKind::kMemory);
    EXPECT_EQ(kill.limit, 1024);
    EXPECT_GT(kill.value, 1024);
    EXPECT_EQ(m_sink.m_onDiskAtKill[0], kill.json) << "on disk before the host is asked";
    Json::Value root;
    ASSERT_TRUE(Json::Reader().parse(kill.json, root));
    EXPECT_EQ(root["process"].asString(), "tervane");
    EXPECT_EQ(root["kind"].asString(), "memory");
    EXPECT_EQ(root["breaches"].asInt(), 2);
    EXPECT_EQ(root["limits"]["max_mem_mb"].asInt(), 1);
    EXPECT_EQ(root["extra"].asString(), "what the host adds");
    EXPECT_GE(root["threads"].size(), 2u);
    EXPECT_THAT(root["limits"]["cgroup"].asString(), testing::HasSubstr(":"));
    EXPECT_EQ(NamesIn(m_dir / "records").size(), m_sink.m_kills.size());
}

TEST_F(SamplerTest, ABreachOfAnObservedMaximumIsNoRequestAndNoRecord) {
    Settings(10, 8);
    zel::ObserveLimits(zel::ObservationOrder::kAgent, zel::kModeMemory);
    m_monitor.SetMaxMem(1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    EXPECT_TRUE(Eventually([&] { return m_sink.Kills() >= 1; })) << "the host hears what would have been";
    EXPECT_EQ(Figures().selfKillRequests, 0u);
    m_monitor.StopMonitor();
    zel::ObserveLimits(zel::ObservationOrder::kAgent, 0);
    EXPECT_EQ(m_sink.m_kills[0].path, "");
    EXPECT_EQ(NamesIn(m_dir / "records"), Lines{});
    const std::string log = testing::PrintToString(support::TakeLog());
    EXPECT_THAT(log, testing::HasSubstr("which is only observed: nobody is asked to stop this process"));
    EXPECT_THAT(log, testing::Not(testing::HasSubstr("asking the host to stop")));
}

TEST_F(SamplerTest, ABreachOfCpuNamesTheBusiestThreadAndItsStack) {
    Settings(10, 10);
    m_monitor.SetMaxCpu(5);
    std::atomic<bool> stop{false};
    std::atomic<long> burnerTid{0};
    std::thread burner([&] {
        pthread_setname_np(pthread_self(), "burner");
        burnerTid = gettid();
        while (!stop.load()) Burn(milliseconds(1));
    });
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Eventually([&] { return m_sink.Kills() >= 1; }));
    m_monitor.StopMonitor();
    stop = true;
    burner.join();
    for (const auto& warning : m_sink.m_warnings) {
        if (warning.stage != WarningStage::kSustained) continue;
        EXPECT_EQ(warning.name, "burner");
        EXPECT_EQ(warning.tid, burnerTid.load());
    }
    EXPECT_GE(m_sink.Count(ResourceKind::kCpu, WarningStage::kSustained), 1u);
    Json::Value root;
    ASSERT_TRUE(Json::Reader().parse(m_sink.m_kills[0].json, root));
    EXPECT_EQ(root["threads"][0]["name"].asString(), "burner");
    EXPECT_TRUE(root.isMember("busiest_thread_stack"));
}

TEST_F(SamplerTest, RecoveryDisarmsTheSelfKill) {
    Settings(10, 40);
    m_monitor.SetMaxMem(1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Eventually([&] { return m_sink.Count(ResourceKind::kMemory, WarningStage::kSustained) == 1; }));
    m_monitor.SetMaxMem(1 << 20);
    ASSERT_TRUE(Eventually([&] { return m_sink.Count(ResourceKind::kMemory, WarningStage::kRecovered) == 1; }));
    m_monitor.SetMaxMem(1);
    ASSERT_TRUE(Eventually([&] { return m_sink.Count(ResourceKind::kMemory, WarningStage::kSustained) == 2; }));
    EXPECT_EQ(m_sink.Kills(), 0u);
    ASSERT_TRUE(Eventually([&] { return m_sink.Kills() == 1; }));
}

TEST_F(SamplerTest, WithoutSelfKillItEndsWithTheWarning) {
    Settings(5, 4, false);
    m_monitor.SetMaxMem(1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Rounds(30));
    EXPECT_EQ(m_sink.Count(ResourceKind::kMemory, WarningStage::kSustained), 1u);
    EXPECT_EQ(m_sink.Kills(), 0u);
    EXPECT_EQ(NamesIn(m_dir / "records"), Lines{});
}

TEST_F(SamplerTest, TooManyDescriptorsAreWarnedAboutAndKillNobody) {
    Settings(5, 4);
    m_monitor.SetMaxFdCount(1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Rounds(30));
    EXPECT_EQ(m_sink.Count(ResourceKind::kDescriptors, WarningStage::kReached), 1u);
    EXPECT_EQ(m_sink.Count(ResourceKind::kDescriptors, WarningStage::kSustained), 1u);
    EXPECT_EQ(m_sink.Kills(), 0u);
}

TEST_F(SamplerTest, ARecordThatCannotBeWrittenStillAsks) {
    support::WriteText(m_dir / "records", "a file where the directory should be");
    Settings(5, 3);
    m_monitor.SetMaxMem(1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Eventually([&] { return m_sink.Kills() >= 1; }));
    m_monitor.StopMonitor();
    EXPECT_EQ(m_sink.m_kills[0].path, "");
    EXPECT_FALSE(m_sink.m_kills[0].json.empty());
    EXPECT_TRUE(support::LogHolds("2 the self-kill record could not be written: "));
}

TEST_F(SamplerTest, OldRecordsMakeRoom) {
    Settings(2, 1);
    m_monitor.SetMaxMem(1);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Eventually([&] { return m_sink.Kills() >= 25; }));
    m_monitor.StopMonitor();
    const auto files = NamesIn(m_dir / "records");
    EXPECT_EQ(files.size(), 16u);
    EXPECT_EQ(m_dir / "records/" + files.back(), m_sink.m_kills.back().path);
}

TEST_F(SamplerTest, AWatchedProcessThatEndsIsToldOnceWithARecord) {
    const pid_t child = fork();
    if (child == 0) {
        for (;;) pause();
    }
    m_monitor.SetWatcherProcess({{static_cast<unsigned int>(child), "collector"}});
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Eventually([&] { return Figures().watchedProcesses == 1; }));
    ASSERT_TRUE(Rounds(5));
    EXPECT_EQ(m_sink.Count(ResourceKind::kWatchedProcess, WarningStage::kReached), 0u);
    kill(child, SIGKILL);
    ASSERT_TRUE(Eventually([&] { return m_sink.Count(ResourceKind::kWatchedProcess, WarningStage::kReached) == 1; }));
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(Rounds(5));
    EXPECT_EQ(m_sink.Count(ResourceKind::kWatchedProcess, WarningStage::kReached), 1u);
    EXPECT_EQ(NamesIn(m_dir / "records"), Lines{"watched-collector.json"});
    ResourceMonitorInfo info;
    ASSERT_TRUE(m_monitor.FetchResourceMonitorInfo(info));
    EXPECT_EQ(info.writePidTimes, 1u);
}

TEST_F(SamplerTest, NoMoreProcessesAreWatchedThanAllowed) {
    m_monitor.SetMaxPidCheck(2);
    m_monitor.SetWatcherProcess({{1, "a"}, {2, "b"}, {3, "c"}});
    ASSERT_TRUE(m_monitor.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return Figures().watchedProcesses == 2; }));
    EXPECT_TRUE(support::LogHolds("3 processes to watch, only the first 2 are"));
    m_monitor.SetMaxPidCheck(0);
    ASSERT_TRUE(Eventually([&] { return Figures().watchedProcesses == 0; }));
}

TEST_F(SamplerTest, AStalledThreadIsNamedAndItsReturnTold) {
    std::atomic<bool> beat{false}, stop{false};
    std::thread worker([&] {
        const auto tid = static_cast<unsigned int>(gettid());
        m_monitor.SetThreadHeartbeat(tid, "worker", 1);
        while (!stop.load()) {
            if (beat.load()) m_monitor.SetThreadHeartbeat(tid, "worker", 1);
            std::this_thread::sleep_for(milliseconds(5));
        }
    });
    const auto stalls = [&] {
        std::lock_guard<std::mutex> lock(m_sink.m_lock);
        return m_sink.m_stalls.size();
    };
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    ASSERT_TRUE(Eventually([&] { return stalls() == 1; }));
    EXPECT_EQ(Figures().heartbeats, 1u);
    beat = true;
    ASSERT_TRUE(Eventually([&] { return stalls() == 2; }));
    stop = true;
    worker.join();
    ASSERT_TRUE(Eventually([&] { return stalls() == 3; }));
    m_monitor.StopMonitor();
    EXPECT_EQ(m_sink.m_stalls[0].name, "worker");
    EXPECT_FALSE(m_sink.m_stalls[0].recovered);
    EXPECT_FALSE(m_sink.m_stalls[0].gone);
    EXPECT_EQ(m_sink.m_stalls[0].stack.empty(), geteuid() != 0) << "the kernel shows stacks to root only";
    EXPECT_TRUE(m_sink.m_stalls[1].recovered);
    EXPECT_TRUE(m_sink.m_stalls[2].gone);
}

TEST_F(SamplerTest, SettersAndQueriesMayRaceWithTheRounds) {
    Settings(1, 3);
    ASSERT_TRUE(m_monitor.StartMonitor(&m_sink));
    std::vector<std::thread> threads;
    std::atomic<bool> stop{false};
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            ResourceConfig config;
            for (int i = 0; !stop.load(); ++i) {
                config.maxCpu = i % 100;
                m_monitor.SetMaxResourceConfig(config);
                m_monitor.SetMaxCpu(i % 50);
                m_monitor.SetMaxMem(i % 300);
                m_monitor.SetMaxIO(i % 10, i % 7);
                m_monitor.SetMaxFdCount(i % 40);
                m_monitor.SetMaxPidCheck(i % 4);
                m_monitor.SetCpuSolarisMode(i % 2 == 0);
                m_monitor.SetMonitorIOEnable(i % 3 != 0);
                m_monitor.SetThreadHeartbeat(static_cast<unsigned int>(t + 1), "t" + std::to_string(i % 5), 1 + i % 3);
                if (i % 9 == 0) m_monitor.RemoveThreadHeartbeat(static_cast<unsigned int>(t + 1));
                m_monitor.SetWatcherProcess({{static_cast<unsigned int>(getpid()), "self"}});
                ResourceMonitorInfo info;
                m_monitor.FetchResourceMonitorInfo(info);
                zelhost::SamplerFigures figures;
                zelhost::ReadActiveSampler(figures);
                EXPECT_LE(m_monitor.GetCpuUsageLevel(), 2);
                EXPECT_LE(m_monitor.GetMemUsageLevel(), 2);
                m_monitor.GetCpuHighAllRound();
                m_monitor.GetCpuBusyLastHour();
                m_monitor.GetAvgCpuMinuteBusy();
                m_monitor.GetAvgCpuWindowBusy();
                m_monitor.GetMaxCpu();
                m_monitor.GetMaxMem();
            }
        });
    }
    std::this_thread::sleep_for(milliseconds(500));
    stop = true;
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(Rounds(2));
}

TEST(SamplerEventsTest, AThreadThatServesIsNamedAsSuch) {
    EXPECT_THAT(zelhost::ServingWords("Metrics-work"), testing::HasSubstr("scrapes"));
    EXPECT_THAT(zelhost::ServingWords("Metrics"), testing::HasSubstr("scrapes"));
    EXPECT_THAT(zelhost::ServingWords("zel-io"), testing::HasSubstr("scrapes"));
    EXPECT_THAT(zelhost::ServingWords("console-work"), testing::HasSubstr("console"));
    EXPECT_EQ("", zelhost::ServingWords("worker"));
}

namespace {

TEST(SamplingPhaseTest, TheNextRoundIsOnTheMultiplesSinceBoot) {
    for (const int64_t length : {1000, 2000, 10000}) {
        for (int64_t madeAt = 123450; madeAt < 123450 + 2 * length; madeAt += 50) {
            const int64_t wait = std::chrono::duration_cast<milliseconds>(
                                     zelhost::ToSharedPhase(milliseconds(madeAt), milliseconds(length)))
                                     .count();
            EXPECT_EQ(0, (madeAt + wait) % length) << madeAt;
            EXPECT_GE(wait, length / 2) << madeAt;
            EXPECT_LT(wait, length + length / 2) << madeAt;
        }
    }
    EXPECT_EQ(milliseconds(100), zelhost::ToSharedPhase(milliseconds(1234), milliseconds(100))) << "keeps none";
}

/// When its rounds were made.
class TimedSampler : public CResourceMonitor {
public:
    ~TimedSampler() override { StopMonitor(); }
    void MonitorOther(unsigned long) override {
        std::lock_guard<std::mutex> lock(m_lock);
        m_rounds.push_back(std::chrono::steady_clock::now());
    }
    std::vector<std::chrono::steady_clock::time_point> Rounds() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_rounds;
    }

private:
    std::mutex m_lock;
    std::vector<std::chrono::steady_clock::time_point> m_rounds;
};

TEST(SamplingPhaseTest, SamplersThatStartApartMeetAtTheirRounds) {
    TimedSampler one;
    TimedSampler other;
    ASSERT_TRUE(one.StartMonitor(nullptr));
    std::this_thread::sleep_for(milliseconds(400));
    ASSERT_TRUE(other.StartMonitor(nullptr));
    ASSERT_TRUE(Eventually([&] { return one.Rounds().size() >= 4 && other.Rounds().size() >= 4; }));
    const auto a = one.Rounds();
    const auto b = other.Rounds();
    const auto apart = [](auto x, auto y) { return x < y ? y - x : x - y; };
    auto closest = apart(a[1], b[1]);
    for (size_t i = 1; i < a.size(); ++i) {
        for (size_t k = 1; k < b.size(); ++k) closest = std::min(closest, apart(a[i], b[k]));
    }
    EXPECT_LT(closest * 5, apart(a[0], b[0]));
}

}  // namespace
