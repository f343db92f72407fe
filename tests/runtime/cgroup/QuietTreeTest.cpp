// A tree that nobody touches costs next to nothing to look after, however many groups it has, and nothing that somebody
// does to it is missed for that.
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <thread>

#include "AgentTreeFixture.h"
#include "Branch.h"
#include "QuietTree.h"
#include "base/Fd.h"
#include "kernel/Rhythm.h"
#include "platform/zel/CgroupKeeper.h"
#include "support/SystemCalls.h"

namespace {

using namespace treetest;
using support::CountSystemCalls;
using support::SystemCalls;
using zel::cgroup::GroupDir;
using zel::cgroup::MostBelievedMs;
using zel::cgroup::MostQuietMs;
using zel::cgroup::QuietTree;
using zel::cgroup::TreeWatch;
using zel::cgroup::Version;

/// An open list of version 1 is read afresh only so long after it was read last.
constexpr int kFreshMs = 1700;
/// Nearly as many as there may be; with their leaves 300 in each hierarchy. Fewer in a guest under emulation, where
/// making them takes longer than a silence is believed.
int Many() {
    return getenv("ZEL_VM_LAYOUT") == nullptr ? 60 : 10;
}
constexpr char kNoTrace[] = "SKIP direct: this thread cannot be traced";
constexpr char kLeaf[] = "collect-defense/QorHips";

/// Mounts of its own for the whole program: what is mounted here is used by nobody else's process.
class OwnMounts : public ::testing::Environment {
public:
    void SetUp() override {
        if (geteuid() != 0) return;
        ASSERT_EQ(0, unshare(CLONE_NEWNS));
        ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
    }
};
const ::testing::Environment* const g_ownMounts = ::testing::AddGlobalTestEnvironment(new OwnMounts);

class QuietTreeTest : public AgentTree {
protected:
    void TearDown() override {
        component.reset();
        if (prepared && manager) manager->RemovePidFromGroup("main", getpid());
        AgentTree::TearDown();
    }
    /// A tree with a component and `extra` groups besides, each with four leaves, in the sight of a keeper at rest.
    void Build(int extra) {
        manager = std::make_unique<zel::CCgroupManager>();
        std::vector<zel::CgroupGroupConfig> groups = {Group("main", 0, 0), Group("collect-defense", 20000, 262144)};
        std::vector<zel::CgroupComponentQuota> quotas = {Quota("Tervane", "main", 0, 0),
                                                         Quota("QorHips", "collect-defense", 5000, 131072)};
        for (int i = 0; i < extra; ++i) {
            const std::string number = std::to_string(i);
            groups.push_back(Group("extra-" + number, 0, 65536));
            for (const char* each : {"A", "B", "C", "D"}) {
                quotas.push_back(Quota("Component" + number + each, "extra-" + number, 0, 0));
            }
        }
        ASSERT_TRUE(manager->Reconcile(true, true, Total(350, 1048576), groups))
            << ::testing::PrintToString(Warnings());
        ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
        ASSERT_TRUE(manager->WriteComponentConfig(file, quotas, 35000, 1048576));
        component = std::make_unique<Child>(Sleeper);
        for (const std::string& tree : {cpuTree, memTree}) {
            ASSERT_TRUE(WriteText(tree + "/" + kLeaf + "/cgroup.procs", std::to_string(component->Pid())));
        }
        Round();
        Round();
        PollOom();
        PollOom();
        support::SleepMs(kFreshMs);
        ClearFaults();
    }
    std::vector<zel::CgroupDrift> Round() {
        std::vector<zel::CgroupDrift> found;
        EXPECT_TRUE(zel::KeepCgroupTree({{"QorHips", component->Pid()}}, found));
        return found;
    }
    std::vector<zel::CgroupMemoryOomEvent> PollOom() {
        std::vector<zel::CgroupMemoryOomEvent> events;
        EXPECT_TRUE(manager->PollMemoryOomEvents(events));
        return events;
    }
    /// The tracer is a child of this process, in the leaf of the main process: a change of its own.
    SystemCalls CountRound() {
        return CountSystemCalls([&] { Round(); },
                                [&] {
                                    Round();
                                    Round();
                                    support::SleepMs(kFreshMs);
                                });
    }
    static uint64_t Rounds() { return zel::GetCgroupKeeperStatus().rounds; }

    std::unique_ptr<zel::CCgroupManager> manager;
    std::unique_ptr<Child> component;
};

TEST_F(QuietTreeTest, ThePlaceIsKnownUntilSomethingTells) {
    Build(0);
    const auto find = [] { zel::cgroup::FindBranches(); };
    const SystemCalls known = CountSystemCalls(find, find);
    if (!known.counted) GTEST_SKIP() << kNoTrace;
    const auto bases = static_cast<int>(zel::cgroup::FindBranches().all.size());
    EXPECT_EQ(bases, known.opens) << "the bases and nothing else";
    const std::string beside = cpuTree + "-beside";
    const SystemCalls told = CountSystemCalls(find, [&] {
        find();
        ASSERT_EQ(0, mkdir(beside.c_str(), 0755));
    });
    EXPECT_EQ(0, rmdir(beside.c_str()));
    EXPECT_GT(told.opens, known.opens) << "it is decided anew";
    EXPECT_EQ(known.opens, CountSystemCalls(find, find).opens);
}

TEST_F(QuietTreeTest, ARoundOpensNothingAndIsFlatInTheGroups) {
    Build(0);
    const uint64_t rounds = Rounds();
    Round();
    EXPECT_EQ(rounds + 1, Rounds()) << "it counts as a round";
    const SystemCalls few = CountRound();
    if (!few.counted) GTEST_SKIP() << kNoTrace;
    EXPECT_EQ(0, few.opens);
    EXPECT_EQ(0, few.writes);
    EXPECT_GT(zel::GetCgroupKeeperStatus().lastGroups, 0);
    Build(Many());
    const SystemCalls many = CountRound();
    EXPECT_EQ(0, many.opens);
    EXPECT_EQ(few.all, many.all);
    printf("[ FIGURE ] a round at rest: %d system calls, with %d groups more %d\n", few.all, 5 * Many(), many.all);
}

TEST_F(QuietTreeTest, APollOpensNothingAndIsFlatInTheGroups) {
    Build(0);
    PollOom();
    const SystemCalls few = CountSystemCalls([&] { PollOom(); });
    if (!few.counted) GTEST_SKIP() << kNoTrace;
    EXPECT_EQ(0, few.opens);
    EXPECT_EQ(0, few.writes);
    Build(Many());
    PollOom();
    const SystemCalls many = CountSystemCalls([&] { PollOom(); });
    EXPECT_EQ(0, many.opens);
    EXPECT_EQ(few.all, many.all);
    printf("[ FIGURE ] a poll at rest: %d system calls, with %d groups more %d\n", few.all, 5 * Many(), many.all);
}

TEST_F(QuietTreeTest, AMoveAwayIsSeenInAListThatStaysOpen) {
    Build(0);
    for (const std::string& root : std::set<std::string>{layout.cpuMount, layout.memMount}) {
        ASSERT_TRUE(WriteText(root + "/cgroup.procs", std::to_string(component->Pid())));
        const std::vector<zel::CgroupDrift> found = Round();
        ASSERT_EQ(1u, found.size()) << root;
        EXPECT_TRUE(found[0].repaired);
        EXPECT_TRUE(IsIn(component->Pid(), kLeaf));
        Round();
        support::SleepMs(kFreshMs);
        EXPECT_TRUE(Round().empty());
        support::SleepMs(kFreshMs);
    }
}

// What is open must not keep an operator from unmounting a hierarchy.
TEST_F(QuietTreeTest, KeepsNoMountBusy) {
    Build(0);
    const support::TempDir folder;
    for (const std::string& source : {layout.cpuMount, layout.memMount}) {
        ASSERT_EQ(0, mount(source.c_str(), folder.Path().c_str(), nullptr, MS_BIND, nullptr));
        Round();
        Round();
        support::SleepMs(kFreshMs);
        Round();
        EXPECT_EQ(0, umount(folder.Path().c_str())) << "busy, errno " << errno;
    }
    EXPECT_TRUE(Round().empty());
}

// The later mount of two is the one that is used: the tree is looked after through it, and it can be unmounted.
TEST_F(QuietTreeTest, TheMountInUseIsNotBusyEither) {
    const support::TempDir folder;
    ASSERT_EQ(0, mount(layout.cpuMount.c_str(), folder.Path().c_str(), nullptr, MS_BIND, nullptr));
    const std::string real = cpuTree;
    cpuTree = folder.Path() + "/" + treeName;
    Build(0);
    const bool open = Round().empty();
    const int done = umount(folder.Path().c_str());
    const int error = errno;
    cpuTree = real;
    EXPECT_TRUE(open);
    EXPECT_EQ(0, done) << "errno " << error;
    for (int i = 0; i < 3; ++i) Round();
    EXPECT_TRUE(IsIn(component->Pid(), kLeaf));
}

void DisturbAndExpectRepair(const std::string& cpuTree, bool isV2, const std::function<void()>& round) {
    const std::string file = cpuTree + "/" + kLeaf + (isV2 ? "/cpu.max" : "/cpu.cfs_quota_us");
    const std::string asked = ReadValue(file);
    ASSERT_TRUE(WriteText(file, isV2 ? "max" : "-1"));
    ASSERT_NE(asked, ReadValue(file));
    round();
    EXPECT_EQ(asked, ReadValue(file));
}

TEST_F(QuietTreeTest, WithoutInotifyEachRoundLooksAtEverything) {
    const bool ran = support::RunWithoutCall(SYS_inotify_init1, EMFILE, [&] {
        Build(0);
        EXPECT_GT(CountRound().opens, 0);
        DisturbAndExpectRepair(cpuTree, layout.cpuV2, [&] { Round(); });
    });
    if (!ran) GTEST_SKIP() << "SKIP direct: no filter can be set";
}

TEST_F(QuietTreeTest, WithoutRoomForAWatchEachRoundLooksAtEverything) {
    const bool ran = support::RunWithoutCall(SYS_inotify_add_watch, ENOSPC, [&] {
        Build(0);
        EXPECT_GT(CountRound().opens, 0);
        DisturbAndExpectRepair(cpuTree, layout.cpuV2, [&] { Round(); });
    });
    if (!ran) GTEST_SKIP() << "SKIP direct: no filter can be set";
}

TEST_F(QuietTreeTest, WithoutAPrivateViewListsAreOpenedEachTime) {
    constexpr long kOpenTree = 428;
    const bool ran = support::RunWithoutCall(kOpenTree, EPERM, [&] {
        Build(0);
        const SystemCalls calls = CountRound();
        if (calls.counted) {
            EXPECT_GT(calls.opens, 0);
            EXPECT_LE(calls.opens, 8) << "nothing but the lists of two leaves in two hierarchies";
        }
        ASSERT_TRUE(WriteText(layout.cpuMount + "/cgroup.procs", std::to_string(component->Pid())));
        Round();
        EXPECT_TRUE(IsIn(component->Pid(), kLeaf));
        DisturbAndExpectRepair(cpuTree, layout.cpuV2, [&] { Round(); });
    });
    if (!ran) GTEST_SKIP() << "SKIP direct: no filter can be set";
}

TEST_F(QuietTreeTest, AForkedChildTakesNothingThatItsParentIsTold) {
    Build(0);
    DisturbAndExpectRepair(cpuTree, layout.cpuV2, [&] {
        Child forked([&] {
            manager->ResetMemoryOomMonitor();
            std::vector<zel::CgroupMemoryOomEvent> events;
            return manager->PollMemoryOomEvents(events) ? 0 : 1;
        });
        EXPECT_EQ(0, forked.Wait());
        Round();
    });
}

TEST_F(QuietTreeTest, AnOverflowIsAChangeOfEverything) {
    Build(0);
    auto leaf = GroupDir::Open(cpuTree + "/" + kLeaf, layout.cpuV2 ? Version::kV2 : Version::kV1);
    ASSERT_TRUE(leaf.Ok());
    TreeWatch watch;
    watch.Begin();
    watch.Watch(*leaf);
    watch.End();
    ASSERT_TRUE(watch.IsWhole());
    const uint64_t counts = watch.Counts();
    const uint64_t queue = std::stoull(ReadValue("/proc/sys/fs/inotify/max_queued_events"));
    if (queue > 100000) GTEST_SKIP() << "SKIP direct: " << queue << " events are queued here";
    const std::string asked = ReadValue(cpuTree + "/" + kLeaf + "/cgroup.procs");
    for (uint64_t i = 0; i <= queue / 2; ++i) {
        // One after the other, since the same event twice in a row is told once.
        ASSERT_TRUE(WriteText(cpuTree + "/" + kLeaf + "/cgroup.procs", asked.substr(0, asked.find('\n'))));
        const std::string other = layout.cpuV2 ? "/cgroup.max.depth" : "/notify_on_release";
        ASSERT_TRUE(WriteText(cpuTree + "/" + kLeaf + other, layout.cpuV2 ? "max" : "0"));
    }
    watch.Drain();
    EXPECT_GE(watch.Changes(), queue);
    EXPECT_EQ(counts + 1, watch.Counts()) << "the overflow may hide any event";
}

/// What was noted of a leaf of which nobody tells anything.
class UntoldTest : public QuietTreeTest {
protected:
    void SetUp() override {
        QuietTreeTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        Build(0);
        Note();
    }
    /// A look at the leaf, as long ago as the clock of the test says.
    void Note() {
        const auto leaf = GroupDir::Open(cpuTree + "/" + kLeaf, layout.cpuV2 ? Version::kV2 : Version::kV1);
        ASSERT_TRUE(leaf.Ok());
        quiet.Begin();
        quiet.NoteLimits(*leaf, {true, false});
        quiet.NoteThreads(*leaf, component->Pid());
        quiet.Settle(true, 0);
        ASSERT_TRUE(quiet.Holds(1));
    }
    /// A process with one thread more as soon as it is told.
    static int GrowWhenTold(int told) {
        char word = 0;
        if (read(told, &word, 1) != 1) return 1;
        std::thread([] { pause(); }).join();
        return 0;
    }
    static long CountThreads(int pid) {
        const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
        return std::distance(std::filesystem::directory_iterator(tasks), std::filesystem::directory_iterator());
    }
    QuietTree quiet;
};

TEST_F(UntoldTest, ALimitThatNobodyToldOfIsNoticedWithinAMinute) {
    const std::string value = cpuTree + "/" + kLeaf + (layout.cpuV2 ? "/cpu.max" : "/cpu.cfs_period_us");
    const std::string asked = ReadValue(value);
    ASSERT_TRUE(WriteText(value, layout.cpuV2 ? "max" : "200000"));
    EXPECT_TRUE(quiet.Holds(MostQuietMs() - 1));
    EXPECT_FALSE(quiet.Holds(MostQuietMs()));
    EXPECT_TRUE(WriteText(value, asked));
}

TEST_F(UntoldTest, AForkedChildTakesNothingThatIsToldToItsParent) {
    const auto leaf = GroupDir::Open(cpuTree + "/" + kLeaf, layout.cpuV2 ? Version::kV2 : Version::kV1);
    ASSERT_TRUE(leaf.Ok());
    quiet.Begin();
    quiet.Watch(*leaf);
    quiet.Settle(true, 0);
    ASSERT_TRUE(quiet.Holds(1));
    const std::string value = cpuTree + "/" + kLeaf + (layout.cpuV2 ? "/cpu.max" : "/cpu.cfs_period_us");
    const std::string asked = ReadValue(value);
    ASSERT_TRUE(WriteText(value, layout.cpuV2 ? "max" : "200000"));
    Child child([&] { return quiet.Holds(1) ? 1 : 0; });
    EXPECT_EQ(0, child.Wait()) << "a child looks for itself";
    EXPECT_FALSE(quiet.Holds(1));
    EXPECT_TRUE(WriteText(value, asked));
}

// One hierarchy with both controllers has one list, whoever asks for it.
TEST_F(UntoldTest, OneListThatIsNotedTwiceIsOneList) {
    int begin[2] = {-1, -1};
    ASSERT_EQ(0, pipe(begin));
    const Child grows([&] { return GrowWhenTold(begin[0]); });
    const auto leaf = GroupDir::Open(cpuTree + "/" + kLeaf, layout.cpuV2 ? Version::kV2 : Version::kV1);
    ASSERT_TRUE(leaf.Ok());
    quiet.Begin();
    for (int i = 0; i < 2; ++i) quiet.NoteThreads(*leaf, grows.Pid());
    quiet.Settle(true, 0);
    ASSERT_TRUE(quiet.Holds(1));
    ASSERT_EQ(1, write(begin[1], "x", 1));
    while (CountThreads(grows.Pid()) < 2) support::SleepMs(5);
    EXPECT_FALSE(quiet.Holds(2));
    close(begin[0]);
    close(begin[1]);
}

TEST_F(UntoldTest, AMoveThatNoListShowsIsNoticedWithinAMinute) {
    if (layout.cpuV2) GTEST_SKIP() << "SKIP direct: lists of version 2 are never old";
    ASSERT_TRUE(WriteText(layout.cpuMount + "/cgroup.procs", std::to_string(component->Pid())));
    EXPECT_TRUE(quiet.Holds(MostQuietMs() - 1));
    EXPECT_FALSE(quiet.Holds(MostQuietMs()));
}

// Born and moved away between two looks, out of both hierarchies.
TEST_F(UntoldTest, AThreadInNeitherListIsNoticedWithinAMinute) {
    int begin[2] = {-1, -1};
    ASSERT_EQ(0, pipe(begin));
    const Child grows([&] { return GrowWhenTold(begin[0]); });
    const Version cpu = layout.cpuV2 ? Version::kV2 : Version::kV1;
    const auto one = GroupDir::Open(cpuTree + "/" + kLeaf, cpu);
    const auto other = GroupDir::Open(cpuTree, cpu);
    ASSERT_TRUE(one.Ok() && other.Ok());
    QuietTree oneList;
    QuietTree twoLists;
    for (QuietTree* each : {&oneList, &twoLists}) {
        each->Begin();
        each->NoteThreads(*one, grows.Pid());
        if (each == &twoLists) each->NoteThreads(*other, grows.Pid());
        each->Settle(true, 0);
        ASSERT_TRUE(each->Holds(1));
    }
    ASSERT_EQ(1, write(begin[1], "x", 1));
    while (CountThreads(grows.Pid()) < 2) support::SleepMs(5);
    EXPECT_FALSE(oneList.Holds(2));
    EXPECT_TRUE(twoLists.Holds(MostQuietMs() - 1));
    EXPECT_FALSE(twoLists.Holds(MostQuietMs()));
    close(begin[0]);
    close(begin[1]);
}

TEST_F(UntoldTest, WhatStandsIsComparedEachMinuteAndLookedAtInTheEnd) {
    int64_t now = 0;
    const auto compare = [&] {
        now += MostQuietMs();
        EXPECT_TRUE(quiet.Holds(now));
    };
    const SystemCalls once = CountSystemCalls(compare, compare);
    const SystemCalls between = CountSystemCalls([&] { quiet.Holds(now + 1); });
    while (now + MostQuietMs() < MostBelievedMs()) compare();
    EXPECT_FALSE(quiet.Holds(MostBelievedMs()));
    if (!once.counted) GTEST_SKIP() << kNoTrace;
    EXPECT_EQ(0, once.opens);
    EXPECT_EQ(between.all + (layout.cpuV2 ? 3 : 4), once.all)
        << "a call for each value, for where the process is, and for its threads";
}

TEST_F(UntoldTest, WhereLimitsCannotStayOpenEachMinuteIsALook) {
    constexpr long kOpenTree = 428;
    const bool ran = support::RunWithoutCall(kOpenTree, EPERM, [&] {
        quiet = QuietTree();
        Note();
        EXPECT_TRUE(quiet.Holds(MostQuietMs() - 1));
        EXPECT_FALSE(quiet.Holds(MostQuietMs()));
    });
    if (!ran) GTEST_SKIP() << "SKIP direct: no filter can be set";
}

class QuietOomTest : public QuietTreeTest {
protected:
    /// Returns: wait status of a process that touches 200 MB in the component's leaf.
    int Eat() const {
        Child hog([&] {
            constexpr size_t kBytes = 200U << 20;
            if (!WriteText(memTree + "/" + kLeaf + "/cgroup.procs", std::to_string(getpid()))) return 2;
            char* memory =
                static_cast<char*>(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            if (memory == MAP_FAILED) return 3;
            for (size_t at = 0; at < kBytes; at += 4096) memory[at] = 1;
            return 0;
        });
        return hog.Wait();
    }
};

TEST_F(QuietOomTest, AKillIsReportedAfterALongSilence) {
    Build(0);
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(PollOom().empty());
    const int status = Eat();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    std::vector<zel::CgroupMemoryOomEvent> events = PollOom();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ("collect-defense", events[1].group);
    EXPECT_EQ(1, events[1].oom_kill_delta);
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(PollOom().empty());
}

TEST_F(QuietOomTest, AChangeReadsTheCountersAfterAKillOnly) {
    Build(0);
    const std::vector<zel::CgroupComponentQuota> quotas = {Quota("Tervane", "main", 0, 0),
                                                           Quota("QorHips", "collect-defense", 5000, 131072)};
    const auto change = [&] { EXPECT_TRUE(manager->WriteComponentConfig(file, quotas, 35000, 1048576)); };
    SystemCalls calm = CountSystemCalls(change, change);
    if (!calm.counted) GTEST_SKIP() << kNoTrace;
    // Somebody else's kill is looked into as well.
    for (int i = 0; i < 2; ++i) calm.opens = std::min(calm.opens, CountSystemCalls(change, change).opens);
    ASSERT_TRUE(WIFSIGNALED(Eat()));
    EXPECT_GT(CountSystemCalls(change).opens, calm.opens);
    EXPECT_EQ(2u, PollOom().size()) << "and the kill is reported";
}

// What was read for a change is believed until something tells otherwise.
TEST_F(QuietTreeTest, WhatIsDoneAmidAChangeIsSeenByItsPublication) {
    Build(0);
    const std::string total = cpuTree + (layout.cpuV2 ? "/cpu.max" : "/cpu.cfs_quota_us");
    const std::string leaf = cpuTree + "/" + kLeaf + (layout.cpuV2 ? "/cpu.max" : "/cpu.cfs_quota_us");
    const std::string asked = ReadValue(leaf);
    ASSERT_TRUE(manager->Reconcile(true, true, Total(350, 1048576),
                                   {Group("main", 0, 0), Group("collect-defense", 20000, 262144)}));
    EXPECT_EQ(35000, manager->GetParentCpuLimit100Times());
    ASSERT_TRUE(WriteText(leaf, layout.cpuV2 ? "3000 100000" : "3000"));
    ASSERT_TRUE(WriteText(total, layout.cpuV2 ? "500000 100000" : "500000"));
    EXPECT_EQ(50000, manager->GetParentCpuLimit100Times());
    EXPECT_TRUE(manager->WriteComponentConfig(
        file, {Quota("Tervane", "main", 0, 0), Quota("QorHips", "collect-defense", 5000, 131072)}, 35000, 1048576));
    EXPECT_EQ(asked, ReadValue(leaf));
}

// Kernel: of version 2's count of limits that were met nobody but inotify tells.
TEST_F(QuietOomTest, WithoutInotifyEachChangeReadsTheCounters) {
    Build(0);
    const base::Fd opened(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const std::string counters = memTree + (layout.memV2 ? "/memory.events" : "/memory.oom_control");
    ASSERT_GE(inotify_add_watch(opened.Get(), counters.c_str(), IN_OPEN), 0);
    char events[4096];
    const auto wereOpened = [&] { return read(opened.Get(), events, sizeof events) > 0; };
    const std::vector<zel::CgroupComponentQuota> quotas = {Quota("Tervane", "main", 0, 0),
                                                           Quota("QorHips", "collect-defense", 5000, 131072)};
    const auto change = [&] { EXPECT_TRUE(manager->WriteComponentConfig(file, quotas, 35000, 1048576)); };
    const bool ran = support::RunWithoutCall(SYS_inotify_init1, EMFILE, [&] {
        Build(0);
        for (int i = 0; i < 3; ++i) change();
        while (wereOpened()) continue;
        change();
        EXPECT_TRUE(wereOpened());
    });
    if (!ran) GTEST_SKIP() << "SKIP direct: no filter can be set";
}

// A snapshot between two polls takes nothing away from the second one.
TEST_F(QuietOomTest, AKillThatASnapshotSawFirstIsReported) {
    Build(0);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(PollOom().empty());
    ASSERT_TRUE(WIFSIGNALED(Eat()));
    std::vector<zel::CgroupMemoryOomEvent> snapshot;
    ASSERT_TRUE(manager->SnapshotSelfMemoryOomCounters(snapshot));
    EXPECT_EQ(2u, PollOom().size());
}

}  // namespace
