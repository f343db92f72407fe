// One group per component, as the guest's kernel has it: the numbers of the tables, the change of the maxima, a main
// process that dies, and a clean end.
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "GuestAgent.h"

using namespace guest;

namespace {

/// The maxima as configured, and what ought to come of them. Worked out here on its own, in plain whole numbers, for a
/// guest of two processors whose percentages count against the whole machine.
struct Budget {
    int64_t cpuPercent;  ///< of one processor, after the margin of 5 in 100
    int64_t memoryMb;    ///< after the widening

    Budget(int64_t maxCpu, int64_t maxMemory)
        : cpuPercent(std::min<int64_t>(std::max<int64_t>(maxCpu * 95 / 100, 1), 100) * 2),
          memoryMb(std::min(maxMemory * 3 / 2, maxMemory + 100)) {}

    int64_t GroupCpu(int64_t share) const { return share * cpuPercent; }
    int64_t GroupMemory(int64_t tableKb) const { return Pages(tableKb * memoryMb / 200 * 3 / 2); }
    int64_t LeafCpu(int64_t groupShare, int64_t share) const { return GroupCpu(groupShare) * share / 10000; }
    int64_t LeafMemory(int64_t tableKb) const { return Pages(tableKb * memoryMb / 200); }
    int64_t ParentMemory() const { return Pages(memoryMb * 1024 * 3 / 2); }
    /// The kernel counts in whole pages, which are of 4 KB or, as some for arm64 are built, of 16 or 64.
    static int64_t Pages(int64_t kb) {
        const int64_t page = sysconf(_SC_PAGESIZE) / 1024;
        return kb / page * page;
    }
};

class UnifiedInGuest : public AgentInGuest {
protected:
    /// Compares every limit of the built-in tables with what the kernel holds. Returns: each one that differs.
    static std::string BuiltInDifferences(const Budget& budget) {
        std::string differences;
        auto compare = [&](const std::string& group, int64_t cpu, int64_t memory) {
            if (CpuLimit(group) == cpu && MemoryLimit(group) == memory) return;
            differences += "[" + group + "] holds cpu " + std::to_string(CpuLimit(group)) + " memory " +
                           std::to_string(MemoryLimit(group)) + ", wanted " + std::to_string(cpu) + " and " +
                           std::to_string(memory) + "\n";
        };
        constexpr int64_t kNone = -1;
        compare("", budget.cpuPercent * 100, budget.ParentMemory());
        compare("main", budget.GroupCpu(20), budget.GroupMemory(15360));
        compare("guard", kNone, budget.GroupMemory(10240));
        compare("collect-defense", budget.GroupCpu(60), budget.GroupMemory(92160));
        compare("main/Tervane", budget.LeafCpu(20, 2000), budget.LeafMemory(15360));
        compare("guard/TervaneUpdate", kNone, budget.LeafMemory(10240));
        compare("collect-defense/TervaneMonitor", budget.LeafCpu(60, 6000), budget.LeafMemory(40960));
        compare("collect-defense/QorHips", budget.LeafCpu(60, 5000), budget.LeafMemory(20480));
        compare("collect-defense/QorNet", budget.LeafCpu(60, 5000), budget.LeafMemory(10240));
        compare("collect-defense/QorWebGuard", budget.LeafCpu(60, 5000), budget.LeafMemory(20480));
        return differences;
    }
    /// Waits until the kernel holds them all.
    static void ExpectBuiltInNumbers(const Budget& budget) {
        Poll(kSettleSeconds, [&] { return BuiltInDifferences(budget).empty(); });
        EXPECT_EQ(BuiltInDifferences(budget), "");
    }
    static constexpr const char* kLeaves[] = {"guard/TervaneUpdate", "collect-defense/TervaneMonitor",
                                              "collect-defense/QorHips", "collect-defense/QorNet",
                                              "collect-defense/QorWebGuard"};
};

TEST_F(UnifiedInGuest, EveryComponentSitsInItsLeafWithTableNumbers) {
    // The main process gets a fifth of a fifth of the machine by the built-in table, which emulation feels.
    WriteResource({{"max_cpu", "100"}, {"max_memory", "700"}});
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    for (const char* leaf : kLeaves) {
        EXPECT_TRUE(Poll(kStartSeconds, [&] {
            return ProcessesIn("memory", leaf).size() == 1 && ProcessesIn("cpu", leaf) == ProcessesIn("memory", leaf);
        })) << leaf;
    }
    EXPECT_EQ(ProcessesIn("memory", "main/Tervane"), std::vector<pid_t>{MainPid()});
    EXPECT_EQ(ProcessesIn("cpu", "main/Tervane"), std::vector<pid_t>{MainPid()});
    ExpectBuiltInNumbers(Budget(100, 700));

    Json::Value status = Status();
    EXPECT_TRUE(status["unified"].asBool()) << status["mode_reason"].asString();
    for (const Json::Value& node : status["tree"]["nodes"]) {
        if (node["level"].asString() != "component") continue;
        EXPECT_TRUE(node["membership_verified"].asBool()) << node["name"].asString();
    }
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

TEST_F(UnifiedInGuest, NewMaximaReachEveryGroupAndRestartNobody) {
    WriteResource({{"max_cpu", "100"}, {"max_memory", "700"}});
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    for (const char* leaf : kLeaves) {
        ASSERT_TRUE(Poll(kStartSeconds, [&] { return ProcessesIn("memory", leaf).size() == 1; })) << leaf;
    }
    std::vector<std::vector<pid_t>> before;
    for (const char* leaf : kLeaves) before.push_back(ProcessesIn("memory", leaf));

    WriteOnline("{\"groupMaxCpu\": 80, \"groupMaxMemory\": 900, \"cpuAll\": 1, \"resourceLimitMode\": 13}");
    const Budget after(80, 900);
    ExpectBuiltInNumbers(after);

    WriteOnline("{\"groupMaxCpu\": 100, \"groupMaxMemory\": 600, \"cpuAll\": 1, \"resourceLimitMode\": 13}");
    const Budget grown(100, 600);
    ExpectBuiltInNumbers(grown);

    std::vector<std::vector<pid_t>> now;
    for (const char* leaf : kLeaves) now.push_back(ProcessesIn("memory", leaf));
    EXPECT_EQ(now, before) << "a process was restarted";
    EXPECT_EQ(ProcessesIn("memory", "main/Tervane"), std::vector<pid_t>{MainPid()});
}

TEST_F(UnifiedInGuest, GreedyComponentIsHeldAndAnotherGroupIsNot) {
    WriteRoomyResource();
    WriteComponents(
        "{\"name\": \"Greedy\", \"group\": \"collect-defense\", \"command\": [\"/bin/vm-burn\", \"600\"]},"
        "{\"name\": \"Quiet\", \"group\": \"guard\", \"command\": [\"/bin/sleep\", \"600\"]}");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    const std::string leaf = "collect-defense/Greedy";
    ASSERT_TRUE(Poll(kStartSeconds, [&] {
        return ProcessesIn("cpu", leaf).size() == 1 && ProcessesIn("cpu", "guard/Quiet").size() == 1;
    }));
    const std::string quietStat = GroupDir("cpu", "guard/Quiet") + "/cpu.stat";
    ASSERT_TRUE(Poll(kStartSeconds, [&] {
        const int64_t before = Field(quietStat, "nr_throttled");  // it too needs more than its share to start
        SleepMs(3000);
        return Field(quietStat, "nr_throttled") == before;
    }));
    // 20 in 100 of a group that has 30 in 100 of 190 percent.
    EXPECT_EQ(CpuLimit(leaf), 1140);
    const std::string stat = GroupDir("cpu", leaf) + "/cpu.stat";
    const int64_t throttled = Field(stat, "nr_throttled");
    const int64_t periods = Field(stat, "nr_periods");
    const int64_t quiet = Field(quietStat, "nr_throttled");
    SleepMs(6000);
    const int64_t newPeriods = Field(stat, "nr_periods") - periods;
    const int64_t newThrottled = Field(stat, "nr_throttled") - throttled;
    // A process that always wants to run is stopped in nearly every period; half of them is far from chance.
    EXPECT_GE(newPeriods, 20);
    EXPECT_GE(newThrottled * 2, newPeriods);
    EXPECT_EQ(Field(quietStat, "nr_throttled"), quiet);
}

TEST_F(UnifiedInGuest, GroupsOfKilledMainAreAdoptedAndStopIsClean) {
    WriteRoomyResource();
    WriteComponents(
        "{\"name\": \"Quiet\", \"group\": \"guard\"},"
        "{\"name\": \"Greedy\", \"group\": \"collect-defense\"}");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kStartSeconds, [] {
        return ProcessesIn("memory", "guard/Quiet").size() == 1 &&
               ProcessesIn("memory", "collect-defense/Greedy").size() == 1;
    }));
    const std::vector<std::string> groups = AllGroups();
    KillMain();
    EXPECT_EQ(AllGroups(), groups) << "nobody was left to remove them";
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(AllGroups(), groups);
    EXPECT_TRUE(Poll(kStartSeconds, [] {
        return ProcessesIn("memory", "guard/Quiet").size() == 1 &&
               ProcessesIn("memory", "collect-defense/Greedy").size() == 1;
    })) << "the components did not come back into their leaves";
    EXPECT_EQ(ProcessesIn("memory", "main/Tervane"), std::vector<pid_t>{MainPid()});
    EXPECT_TRUE(Status()["unified"].asBool());
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

}  // namespace
