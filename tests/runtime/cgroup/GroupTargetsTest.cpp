// What a configuration asks of the tree: names, amounts, places.
#include "GroupTargets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "ComponentFile.h"

namespace zel {
namespace cgroup {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

CgroupGroupConfig Config(const std::string& name, int percent, int hundredths, int memKb, bool cpuOn = true,
                         bool memOn = true) {
    CgroupGroupConfig out;
    out.name = name;
    out.cpuLimitPercent = percent;
    out.cpuLimitHundredths = hundredths;
    out.memLimitKB = memKb;
    out.cpuEnabled = cpuOn;
    out.memEnabled = memOn;
    return out;
}

CgroupComponentQuota Quota(const std::string& name, const std::string& cpuGroup, const std::string& memGroup,
                           int cpu = 30, int memKb = 10240) {
    CgroupComponentQuota out;
    out.name = name;
    out.cpuGroup = cpuGroup;
    out.memGroup = memGroup;
    out.cpuQuota100Times = cpu;
    out.memQuotaKB = memKb;
    return out;
}

constexpr Flags kBoth{true, true};

TEST(GroupTargetsTest, TurnsEveryConfigurationIntoAmounts) {
    struct Case {
        CgroupGroupConfig config;
        Flags wanted;
        int cpu;
        int memory;
    };
    const std::vector<Case> cases = {
        {Config("main", 1, 80, 23040), kBoth, 180, 23040},
        {Config("main", 0, 36, 0), kBoth, 36, 0},
        {Config("main", 0, 0, 0), kBoth, 0, 0},
        {Config("main", -5, -1, -7), kBoth, 0, 0},
        {Config("main", INT_MAX, 99, INT_MAX), kBoth, INT_MAX, INT_MAX},
        {Config("main", 9, 0, 100, false, true), kBoth, 0, 100},
        {Config("main", 9, 0, 100, true, false), kBoth, 900, 0},
        {Config("main", 9, 0, 100), {true, false}, 900, 0},
        {Config("main", 9, 0, 100), {false, true}, 0, 100},
        {Config("main", 9, 0, 100), {false, false}, 0, 0},
    };
    for (size_t index = 0; index < cases.size(); ++index) {
        const Case& each = cases[index];
        std::vector<Error> refused;
        const GroupTargets targets = BuildGroupTargets(each.wanted, nullptr, {each.config}, refused);
        ASSERT_EQ(1u, targets.groups.size()) << index;
        EXPECT_EQ(each.cpu, targets.groups[0].limits.cpu) << index;
        EXPECT_EQ(each.memory, targets.groups[0].limits.memory) << index;
        EXPECT_TRUE(refused.empty()) << index;
        EXPECT_EQ(each.cpu > 0, targets.AsksFor(Controller::kCpu)) << index;
    }
}

TEST(GroupTargetsTest, TakesTheTotalAsItTakesAGroup) {
    CgroupTotalLimitConfig total;
    total.cpuEnabled = true;
    total.cpuLimitPercent = 9;
    total.cpuLimitHundredths = 5;
    total.memEnabled = true;
    total.memLimitKB = 307200;
    std::vector<Error> refused;
    GroupTargets targets = BuildGroupTargets(kBoth, &total, {}, refused);
    EXPECT_EQ(905, targets.total.cpu);
    EXPECT_EQ(307200, targets.total.memory);
    EXPECT_TRUE(targets.AsksFor(Controller::kMemory));
    targets = BuildGroupTargets({false, true}, &total, {}, refused);
    EXPECT_EQ(0, targets.total.cpu);
    EXPECT_FALSE(targets.AsksFor(Controller::kCpu));
    targets = BuildGroupTargets(kBoth, nullptr, {}, refused);
    EXPECT_EQ(0, targets.total.memory);
}

TEST(GroupTargetsTest, LeavesOutUnusableNamesAndSaysWhich) {
    std::vector<Error> refused;
    const GroupTargets targets = BuildGroupTargets(
        kBoth, nullptr, {Config("../evil", 1, 0, 1), Config("main", 2, 0, 2), Config("", 3, 0, 3)}, refused);
    ASSERT_EQ(1u, targets.groups.size());
    EXPECT_EQ(200, targets.Find("main")->limits.cpu);
    ASSERT_EQ(2u, refused.size());
    EXPECT_EQ(
        "cannot make group [../evil]: refused; only ASCII letters, digits, '.', '_' and '-' are allowed in its name",
        refused[0].Text());
    EXPECT_THAT(refused[1].Text(), HasSubstr("[]"));
}

TEST(GroupTargetsTest, TakesTheLaterOfTwoGroupsWithOneName) {
    std::vector<Error> refused;
    const GroupTargets targets =
        BuildGroupTargets(kBoth, nullptr, {Config("main", 1, 0, 1), Config("main", 2, 0, 2)}, refused);
    ASSERT_EQ(1u, targets.groups.size());
    EXPECT_EQ(200, targets.groups[0].limits.cpu);
    EXPECT_TRUE(refused.empty());
}

TEST(GroupTargetsTest, HasTheMainGroupConfiguredOrNot) {
    std::vector<Error> refused;
    const GroupTargets targets = BuildGroupTargets(kBoth, nullptr, {Config("guard", 1, 0, 1)}, refused);
    ASSERT_NE(nullptr, targets.Find("main"));
    EXPECT_EQ(0, targets.Find("main")->limits.cpu);
    EXPECT_EQ(nullptr, targets.Find("Main"));
}

TEST(GroupTargetsTest, BoundsTheNumberOfGroups) {
    std::vector<CgroupGroupConfig> configs;
    for (size_t index = 0; index < kMaxGroups + 2; ++index)
        configs.push_back(Config("g" + std::to_string(index), 1, 0, 1));
    std::vector<Error> refused;
    const GroupTargets targets = BuildGroupTargets(kBoth, nullptr, configs, refused);
    EXPECT_EQ(kMaxGroups + 1, targets.groups.size()) << "and the main process's";
    ASSERT_EQ(2u, refused.size());
    EXPECT_THAT(refused[0].Text(), HasSubstr("too many groups"));
}

TEST(GroupTargetsTest, KeepsTheLeavesThatHaveAPlace) {
    std::vector<Error> refused;
    GroupTargets targets = BuildGroupTargets(kBoth, nullptr, {Config("guard", 1, 0, 1)}, refused);
    EXPECT_TRUE(targets.KeepsLeaf(kBoth, "guard", "Anything")) << "nothing was published yet";
    EXPECT_FALSE(targets.KeepsLeaf(kBoth, "gone", "Anything"));
    targets.leaves = {{{Controller::kCpu, "guard", "Update"}, 5}};
    EXPECT_TRUE(targets.KeepsLeaf(kBoth, "guard", "Update"));
    EXPECT_TRUE(targets.KeepsLeaf({true, false}, "guard", "Update"));
    EXPECT_FALSE(targets.KeepsLeaf({false, true}, "guard", "Update")) << "a tree of the other controller";
    EXPECT_FALSE(targets.KeepsLeaf(kBoth, "guard", "Other"));
    EXPECT_TRUE(targets.KeepsLeaf(kBoth, "main", "Tervane")) << "the main process's place";
    EXPECT_FALSE(targets.KeepsLeaf(kBoth, "main", "Other"));
    EXPECT_EQ(5, targets.QuotaOf({Controller::kCpu, "guard", "Update"}));
    EXPECT_EQ(std::nullopt, targets.QuotaOf({Controller::kMemory, "guard", "Update"}));
}

/// "<cpu group>/<cpu quota> <memory group>/<memory quota>", "-" without a leaf.
std::string Shown(const ComponentTarget& target) {
    const auto one = [](const LeafTarget& leaf) {
        return leaf.group.empty() ? "-" : leaf.group + "/" + std::to_string(leaf.quota);
    };
    return target.refusal ? "refused" : one(target.leaves.cpu) + " " + one(target.leaves.memory);
}

TEST(GroupTargetsTest, DecidesEveryComponentsPlace) {
    std::vector<Error> refused;
    const GroupTargets targets =
        BuildGroupTargets(kBoth, nullptr, {Config("a", 1, 0, 1), Config("b", 1, 0, 1)}, refused);
    struct Case {
        CgroupComponentQuota quota;
        Flags inUse;
        bool oneHierarchy;
        const char* place;
        bool noted;
        int refusals;
    };
    const std::vector<Case> cases = {
        {Quota("C", "a", "a"), kBoth, false, "a/30 a/10240", false, 0},
        {Quota("C", "a", "b"), kBoth, false, "a/30 b/10240", false, 0},
        {Quota("C", "a", "b"), kBoth, true, "a/30 a/10240", true, 0},
        {Quota("C", "a", "a"), kBoth, true, "a/30 a/10240", false, 0},
        {Quota("C", "a", "b"), {false, true}, true, "- b/10240", false, 0},
        {Quota("C", "a", "b"), {true, false}, true, "a/30 -", false, 0},
        {Quota("C", "a", "none"), kBoth, false, "a/30 -", false, 1},
        {Quota("C", "none", "b"), kBoth, true, "- b/10240", false, 1},
        {Quota("C", "none", "none"), kBoth, true, "- -", false, 2},
        {Quota("C", "a", "none"), kBoth, true, "a/30 a/10240", true, 0},
        {Quota("C", "a", "a", -3, -4), kBoth, false, "a/0 a/0", false, 0},
        {Quota("../C", "a", "a"), kBoth, false, "refused", false, 0},
        {Quota("_own", "a", "a"), kBoth, false, "refused", false, 0},
        {Quota("", "a", "a"), kBoth, false, "refused", false, 0},
    };
    for (size_t index = 0; index < cases.size(); ++index) {
        const Case& each = cases[index];
        const std::vector<ComponentTarget> out =
            BuildComponentTargets({each.quota}, targets, each.inUse, each.oneHierarchy);
        ASSERT_EQ(1u, out.size());
        EXPECT_EQ(each.place, Shown(out[0])) << index;
        EXPECT_EQ(each.noted, !out[0].leaves.memory.note.empty()) << index;
        EXPECT_EQ(each.refusals, static_cast<int>(out[0].leaves.cpu.refusal.has_value()) +
                                     static_cast<int>(out[0].leaves.memory.refusal.has_value()))
            << index;
    }
}

TEST(GroupTargetsTest, TakesTheFirstOfTwoComponentsWithOneName) {
    std::vector<Error> refused;
    const GroupTargets targets = BuildGroupTargets(kBoth, nullptr, {}, refused);
    std::vector<CgroupComponentQuota> quotas = {Quota("C", "main", "main", 1, 2), Quota("C", "main", "main", 3, 4)};
    std::vector<std::string> shown;
    for (const ComponentTarget& each : BuildComponentTargets(quotas, targets, kBoth, false))
        shown.push_back(Shown(each));
    EXPECT_THAT(shown, ElementsAre("main/1 main/2", "refused"));
    quotas.clear();
    for (size_t index = 0; index < kMaxComponents + 1; ++index)
        quotas.push_back(Quota("c" + std::to_string(index), "main", "main"));
    const std::vector<ComponentTarget> many = BuildComponentTargets(quotas, targets, kBoth, false);
    EXPECT_FALSE(many[kMaxComponents - 1].refusal.has_value());
    EXPECT_TRUE(many[kMaxComponents].refusal.has_value());
}

// 0 and 1 percent give the main process a share that needs 10 s for 10 ms of work.
TEST(GroupTargetsTest, MainProcessKeepsTheLeastThatItAnswersWith) {
    const struct {
        int main, total, mainRaised, totalRaised;
    } cases[] = {{20, 100, 33, 113},   {32, 100, 33, 101}, {33, 100, 33, 100},
                 {180, 900, 180, 900}, {0, 100, 0, 100},   {20, 0, 33, 0}};
    for (const auto& c : cases) {
        CgroupTotalLimitConfig total;
        total.cpuEnabled = true;
        total.cpuLimitPercent = c.total / 100;
        std::vector<Error> refused;
        const GroupTargets targets = BuildGroupTargets(
            {true, true}, &total, {Config("main", 0, c.main, 0), Config("other", 0, c.main, 0)}, refused);
        EXPECT_EQ(c.mainRaised, targets.Find("main")->limits.cpu) << c.main;
        EXPECT_EQ(c.main, targets.Find("other")->limits.cpu) << "nobody else has more, or less";
        EXPECT_EQ(c.totalRaised, targets.total.cpu) << c.main;
        CgroupComponentQuota main;
        main.name = "Tervane";
        main.cpuGroup = main.memGroup = "main";
        main.cpuQuota100Times = c.main / 5;
        CgroupComponentQuota worker = main;
        worker.name = "Worker";
        const auto leaves = BuildComponentTargets({main, worker}, targets, {true, true}, false);
        EXPECT_EQ(c.main == 0 ? 0 : std::max(33, c.main / 5), leaves[0].leaves.cpu.quota) << c.main;
        EXPECT_EQ(c.main / 5, leaves[1].leaves.cpu.quota);
    }
}

}  // namespace
}  // namespace cgroup
}  // namespace zel
