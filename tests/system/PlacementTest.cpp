// Where the agent's processes sit while the limit mode changes under load: every one in its own leaf again, and back in
// the legacy group, however the change reaches its threads.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>
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

// Without its file a component does not know where it belongs; a legacy limit of its own beside the others' is no
// answer.
TEST_F(PlacementTest, NoComponentIsPutOnTopOfTheTreeWithoutItsFile) {
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    Child agent = StartRunningAgent({"--limit-check", "8"});
    const std::string leaf = CpuRoot() + "/" + Tree() + "/collect-defense/";
    const auto sits = [&](const std::string& name, pid_t pid) {
        return pid > 0 && ProcessesIn(leaf + name) == std::vector<pid_t>{pid};
    };
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return sits("QorHips", ComponentPid("QorHips")); }));
    const std::string file = Conf("cgroup_resource.json");
    const std::string written = ReadText(file);
    int repairs = 0;
    for (const bool remove : {true, false}) {
        const pid_t before = ComponentPid("QorHips");
        ASSERT_TRUE(remove ? unlink(file.c_str()) == 0 : WriteText(file, "{\"version\": 1, \"ena"));
        kill(before, SIGKILL);
        // One that somebody starts by hand, from outside the groups.
        std::vector<std::string> words = AgentWords({"--name", "QorNet", "--config", Conf("resource_config")});
        Child byHand = Spawn(words, Environment(), NextOutput());
        bool legacy = false;
        EXPECT_TRUE(Poll(kSettleSeconds,
                         [&] {
                             legacy = legacy || !LegacyGroup(CpuRoot()).empty() || !LegacyGroup(MemoryRoot()).empty();
                             const pid_t now = ComponentPid("QorHips");
                             return now != before && sits("QorHips", now) && sits("QorNet", byHand.Pid());
                         }))
            << Log() << Log("QorNet");
        EXPECT_FALSE(legacy) << "a legacy limit was made beside the tree";
        EXPECT_EQ(written, ReadText(file));
        ++repairs;
        EXPECT_TRUE(WaitLog("waiting for the main process to write it again", repairs, "QorNet")) << Log("QorNet");
        EXPECT_EQ(byHand.Stop(), 0);
    }
    EXPECT_TRUE(LogHas("component file " + file + " was: not there; written again"));
    EXPECT_EQ(Status()["keeper"]["found"]["file"].asInt(), repairs);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

// A program that does not load the module cannot follow by itself, nor can what it has started.
TEST_F(PlacementTest, ProgramFollowsEveryModeWithItsChildren) {
    WriteComponents(
        "{\"name\": \"QorHips\", \"group\": \"collect-defense\", "
        "\"command\": [\"/bin/sh\", \"-c\", \"sleep 1000 & sleep 1001\"]}");
    Child agent = StartRunningAgent();
    std::map<std::string, pid_t> family;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return (family["program"] = ComponentPid("QorHips")) > 0; }));
    const std::string program = std::to_string(family["program"]);
    const auto readChildren = [&] {
        std::istringstream in(ReadText("/proc/" + program + "/task/" + program + "/children"));
        return static_cast<bool>(in >> family["child 1"] >> family["child 2"]);
    };
    ASSERT_TRUE(Poll(kSettleSeconds, readChildren)) << "it does not run";
    std::vector<pid_t> all;
    for (const auto& each : family) all.push_back(each.second);
    std::sort(all.begin(), all.end());
    const std::string leaf = "/" + Tree() + "/collect-defense/QorHips";
    const auto inLeaf = [&] { return ProcessesIn(CpuRoot() + leaf) == all && ProcessesIn(MemoryRoot() + leaf) == all; };
    EXPECT_TRUE(Poll(kSettleSeconds, inLeaf));
    for (const int mode : {5, 0, 1}) {
        WriteOnline("{\"resourceLimitMode\": " + std::to_string(mode) + "}");
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return OutsideLegacy(family, mode).empty(); }))
            << OutsideLegacy(family, mode);
        WriteOnline("{\"resourceLimitMode\": 13}");
        EXPECT_TRUE(Poll(kSettleSeconds, inLeaf)) << "mode " << mode << " to 13";
    }
    EXPECT_EQ(agent.Stop(), 0);
    for (const auto& each : family) kill(each.second, SIGKILL);
}

TEST_F(PlacementTest, UnlistedComponentHasLeafInItsGroup) {
    WriteComponents(
        "{\"name\": \"Extra\", \"group\": \"guard\", \"load\": \"greedy:1\"}, "
        "{\"name\": \"Program\", \"group\": \"collect-defense\", \"command\": [\"/bin/sleep\", \"1000\"]}");
    Child agent = StartRunningAgent();
    for (const auto& [leaf, name] :
         {std::pair("/guard/Extra", "Extra"), std::pair("/collect-defense/Program", "Program")}) {
        pid_t pid = 0;
        EXPECT_TRUE(Poll(kSettleSeconds,
                         [&, leaf = leaf, name = name] {
                             pid = ComponentPid(name);
                             const std::vector<pid_t> only{pid};
                             return pid > 0 && ProcessesIn(CpuRoot() + "/" + Tree() + leaf) == only &&
                                    ProcessesIn(MemoryRoot() + "/" + Tree() + leaf) == only;
                         }))
            << name << " is in " << ReadText("/proc/" + std::to_string(pid) + "/cgroup");
        EXPECT_EQ(ReadNumber(CpuRoot() + "/" + Tree() + leaf + "/cpu.cfs_quota_us"), -1) << "a quota nobody asked for";
    }
    EXPECT_EQ(ProcessesIn(CpuRoot() + "/" + Tree() + "/main/Tervane"), std::vector<pid_t>{agent.Pid()});
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(PlacementTest, ComponentOfUnknownGroupWaitsForFittingMode) {
    WriteComponents("{\"name\": \"Lost\", \"group\": \"nowhere\"}");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(WaitLog("component Lost is not started: its group \"nowhere\" is not one of the unified limits"));
    SleepMs(6000);  // it is tried again meanwhile
    EXPECT_EQ(LogCount("component Lost is not started"), 1);
    EXPECT_EQ(ComponentPid("Lost"), 0);
    EXPECT_EQ(ProcessesIn(CpuRoot() + "/" + Tree() + "/main/Tervane"), std::vector<pid_t>{agent.Pid()});
    WriteOnline("{\"resourceLimitMode\": 5}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        const pid_t pid = ComponentPid("Lost");
        return pid > 0 && OutsideLegacy({{"Lost", pid}}, 5).empty();
    }));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
