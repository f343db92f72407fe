// Where the agent's processes sit while the limit mode changes under load: every one in its own leaf again, and back in
// the legacy group, however the change reaches its threads.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "AgentFixture.h"
#include "GroupTable.h"

namespace agenttest {
namespace {

constexpr int kRounds = 4;                 ///< in every run; ZEL_PLACEMENT_ROUNDS asks for more
constexpr unsigned int kOldModeMs = 4000;  ///< the legacy limits are made and looked after meanwhile
/// The legacy group is looked after every five seconds: what it takes back, it takes back within these.
constexpr int kStaysSeconds = 6;

int Rounds() {
    const char* asked = getenv("ZEL_PLACEMENT_ROUNDS");
    return asked != nullptr && atoi(asked) > 0 ? atoi(asked) : kRounds;
}

class PlacementTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        WriteResource({{"max_cpu", "30"}, {"max_memory", "200"}, {"resource_limit_mode", "13"}});
    }

    void WriteGreedyFive() {
        std::string list;
        for (const ComponentRow& row : BuiltInComponentRows()) {
            if (row.name == "Tervane") continue;
            list += std::string(list.empty() ? "" : ", ") + "{\"name\": \"" + row.name + "\", \"group\": \"" +
                    row.group + "\", \"load\": \"greedy:1\"}";
        }
        WriteComponents(list);
    }

    /// Processes by component, once all run.
    std::map<std::string, pid_t> Pids(pid_t main) {
        std::map<std::string, pid_t> pids;
        for (const ComponentRow& row : BuiltInComponentRows()) {
            if (row.name == "Tervane") {
                pids[row.name] = main;
            } else {
                Poll(kSettleSeconds, [&] { return (pids[row.name] = ComponentPid(row.name)) > 0; });
            }
        }
        return pids;
    }

    /// Returns: the first process that is not under exactly the legacy limits of the mode; empty when all are.
    std::string OutsideLegacy(const std::map<std::string, pid_t>& pids, int mode) const {
        for (const auto& [name, pid] : pids) {
            for (const auto& [root, bit] : {std::pair(CpuRoot(), 1), std::pair(MemoryRoot(), 4)}) {
                const std::string legacy = LegacyGroup(root);
                const std::vector<pid_t> inside = legacy.empty() ? std::vector<pid_t>() : ProcessesIn(legacy);
                const bool limited = std::find(inside.begin(), inside.end(), pid) != inside.end();
                const std::string groups = ReadText("/proc/" + std::to_string(pid) + "/cgroup");
                const bool inTree = groups.find("/" + Tree() + "/") != std::string::npos;
                if (limited == ((mode & bit) != 0) && !inTree) continue;
                return name + " (" + std::to_string(pid) + ") in mode " + std::to_string(mode) + " is in " + groups;
            }
        }
        return "";
    }

    /// Returns: the first process that is not exactly in its own leaves; empty when all are.
    std::string Misplaced(const std::map<std::string, pid_t>& pids) const {
        for (const ComponentRow& row : BuiltInComponentRows()) {
            const pid_t pid = pids.at(row.name);
            const std::string leaf = "/" + Tree() + "/" + row.group + "/" + row.name;
            for (const std::string& root : {CpuRoot(), MemoryRoot()}) {
                if (ProcessesIn(root + leaf) == std::vector<pid_t>{pid}) continue;
                return row.name + " (" + std::to_string(pid) + ") is not in " + root + leaf + " but in " +
                       ReadText("/proc/" + std::to_string(pid) + "/cgroup");
            }
        }
        return "";
    }
};

TEST_F(PlacementTest, BusyComponentsAreInTheirLeavesAfterEveryChange) {
    WriteGreedyFive();
    Child agent = StartRunningAgent();
    const std::map<std::string, pid_t> pids = Pids(agent.Pid());
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Misplaced(pids).empty(); })) << Misplaced(pids);
    const int modes[] = {0, 1, 4};
    for (int round = 0; round < Rounds(); ++round) {
        const int mode = modes[round % 3];
        WriteOnline("{\"resourceLimitMode\": " + std::to_string(mode) + "}");
        SleepMs(kOldModeMs);
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return OutsideLegacy(pids, mode).empty(); }))
            << "round " << round << ", 13 to mode: " << OutsideLegacy(pids, mode);
        WriteOnline("{\"resourceLimitMode\": 13}");
        const double begin = SecondsNow();
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Misplaced(pids).empty(); }))
            << "round " << round << ", mode " << mode << " to 13: " << Misplaced(pids);
        printf("round %d: mode %d to 13, all in their leaves after %.2f s\n", round, mode, SecondsNow() - begin);
        const bool left = Poll(kStaysSeconds, [&] { return !Misplaced(pids).empty(); });
        EXPECT_FALSE(left) << "round " << round << ": " << Misplaced(pids);
    }
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
