// What limits would have done, reckoned from the use between two looks.
#include "ObservedBook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "Observation.h"

namespace {

using namespace zel::cgroup;
using zel::ObservedGroup;
using zel::ObservedKill;

constexpr int64_t kSecondNs = 1000000000;

class ObservedBookTest : public testing::Test {
protected:
    ObservedBookTest() { book.SetTree({{"", {5000, 3000}}, {"g", {0, 2000}}, {"g/A", {1000, 1000}}, {"g/B", {0, 0}}}); }
    std::vector<ObservedKill> Look(int64_t cpuMs, int64_t keptKb, int64_t second = 0, int64_t elapsedNs = kSecondNs) {
        return book.Look({{"A", 7, cpuMs * 1000000, keptKb + 10, keptKb}, {"B", 8, 0, 0, 0}}, elapsedNs, second, 1000);
    }
    ObservedGroup Of(const std::string& name) const {
        for (const ObservedGroup& group : book.Groups()) {
            if (group.figures.name == name) return group;
        }
        return {};
    }
    ObservedBook book;
};

TEST_F(ObservedBookTest, QuotaHoldsWhatIsAboveItForTheRestOfTheTime) {
    Look(1000, 0);
    EXPECT_EQ(900, Of("g/A").figures.throttledMs);  // 0.1 s of work in 1 s
    EXPECT_EQ(10, Of("g/A").figures.periods);
    EXPECT_EQ(10, Of("g/A").figures.throttledPeriods);
    EXPECT_EQ(500, Of("").figures.throttledMs);
    EXPECT_EQ(-1, Of("g").figures.throttledMs) << "without a quota";
    Look(100, 0);  // exactly the quota
    EXPECT_EQ(900, Of("g/A").figures.throttledMs);
    EXPECT_EQ(20, Of("g/A").figures.periods);
    EXPECT_EQ(10, Of("g/A").figures.throttledPeriods);
    EXPECT_EQ(1100, Of("g/A").figures.cpuMs);
    EXPECT_EQ(10000, Of("g/A").peakCpu100Times);
    EXPECT_EQ(2000, Of("g/A").observedMs);
}

TEST_F(ObservedBookTest, MoreTimeThanCanBeIsTheMost) {
    Look(2000000000000, 0, 0, 1000);  // a process of many years, seen for the first time
    EXPECT_EQ(INT_MAX, Of("g/A").peakCpu100Times);
    EXPECT_EQ(2000000000000, Of("g/A").figures.cpuMs);
}

TEST_F(ObservedBookTest, FirstLookSaysNothingOfTheCpu) {
    Look(100000, 0, 0, 0);
    EXPECT_EQ(-1, Of("g/A").figures.throttledMs);
    EXPECT_EQ(-1, Of("g/A").figures.cpuMs);
}

TEST_F(ObservedBookTest, OneKillWhileItStaysAboveAndOneAnHour) {
    EXPECT_TRUE(Look(0, 1000).empty()) << "at the limit is not above it";
    const std::vector<ObservedKill> first = Look(0, 1001, 10);
    ASSERT_EQ(1u, first.size());
    EXPECT_EQ("g/A", first[0].group);
    EXPECT_EQ("A", first[0].component);
    EXPECT_EQ(7, first[0].pid);
    EXPECT_EQ(1001, first[0].usedKb);
    EXPECT_EQ(1000, first[0].limitKb);
    EXPECT_TRUE(Look(0, 1500, 20).empty());
    EXPECT_TRUE(Look(0, 950, 30).empty());
    EXPECT_TRUE(Look(0, 1001, 40).empty()) << "it did not come down by a tenth";
    EXPECT_EQ(1u, Look(0, 1001, 10 + 3600).size());
    EXPECT_EQ(1u, Of("g/A").memoryKills) << "still the same";
    EXPECT_TRUE(Look(0, 899, 4000).empty());
    EXPECT_EQ(1u, Look(0, 1001, 4001).size());
    EXPECT_EQ(2u, Of("g/A").memoryKills);
    EXPECT_EQ(2, Of("g/A").figures.limitHits);
    EXPECT_EQ(1000, Of("g/A").lastKillAt);
}

TEST_F(ObservedBookTest, GroupsAreSumsAndTheLargestIsNamed) {
    const std::vector<ObservedKill> kills = book.Look({{"A", 7, 0, 900, 900}, {"B", 8, 0, 1200, 1200}}, 0, 0, 0);
    ASSERT_EQ(1u, kills.size());
    EXPECT_EQ("g", kills[0].group);
    EXPECT_EQ("B", kills[0].component);
    EXPECT_EQ(2100, kills[0].usedKb);
    EXPECT_EQ(2100, Of("").peakMemoryKb);
    // One without a leaf counts for the whole.
    EXPECT_EQ(1u, book.Look({{"X", 9, 0, 3001, 3001}}, 0, 0, 0).size());
}

TEST_F(ObservedBookTest, RowsHaveTheMostSinceTheLastOne) {
    Look(0, 800);
    Look(0, 100);
    const auto memory = [&] {
        for (const zel::CgroupFigures& figures : book.TakeRow()) {
            if (figures.name == "g/A") return figures.memoryKb;
        }
        return int64_t{-1};
    };
    EXPECT_EQ(810, memory());
    EXPECT_EQ(110, memory());
}

TEST_F(ObservedBookTest, ChangedAmountsKeepTheCounts) {
    Look(1000, 0);
    book.SetTree({{"", {5000, 0}}, {"g/A", {2000, 0}}});
    EXPECT_EQ(900, Of("g/A").figures.throttledMs);
    EXPECT_EQ(2000, Of("g/A").figures.cpuLimit100Times);
    EXPECT_EQ(2u, book.Groups().size());
    book.SetTree({});
    EXPECT_TRUE(book.IsEmpty());
}

TEST(ObservedTreeTest, HoldsWhatIsObservedAlone) {
    GroupTargets targets;
    targets.total = {900, 1000};
    targets.groups = {{"g", {500, 600}}};
    ComponentTarget component;
    component.name = "A";
    component.leaves.cpu = {"g", 100, "", std::nullopt};
    component.leaves.memory = {"g", 200, "", std::nullopt};
    const ObservedTree tree = MakeObservedTree(targets, {false, true}, {component});
    EXPECT_EQ((ObservedTree{{"", {0, 1000}}, {"g", {0, 600}}, {"g/A", {0, 200}}}), tree);
}

TEST(ObservedTreeTest, PlacesThatDifferHoldOneControllerEach) {
    GroupTargets targets;
    targets.groups = {{"c", {500, 0}}, {"m", {0, 600}}};
    ComponentTarget component;
    component.name = "A";
    component.leaves.cpu = {"c", 100, "", std::nullopt};
    component.leaves.memory = {"m", 200, "", std::nullopt};
    ObservedBook book;
    book.SetTree(MakeObservedTree(targets, {true, true}, {component}));
    const std::vector<ObservedKill> kills = book.Look({{"A", 7, kSecondNs / 2, 310, 300}}, kSecondNs, 0, 0);
    ASSERT_EQ(1u, kills.size());
    EXPECT_EQ("m/A", kills[0].group);
    std::map<std::string, std::pair<int64_t, int64_t>> use;
    for (const ObservedGroup& group : book.Groups()) {
        use[group.figures.name] = {group.figures.cpuMs, group.figures.memoryKb};
    }
    const std::map<std::string, std::pair<int64_t, int64_t>> expected = {
        {"", {500, 310}}, {"c", {500, 0}}, {"c/A", {500, 0}}, {"m", {0, 310}}, {"m/A", {0, 310}}};
    EXPECT_EQ(expected, use);
}

}  // namespace
