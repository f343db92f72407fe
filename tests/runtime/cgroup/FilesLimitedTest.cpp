// What limits a process, from its own group up to the root of what the mount shows, on hosts made of files.
#include <cerrno>
#include <string>

#include "FilesHost.h"
#include "OwnGroup.h"
#include "kernel/GroupDir.h"
#include "platform/zel/CgroupStatus.h"
#include "support/Faults.h"

using namespace fileshost;
using ::testing::HasSubstr;

namespace {

class FilesLimitedTest : public FilesTree {
protected:
    /// A process in /a/b.
    void Open(const Where& where) {
        Begin(where.version, where.mountRoot);
        for (const char* each : {"+cpu", "+memory"}) host->Kernel().WriteAs("", "cgroup.subtree_control", each);
        ASSERT_EQ(0, host->Kernel().MakeGroup("/a"));
        for (const char* each : {"+cpu", "+memory"}) host->Kernel().WriteAs("/a", "cgroup.subtree_control", each);
        ASSERT_EQ(0, host->Kernel().MakeGroup("/a/b"));
        child = Bear("/a/b");
    }
    void Close() {
        host->Kernel().End(child->Pid());
        child.reset();
        End();
    }
    bool IsV2() const { return host->Kernel().GetVersion() == Version::kV2; }
    void LimitCpu(const std::string& group, int64_t quotaUs) {
        const std::string quota = quotaUs < 0 && IsV2() ? "max" : std::to_string(quotaUs);
        host->Kernel().Show(group, IsV2() ? "cpu.max" : "cpu.cfs_quota_us", quota + (IsV2() ? " 100000\n" : "\n"));
    }
    void LimitMemory(const std::string& group, int64_t bytes) {
        host->Kernel().Show(group, IsV2() ? "memory.max" : "memory.limit_in_bytes", std::to_string(bytes) + "\n");
    }
    void ShowCounters(const std::string& group, int64_t more) {
        const std::string text = std::to_string(9000000000000 + more);
        host->Kernel().Show(group, "cpu.stat",
                            "nr_periods " + text + "1\nnr_throttled " + text + "2\n" +
                                (IsV2() ? "throttled_usec " + text + "3\nusage_usec " + text + "4\n"
                                        : "throttled_time " + text + "3000\n"));
        host->Kernel().Show(group, IsV2() ? "memory.current" : "memory.usage_in_bytes", text + "5\n");
        if (IsV2()) {
            host->Kernel().Show(group, "memory.events", "max " + text + "6\noom_kill " + text + "7\n");
            return;
        }
        host->Kernel().Show(group, "memory.failcnt", text + "6\n");
        host->Kernel().Show(group, "memory.oom_control", "oom_kill " + text + "7\n");
    }
    zel::CgroupStatus Read() {
        zel::CgroupStatus out;
        EXPECT_TRUE(zel::ReadCgroupStatus(out, child->Pid()));
        return out;
    }
    static std::string TextOf(const zel::CgroupControllerStatus& status) {
        return std::string(status.limited ? "limited" : "free") + (status.byOthers ? " by others: " : ": ") +
               status.reason + (status.advice.empty() ? "" : "; " + status.advice);
    }

    std::unique_ptr<treetest::Child> child;
};

TEST_F(FilesLimitedTest, TheTightestLimitOnTheWayUpHolds) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Open(where);
        const std::string mount = host->Mount();
        const std::string none = "free: neither its group nor one above it has a limit";
        EXPECT_EQ(none, TextOf(Read().cpu));
        EXPECT_EQ(none, TextOf(Read().mem));
        EXPECT_EQ(IsV2() ? 2 : 1, Read().cpu.version);
        EXPECT_EQ(mount, Read().mem.hierarchyPath);
        EXPECT_EQ(mount + "/a/b", Read().mem.groupPath);
        EXPECT_EQ(0, Read().cpu.limit100Times);
        EXPECT_EQ(-1, Read().mem.limitBytes);
        LimitCpu("", 40000);
        LimitMemory("", 9000000000000);
        EXPECT_EQ("limited by others: limited by a group above it, " + mount, TextOf(Read().cpu));
        EXPECT_EQ("limited by others: limited by a group above it, " + mount, TextOf(Read().mem));
        LimitCpu("/a/b", 30000);
        LimitMemory("/a/b", 9000000000001);
        EXPECT_EQ("limited by others: limited by its own group, " + mount + "/a/b", TextOf(Read().cpu));
        EXPECT_EQ("limited by others: limited by a group above it, " + mount, TextOf(Read().mem));
        EXPECT_EQ(9000000000000, Read().mem.limitBytes);
        LimitMemory("/a/b", 9000000000000);
        EXPECT_EQ(mount + "/a/b", Read().mem.limitPath) << "of equal ones the nearest";
        EXPECT_EQ(3000, Read().cpu.limit100Times);
        EXPECT_EQ(30000, Read().cpu.quotaUs);
        EXPECT_EQ(100000, Read().cpu.periodUs);
        auto own = zel::cgroup::GroupDir::Open(mount + "/a", where.version);
        ASSERT_TRUE(own.Ok() && zel::cgroup::MarkOwn(*own).Ok());
        EXPECT_TRUE(Read().cpu.byOthers) << "the agent's group has no limit";
        LimitCpu("/a", 40000);
        LimitMemory("/a", 9000000000009);
        EXPECT_FALSE(Read().cpu.byOthers) << "one of the agent's is on the way";
        EXPECT_FALSE(Read().mem.byOthers);
        EXPECT_EQ(mount + "/a/b", Read().cpu.limitPath);
        Close();
    }
}

TEST_F(FilesLimitedTest, CountersAreThoseOfWhoLimits) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Open(where);
        ShowCounters("/a/b", 1);
        ShowCounters("/a", 2);
        for (const bool above : {false, true}) {
            const std::string text = above ? "9000000000002" : "9000000000001";
            const zel::CgroupStatus status = Read();
            EXPECT_EQ(text + "1", std::to_string(status.cpu.periods));
            EXPECT_EQ(text + "2", std::to_string(status.cpu.throttledPeriods));
            EXPECT_EQ(text + "3", std::to_string(status.cpu.throttledUs));
            EXPECT_EQ(IsV2() ? text + "4" : "-1", std::to_string(status.cpu.usageUs));
            EXPECT_EQ(text + "5", std::to_string(status.mem.usageBytes));
            EXPECT_EQ(text + "6", std::to_string(status.mem.limitHits));
            EXPECT_EQ("90000000000017", std::to_string(status.mem.oomKills)) << "of its own group";
            LimitCpu("/a", 40000);
            LimitMemory("/a", 9000000000000);
        }
        Close();
    }
}

TEST_F(FilesLimitedTest, SaysWhyThereIsNoneAndWhatToDo) {
    Open(kEverywhere[3]);
    host->Kernel().WriteAs("", "cgroup.procs", std::to_string(child->Pid()));
    EXPECT_EQ("free: neither its group nor one above it has a limit", TextOf(Read().cpu)) << "the mount's root is none";
    host->SetMounts(host->MountLine("ro"));
    const std::string remount =
        "the hierarchy is read-only here: remount it read-write, or set ProtectControlGroups=no in the unit";
    EXPECT_EQ("free: neither its group nor one above it has a limit; " + remount, TextOf(Read().cpu));
    LimitCpu("", 40000);
    EXPECT_EQ("limited by others: limited by its own group, " + host->Mount(), TextOf(Read().cpu));
    host->SetMounts("");
    EXPECT_THAT(TextOf(Read().cpu), HasSubstr("; limits of this controller cannot work on this host until that is"));
    EXPECT_EQ(0, Read().cpu.version);
    host->SetMounts(host->MountLine());
    const std::string groups = "/proc/" + std::to_string(child->Pid()) + "/cgroup";
    FilesHost::PutProc(groups, "0::/elsewhere\n");
    EXPECT_THAT(TextOf(Read().cpu), HasSubstr("; run the agent in the host's cgroup namespace, or mount the whole"));
    EXPECT_EQ("", Read().cpu.groupPath);
    FilesHost::PutProc(groups, "3:cpu:/x\n");
    EXPECT_THAT(TextOf(Read().cpu), HasSubstr("; the process may have ended"));
    FilesHost::FailProc(groups, EIO);
    EXPECT_THAT(TextOf(Read().mem), HasSubstr("; the process may have ended"));
    zel::CgroupStatus out;
    out.cpu.reason = "as it was";
    EXPECT_FALSE(zel::ReadCgroupStatus(out, -1));
    EXPECT_FALSE(zel::ReadCgroupStatus(out, 1 << 30));
    EXPECT_EQ("as it was", out.cpu.reason);
    EXPECT_TRUE(zel::ReadCgroupStatus(out, 0));
    EXPECT_EQ(host->Mount(), out.cpu.groupPath) << "this process";
    Close();
    Open(kEverywhere[1]);
    host->Kernel().WriteAs("", "cgroup.procs", std::to_string(child->Pid()));
    EXPECT_EQ("free: the process is in the root group, which has no limit", TextOf(Read().mem));
    Close();
}

TEST_F(FilesLimitedTest, TheLimitAloneFollowsEveryChange) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Open(where);
        const int pid = child->Pid();
        LimitCpu("", -1);
        EXPECT_EQ(0, zel::ReadCgroupCpuLimit(pid));
        LimitCpu("", 40000);
        EXPECT_EQ(4000, zel::ReadCgroupCpuLimit(pid));
        LimitCpu("/a", 30000);
        EXPECT_EQ(3000, zel::ReadCgroupCpuLimit(pid));
        LimitCpu("/a/b", 20000);
        EXPECT_EQ(2000, zel::ReadCgroupCpuLimit(pid));
        host->BeginCount();
        EXPECT_EQ(2000, zel::ReadCgroupCpuLimit(pid));
        EXPECT_THAT(host->Opens(false), testing::ElementsAre("proc_" + std::to_string(pid) + "_cgroup 1"))
            << "what nothing tells of is not read again";
        host->Kernel().WriteAs("/a", "cgroup.procs", std::to_string(pid));
        // Kernel: version 2 takes no process beside children with controllers.
        EXPECT_EQ(where.version == Version::kV1 ? 3000 : 2000, zel::ReadCgroupCpuLimit(pid));
        host->Kernel().WriteAs("", "cgroup.procs", std::to_string(pid));
        EXPECT_EQ(4000, zel::ReadCgroupCpuLimit(pid)) << "where the process is is asked each time";
        LimitCpu("/a/b", -1);
        LimitCpu("/a", -1);
        LimitCpu("", -1);
        EXPECT_EQ(0, zel::ReadCgroupCpuLimit(pid));
        LimitCpu("", 10000);
        host->SetMounts("");
        EXPECT_EQ(0, zel::ReadCgroupCpuLimit(pid)) << "nothing is mounted";
        host->SetMounts(host->MountLine());
        EXPECT_EQ(1000, zel::ReadCgroupCpuLimit(pid));
        EXPECT_EQ(0, zel::ReadCgroupCpuLimit(1 << 30));
        host->SetMounts(host->MountLine());
        {
            const faults::Failing failing(faults::Call::kRead, EIO);
            EXPECT_EQ(0, zel::ReadCgroupCpuLimit(pid)) << "the mounts cannot be read";
        }
        EXPECT_EQ(1000, zel::ReadCgroupCpuLimit(pid));
        Close();
    }
}

}  // namespace
