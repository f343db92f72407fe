// The plan: what differs, in which order it is written, and that no group is ever above its parent on the way.
#include "LimitPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <utility>

#include "platform/zel/AgentNames.h"

namespace zel {
namespace cgroup {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr Controller kCpu = Controller::kCpu;
constexpr Controller kMemory = Controller::kMemory;

/// Amounts of both controllers, in force. Negative: the controller has no file there.
GroupFacts Node(const std::string& group, const std::string& leaf, int cpu, int memKb) {
    GroupFacts out;
    out.group = group;
    out.leaf = leaf;
    out.path = "/t" + (group.empty() ? "" : "/" + group) + (leaf.empty() ? "" : "/" + leaf);
    for (const Controller controller : kAllControllers) {
        const int amount = controller == kCpu ? cpu : memKb;
        out.limits[controller].hasFile = amount >= 0;
        out.limits[controller].limit = AskedLimit(controller, group, leaf, amount);
    }
    return out;
}

TreeFacts Tree(Version version, std::vector<GroupFacts> nodes) {
    TreeFacts out;
    out.version = version;
    out.serves = {true, true};
    out.nodes = std::move(nodes);
    return out;
}

GroupTargets Targets(int totalCpu, int totalMemKb, std::vector<GroupTarget> groups) {
    GroupTargets out;
    out.wanted = {true, true};
    out.total = {totalCpu, totalMemKb};
    out.groups = std::move(groups);
    return out;
}

/// "<path> <from>><to>" in amounts.
std::vector<std::string> Shown(const LimitPlan& plan, const TreeFacts& facts) {
    std::vector<std::string> out;
    for (const LimitStep& step : plan.steps) {
        out.push_back(facts.nodes[step.node].path + " " + std::to_string(AmountOf(step.controller, step.inForce)) +
                      ">" + std::to_string(AmountOf(step.controller, step.wanted)));
    }
    return out;
}

std::vector<std::string> Planned(const GroupTargets& targets, const TreeFacts& facts, Controller controller) {
    return Shown(PlanLimits(targets, facts, controller), facts);
}

TEST(LimitPlanTest, IsEmptyWhenEverythingIsInForce) {
    GroupTargets targets = Targets(900, 4096, {{"main", {180, 1024}}, {"guard", {0, 2048}}});
    targets.leaves = {{{kCpu, "main", "T"}, 36}, {{kMemory, "main", "T"}, 512}};
    for (const Version version : {Version::kV1, Version::kV2}) {
        const TreeFacts facts = Tree(version, {Node("", "", 900, 4096), Node("guard", "", 0, 2048),
                                               Node("main", "", 180, 1024), Node("main", "T", 36, 512)});
        EXPECT_THAT(Planned(targets, facts, kCpu), IsEmpty());
        EXPECT_THAT(Planned(targets, facts, kMemory), IsEmpty());
    }
}

TEST(LimitPlanTest, NamesOnlyWhatDiffers) {
    const GroupTargets targets = Targets(900, 4096, {{"main", {180, 1024}}});
    const TreeFacts facts = Tree(Version::kV2, {Node("", "", 900, 8192), Node("main", "", 0, 1024)});
    EXPECT_THAT(Planned(targets, facts, kCpu), ElementsAre("/t/main 0>180"));
    EXPECT_THAT(Planned(targets, facts, kMemory), ElementsAre("/t 8192>4096"));
}

TEST(LimitPlanTest, GrowsFromTheTopThenShrinksFromTheLeaves) {
    GroupTargets targets = Targets(2000, 0, {{"a", {1000, 0}}, {"b", {300, 0}}});
    targets.leaves = {{{kCpu, "a", "L"}, 800}, {{kCpu, "b", "L"}, 200}};
    const TreeFacts facts = Tree(Version::kV1, {Node("", "", 900, 0), Node("b", "", 600, 0), Node("b", "L", 500, 0),
                                                Node("a", "", 400, 0), Node("a", "L", 100, 0)});
    EXPECT_THAT(Planned(targets, facts, kCpu),
                ElementsAre("/t 900>2000", "/t/a 400>1000", "/t/a/L 100>800", "/t/b/L 500>200", "/t/b 600>300"));
}

TEST(LimitPlanTest, TheMainProcessGrowsFirstAndShrinksLast) {
    GroupTargets targets = Targets(2000, 0, {{"a", {1000, 0}}, {"main", {900, 0}}});
    targets.leaves = {{{kCpu, "a", "L"}, 800}, {{kCpu, "main", "Tervane"}, 400}};
    const auto tree = [](int group, int leaf) {
        return Tree(Version::kV1, {Node("", "", 3000, 0), Node("a", "", group, 0), Node("a", "L", leaf, 0),
                                   Node("main", "", group, 0), Node("main", "Tervane", leaf, 0)});
    };
    EXPECT_THAT(Planned(targets, tree(300, 200), kCpu), ElementsAre("/t/main 300>900", "/t/main/Tervane 200>400",
                                                                    "/t/a 300>1000", "/t/a/L 200>800", "/t 3000>2000"));
    EXPECT_THAT(Planned(targets, tree(1100, 1100), kCpu),
                ElementsAre("/t/a/L 1100>800", "/t/main/Tervane 1100>400", "/t/a 1100>1000", "/t/main 1100>900",
                            "/t 3000>2000"));
}

// What is left to do of a change is not done with what it had before.
TEST(LimitPlanTest, AMainLeafWithAllOfItsGroupGrowsWithIt) {
    struct Row {
        int group, leaf, published;
        int next;  ///< of the leaf
    };
    const Row rows[] = {{300, 300, 300, 900},  // all of it, as published
                        {300, 200, 200, 200},  // a part
                        {300, 100, 300, 300},  // not as published: somebody else's doing
                        {900, 900, 900, 900},  // nothing grows
                        {1200, 1200, 1200, 900}};
    for (const Row& row : rows) {
        for (const Version version : {Version::kV1, Version::kV2}) {
            GroupTargets targets = Targets(2000, 0, {{"main", {900, 0}}});
            targets.leaves = {{{kCpu, "main", "Tervane"}, row.published}};
            const TreeFacts facts = Tree(
                version, {Node("", "", 2000, 0), Node("main", "", row.group, 0), Node("main", "Tervane", row.leaf, 0)});
            int next = row.leaf;
            for (const LimitStep& step : PlanLimits(targets, facts, kCpu, Leaves::kAreToBePublished).steps) {
                if (step.node == 2) next = static_cast<int>(AmountOf(kCpu, step.wanted));
            }
            // Version 1 alone holds a leaf to its group.
            const bool above = version == Version::kV2 && row.published > 900;
            EXPECT_EQ(above ? row.published : row.next, next) << row.group << " " << row.leaf << " " << row.published;
            for (const LimitStep& step : PlanLimits(targets, facts, kCpu).steps) {
                if (step.node == 2) {
                    EXPECT_LE(AmountOf(kCpu, step.wanted), row.published) << "what stands, stands";
                }
            }
        }
    }
}

TEST(LimitPlanTest, ShrinksTheParentLast) {
    const GroupTargets targets = Targets(100, 0, {{"a", {50, 0}}});
    const TreeFacts facts = Tree(Version::kV1, {Node("", "", 900, 0), Node("a", "", 400, 0)});
    EXPECT_THAT(Planned(targets, facts, kCpu), ElementsAre("/t/a 400>50", "/t 900>100"));
}

TEST(LimitPlanTest, SwitchesOffWithNoLimitAsEveryTarget) {
    GroupTargets targets = Targets(900, 4096, {{"main", {180, 1024}}});
    targets.leaves = {{{kCpu, "main", "T"}, 36}};
    targets.wanted = {false, true};
    const TreeFacts facts = Tree(Version::kV1, {Node("", "", 900, 4096), Node("main", "", 180, 1024),
                                                Node("main", "T", 36, 0), Node("old", "", 77, 0)});
    EXPECT_THAT(Planned(targets, facts, kCpu),
                ElementsAre("/t 900>0", "/t/main 180>0", "/t/old 77>0", "/t/main/T 36>0"));
    EXPECT_THAT(Planned(targets, facts, kMemory), IsEmpty());
}

TEST(LimitPlanTest, HoldsACpuQuotaToTheParentsOnVersion1Only) {
    GroupTargets targets = Targets(1000, 1024, {{"main", {2000, 4096}}});
    targets.leaves = {{{kCpu, "main", "T"}, 20000}, {{kMemory, "main", "T"}, 8192}};
    for (const Version version : {Version::kV1, Version::kV2}) {
        const TreeFacts facts = Tree(version, {Node("", "", 0, 0), Node("main", "", 0, 0), Node("main", "T", 0, 0)});
        const bool first = version == Version::kV1;
        EXPECT_THAT(Planned(targets, facts, kCpu),
                    ElementsAre(first ? "/t/main/T 0>1000" : "/t/main/T 0>20000",
                                first ? "/t/main 0>1000" : "/t/main 0>2000", "/t 0>1000"));
        EXPECT_THAT(Planned(targets, facts, kMemory), ElementsAre("/t/main/T 0>8192", "/t/main 0>4096", "/t 0>1024"));
        EXPECT_EQ(first ? 1000 : 20000, AmountOf(kCpu, LeafLimit(targets, version, {kCpu, "main", "T"}, 20000)));
        EXPECT_EQ(8192, AmountOf(kMemory, LeafLimit(targets, version, {kMemory, "main", "T"}, 8192)));
        EXPECT_EQ(0, AmountOf(kCpu, LeafLimit(targets, version, {kCpu, "main", "T"}, 0)));
    }
}

TEST(LimitPlanTest, HoldsTheTreeToWhatOthersLeaveAboveIt) {
    GroupTargets targets = Targets(9000, 0, {{"main", {4000, 0}}, {"guard", {0, 0}}});
    targets.leaves = {{{kCpu, "main", "T"}, 3500}, {{kCpu, "guard", "U"}, 5000}};
    targets.outer = LimitFromAmount(kCpu, 3000);
    const std::vector<GroupFacts> nodes = {Node("", "", 0, 0), Node("guard", "", 0, 0), Node("guard", "U", 0, 0),
                                           Node("main", "", 0, 0), Node("main", "T", 0, 0)};
    EXPECT_THAT(Planned(targets, Tree(Version::kV1, nodes), kCpu),
                ElementsAre("/t/guard/U 0>3000", "/t/main/T 0>3000", "/t/main 0>3000", "/t 0>3000"));
    EXPECT_EQ(3000, AmountOf(kCpu, LeafLimit(targets, Version::kV1, {kCpu, "guard", "U"}, 5000)));
    targets.total.cpu = 0;
    EXPECT_THAT(Planned(targets, Tree(Version::kV1, nodes), kCpu),
                ElementsAre("/t/guard/U 0>3000", "/t/main/T 0>3000", "/t/main 0>3000"));
    EXPECT_EQ(3000, AmountOf(kCpu, LeafLimit(targets, Version::kV1, {kCpu, "guard", "U"}, 5000)));
    EXPECT_EQ(9000, AmountOf(kCpu, TotalLimit(Targets(9000, 0, {}), Version::kV1, kCpu)));
}

TEST(LimitPlanTest, HoldsALeafToTheTotalWhereItsGroupHasNoLimit) {
    GroupTargets targets = Targets(1000, 0, {{"main", {0, 0}}});
    targets.leaves = {{{kCpu, "main", "T"}, 3000}};
    const TreeFacts facts =
        Tree(Version::kV1, {Node("", "", 1000, 0), Node("main", "", 0, 0), Node("main", "T", 0, 0)});
    EXPECT_THAT(Planned(targets, facts, kCpu), ElementsAre("/t/main/T 0>1000"));
}

TEST(LimitPlanTest, KeepsWhatIsNotConfiguredWithinItsParents) {
    const GroupTargets targets = Targets(500, 0, {{"main", {180, 0}}});
    const TreeFacts facts =
        Tree(Version::kV1,
             {Node("", "", 900, 0), Node("main", "", 180, 0), Node("main", "old", 150, 0), Node("gone", "", 540, 0),
              Node("gone", "L", 300, 0), Node("gone", "M", 520, 0), Node("free", "", 0, 0)});
    EXPECT_THAT(Planned(targets, facts, kCpu), ElementsAre("/t/gone/M 520>500", "/t/gone 540>500", "/t 900>500"));
}

TEST(LimitPlanTest, HoldsAPublishedLeafToItsForgottenGroup) {
    GroupTargets targets = Targets(900, 0, {{"main", {180, 0}}});
    targets.leaves = {{{kCpu, "gone", "L"}, 700}};
    const TreeFacts facts =
        Tree(Version::kV1, {Node("", "", 900, 0), Node("gone", "", 540, 0), Node("gone", "L", 540, 0)});
    EXPECT_THAT(Planned(targets, facts, kCpu), IsEmpty());
}

TEST(LimitPlanTest, TellsOfAMissingFileOnlyWhereALimitIsAskedFor) {
    GroupTargets targets = Targets(900, 0, {{"main", {180, 0}}, {"guard", {0, 0}}});
    targets.leaves = {{{kCpu, "main", "T"}, 36}, {{kCpu, "main", "U"}, 0}};
    const TreeFacts facts =
        Tree(Version::kV2, {Node("", "", -1, -1), Node("guard", "", -1, -1), Node("main", "", -1, -1),
                            Node("main", "T", -1, -1), Node("main", "U", -1, -1), Node("gone", "", -1, -1)});
    const LimitPlan plan = PlanLimits(targets, facts, kCpu);
    EXPECT_THAT(plan.steps, IsEmpty());
    ASSERT_EQ(3u, plan.problems.size());
    EXPECT_EQ("cannot limit /t: no controller; it has no file of controller cpu", plan.problems[0].Text());
    EXPECT_EQ("cannot limit /t/main: no controller; it has no file of controller cpu", plan.problems[1].Text());
    EXPECT_EQ("cannot limit /t/main/T: no controller; it has no file of controller cpu", plan.problems[2].Text());
    EXPECT_THAT(PlanLimits(targets, facts, kMemory).problems, IsEmpty());
}

TEST(LimitPlanTest, TellsOfALimitThatCannotBeReadAndPlansTheOthers) {
    const GroupTargets targets = Targets(900, 0, {{"main", {180, 0}}});
    TreeFacts facts = Tree(Version::kV1, {Node("", "", 0, 0), Node("main", "", 100, 0)});
    facts.nodes[0].limits.cpu.failure = ErrnoError(5, "read", "/t/cpu.cfs_quota_us");
    const LimitPlan plan = PlanLimits(targets, facts, kCpu);
    EXPECT_THAT(Shown(plan, facts), ElementsAre("/t/main 100>180"));
    ASSERT_EQ(1u, plan.problems.size());
    EXPECT_EQ("/t/cpu.cfs_quota_us", plan.problems[0].path);
}

TEST(LimitPlanTest, SeesALimitWithSwapThatIsNotOurs) {
    const GroupTargets targets = Targets(0, 4096, {});
    TreeFacts facts = Tree(Version::kV1, {Node("", "", 0, 4096)});
    facts.nodes[0].limits.memory.hasSwapLimit = true;
    EXPECT_THAT(Planned(targets, facts, kMemory), ElementsAre("/t 4096>4096"));
    facts.nodes[0].limits.memory.swapBytes = SwapLimitFor(Version::kV1, 4096 * 1024);
    EXPECT_THAT(Planned(targets, facts, kMemory), IsEmpty());
    // Version 2 counts swap alone.
    facts.version = Version::kV2;
    EXPECT_THAT(Planned(targets, facts, kMemory), ElementsAre("/t 4096>4096"));
    facts.nodes[0].limits.memory.swapBytes = 0;
    EXPECT_THAT(Planned(targets, facts, kMemory), IsEmpty());
    facts.nodes[0].limits.memory.hasSwapLimit = false;
    facts.nodes[0].limits.memory.swapBytes = kUnlimited;
    EXPECT_THAT(Planned(targets, facts, kMemory), IsEmpty()) << "without swap accounting there is nothing to set";
}

TEST(LimitPlanTest, SeesTheSameShareInAnotherPeriod) {
    const GroupTargets targets = Targets(900, 0, {});
    TreeFacts facts = Tree(Version::kV2, {Node("", "", 900, 0)});
    facts.nodes[0].limits.cpu.limit.cpu = {18000, 200000};
    EXPECT_THAT(Planned(targets, facts, kCpu), ElementsAre("/t 900>900"));
}

TEST(LimitPlanTest, KnowsWhetherAControllerIsInUse) {
    const GroupTargets asked = Targets(900, 0, {{"main", {0, 1024}}});
    struct Case {
        const char* what;
        TreeFacts facts;
        bool cpu;
        bool memory;
    };
    TreeFacts unreadable = Tree(Version::kV1, {Node("", "", 900, 0)});
    unreadable.nodes[0].limits.cpu.failure = ErrnoError(5, "read", "/t");
    const std::vector<Case> cases = {
        {"no tree", Tree(Version::kV1, {}), false, false},
        {"nothing in force", Tree(Version::kV1, {Node("", "", 0, 0), Node("main", "", 0, 0)}), false, false},
        {"total in force", Tree(Version::kV1, {Node("", "", 100, 0)}), true, false},
        {"a group's in force", Tree(Version::kV1, {Node("", "", 0, 0), Node("main", "", 0, 64)}), false, true},
        {"a leaf's does not count", Tree(Version::kV1, {Node("", "", 0, 0), Node("main", "T", 5, 64)}), false, false},
        {"an old group's neither", Tree(Version::kV1, {Node("", "", 0, 0), Node("old", "", 5, 64)}), false, false},
        {"no file at the parent", Tree(Version::kV2, {Node("", "", -1, -1), Node("main", "", 5, 64)}), false, false},
        {"unreadable", unreadable, false, false},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(each.cpu, IsInUse(asked, each.facts, kCpu)) << each.what;
        EXPECT_EQ(each.memory, IsInUse(asked, each.facts, kMemory)) << each.what;
    }
    const TreeFacts bare = Tree(Version::kV1, {Node("", "", 0, 0)});
    EXPECT_TRUE(IsInUse(Targets(0, 0, {}), bare, kCpu)) << "none asked for, and the tree is there";
    GroupTargets off = asked;
    off.wanted = {false, false};
    EXPECT_FALSE(IsInUse(off, Tree(Version::kV1, {Node("", "", 900, 4096)}), kCpu));
}

// --- property -------------------------------------------------------------------------------------------------------

using Random = std::mt19937;

int Roll(Random& random, int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(random);
}

/// Mostly small amounts, where periods differ; some none, some large.
int RandomAmount(Random& random) {
    switch (Roll(random, 0, 4)) {
        case 0: return 0;
        case 1: return Roll(random, 1, 120);
        case 2: return Roll(random, 121, 2000);
        default: return Roll(random, 1, 40000);
    }
}

/// Returns: path of the first group whose CPU limit is above the nearest one over it; empty when the tree is sound.
/// The kernel's own rule for version 1: a group without a quota has its parent's.
std::string AboveItsParent(const TreeFacts& facts) {
    const Limit parent = facts.nodes.front().limits.cpu.limit;
    for (const GroupFacts& node : facts.nodes) {
        Limit bound = node.Depth() == 0 ? Limit() : parent;
        for (const GroupFacts& above : facts.nodes) {
            const bool over = node.Depth() == 2 && above.Depth() == 1 && above.group == node.group;
            if (over && IsLimited(kCpu, above.limits.cpu.limit)) bound = above.limits.cpu.limit;
        }
        const Limit& own = node.limits.cpu.limit;
        if (IsLimited(kCpu, own) && IsTighter(kCpu, bound, own)) return node.path;
    }
    return {};
}

void Apply(const LimitPlan& plan, TreeFacts& facts, size_t count) {
    for (size_t index = 0; index < count; ++index) {
        const LimitStep& step = plan.steps[index];
        facts.nodes[step.node].limits[step.controller].limit = step.wanted;
    }
}

GroupTargets RandomTargets(Random& random) {
    GroupTargets out = Targets(RandomAmount(random), RandomAmount(random), {});
    if (Roll(random, 0, 9) == 0) out.wanted.cpu = false;
    out.leaves.emplace();
    for (const char* name : {"a", "b", "c"}) {
        if (Roll(random, 0, 3) == 0) continue;
        out.groups.push_back({name, {RandomAmount(random), RandomAmount(random)}});
        for (const char* leaf : {"L", kMainComponent}) {
            if (Roll(random, 0, 2) != 0) (*out.leaves)[{kCpu, name, leaf}] = RandomAmount(random);
        }
    }
    return out;
}

TEST(LimitPlanTest, NeverHasAGroupAboveItsParentOnTheWay) {
    Random random(20240611);
    size_t steps = 0;
    for (int round = 0; round < 4000; ++round) {
        std::vector<GroupFacts> nodes = {Node("", "", 0, 0)};
        for (const char* group : {"a", "b", "c"}) {
            nodes.push_back(Node(group, "", 0, 0));
            for (const char* leaf : {"L", kMainComponent}) nodes.push_back(Node(group, leaf, 0, 0));
        }
        TreeFacts facts = Tree(Version::kV1, std::move(nodes));
        // Three configurations in a row: each begins where the one before ended, or was broken off.
        for (int change = 0; change < 3; ++change) {
            const GroupTargets targets = RandomTargets(random);
            const Leaves leaves = Roll(random, 0, 1) == 0 ? Leaves::kArePublished : Leaves::kAreToBePublished;
            const LimitPlan plan = PlanLimits(targets, facts, kCpu, leaves);
            ASSERT_THAT(plan.problems, IsEmpty());
            for (size_t done = 1; done <= plan.steps.size(); ++done) {
                TreeFacts then = facts;
                Apply(plan, then, done);
                ASSERT_EQ("", AboveItsParent(then)) << "round " << round << " change " << change << " step " << done;
            }
            steps += plan.steps.size();
            const bool brokenOff = Roll(random, 0, 4) == 0;
            const size_t last = plan.steps.size();
            Apply(plan, facts, brokenOff ? static_cast<size_t>(Roll(random, 0, static_cast<int>(last))) : last);
            if (!brokenOff && leaves == Leaves::kArePublished) {
                ASSERT_THAT(PlanLimits(targets, facts, kCpu).steps, IsEmpty()) << "a plan that was carried out is done";
            }
        }
    }
    EXPECT_GT(steps, 20000u);
}

}  // namespace
}  // namespace cgroup
}  // namespace zel
