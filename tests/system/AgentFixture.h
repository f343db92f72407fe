// Fixture of the whole-agent tests: a scratch application directory, the real programs started on it, what the kernel
// shows of them, and nothing left behind. Times are only bounds of polls: a busy machine makes a test slower, not red.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/Waiting.h"

namespace agenttest {

constexpr int kStartSeconds = 60;  ///< bound for a start on a machine that is busy with other things
constexpr int kStopSeconds = 60;
constexpr int kSettleSeconds = 60;  ///< bound for anything else that the agent does by itself within seconds

using support::Exists;
using support::FoldersIn;
using support::Poll;
using support::ReadText;
using support::ReplaceText;
using support::SleepMs;
using support::WriteText;

/// A number in a control file; -2 when the file cannot be read.
int64_t ReadNumber(const std::string& path);
/// The number behind `key` in a file of "key value" lines; -2 when it is not there.
int64_t ReadField(const std::string& path, const std::string& key);
double SecondsNow();
/// Directories directly below `path` whose name begins with `prefix`, sorted.
std::vector<std::string> ChildrenOf(const std::string& path, const std::string& prefix = "");
/// The processes of one group.
std::vector<pid_t> ProcessesIn(const std::string& group);
/// CPU time of a whole process by the kernel's own clock, in seconds; negative when it is gone.
double CpuSecondsOf(pid_t pid);
/// Threads of a process; 0 when it is gone.
int ThreadsOf(pid_t pid);

/// One started program, ended with this object.
class Child {
public:
    Child() = default;
    ~Child();
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const { return m_pid; }
    bool Running();
    void Signal(int number) const;
    /// Waits for its end. Returns: status as waitpid gives it, -1 when it did not end in time.
    int WaitEnd(int seconds);
    /// SIGTERM and the wait. Returns: exit code; 1000 + signal; -1 when it did not end.
    int Stop(int seconds = kStopSeconds);
    /// SIGKILL and the wait.
    void Kill();
    /// What it wrote to stdout and stderr.
    std::string Output() const { return ReadText(m_outputPath); }

private:
    friend Child Spawn(const std::vector<std::string>&, const std::map<std::string, std::string>&, const std::string&,
                       const std::function<void()>&);
    pid_t m_pid = -1;
    int m_status = -1;
    std::string m_outputPath;
};

/// Starts a program with the given variables added to the environment; an empty value removes the variable. `before`
/// runs in the child, right before its exec.
Child Spawn(const std::vector<std::string>& words, const std::map<std::string, std::string>& environment,
            const std::string& outputPath, const std::function<void()>& before = {});
int ExitCodeOf(int status);

/// Returns: whether the text is JSON; the value is left alone otherwise.
bool ParseJson(const std::string& text, Json::Value& value);

class AgentTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Skips the test unless it runs as root on a host with version 1 cpu and memory controllers.
    /// Returns: the reason of the skip, empty when there is none.
    std::string WhyNoV1();

    // --- the application directory ---
    const std::string& Dir() const { return m_dir; }
    const std::string& Tree() const { return m_tree; }  ///< name of the agent's parent group in this test
    std::string Conf(const std::string& name) const { return m_dir + "/conf/" + name; }
    /// Writes conf/resource_config: a sample with the given keys replaced or added.
    void WriteResource(const std::map<std::string, std::string>& keys);
    /// Writes a configuration file the way an administrator's tool does: beside it, then renamed.
    void WriteConf(const std::string& name, const std::string& text);
    void WriteOnline(const std::string& text) { WriteConf("online_config.json", text); }
    /// The list of components; an empty one starts none.
    void WriteComponents(const std::string& list) {
        WriteConf("components.json", "{\"version\": 1, \"components\": [" + list + "]}\n");
    }

    // --- programs ---
    std::vector<std::string> AgentWords(const std::vector<std::string>& arguments = {}) const;
    std::map<std::string, std::string> Environment() const;
    Child StartAgent(const std::vector<std::string>& arguments = {});
    /// Starts it and waits until it says that it runs. Fails the test when it does not.
    Child StartRunningAgent(const std::vector<std::string>& arguments = {});
    /// Starts `words` and, when they end by themselves, gives exit code and output.
    int RunToEnd(const std::vector<std::string>& words, std::string& output, int seconds = kStopSeconds);
    std::string NextOutput();
    /// Asks the console. Returns: its exit code.
    int RunConsole(const std::vector<std::string>& request, std::string& output, const std::string& name = "tervane");
    /// The console's answer to a request; empty when it failed.
    std::string Ask(const std::vector<std::string>& request, const std::string& name = "tervane");
    Json::Value Status(const std::string& name = "tervane");
    /// Processes of a component or of the main process, by the console.
    pid_t ComponentPid(const std::string& name);

    // --- what it wrote ---
    std::string Log(const std::string& name = "tervane") const;
    bool LogHas(const std::string& text, const std::string& name = "tervane") const;
    int LogCount(const std::string& text, const std::string& name = "tervane") const;
    bool WaitLog(const std::string& text, int count = 1, const std::string& name = "tervane");
    /// Every event that was delivered to the JSON-lines file so far, parsed.
    std::vector<Json::Value> Events(const std::string& process = "tervane") const;
    /// Those whose body (itself JSON) has this "type".
    std::vector<Json::Value> EventBodies(const std::string& type) const;

    // --- what the kernel shows ---
    const std::string& CpuRoot() const { return m_cpuRoot; }
    const std::string& MemoryRoot() const { return m_memoryRoot; }
    /// The legacy group of this test's agent in one hierarchy; empty when there is none.
    std::string LegacyGroup(const std::string& root) const;
    /// Every group of this test's agent.
    std::vector<std::string> AllGroups() const;
    /// Every process that works on this test's directory.
    std::vector<pid_t> AllProcesses() const;
    /// Fails the test when a group or a process of it is left.
    void ExpectNothingLeft();

    /// A private view of the mounts for the programs that the test starts from here on is made by running them below
    /// `unshare --mount`; the words before the program.
    static std::vector<std::string> InPrivateMounts(const std::string& shellCommands,
                                                    const std::vector<std::string>& words);

    const support::TempDir m_temp;
    const std::string m_dir = m_temp.Path();
    std::string m_tree;
    std::string m_cpuRoot;
    std::string m_memoryRoot;
    int m_outputs = 0;
};

/// As above, skipped where the machine has no version 1 controllers or the test is not root.
class AgentOnV1Test : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        std::string reason = WhyNoV1();
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
};

}  // namespace agenttest
