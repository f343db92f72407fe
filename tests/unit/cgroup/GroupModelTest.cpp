#include "cgroup/GroupModel.h"

#include <climits>

#include "UnifiedFixture.h"

namespace {
std::string Text(const zel::CgroupGroupConfig& g) {
    return doubles::Format("%s cpu=%d %d.%02d mem=%d %d reserved=%d", g.name.c_str(), g.cpuEnabled, g.cpuLimitPercent,
                           g.cpuLimitHundredths, g.memEnabled, g.memLimitKB, g.reserved);
}
std::string Text(const zel::CgroupComponentQuota& q) {
    return doubles::Format("%s %s/%s %d %d", q.name.c_str(), q.cpuGroup.c_str(), q.memGroup.c_str(), q.cpuQuota100Times,
                           q.memQuotaKB);
}
std::string Text(const zel::CgroupTotalLimitConfig& t) {
    return doubles::Format("cpu=%d %d.%02d mem=%d %d", t.cpuEnabled, t.cpuLimitPercent, t.cpuLimitHundredths,
                           t.memEnabled, t.memLimitKB);
}
template <class Record>
Lines Texts(const std::vector<Record>& records) {
    Lines texts;
    for (const Record& record : records) texts.push_back(Text(record));
    return texts;
}

const char* const kParsedGroups = "F4 [MonitorPri] MonitorPri: parsed %d cgroup groups from config";
const char* const kParsedComponents = "F4 [MonitorPri] MonitorPri: parsed %d cgroup components from config";
std::string Parsed(const char* line, int count) {
    std::string text = line;
    return text.replace(text.find("%d"), 2, std::to_string(count));
}
}  // namespace

class GroupModelTest : public UnifiedFixture {
protected:
    void Build(long maxCpu, int maxMem, bool cpuOn = true, bool memOn = true) {
        m_groups.clear();
        m_quotas.clear();
        pri().BuildCgroupGroupConfigs(maxCpu, maxMem, cpuOn, memOn, m_groups, m_quotas);
    }
    std::string Total(long maxCpu, int maxMem, bool cpuOn, bool memOn) {
        zel::CgroupTotalLimitConfig total;
        total.cpuLimitHundredths = 77;  // must be written, not left
        pri().BuildCgroupTotalLimitConfig(maxCpu, maxMem, cpuOn, memOn, total);
        return Text(total);
    }

    std::vector<zel::CgroupGroupConfig> m_groups;
    std::vector<zel::CgroupComponentQuota> m_quotas;
};

TEST(GroupModelArithmeticTest, HeadroomIsHalfTruncatedAndSaturates) {
    const std::pair<long, int> cases[] = {{0, 0},
                                          {1, 1},
                                          {2, 3},
                                          {3, 4},
                                          {15360, 23040},
                                          {1431655764, 2147483646},
                                          {1431655765, 2147483647},
                                          {1431655766, 2147483647},
                                          {INT_MAX, INT_MAX},
                                          {LONG_MAX, INT_MAX}};
    for (const auto& c : cases) EXPECT_EQ(c.second, WithMemHeadroom(c.first)) << c.first;
}

TEST(GroupModelArithmeticTest, RecordsAreEmptyAndZeroWhenNew) {
    EXPECT_EQ(" cpu=0 0.00 mem=0 0 reserved=0", Text(zel::CgroupGroupConfig()));
    EXPECT_EQ(" / 0 0", Text(zel::CgroupComponentQuota()));
    EXPECT_EQ("cpu=0 0.00 mem=0 0", Text(zel::CgroupTotalLimitConfig()));
    const GroupDef group;
    EXPECT_EQ("", group.name);
    EXPECT_EQ(0, group.cpuShare);
    EXPECT_EQ(0, group.memKB);
    const CompDef component;
    EXPECT_EQ("", component.name + component.cpuGroup + component.memGroup);
    EXPECT_EQ(0, component.cpuShare);
    EXPECT_EQ(0, component.memKB);
}

TEST_F(GroupModelTest, BuiltInTablesAtNinePercentAndTwoHundredMb) {
    Build(9, 200);
    EXPECT_EQ(Lines({"main cpu=1 1.80 mem=1 23040 reserved=0", "guard cpu=1 0.00 mem=1 15360 reserved=0",
                     "collect-defense cpu=1 5.40 mem=1 138240 reserved=0"}),
              Texts(m_groups));
    EXPECT_EQ(Lines({"Tervane main/main 36 15360", "TervaneMonitor collect-defense/collect-defense 324 40960",
                     "TervaneUpdate guard/guard 0 10240", "QorHips collect-defense/collect-defense 270 20480",
                     "QorNet collect-defense/collect-defense 270 10240",
                     "QorWebGuard collect-defense/collect-defense 270 20480"}),
              Texts(m_quotas));
    EXPECT_EQ("cpu=1 9.00 mem=1 307200", Total(9, 200, true, true));
    EXPECT_EQ(Lines(), journal());
}

TEST_F(GroupModelTest, BuiltInGroupMemoryIsTheSumOfItsComponents) {
    std::map<std::string, int> sums;
    for (const CompDef& component : BuiltInComponents()) {
        sums[component.memGroup] += component.memKB;
        EXPECT_EQ(component.cpuGroup, component.memGroup) << component.name;
    }
    for (const GroupDef& group : BuiltInGroups()) EXPECT_EQ(group.memKB, sums[group.name]) << group.name;
}

TEST_F(GroupModelTest, ConfiguredGroupsAndComponentsReplaceBuiltIn) {
    pri().m_cgroupGroupsSpec = "main:20:15360,guard:0:10240";
    pri().m_cgroupComponentsSpec = "Tervane:main:guard:2000:15360,Other:guard:main:10000:1024";
    Build(10, 100);
    EXPECT_EQ(Lines({"main cpu=1 2.00 mem=1 11520 reserved=0", "guard cpu=1 0.00 mem=1 7680 reserved=0"}),
              Texts(m_groups));
    EXPECT_EQ(Lines({"Tervane main/guard 40 7680", "Other guard/main 0 512"}), Texts(m_quotas));
    EXPECT_EQ(Lines({Parsed(kParsedGroups, 2), Parsed(kParsedComponents, 2)}), journal());
}

TEST_F(GroupModelTest, GroupsAndComponentsAreChosenIndependently) {
    pri().m_cgroupGroupsSpec = "main:50:200";
    Build(10, 200);
    EXPECT_EQ(1U, m_groups.size());
    EXPECT_EQ(Lines({"Tervane main/main 100 15360", "TervaneMonitor collect-defense/collect-defense 0 40960",
                     "TervaneUpdate guard/guard 0 10240", "QorHips collect-defense/collect-defense 0 20480",
                     "QorNet collect-defense/collect-defense 0 10240",
                     "QorWebGuard collect-defense/collect-defense 0 20480"}),
              Texts(m_quotas));
    EXPECT_EQ(Lines({Parsed(kParsedGroups, 1)}), journal());

    pri().m_cgroupGroupsSpec = "";
    pri().m_cgroupComponentsSpec = "X:collect-defense:m:10000:100";
    Build(10, 200);
    EXPECT_EQ(3U, m_groups.size());
    EXPECT_EQ(Lines({"X collect-defense/m 600 100"}), Texts(m_quotas));
    EXPECT_EQ(Lines({Parsed(kParsedComponents, 1)}), journal());
}

TEST_F(GroupModelTest, OnlyEntriesWithExactlyTheirFieldCountAreTaken) {
    struct {
        const char* text;
        Lines names;
    } const cases[] = {
        {"a:10", {"main", "guard", "collect-defense"}},        {"a:10:100,bad,b:5:200:9", {"a"}},
        {",,,", {"main", "guard", "collect-defense"}},         {"a:1:2,", {"a"}},
        {":", {"main", "guard", "collect-defense"}},           {" main:1:2,b:1:2 ", {" main", "b"}},
        {"a:1:2;b:1:2", {"main", "guard", "collect-defense"}},
    };
    for (const auto& c : cases) {
        pri().m_cgroupGroupsSpec = c.text;
        Build(9, 200);
        Lines names;
        for (const auto& group : m_groups) names.push_back(group.name);
        EXPECT_EQ(c.names, names) << c.text;
        const bool builtIn = c.names.size() == 3;
        EXPECT_EQ(builtIn ? Lines() : Lines({Parsed(kParsedGroups, static_cast<int>(names.size()))}), journal())
            << c.text;
    }
    pri().m_cgroupGroupsSpec = "";
    struct {
        const char* text;
        size_t parsed;
    } const components[] = {
        {"a:b:c:1", 0}, {"a:b:c:1:2", 1}, {"a:b:c:1:2:3", 0}, {"a:b:c:1:2,x,d:e:f:3:4,a:1:2", 2}, {",", 0},
    };
    for (const auto& c : components) {
        pri().m_cgroupComponentsSpec = c.text;
        Build(9, 200);
        EXPECT_EQ(c.parsed == 0 ? 6 : c.parsed, m_quotas.size()) << c.text;
        EXPECT_EQ(c.parsed == 0 ? Lines() : Lines({Parsed(kParsedComponents, static_cast<int>(c.parsed))}), journal())
            << c.text;
    }
}

TEST_F(GroupModelTest, TextThatIsNoNumberCountsAsNothing) {
    pri().m_cgroupGroupsSpec = "a:x:y,b:010:1024";
    pri().m_cgroupComponentsSpec = "c:b:b:x:y";
    Build(10, 200);
    EXPECT_EQ(Lines({"a cpu=1 0.00 mem=1 0 reserved=0", "b cpu=1 1.00 mem=1 1536 reserved=0"}), Texts(m_groups));
    EXPECT_EQ(Lines({"c b/b 0 0"}), Texts(m_quotas));
}

TEST_F(GroupModelTest, NamesAreNotTrimmedSoABlankMakesAnotherGroup) {
    pri().m_cgroupGroupsSpec = " main:20:200";
    pri().m_cgroupComponentsSpec = "a:main:main:10000:1,b: main: main:10000:1";
    Build(10, 200);
    EXPECT_EQ(Lines({"a main/main 0 1", "b  main/ main 200 1"}), Texts(m_quotas));
}

TEST_F(GroupModelTest, OfTwoSameGroupsBothAreBuiltLaterSetsQuota) {
    pri().m_cgroupGroupsSpec = "a:50:200,a:10:400";
    pri().m_cgroupComponentsSpec = "x:a:a:10000:1";
    Build(10, 200);
    EXPECT_EQ(Lines({"a cpu=1 5.00 mem=1 300 reserved=0", "a cpu=1 1.00 mem=1 600 reserved=0"}), Texts(m_groups));
    EXPECT_EQ(Lines({"x a/a 100 1"}), Texts(m_quotas));
    pri().m_cgroupGroupsSpec = "a:50:200,a:0:400";
    Build(10, 200);
    EXPECT_EQ(Lines({"x a/a 0 1"}), Texts(m_quotas));
}

TEST_F(GroupModelTest, AComponentOfAnUnknownGroupGetsMemoryButNoCpu) {
    pri().m_cgroupComponentsSpec = "x:nowhere:elsewhere:10000:2048";
    Build(9, 200);
    EXPECT_EQ(Lines({"x nowhere/elsewhere 0 2048"}), Texts(m_quotas));
}

TEST_F(GroupModelTest, TheCpuGroupSelectsTheQuota) {
    pri().m_cgroupComponentsSpec = "x:main:collect-defense:10000:0";
    Build(10, 200);
    EXPECT_EQ(Lines({"x main/collect-defense 200 0"}), Texts(m_quotas));
}

TEST_F(GroupModelTest, WithoutTheCpuControllerEveryCpuAmountIsZero) {
    Build(9, 200, false, true);
    EXPECT_EQ(Lines({"main cpu=0 0.00 mem=1 23040 reserved=0", "guard cpu=0 0.00 mem=1 15360 reserved=0",
                     "collect-defense cpu=0 0.00 mem=1 138240 reserved=0"}),
              Texts(m_groups));
    for (const auto& quota : m_quotas) EXPECT_EQ(0, quota.cpuQuota100Times) << quota.name;
    EXPECT_EQ("cpu=0 9.00 mem=1 307200", Total(9, 200, false, true));
}

TEST_F(GroupModelTest, WithoutMemoryControllerOnlyComponentsKeepIt) {
    Build(9, 100, true, false);
    EXPECT_EQ(Lines({"main cpu=1 1.80 mem=0 0 reserved=0", "guard cpu=1 0.00 mem=0 0 reserved=0",
                     "collect-defense cpu=1 5.40 mem=0 0 reserved=0"}),
              Texts(m_groups));
    EXPECT_EQ(7680, m_quotas[0].memQuotaKB);
    EXPECT_EQ(20480, m_quotas[1].memQuotaKB);
    EXPECT_EQ("cpu=1 9.00 mem=0 153600", Total(9, 100, true, false));
}

TEST_F(GroupModelTest, AMaximumMemoryOfZeroGivesNoMemoryAnywhere) {
    Build(9, 0);
    for (const auto& group : m_groups) EXPECT_EQ(0, group.memLimitKB) << group.name;
    for (const auto& quota : m_quotas) EXPECT_EQ(0, quota.memQuotaKB) << quota.name;
    EXPECT_EQ("cpu=1 9.00 mem=1 0", Total(9, 0, true, true));
}

TEST_F(GroupModelTest, MemoryIsDividedBeforeTheHeadroomIsAdded) {
    pri().m_cgroupGroupsSpec = "a:0:1";
    Build(9, 299);
    EXPECT_EQ(1, m_groups[0].memLimitKB);  // one combined division would give 2
    Build(9, 399);
    EXPECT_EQ(1, m_groups[0].memLimitKB);
    Build(9, 400);
    EXPECT_EQ(3, m_groups[0].memLimitKB);
}

TEST_F(GroupModelTest, NegativeMemoryIsDroppedForGroupsOnly) {
    pri().m_cgroupGroupsSpec = "a:-1:-200";
    pri().m_cgroupComponentsSpec = "x:a:a:-5:-200";
    Build(9, 300);
    EXPECT_EQ(Lines({"a cpu=1 0.00 mem=1 0 reserved=0"}), Texts(m_groups));
    EXPECT_EQ(Lines({"x a/a 0 -300"}), Texts(m_quotas));
}

TEST_F(GroupModelTest, ProductsSaturateInsteadOfOverflowing) {
    pri().m_cgroupGroupsSpec = "a:2147483647:2147483647";
    pri().m_cgroupComponentsSpec = "x:a:a:2147483647:2147483647,y:a:a:10000:2147483647";
    for (long maxCpu : {2L, 100L, 2147483647L, LONG_MAX}) {
        Build(maxCpu, INT_MAX);
        EXPECT_EQ(Lines({"a cpu=1 21474836.47 mem=1 2147483647 reserved=0"}), Texts(m_groups)) << maxCpu;
        EXPECT_EQ(Lines({"x a/a 2147483647 2147483647", "y a/a 2147483647 2147483647"}), Texts(m_quotas)) << maxCpu;
    }
    EXPECT_EQ("cpu=1 100.00 mem=1 2147483647", Total(100, INT_MAX, true, true));
    EXPECT_EQ("cpu=1 100.00 mem=1 2147483136", Total(100, 1398101, true, true));  // the most MB that fit
    EXPECT_EQ("cpu=1 100.00 mem=1 2147483647", Total(100, 1398102, true, true));
}

TEST_F(GroupModelTest, BuiltInTableSaturatesAtAnEnormousMaximumCpu) {
    Build(LONG_MAX, 200);
    EXPECT_EQ("main cpu=1 21474836.47 mem=1 23040 reserved=0", Text(m_groups[0]));
    EXPECT_EQ(429496729, m_quotas[0].cpuQuota100Times);
}

TEST_F(GroupModelTest, RecordsAreAppendedToWhatIsThere) {
    m_groups.resize(1);
    m_quotas.resize(2);
    pri().BuildCgroupGroupConfigs(9, 200, true, true, m_groups, m_quotas);
    EXPECT_EQ(4U, m_groups.size());
    EXPECT_EQ(8U, m_quotas.size());
    EXPECT_EQ("", m_groups[0].name);
    EXPECT_EQ("main", m_groups[1].name);
    EXPECT_EQ("Tervane", m_quotas[2].name);
}

TEST_F(GroupModelTest, EveryFieldOfTheTotalIsWritten) {
    zel::CgroupTotalLimitConfig total;
    total.cpuEnabled = true;
    total.cpuLimitPercent = 11;
    total.cpuLimitHundredths = 22;
    total.memEnabled = true;
    total.memLimitKB = 33;
    pri().BuildCgroupTotalLimitConfig(0, 0, false, false, total);
    EXPECT_EQ("cpu=0 0.00 mem=0 0", Text(total));
}

TEST_F(GroupModelTest, TheTotalIsFilledWhateverControllersAreWanted) {
    EXPECT_EQ("cpu=0 36.00 mem=0 384000", Total(36, 250, false, false));
    EXPECT_EQ("cpu=1 -1.00 mem=1 -1536", Total(-1, -1, true, true));
    EXPECT_EQ("cpu=1 1.00 mem=1 0", Total(4294967297L, 0, true, true));
    EXPECT_EQ(Lines(), journal());
}
