// One control group per component: the tree as the kernel shows it, against numbers worked out independently; changes
// while it runs, a main process that is killed, components that die, controllers that stop taking writes.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>

#include "AgentFixture.h"
#include "support/Files.h"
#include "GroupTable.h"

namespace agenttest {
namespace {

constexpr int64_t kNoMemoryLimit = int64_t{1} << 62;
constexpr int64_t kPage = 4096;

constexpr int kQuietSeconds = 70;

class UnifiedModeTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        WriteResource({{"max_cpu", "100"}, {"max_memory", "200"}, {"resource_limit_mode", "13"}});
        WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\"}");
    }

    std::string CpuGroup(const std::string& below = "") const { return CpuRoot() + "/" + Tree() + below; }
    std::string MemoryGroup(const std::string& below = "") const { return MemoryRoot() + "/" + Tree() + below; }

    static bool HasCpu(const std::string& group, int64_t hundredths) {
        int64_t quota = ReadNumber(group + "/cpu.cfs_quota_us");
        int64_t period = ReadNumber(group + "/cpu.cfs_period_us");
        if (hundredths == 0) return quota == -1;
        if (quota <= 0 || period <= 0) return false;
        // The kernel takes no quota under 1 ms; below that the period is longer and the share a trifle smaller.
        int64_t inForce = quota * 10000 / period;
        return inForce == hundredths || (hundredths < 100 && inForce == hundredths - 1);
    }

    static bool HasMemory(const std::string& group, int64_t kilobytes) {
        int64_t bytes = ReadNumber(group + "/memory.limit_in_bytes");
        return kilobytes == 0 ? bytes >= kNoMemoryLimit : bytes == kilobytes * 1024 / kPage * kPage;
    }

    /// Returns: the first difference between the kernel's tree and the expected one; empty when there is none.
    std::string Difference(const Expectation& expected, const std::vector<GroupRow>& groups = BuiltInGroups(),
                           const std::vector<ComponentRow>& components = BuiltInComponentRows()) const {
        std::vector<std::pair<std::string, Numbers>> all{{"", expected.Parent()}};
        for (const GroupRow& group : groups) all.emplace_back("/" + group.name, expected.Of(group));
        for (const ComponentRow& component : components) {
            all.emplace_back("/" + component.group + "/" + component.name, expected.Of(component, groups));
        }
        for (const auto& node : all) {
            if (!HasCpu(CpuGroup(node.first), node.second.cpu)) {
                return CpuGroup(node.first) + ": quota " +
                       std::to_string(ReadNumber(CpuGroup(node.first) + "/cpu.cfs_quota_us")) + ", expected " +
                       std::to_string(node.second.cpu) + " hundredths of a percent";
            }
            if (!HasMemory(MemoryGroup(node.first), node.second.memoryKb)) {
                return MemoryGroup(node.first) + ": limit " +
                       std::to_string(ReadNumber(MemoryGroup(node.first) + "/memory.limit_in_bytes")) +
                       " bytes, expected " + std::to_string(node.second.memoryKb) + " KB";
            }
        }
        return "";
    }

    /// Returns: whether exactly this process is in the component's leaf of both controllers.
    bool IsIn(const std::string& leaf, pid_t pid) const {
        std::vector<pid_t> only{pid};
        return ProcessesIn(CpuGroup(leaf)) == only && ProcessesIn(MemoryGroup(leaf)) == only;
    }

    /// A component that is just being started is in its parent's leaf until it goes to its own.
    bool WaitMainAlone(const Child& agent) {
        return Poll(kStartSeconds, [&] { return IsIn("/main/Tervane", agent.Pid()); });
    }

    bool WaitIn(const std::string& leaf, const std::string& component) {
        return Poll(kSettleSeconds, [&] {
            pid_t pid = ComponentPid(component);
            return pid > 0 && IsIn(leaf, pid);
        });
    }
};

TEST_F(UnifiedModeTest, ComponentsSitInLeavesAndFollowNewMaxima) {
    unlink(Conf("components.json").c_str());  // the built-in five
    Child agent = StartRunningAgent();
    EXPECT_EQ(Difference(Expectation(100, 200)), "");
    EXPECT_TRUE(WaitMainAlone(agent));
    std::map<std::string, pid_t> pids;
    for (const ComponentRow& component : BuiltInComponentRows()) {
        if (component.name == "Tervane") continue;
        ASSERT_TRUE(WaitIn("/" + component.group + "/" + component.name, component.name)) << component.name;
        pids[component.name] = ComponentPid(component.name);
    }
    std::string text;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"check"}, text) == 0; })) << text;
    EXPECT_EQ(0, RunConsole({"doctor"}, text)) << text;
    for (auto maxima : {std::pair<int, int>{60, 150}, {10, 300}, {90, 100}}) {
        const double begin = SecondsNow();
        WriteOnline("{\"groupMaxCpu\": " + std::to_string(maxima.first) +
                    ", \"groupMaxMemory\": " + std::to_string(maxima.second) + "}");
        Expectation expected(maxima.first, maxima.second);
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Difference(expected).empty(); })) << Difference(expected);
        printf("maxima %d %%, %d MB in force everywhere after %.2f s\n", maxima.first, maxima.second,
               SecondsNow() - begin);
    }
    for (const auto& component : pids) EXPECT_EQ(kill(component.second, 0), 0) << component.first << " was restarted";
    Json::Value status = Status();
    EXPECT_TRUE(status["unified"].asBool());
    EXPECT_EQ(status["tree"]["layout"].asString(), "v1");
    int verified = 0;
    for (const Json::Value& node : status["tree"]["nodes"]) {
        if (node["level"].asString() != "component") continue;
        ASSERT_EQ(node["pids"].size(), 1U) << node["name"].asString();
        EXPECT_TRUE(node["membership_verified"].asBool()) << node["name"].asString();
        ++verified;
    }
    EXPECT_EQ(verified, 6);
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_FALSE(LogHas(") has ended")) << "a stop that was asked for is no news";
    ExpectNothingLeft();
}

TEST_F(UnifiedModeTest, AnIdleAgentOfTheSampleSaysNothing) {
    for (const char* name : {"resource_config", "components.json", "online_config.json"}) {
        WriteConf(name, ReadText(std::string(ZEL_SAMPLE_DIR) + "/" + name));
    }
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return ComponentPid("QorWebGuard") > 0; }));
    // A minute has to be whole before use over a minute is judged.
    SleepMs(kQuietSeconds * 1000);
    EXPECT_EQ(agent.Stop(), 0);
    for (const char* name : {"tervane", "TervaneMonitor", "TervaneUpdate", "QorHips", "QorNet", "QorWebGuard"}) {
        std::istringstream lines(Log(name));
        std::string line;
        int count = 0;
        while (std::getline(lines, line)) {
            ++count;
            for (const char* loud : {" warning ", " error ", "watched process"}) {
                EXPECT_EQ(line.find(loud), std::string::npos) << line;
            }
        }
        EXPECT_GT(count, 0) << name;
    }
    ExpectNothingLeft();
}

TEST_F(UnifiedModeTest, ALimitThatSomebodyLiftedIsNoHealthyAgent) {
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\"}");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    const std::string quota = Status()["tree"]["nodes"][0]["cpu"]["path"].asString() + "/cpu.cfs_quota_us";
    std::string text;
    // Lifted again each time: the agent may put it back meanwhile.
    const auto after = [&](const char* command) {
        EXPECT_TRUE(support::WriteText(quota, "-1"));
        return RunConsole({command}, text);
    };
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return after("check") == 1; })) << text;
    EXPECT_THAT(text, testing::HasSubstr("the CPU limit of the whole agent is gone from "));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return after("doctor") == 2; })) << text;
    EXPECT_THAT(text, testing::HasSubstr("PROBLEM  the CPU limit of the whole agent is gone from "));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(UnifiedModeTest, WhatOthersChangeIsPutBackAndTold) {
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\"}");
    Child agent = StartRunningAgent({"--limit-check", "1"});
    ASSERT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    const pid_t component = ComponentPid("QorHips");
    SleepMs(3000);
    EXPECT_EQ(LogCount("not in force"), 0);
    EXPECT_EQ(Status()["keeper"]["last_repaired_at"].asInt64(), 0);

    for (const char* group : {"", "/main", "/collect-defense", "/collect-defense/QorHips"}) {
        ASSERT_TRUE(WriteText(CpuGroup(group) + "/cpu.cfs_quota_us", "-1")) << group;
    }
    // One that runs may be back by itself before the main process has looked.
    ASSERT_EQ(kill(component, SIGSTOP), 0);
    ASSERT_TRUE(WriteText(CpuRoot() + "/cgroup.procs", std::to_string(component)));
    ASSERT_TRUE(WriteText(MemoryRoot() + "/cgroup.procs", std::to_string(component)));
    const double begin = SecondsNow();
    const Expectation expected(100, 200);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Difference(expected).empty(); })) << Difference(expected);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return IsIn("/collect-defense/QorHips", component); }));
    EXPECT_EQ(kill(component, SIGCONT), 0);
    printf("four quotas and one component put back after %.2f s at a rhythm of 1 s\n", SecondsNow() - begin);
    for (const std::string& line : {"CPU quota of " + CpuGroup("/main") + " was: no limit",
                                    "process " + std::to_string(component) + " of QorHips (memory) was in /"}) {
        EXPECT_TRUE(WaitLog(line)) << line;
        EXPECT_EQ(LogCount(line), 1) << line;
    }
    const Json::Value keeper = Status()["keeper"];
    EXPECT_GE(keeper["found"]["cpu_quota"].asInt(), 4);
    EXPECT_EQ(keeper["found"]["member"].asInt(), 2);
    EXPECT_GT(keeper["last_repaired_at"].asInt64(), 0);
    EXPECT_TRUE(keeper["not_in_force"].empty());
    const auto told = [&] {
        const std::vector<Json::Value> events = Events();
        return std::count_if(events.begin(), events.end(), [](const Json::Value& event) {
            Json::Value body;
            return event["type"].asString() == "T_MSG_LIMIT_DRIFT" && ParseJson(event["body"].asString(), body) &&
                   body["repaired"].asBool();
        });
    };
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return told() >= 6; })) << told();

    // Everything at once: the component is sent off and its leaf goes with its group.
    ASSERT_TRUE(WriteText(CpuRoot() + "/cgroup.procs", std::to_string(component)));
    for (const std::string& leaf : ChildrenOf(CpuGroup("/collect-defense"))) {
        ASSERT_EQ(rmdir((CpuGroup("/collect-defense/") + leaf).c_str()), 0) << leaf;
    }
    ASSERT_EQ(rmdir(CpuGroup("/collect-defense").c_str()), 0);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return IsIn("/collect-defense/QorHips", component); }));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Difference(expected).empty(); })) << Difference(expected);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

// The least maximum, 0 and 1 percent alike, and the work of the main process itself: to take a change, to stop.
TEST_F(UnifiedModeTest, LeastMaximumLeavesTheMainProcessAnswerable) {
    struct Answer {
        double change = 0, stop = 0;
    };
    const auto measure = [&](int percent) {
        WriteResource({{"max_cpu", "100"}, {"max_memory", "200"}, {"resource_limit_mode", "13"}});
        WriteOnline("{}");
        Child agent = StartRunningAgent();
        WriteOnline("{\"groupMaxCpu\": " + std::to_string(percent) + "}");
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !HasCpu(CpuGroup("/main"), 2000); }));
        SleepMs(2000);
        const auto share = [&](const std::string& group) {
            return 10000 * ReadNumber(CpuGroup(group) + "/cpu.cfs_quota_us") /
                   ReadNumber(CpuGroup(group) + "/cpu.cfs_period_us");
        };
        EXPECT_GE(share("/main"), 32) << percent;
        EXPECT_GE(share("/main/Tervane"), 32) << percent;
        EXPECT_GE(share(""), share("/main") + share("/collect-defense")) << "others can starve it";
        Answer answer;
        const double change = SecondsNow();
        WriteOnline("{\"groupMaxCpu\": " + std::to_string(percent) + ", \"groupMaxMemory\": 150}");
        EXPECT_TRUE(
            Poll(kSettleSeconds, [&] { return HasMemory(MemoryGroup(), Expectation(10, 150).Parent().memoryKb); }));
        answer.change = SecondsNow() - change;
        const double stop = SecondsNow();
        EXPECT_EQ(agent.Stop(), 0);
        answer.stop = SecondsNow() - stop;
        ExpectNothingLeft();
        printf("groupMaxCpu %d: a change after %.2f s, a stop after %.2f s\n", percent, answer.change, answer.stop);
        return answer;
    };
    // 10 percent is the default.
    const Answer usual = measure(10);
    for (const int percent : {0, 1}) {
        const Answer least = measure(percent);
        EXPECT_LT(least.change + least.stop, 5 * std::max(usual.change + usual.stop, 2.0)) << percent;
    }
}

TEST_F(UnifiedModeTest, AComponentLeavesNobodyBehind) {
    WriteComponents(R"({"name": "QorHips", "group": "collect-defense",)"
                    R"( "command": ["/bin/sh", "-c", "setsid sleep 1000 & exec sleep 1000"]})");
    Child agent = StartRunningAgent();
    const std::string leaf = CpuGroup("/collect-defense/QorHips");
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return ProcessesIn(leaf).size() == 2; }));
    const std::vector<pid_t> first = ProcessesIn(leaf);
    kill(ComponentPid("QorHips"), SIGKILL);
    EXPECT_TRUE(WaitLog("component QorHips left 1 processes behind, they were ended"));
    const auto runs = [](pid_t pid) { return !ReadText("/proc/" + std::to_string(pid) + "/cmdline").empty(); };
    for (const pid_t pid : first) EXPECT_FALSE(runs(pid)) << pid;
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return ProcessesIn(leaf).size() == 2; }));
    const std::vector<pid_t> second = ProcessesIn(leaf);
    EXPECT_EQ(agent.Stop(), 0);
    for (const pid_t pid : second) EXPECT_FALSE(runs(pid)) << pid;
    ExpectNothingLeft();
}

TEST_F(UnifiedModeTest, MainProcessKilledAnytimeLeavesOnlyAdoptable) {
    // Fixed moments rather than random ones, so that a failure can be seen again: within the start, around the
    // components' starts, and later.
    WriteComponents(
        "{\"name\": \"QorHips\", \"group\": \"collect-defense\"}, {\"name\": \"QorNet\", \"group\": "
        "\"collect-defense\"}");
    for (int milliseconds : {3, 12, 25, 50, 90, 150, 260, 420, 900, 1800}) {
        Child agent = StartAgent();
        SleepMs(milliseconds);
        agent.Kill();
        EXPECT_TRUE(Poll(kStopSeconds, [this] { return AllProcesses().empty(); }))
            << "a component outlived its main process that was killed after " << milliseconds << " ms";
    }
    Child agent = StartRunningAgent();
    EXPECT_EQ(Difference(Expectation(100, 200)), "");
    EXPECT_TRUE(WaitMainAlone(agent));
    EXPECT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    EXPECT_TRUE(WaitIn("/collect-defense/QorNet", "QorNet"));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(UnifiedModeTest, DeadComponentStartsLaterBudgetOutlivesMain) {
    Child agent = StartRunningAgent();
    ASSERT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    for (int death = 1; death <= 2; ++death) {
        pid_t before = ComponentPid("QorHips");
        ASSERT_GT(before, 0);
        ASSERT_EQ(kill(before, SIGKILL), 0);
        ASSERT_TRUE(Poll(kSettleSeconds, [&] {
            pid_t now = ComponentPid("QorHips");
            return now > 0 && now != before && IsIn("/collect-defense/QorHips", now);
        }));
        EXPECT_TRUE(LogHas("(process " + std::to_string(before) +
                           ") ended: killed by signal 9 (Killed); next start in " + std::to_string(death) + " s"))
            << "killed by a signal, not for memory";
    }
    Json::Value component = Status()["components"][0];
    EXPECT_EQ(component["restarts"].asInt(), 2);
    EXPECT_EQ(component["restarts_last_hour"].asInt(), 2);
    EXPECT_NE(component["last_reason"].asString().find("killed by signal 9"), std::string::npos);
    EXPECT_TRUE(Poll(kSettleSeconds, [this] {
        int ends = 0;
        for (const Json::Value& event : Events()) {
            if (event["body"].asString().find("\"component\" : \"QorHips\"") != std::string::npos) ++ends;
        }
        return ends == 2;
    })) << "one event per end";
    EXPECT_EQ(agent.Stop(), 0);
    Child next = StartRunningAgent();
    EXPECT_TRUE(Poll(kSettleSeconds, [this] {
        Json::Value components = Status()["components"];
        return !components.empty() && components[0]["restarts_last_hour"].asInt() == 2;
    }));
    EXPECT_EQ(next.Stop(), 0);
    ExpectNothingLeft();
}

/// The same with the agent in a view of the mounts of its own, where the controllers can be made read-only.
class UnifiedModeOnFailingKernelTest : public UnifiedModeTest {
protected:
    Child StartInPrivateMounts() {
        std::string mounts;
        for (const std::string& root : {CpuRoot(), MemoryRoot()}) {
            mounts += (mounts.empty() ? "" : " && ") + ("mount --bind " + root + " " + root);
        }
        Child agent = Spawn(InPrivateMounts(mounts, AgentWords()), Environment(), NextOutput());
        EXPECT_TRUE(WaitLog(" is running, process ")) << agent.Output();
        return agent;
    }

    void Remount(const Child& agent, const std::string& how) {
        for (const std::string& root : {CpuRoot(), MemoryRoot()}) {
            std::string output;
            ASSERT_EQ(RunToEnd({"nsenter", "--mount", "--target", std::to_string(agent.Pid()), "mount", "-o",
                                "remount,bind," + how, root},
                               output),
                      0)
                << output;
        }
    }
};

TEST_F(UnifiedModeOnFailingKernelTest, RefusedChangeIsUndoneNextMade) {
    Child agent = StartInPrivateMounts();
    ASSERT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    const pid_t component = ComponentPid("QorHips");
    Remount(agent, "ro");
    WriteOnline("{\"groupMaxCpu\": 60}");
    EXPECT_TRUE(WaitLog("MonitorPri: write cgroup config failed during update, restoring previous state"));
    EXPECT_TRUE(WaitLog("MonitorPri: restored previous cgroup state, keeping old config"));
    EXPECT_TRUE(LogHas("Read-only file system; the hierarchy is read-only here: remount it read-write"));
    EXPECT_EQ(Difference(Expectation(100, 200)), "") << "what was in force stays";
    EXPECT_TRUE(Status()["unified"].asBool());
    Remount(agent, "rw");
    WriteOnline("{\"groupMaxCpu\": 50}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Difference(Expectation(50, 200)).empty(); }))
        << Difference(Expectation(50, 200));
    EXPECT_TRUE(WaitMainAlone(agent));
    EXPECT_TRUE(IsIn("/collect-defense/QorHips", component));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(UnifiedModeOnFailingKernelTest, StuckMainEndsLegacyAndReturns) {
    Child agent = StartInPrivateMounts();
    ASSERT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    const pid_t component = ComponentPid("QorHips");
    // Somebody takes the main process out of its leaf, and then the controllers take no write any more.
    for (const std::string& root : {CpuRoot(), MemoryRoot()}) {
        ASSERT_TRUE(WriteText(root + "/cgroup.procs", std::to_string(agent.Pid())));
    }
    Remount(agent, "ro");
    const int reloads = LogCount("CgroupClient", "QorHips");
    WriteOnline("{\"groupMaxCpu\": 60}");
    EXPECT_TRUE(WaitLog("MonitorPri: add main pid failed during update, fallback to legacy"));
    EXPECT_TRUE(WaitLog("MonitorPri: entered legacy fallback mode"));
    EXPECT_FALSE(Exists(Conf("cgroup_resource.json"))) << "the other processes are still told to stay in their leaves";
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return LogCount("CgroupClient", "QorHips") > reloads; }))
        << "the component was not informed: " << Log("QorHips");
    EXPECT_TRUE(agent.Running());
    EXPECT_EQ(kill(component, 0), 0);
    Remount(agent, "rw");
    WriteOnline("{\"groupMaxCpu\": 50}");
    EXPECT_TRUE(WaitLog("MonitorPri: multi-cgroup initialized", 2));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Difference(Expectation(50, 200)).empty(); }))
        << Difference(Expectation(50, 200));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        return IsIn("/main/Tervane", agent.Pid()) && IsIn("/collect-defense/QorHips", component);
    }));
    EXPECT_EQ(kill(component, 0), 0) << "the component was restarted";
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(UnifiedModeOnFailingKernelTest, UnwritableStartRunsUnlimited) {
    std::string mounts;
    for (const std::string& root : {CpuRoot(), MemoryRoot()}) {
        mounts += (mounts.empty() ? "" : " && ") +
                  ("mount --bind " + root + " " + root + " && mount -o remount,bind,ro " + root);
    }
    Child agent = Spawn(InPrivateMounts(mounts, AgentWords()), Environment(), NextOutput());
    ASSERT_TRUE(WaitLog(" is running, process ")) << agent.Output();
    EXPECT_TRUE(LogHas("CPU limit is not in force"));
    EXPECT_TRUE(LogHas("memory limit is not in force"));
    EXPECT_TRUE(LogHas("read-only"));
    EXPECT_TRUE(LogHas("no limit holds")) << Log();
    EXPECT_TRUE(AllGroups().empty());
    Remount(agent, "rw");
    WriteOnline("{\"groupMaxCpu\": 50}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Difference(Expectation(50, 200)).empty(); }))
        << Difference(Expectation(50, 200));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return IsIn("/main/Tervane", agent.Pid()); }));
    EXPECT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(UnifiedModeTest, SwitchingModesLeavesOneKindOfLimitOnly) {
    Child agent = StartRunningAgent();
    ASSERT_TRUE(WaitIn("/collect-defense/QorHips", "QorHips"));
    const pid_t component = ComponentPid("QorHips");
    WriteOnline("{\"resourceLimitMode\": 5, \"maxCpu\": 30}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        std::string legacy = LegacyGroup(CpuRoot());
        std::vector<pid_t> members = legacy.empty() ? std::vector<pid_t>() : ProcessesIn(legacy);
        return std::count(members.begin(), members.end(), agent.Pid()) == 1 &&
               std::count(members.begin(), members.end(), component) == 1 &&
               ReadNumber(legacy + "/cpu.cfs_quota_us") == 28500;
    })) << "both processes belong into the one group";
    WriteOnline("{\"resourceLimitMode\": 13}");
    EXPECT_TRUE(Poll(kSettleSeconds,
                     [&] {
                         return Difference(Expectation(100, 200)).empty() && IsIn("/main/Tervane", agent.Pid()) &&
                                IsIn("/collect-defense/QorHips", component) && LegacyGroup(CpuRoot()).empty() &&
                                LegacyGroup(MemoryRoot()).empty();
                     }))
        << Difference(Expectation(100, 200)) << " legacy group " << LegacyGroup(CpuRoot());
    EXPECT_EQ(ComponentPid("QorHips"), component);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

/// Texts of groups and components that are not as they should be.
struct SpecCase {
    const char* what;
    std::string groups;
    std::string components;
    std::vector<GroupRow> expectedGroups;
    std::vector<ComponentRow> expectedComponents;
};

class SpecTest : public UnifiedModeTest {
protected:
    void SetUp() override {
        UnifiedModeTest::SetUp();
        if (!IsSkipped()) WriteComponents("");
    }
};

TEST_F(SpecTest, MalformedEntriesAreSkippedAndTheRestIsInForce) {
    const std::vector<GroupRow> builtInGroups = BuiltInGroups();
    const std::vector<ComponentRow> builtInComponents = BuiltInComponentRows();
    const std::vector<SpecCase> cases{
        {"two fields", "a:10", "", builtInGroups, builtInComponents},
        {"only separators", ",,:,::::", ",:::::,", builtInGroups, builtInComponents},
        {"one good group among bad ones",
         "main:30:20480,bad,b:5:200:9",
         "Tervane:main:main:5000:20480",
         {{"main", 30, 20480}},
         {{"Tervane", "main", 5000, 20480}}},
        {"four fields of a component", "", "Tervane:main:main:2000", builtInGroups, builtInComponents},
        {"zero and negative shares",
         "main:0:20480,off:-5:10240",
         "Tervane:main:main:2000:15360,Idle:off:off:-1:10240",
         {{"main", 0, 20480}, {"off", 0, 10240}},
         {{"Tervane", "main", 0, 15360}, {"Idle", "off", 0, 10240}}},
        {"component of a group that does not exist",
         "",
         "Tervane:main:main:2000:15360,Lost:nowhere:nowhere:5000:10240",
         builtInGroups,
         {{"Tervane", "main", 2000, 15360}}},
        {"shares that are no numbers",
         "main:twenty:much,guard:0:10240",
         "Tervane:main:main:some:15360",
         {{"main", 0, 0}, {"guard", 0, 10240}},
         {{"Tervane", "main", 0, 15360}}},
    };
    for (const SpecCase& one : cases) {
        SCOPED_TRACE(one.what);
        WriteResource({{"max_cpu", "100"},
                       {"max_memory", "200"},
                       {"resource_limit_mode", "13"},
                       {"cgroup_groups", one.groups},
                       {"cgroup_components", one.components}});
        Child agent = StartRunningAgent();
        const Expectation expected(100, 200);
        EXPECT_EQ(Difference(expected, one.expectedGroups, one.expectedComponents), "");
        EXPECT_TRUE(WaitMainAlone(agent));
        EXPECT_EQ(ChildrenOf(CpuGroup()).size(), one.expectedGroups.size()) << "another group was made";
        EXPECT_EQ(agent.Stop(), 0);
        ExpectNothingLeft();
    }
}

TEST_F(SpecTest, NameThatLeadsElsewhereMakesNoGroupThere) {
    for (const char* name : {"..", "../escape", "a/b", ".", "cpu.shares", "cgroup.procs"}) {
        SCOPED_TRACE(name);
        const std::vector<std::string> before = ChildrenOf(CpuRoot(), "escape");
        WriteResource({{"max_cpu", "100"},
                       {"max_memory", "200"},
                       {"resource_limit_mode", "13"},
                       {"cgroup_groups", "main:20:15360," + std::string(name) + ":10:10240"}});
        Child agent = StartRunningAgent();
        EXPECT_TRUE(agent.Running());
        EXPECT_EQ(ChildrenOf(CpuRoot(), "escape"), before);
        EXPECT_FALSE(Exists(CpuGroup("/a/b")));
        EXPECT_TRUE(LogHas(name)) << "not a line about it: " << Log();
        EXPECT_EQ(agent.Stop(), 0);
        ExpectNothingLeft();
        unlink((Dir() + "/log/tervane.log").c_str());
    }
}

}  // namespace
}  // namespace agenttest
