// The legacy limit on hosts of both versions made of files: what it writes in which order, what each refusal means, and
// who is left in its group at the end.
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "FilesHost.h"
#include "LegacyLimit.h"
#include "kernel/Limits.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"

using namespace fileshost;
using namespace zel::cgroup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr int kMemory = 1 << 30;

class FilesLegacyTest : public FilesTree {
protected:
    void Open(const Where& where) {
        Begin(where.version, where.mountRoot);
        LegacyOptions options;
        options.groupName = treeName + ".legacy";
        options.treeName = treeName;
        options.applicationDir = "/opt/zeltest-nowhere";
        options.nowMs = [this] { return nowMs += 5000; };
        limit = std::make_unique<LegacyLimit>(std::move(options));
        host->Kernel().TakeJournal();
        treetest::ClearFaults();
    }
    std::string TakeJournal() {
        std::string out;
        const std::string pid = "procs=" + std::to_string(getpid());
        for (std::string each : host->Kernel().TakeJournal()) {
            for (size_t at = 0; (at = each.find(Group())) != std::string::npos;) each.replace(at, Group().size(), "/L");
            const size_t at = each.find(pid);
            if (at != std::string::npos) each.replace(at, pid.size(), "procs=PID");
            out += each + "\n";
        }
        return out;
    }
    std::string Group() const { return Tree() + ".legacy"; }
    int LimitOfGroup() const {
        auto group = GroupDir::Open(host->Mount() + Group(), host->Kernel().GetVersion());
        return group ? QuotaTo100Times(ReadCpuQuota(*group).Value()) : -1;
    }
    std::string Own() const { return host->Kernel().GroupOf(getpid()); }

    std::unique_ptr<LegacyLimit> limit;
    int64_t nowMs = 0;
    int error = 0;
};

TEST_F(FilesLegacyTest, ALimitIsThereBeforeWhoIsHeldByIt) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        const bool isV2 = where.version == Version::kV2;
        Open(where);
        ASSERT_EQ(kLegacyOk, limit->StartCpuLimit(9, 50, error));
        EXPECT_EQ(isV2 ? "+/L\n/cgroup.subtree_control=+cpu\n/L/cpu.max=9500 100000\n/L/cgroup.procs=PID\n"
                       : "+/L\n/L/cpu.cfs_quota_us=9500\n/L/cgroup.procs=PID\n",
                  TakeJournal());
        EXPECT_EQ(Group(), Own());
        EXPECT_TRUE(limit->IsCpuLimited());
        EXPECT_FALSE(limit->IsMemLimited());
        EXPECT_FALSE(limit->IsSelfRemovedFromCgroup());
        EXPECT_EQ(isV2, limit->IsV2Runtime(Controller::kCpu));
        EXPECT_FALSE(limit->IsV2Runtime(Controller::kMemory));
        ASSERT_EQ(kLegacyOk, limit->PrepareMemLimit());
        ASSERT_EQ(kLegacyOk, limit->StartMemLimit(kMemory, 0, error));
        EXPECT_EQ(isV2 ? "/cgroup.subtree_control=+memory\n/L/memory.swap.max=0\n/L/memory.max=1073741824\n"
                       : "/L/memory.limit_in_bytes=1073741824\n/L/memory.memsw.limit_in_bytes=1073745920\n",
                  TakeJournal());
        EXPECT_TRUE(limit->IsMemLimited());
        ASSERT_EQ(kLegacyOk, limit->StopCpuLimit(error));
        EXPECT_EQ(isV2 ? "/L/cpu.max=max\n" : "/L/cpu.cfs_quota_us=-1\n", TakeJournal()) << "the other one is in it";
        EXPECT_FALSE(limit->IsCpuLimited());
        EXPECT_TRUE(limit->IsMemLimited());
        ASSERT_EQ(kLegacyOk, limit->StopMemLimit(error, true));
        EXPECT_EQ("/cgroup.procs=PID\n-/L\n", TakeJournal());
        EXPECT_EQ("", Own());
        EXPECT_FALSE(limit->IsMemLimited());
        limit.reset();
        End();
    }
}

TEST_F(FilesLegacyTest, WhoIsReleasedHasEverythingTakenOff) {
    for (const bool started : {false, true}) {
        for (const Where& where : kEverywhere) {
            SCOPED_TRACE(where.Text());
            Open(where);
            ASSERT_EQ(kLegacyOk, limit->StartCpuLimit(50, 0, error));
            ASSERT_EQ(kLegacyOk, limit->StartMemLimit(kMemory, 0, error));
            started ? limit->ReleaseStarted() : limit->ReleaseLimits();
            EXPECT_EQ("", Own());
            EXPECT_FALSE(support::Exists(host->Mount() + Group()));
            EXPECT_FALSE(limit->IsCpuLimited() || limit->IsMemLimited());
            ASSERT_EQ(kLegacyOk, limit->StartMemLimit(kMemory, 0, error));
            started ? limit->ReleaseStarted() : limit->ReleaseLimits();
            EXPECT_EQ("", Own()) << "memory alone";
            ASSERT_EQ(0, host->Kernel().MakeGroup(Group()));
            started ? limit->ReleaseStarted() : limit->ReleaseLimits();
            EXPECT_EQ(started, support::Exists(host->Mount() + Group())) << "one of an earlier run";
            host->Kernel().RemoveGroup(Group());
            limit.reset();
            End();
        }
    }
}

TEST_F(FilesLegacyTest, EachRefusalHasItsResult) {
    struct Case {
        Version version;
        int write, errorNumber, code;
        const char* said;
    };
    const std::vector<Case> cases = {
        {Version::kV1, 1, EACCES, kLegacyDenied, "legacy CPU limit not set: "},
        {Version::kV1, 1, EINVAL, kLegacyWriteFailed, "cpu.cfs_quota_us"},
        {Version::kV1, 1, ENOMEM, kLegacyNoRoom, "try again later"},
        {Version::kV1, 1, EIO, kLegacyWriteFailed, "cpu.cfs_quota_us"},
        {Version::kV1, 2, EINVAL, kLegacyCannotMove, "cgroup.procs"},
        {Version::kV1, 2, EACCES, kLegacyDenied, "cgroup.procs"},
        {Version::kV1, 2, EBUSY, kLegacyCannotMove, "cgroup.procs"},
        {Version::kV2, 1, EACCES, kLegacyDenied, "cgroup.subtree_control"},
        {Version::kV2, 2, EINVAL, kLegacyWriteFailed, "cpu.max"},
        {Version::kV2, 3, EINVAL, kLegacyCannotMove, "cgroup.procs"},
        {Version::kV2, 3, EPERM, kLegacyDenied, "cgroup.procs"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(std::string(each.said) + " " + std::to_string(each.errorNumber));
        Open({each.version, "/"});
        host->Kernel().FailWrite(each.write, each.errorNumber);
        EXPECT_EQ(each.code, limit->StartCpuLimit(50, 0, error));
        EXPECT_EQ(each.errorNumber, error);
        const std::vector<std::string> said = treetest::Warnings();
        ASSERT_EQ(1U, said.size());
        EXPECT_THAT(said[0], HasSubstr(each.said));
        EXPECT_THAT(said[0], HasSubstr("[result " + std::to_string(each.code) + ", errno "));
        EXPECT_EQ("", Own());
        EXPECT_FALSE(limit->IsCpuLimited());
        EXPECT_FALSE(support::Exists(host->Mount() + Group())) << "nothing stays";
        EXPECT_EQ(kLegacyOk, limit->StartCpuLimit(50, 0, error));
        EXPECT_EQ(0, error);
        EXPECT_EQ(kLegacyOk, limit->StopCpuLimit(error));
        limit.reset();
        End();
    }
}

TEST_F(FilesLegacyTest, AmountsThatAreNoneAreRefused) {
    Open(kEverywhere[1]);
    const std::vector<std::pair<int, int>> shares = {{0, 0}, {-1, 0}, {0, -1}, {1, -100}, {-1, 100}};
    for (const auto& [percent, hundredths] : shares) {
        EXPECT_EQ(kLegacyBadValue, limit->StartCpuLimit(percent, hundredths, error)) << percent << "." << hundredths;
        EXPECT_EQ(EINVAL, error);
    }
    const std::vector<std::pair<int, int>> sizes = {{0, 0},    {-1, 0},   {kMemory, -1},         {kMemory, kMemory + 1},
                                                    {4095, 0}, {4096, 0}, {INT32_MIN, INT32_MIN}};
    for (const auto& [first, second] : sizes) {
        error = 0;
        EXPECT_EQ(kLegacyBadValue, limit->StartMemLimit(first, second, error)) << first << " " << second;
        EXPECT_EQ(EINVAL, error);
    }
    EXPECT_EQ("", TakeJournal());
    EXPECT_EQ(kLegacyOk, limit->StartMemLimit(kMemory, kMemory, error));
    EXPECT_EQ(kLegacyOk, limit->StopMemLimit(error, false));
    EXPECT_EQ(kLegacyOk, limit->StartCpuLimit(0, 1, error));
    EXPECT_EQ("1000 1000000", Value(Group(), "cpu.max"));
    EXPECT_EQ(kLegacyOk, limit->StopCpuLimit(error));
}

TEST_F(FilesLegacyTest, UnseenProcessesAreNotHeldDownAtTheEnd) {
    Open(kEverywhere[1]);
    ASSERT_EQ(kLegacyOk, limit->StartCpuLimit(50, 0, error));
    host->Kernel().Bear(Group(), 0);
    EXPECT_THAT(limit->GetCgroupOtherProcessNum(), 0) << "what cannot be seen cannot be named";
    treetest::ClearFaults();
    ASSERT_EQ(kLegacyOk, limit->StopCpuLimit(error));
    EXPECT_EQ("max 100000", Value(Group(), "cpu.max"));
    EXPECT_THAT(treetest::Warnings(),
                ElementsAre(HasSubstr("kept, 1 processes that are not the agent's are in it; its limit is lifted")));
    host->Kernel().End(0);
    host->Kernel().RemoveGroup(Group());
}

TEST_F(FilesLegacyTest, WhatIsOnlyObservedIsNotWritten) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Open(where);
        ASSERT_EQ(kLegacyOk, limit->StartCpuLimit(50, 0, error));
        TakeJournal();
        zel::ObserveLimits(zel::ObservationOrder::kAgent, zel::kModeCpu | zel::kModeMemory);
        limit->FollowObserved();
        EXPECT_EQ("/cgroup.procs=PID\n-/L\n", TakeJournal());
        EXPECT_TRUE(limit->IsCpuLimited()) << "for who asks";
        ASSERT_EQ(kLegacyOk, limit->StartMemLimit(kMemory, 0, error));
        ASSERT_EQ(kLegacyOk, limit->StartCpuLimit(30, 0, error));
        limit->FollowObserved();
        EXPECT_EQ("", TakeJournal());
        EXPECT_TRUE(limit->IsMemLimited());
        std::vector<zel::ObservedGroup> groups = zel::ReadObservedGroups();
        ASSERT_EQ(1U, groups.size());
        EXPECT_EQ(3000, groups[0].figures.cpuLimit100Times);
        EXPECT_EQ(kMemory / 1024, groups[0].figures.memoryLimitKb);
        zel::ObserveLimits(zel::ObservationOrder::kAgent, zel::kModeMemory);
        limit->FollowObserved();
        EXPECT_EQ(Group(), Own());
        EXPECT_EQ(3000, LimitOfGroup());
        groups = zel::ReadObservedGroups();
        ASSERT_EQ(1U, groups.size());
        EXPECT_EQ(0, groups[0].figures.cpuLimit100Times);
        zel::ObserveLimits(zel::ObservationOrder::kAgent, 0);
        host->Kernel().FailWrite(1, EACCES);
        limit->FollowObserved();
        EXPECT_FALSE(limit->IsMemLimited()) << "it could not be put in force";
        TakeJournal();
        limit->FollowObserved();
        EXPECT_EQ("", TakeJournal()) << "that is tried again a minute later";
        nowMs += 60000;
        limit->FollowObserved();
        EXPECT_TRUE(limit->IsMemLimited());
        limit->ReleaseLimits();
        EXPECT_EQ("", Own());
        EXPECT_THAT(zel::ReadObservedGroups(), IsEmpty());
        limit.reset();
        End();
    }
}

}  // namespace
