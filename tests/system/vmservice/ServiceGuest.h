// The agent as an installed service of a guest's own service manager: the unit that the installation brings, its
// directory, what the manager says of it, and its control groups below the unit's.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/Waiting.h"

namespace guest {

using support::Exists;
using support::Poll;
using support::ReadText;
using support::ReadValue;
using support::WriteText;

constexpr int kPatienceSeconds = 120;  ///< for whatever the agent or the manager does within seconds elsewhere
constexpr const char* kServiceDir = "/var/lib/tervane";
constexpr const char* kUnit = "tervane.service";

/// Output of a shell command without the line ends at its end.
std::string Shell(const std::string& words);
/// Returns: the layout of this boot, "v1", "v2" or "hybrid".
std::string Layout();
bool HasVersion2();
/// A group below the mount of a controller ("cpu" or "memory"); the path begins with '/'.
std::string ControllerDir(const std::string& controller, const std::string& path);
std::string UnitDir(const std::string& controller, const std::string& below = "");
/// A group of the agent's tree in its unit.
std::string TreeDir(const std::string& controller, const std::string& below = "");
/// What the kernel holds for a group: quota in microseconds per 100 ms, bytes; -1 for none, -2 when it is not there.
int64_t QuotaOf(const std::string& group);
int64_t BytesOf(const std::string& group);
std::vector<pid_t> MembersOf(const std::string& group);
/// Every group of the agent, wherever in the hierarchies.
std::vector<std::string> GroupsOfAgent();

/// One scenario; begins without the agent and ends without it.
class UnderServiceManager : public testing::Test {
protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    /// Lines that are added to the [Service] section of the unit.
    static void AddToUnit(const std::string& lines);
    static void WriteConfiguration();

    /// Starts the unit and waits until the agent runs.
    void Start();
    /// Waits for one more start than those already waited for.
    void AwaitStart();
    /// Waits until both components are in their leaves and limits are in force.
    static bool IsInForce();
    static pid_t MainPid();
    static std::string Property(const std::string& name);
    static std::string Console(const std::string& words, int& code);
    static Json::Value Status();
    static std::string Log();
    static int LogCount(const std::string& part);
    /// Bodies of the messages of this kind that were delivered.
    static std::vector<Json::Value> Messages(const std::string& kind);
    /// A hog in a leaf of the agent that the kernel is told to spare, until the kernel has ended `victim` there.
    static void EatIn(const std::string& leaf, pid_t victim);

    int m_starts = 0;
};

}  // namespace guest
