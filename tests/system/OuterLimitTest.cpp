// An agent that is started inside groups which an operator has limited: whatever it does, none of its processes gets
// out of them, at no moment that a watcher without a pause between its looks can see.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "AgentFixture.h"
#include "GroupTable.h"

namespace agenttest {
namespace {

constexpr int64_t kMegabyte = 1024 * 1024;
constexpr int64_t kOuterMemory = 200 * kMegabyte;
constexpr int64_t kOuterQuotaUs = 30000;
constexpr int64_t kPeriodUs = 100000;
constexpr int kRetriesSeconds = 7;  ///< a component tries again every second, and looks at everything every five

/// Looks again and again at every process that runs the agent's program, or a given one, for the agent of a directory.
class Watch {
public:
    Watch(std::string program, std::string marker, std::string inside)
        : m_program(std::move(program)), m_marker(std::move(marker)), m_inside(std::move(inside)) {
        m_thread = std::thread([this] {
            while (!m_end) Look();
        });
    }
    ~Watch() { End(); }
    void End() {
        m_end = true;
        if (m_thread.joinable()) m_thread.join();
    }
    /// Returns: the first process that was seen outside, and where; empty when none was.
    std::string Escaped() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_escaped;
    }
    int Looks() const { return m_looks; }

private:
    bool IsOurs(const std::string& pid) const {
        char program[4096] = {};
        if (readlink(("/proc/" + pid + "/exe").c_str(), program, sizeof program - 1) <= 0) return false;
        const bool isAgent = program == m_program;
        const std::string words = isAgent || m_marker.empty() ? ReadText("/proc/" + pid + "/cmdline") : "";
        return isAgent && words.find(m_marker) != std::string::npos;
    }
    void Look() {
        for (const std::string& pid : FoldersIn("/proc")) {
            if (pid.empty() || pid[0] < '0' || pid[0] > '9' || !IsOurs(pid)) continue;
            const std::string groups = ReadText("/proc/" + pid + "/cgroup");
            if (groups.empty()) continue;  // it has ended
            ++m_looks;
            int inside = 0;
            for (const char* controller : {":cpu:", ":cpu,cpuacct:", ":memory:"}) {
                const size_t at = groups.find(controller + m_inside);
                if (at == std::string::npos) continue;
                const char next = groups[at + std::string(controller).size() + m_inside.size()];
                if (next == '\n' || next == '/') ++inside;
            }
            if (inside == 2 || support::IsEnding(pid) || !IsOurs(pid)) continue;
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_escaped.empty()) m_escaped = "process " + pid + ": " + groups;
        }
    }

    const std::string m_program;
    const std::string m_marker;
    const std::string m_inside;
    std::atomic<bool> m_end{false};
    std::atomic<int> m_looks{0};
    std::mutex m_mutex;
    std::string m_escaped;
    std::thread m_thread;
};

class OuterLimitTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        m_name = "/zsysouter-" + std::to_string(getpid());
        ASSERT_EQ(mkdir(Cpu().c_str(), 0755), 0);
        ASSERT_EQ(mkdir(Memory().c_str(), 0755), 0);
        ASSERT_TRUE(WriteText(Cpu() + "/cpu.cfs_quota_us", std::to_string(kOuterQuotaUs)));
        ASSERT_TRUE(WriteText(Memory() + "/memory.limit_in_bytes", std::to_string(kOuterMemory)));
    }
    void TearDown() override {
        for (const pid_t pid : AllProcesses()) kill(pid, SIGKILL);
        for (const std::string& root : {Cpu(), Memory()}) {
            if (m_name.empty() || !Exists(root)) continue;
            if (HasFailure()) RemoveBelow(root);
            EXPECT_TRUE(Poll(10, [&] { return rmdir(root.c_str()) == 0; })) << root;
        }
        AgentOnV1Test::TearDown();
    }
    static void RemoveBelow(const std::string& group) {
        for (const std::string& child : ChildrenOf(group)) {
            RemoveBelow(group + "/" + child);
            for (const pid_t pid : ProcessesIn(group + "/" + child)) kill(pid, SIGKILL);
            Poll(5, [&] { return rmdir((group + "/" + child).c_str()) == 0; });
        }
    }

    std::string Cpu(const std::string& below = "") const { return CpuRoot() + m_name + below; }
    std::string Memory(const std::string& below = "") const { return MemoryRoot() + m_name + below; }

    Child StartInside(const std::vector<std::string>& more = {}, const std::vector<std::string>& within = {}) {
        std::vector<std::string> words{
            "/bin/sh", "-c",
            "echo $$ > " + Cpu("/cgroup.procs") + " && echo $$ > " + Memory("/cgroup.procs") + " && exec \"$@\"", "sh"};
        words.insert(words.end(), within.begin(), within.end());
        for (const std::string& word : AgentWords(more)) words.push_back(word);
        const int before = LogCount(" is running, process ");
        Child agent = Spawn(words, Environment(), NextOutput());
        EXPECT_TRUE(Poll(kStartSeconds, [&] { return LogCount(" is running, process ") > before; })) << agent.Output();
        return agent;
    }
    Watch WatchAll() const { return Watch(ProgramOf(AgentWords()[0]), Dir(), m_name); }
    static std::string ProgramOf(const std::string& path) {
        char real[4096] = {};
        return realpath(path.c_str(), real) != nullptr ? real : path;
    }

    bool WaitInTree(const std::string& leaf, const std::function<pid_t()>& process) {
        return Poll(kSettleSeconds, [&] {
            const pid_t pid = process();
            const std::vector<pid_t> only{pid};
            return pid > 0 && ProcessesIn(Cpu("/" + Tree() + leaf)) == only &&
                   ProcessesIn(Memory("/" + Tree() + leaf)) == only;
        });
    }
    /// Returns: whether exactly these legacy limits are there, with the process in each.
    bool HasLegacy(int mode, const std::vector<pid_t>& pids) const {
        for (const auto& [root, bit] : {std::pair(Cpu(), 1), std::pair(Memory(), 4)}) {
            const std::vector<std::string> names = ChildrenOf(root, Tree() + ".legacy-");
            if (names.size() != ((mode & bit) != 0 ? 1U : 0U)) return false;
            if (names.empty()) continue;
            const std::vector<pid_t> inside = ProcessesIn(root + "/" + names[0]);
            for (const pid_t pid : pids) {
                if (std::find(inside.begin(), inside.end(), pid) == inside.end()) return false;
            }
        }
        return true;
    }
    void ExpectEmptyOuter() {
        EXPECT_EQ(ChildrenOf(Cpu()), std::vector<std::string>());
        EXPECT_EQ(ChildrenOf(Memory()), std::vector<std::string>());
        EXPECT_EQ(AllGroups(), std::vector<std::string>()) << "a group was made at the root";
    }

    std::string m_name;
};

TEST_F(OuterLimitTest, NobodyEverGetsOutOfAnOperatorsLimits) {
    WriteResource({{"max_cpu", "30"}, {"max_memory", "150"}, {"resource_limit_mode", "13"}});
    WriteComponents(
        "{\"name\": \"QorNet\", \"group\": \"collect-defense\"}, {\"name\": \"QorHips\", \"group\": "
        "\"collect-defense\", \"command\": [\"/bin/sleep\", \"1000\"]}");
    Watch watch = WatchAll();
    Child agent = StartInside();
    EXPECT_TRUE(WaitInTree("/main/Tervane", [&] { return agent.Pid(); }));
    EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] { return ComponentPid("QorNet"); }));
    for (const int mode : {5, 13, 0, 13, 1, 4, 13}) {
        const std::vector<pid_t> pids{agent.Pid(), ComponentPid("QorNet"), ComponentPid("QorHips")};
        WriteOnline("{\"resourceLimitMode\": " + std::to_string(mode) + "}");
        if (mode == 13) {
            EXPECT_TRUE(WaitInTree("/main/Tervane", [&] { return agent.Pid(); }));
            EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] { return pids[1]; }));
            EXPECT_TRUE(WaitInTree("/collect-defense/QorHips", [&] { return pids[2]; }));
        } else {
            EXPECT_TRUE(Poll(kSettleSeconds, [&] { return HasLegacy(mode, pids); })) << "mode " << mode;
        }
        for (const pid_t pid : pids) {
            EXPECT_THAT(ReadText("/proc/" + std::to_string(pid) + "/cgroup"), testing::HasSubstr(":memory:" + m_name))
                << "mode " << mode;
        }
    }
    // A component that is started again is born inside.
    const pid_t component = ComponentPid("QorNet");
    ASSERT_EQ(kill(component, SIGKILL), 0);
    EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] {
        const pid_t pid = ComponentPid("QorNet");
        return pid == component ? 0 : pid;
    }));
    agent.Kill();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return AllProcesses().empty(); }));
    agent = StartInside();
    EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] { return ComponentPid("QorNet"); }));
    EXPECT_EQ(agent.Stop(), 0);
    watch.End();
    EXPECT_EQ(watch.Escaped(), "");
    EXPECT_GT(watch.Looks(), 1000);
    printf("%d looks at the agent's processes\n", watch.Looks());
    EXPECT_TRUE(Poll(10, [this] { return AllProcesses().empty(); }));
    ExpectEmptyOuter();
}

// As in a container: what the agent sees as the root of each hierarchy is the operator's group, and nothing above it.
TEST_F(OuterLimitTest, InANamespaceOfItsOwnItStaysInside) {
    WriteResource({{"max_cpu", "30"}, {"max_memory", "150"}, {"resource_limit_mode", "13"}});
    WriteComponents("{\"name\": \"QorNet\", \"group\": \"collect-defense\"}");
    const std::string mounts = "for c in cpu:" + CpuRoot() + " memory:" + MemoryRoot() +
                               "; do umount -l \"${c#*:}\" && mount -t cgroup -o \"${c%%:*}\" cgroup \"${c#*:}\" || "
                               "exit 9; done; exec \"$@\"";
    Watch watch = WatchAll();
    Child agent =
        StartInside({}, {"/usr/bin/unshare", "-C", "-m", "--propagation", "private", "/bin/sh", "-c", mounts, "sh"});
    EXPECT_TRUE(WaitInTree("/main/Tervane", [&] { return agent.Pid(); }));
    char ours[64] = {};
    char theirs[64] = {};
    ASSERT_GT(readlink("/proc/self/ns/cgroup", ours, sizeof ours - 1), 0);
    ASSERT_GT(readlink(("/proc/" + std::to_string(agent.Pid()) + "/ns/cgroup").c_str(), theirs, sizeof theirs - 1), 0);
    ASSERT_STRNE(ours, theirs);
    for (const int mode : {5, 13, 0, 13}) {
        WriteOnline("{\"resourceLimitMode\": " + std::to_string(mode) + "}");
        if (mode == 13) {
            EXPECT_TRUE(WaitInTree("/main/Tervane", [&] { return agent.Pid(); }));
            EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] { return ComponentPid("QorNet"); }));
        } else {
            EXPECT_TRUE(Poll(kSettleSeconds,
                             [&] {
                                 return HasLegacy(mode, {agent.Pid(), ComponentPid("QorNet")});
                             }))
                << "mode " << mode;
        }
    }
    EXPECT_EQ(agent.Stop(), 0);
    watch.End();
    EXPECT_EQ(watch.Escaped(), "");
    EXPECT_GT(watch.Looks(), 1000);
    EXPECT_TRUE(Poll(10, [this] { return AllProcesses().empty(); }));
    ExpectEmptyOuter();
}

TEST_F(OuterLimitTest, TheTreeTakesNoMoreThanTheOperatorGives) {
    WriteResource({{"max_cpu", "100"}, {"max_memory", "150"}, {"resource_limit_mode", "13"}});
    WriteComponents("{\"name\": \"QorNet\", \"group\": \"collect-defense\"}");
    Child agent = StartInside({"--limit-check", "1"});
    EXPECT_TRUE(WaitInTree("/main/Tervane", [&] { return agent.Pid(); }));
    EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] { return ComponentPid("QorNet"); }));
    EXPECT_EQ(ReadNumber(Cpu("/" + Tree() + "/cpu.cfs_quota_us")), kOuterQuotaUs);
    EXPECT_TRUE(WriteText(Cpu("/cpu.cfs_quota_us"), std::to_string(kPeriodUs * 4)));
    SleepMs(3000);
    EXPECT_EQ(LogCount("set back"), 0) << "a wider outer limit is nobody's drift";
    WriteOnline("{\"groupMaxCpu\": 90}");
    EXPECT_TRUE(
        Poll(kSettleSeconds, [&] { return ReadNumber(Cpu("/" + Tree() + "/cpu.cfs_quota_us")) > kOuterQuotaUs; }));
    std::string text;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"check"}, text) == 0; })) << text;
    EXPECT_EQ(agent.Stop(), 0);
    ExpectEmptyOuter();
}

/// A component that somebody starts by hand, not the main process.
class StrayComponentTest : public OuterLimitTest {
protected:
    Child StartByHand(const std::string& before = "") {
        std::vector<std::string> words{"/bin/sh", "-c", before + " exec \"$@\"", "sh"};
        for (const std::string& word : AgentWords({"--name", "QorNet"})) words.push_back(word);
        Child child = Spawn(words, Environment(), NextOutput());
        EXPECT_TRUE(Poll(kStartSeconds, [&] { return LogCount(" is running, process ", "QorNet") > 0; }))
            << child.Output();
        return child;
    }
    void StartMainInside() {
        WriteResource({{"max_cpu", "30"}, {"max_memory", "150"}, {"resource_limit_mode", "13"}});
        m_main = StartInside();
        ASSERT_TRUE(WaitInTree("/main/Tervane", [&] { return m_main.Pid(); }));
    }
    Child m_main;
};

TEST_F(StrayComponentTest, JoinsTheTreeWhereTheMainProcessHasIt) {
    StartMainInside();
    Child component = StartByHand();
    EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] { return component.Pid(); })) << component.Output();
    EXPECT_EQ(component.Output(), "");
    WriteOnline("{\"resourceLimitMode\": 0}");
    const std::string groups = "/proc/" + std::to_string(component.Pid()) + "/cgroup";
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ReadText(groups).find(Tree()) == std::string::npos; }));
    EXPECT_THAT(ReadText(groups), testing::HasSubstr(":cpu:/\n")) << "back where it was started";
    EXPECT_EQ(component.Stop(), 0);
    EXPECT_EQ(m_main.Stop(), 0);
    ExpectEmptyOuter();
}

TEST_F(StrayComponentTest, StaysInLimitsThatItWouldGetOutOfAndSaysSo) {
    StartMainInside();
    const std::string other = CpuRoot() + m_name + ".other";
    ASSERT_EQ(mkdir(other.c_str(), 0755), 0);
    EXPECT_TRUE(WriteText(other + "/cpu.cfs_quota_us", "50000"));
    Child component = StartByHand("echo $$ > " + other + "/cgroup.procs;");
    const std::string why = "this process would get out of the limits that others have set on " + m_name + ".other";
    EXPECT_THAT(component.Output(), testing::HasSubstr("QorNet: runs outside its groups: "));
    EXPECT_THAT(component.Output(), testing::HasSubstr(why));
    EXPECT_TRUE(LogHas(why, "QorNet"));
    const std::string groups = "/proc/" + std::to_string(component.Pid()) + "/cgroup";
    const bool left =
        Poll(kRetriesSeconds, [&] { return ReadText(groups).find(":cpu:" + m_name + ".other") == std::string::npos; });
    EXPECT_FALSE(left) << ReadText(groups);
    EXPECT_THAT(Status("QorNet")["mode_reason"].asString(), testing::HasSubstr(why));
    EXPECT_EQ(component.Stop(), 0);
    EXPECT_TRUE(Poll(10, [&] { return rmdir(other.c_str()) == 0; }));
    EXPECT_EQ(m_main.Stop(), 0);
    ExpectEmptyOuter();
}

TEST_F(OuterLimitTest, TheTreeGoesWithTheUnifiedMode) {
    WriteResource({{"max_cpu", "30"}, {"max_memory", "150"}, {"resource_limit_mode", "13"}});
    WriteComponents(
        "{\"name\": \"QorNet\", \"group\": \"collect-defense\"}, {\"name\": \"QorHips\", \"group\": "
        "\"collect-defense\", \"command\": [\"/bin/sleep\", \"1000\"]}");
    Child agent = StartInside({"--limit-check", "1"});
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(WaitInTree("/collect-defense/QorNet", [&] { return ComponentPid("QorNet"); }));
        EXPECT_TRUE(WaitInTree("/collect-defense/QorHips", [&] { return ComponentPid("QorHips"); }));
        WriteOnline("{\"resourceLimitMode\": 0}");
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ChildrenOf(Cpu()).empty() && ChildrenOf(Memory()).empty(); }));
        WriteOnline("{\"resourceLimitMode\": 13}");
    }
    EXPECT_TRUE(WaitInTree("/main/Tervane", [&] { return agent.Pid(); }));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectEmptyOuter();
}

}  // namespace
}  // namespace agenttest
