// What is read of groups and told of them, on hosts of both versions made of files: every counter in its whole width,
// and what is missing or damaged.
#include <string>
#include <utility>
#include <vector>

#include "FilesHost.h"
#include "kernel/GroupDir.h"
#include "kernel/Limits.h"
#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupObserve.h"
#include "platform/zel/AgentNames.h"

using namespace fileshost;
using namespace zel::cgroup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr int64_t kBig = 9000000000001;  ///< more than 32 bits hold, also in thousandths

std::string Join(const std::vector<int64_t>& numbers) {
    std::string out;
    for (const int64_t number : numbers) out += (out.empty() ? "" : " ") + std::to_string(number);
    return out;
}

class FilesCountersTest : public FilesTree {
protected:
    void MakeOne(Version version, bool swap = true) {
        Begin(version, "/", swap);
        for (const char* each : {"+cpu", "+memory"}) host->Kernel().WriteAs("", "cgroup.subtree_control", each);
        ASSERT_EQ(0, host->Kernel().MakeGroup("/a"));
        auto opened = GroupDir::Open(host->Mount() + "/a", version);
        ASSERT_TRUE(opened.Ok());
        group = std::move(*opened);
    }
    void Show(const std::string& name, const std::string& text) { host->Kernel().Show("/a", name, text); }
    std::string Cpu() const {
        const auto got = ReadCpuCounters(group);
        if (!got) return got.GetError().Text();
        return Join({got->periods, got->throttledPeriods, got->throttledUs, got->usageUs});
    }
    static std::string Text(const MemCounters& got) {
        return Join({got.usageBytes, got.limitHits, got.oomKills, got.ooms, got.localOoms, got.oomGroupKills,
                     got.underOom, got.oomKillDisable});
    }
    std::string Memory() const {
        const auto got = ReadMemCounters(group);
        return got ? Text(*got) : got.GetError().Text();
    }
    std::string Oom() const {
        const auto got = ReadOomCounts(group);
        return got ? Text(*got) : got.GetError().Text();
    }
    std::string Limits() const {
        const auto got = ReadMemLimit(group);
        if (!got) return got.GetError().Text();
        return Join({got->hardBytes, got->softBytes, got->swapBytes, got->hasSwapLimit});
    }
    std::string Quota() const {
        const auto got = ReadCpuQuota(group);
        return got ? Join({got->quotaUs, got->periodUs, got->burstUs}) : got.GetError().Text();
    }

    GroupDir group;
};

const std::string kN = std::to_string(kBig);

TEST_F(FilesCountersTest, CpuTimesAreReadInTheirWholeWidth) {
    MakeOne(Version::kV2);
    Show("cpu.stat", "usage_usec " + kN + "\nnr_periods 9000000000002\nnr_throttled 9000000000003\nthrottled_usec " +
                         "9000000000004\n");
    EXPECT_EQ("9000000000002 9000000000003 9000000000004 9000000000001", Cpu());
    Show("cpu.stat", "usage_usec 5\n");
    EXPECT_EQ("-1 -1 -1 5", Cpu());
    Show("cpu.stat", "");
    EXPECT_EQ("-1 -1 -1 -1", Cpu());
    End();
    MakeOne(Version::kV1);
    Show("cpu.stat", "nr_periods 9000000000002\nnr_throttled 9000000000003\nthrottled_time 9000000000004999\n");
    EXPECT_EQ("9000000000002 9000000000003 9000000000004 -1", Cpu()) << "no cpuacct beside it";
    Show("cpuacct.usage", kN + "999\n");
    EXPECT_EQ("9000000000002 9000000000003 9000000000004 9000000000001", Cpu());
    Show("cpuacct.usage", "x\n");
    EXPECT_EQ("9000000000002 9000000000003 9000000000004 -1", Cpu());
    Show("cpu.stat", "nr_periods 1\n");
    EXPECT_EQ("1 -1 -1 -1", Cpu()) << "a time that is missing stays missing";
    Show("cpu.stat", "throttled_time 0\nnr_throttled 0\n");
    EXPECT_EQ("-1 0 0 -1", Cpu());
}

TEST_F(FilesCountersTest, MemoryIsCountedInItsWholeWidth) {
    MakeOne(Version::kV2);
    Show("memory.current", kN + "\n");
    Show("memory.events",
         "low 1\nhigh 2\nmax 9000000000002\noom 9000000000003\noom_kill 9000000000004\n"
         "oom_group_kill 9000000000005\n");
    EXPECT_EQ("9000000000001 9000000000002 9000000000004 9000000000003 -1 9000000000005 0 0", Memory());
    EXPECT_EQ("-1 9000000000002 9000000000004 9000000000003 -1 9000000000005 0 0", Oom());
    Show("memory.events.local", "max 7\noom 9000000000006\n");
    EXPECT_EQ("-1 9000000000002 9000000000004 9000000000003 9000000000006 9000000000005 0 0", Oom());
    Show("memory.events.local", "max 7\n");
    Show("memory.events", "low 1\n");
    Show("memory.current", "x\n");
    EXPECT_EQ("-1 -1 -1 -1 -1 -1 0 0", Memory());
    End();
    MakeOne(Version::kV1);
    Show("memory.usage_in_bytes", kN + "\n");
    Show("memory.failcnt", "9000000000002\n");
    Show("memory.oom_control", "oom_kill_disable 1\nunder_oom 1\noom_kill 9000000000004\n");
    EXPECT_EQ("9000000000001 9000000000002 9000000000004 -1 -1 -1 1 1", Memory());
    EXPECT_EQ("-1 -1 9000000000004 -1 -1 -1 1 1", Oom());
    Show("memory.oom_control", "oom_kill_disable 0\nunder_oom 1\n");
    Show("memory.failcnt", "x\n");
    Show("memory.usage_in_bytes", "\n");
    EXPECT_EQ("-1 -1 -1 -1 -1 -1 1 0", Memory()) << "before Linux 4.13 no victims are counted";
    Show("memory.oom_control", "oom_kill_disable 1\n");
    EXPECT_EQ("-1 -1 -1 -1 -1 -1 0 1", Oom());
}

TEST_F(FilesCountersTest, LimitsOfMemoryAreReadAsTheyStand) {
    MakeOne(Version::kV2);
    EXPECT_EQ("-1 -1 -1 1", Limits());
    Show("memory.max", kN + "\n");
    Show("memory.swap.max", "0\n");
    EXPECT_EQ("9000000000001 -1 0 1", Limits());
    Show("memory.swap.max", "x\n");
    EXPECT_THAT(Limits(), HasSubstr("memory.swap.max"));
    Show("memory.max", "1 2\n");
    EXPECT_THAT(Limits(), HasSubstr("/a/memory.max"));
    End();
    MakeOne(Version::kV2, false);
    EXPECT_EQ("-1 -1 -1 0", Limits()) << "without swap accounting";
    End();
    MakeOne(Version::kV1, false);
    EXPECT_EQ("-1 -1 -1 0", Limits());
    Show("memory.limit_in_bytes", kN + "\n");
    Show("memory.soft_limit_in_bytes", "9000000000002\n");
    EXPECT_EQ("9000000000001 9000000000002 -1 0", Limits());
    Show("memory.memsw.limit_in_bytes", "9000000000003\n");
    EXPECT_EQ("9000000000001 9000000000002 9000000000003 1", Limits());
    for (const char* none : {"-1\n", "4611686018427387904\n", "9223372036854771712\n"}) {
        for (const char* name : {"limit", "soft_limit", "memsw.limit"}) {
            Show(std::string("memory.") + name + "_in_bytes", none);
        }
        EXPECT_EQ("-1 -1 -1 1", Limits()) << none;
    }
    Show("memory.limit_in_bytes", "4611686018427387903\n");
    EXPECT_EQ("4611686018427387903 -1 -1 1", Limits());
    Show("memory.soft_limit_in_bytes", "x\n");
    EXPECT_THAT(Limits(), HasSubstr("soft_limit_in_bytes"));
    Show("memory.memsw.limit_in_bytes", "x\n");
    EXPECT_THAT(Limits(), HasSubstr("memsw.limit_in_bytes"));
}

TEST_F(FilesCountersTest, QuotasAreReadAsTheyStand) {
    MakeOne(Version::kV2);
    EXPECT_EQ("-1 100000 0", Quota());
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"9000000000001 1000000\n", "9000000000001 1000000 0"},
        {"max 5000000000\n", "-1 5000000000 0"},
        {"1 1\n", "1 1 0"},
    };
    for (const auto& [text, read] : cases) {
        Show("cpu.max", text);
        EXPECT_EQ(read, Quota()) << text;
    }
    for (const char* bad : {"", "max", "1 0", "1 -1", "x 100000", "1 x", "1 2 3"}) {
        Show("cpu.max", bad);
        EXPECT_THAT(Quota(), HasSubstr("cpu.max of " + host->Mount() + "/a")) << bad;
    }
    Show("cpu.max", "50000 100000\n");
    Show("cpu.max.burst", kN + "\n");
    EXPECT_EQ("50000 100000 9000000000001", Quota());
    Show("cpu.max.burst", "x\n");
    EXPECT_THAT(Quota(), HasSubstr("cpu.max.burst"));
    End();
    MakeOne(Version::kV1);
    EXPECT_EQ("-1 100000 0", Quota());
    Show("cpu.cfs_quota_us", "-5\n");
    EXPECT_EQ("-1 100000 0", Quota()) << "any negative one is none";
    Show("cpu.cfs_quota_us", "0\n");
    Show("cpu.cfs_burst_us", "9000000000003\n");
    EXPECT_EQ("0 100000 9000000000003", Quota());
    Show("cpu.cfs_quota_us", kN + "\n");
    Show("cpu.cfs_period_us", "9000000000002\n");
    EXPECT_EQ("9000000000001 9000000000002 9000000000003", Quota());
    for (const char* name : {"cpu.cfs_burst_us", "cpu.cfs_period_us", "cpu.cfs_quota_us"}) {
        Show(name, "\n");
        EXPECT_THAT(Quota(), HasSubstr(name));
    }
}

std::string TextOf(const zel::CgroupUse& use) {
    if (!use.present) return "none";
    return (use.v2 ? "v2 " : "v1 ") + Join({use.limit, use.used, use.periods, use.throttledPeriods, use.throttledUs,
                                            use.limitHits, use.oomKills, use.ownOoms});
}

class FilesStatusTest : public FilesTree {
protected:
    void ShowCounters(const std::string& group, int64_t more) {
        const auto text = [&](int64_t number) { return std::to_string(kBig + more + number); };
        const auto show = [&](const char* name, const std::string& value) {
            host->Kernel().Show(Tree() + group, name, value + "\n");
        };
        const bool isV2 = host->Kernel().GetVersion() == Version::kV2;
        const std::string periods = "nr_periods " + text(1) + "\nnr_throttled " + text(2) + "\n";
        if (isV2) {
            show("cpu.stat", periods + "throttled_usec " + text(3) + "\nusage_usec " + text(4));
            show("memory.current", std::to_string((kBig + more) * 1024 + 1023));
            show("memory.events", "max " + text(5) + "\noom_kill " + text(6));
            show("memory.events.local", "oom " + text(7));
            return;
        }
        show("cpu.stat", periods + "throttled_time " + text(3) + "999");
        show("cpuacct.usage", text(4) + "999");
        show("memory.usage_in_bytes", std::to_string((kBig + more) * 1024 + 1023));
        show("memory.failcnt", text(5));
        show("memory.oom_control", "oom_kill " + text(6));
    }
    void ShowAllCounters() {
        ShowCounters("", 100);
        ShowCounters("/greedy", 200);
        ShowCounters("/greedy/Greedy", 300);
    }
};

TEST_F(FilesStatusTest, TellsEachCounterOfEachGroup) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        const bool isV2 = where.version == Version::kV2;
        Publish(where.version, where.mountRoot);
        ShowAllCounters();
        zel::CgroupTreeStatus status;
        std::string error;
        ASSERT_TRUE(zel::ReadCgroupTreeStatus(status, error)) << error;
        EXPECT_TRUE(status.present);
        EXPECT_EQ(isV2 ? "v2" : "v1", status.layout);
        EXPECT_EQ("", status.problem);
        EXPECT_THAT(status.cpuPlace, HasSubstr("controller cpu is on "));
        EXPECT_THAT(status.memoryPlace, HasSubstr("controller memory is on "));
        ASSERT_EQ(5U, status.nodes.size());
        EXPECT_EQ(treeName, status.nodes[0].name);
        EXPECT_EQ(zel::CgroupLevel::kParent, status.nodes[0].level);
        EXPECT_EQ("greedy", status.nodes[1].name);
        EXPECT_EQ(zel::CgroupLevel::kGroup, status.nodes[1].level);
        EXPECT_EQ("Greedy", status.nodes[2].name);
        EXPECT_EQ("greedy", status.nodes[2].group);
        EXPECT_EQ(zel::CgroupLevel::kComponent, status.nodes[2].level);
        EXPECT_EQ("main", status.nodes[3].name);
        EXPECT_EQ("Tervane", status.nodes[4].name);
        const std::string version = isV2 ? "v2 " : "v1 ";
        const int64_t limits[] = {4000, 2000, 500};
        const int64_t sizes[] = {524288, 51200, 20480};
        for (size_t i = 0; i < 3; ++i) {
            const int64_t base = kBig + 100 * (static_cast<int64_t>(i) + 1);
            EXPECT_EQ(version + Join({limits[i], base + 4, base + 1, base + 2, base + 3, -1, -1, -1}),
                      TextOf(status.nodes[i].cpu));
            // Version 1 counts a victim in its own group alone.
            const int64_t below = i == 0 ? 2 * kBig + 512 : i == 1 ? kBig + 306 : 0;
            EXPECT_EQ(version + Join({sizes[i], base, -1, -1, -1, base + 5, base + 6 + (isV2 ? 0 : below),
                                      isV2 ? base + 7 : -1}),
                      TextOf(status.nodes[i].memory));
        }
        ASSERT_TRUE(zel::ReadCgroupMemoryStatus(status, error)) << error;
        ASSERT_EQ(5U, status.nodes.size());
        for (const auto& node : status.nodes) {
            EXPECT_FALSE(node.cpu.present) << node.name;
            EXPECT_TRUE(node.memory.present) << node.name;
        }
        End();
    }
}

TEST_F(FilesStatusTest, TimesOfProcessesStandInForTheGroups) {
    Publish(Version::kV1);
    const auto one = Bear(Tree() + "/greedy/Greedy");
    const auto two = Bear(Tree() + "/main/Tervane");
    const long ticks = sysconf(_SC_CLK_TCK);
    const auto put = [&](int pid, int64_t user, int64_t system) {
        FilesHost::PutProc("/proc/" + std::to_string(pid) + "/stat",
                           std::to_string(pid) + " (x) S 1 1 1 0 -1 0 0 0 0 0 " + std::to_string(user * ticks) + " " +
                               std::to_string(system * ticks) + " 0 0 20 0 1 0 500 0 0\n");
    };
    put(one->Pid(), 5000000000, 1);
    put(two->Pid(), 7000000000, 2);
    zel::CgroupTreeStatus status;
    std::string error;
    ASSERT_TRUE(zel::ReadCgroupTreeStatus(status, error)) << error;
    ASSERT_EQ(5U, status.nodes.size());
    const int64_t used[] = {12000000003000000, 5000000001000000, 5000000001000000, 7000000002000000, 7000000002000000};
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(used[i], status.nodes[i].cpu.used) << status.nodes[i].name;
    EXPECT_THAT(status.nodes[2].pids, ElementsAre(one->Pid()));
    EXPECT_TRUE(status.nodes[2].membershipVerified);
    EXPECT_THAT(status.nodes[1].pids, IsEmpty());
    host->Kernel().End(one->Pid());
    ASSERT_TRUE(zel::ReadCgroupTreeStatus(status, error)) << error;
    EXPECT_EQ(0, status.nodes[2].cpu.used);
    EXPECT_FALSE(status.nodes[2].membershipVerified) << "nobody is in it";
    host->Kernel().End(two->Pid());
}

TEST_F(FilesStatusTest, VictimsBelowCountWhereAGroupsOwnAreUnread) {
    Publish(Version::kV1);
    ShowAllCounters();
    const std::string own = host->Mount() + Tree() + "/greedy/memory.oom_control";
    ASSERT_EQ(0, rename(own.c_str(), (own + "x").c_str()));
    zel::CgroupTreeStatus status;
    std::string error;
    for (const int64_t victims : {int64_t{0}, kBig}) {
        host->Kernel().Show(Tree() + "/greedy/Greedy", "memory.oom_control",
                            "oom_kill " + std::to_string(victims) + "\n");
        ASSERT_TRUE(zel::ReadCgroupTreeStatus(status, error)) << error;
        EXPECT_EQ(victims, status.nodes.at(1).memory.oomKills);
    }
    ASSERT_EQ(0, rename((own + "x").c_str(), own.c_str()));
}

TEST_F(FilesStatusTest, WithoutATreeOrAHierarchyItSaysSo) {
    Begin(Version::kV2);
    zel::CgroupTreeStatus status;
    std::string error;
    ASSERT_TRUE(zel::ReadCgroupTreeStatus(status, error)) << error;
    EXPECT_FALSE(status.present);
    EXPECT_EQ("v2", status.layout);
    host->SetMounts("");
    ASSERT_TRUE(zel::ReadCgroupTreeStatus(status, error)) << error;
    EXPECT_EQ("none", status.layout);
    EXPECT_THAT(status.problem, HasSubstr("no cgroup file system with controller cpu is mounted"));
    EXPECT_THAT(status.memoryPlace, HasSubstr("controller memory"));
    host->SetMounts(host->MountLine("ro"));
    ASSERT_TRUE(zel::ReadCgroupTreeStatus(status, error)) << error;
    EXPECT_THAT(status.problem, HasSubstr("Read-only file system"));
    host->SetMounts(host->MountLine());
    ASSERT_EQ(0, host->Kernel().MakeGroup(Tree()));
    EXPECT_FALSE(zel::ReadCgroupTreeStatus(status, error)) << "somebody else's";
    EXPECT_THAT(error, HasSubstr("it was not made by this agent"));
    host->Kernel().RemoveGroup(Tree());
}

std::string TextOf(const zel::CgroupFigures& figures) {
    return "/" + figures.name + ": " +
           Join({figures.cpuLimit100Times, figures.memoryLimitKb, figures.cpuMs, figures.periods,
                 figures.throttledPeriods, figures.throttledMs, figures.memoryKb, figures.limitHits});
}

class FilesFiguresTest : public FilesStatusTest {
protected:
    std::vector<std::string> Read(bool withHits) {
        std::vector<std::string> out;
        for (const zel::CgroupFigures& each : reader.Read(withHits)) out.push_back(TextOf(each));
        return out;
    }
    bool Keep() {
        std::vector<zel::CgroupDrift> news;
        return zel::KeepCgroupTree({}, news);
    }
    std::string Row(const std::string& name, int64_t more, int cpu, int memory, bool hits) const {
        const int64_t n = kBig + more;
        return "/" + name + ": " +
               Join({cpu, memory, (n + 4) / 1000, n + 1, n + 2, (n + 3) / 1000, n, hits ? n + 5 : -1});
    }
    zel::CCgroupFiguresReader reader;
};

TEST_F(FilesFiguresTest, TellsTheUseOfEachGroup) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Publish(where.version, where.mountRoot);
        ShowAllCounters();
        ASSERT_TRUE(manager->AddPidToGroup("main", getpid()) && Keep());
        for (const bool hits : {false, true}) {
            for (int again = 0; again < 2; ++again) {
                const std::vector<std::string> rows = Read(hits);
                ASSERT_EQ(5U, rows.size());
                EXPECT_EQ(Row("", 100, 4000, 524288, hits), rows[0]);
                EXPECT_EQ(Row("greedy", 200, 2000, 51200, hits), rows[1]);
                EXPECT_EQ(Row("greedy/Greedy", 300, 500, 20480, hits), rows[2]);
            }
        }
        ShowCounters("/greedy/Greedy", 5000);
        EXPECT_EQ(Row("greedy/Greedy", 5000, 500, 20480, true), Read(true).at(2)) << "what is kept open is read anew";
        ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
        EXPECT_THAT(Read(true), IsEmpty()) << "nothing is looked after";
        End();
    }
}

TEST_F(FilesFiguresTest, SumsUpProcessesWhereGroupsHaveNoTime) {
    Publish(Version::kV1);
    const auto one = Bear(Tree() + "/greedy/Greedy");
    const auto two = Bear(Tree() + "/greedy/Greedy");
    SetCpuTime(one->Pid(), 5000000000000000);
    SetCpuTime(two->Pid(), 7000000000000000);
    SetCpuTime(getpid(), 1000000000000000);
    ASSERT_TRUE(manager->AddPidToGroup("main", getpid()) && Keep());
    std::vector<int64_t> times;
    for (const zel::CgroupFigures& each : reader.Read(true)) times.push_back(each.cpuMs);
    EXPECT_THAT(times, ElementsAre(13000000000, 12000000000, 12000000000, 1000000000, 1000000000));
    host->Kernel().Show(Tree() + "/greedy/Greedy", "cpu.stat", "");
    times.clear();
    for (const zel::CgroupFigures& each : reader.Read(true)) times.push_back(each.cpuMs);
    EXPECT_EQ(-1, times.at(2)) << "its figures are not there";
    host->Kernel().End(one->Pid());
    host->Kernel().End(two->Pid());
    ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
}

}  // namespace
