// An operator's bad day: the host is broken in ten ways, and `tervanectl doctor` or `status` names each cause and what
// to do about it. docs/OPERATING.md has the same ten.
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "AgentFixture.h"

namespace agenttest {
namespace {

constexpr uid_t kNobody = 65534;

class BrokenHostTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        WriteResource({{"max_cpu", "40"}, {"max_memory", "400"}, {"resource_limit_mode", "13"}});
        WriteComponents("");
    }

    /// Whether doctor has a warning or problem that says `cause`, and right below it what to do, which says `remedy`.
    bool DoctorNames(const std::string& cause, const std::string& remedy) {
        RunConsole({"doctor"}, m_text);
        return Names(cause, remedy);
    }

    bool Names(const std::string& cause, const std::string& remedy) const {
        for (size_t at = 0; (at = m_text.find(cause, at)) != std::string::npos; ++at) {
            const size_t next = m_text.find("\nok ", at);
            const std::string finding = m_text.substr(at, next - at);
            const size_t head = m_text.rfind('\n', at) + 1;
            const bool bad = m_text.compare(head, 7, "PROBLEM") == 0 || m_text.compare(head, 7, "WARNING") == 0;
            const size_t action = finding.find("do:   ");
            const size_t other = std::min(finding.find("\nPROBLEM"), finding.find("\nWARNING"));
            if (bad && action < other && finding.substr(action, other - action).find(remedy) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    void ExpectDoctorNames(const std::string& cause, const std::string& remedy) {
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return DoctorNames(cause, remedy); })) << m_text;
    }

    void StopAndExpectNothingLeft(Child& agent) {
        EXPECT_EQ(agent.Stop(), 0);
        ExpectNothingLeft();
    }

    std::string m_text;  ///< of doctor, as it said last
};

TEST_F(BrokenHostTest, AComponentsProgramIsMissing) {
    WriteComponents(R"({"name": "QorHips", "group": "collect-defense", "command": ["/opt/none/qorhips"]})");
    Child agent = StartRunningAgent();
    ExpectDoctorNames("component QorHips does not run", "put the program there");
    EXPECT_TRUE(DoctorNames("component QorHips cannot be started", "correct \"command\" of QorHips in ")) << m_text;
    EXPECT_NE(m_text.find("/opt/none/qorhips"), std::string::npos) << m_text;
    StopAndExpectNothingLeft(agent);
}

TEST_F(BrokenHostTest, AConfigurationFileIsGarbled) {
    Child agent = StartRunningAgent();
    WriteOnline("{\"maxCpu\": 20,\n");
    ExpectDoctorNames("conf/online_config.json: not a JSON object", "correct it there");
    WriteOnline("{\"maxCpu\": 90000}");
    ExpectDoctorNames("key 'maxCpu', value 90000: outside 0..10000 percent", "correct it there");
    std::string text;
    EXPECT_EQ(RunConsole({"status"}, text), 1) << "degraded";
    WriteOnline("{\"maxCpu\": 40}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"doctor"}, text) == 0; })) << text;
    StopAndExpectNothingLeft(agent);
}

TEST_F(BrokenHostTest, AnotherProgramChangesAQuotaAgainAndAgain) {
    WriteComponents(R"({"name": "QorHips", "group": "collect-defense"})");
    Child agent = StartRunningAgent({"--limit-check", "1"});
    const std::string file = CpuRoot() + "/" + Tree() + "/collect-defense/QorHips/cpu.cfs_quota_us";
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ReadNumber(file) > 0; }));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        WriteText(file, "-1");
        return DoctorNames("another program wants", "find that program");
    })) << m_text;
    StopAndExpectNothingLeft(agent);
}

TEST_F(BrokenHostTest, TheDiskIsFull) {
    // The mount is seen by this program and what it starts.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        GTEST_SKIP() << "SKIP system: no private view of the mounts: " << strerror(errno);
    }

    ASSERT_EQ(mount("none", Dir().c_str(), "tmpfs", 0, "size=160m,mode=0750"), 0) << strerror(errno);
    ASSERT_EQ(mkdir((Dir() + "/conf").c_str(), 0750), 0);
    WriteResource({{"max_cpu", "40"}, {"max_memory", "400"}, {"resource_limit_mode", "13"}});
    WriteComponents("");
    Child agent = StartRunningAgent();
    std::string text;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"check"}, text) == 0; })) << text;
    const std::string filling = Dir() + "/filling";
    ASSERT_EQ(RunToEnd({"fallocate", "-l", "110M", filling}, text), 0) << text;
    ExpectDoctorNames("MB and", "make room there, more than 64 MB");
    ExpectDoctorNames("the disk is full", "make room on the agent's disk");
    ASSERT_EQ(unlink(filling.c_str()), 0);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"doctor"}, text) == 0; })) << text;
    EXPECT_EQ(agent.Stop(), 0);
    umount2(Dir().c_str(), MNT_DETACH);
}

TEST_F(BrokenHostTest, ASocketIsLeftByAnAgentThatIsGone) {
    Child agent = StartRunningAgent();
    agent.Kill();
    ASSERT_TRUE(Exists(Dir() + "/run/tervane.ctl"));
    std::string text;
    EXPECT_EQ(RunConsole({"status"}, text), 2) << text;
    EXPECT_NE(text.find("is the agent running?"), std::string::npos) << text;
    ExpectDoctorNames("no agent runs here, and the last one left its socket", "start it again");
    // It is no obstacle for the next one.
    Child next = StartRunningAgent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"status"}, text) == 0; })) << text;
    StopAndExpectNothingLeft(next);
}

TEST_F(BrokenHostTest, NoGroupsMayBeMade) {
    // As under a service manager that has not delegated any: the agent's user may not write to the hierarchies.
    std::string text;
    ASSERT_EQ(RunToEnd({"chown", "-R", "65534:65534", Dir()}, text), 0) << text;
    const std::vector<std::string> nobody{"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"};
    const auto as = [&](std::vector<std::string> words) {
        words.insert(words.begin(), nobody.begin(), nobody.end());
        return words;
    };
    Child agent = Spawn(as(AgentWords()), Environment(), NextOutput());
    const std::vector<std::string> doctor = as({TERVANECTL_PROGRAM, "--app-dir", Dir(), "doctor"});
    for (const std::string limit : {"CPU", "memory"}) {
        EXPECT_TRUE(Poll(kSettleSeconds,
                         [&] {
                             RunToEnd(doctor, m_text);
                             return Names(limit + " limit is asked for and not in force", "root");
                         }))
            << m_text << agent.Output();
    }
    EXPECT_EQ(agent.Stop(), 0) << agent.Output();
    ExpectNothingLeft();
}

TEST_F(BrokenHostTest, AMemoryLimitIsBelowWhatIsUsed) {
    WriteComponents(R"({"name": "QorHips", "group": "collect-defense", "load": "hold:20"})");
    Child agent = StartRunningAgent();
    const std::string group = MemoryRoot() + "/" + Tree() + "/collect-defense/QorHips";
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ReadNumber(group + "/memory.usage_in_bytes") > 20 << 20; }));
    WriteOnline("{\"groupMaxMemory\": 40}");
    // The kernel refuses it, everything stays as it was, and that is told until something else is asked for.
    std::string text;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        RunConsole({"doctor"}, text);
        return text.find("bytes that cannot be reclaimed") != std::string::npos &&
               text.find("ask for more memory") != std::string::npos &&
               text.find("the memory limit of the whole agent stays at") != std::string::npos &&
               text.find("asked for is 90.0 MB (groupMaxMemory = 40)") != std::string::npos;
    })) << text;
    EXPECT_NE(0, RunConsole({"check"}, text)) << text;
    WriteOnline("{\"groupMaxMemory\": 250}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"check"}, text) == 0; })) << text;
    // Who asks for it by the console hears it at once.
    EXPECT_EQ(1, RunConsole({"config", "set", "groupMaxMemory=40"}, text)) << text;
    EXPECT_NE(text.find("it is not in force: the memory limit of the whole agent stays at"), std::string::npos) << text;
    EXPECT_NE(text.find("asked for is 90.0 MB (groupMaxMemory = 40)"), std::string::npos) << text;
    EXPECT_NE(text.find("\ndo: the log names the groups that hold more"), std::string::npos) << text;
    EXPECT_EQ(1, RunConsole({"config", "set", "groupMaxMemory=40"}, text)) << text;
    EXPECT_NE(text.find("nothing is changed, and it is not in force: the memory limit"), std::string::npos) << text;
    EXPECT_EQ(0, RunConsole({"config", "set", "maxMemory=300"}, text))
        << "another key's refusal is not this one's: " << text;
    EXPECT_EQ(0, RunConsole({"config", "unset", "maxMemory"}, text)) << text;
    EXPECT_EQ(0, RunConsole({"config", "set", "groupMaxMemory=250"}, text)) << text;
    EXPECT_NE(text.find("the agent has taken it over"), std::string::npos) << text;
    EXPECT_EQ(1, RunConsole({"config", "undo", "--json"}, text)) << text;
    Json::Value view;
    ASSERT_TRUE(ParseJson(text, view)) << text;
    EXPECT_NE(view["refused"].asString().find("the memory limit of the whole agent stays at"), std::string::npos);
    EXPECT_NE(view["remedy"].asString().find("raise it"), std::string::npos) << text;
    StopAndExpectNothingLeft(agent);
}

TEST_F(BrokenHostTest, AComponentIsStoppedByASignal) {
    WriteComponents(R"({"name": "QorHips", "group": "collect-defense"})");
    Child agent = StartRunningAgent();
    const pid_t pid = ComponentPid("QorHips");
    ASSERT_GT(pid, 0);
    kill(pid, SIGSTOP);
    ExpectDoctorNames("component QorHips (process " + std::to_string(pid) + ") is stopped",
                      "kill -CONT " + std::to_string(pid));
    kill(pid, SIGCONT);
    StopAndExpectNothingLeft(agent);
}

TEST_F(BrokenHostTest, OneControllerIsOnNoHierarchyThatCanBeSeen) {
    // Version 1 for the CPU, and a version 2 hierarchy that has no controller: the memory controller is on neither.
    const std::string mounts =
        "umount " + MemoryRoot() + " && mkdir -p " + Dir() + "/two && mount -t cgroup2 none " + Dir() + "/two";
    Child agent = Spawn(InPrivateMounts(mounts, AgentWords()), Environment(), NextOutput());
    ExpectDoctorNames(
        "memory limit is asked for and not in force: controller memory belongs to a version 1 hierarchy that "
        "is not mounted here",
        "until that is changed");
    EXPECT_EQ(agent.Stop(), 0) << agent.Output();
    ExpectNothingLeft();
}

TEST_F(BrokenHostTest, AConfigurationFileBelongsToAnotherUser) {
    ASSERT_EQ(0, chown(Conf("resource_config").c_str(), kNobody, kNobody));
    Child agent = StartAgent();
    EXPECT_EQ(ExitCodeOf(agent.WaitEnd(kSettleSeconds)), 14) << agent.Output();
    EXPECT_NE(agent.Output().find("chown"), std::string::npos) << agent.Output();
    ExpectDoctorNames("resource_config is not used", "take that right away");
}

/// The commands of a document's blocks that are marked to be run.
std::vector<std::string> CommandsOf(const std::string& text) {
    std::vector<std::string> commands;
    std::istringstream lines(text);
    bool marked = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == "<!-- run -->") {
            marked = true;
        } else if (line.compare(0, 4, "    ") != 0 && !line.empty()) {
            marked = false;
        } else if (marked && !line.empty()) {
            commands.push_back(line.substr(4));
        }
    }
    return commands;
}

TEST_F(BrokenHostTest, EachCommandForOperatorsWorksOnAHealthyHost) {
    const std::vector<std::string> commands = CommandsOf(ReadText(ZEL_OPERATING_DOCUMENT));
    ASSERT_GE(commands.size(), 8U);
    WriteResource({{"max_cpu", "100"}, {"max_memory", "400"}, {"resource_limit_mode", "13"}});
    Child agent = StartRunningAgent();
    std::string text;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"check"}, text) == 0; })) << text;
    for (const std::string& command : commands) {
        std::istringstream split(command);
        std::vector<std::string> words;
        for (std::string word; split >> word;) words.push_back(word);
        ASSERT_EQ(words[0], "tervanectl") << command;
        words.erase(words.begin());
        // In its first second the main process may use more than its few percent, and then says so.
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole(words, text) == 0; })) << command << "\n" << text;
        EXPECT_FALSE(text.empty()) << command;
    }
    StopAndExpectNothingLeft(agent);
}

}  // namespace
}  // namespace agenttest
