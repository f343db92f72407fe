// What somebody else changes on the tree, one row each: put right within two rounds, told once, counted. Against the
// real kernel: version 1 on this machine, version 2 and mixtures in the guests.
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

#include "AgentTreeFixture.h"
#include "DriftLedger.h"
#include "Keeper.h"
#include "OwnGroup.h"
#include "base/FileIo.h"
#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupKeeper.h"
#include "support/SystemCalls.h"

namespace {

using namespace treetest;
using zel::CgroupDriftKind;

class KeeperTest : public AgentTree {
public:
    using AgentTree::cpuTree;
    using AgentTree::layout;
    using AgentTree::memTree;

    void SetUp() override {
        AgentTree::SetUp();
        if (!prepared) return;
        ASSERT_TRUE(manager.Reconcile(true, true, Total(350, 1048576),
                                      {Group("main", 30000, 524288), Group("collect-defense", 20000, 262144)}));
        ASSERT_TRUE(manager.AddPidToGroup("main", getpid()));
        ASSERT_TRUE(manager.WriteComponentConfig(
            file, {Quota("Tervane", "main", 25000, 500000), Quota("QorHips", "collect-defense", 5000, 131072)}, 35000,
            1048576));
        component = std::make_unique<Child>(Sleeper);
        for (const std::string& tree : Trees()) PutInto(tree + "/collect-defense/QorHips", component->Pid());
        before = zel::GetCgroupKeeperStatus();
        Round();
        Round();
        ASSERT_TRUE(news.empty()) << news.front().path;
        ASSERT_EQ(Found(), 0u) << "an undisturbed tree is not in need of repair";
        asked = Picture();
        ClearFaults();
    }
    void TearDown() override {
        sleeperEnds = true;
        if (sleeper.joinable()) sleeper.join();
        component.reset();
        if (prepared) manager.RemovePidFromGroup("main", getpid());
        AgentTree::TearDown();
    }

    std::vector<std::string> Trees() const {
        return cpuTree == memTree ? std::vector<std::string>{cpuTree} : std::vector<std::string>{cpuTree, memTree};
    }
    static void PutInto(const std::string& directory, int pid) {
        ASSERT_TRUE(WriteText(directory + "/cgroup.procs", std::to_string(pid))) << directory;
    }

    void Round() {
        std::vector<zel::CgroupDrift> found;
        ASSERT_TRUE(zel::KeepCgroupTree({{"QorHips", component->Pid()}}, found));
        news.insert(news.end(), found.begin(), found.end());
    }

    /// Everything that is kept, as the kernel shows it.
    std::string Picture() const {
        std::string out;
        for (const char* node : {"", "main", "main/Tervane", "collect-defense", "collect-defense/QorHips"}) {
            const std::string cpu = cpuTree + "/" + node;
            const std::string mem = memTree + "/" + node;
            out += std::string(node) + ": " + CpuLimit(node) + " burst " +
                   ReadValue(cpu + (layout.cpuV2 ? "/cpu.max.burst" : "/cpu.cfs_burst_us")) + " memory " +
                   MemLimit(node) + " swap " + ReadValue(mem + SwapFile()) + " given " +
                   ReadValue(cpu + "/cgroup.subtree_control") + "\n";
        }
        out += IsWhole(getpid(), "main/Tervane") ? "main inside\n" : "main outside\n";
        out += IsWhole(component->Pid(), "collect-defense/QorHips") ? "component inside\n" : "component outside\n";
        return out;
    }
    /// Every thread of the process is in the group, in every hierarchy.
    bool IsWhole(int pid, const std::string& group) const {
        const std::string end = "/" + treeName + "/" + group + "\n";
        for (const std::string& each : support::NamesIn("/proc/" + std::to_string(pid) + "/task")) {
            const std::string groups = support::ReadText("/proc/" + each + "/cgroup");
            size_t lines = 0;
            for (size_t at = groups.find(end); at != std::string::npos; at = groups.find(end, at + 1)) ++lines;
            if (lines < Trees().size()) return false;
        }
        return IsIn(pid, group);
    }

    void Cpu(const std::string& node, const char* v1File, const char* v1Value, const char* v2Value) const {
        const std::string dir = cpuTree + "/" + node;
        ASSERT_TRUE(layout.cpuV2 ? WriteText(dir + "/cpu.max", v2Value) : WriteText(dir + "/" + v1File, v1Value));
    }
    void LiftCpu(const std::string& node) const { Cpu(node, "cpu.cfs_quota_us", "-1", "max"); }
    void Memory(const std::string& node, const char* value) const {
        const std::string dir = memTree + "/" + node;
        const bool lifted = std::string(value) == "-1";
        if (layout.memV2) {
            ASSERT_TRUE(WriteText(dir + "/memory.max", lifted ? "max" : value));
            return;
        }
        if (lifted && Exists(dir + "/memory.memsw.limit_in_bytes")) {
            ASSERT_TRUE(WriteText(dir + "/memory.memsw.limit_in_bytes", value));
        }
        ASSERT_TRUE(WriteText(dir + "/memory.limit_in_bytes", value));
    }
    bool HasBurst() const { return Exists(cpuTree + (layout.cpuV2 ? "/cpu.max.burst" : "/cpu.cfs_burst_us")); }
    void Burst(const std::string& node, const char* value) const {
        if (!HasBurst()) return;
        ASSERT_TRUE(WriteText(cpuTree + "/" + node + (layout.cpuV2 ? "/cpu.max.burst" : "/cpu.cfs_burst_us"), value));
    }
    const char* SwapFile() const { return layout.memV2 ? "/memory.swap.max" : "/memory.memsw.limit_in_bytes"; }
    void Swap(const std::string& node, const char* value) const {
        ASSERT_TRUE(WriteText(memTree + "/" + node + SwapFile(), value));
    }
    void LiftSwap(const std::string& node) const { Swap(node, layout.memV2 ? "max" : "-1"); }
    /// A second thread of this process, started on first use.
    int ThreadOfMain() {
        if (!sleeper.joinable()) {
            sleeper = std::thread([this] {
                tid = static_cast<int>(gettid());
                while (!sleeperEnds) usleep(1000);
            });
        }
        while (tid == 0) usleep(1000);
        return tid;
    }
    /// The group with all below it goes, its processes to the root.
    void Remove(const std::string& tree, const std::string& node) const {
        const std::string dir = node.empty() ? tree : tree + "/" + node;
        const std::string root = tree == cpuTree ? layout.cpuMount : layout.memMount;
        for (const std::string& name : support::NamesIn(dir)) {
            struct stat info {};
            if (stat((dir + "/" + name).c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) continue;
            Remove(tree, node.empty() ? name : node + "/" + name);
        }
        for (const std::string& pid : Procs(dir)) WriteText(root + "/cgroup.procs", pid);
        ASSERT_EQ(0, rmdir(dir.c_str())) << dir;
    }

    /// Version 2: a controller goes from the leaves and from the groups, in the order in which the kernel lets it go.
    void TakeFromGroups(const std::string& tree, const char* change) const {
        for (const char* node : {"/main", "/collect-defense", ""}) {
            ASSERT_TRUE(WriteText(tree + node + "/cgroup.subtree_control", change)) << node;
        }
    }

    uint64_t Found(CgroupDriftKind kind) const {
        return zel::GetCgroupKeeperStatus().found[static_cast<size_t>(kind)] - before.found[static_cast<size_t>(kind)];
    }
    uint64_t Found() const {
        uint64_t sum = 0;
        for (size_t kind = 0; kind < zel::kCgroupDriftKinds.size(); ++kind) {
            sum += Found(static_cast<CgroupDriftKind>(kind));
        }
        return sum;
    }

    zel::CCgroupManager manager;
    std::unique_ptr<Child> component;
    std::vector<zel::CgroupDrift> news;
    zel::CgroupKeeperStatus before;
    std::string asked;
    std::thread sleeper;
    std::atomic<int> tid{0};
    std::atomic<bool> sleeperEnds{false};
};

/// One thing that somebody else does.
struct Row {
    const char* name;
    CgroupDriftKind kind;
    void (*disturb)(KeeperTest&);
    int version;   ///< 0: both
    int news = 1;  ///< how many things it is about; 0: one for each hierarchy
    friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

class DriftTable : public KeeperTest, public ::testing::WithParamInterface<Row> {};

constexpr char kLeaf[] = "collect-defense/QorHips";
constexpr char kGroup[] = "collect-defense";

const Row kRows[] = {
    {"CpuLiftedOfParent", CgroupDriftKind::kCpuQuota, [](KeeperTest& t) { t.LiftCpu(""); }, 0},
    {"CpuLiftedOfGroup", CgroupDriftKind::kCpuQuota, [](KeeperTest& t) { t.LiftCpu(kGroup); }, 0},
    {"CpuLiftedOfLeaf", CgroupDriftKind::kCpuQuota, [](KeeperTest& t) { t.LiftCpu(kLeaf); }, 0},
    {"CpuLiftedOfMain", CgroupDriftKind::kCpuQuota, [](KeeperTest& t) { t.LiftCpu("main/Tervane"); }, 0},
    {"CpuLowered", CgroupDriftKind::kCpuQuota,
     [](KeeperTest& t) { t.Cpu(kLeaf, "cpu.cfs_quota_us", "1000", "1000 100000"); }, 0},
    {"CpuRaised", CgroupDriftKind::kCpuQuota,
     [](KeeperTest& t) { t.Cpu(kLeaf, "cpu.cfs_quota_us", "150000", "150000 100000"); }, 0},
    {"CpuPeriodOfLeaf", CgroupDriftKind::kCpuQuota,
     [](KeeperTest& t) { t.Cpu(kLeaf, "cpu.cfs_period_us", "50000", "50000 50000"); }, 0},
    {"CpuPeriodOfParent", CgroupDriftKind::kCpuQuota,
     [](KeeperTest& t) { t.Cpu("", "cpu.cfs_period_us", "90000", "350000 90000"); }, 0},
    {"CpuBurstOfParent", CgroupDriftKind::kCpuBurst, [](KeeperTest& t) { t.Burst("", "90000"); }, 0},
    {"CpuBurstOfGroup", CgroupDriftKind::kCpuBurst, [](KeeperTest& t) { t.Burst(kGroup, "50000"); }, 0},
    {"CpuBurstOfLeaf", CgroupDriftKind::kCpuBurst, [](KeeperTest& t) { t.Burst(kLeaf, "20000"); }, 0},
    {"CpuBurstAboveTheQuotaThatIsDue", CgroupDriftKind::kCpuQuota,
     [](KeeperTest& t) {
         t.Cpu(kLeaf, "cpu.cfs_quota_us", "150000", "150000 100000");
         t.Burst(kLeaf, "140000");
     },
     0},
    {"MemoryLiftedOfParent", CgroupDriftKind::kMemory, [](KeeperTest& t) { t.Memory("", "-1"); }, 0},
    {"MemoryLiftedOfGroup", CgroupDriftKind::kMemory, [](KeeperTest& t) { t.Memory(kGroup, "-1"); }, 0},
    {"MemoryLiftedOfLeaf", CgroupDriftKind::kMemory, [](KeeperTest& t) { t.Memory(kLeaf, "-1"); }, 0},
    {"MemoryLiftedOfMain", CgroupDriftKind::kMemory, [](KeeperTest& t) { t.Memory("main/Tervane", "-1"); }, 0},
    {"MemoryLowered", CgroupDriftKind::kMemory, [](KeeperTest& t) { t.Memory(kLeaf, "33554432"); }, 0},
    {"SwapLiftedOfParent", CgroupDriftKind::kSwap, [](KeeperTest& t) { t.LiftSwap(""); }, 0},
    {"SwapLiftedOfGroup", CgroupDriftKind::kSwap, [](KeeperTest& t) { t.LiftSwap(kGroup); }, 0},
    {"SwapLiftedOfLeaf", CgroupDriftKind::kSwap, [](KeeperTest& t) { t.LiftSwap(kLeaf); }, 0},
    {"SwapChanged", CgroupDriftKind::kSwap, [](KeeperTest& t) { t.Swap(kLeaf, "2147483648"); }, 0},
    {"LeafRemoved", CgroupDriftKind::kGroup, [](KeeperTest& t) { t.Remove(t.cpuTree, kLeaf); }, 0},
    {"LeafRemovedFromMemory", CgroupDriftKind::kGroup, [](KeeperTest& t) { t.Remove(t.memTree, kLeaf); }, 0},
    {"LeafOfMainRemoved", CgroupDriftKind::kGroup, [](KeeperTest& t) { t.Remove(t.cpuTree, "main/Tervane"); }, 0},
    {"GroupRemoved", CgroupDriftKind::kGroup, [](KeeperTest& t) { t.Remove(t.cpuTree, kGroup); }, 0},
    {"TreeRemoved", CgroupDriftKind::kGroup, [](KeeperTest& t) { t.Remove(t.cpuTree, ""); }, 0},
    {"EverythingRemoved", CgroupDriftKind::kGroup,
     [](KeeperTest& t) {
         for (const std::string& tree : t.Trees()) t.Remove(tree, "");
     },
     0, 0},
    {"LeafRemovedAndMadeAgain", CgroupDriftKind::kGroup,
     [](KeeperTest& t) {
         t.Remove(t.cpuTree, kLeaf);
         ASSERT_EQ(0, mkdir((t.cpuTree + "/" + kLeaf).c_str(), 0755));
     },
     0},
    {"ComponentMovedToTheRoot", CgroupDriftKind::kMember,
     [](KeeperTest& t) { t.PutInto(t.layout.cpuMount, t.component->Pid()); }, 0},
    {"ComponentMovedToTheRootOfMemory", CgroupDriftKind::kMember,
     [](KeeperTest& t) { t.PutInto(t.layout.memMount, t.component->Pid()); }, 0},
    {"ComponentMovedToAnotherLeaf", CgroupDriftKind::kMember,
     [](KeeperTest& t) { t.PutInto(t.cpuTree + "/main/Tervane", t.component->Pid()); }, 0},
    {"MainMovedToTheRoot", CgroupDriftKind::kMember, [](KeeperTest& t) { t.PutInto(t.layout.cpuMount, getpid()); }, 0},
    {"MainMovedToTheRootOfMemory", CgroupDriftKind::kMember,
     [](KeeperTest& t) { t.PutInto(t.layout.memMount, getpid()); }, 0},
    {"OneThreadMoved", CgroupDriftKind::kMember,
     [](KeeperTest& t) { ASSERT_TRUE(WriteText(t.layout.cpuMount + "/tasks", std::to_string(t.ThreadOfMain()))); }, 1},
    {"OneThreadMovedInMemory", CgroupDriftKind::kMember,
     [](KeeperTest& t) { ASSERT_TRUE(WriteText(t.layout.memMount + "/tasks", std::to_string(t.ThreadOfMain()))); }, 1},
    {"ControllerTakenFromTheLeaves", CgroupDriftKind::kController,
     [](KeeperTest& t) { ASSERT_TRUE(WriteText(t.cpuTree + "/main/cgroup.subtree_control", "-cpu")); }, 2},
    {"MemoryTakenFromTheLeaves", CgroupDriftKind::kController,
     [](KeeperTest& t) { ASSERT_TRUE(WriteText(t.memTree + "/main/cgroup.subtree_control", "-memory")); }, 2},
    {"ControllerTakenFromTheGroups", CgroupDriftKind::kController,
     [](KeeperTest& t) { t.TakeFromGroups(t.cpuTree, "-cpu"); }, 2, 3},
    {"MemoryTakenFromTheGroups", CgroupDriftKind::kController,
     [](KeeperTest& t) { t.TakeFromGroups(t.memTree, "-memory"); }, 2, 3},
};

TEST_P(DriftTable, IsPutRightWithinTwoRoundsToldOnceAndCounted) {
    const Row& row = GetParam();
    const bool isV2 = std::string(row.name).find("Memory") == std::string::npos && row.kind != CgroupDriftKind::kSwap
                          ? layout.cpuV2
                          : layout.memV2;
    if (row.version != 0 && isV2 != (row.version == 2)) GTEST_SKIP() << "SKIP direct: for version " << row.version;
    if (row.kind == CgroupDriftKind::kCpuBurst && !HasBurst()) GTEST_SKIP() << "SKIP direct: no burst in this kernel";
    if (row.kind == CgroupDriftKind::kSwap && ReadValue(memTree + SwapFile()).empty()) {
        GTEST_SKIP() << "SKIP direct: no swap accounting";
    }
    row.disturb(*this);
    ASSERT_NE(asked, Picture()) << "nothing was disturbed";
    Round();
    Round();
    EXPECT_EQ(asked, Picture());
    EXPECT_GE(Found(row.kind), 1u);
    const long expected = row.news == 0 ? static_cast<long>(Trees().size()) : row.news;
    EXPECT_EQ(expected,
              std::count_if(news.begin(), news.end(),
                            [&](const zel::CgroupDrift& each) { return each.kind == row.kind && each.repaired; }))
        << (news.empty() ? "no news" : zel::GetCgroupKeeperStatus().lastRepair);
    EXPECT_LE(std::abs(zel::GetCgroupKeeperStatus().lastRepairedAt - time(nullptr)), 600) << "by the wall clock";
    EXPECT_THAT(zel::GetCgroupKeeperStatus().notInForce, ::testing::IsEmpty());
    EXPECT_EQ(news.size(), Warnings().size()) << "each difference is one line";
    const uint64_t found = Found();
    ClearFaults();
    Round();
    EXPECT_EQ(0, faults::ControlWrites()) << "what is right is not written";
    EXPECT_EQ(found, Found());
}

INSTANTIATE_TEST_SUITE_P(Rows, DriftTable, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& row) { return std::string(row.param.name); });

TEST_F(KeeperTest, TheComponentFileIsPutRightToldOnceAndCounted) {
    const std::string written = ReadValue(file);
    const std::string aside = file + ".aside";
    const std::function<void()> disturbances[] = {
        [&] { ASSERT_EQ(0, unlink(file.c_str())); },
        [&] { ASSERT_TRUE(WriteText(file, "")); },
        [&] { ASSERT_TRUE(WriteText(file, "{\"version\": 1, \"enabled\": tr")); },
        [&] { ASSERT_TRUE(WriteText(file, "{\"version\": 1, \"enabled\": false, \"boot_id\": \"x\"}")); },
        [&] { ASSERT_EQ(0, chmod(file.c_str(), 0666)); },
        [&] {
            ASSERT_EQ(0, rename(file.c_str(), aside.c_str()));
            ASSERT_EQ(0, symlink(aside.c_str(), file.c_str()));
        },
    };
    uint64_t seen = 0;
    for (const std::function<void()>& disturb : disturbances) {
        disturb();
        Round();
        EXPECT_EQ(written, ReadValue(file));
        struct stat info {};
        ASSERT_EQ(0, lstat(file.c_str(), &info));
        EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0640), info.st_mode);
        EXPECT_EQ(++seen, Found(CgroupDriftKind::kFile));
        if (seen + 1 == zel::cgroup::kContestedRepairs) break;  // from then on it is given time
    }
    ASSERT_EQ(1u, news.size()) << "one episode";
    EXPECT_EQ(file, news[0].path);
    EXPECT_EQ("not there", news[0].found);
    EXPECT_THAT(Warnings()[0], ::testing::HasSubstr("component file " + file + " was: not there; written again"));
    ClearFaults();
    Round();
    EXPECT_EQ(seen, Found());
    unlink(aside.c_str());
}

TEST_F(KeeperTest, FiguresOfEachGroupStandBesideItsLimits) {
    zel::CCgroupFiguresReader reader;
    std::vector<zel::CgroupFigures> figures = reader.Read(true);
    // Reading costs the time that is to be seen.
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (figures.size() == 5 && figures[4].cpuMs <= 0 && std::chrono::steady_clock::now() < end) {
        figures = reader.Read(true);
    }
    std::vector<std::string> names;
    for (const zel::CgroupFigures& group : figures) names.push_back(group.name);
    EXPECT_EQ(names, (std::vector<std::string>{"", "collect-defense", kLeaf, "main", "main/Tervane"}));
    for (const zel::CgroupFigures& group : figures) {
        EXPECT_GE(group.cpuMs, 0) << group.name;
        EXPECT_GE(group.periods, 0) << group.name;
        EXPECT_GE(group.throttledPeriods, 0) << group.name;
        EXPECT_GE(group.throttledMs, 0) << group.name;
        EXPECT_GE(group.memoryKb, 0) << group.name;
        EXPECT_GE(group.limitHits, 0) << group.name;
        EXPECT_EQ(std::to_string(group.memoryLimitKb), MemLimit(group.name)) << group.name;
    }
    ASSERT_EQ(figures.size(), 5u);
    EXPECT_EQ(figures[0].cpuLimit100Times, 35000);
    EXPECT_GT(figures[4].cpuMs, 0) << "this process is in it";
    const std::vector<zel::CgroupFigures> later = reader.Read(false);
    ASSERT_EQ(later.size(), 5u);
    EXPECT_GE(later[0].cpuMs, figures[4].cpuMs) << "and counts above it as well";
    for (const zel::CgroupFigures& group : later) EXPECT_EQ(group.limitHits, -1) << group.name;
}

/// CPU time of another process. Units: ms.
int64_t CpuMsOf(int pid) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) return -1;
    return used.tv_sec * 1000 + used.tv_nsec / 1000000;
}

TEST_F(KeeperTest, FiguresAndStatusSayWhatAGroupsProcessesUse) {
    constexpr size_t kHeldBytes = 32 << 20;
    component.reset();
    Child burner([] {
        raise(SIGSTOP);
        std::vector<char> held(kHeldBytes, 'x');
        timespec used{};
        while (used.tv_sec == 0 && used.tv_nsec < 400000000) {
            static_cast<volatile char*>(held.data())[used.tv_nsec % kHeldBytes] = 'y';
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        }
        raise(SIGSTOP);
        return 0;
    });
    int status = 0;
    ASSERT_EQ(burner.Pid(), waitpid(burner.Pid(), &status, WUNTRACED));
    for (const std::string& tree : Trees()) PutInto(tree + "/collect-defense/QorHips", burner.Pid());
    ASSERT_EQ(0, kill(burner.Pid(), SIGCONT));
    ASSERT_EQ(burner.Pid(), waitpid(burner.Pid(), &status, WUNTRACED));
    const double usedMs = static_cast<double>(CpuMsOf(burner.Pid()));
    ASSERT_GE(usedMs, 400);
    const double heldKb = kHeldBytes / 1024;
    const double slackKb = heldKb / 2;

    zel::CCgroupFiguresReader reader;
    for (const zel::CgroupFigures& group : reader.Read(true)) {
        if (group.name.find("collect-defense") != 0) continue;
        EXPECT_NEAR(usedMs, static_cast<double>(group.cpuMs), 150) << group.name;
        EXPECT_NEAR(heldKb, static_cast<double>(group.memoryKb), slackKb) << group.name;
    }
    zel::CgroupTreeStatus tree;
    std::string error;
    ASSERT_TRUE(zel::ReadCgroupTreeStatus(tree, error)) << error;
    size_t seen = 0;
    for (const zel::CgroupNodeStatus& node : tree.nodes) {
        if (node.name != "QorHips" && node.name != "collect-defense") continue;
        ++seen;
        EXPECT_NEAR(usedMs, static_cast<double>(node.cpu.used) / 1000, 150) << node.name;
        EXPECT_NEAR(heldKb, static_cast<double>(node.memory.used), slackKb) << node.name;
        EXPECT_EQ(0, node.memory.oomKills) << node.name;
    }
    EXPECT_EQ(2u, seen);
}

TEST_F(KeeperTest, FiguresAreReadAgainWithoutAnOpenAndOfNewGroups) {
    zel::CCgroupFiguresReader reader;
    ASSERT_EQ(reader.Read(false).size(), 5u);
    const support::SystemCalls calls = support::CountSystemCalls([&] { reader.Read(false); });
    if (!calls.counted) GTEST_SKIP() << "SKIP direct: this thread cannot be traced";
    const base::Result<base::Fd> place = base::OpenOwnDirectory("/sys/fs/cgroup");
    ASSERT_TRUE(place);
    if (base::OpenDetachedView(place->Get()).IsOpen()) {
        EXPECT_EQ(calls.opens, 0);
    }
    Remove(cpuTree, kLeaf);
    Round();
    Round();
    const std::vector<zel::CgroupFigures> anew = reader.Read(false);
    ASSERT_EQ(anew.size(), 5u);
    for (const zel::CgroupFigures& group : anew) {
        EXPECT_GE(group.periods, 0) << group.name;
        EXPECT_GE(group.memoryKb, 0) << group.name;
    }
}

TEST_F(KeeperTest, TellsOnceAndSaysContestedWhenItGoesOn) {
    for (size_t i = 0; i < 3 * zel::cgroup::kContestedRepairs; ++i) {
        LiftCpu(kLeaf);
        Round();
    }
    ASSERT_EQ(2u, news.size());
    EXPECT_FALSE(news[0].contested);
    EXPECT_TRUE(news[1].contested);
    EXPECT_EQ(zel::cgroup::kContestedRepairs, Found(CgroupDriftKind::kCpuQuota)) << "it slows down";
    const zel::CgroupKeeperStatus status = zel::GetCgroupKeeperStatus();
    ASSERT_EQ(1u, status.contested.size());
    EXPECT_THAT(status.contested[0], ::testing::HasSubstr(kLeaf));
    EXPECT_EQ(1u, status.notInForce.size());
    EXPECT_EQ(2u, Warnings().size());
}

TEST_F(KeeperTest, TellsOfAForeignProcessOnceAndLeavesIt) {
    // Its parent ends, so that nothing of it leads back to this program.
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    Child starter([&] {
        const pid_t pid = fork();
        if (pid == 0) {
            setsid();
            execl("/bin/sleep", "sleep", "60", nullptr);
        }
        return write(ends[1], &pid, sizeof pid) == sizeof pid ? 0 : 1;
    });
    pid_t stranger = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof stranger), read(ends[0], &stranger, sizeof stranger));
    starter.Wait();
    close(ends[0]);
    close(ends[1]);
    ASSERT_TRUE(Eventually([&] { return ReadValue("/proc/" + std::to_string(stranger) + "/comm") == "sleep"; }));
    // It was born beside this process; from there it is sent off first.
    PutInto(layout.memMount, stranger);
    PutInto(cpuTree + "/" + kLeaf, stranger);
    for (int i = 0; i < 3; ++i) Round();
    ASSERT_EQ(1u, news.size());
    EXPECT_EQ(CgroupDriftKind::kForeign, news[0].kind);
    EXPECT_EQ(stranger, news[0].pid);
    EXPECT_EQ(1u, Found(CgroupDriftKind::kForeign));
    EXPECT_THAT(Procs(cpuTree + "/" + kLeaf), ::testing::Contains(std::to_string(stranger)));
    kill(stranger, SIGKILL);
    ASSERT_TRUE(Eventually([&] { return !Exists("/proc/" + std::to_string(stranger)); }));
}

TEST_F(KeeperTest, BringsAChildBackThatLostItsParent) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    Child starter([&] {
        PutInto(cpuTree + "/" + kLeaf, getpid());
        if (memTree != cpuTree) PutInto(memTree + "/" + kLeaf, getpid());
        const pid_t pid = fork();
        if (pid == 0) {
            setsid();
            return Sleeper();
        }
        return write(ends[1], &pid, sizeof pid) == sizeof pid ? 0 : 1;
    });
    pid_t orphan = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof orphan), read(ends[0], &orphan, sizeof orphan));
    starter.Wait();
    close(ends[0]);
    close(ends[1]);
    Round();
    PutInto(layout.cpuMount, orphan);
    Round();
    EXPECT_TRUE(IsIn(orphan, kLeaf));
    EXPECT_EQ(1u, Found(CgroupDriftKind::kMember));
    kill(orphan, SIGKILL);
    ASSERT_TRUE(Eventually([&] { return !Exists("/proc/" + std::to_string(orphan)); }));
}

TEST_F(KeeperTest, PutsAComponentInThatNeverCame) {
    const Child late(Sleeper);
    std::vector<zel::CgroupDrift> found;
    const auto keep = [&] { return zel::KeepCgroupTree({{"QorHips", late.Pid()}}, found); };
    ASSERT_TRUE(keep());
    EXPECT_TRUE(found.empty()) << "its own way in may not be over";
    ASSERT_TRUE(keep());
    EXPECT_TRUE(IsWhole(late.Pid(), kLeaf));
    EXPECT_EQ(cpuTree == memTree ? 1u : 2u, found.size());
}

TEST_F(KeeperTest, WritesTheComponentFileAgainWithNewGroups) {
    const std::string old = ReadValue(file);
    for (const std::string& tree : Trees()) Remove(tree, "");
    Round();
    EXPECT_NE(old, ReadValue(file));
    EXPECT_THAT(ReadValue(file), ::testing::HasSubstr(std::to_string(InodeOf(cpuTree + "/" + kLeaf))));
}

TEST_F(KeeperTest, AFileThatCouldNotBeWrittenIsWrittenTheNextTime) {
    Remove(cpuTree, kLeaf);
    {
        const faults::Failing full(faults::Call::kFsync, ENOSPC);
        Round();
        ASSERT_GE(full.Calls(), 1);
    }
    const std::string inode = std::to_string(InodeOf(cpuTree + "/" + kLeaf));
    ASSERT_FALSE(news.empty());
    ASSERT_EQ(CgroupDriftKind::kGroup, news[0].kind);
    EXPECT_FALSE(news[0].repaired) << "nobody was told of the group";
    EXPECT_THAT(news[0].problem, ::testing::HasSubstr("could not be told"));
    EXPECT_THAT(ReadValue(file), ::testing::Not(::testing::HasSubstr(inode)));
    Round();
    EXPECT_THAT(ReadValue(file), ::testing::HasSubstr(inode));
    EXPECT_EQ(1u, Found(CgroupDriftKind::kFile));
    Round();
    EXPECT_EQ(1u, Found(CgroupDriftKind::kFile)) << "once it is written it is right";
    EXPECT_THAT(zel::GetCgroupKeeperStatus().notInForce, ::testing::IsEmpty());
}

// While it is contested nothing is done about it; the one that the components know stays the one that is missed.
TEST_F(KeeperTest, AContestedGroupMadeAnewIsPublishedInTheEnd) {
    using namespace zel::cgroup;
    std::vector<Error> refused;
    const zel::CgroupTotalLimitConfig total = Total(350, 1048576);
    GroupTargets targets = BuildGroupTargets(
        {true, true}, &total, {Group("main", 30000, 524288), Group("collect-defense", 20000, 262144)}, refused);
    targets.leaves.emplace();
    for (const Controller controller : kAllControllers) {
        (*targets.leaves)[LeafKey{controller, "collect-defense", "QorHips"}] = 5000;
    }
    const Branches branches = FindBranches();
    Keeper keeper;
    int published = 0;
    KeeperRound round;
    round.branches = &branches;
    round.targets = &targets;
    round.inUse = {true, true};
    const std::vector<zel::CgroupMember> nobody;
    round.members = &nobody;
    round.judgeFile = [] { return std::string(); };
    round.republish = [&] { return ++published > 0; };
    zel::CgroupKeeperStatus status;
    const auto look = [&](int64_t atMs) {
        round.nowMs = atMs;
        keeper.Run(round, status);
    };
    const auto remake = [&] {
        const std::string path = cpuTree + "/" + kLeaf;
        Remove(cpuTree, kLeaf);
        ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        auto leaf = GroupDir::Open(path, layout.cpuV2 ? Version::kV2 : Version::kV1);
        ASSERT_TRUE(leaf && MarkOwn(*leaf));
    };
    look(0);
    published = 0;
    constexpr int kRepairs = 5;
    for (int i = 1; i <= kRepairs; ++i) {
        remake();
        look(1000 * i);
    }
    ASSERT_EQ(kRepairs, published);
    remake();
    look(6000);
    look(7000);
    ASSERT_EQ(kRepairs, published) << "it is contested";
    look(40000);
    EXPECT_EQ(kRepairs + 1, published);
}

TEST_F(KeeperTest, WhatIsNotKeptIsNotInTheStatus) {
    for (int i = 0; i < 6; ++i) {
        LiftCpu(kLeaf);
        Round();
    }
    ASSERT_FALSE(zel::GetCgroupKeeperStatus().contested.empty());
    ASSERT_FALSE(zel::GetCgroupKeeperStatus().notInForce.empty());
    ASSERT_TRUE(manager.RemovePidFromGroup("main", getpid()));
    ASSERT_TRUE(manager.Reconcile(false, false, {Group("main", 0, 0, false, false)}));
    ASSERT_TRUE(manager.WriteDisabledConfig(file));
    EXPECT_THAT(zel::GetCgroupKeeperStatus().contested, ::testing::IsEmpty());
    EXPECT_THAT(zel::GetCgroupKeeperStatus().notInForce, ::testing::IsEmpty());
    EXPECT_EQ(0, zel::GetCgroupKeeperStatus().lastGroups);
}

// With limits of ours on it nobody would look after it any more.
TEST_F(KeeperTest, ATreeWithAGroupOfOthersInsideIsLiftedNotRemoved) {
    component.reset();
    const std::string theirs = cpuTree + "/collect-defense/theirs";
    ASSERT_EQ(0, mkdir(theirs.c_str(), 0755));
    ASSERT_TRUE(manager.RemovePidFromGroup("main", getpid()));
    ASSERT_TRUE(manager.WriteDisabledConfig(file));
    std::vector<zel::CgroupDrift> found;
    ClearFaults();
    ASSERT_TRUE(zel::KeepCgroupTree({}, found));
    EXPECT_TRUE(Exists(theirs));
    EXPECT_EQ("max", CpuLimit(""));
    EXPECT_EQ("max", CpuLimit("collect-defense"));
    for (const support::LogLine& line : support::LogLines()) {
        EXPECT_THAT(line.text, ::testing::Not(::testing::HasSubstr("were removed")));
    }
    EXPECT_EQ(1u, Warnings().size());
    ASSERT_EQ(0, rmdir(theirs.c_str()));
    component = std::make_unique<Child>(Sleeper);
}

TEST_F(KeeperTest, KeepsNothingThatIsNotAskedForAnyMore) {
    ASSERT_TRUE(manager.RemovePidFromGroup("main", getpid()));
    ASSERT_TRUE(manager.Reconcile(false, false, {Group("main", 0, 0, false, false)}));
    ASSERT_TRUE(manager.WriteDisabledConfig(file));
    const uint64_t rounds = zel::GetCgroupKeeperStatus().rounds;
    PutInto(layout.cpuMount, component->Pid());
    Round();
    Round();
    EXPECT_EQ(0u, Found());
    EXPECT_EQ(rounds, zel::GetCgroupKeeperStatus().rounds);
}

// The way out begins with the move of this process: from there on the keeper must not undo it.
TEST_F(KeeperTest, WhatHasLeftTheUnifiedModeIsNotPutBack) {
    ASSERT_TRUE(manager.RemovePidFromGroup("main", getpid()));
    const std::string outside = ReadValue("/proc/self/cgroup");
    for (int i = 0; i < 3; ++i) Round();
    EXPECT_EQ(outside, ReadValue("/proc/self/cgroup"));
    EXPECT_FALSE(IsIn(getpid(), "main/Tervane"));
    EXPECT_EQ(0u, Found());
    EXPECT_TRUE(news.empty());
}

TEST_F(KeeperTest, AnUndisturbedRoundStaysCheap) {
    const zel::CgroupKeeperStatus start = zel::GetCgroupKeeperStatus();
    constexpr int kRounds = 200;
    for (int i = 0; i < kRounds; ++i) Round();
    const zel::CgroupKeeperStatus end = zel::GetCgroupKeeperStatus();
    const int64_t perRoundUs = (end.totalUs - start.totalUs) / kRounds;
    // The floor: as many control files opened and read once as a look cannot do without.
    constexpr int kFilesPerGroup = 8;
    const auto floorStart = std::chrono::steady_clock::now();
    for (int i = 0; i < kRounds * static_cast<int>(end.lastGroups) * kFilesPerGroup; ++i) {
        ReadValue(cpuTree + "/cgroup.procs");
    }
    const auto took = std::chrono::steady_clock::now() - floorStart;
    const int64_t floorUs =
        std::max<int64_t>(1, std::chrono::duration_cast<std::chrono::microseconds>(took).count() / kRounds);
    RecordProperty("us_per_round", static_cast<int>(perRoundUs));
    RecordProperty("us_of_floor", static_cast<int>(floorUs));
    RecordProperty("groups", static_cast<int>(end.lastGroups));
    EXPECT_LT(perRoundUs, 12 * floorUs);
    printf("[ FIGURE ] one round over %d groups: %d us, the floor %d us\n", static_cast<int>(end.lastGroups),
           static_cast<int>(perRoundUs), static_cast<int>(floorUs));
}

TEST_F(KeeperTest, NamesTheServiceManagerAsTheCause) {
    const std::string managers = "/sys/fs/cgroup/systemd";
    if (layout.cpuV2 || !Exists(managers + "/cgroup.procs")) GTEST_SKIP() << "SKIP direct: no name=systemd hierarchy";
    const std::string unit = "/" + treeName + ".service";
    const std::vector<std::string> directories = {managers + unit, layout.cpuMount + unit};
    for (const std::string& directory : directories) ASSERT_EQ(0, mkdir(directory.c_str(), 0755)) << directory;
    for (const std::string& directory : directories) PutInto(directory, component->Pid());
    Round();
    ASSERT_EQ(1u, news.size());
    EXPECT_EQ(unit, news[0].found);
    EXPECT_THAT(news[0].cause, ::testing::HasSubstr("Delegate=yes"));
    EXPECT_TRUE(news[0].repaired);
    component->Kill();
    for (const std::string& directory : directories) {
        EXPECT_TRUE(Eventually([&] { return rmdir(directory.c_str()) == 0; })) << directory;
    }
    component = std::make_unique<Child>(Sleeper);
}

// --- the end of a component -----------------------------------------------------------------------------------------

TEST_F(KeeperTest, AComponentsEndIsTheEndOfItsWholeLeaf) {
    // A family of twenty in sessions of their own and without their parents.
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const Child root([&] {
        PutInto(cpuTree + "/" + kLeaf, getpid());
        if (memTree != cpuTree) PutInto(memTree + "/" + kLeaf, getpid());
        for (int i = 0; i < 20; ++i) {
            if (fork() != 0) continue;
            setsid();
            if (fork() == 0) return Sleeper();
            return 0;
        }
        while (wait(nullptr) > 0) continue;
        return write(ends[1], "", 1) == 1 ? Sleeper() : 1;
    });
    char complete = 0;
    ASSERT_EQ(1, read(ends[0], &complete, 1));
    close(ends[0]);
    close(ends[1]);
    const zel::CgroupLeafEnd end = zel::EndCgroupComponent("QorHips");
    EXPECT_GE(end.ended, 20);
    EXPECT_TRUE(end.left.empty());
    EXPECT_TRUE(Procs(cpuTree + "/" + kLeaf).empty());
    EXPECT_TRUE(Procs(memTree + "/" + kLeaf).empty());
}

/// A process that a frozen group holds: it does not even end when it is killed.
class Frozen {
public:
    explicit Frozen(int pid) : m_directory("/sys/fs/cgroup/freezer/zel.test-" + std::to_string(getpid())) {
        m_holds = mkdir(m_directory.c_str(), 0755) == 0 &&
                  WriteText(m_directory + "/cgroup.procs", std::to_string(pid)) &&
                  WriteText(m_directory + "/freezer.state", "FROZEN") &&
                  Eventually([&] { return ReadValue(m_directory + "/freezer.state") == "FROZEN"; });
    }
    ~Frozen() {
        WriteText(m_directory + "/freezer.state", "THAWED");
        EXPECT_TRUE(Eventually([&] { return rmdir(m_directory.c_str()) == 0 || errno == ENOENT; })) << m_directory;
    }
    bool Holds() const { return m_holds; }

private:
    const std::string m_directory;
    bool m_holds = false;
};

TEST_F(KeeperTest, AnEndThatCannotBeIsWaitedForOnceForAllLeaves) {
    const auto end = [] {
        const auto begin = std::chrono::steady_clock::now();
        const zel::CgroupLeafEnd ended = zel::EndCgroupComponent("QorHips");
        EXPECT_EQ(1U, ended.left.size());
        return std::chrono::steady_clock::now() - begin;
    };
    if (memTree == cpuTree) GTEST_SKIP() << "SKIP direct: one hierarchy has both leaves";
    const Child stuck(Sleeper);
    PutInto(cpuTree + "/" + kLeaf, stuck.Pid());
    const Frozen frozen(stuck.Pid());
    if (!frozen.Holds()) GTEST_SKIP() << "SKIP direct: no version 1 freezer";
    const auto one = end();
    PutInto(memTree + "/" + kLeaf, stuck.Pid());
    EXPECT_LT(end(), one + one / 2);
}

TEST_F(KeeperTest, AnEndStaysInsideTheLeaf) {
    const Child beside(Sleeper);
    PutInto(cpuTree + "/main/Tervane", beside.Pid());
    const Child outside(Sleeper);
    PutInto(layout.cpuMount, outside.Pid());
    for (const char* name : {"QorHips", "Tervane", "nobody", "..", "", "../main/Tervane"}) {
        EXPECT_TRUE(zel::EndCgroupComponent(name).left.empty()) << name;
    }
    EXPECT_EQ(0, waitpid(beside.Pid(), nullptr, WNOHANG)) << "the leaf of this process is not to be emptied";
    EXPECT_EQ(0, waitpid(outside.Pid(), nullptr, WNOHANG));
}

// --- the memory between rounds --------------------------------------------------------------------------------------

using zel::cgroup::DriftLedger;
using zel::cgroup::DriftNews;

TEST(DriftLedgerTest, ToldWhenItBeginsAndAgainOnlyAfterAQuietTime) {
    DriftLedger ledger;
    EXPECT_EQ(DriftNews::kBegins, ledger.Note("a", true, 0));
    EXPECT_EQ(DriftNews::kNothing, ledger.Note("a", true, 30000));
    EXPECT_TRUE(ledger.EndQuiet(30000 + zel::cgroup::kQuietMs - 1).empty());
    EXPECT_EQ(DriftNews::kNothing, ledger.Note("a", true, 60000));
    EXPECT_TRUE(ledger.EndQuiet(60000 + zel::cgroup::kQuietMs).empty()) << "it was not contested";
    EXPECT_EQ(DriftNews::kBegins, ledger.Note("a", true, 200000));
}

TEST(DriftLedgerTest, FiveRepairsInAMinuteAreAContest) {
    DriftLedger ledger;
    int64_t now = 0;
    for (int i = 0; i < 4; ++i, now += 5000) EXPECT_NE(DriftNews::kContested, ledger.Note("a", true, now));
    EXPECT_EQ(DriftNews::kContested, ledger.Note("a", true, now));
    EXPECT_TRUE(ledger.IsContested("a"));
    EXPECT_FALSE(ledger.IsDue("a", now + zel::cgroup::kContestedPauseMs - 1));
    EXPECT_TRUE(ledger.IsDue("a", now + zel::cgroup::kContestedPauseMs));
    EXPECT_EQ(DriftNews::kNothing, ledger.Note("a", true, now + zel::cgroup::kContestedPauseMs));
    EXPECT_EQ(std::vector<std::string>{"a"},
              ledger.EndQuiet(now + zel::cgroup::kContestedPauseMs + zel::cgroup::kQuietMs));
    EXPECT_TRUE(ledger.Contested().empty());
}

TEST(DriftLedgerTest, FourRepairsInAMinuteAreNoContest) {
    DriftLedger ledger;
    for (int64_t i = 0; i < 40; ++i) EXPECT_NE(DriftNews::kContested, ledger.Note("a", true, i * 15000));
}

TEST(DriftLedgerTest, AFailureIsToldOnceAndTriedLessOften) {
    DriftLedger ledger;
    EXPECT_EQ(DriftNews::kBegins, ledger.Note("a", true, 0));
    EXPECT_EQ(DriftNews::kFails, ledger.Note("a", false, 5000));
    for (int64_t i = 2; i < 6; ++i) EXPECT_EQ(DriftNews::kNothing, ledger.Note("a", false, i * 5000));
    EXPECT_FALSE(ledger.IsContested("a"));
    EXPECT_FALSE(ledger.IsDue("a", 30000));
}

TEST(DriftLedgerTest, IsBounded) {
    DriftLedger ledger;
    for (size_t i = 0; i < 3 * zel::cgroup::kMaxEpisodes; ++i) ledger.Note(std::to_string(i), true, 0);
    EXPECT_EQ(DriftNews::kBegins, ledger.Note("one more", true, 1));
    EXPECT_EQ(DriftNews::kBegins, ledger.Note("one more", true, 2));
}

}  // namespace
