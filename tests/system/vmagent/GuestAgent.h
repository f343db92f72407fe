// The whole agent inside a virtual machine: its directory, its processes, and its control groups as the guest's kernel
// shows them. Times are only bounds of polls, since an emulated machine is slow.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/Waiting.h"

namespace guest {

constexpr int kStartSeconds = 120;
constexpr int kSettleSeconds = 90;  ///< the agent looks for kills every 15 rounds of about a second
constexpr const char* kAppDir = "/tmp/app";

using support::CountOf;
using support::Exists;
using support::FoldersIn;
using support::Poll;
using support::ReadText;
using support::ReplaceText;
using support::SleepMs;
using support::WriteText;

/// The number behind `key` in a file of "key value" lines; -1 when it is not there.
int64_t Field(const std::string& path, const std::string& key);
std::string Command(const std::string& words);  ///< output of a shell command, for what a failed test prints

/// The group, "" or "/..." in every hierarchy, below which the agent's are expected from now on; at first the root.
void SetPlace(const std::string& group);
/// The mount of the hierarchy that serves a controller ("cpu" or "memory") in this guest.
std::string MountOf(const std::string& controller);
/// The directory of one group of the agent's in that hierarchy.
std::string GroupDir(const std::string& controller, const std::string& below = "");
/// Whether this guest's controller is version 2.
bool IsV2(const std::string& controller);
/// What the kernel holds: hundredths of a percent of one CPU, and KB; -1 for no limit, -2 when there is no such group
/// or the controller is not there.
int64_t CpuLimit(const std::string& below);
int64_t MemoryLimit(const std::string& below);
/// Kills that the kernel counted in this very group and below it.
int64_t KillsIn(const std::string& below);
std::vector<pid_t> ProcessesIn(const std::string& controller, const std::string& below);
/// Every group of the agent in every hierarchy.
std::vector<std::string> AllGroups();

/// Puts a new process into a leaf in every hierarchy, then runs words[0] there.
pid_t RunInLeaf(const std::string& below, const std::vector<std::string>& words);
/// Returns: its status as waitpid gives it, -1 when it did not end within the seconds.
int WaitEnd(pid_t pid, int seconds);

class AgentInGuest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// conf/resource_config: unified mode with the built-in tables on top of these keys.
    void WriteResource(const std::map<std::string, std::string>& keys);
    /// The same with groups that are wide enough for a main process under emulation.
    void WriteRoomyResource(const std::map<std::string, std::string>& more = {});
    void WriteOnline(const std::string& text);
    void WriteComponents(const std::string& list);
    /// A file of conf/ that is the agent's own, replaced as an editor does.
    void WriteOwned(const std::string& name, const std::string& text);

    void StartAgent(const std::vector<std::string>& more = {});
    /// SIGTERM and the wait. Returns: its exit code; -1 when it did not end.
    int StopAgent();
    /// SIGKILL of the main process alone, and the wait until its components have followed it.
    void KillMain();
    pid_t MainPid() const { return m_pid; }

    Json::Value Status();
    Json::Value ComponentOf(const std::string& name);
    pid_t PidOf(const std::string& name);
    std::string Log() const { return ReadText(std::string(kAppDir) + "/log/tervane.log"); }
    int LogCount(const std::string& part) const { return static_cast<int>(CountOf(Log(), part)); }
    bool WaitLog(const std::string& part, int count = 1);
    /// The bodies of all messages of this kind that were delivered, in order, each id once.
    static std::vector<Json::Value> Messages(const std::string& messageType);
    /// Those out-of-memory events that have this "type".
    static std::vector<Json::Value> OomEvents(const std::string& type);

    /// A component that is killed each time the file /tmp/kill exists: it takes more memory than its leaf has.
    static std::string KillableComponent(const std::string& name, const std::string& group);
    /// Lets it be killed once more and waits until the kernel has counted it.
    void KillComponentOnce(const std::string& name, const std::string& group);

    std::set<std::string> m_startGroups;  ///< where the agent is started; none: where the test is
    uid_t m_owner =
        0;  ///< not 0: the agent runs in a user namespace whose root this user is, and the files are its own
    std::string m_console = TERVANECTL_PROGRAM;  ///< words that run the console as whom the agent listens to
    pid_t m_pid = -1;
    int m_starts = 0;
    std::string m_lastOutput;
};

}  // namespace guest
