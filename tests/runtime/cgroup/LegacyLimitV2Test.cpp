// The legacy limit on version 2. Runs where cpu and memory are on cgroup2: in a virtual machine, or on a host that is
// set up like that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "LegacyDriftTests.h"
#include "LegacyLimit.h"
#include "kernel/Limits.h"
#include "RealKernel.h"
#include "support/Files.h"
#include "support/RecordedLog.h"
#include "platform/zel/CgroupStatus.h"

using namespace zel::cgroup;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class LegacyLimitV2Test : public testing::Test {
protected:
    void SetUp() override {
        auto texts = ReadLayout();
        ASSERT_TRUE(texts.Ok());
        m_cpu = FindHierarchy(Controller::kCpu, *texts);
        m_memory = FindHierarchy(Controller::kMemory, *texts);
        const bool usable = geteuid() == 0 && m_cpu.version == Version::kV2 && m_memory.version == Version::kV2 &&
                            !m_cpu.readOnly && m_cpu.ownPath == "/";
        if (!usable) {
            // In the machine that was booted for this, a skip would hide the failure.
            ASSERT_EQ(nullptr, getenv("ZEL_VM_LAYOUT")) << m_cpu.reason << "; " << m_memory.reason;
            GTEST_SKIP() << "SKIP direct v2: " << m_cpu.reason << "; covered by vm v2";
        }
        m_root = std::move(*GroupDir::Open(m_cpu.mountPoint, Version::kV2));
        m_name = "zeltest-" + std::to_string(getpid());
        m_limit = Make();
        support::TakeLogLines();
    }
    void TearDown() override {
        if (!m_root.IsOpen()) return;
        m_limit.reset();
        const auto children = m_root.Children();
        ASSERT_TRUE(children.Ok());
        for (const std::string& child : *children) {
            if (child.compare(0, m_name.size(), m_name) == 0) RemoveTree(m_root, child);
        }
    }
    void RemoveTree(const GroupDir& parent, const std::string& name) {
        auto group = parent.OpenChild(name);
        if (!group) return;
        if (auto children = group->Children()) {
            for (const std::string& child : *children) RemoveTree(*group, child);
        }
        EXPECT_TRUE(MoveAll(*group, m_root).Ok());
        EXPECT_TRUE(parent.RemoveChild(name).Ok());
    }
    std::unique_ptr<LegacyLimit> Make() const {
        LegacyOptions options;
        options.groupName = m_name + ".legacy";
        options.treeName = m_name;
        options.applicationDir = "/opt/zeltest-nowhere";
        options.nowMs = [nowMs = int64_t{0}]() mutable { return nowMs += 5000; };
        return std::make_unique<LegacyLimit>(std::move(options));
    }
    std::string Dir(const std::string& relative) const { return m_cpu.mountPoint + "/" + m_name + relative; }
    std::string SelfGroup() const { return ReadGroupOf(static_cast<int>(getpid()), m_cpu).Value(); }

    Hierarchy m_cpu;
    Hierarchy m_memory;
    GroupDir m_root;
    std::string m_name;
    std::unique_ptr<LegacyLimit> m_limit;
    int m_error = 0;
};

TEST_F(LegacyLimitV2Test, CpuLimitHoldsAndStopLeavesNothingBehind) {
    ASSERT_EQ(kLegacyOk, m_limit->StartCpuLimit(9, 50, m_error));
    EXPECT_EQ("9500 100000", ReadValue(Dir(".legacy/cpu.max")));
    EXPECT_EQ("/" + m_name + ".legacy", SelfGroup());
    EXPECT_TRUE(m_limit->IsCpuLimited());
    EXPECT_TRUE(m_limit->IsV2Runtime(Controller::kCpu));
    EXPECT_FALSE(m_limit->IsV2Runtime(Controller::kMemory));
    ASSERT_EQ(kLegacyOk, m_limit->StartCpuLimit(0, 50, m_error));
    EXPECT_EQ("1000 200000", ReadValue(Dir(".legacy/cpu.max")));
    ASSERT_EQ(kLegacyOk, m_limit->StopCpuLimit(m_error));
    EXPECT_EQ("/", SelfGroup());
    EXPECT_FALSE(Exists(Dir(".legacy")));
    EXPECT_FALSE(m_limit->IsV2Runtime(Controller::kCpu));
}

TEST_F(LegacyLimitV2Test, BothLimitsShareOneGroupAndLastOneLeavesIt) {
    ASSERT_EQ(kLegacyOk, m_limit->StartCpuLimit(50, 0, m_error));
    ASSERT_EQ(kLegacyOk, m_limit->PrepareMemLimit());
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(96 << 20, 64 << 20, m_error));
    EXPECT_EQ(std::to_string(96 << 20), ReadValue(Dir(".legacy/memory.max")));
    EXPECT_EQ("max", ReadValue(Dir(".legacy/memory.high"))) << "the soft limit must not be able to stall the agent";
    EXPECT_TRUE(m_limit->IsCpuLimited());
    EXPECT_TRUE(m_limit->IsMemLimited());
    ASSERT_EQ(kLegacyOk, m_limit->StopCpuLimit(m_error));
    EXPECT_EQ("max 100000", ReadValue(Dir(".legacy/cpu.max")));
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_TRUE(m_limit->IsMemLimited());
    ASSERT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
    EXPECT_FALSE(Exists(Dir(".legacy")));
    EXPECT_EQ("/", SelfGroup());
}

TEST_F(LegacyLimitV2Test, LimitThatCannotHoldThisProcessIsRefused) {
    EXPECT_EQ(kLegacyBadValue, m_limit->StartMemLimit(256 << 10, 128 << 10, m_error));
    EXPECT_EQ(EINVAL, m_error);
    EXPECT_FALSE(Exists(Dir(".legacy")));
    EXPECT_EQ("/", SelfGroup());
}

TEST_F(LegacyLimitV2Test, LimitBelowWhatCannotBeReclaimedIsRefused) {
    auto group = m_root.MakeChild(m_name);
    ASSERT_TRUE(group.Ok());
    ASSERT_TRUE(m_root.EnableForChildren("memory").Ok());
    for (const Holding what : {Holding::kShared, Holding::kKernel}) {
        ASSERT_TRUE(ApplyMemHardLimit(*group, 256 << 20).Ok());
        HoldingChild child(*group, what);
        ASSERT_TRUE(child.Holds());
        Status refused = ApplyMemHardLimit(*group, 8 << 20);
        EXPECT_FALSE(refused.Ok());
        EXPECT_EQ(std::to_string(256 << 20), ReadValue(Dir("/memory.max")));
        EXPECT_TRUE(child.Lives()) << "the kernel took the limit and killed";
    }
}

TEST_F(LegacyLimitV2Test, SwapLimitGoesWithTheMemoryLimit) {
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(96 << 20, 64 << 20, m_error));
    EXPECT_EQ("0", ReadValue(Dir(".legacy/memory.swap.max")));
    auto group = m_root.OpenChild(m_name + ".legacy");
    ASSERT_TRUE(group.Ok());
    ASSERT_TRUE(ApplyMemHardLimit(*group, kUnlimited).Ok());
    EXPECT_EQ("max", ReadValue(Dir(".legacy/memory.swap.max")));
    ASSERT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
}

// What version 1 does by its limit on memory and swap together: the hog ends, the host's swap stays as it was.
TEST_F(LegacyLimitV2Test, WhatIsAboveTheLimitDoesNotGoToSwap) {
    if (!Exists("/dev/nvme0n1")) GTEST_SKIP() << "SKIP: no disk to swap to";
    ASSERT_EQ(0, system("mkswap /dev/nvme0n1 >/dev/null && swapon /dev/nvme0n1"));
    auto group = m_root.MakeChild(m_name);
    ASSERT_TRUE(group.Ok());
    ASSERT_TRUE(m_root.EnableForChildren("memory").Ok());
    ASSERT_TRUE(ApplyMemHardLimit(*group, 16 << 20).Ok());
    const pid_t hog = fork();
    if (hog == 0) {
        if (!group->MoveHere(static_cast<int>(getpid())).Ok()) _exit(3);
        constexpr size_t kBytes = 48 << 20;
        auto* memory = static_cast<volatile char*>(malloc(kBytes));
        for (size_t i = 0; memory != nullptr && i < kBytes; i += 4096) memory[i] = 1;
        _exit(0);
    }
    int state = 0;
    waitpid(hog, &state, 0);
    EXPECT_TRUE(WIFSIGNALED(state)) << "it went on in swap";
    EXPECT_EQ("0", ReadValue(Dir("/memory.swap.current")));
    EXPECT_EQ(0, system("swapoff /dev/nvme0n1"));
}

TEST_F(LegacyLimitV2Test, ABurnerIsThrottledAndTheStatusShowsIt) {
    ASSERT_EQ(kLegacyOk, m_limit->StartCpuLimit(10, 0, m_error));
    timespec start{}, now{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    do {
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while (now.tv_sec - start.tv_sec < 2);
    zel::CgroupStatus status;
    ASSERT_TRUE(zel::ReadCgroupStatus(status));
    EXPECT_EQ(2, status.cpu.version);
    EXPECT_TRUE(status.cpu.limited);
    EXPECT_EQ(1000, status.cpu.limit100Times);
    EXPECT_GE(status.cpu.throttledPeriods, 5);
    EXPECT_GT(status.cpu.usageUs, 0);
}

TEST_F(LegacyLimitV2Test, ARealOutOfMemoryKillIsCounted) {
    auto group = m_root.MakeChild(m_name);
    ASSERT_TRUE(group.Ok());
    ASSERT_TRUE(m_root.EnableForChildren("memory").Ok());
    ASSERT_TRUE(ApplyMemHardLimit(*group, 16 << 20).Ok());
    const pid_t hog = fork();
    if (hog == 0) {
        if (!group->MoveHere(static_cast<int>(getpid())).Ok()) _exit(3);
        constexpr size_t kBytes = 64 << 20;
        auto* memory = static_cast<volatile char*>(malloc(kBytes));
        for (size_t i = 0; memory != nullptr && i < kBytes; i += 4096) memory[i] = 1;
        _exit(0);
    }
    int state = 0;
    waitpid(hog, &state, 0);
    ASSERT_TRUE(WIFSIGNALED(state));
    auto counters = ReadMemCounters(*group);
    ASSERT_TRUE(counters.Ok());
    EXPECT_EQ(1, counters->oomKills);
    EXPECT_GE(counters->ooms, 1);
    EXPECT_GE(counters->localOoms, 1);
    EXPECT_GT(counters->limitHits, 0);
}

TEST_F(LegacyLimitV2Test, InDelegatedUnitGoesToLeafFirstAndComesBack) {
    auto unit = m_root.MakeChild(m_name + ".service");
    ASSERT_TRUE(unit.Ok());
    for (const char* controller : {"cpu", "memory"}) ASSERT_TRUE(m_root.EnableForChildren(controller).Ok());
    ASSERT_EQ(0, fsetxattr(unit->Descriptor(), "user.delegate", "1", 1, 0)) << strerror(errno);
    WaitingChild sibling;
    ASSERT_TRUE(unit->MoveHere(sibling.Pid()).Ok());
    ASSERT_TRUE(unit->MoveHere(static_cast<int>(getpid())).Ok());
    const std::string unitPath = "/" + m_name + ".service";
    ASSERT_EQ(kLegacyOk, m_limit->StartCpuLimit(30, 0, m_error));
    EXPECT_EQ(unitPath + "/" + m_name + ".legacy", SelfGroup());
    EXPECT_EQ(unitPath + "/" + m_name + ".legacy", *ReadGroupOf(sibling.Pid(), m_cpu));
    EXPECT_EQ("30000 100000", ReadValue(Dir(".service/" + m_name + ".legacy/cpu.max")));
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(96 << 20, 0, m_error));
    EXPECT_TRUE(m_limit->IsCpuLimited());
    EXPECT_TRUE(m_limit->IsMemLimited());
    m_limit->ReleaseLimits();
    EXPECT_EQ(unitPath, SelfGroup());
    EXPECT_EQ(unitPath, *ReadGroupOf(sibling.Pid(), m_cpu));
    EXPECT_FALSE(Exists(Dir(".service/" + m_name + ".legacy")));
}

TEST_F(LegacyLimitV2Test, AServiceThatIsNotDelegatedIsLeftAlone) {
    auto unit = m_root.MakeChild(m_name + ".service");
    ASSERT_TRUE(unit.Ok());
    ASSERT_TRUE(unit->MoveHere(static_cast<int>(getpid())).Ok());
    EXPECT_EQ(kLegacyDenied, m_limit->StartCpuLimit(30, 0, m_error));
    EXPECT_EQ("/" + m_name + ".service", SelfGroup());
    const auto log = support::TakeLogLines();
    ASSERT_THAT(log, SizeIs(1));
    EXPECT_THAT(log[0].text, HasSubstr("add Delegate=yes to its [Service] section"));
    EXPECT_FALSE(Exists(Dir(".legacy")));
}

TEST_F(LegacyLimitV2Test, IsNotMovedBesideChildrenWithControllers) {
    auto parent = m_root.MakeChild(m_name);
    ASSERT_TRUE(parent.Ok());
    ASSERT_TRUE(m_root.EnableForChildren("cpu").Ok());
    ASSERT_TRUE(parent->MakeChild("leaf").Ok());
    ASSERT_TRUE(parent->EnableForChildren("cpu").Ok());
    WaitingChild child;
    Status refused = parent->MoveHere(child.Pid());
    ASSERT_FALSE(refused.Ok());
    EXPECT_EQ(ErrorKind::kBusy, refused.GetError().kind);
    EXPECT_THAT(refused.GetError().Text(), HasSubstr("processes belong in a leaf below it"));
    ASSERT_TRUE(parent->DisableForChildren("cpu").Ok());
    ASSERT_TRUE(parent->MoveHere(child.Pid()).Ok());
    Status busy = parent->EnableForChildren("cpu");
    ASSERT_FALSE(busy.Ok());
    EXPECT_EQ(ErrorKind::kBusy, busy.GetError().kind);
    EXPECT_THAT(busy.GetError().Text(), HasSubstr("move them to a leaf first"));
}

// --- what somebody else changes --------------------------------------------------------------------------------------

class LegacyDriftV2Base : public LegacyDriftFixture<LegacyLimitV2Test> {
public:
    void SetUp() override {
        LegacyLimitV2Test::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        Limit(256 << 20, 128 << 20);
    }
    std::string Picture() const override {
        std::string out;
        for (const char* file : {"cpu.max", "cpu.max.burst", "memory.max", "memory.swap.max"}) {
            out += std::string(file) + " " + ReadValue(Dir(".legacy/") + file) + "\n";
        }
        for (const int id : {static_cast<int>(getpid()), ChildPid()}) {
            out += ReadGroupOf(id, m_cpu).Value() == "/" + m_name + ".legacy" ? " inside" : " outside";
        }
        return out;
    }
    void Set(const char* file, const char* value) const { Write(Dir(".legacy/") + file, value); }
    void ToRoot(int pid) const { Write(m_cpu.mountPoint + "/cgroup.procs", std::to_string(pid)); }
    void TakeAway(const char* controller) const {
        Write(m_cpu.mountPoint + "/cgroup.subtree_control", std::string("-") + controller);
    }
    void Remove() const {
        ASSERT_TRUE(MoveAll(*m_root.OpenChild(m_name + ".legacy"), m_root).Ok());
        ASSERT_EQ(0, rmdir(Dir(".legacy").c_str()));
    }
};

using Drift = DriftRow<LegacyDriftV2Base>;
class LegacyDriftV2Table : public LegacyDriftV2Base, public testing::WithParamInterface<Drift> {};

using Kind = zel::CgroupDriftKind;
using Test = LegacyDriftV2Base;
const Drift kDrifts[] = {
    {"QuotaLifted", Kind::kCpuQuota, [](Test& t) { t.Set("cpu.max", "max"); }},
    {"QuotaLowered", Kind::kCpuQuota, [](Test& t) { t.Set("cpu.max", "20000 100000"); }},
    {"QuotaRaised", Kind::kCpuQuota, [](Test& t) { t.Set("cpu.max", "90000 100000"); }},
    {"PeriodChanged", Kind::kCpuQuota, [](Test& t) { t.Set("cpu.max", "50000 60000"); }},
    {"BurstSet", Kind::kCpuBurst, [](Test& t) { t.Set("cpu.max.burst", "30000"); }},
    {"HardLifted", Kind::kMemory, [](Test& t) { t.Set("memory.max", "max"); }},
    {"HardRaised", Kind::kMemory, [](Test& t) { t.Set("memory.max", "1073741824"); }},
    {"HardLowered", Kind::kMemory, [](Test& t) { t.Set("memory.max", "201326592"); }},
    {"SwapLifted", Kind::kSwap, [](Test& t) { t.Set("memory.swap.max", "max"); }},
    {"SwapRaised", Kind::kSwap, [](Test& t) { t.Set("memory.swap.max", "67108864"); }},
    {"SelfMoved", Kind::kMember, [](Test& t) { t.ToRoot(static_cast<int>(getpid())); }},
    {"ChildMoved", Kind::kMember, [](Test& t) { t.ToRoot(t.ChildPid()); }},
    {"CpuTakenAway", Kind::kController, [](Test& t) { t.TakeAway("cpu"); }},
    {"MemoryTakenAway", Kind::kController, [](Test& t) { t.TakeAway("memory"); }},
    {"GroupRemoved", Kind::kGroup, [](Test& t) { t.Remove(); }},
};

TEST_P(LegacyDriftV2Table, IsPutRightInTwoLooksToldOnceAndCounted) {
    const Drift& drift = GetParam();
    drift.disturb(*this);
    // Both limits share the group here: its end is found by each, and told once.
    ExpectPutRight(drift.kind, drift.kind == Kind::kGroup ? 2 : 1);
    m_limit->SyncCpuLimit();
    EXPECT_THAT(m_limit->TakeNews(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Rows, LegacyDriftV2Table, testing::ValuesIn(kDrifts), NameOfRow<LegacyDriftV2Base>);

}  // namespace
