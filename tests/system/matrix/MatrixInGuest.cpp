// One life of the agent in a guest, for each who may run it: every scenario is a cell of the table that the run prints.
// Which cells to run comes from outside (ZEL_MATRIX_CELLS, "who:scenario,..."); each prints a line of its own.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "../vmagent/GuestAgent.h"
#include "support/RunTests.h"

using namespace guest;

namespace {

constexpr uid_t kUser = 1000;
constexpr const char* kWatermark = "/tmp/app/conf/cgroup_oom_watermark.json";
constexpr const char* kBootId = "/proc/sys/kernel/random/boot_id";
constexpr const char* kRuntime = "multi_cgroup_oom_runtime";
constexpr const char* kAfterRestart = "multi_cgroup_oom_after_restart";
constexpr const char* kLeaves[] = {"collect-defense/Greedy", "collect-defense/Killable", "guard/Quiet"};

/// Counts what fails, so that a life can tell for each of its cells whether it passed.
class Failures final : public testing::EmptyTestEventListener {
public:
    static int Count() { return s_count; }

private:
    void OnTestPartResult(const testing::TestPartResult& result) override { s_count += result.failed() ? 1 : 0; }
    static int s_count;
};
int Failures::s_count = 0;

bool IsAsked(const std::string& cell) {
    const char* asked = getenv("ZEL_MATRIX_CELLS");
    return asked != nullptr && ("," + std::string(asked) + ",").find("," + cell + ",") != std::string::npos;
}

/// Mounts of every hierarchy in this guest, each once.
std::set<std::string> Mounts() {
    std::set<std::string> mounts;
    for (const char* controller : {"cpu", "memory"}) {
        if (Exists(MountOf(controller))) mounts.insert(MountOf(controller));
    }
    for (const char* named : {"/sys/fs/cgroup/systemd", "/sys/fs/cgroup/unified"}) {
        if (Exists(std::string(named) + "/cgroup.procs")) mounts.insert(named);
    }
    return mounts;
}

/// Makes the group of a unit in each hierarchy as a service manager does: controllers on the way, its mark, its user.
void MakeUnit(const std::string& path, uid_t user) {
    const bool hasUnified = Exists("/sys/fs/cgroup/cgroup.procs") || Exists("/sys/fs/cgroup/unified/cgroup.procs");
    if (!hasUnified && !Exists("/sys/fs/cgroup/systemd/cgroup.procs")) {
        ASSERT_EQ(Command("mkdir -p /sys/fs/cgroup/systemd; "
                          "mount -t cgroup -o none,name=systemd cgroup /sys/fs/cgroup/systemd 2>&1"),
                  "");
    }
    // What a service manager does when it mounts this: limits hold for groups below. From 5.11 on they always do.
    // Groups that were removed count there until no page is left of them, nor of a file of the life before.
    const std::string hierarchical = MountOf("memory") + "/memory.use_hierarchy";
    if (ReadText(hierarchical) == "0\n") {
        Command(std::string("rm -rf ") + kAppDir);
        ASSERT_TRUE(Poll(kSettleSeconds, [&] {
            return WriteText("/proc/sys/vm/drop_caches", "3") && WriteText(hierarchical, "1");
        })) << strerror(errno);
    }
    for (const std::string& mount : Mounts()) {
        const std::string slice = mount + "/unit.slice";
        const std::string unit = mount + path;
        for (const std::string& group : {mount, slice}) {
            ASSERT_TRUE(mkdir(group.c_str(), 0755) == 0 || errno == EEXIST) << group;
            for (const char* controller : {"+cpu", "+memory"}) {  // what the hierarchy has of them
                if (Exists(group + "/cgroup.controllers")) WriteText(group + "/cgroup.subtree_control", controller);
            }
        }
        ASSERT_TRUE(mkdir(unit.c_str(), 0755) == 0 || errno == EEXIST) << unit;
        ASSERT_TRUE(setxattr(unit.c_str(), "trusted.delegate", "1", 1, 0) == 0) << unit << ": " << strerror(errno);
        // The mark that an ordinary user can read; kernels before 5.7 have none of its kind.
        setxattr(unit.c_str(), "user.delegate", "1", 1, 0);
        if (user == 0) continue;
        ASSERT_EQ(Command("chown " + std::to_string(user) + " " + unit + " " + unit + "/cgroup.* " + unit +
                          "/tasks 2>&1 | grep -v 'No such file'"),
                  "");
    }
}

/// The maxima as configured, and what ought to come of them for a guest of two processors.
struct Budget {
    int64_t cpuPercent;
    int64_t memoryMb;
    Budget(int64_t maxCpu, int64_t maxMemory)
        : cpuPercent(maxCpu * 95 / 100 * 2), memoryMb(std::min(maxMemory * 3 / 2, maxMemory + 100)) {}
    int64_t GreedyCpu() const { return 30 * cpuPercent * 2000 / 10000; }
    int64_t QuietMemory() const { return 30720 * memoryMb / 200 / 4 * 4; }
};

class Life : public AgentInGuest {
protected:
    explicit Life(std::string who) : m_who(std::move(who)) {}

    void SetUp() override {
        if (m_who == "user-namespace") {
            m_owner = kUser;
            // The system's files are its root's there, as those of a container's image are.
            Command("chown -R 1000:1000 /bin /job /lib /lib64 /usr /etc /carry /tmp; chown 1000:1000 / /var /root");
        }
        if (m_who != "root") {
            m_unit = "/unit.slice/" + m_who + ".service";
            SetPlace(m_unit);
            MakeUnit(m_unit, m_owner);
        }
        AgentInGuest::SetUp();
    }

    bool HasMemory() const { return Exists(MountOf("memory") + "/memory.stat") || HasMemoryV2(); }
    static bool HasMemoryV2() {
        return ReadText(MountOf("memory") + "/cgroup.controllers").find("memory") != std::string::npos;
    }

    void Configure() {
        WriteRoomyResource();
        WriteComponents(KillableComponent("Killable", "collect-defense") +
                        ",{\"name\": \"Greedy\", \"group\": \"collect-defense\", "
                        "\"command\": [\"/bin/vm-burn\", \"100000\"]},"
                        "{\"name\": \"Quiet\", \"group\": \"guard\"}");
    }

    /// Where the next start is to be: the unit's group, but where the tree of a main process that died stands in it on
    /// version 2, which leaves no room for a process beside it, a group below it.
    void ChooseStart() {
        m_startGroups.clear();
        for (const std::string& mount : m_unit.empty() ? std::set<std::string>() : Mounts()) {
            std::string group = mount + m_unit;
            if (!ReadText(group + "/cgroup.subtree_control").empty() &&
                ReadText(group + "/cgroup.subtree_control") != "\n") {
                group += "/again";
                mkdir(group.c_str(), 0755);
                const std::string user = std::to_string(m_owner);
                Command("chown " + user + ":" + user + " " + group + " " + group + "/cgroup.*");
            }
            m_startGroups.insert(group);
        }
    }

    /// Starts what is not running, and waits until everybody is home.
    void Up() {
        if (m_pid > 0) return;
        ChooseStart();
        StartAgent();
        if (m_owner != 0 && m_pid > 0) {
            m_console = "/proc/" + std::to_string(getpid()) + "/exe --as-root-of " + std::to_string(m_pid) + " " +
                        TERVANECTL_PROGRAM;
        }
        if (HasCellFailed()) return;
        ASSERT_TRUE(Poll(kStartSeconds, [this] { return NotAtHome().empty(); })) << NotAtHome();
    }
    bool HasCellFailed() const { return Failures::Count() != m_failuresBefore; }

    /// Returns: the first component that is not alone in its leaves (a shell may have a child), or the main process.
    std::string NotAtHome() const {
        for (const char* controller : {"cpu", "memory"}) {
            if (controller[0] == 'm' && !HasMemory()) continue;
            if (ProcessesIn(controller, "main/Tervane") != std::vector<pid_t>{m_pid}) return "the main process";
            for (const char* leaf : kLeaves) {
                if (ProcessesIn(controller, leaf).empty()) return std::string(leaf) + " in " + controller;
            }
        }
        return "";
    }
    bool HoldsBudget(const Budget& budget) const {
        return CpuLimit("collect-defense/Greedy") == budget.GreedyCpu() &&
               (!HasMemory() || MemoryLimit("guard/Quiet") == budget.QuietMemory());
    }
    std::string Held() const {
        return std::to_string(CpuLimit("collect-defense/Greedy")) + ", " + std::to_string(MemoryLimit("guard/Quiet"));
    }
    void Online(int cpu, int memory, int mode) {
        WriteOnline("{\"groupMaxCpu\": " + std::to_string(cpu) + ", \"groupMaxMemory\": " + std::to_string(memory) +
                    ", \"cpuAll\": 1, \"resourceLimitMode\": " + std::to_string(mode) + "}");
    }
    /// Something that wants more than the leaf has, until the kernel has ended it.
    static void Overeat(const std::string& leaf) {
        const int status = WaitEnd(RunInLeaf(leaf, {"/bin/vm-hog", "400"}), kSettleSeconds);
        ASSERT_TRUE(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << leaf << ": " << status;
    }
    std::string ItemOf(const std::string& group) const {
        return group + "|" + GroupDir("memory", group) + (IsV2("memory") ? "|v2" : "|v1");
    }

    void HoldCpu();
    void OomAtRunTime();
    void HoldMemory();
    void Drift();
    void OnlineChange();
    void Fallback();
    void KillEveryone();
    void OomWhileDown();
    void BeforeReboot();
    void CleanStop();
    void AfterReboot();

    /// Runs a cell that is asked for and prints its line. After one that failed the next has an agent made anew.
    void Cell(const std::string& scenario, void (Life::*run)()) {
        if (!IsAsked(m_who + ":" + scenario)) return;
        m_failuresBefore = Failures::Count();
        (this->*run)();
        const bool passed = !HasCellFailed();
        printf("CELL %s %s: %s\n", m_who.c_str(), scenario.c_str(), passed ? "passed" : "failed");
        fflush(stdout);
        if (passed) return;
        AgentInGuest::TearDown();
        m_pid = -1;
        AgentInGuest::SetUp();
        Configure();
    }
    void LiveOn();

    std::string m_who;
    std::string m_unit;        ///< its group in every hierarchy; empty: the root
    int m_failuresBefore = 0;  ///< those of earlier cells
};

void Life::HoldCpu() {
    Up();
    if (HasCellFailed()) return;
    const std::string leaf = "collect-defense/Greedy";
    EXPECT_EQ(CpuLimit(leaf), Budget(100, 400).GreedyCpu());
    const std::string stat = GroupDir("cpu", leaf) + "/cpu.stat";
    // It always wants to run, so it is stopped in nearly every period; half of them is far from chance.
    const int64_t periods = Field(stat, "nr_periods");
    const int64_t throttled = Field(stat, "nr_throttled");
    ASSERT_GE(periods, 0);
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Field(stat, "nr_periods") >= periods + 20; }));
    EXPECT_GE((Field(stat, "nr_throttled") - throttled) * 2, Field(stat, "nr_periods") - periods);
}

void Life::OomAtRunTime() {
    Up();
    if (HasCellFailed()) return;
    const size_t before = OomEvents(kRuntime).size();
    KillComponentOnce("Killable", "collect-defense");
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return OomEvents(kRuntime).size() > before; })) << "no event";
    const Json::Value event = OomEvents(kRuntime).back();
    EXPECT_EQ(event["items"][ItemOf("collect-defense")]["oom_kill_delta"].asInt64(), 1) << event.toStyledString();
    EXPECT_TRUE(Poll(kStartSeconds, [this] { return NotAtHome().empty(); })) << NotAtHome();
}

void Life::HoldMemory() {
    Up();
    if (HasCellFailed()) return;
    const std::string leaf = "guard/Quiet";
    const int64_t limit = MemoryLimit(leaf);
    EXPECT_EQ(limit, Budget(100, 400).QuietMemory());
    // What fits is left alone, what does not is ended, and never was there more than the limit.
    const int status = WaitEnd(RunInLeaf(leaf, {"/bin/vm-hog", "20"}), kSettleSeconds);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    const int64_t kills = KillsIn(leaf);
    Overeat(leaf);
    EXPECT_EQ(KillsIn(leaf), kills + 1);
    const std::string peak =
        GroupDir("memory", leaf) + (IsV2("memory") ? "/memory.peak" : "/memory.max_usage_in_bytes");
    if (Exists(peak)) {
        EXPECT_LE(std::stoll(ReadText(peak)), limit * 1024);
    }
    EXPECT_TRUE(Poll(kStartSeconds, [this] { return NotAtHome().empty(); })) << NotAtHome();
}

void Life::Drift() {
    Up();
    if (HasCellFailed()) return;
    const int64_t cpu = CpuLimit("collect-defense/Greedy");
    const int64_t memory = MemoryLimit("guard/Quiet");
    const std::vector<pid_t> members = ProcessesIn("cpu", "guard/Quiet");
    const size_t told = Messages("T_MSG_LIMIT_DRIFT").size();
    ASSERT_TRUE(WriteText(GroupDir("cpu", "collect-defense/Greedy") + (IsV2("cpu") ? "/cpu.max" : "/cpu.cfs_quota_us"),
                          IsV2("cpu") ? "max" : "-1"));
    if (HasMemory()) {  // less of it: for more, version 1 has a limit on swap besides that would have to go first
        ASSERT_TRUE(
            WriteText(GroupDir("memory", "guard/Quiet") + (IsV2("memory") ? "/memory.max" : "/memory.limit_in_bytes"),
                      std::to_string(memory / 2 * 1024)));
    }
    ASSERT_EQ(members.size(), 1U);
    ASSERT_TRUE(WriteText(GroupDir("cpu", "collect-defense/Killable") + "/cgroup.procs", std::to_string(members[0])));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        return CpuLimit("collect-defense/Greedy") == cpu && MemoryLimit("guard/Quiet") == memory &&
               ProcessesIn("cpu", "guard/Quiet") == members;
    })) << Held();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Messages("T_MSG_LIMIT_DRIFT").size() > told; })) << "no event";
}

void Life::OnlineChange() {
    Up();
    if (HasCellFailed()) return;
    const auto everybody = [] {
        std::vector<std::vector<pid_t>> all;
        for (const char* leaf : {"main/Tervane", "collect-defense/Greedy", "guard/Quiet"}) {
            all.push_back(ProcessesIn("cpu", leaf));
        }
        return all;
    };
    const std::vector<std::vector<pid_t>> before = everybody();
    Online(80, 900, 13);
    EXPECT_TRUE(Poll(kSettleSeconds, [this] { return HoldsBudget(Budget(80, 900)); })) << Held();
    Online(100, 400, 13);
    EXPECT_TRUE(Poll(kSettleSeconds, [this] { return HoldsBudget(Budget(100, 400)); })) << Held();
    EXPECT_EQ(everybody(), before) << "a process was restarted";
}

/// Whether the agent's processes are under a legacy limit of processor time, and none is in a tree.
bool IsLegacy(pid_t main) {
    std::string legacy;
    for (const std::string& group : AllGroups()) {
        if (group.find("zel.agent.legacy-") != std::string::npos && group.find(MountOf("cpu")) == 0) legacy = group;
    }
    if (legacy.empty()) return false;
    const std::string members = "\n" + ReadText(legacy + "/cgroup.procs");
    return members.find("\n" + std::to_string(main) + "\n") != std::string::npos && ProcessesIn("cpu", "").empty() &&
           ProcessesIn("cpu", "guard/Quiet").empty() && ProcessesIn("cpu", "main/Tervane").empty();
}

void Life::Fallback() {
    Up();
    if (HasCellFailed()) return;
    Online(100, 400, 5);
    EXPECT_TRUE(Poll(kSettleSeconds, [this] { return IsLegacy(m_pid); })) << Status()["tree"].toStyledString();
    // Somebody else has the tree's name meanwhile: the way back fails, and the agent stays limited as it is.
    EXPECT_TRUE(Poll(kSettleSeconds, [] { return !Exists(GroupDir("cpu")); })) << "the tree stays";
    const std::string theirs = GroupDir("cpu", "theirs");  // an empty group would be taken over
    ASSERT_EQ(Command("mkdir -p " + theirs + " 2>&1"), "");
    const int refused = LogCount("unified");
    Online(100, 420, 13);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return LogCount("unified") > refused; }));
    EXPECT_TRUE(Poll(kSettleSeconds, [this] { return !Status()["unified"].asBool() && IsLegacy(m_pid); }))
        << Status().toStyledString();
    ASSERT_TRUE(rmdir(theirs.c_str()) == 0 && rmdir(GroupDir("cpu").c_str()) == 0) << strerror(errno);
    Online(100, 400, 13);
    EXPECT_TRUE(Poll(kSettleSeconds, [this] { return NotAtHome().empty() && HoldsBudget(Budget(100, 400)); }))
        << NotAtHome() << ", " << Held();
}

/// Without those of the limit before, which nobody needs any more and which go in their own time.
std::vector<std::string> TreeGroups() {
    std::vector<std::string> groups = AllGroups();
    const auto isLegacy = [](const std::string& group) { return group.find(".legacy-") != std::string::npos; };
    groups.erase(std::remove_if(groups.begin(), groups.end(), isLegacy), groups.end());
    return groups;
}

void Life::KillEveryone() {
    Up();
    if (HasCellFailed()) return;
    for (const char* leaf : kLeaves) {
        const std::vector<pid_t> before = ProcessesIn("cpu", leaf);
        ASSERT_FALSE(before.empty()) << leaf;
        for (pid_t pid : before) kill(pid, SIGKILL);
        EXPECT_TRUE(Poll(kStartSeconds,
                         [&] {
                             const std::vector<pid_t> now = ProcessesIn("cpu", leaf);
                             return !now.empty() && now[0] != before[0];
                         }))
            << leaf << " does not come back";
    }
    const std::vector<std::string> groups = TreeGroups();
    KillMain();
    EXPECT_EQ(TreeGroups(), groups) << "nobody was left to remove them";
    Up();
    EXPECT_TRUE(HoldsBudget(Budget(100, 400))) << Held();
}

void Life::OomWhileDown() {
    Up();
    if (HasCellFailed()) return;
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return Exists(kWatermark); }));
    const size_t before = OomEvents(kAfterRestart).size();
    const int64_t kills = KillsIn("main");
    KillMain();
    Overeat("main/Tervane");
    ASSERT_EQ(KillsIn("main"), kills + 1);
    Up();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return OomEvents(kAfterRestart).size() > before; })) << "no event";
    const Json::Value event = OomEvents(kAfterRestart).back();
    EXPECT_EQ(event["items"][ItemOf("main")]["oom_kill_delta"].asInt64(), 1) << event.toStyledString();
}

/// The machine loses its power: nothing is taken down in order.
void Life::BeforeReboot() {
    Up();
    if (HasCellFailed()) return;
    KillMain();
    const std::string kept = "/carry/" + m_who;
    ASSERT_EQ(Command("mkdir -p " + kept + " && cp -a /tmp/app " + kept + "/ && rm -rf " + kept + "/app/run 2>&1"), "");
    ASSERT_TRUE(WriteText(kept + "/boot_id", ReadText(kBootId)));
}

void Life::CleanStop() {
    Up();
    if (HasCellFailed()) return;
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
    EXPECT_EQ(Command("for p in /proc/[0-9]*; do readlink $p/exe; done | grep -c tervane"), "0\n");
}

void Life::AfterReboot() {
    const std::string kept = "/carry/" + m_who;
    ASSERT_NE(ReadText(kept + "/boot_id"), "");
    ASSERT_NE(ReadText(kept + "/boot_id"), ReadText(kBootId)) << "this is no second boot";
    ASSERT_EQ(Command("rm -rf /tmp/app && cp -a " + kept + "/app /tmp/app 2>&1"), "");
    ASSERT_EQ(Command("chown -R " + std::to_string(m_owner) + " /tmp/app 2>&1"), "");
    const size_t told = OomEvents(kAfterRestart).size() + OomEvents(kRuntime).size();
    Up();
    if (HasCellFailed()) return;
    EXPECT_TRUE(HoldsBudget(Budget(100, 400))) << Held();
    if (HasMemory()) {
        const auto isOfThisBoot = [] {
            const std::string stored = ReadText(kWatermark);
            const size_t all = CountOf(stored, "\"oom_kill\"");
            return all > 0 && CountOf(stored, "\"oom_kill\" : 0") == all;
        };
        EXPECT_TRUE(Poll(kSettleSeconds, isOfThisBoot)) << ReadText(kWatermark);
    }
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(OomEvents(kAfterRestart).size() + OomEvents(kRuntime).size(), told) << "told of the boot before";
}

void Life::LiveOn() {
    ASSERT_FALSE(HasFatalFailure());
    Configure();
    ASSERT_FALSE(HasFatalFailure());
    if (getenv("ZEL_MATRIX_SECOND_BOOT") != nullptr) {
        Cell("reboot", &Life::AfterReboot);
        return;
    }
    Cell("hold-cpu", &Life::HoldCpu);
    Cell("oom-run", &Life::OomAtRunTime);
    Cell("hold-memory", &Life::HoldMemory);
    Cell("drift", &Life::Drift);
    Cell("online", &Life::OnlineChange);
    Cell("fallback", &Life::Fallback);
    Cell("kill", &Life::KillEveryone);
    Cell("oom-down", &Life::OomWhileDown);
    m_failuresBefore = Failures::Count();
    if (IsAsked(m_who + ":reboot")) BeforeReboot();
    Cell("stop", &Life::CleanStop);
}

struct AsRoot : Life {
    AsRoot() : Life("root") {}
};
struct InUnit : Life {
    InUnit() : Life("unit") {}
};
struct InUserNamespace : Life {
    InUserNamespace() : Life("user-namespace") {}
};
TEST_F(AsRoot, Lives) {
    LiveOn();
}
TEST_F(InUnit, Lives) {
    LiveOn();
}
TEST_F(InUserNamespace, Lives) {
    LiveOn();
}

/// Runs a program as root of another process's user namespace: whom an agent there listens to. Does not return.
int RunAsRootOf(char** words) {
    const int space = open(("/proc/" + std::string(words[0]) + "/ns/user").c_str(), O_RDONLY | O_CLOEXEC);
    if (space < 0 || setns(space, CLONE_NEWUSER) != 0 || setgid(0) != 0 || setuid(0) != 0) {
        perror("user namespace");
        return 1;
    }
    execv(words[1], words + 1);
    perror(words[1]);
    return 127;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 3 && strcmp(argv[1], "--as-root-of") == 0) return RunAsRootOf(argv + 2);
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new Failures);
    return support::RunTests();
}
