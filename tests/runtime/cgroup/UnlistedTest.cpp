// Components that the module's table does not name: when they count as changed, and which of them get a place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ComponentPublisher.h"
#include "LimitPlan.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace zel {
namespace cgroup {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

CgroupComponentQuota Quota(const std::string& name, const std::string& group, int cpu = 30, int memKb = 10240) {
    CgroupComponentQuota out;
    out.name = name;
    out.cpuGroup = group;
    out.memGroup = group;
    out.cpuQuota100Times = cpu;
    out.memQuotaKB = memKb;
    return out;
}

class UnlistedTest : public ::testing::Test {
protected:
    UnlistedTest() {
        for (const char* name : {"main", "scan"}) {
            GroupTarget group;
            group.name = name;
            m_targets.groups.push_back(group);
        }
    }
    ~UnlistedTest() override { SetUnlistedComponents({}); }

    /// Returns: "name/group/CPU/KB" of each, in order.
    std::vector<std::string> With(const std::vector<CgroupComponentQuota>& listed) {
        m_remarks.clear();
        std::vector<std::string> texts;
        for (const CgroupComponentQuota& one : WithUnlisted(listed, m_targets, m_remarks)) {
            texts.push_back(one.name + "/" + one.cpuGroup + "/" + std::to_string(one.cpuQuota100Times) + "/" +
                            std::to_string(one.memQuotaKB));
        }
        return texts;
    }

    GroupTargets m_targets;
    std::vector<Remark> m_remarks;
};

TEST_F(UnlistedTest, EveryMemberMakesAnotherListAndTheSameListNone) {
    const std::vector<CgroupComponentQuota> first = {Quota("a", "main"), Quota("b", "scan")};
    SetUnlistedComponents(first);
    uint64_t changes = UnlistedChanges();
    SetUnlistedComponents(first);
    EXPECT_EQ(changes, UnlistedChanges());
    const std::vector<std::function<void(CgroupComponentQuota&)>> others = {
        [](CgroupComponentQuota& one) { one.name = "c"; }, [](CgroupComponentQuota& one) { one.cpuGroup = "main"; },
        [](CgroupComponentQuota& one) { one.memGroup = "main"; },
        [](CgroupComponentQuota& one) { ++one.cpuQuota100Times; }, [](CgroupComponentQuota& one) { ++one.memQuotaKB; }};
    for (size_t i = 0; i < others.size(); ++i) {
        std::vector<CgroupComponentQuota> next = first;
        others[i](next.back());
        SetUnlistedComponents(next);
        EXPECT_EQ(++changes, UnlistedChanges()) << "member " << i;
        SetUnlistedComponents(first);
        EXPECT_EQ(++changes, UnlistedChanges()) << "member " << i << ", and back";
    }
    SetUnlistedComponents({first[0]});
    EXPECT_EQ(++changes, UnlistedChanges()) << "one less";
    SetUnlistedComponents({});
    EXPECT_EQ(++changes, UnlistedChanges()) << "none";
    SetUnlistedComponents({});
    EXPECT_EQ(changes, UnlistedChanges());
}

TEST_F(UnlistedTest, ThoseNotListedFollowWithTheirOwnQuotas) {
    SetUnlistedComponents({Quota("b", "scan", 1, 2), Quota("a", "main", 3, 4), Quota("c", "main", 5, 6)});
    EXPECT_THAT(With({Quota("a", "scan", 7, 8)}), ElementsAre("a/scan/7/8", "b/scan/1/2", "c/main/5/6"));
    EXPECT_THAT(m_remarks, IsEmpty());
    SetUnlistedComponents({});
    EXPECT_THAT(With({Quota("a", "scan", 7, 8)}), ElementsAre("a/scan/7/8"));
}

TEST_F(UnlistedTest, OfOneNameTheFirstCountsWhoseGroupIsConfigured) {
    SetUnlistedComponents({Quota("a", "gone", 1, 1), Quota("a", "scan", 2, 2), Quota("a", "main", 3, 3)});
    EXPECT_THAT(With({}), ElementsAre("a/scan/2/2"));
    EXPECT_THAT(m_remarks, IsEmpty());
}

TEST_F(UnlistedTest, OneWithoutAConfiguredGroupIsLeftOutWithAWarning) {
    SetUnlistedComponents({Quota("a", "gone"), Quota("b", "main", 2, 2)});
    EXPECT_THAT(With({}), ElementsAre("b/main/2/2"));
    ASSERT_EQ(1u, m_remarks.size());
    EXPECT_TRUE(m_remarks[0].warning);
    EXPECT_EQ("component a is left out: its group [gone] is not configured", m_remarks[0].text);
    EXPECT_THAT(With({Quota("a", "gone", 5, 5)}), ElementsAre("a/gone/5/5", "b/main/2/2"));
    EXPECT_THAT(m_remarks, IsEmpty()) << "the table's own entry is judged elsewhere";
}

TEST(ObservedEntriesTest, HoldWhatHasAPlaceAndLeaveOutTheRest) {
    ComponentTarget both;
    both.name = "both";
    both.leaves[Controller::kCpu].group = "main";
    both.leaves[Controller::kCpu].quota = 180;
    both.leaves[Controller::kMemory].group = "scan";
    both.leaves[Controller::kMemory].quota = 2048;
    ComponentTarget cpuOnly;
    cpuOnly.name = "cpu";
    cpuOnly.leaves[Controller::kCpu].group = "scan";
    cpuOnly.leaves[Controller::kMemory].quota = 7;
    ComponentTarget refused = both;
    refused.refusal = Error();
    const std::vector<ObservedEntry> entries = MakeObservedEntries({both, refused, cpuOnly});
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ("both", entries[0].name);
    EXPECT_TRUE(entries[0].cpu.present && entries[0].memory.present);
    EXPECT_EQ("main", entries[0].cpu.group);
    EXPECT_EQ(180, entries[0].cpu.quota);
    EXPECT_EQ("scan", entries[0].memory.group);
    EXPECT_EQ(2048, entries[0].memory.quota);
    EXPECT_EQ("cpu", entries[1].name);
    EXPECT_TRUE(entries[1].cpu.present);
    EXPECT_FALSE(entries[1].memory.present);
}

}  // namespace
}  // namespace cgroup
}  // namespace zel
