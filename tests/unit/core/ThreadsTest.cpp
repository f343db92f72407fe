// Every thread that enters the module, at the same time. The thread sanitizer is the judge; without it the tests still
// find a deadlock and an answer that no state of the module would give.
#include <atomic>
#include <functional>
#include <thread>

#include "CoreFixture.h"
#include "Monitor.h"
#include "platform/zel/CgroupClient.h"

namespace {

/// Runs each body over and over in a thread of its own until every one of them has done its `rounds`, so that a short
/// body still meets the last round of the longest.
void RunTogether(int rounds, const std::vector<std::function<void(int)>>& bodies) {
    std::atomic<size_t> ready{0};
    std::atomic<size_t> unfinished{bodies.size()};
    std::vector<std::thread> threads;
    for (const auto& body : bodies) {
        threads.emplace_back([&, body] {
            ++ready;
            while (ready < bodies.size()) std::this_thread::yield();
            for (int round = 0; round < rounds || unfinished > 0; ++round) {
                body(round);
                if (round + 1 == rounds) --unfinished;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

/// Counts who is inside of it, and lets others run meanwhile: when the facade has let go of an object, nobody is.
class Visited {
public:
    bool IsVisited() const { return m_inside != 0; }

protected:
    void Visit() {
        ++m_inside;
        std::this_thread::yield();
        --m_inside;
    }

private:
    std::atomic<int> m_inside{0};
};

class Point final : public IMonitorInfo, public Visited {
public:
    explicit Point(std::string message) : m_message(std::move(message)) {}
    std::string GetMonitorMessage() override {
        Visit();
        return m_message;
    }

private:
    const std::string m_message;
};

class SysIntfDouble final : public CSysIntf, public Visited {
public:
    void GetHighCpuUsageThread(long& tid, unsigned int& usage) override {
        Visit();
        tid = 5;
        usage = 50;
    }
    void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) override {
        Visit();
        list.emplace_back();
    }
    unsigned long GetCurrThreadId() override {
        Visit();
        return 9;
    }
};

constexpr int kRounds = 300;

}  // namespace

class ThreadsTest : public CoreFixture {
protected:
    void SetUp() override {
        CoreFixture::SetUp();
        platform().keepInJournal = [](const std::string&) { return false; };
    }
};

TEST_F(ThreadsTest, EnterThePrivateObjectTogether) {
    platform().manager.cpuEnabled.Always(true);
    platform().limit.cpuLimited.Always(true);
    platform().base.cpuLevel = 1;
    conf().cpuLimitEnabled.Set(1);
    conf().maxCpu.Set(20);
    conf().groupMaxCpu.Set(20);
    conf().groupMaxMemory.Set(200);
    pri().SetConfigPath(WriteConfig("resource_limit_mode=9\n"));
    ASSERT_TRUE(pri().StartMonitor(nullptr, "tervane"));

    std::atomic<int> wrong{0};
    RunTogether(kRounds, {
                             [&](int) {  // a worker
                                 long maximum = 0;
                                 if (!pri().IsCpuNeedLimit(1) || pri().IsCpuNeedLimit(0) || pri().GetMaxCpu(maximum))
                                     ++wrong;
                                 pri().IsResourceLimited();
                                 if (pri().IsDiskFull() || pri().IsMemBusy()) ++wrong;
                             },
                             [&](int) { pri().timeEvent(9001); },
                             [&](int round) { pri().MonitorOther(static_cast<unsigned long>(round)); },
                             [&](int round) {  // in and out of the unified mode
                                 conf().resourceLimitMode.Set(round % 3 == 0 ? 9 : round % 3 == 1 ? 1 : 0);
                                 pri().OnUpdate();
                             },
                             [&](int) {
                                 std::map<std::string, std::string> info;
                                 if (!pri().GetExceptionInfo(info)) ++wrong;
                                 const std::string& enabled = info["tervane_cpu_limit_enable"];
                                 if (enabled != "0" && enabled != "1") ++wrong;
                             },
                         });
    EXPECT_EQ(0, wrong);
    EXPECT_TRUE(pri().StopMonitor());
}

// A component's message thread reloads its client whenever the main process says so, also in the middle of an update.
TEST_F(ThreadsTest, ClientReloadResetsLegacyLimitsWhileUpdateApplies) {
    zel::CCgroupClient client;
    pri().SetCgroupClient(&client);
    pri().SetConfigPath(WriteConfig("resource_limit_mode=5\n"));
    ASSERT_TRUE(pri().StartMonitor(nullptr, "tervaneupdate"));
    platform().client.memPath.Always("/sys/fs/cgroup/zel.agent/main");
    platform().files.existing.insert("/sys/fs/cgroup/zel.agent/main/cgroup.controllers");
    for (int i = 0; i < kRounds * 10; ++i) {  // in and out of the groups, with every other answer differing
        platform().client.cpuJoined.Then(i % 3 == 0);
        platform().client.memJoined.Then(i % 5 < 2);
    }

    RunTogether(kRounds, {
                             [&](int round) {
                                 conf().resourceLimitMode.Set(round % 2 == 0 ? 5 : 0);
                                 pri().OnUpdate();
                             },
                             [&](int) { pri().ReloadCgroupClientConfig(); },
                             [&](int) {
                                 std::map<std::string, std::string> info;
                                 pri().GetExceptionInfo(info);
                                 pri().IsResourceLimited();
                             },
                         });
    platform().client.cpuJoined.Always(true);
    platform().client.memJoined.Always(true);
    pri().m_legacyCpuEnabled = true;
    pri().m_legacyMemEnabled = true;
    EXPECT_TRUE(pri().ReloadCgroupClientConfig());
    EXPECT_FALSE(pri().m_legacyCpuEnabled);
    EXPECT_FALSE(pri().m_legacyMemEnabled);
    EXPECT_TRUE(pri().StopMonitor());
}

TEST_F(ThreadsTest, EnterTheFacadeTogether) {
    m_pri.reset();
    CMonitor monitor;
    SysIntfDouble sysIntf;
    Point kept("here"), passing("passing"), other("other");
    monitor.AddMonitorPoint(&kept);
    std::atomic<int> wrong{0};
    const auto comeAndGo = [&](Point& point) {
        monitor.AddMonitorPoint(&point);
        monitor.RemoveMonitorPoint(&point);
        if (point.IsVisited()) ++wrong;
    };
    RunTogether(kRounds / 6, {
                                 [&](int) {
                                     std::string report;
                                     unsigned int highTid = 7;
                                     monitor.GetThreadsInfo(report, &highTid);
                                     if (highTid != 0 || report.find("here\n") == std::string::npos) ++wrong;
                                 },
                                 [&](int) { comeAndGo(passing); },
                                 [&](int) { comeAndGo(other); },
                                 [&](int) {
                                     monitor.SetSysIntf(&sysIntf);
                                     monitor.SetSysIntf(nullptr);
                                     if (sysIntf.IsVisited()) ++wrong;
                                 },
                                 [&](int) {
                                     const unsigned long id = monitor.GetCurrThreadId();
                                     if (id != 0 && id != 9) ++wrong;
                                     std::string name;
                                     long tid = 1;
                                     unsigned int usage = 1;
                                     monitor.GetHighCpuUsageThreadName(name, tid, usage);
                                     if (!(tid == 0 && usage == 0) && !(tid == 5 && usage == 50)) ++wrong;
                                 },
                             });
    EXPECT_EQ(0, wrong);
    // All that came has gone, and what stayed is there once.
    std::string report;
    monitor.GetThreadsInfo(report, nullptr);
    const std::string messages = "here\n";
    ASSERT_GE(report.size(), messages.size());
    EXPECT_EQ(report.size() - messages.size(), report.find("here\n")) << report;
    EXPECT_EQ(std::string::npos, report.find("passing")) << report;
    EXPECT_EQ(std::string::npos, report.find("other")) << report;
}
