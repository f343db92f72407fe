// One group for the whole agent: what the kernel counts and enforces when the agent asks for it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "AgentFixture.h"

namespace agenttest {
namespace {

constexpr int64_t kMegabyte = 1024 * 1024;

using LegacyModeTest = AgentOnV1Test;

TEST_F(LegacyModeTest, EveryThreadAndConsolesFiguresAreThoseOfKernel) {
    Child agent = StartRunningAgent({"--load", "greedy:2,hold:20"});
    std::string cpu = LegacyGroup(CpuRoot());
    std::string memory = LegacyGroup(MemoryRoot());
    ASSERT_FALSE(cpu.empty());
    ASSERT_FALSE(memory.empty());
    EXPECT_EQ(ProcessesIn(cpu), std::vector<pid_t>{agent.Pid()});
    EXPECT_EQ(ProcessesIn(memory), std::vector<pid_t>{agent.Pid()});
    EXPECT_EQ(ReadNumber(memory + "/memory.limit_in_bytes"), 200 * kMegabyte * 3 / 2);
    EXPECT_EQ(ReadNumber(memory + "/memory.soft_limit_in_bytes"), 200 * kMegabyte);
    Json::Value status = Status();
    EXPECT_EQ(status["pid"].asInt(), agent.Pid());
    EXPECT_TRUE(status["cpu"]["limited"].asBool());
    EXPECT_EQ(status["cpu"]["limit_group"].asString(), cpu);
    EXPECT_EQ(status["cpu"]["quota_us"].asInt64(), ReadNumber(cpu + "/cpu.cfs_quota_us"));
    EXPECT_TRUE(status["memory"]["limited"].asBool());
    EXPECT_EQ(status["memory"]["limit_bytes"].asInt64(), ReadNumber(memory + "/memory.limit_in_bytes"));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(LegacyModeTest, HogInsideAgentIsStoppedAtTheLimitPassedOn) {
    WriteResource({{"max_memory", "64"}, {"resource_limit_mode", "4"}});
    Child agent = StartRunningAgent({"--load", "hog:64"});
    std::string group = LegacyGroup(MemoryRoot());
    ASSERT_FALSE(group.empty());
    const int64_t limit = 64 * kMegabyte * 3 / 2;
    EXPECT_EQ(ReadNumber(group + "/memory.limit_in_bytes"), limit);
    int status = agent.WaitEnd(kSettleSeconds);
    ASSERT_FALSE(agent.Running());
    EXPECT_EQ(ExitCodeOf(status), 1000 + SIGKILL);
    EXPECT_EQ(ReadField(group + "/memory.oom_control", "oom_kill"), 1);
    EXPECT_GT(ReadNumber(group + "/memory.failcnt"), 0);
    const int64_t most = ReadNumber(group + "/memory.max_usage_in_bytes");
    EXPECT_LE(most, limit);
    EXPECT_GT(most, limit - kMegabyte) << "it was stopped before the limit";

    // The killed agent could not clean up. The next one adopts what is there and its clean end removes it.
    Child next = StartRunningAgent();
    EXPECT_EQ(LegacyGroup(MemoryRoot()), group);
    EXPECT_EQ(ProcessesIn(group), std::vector<pid_t>{next.Pid()});
    EXPECT_EQ(next.Stop(), 0);
    ExpectNothingLeft();
}

// Beyond 1365 MB the byte count that reaches the limit object has wrapped around: 8193 arrives as 1.5 MB, 9557 as
// 2047.5.
TEST_F(LegacyModeTest, WrappedMemoryLimitKillsNobodyAndIsNamed) {
    for (const int megabytes : {8193, 9557}) {
        WriteResource({{"max_memory", std::to_string(megabytes)}, {"resource_limit_mode", "4"}});
        WriteComponents("{\"name\": \"QorNet\"}");
        Child agent = StartRunningAgent();
        ASSERT_TRUE(WaitLog(" is running, process ", 1, "QorNet"));
        const pid_t component = ComponentPid("QorNet");
        EXPECT_TRUE(LogHas("max_memory = \"" + std::to_string(megabytes) + "\" is above 1365 MB")) << Log();
        const bool fits = megabytes == 9557;
        for (const char* name : {"tervane", "QorNet"}) {
            EXPECT_EQ(LogHas("this process alone has ", name), !fits) << Log(name);
            EXPECT_EQ(LogHas("[result 1, ", name), !fits);
        }
        EXPECT_EQ(!LegacyGroup(MemoryRoot()).empty(), fits) << "a limit was written";
        // Both go on to work: a round of everything that they do by themselves.
        SleepMs(6000);
        EXPECT_TRUE(agent.Running());
        EXPECT_EQ(ComponentPid("QorNet"), component);
        EXPECT_EQ(Status()["components"][0]["restarts"].asInt(), 0);
        EXPECT_EQ(agent.Stop(), 0);
        ExpectNothingLeft();
        for (const char* name : {"tervane", "QorNet"}) unlink((Dir() + "/log/" + name + ".log").c_str());
    }
}

TEST_F(LegacyModeTest, WhatSomebodyElseChangesIsPutBackAndTold) {
    WriteComponents("{\"name\": \"QorNet\"}");
    Child agent = StartRunningAgent();
    const std::string cpu = LegacyGroup(CpuRoot());
    const std::string memory = LegacyGroup(MemoryRoot());
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return ProcessesIn(cpu).size() == 2 && ProcessesIn(memory).size() == 2; }));
    ASSERT_TRUE(WaitLog(" is running, process ", 1, "QorNet")) << "its own start would put back as well";
    // A child that was never seen inside joins in silence, so it is to be seen there once.
    const auto looks = [this] { return Status()["keeper"]["rounds"].asInt(); };
    const int before = looks();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return looks() > before; }));
    const pid_t component = ComponentPid("QorNet");
    const int64_t hard = ReadNumber(memory + "/memory.limit_in_bytes");
    const int64_t swap = ReadNumber(memory + "/memory.memsw.limit_in_bytes");
    const int64_t soft = ReadNumber(memory + "/memory.soft_limit_in_bytes");
    ASSERT_TRUE(WriteText(cpu + "/cpu.cfs_quota_us", "-1"));
    ASSERT_TRUE(swap < 0 || WriteText(memory + "/memory.memsw.limit_in_bytes", "-1"));
    ASSERT_TRUE(WriteText(memory + "/memory.limit_in_bytes", "-1"));
    ASSERT_TRUE(WriteText(memory + "/memory.soft_limit_in_bytes", "-1"));
    ASSERT_TRUE(WriteText(MemoryRoot() + "/cgroup.procs", std::to_string(component)));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        return ReadNumber(cpu + "/cpu.cfs_quota_us") == 9500 && ReadNumber(memory + "/memory.limit_in_bytes") == hard &&
               ReadNumber(memory + "/memory.memsw.limit_in_bytes") == swap &&
               ReadNumber(memory + "/memory.soft_limit_in_bytes") == soft && ProcessesIn(memory).size() == 2;
    }));
    // Whichever of the two processes looked first has told it.
    std::map<std::string, int> told;
    const auto count = [&] {
        told.clear();
        for (const char* process : {"tervane", "QorNet"}) {
            for (const Json::Value& event : Events(process)) {
                Json::Value body;
                if (event["type"].asString() != "T_MSG_LIMIT_DRIFT" || !ParseJson(event["body"].asString(), body))
                    continue;
                EXPECT_TRUE(body["repaired"].asBool()) << event["body"].asString();
                ++told[body["kind"].asString()];
            }
        }
        return told.size();
    };
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return count() == 4; })) << told.size() << Log("QorNet");
    for (const char* kind : {"cpu_quota", "memory", "memory_soft", "member"}) EXPECT_EQ(told[kind], 1) << kind;
    int found = 0;
    for (const char* process : {"tervane", "QorNet"}) {
        const Json::Value kept = Status(process)["keeper"];
        for (const std::string& kind : kept["found"].getMemberNames()) found += kept["found"][kind].asInt();
        EXPECT_TRUE(kept["not_in_force"].empty());
    }
    EXPECT_EQ(found, 4);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(LegacyModeTest, ChangedMaximumReachesKernelAndOffRemovesLimit) {
    Child agent = StartRunningAgent();
    std::string cpu = LegacyGroup(CpuRoot());
    ASSERT_FALSE(cpu.empty());
    for (int percent : {20, 7, 150}) {
        const double begin = SecondsNow();
        WriteOnline("{\"maxCpu\": " + std::to_string(percent) + "}");
        const int64_t quota = std::min(95 * percent * 10, 100000);
        EXPECT_TRUE(Poll(kSettleSeconds,
                         [&] {
                             return ReadNumber(cpu + "/cpu.cfs_quota_us") * 100000 ==
                                    quota * ReadNumber(cpu + "/cpu.cfs_period_us");
                         }))
            << percent << ": " << ReadNumber(cpu + "/cpu.cfs_quota_us");
        printf("maxCpu %d in force after %.2f s (2 s allowed on an idle machine)\n", percent, SecondsNow() - begin);
    }
    const double begin = SecondsNow();
    WriteOnline("{\"maxCpu\": 20, \"resourceLimitMode\": 0}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return AllGroups().empty(); }));
    printf("mode off after %.2f s\n", SecondsNow() - begin);
    EXPECT_TRUE(agent.Running());
    WriteOnline("{\"maxCpu\": 20, \"resourceLimitMode\": 1}");
    EXPECT_TRUE(
        Poll(kSettleSeconds, [&] { return ReadNumber(LegacyGroup(CpuRoot()) + "/cpu.cfs_quota_us") == 19000; }));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(LegacyModeTest, GroupThatDisappearsUnderTheAgentIsMadeAgain) {
    Child agent = StartRunningAgent();
    std::string cpu = LegacyGroup(CpuRoot());
    ASSERT_FALSE(cpu.empty());
    ASSERT_TRUE(WriteText(CpuRoot() + "/cgroup.procs", std::to_string(agent.Pid())));
    ASSERT_EQ(rmdir(cpu.c_str()), 0);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        return ProcessesIn(cpu) == std::vector<pid_t>{agent.Pid()} && ReadNumber(cpu + "/cpu.cfs_quota_us") == 9500;
    }));
    EXPECT_TRUE(agent.Running());
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(LegacyModeTest, StrangerInGroupIsNeitherKilledNorHeldAfter) {
    Child agent = StartRunningAgent();
    std::string cpu = LegacyGroup(CpuRoot());
    ASSERT_FALSE(cpu.empty());
    Child stranger = Spawn({"sleep", "600"}, {}, NextOutput());
    ASSERT_TRUE(WriteText(cpu + "/cgroup.procs", std::to_string(stranger.Pid())));
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_TRUE(stranger.Running());
    ASSERT_EQ(ProcessesIn(cpu), std::vector<pid_t>{stranger.Pid()});
    EXPECT_EQ(ReadNumber(cpu + "/cpu.cfs_quota_us"), -1) << "the stranger stays limited by an agent that is gone";
    EXPECT_TRUE(LogHas(cpu)) << Log();
    EXPECT_EQ(AllProcesses(), std::vector<pid_t>());
    stranger.Kill();
    // The next agent takes the group over and leaves nothing.
    Child next = StartRunningAgent();
    EXPECT_EQ(ProcessesIn(cpu), std::vector<pid_t>{next.Pid()});
    EXPECT_EQ(next.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(LegacyModeTest, SecondMainProcessRefusesAndFirstGoesOn) {
    Child first = StartRunningAgent();
    std::string output;
    EXPECT_EQ(RunToEnd(AgentWords(), output), 10);
    EXPECT_NE(output.find("another tervane is running on " + Dir()), std::string::npos) << output;
    EXPECT_NE(output.find("process " + std::to_string(first.Pid())), std::string::npos) << output;
    EXPECT_TRUE(first.Running());
    std::string cpu = LegacyGroup(CpuRoot());
    EXPECT_EQ(ProcessesIn(cpu), std::vector<pid_t>{first.Pid()});
    EXPECT_EQ(ReadNumber(cpu + "/cpu.cfs_quota_us"), 9500);
    EXPECT_EQ(first.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(LegacyModeTest, ReadOnlyControllersAreNamedAndDoneWithout) {
    Child agent = Spawn(
        InPrivateMounts("mount --bind " + CpuRoot() + " " + CpuRoot() + " && mount -o remount,bind,ro " + CpuRoot(),
                        AgentWords()),
        Environment(), NextOutput());
    ASSERT_TRUE(WaitLog(" is running, process ")) << agent.Output();
    EXPECT_TRUE(LogHas("CPU limit is not in force")) << Log();
    EXPECT_TRUE(LogHas("read-only")) << Log();
    EXPECT_FALSE(LogHas("memory limit is not in force")) << Log();
    EXPECT_TRUE(LegacyGroup(CpuRoot()).empty());
    EXPECT_EQ(ReadNumber(LegacyGroup(MemoryRoot()) + "/memory.limit_in_bytes"), 300 * kMegabyte);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
