// An agent that is started inside groups which an operator has limited, on the layouts that only guests have: its
// processes never leave them, and where it cannot work below them it stays and says why.
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "GuestAgent.h"

using namespace guest;
using ::testing::HasSubstr;

namespace {

constexpr const char* kOuter = "/operator";
constexpr int64_t kMegabyte = 1024 * 1024;

class OuterLimitInGuest : public AgentInGuest {
protected:
    void SetUp() override {
        AgentInGuest::SetUp();
        if (HasFatalFailure()) return;
        for (const char* controller : {"cpu", "memory"}) {
            const std::string root = Root(controller);
            if (IsV2(controller)) {
                ASSERT_TRUE(WriteText(root + "/cgroup.subtree_control", std::string("+") + controller));
            }
            ASSERT_TRUE(mkdir(Outer(controller).c_str(), 0755) == 0 || errno == EEXIST);
            m_startGroups.insert(Outer(controller));
        }
        if (IsV2("cpu")) {
            ASSERT_TRUE(WriteText(Outer("cpu") + "/cpu.max", "150000 100000"));
        } else {
            ASSERT_TRUE(WriteText(Outer("cpu") + "/cpu.cfs_quota_us", "150000"));
        }
        const char* file = IsV2("memory") ? "/memory.max" : "/memory.limit_in_bytes";
        ASSERT_TRUE(WriteText(Outer("memory") + file, std::to_string(300 * kMegabyte)));
        WriteRoomyResource({{"max_memory", "250"}});
        WriteComponents(
            "{\"name\": \"Quiet\", \"group\": \"guard\"}, {\"name\": \"Killable\", \"group\": \"collect-defense\", "
            "\"command\": [\"/bin/sleep\", \"6000\"]}");
    }
    void TearDown() override {
        EndWatch();
        if (m_stranger > 0) kill(m_stranger, SIGKILL);
        if (m_stranger > 0) WaitEnd(m_stranger, kSettleSeconds);
        AgentInGuest::TearDown();
        for (const char* controller : {"cpu", "memory"}) {
            Poll(kSettleSeconds, [&] {
                Command("find " + Outer(controller) + " -depth -type d -exec rmdir {} + 2>/dev/null");
                return !Exists(Outer(controller));
            });
        }
    }

    static std::string Root(const std::string& controller) {
        const std::string tree = GroupDir(controller);
        return tree.substr(0, tree.rfind('/'));
    }
    static std::string Outer(const std::string& controller) { return Root(controller) + kOuter; }

    /// Looks without a pause whether a process of the agent's program is outside.
    void BeginWatch() {
        m_watch = std::thread([this] {
            while (!m_end) {
                for (const std::string& pid : FoldersIn("/proc")) LookAt(pid);
            }
        });
    }
    void EndWatch() {
        m_end = true;
        if (m_watch.joinable()) m_watch.join();
    }
    static bool RunsAgent(const std::string& pid) {
        char program[256] = {};
        if (readlink(("/proc/" + pid + "/exe").c_str(), program, sizeof program - 1) <= 0) return false;
        return std::string(program) == TERVANE_PROGRAM;
    }
    void LookAt(const std::string& pid) {
        if (!RunsAgent(pid)) return;
        std::istringstream lines(ReadText("/proc/" + pid + "/cgroup"));
        for (std::string line; std::getline(lines, line);) {
            const size_t name = line.find(':') + 1;
            const size_t path = line.find(':', name) + 1;
            if (!IsLimitedHierarchy(line.substr(name, path - name - 1))) continue;
            ++m_looks;
            if ((line.substr(path) + "/").compare(0, std::string(kOuter).size() + 1, std::string(kOuter) + "/") == 0) {
                continue;
            }
            if (support::IsEnding(pid) || !RunsAgent(pid)) continue;
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_escaped.empty()) m_escaped = "process " + pid + ": " + line;
        }
    }
    static bool IsLimitedHierarchy(const std::string& controllers) {
        for (const char* each : {"cpu", "memory"}) {
            if (IsV2(each) ? controllers.empty()
                           : ("," + controllers + ",").find("," + std::string(each) + ",") != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    std::string Escaped() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_escaped;
    }

    bool IsIn(pid_t pid, const std::string& leaf) const {
        for (const char* controller : {"cpu", "memory"}) {
            const std::string list = " " + Command("cat " + Outer(controller) + "/zel.agent/" + leaf +
                                                   "/cgroup.procs 2>/dev/null | tr '\\n' ' '");
            if (pid <= 0 || list.find(" " + std::to_string(pid) + " ") == std::string::npos) return false;
        }
        return true;
    }
    bool WaitIn(const std::string& component, const std::string& leaf) {
        return Poll(kStartSeconds, [&] { return IsIn(component.empty() ? MainPid() : PidOf(component), leaf); });
    }
    static std::string Where() {
        return Command(
            "for p in $(pidof tervane); do echo $p; cat /proc/$p/cgroup; done; find /sys/fs/cgroup -name "
            "'zel.agent*'");
    }
    /// Starts the agent in new groups below the operator's.
    void StartBelow(const std::string& name) {
        std::set<std::string> groups;
        for (const std::string& group : m_startGroups) {
            ASSERT_EQ(mkdir((group + name).c_str(), 0755), 0);
            groups.insert(group + name);
        }
        m_startGroups = groups;
        StartAgent();
    }
    void StartStranger() {
        m_stranger = fork();
        if (m_stranger == 0) {
            for (const std::string& group : m_startGroups) {
                if (!WriteText(group + "/cgroup.procs", "0")) _exit(1);
            }
            execl("/bin/sleep", "sleep", "6000", nullptr);
            _exit(127);
        }
        ASSERT_TRUE(Poll(kSettleSeconds, [&] {
            return Command("cat " + Outer("cpu") + "/cgroup.procs").find(std::to_string(m_stranger)) !=
                   std::string::npos;
        }));
    }
    void ExpectOuterEmpty() {
        for (const char* controller : {"cpu", "memory"}) {
            EXPECT_EQ(FoldersIn(Outer(controller)), std::vector<std::string>()) << controller;
            if (!IsV2(controller)) continue;
            EXPECT_EQ(Command("cat " + Outer(controller) + "/cgroup.subtree_control | tr -d '\\n'"), "");
        }
    }

    pid_t m_stranger = -1;
    std::thread m_watch;
    std::atomic<bool> m_end{false};
    std::atomic<int> m_looks{0};
    std::mutex m_mutex;
    std::string m_escaped;
};

TEST_F(OuterLimitInGuest, NobodyEverGetsOutOfAnOperatorsLimits) {
    BeginWatch();
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    for (const int mode : {13, 5, 13, 0, 13}) {
        WriteOnline("{\"resourceLimitMode\": " + std::to_string(mode) + "}");
        if (mode == 13) {
            EXPECT_TRUE(WaitIn("", "main/Tervane")) << Where();
            EXPECT_TRUE(WaitIn("Quiet", "guard/Quiet")) << Where();
            EXPECT_TRUE(WaitIn("Killable", "collect-defense/Killable")) << Where();
        } else {
            EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !IsIn(MainPid(), "main/Tervane"); }));
            EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !IsIn(PidOf("Quiet"), "guard/Quiet"); }));
        }
    }
    KillMain();
    EXPECT_TRUE(Poll(kSettleSeconds, [] { return Command("pidof tervane").empty(); }));
    // On version 2 the operator's group takes no process while the killed agent's tree is there.
    StartBelow("/again");
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(WaitIn("Quiet", "guard/Quiet")) << Where();
    for (const std::string& group : m_startGroups) {
        EXPECT_THAT(FoldersIn(group.substr(0, group.rfind('/'))), testing::Contains("zel.agent"));
    }
    EXPECT_EQ(StopAgent(), 0);
    EndWatch();
    EXPECT_EQ(Escaped(), "");
    EXPECT_GT(m_looks, 100);
    printf("%d looks at the agent's processes\n", m_looks.load());
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
    for (const std::string& group : m_startGroups) EXPECT_EQ(rmdir(group.c_str()), 0);
    ExpectOuterEmpty();
}

TEST_F(OuterLimitInGuest, BesideStrangersItStaysAndSaysWhy) {
    if (!IsV2("memory")) GTEST_SKIP() << "SKIP: version 1 has room beside processes";
    StartStranger();
    BeginWatch();
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    const std::string why = "process " + std::to_string(m_stranger) + " in it is not the agent's";
    EXPECT_TRUE(WaitLog(why));
    EXPECT_THAT(Status()["tree"]["memory_place"].asString() + Status()["mode_reason"].asString(), HasSubstr(why));
    EXPECT_THAT(Command(std::string(TERVANECTL_PROGRAM) + " --app-dir " + kAppDir + " doctor 2>&1"), HasSubstr(why));
    EXPECT_THAT(Command("cat " + Outer("memory") + "/cgroup.procs"), HasSubstr(std::to_string(MainPid())));
    EXPECT_EQ(StopAgent(), 0);
    EndWatch();
    EXPECT_EQ(Escaped(), "");
    EXPECT_THAT(Command("cat " + Outer("memory") + "/cgroup.procs"), HasSubstr(std::to_string(m_stranger)));
    EXPECT_EQ(FoldersIn(Outer("memory")), std::vector<std::string>());
}

TEST_F(OuterLimitInGuest, DelegatedStrangersMoveAsideAndReturn) {
    if (!IsV2("memory")) GTEST_SKIP() << "SKIP: version 1 has room beside processes";
    if (!IsV2("cpu")) GTEST_SKIP() << "SKIP: the mark would count for one of two hierarchies";
    ASSERT_EQ(setxattr(Outer("memory").c_str(), "trusted.delegate", "1", 1, 0), 0);
    StartStranger();
    BeginWatch();
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(WaitIn("", "main/Tervane")) << Where();
    EXPECT_TRUE(WaitIn("Quiet", "guard/Quiet")) << Where();
    EXPECT_EQ(StopAgent(), 0);
    EndWatch();
    EXPECT_EQ(Escaped(), "");
    EXPECT_THAT(Command("cat " + Outer("memory") + "/cgroup.procs"), HasSubstr(std::to_string(m_stranger)));
    ExpectOuterEmpty();
}

// Without the look of the main process: the component finds its place by itself, the change gives what was taken.
TEST_F(OuterLimitInGuest, ANewMaximumRepairsWhatWasTakenOutside) {
    if (!IsV2("memory")) GTEST_SKIP() << "SKIP: version 2 is meant";
    StartAgent({"--limit-check", "600"});
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(WaitIn("Quiet", "guard/Quiet")) << Where();
    const pid_t component = PidOf("Quiet");
    for (const char* controller : {"cpu", "memory"}) {
        EXPECT_TRUE(WriteText(Root(controller) + "/cgroup.procs", std::to_string(component)));
    }
    const std::string given = Outer("memory") + "/zel.agent/guard/cgroup.subtree_control";
    ASSERT_TRUE(WriteText(given, "-memory"));
    WriteOnline("{\"groupMaxCpu\": 80}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return IsIn(component, "guard/Quiet"); })) << Where();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ReadText(given).find("memory") != std::string::npos; }));
    const std::string limit = Outer("memory") + "/zel.agent/guard/Quiet/memory.max";
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return std::atoi(ReadText(limit).c_str()) > 0; })) << ReadText(limit);
    EXPECT_EQ(StopAgent(), 0);
    ExpectOuterEmpty();
}

}  // namespace
