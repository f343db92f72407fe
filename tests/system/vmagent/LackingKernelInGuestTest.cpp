// Kernels that were booted without something: the agent runs, what can be limited is limited, and it says what is not.
#include "GuestAgent.h"

using namespace guest;

namespace {

using NoMemoryControllerInGuest = AgentInGuest;
using NoPressureFiguresInGuest = AgentInGuest;

TEST_F(NoMemoryControllerInGuest, CpuIsLimitedAndMissingMemoryTold) {
    WriteRoomyResource();
    WriteComponents(
        "{\"name\": \"Greedy\", \"group\": \"collect-defense\"},"
        "{\"name\": \"Quiet\", \"group\": \"guard\"}");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kStartSeconds, [] {
        return ProcessesIn("cpu", "collect-defense/Greedy").size() == 1 &&
               ProcessesIn("cpu", "guard/Quiet").size() == 1;
    }));
    EXPECT_EQ(ProcessesIn("cpu", "main/Tervane"), std::vector<pid_t>{MainPid()});
    EXPECT_EQ(CpuLimit("collect-defense/Greedy"), 1140);
    EXPECT_EQ(MemoryLimit("collect-defense/Greedy"), -2);

    Json::Value status = Status();
    EXPECT_TRUE(status["unified"].asBool()) << status["mode_reason"].asString();
    EXPECT_TRUE(status["cpu"]["limited"].asBool());
    EXPECT_FALSE(status["memory"]["limited"].asBool());
    // The reason and what to do about it, in the console's answer and in the log.
    const std::string said = status["memory"]["reason"].asString() + "; " + status["memory"]["advice"].asString();
    EXPECT_NE(said.find("cgroup_disable"), std::string::npos) << said;
    EXPECT_EQ(LogCount("memory limit is not in force: " + said), 1) << said;
    EXPECT_EQ(LogCount("CPU limit is not in force"), 0);
    // It goes on like this: looks for kills find nothing to look at, and nothing is told again and again.
    SleepMs(20000);
    EXPECT_EQ(LogCount("poll multi-cgroup memory OOM events failed"), 0);
    EXPECT_EQ(ComponentOf("Greedy")["restarts"].asInt(), 0);
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

TEST_F(NoPressureFiguresInGuest, RunsAndConsoleSaysWhatIsMissing) {
    ASSERT_FALSE(Exists("/proc/pressure/memory"));
    WriteRoomyResource();
    WriteOnline("{\"osAbnormalSwitch\": 1, \"availableMemThreshold\": 4000, \"cpuAll\": 1}");
    WriteComponents("{\"name\": \"Quiet\", \"group\": \"guard\"}");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kStartSeconds, [] { return ProcessesIn("memory", "guard/Quiet").size() == 1; }));
    Json::Value status = Status();
    EXPECT_TRUE(status["unified"].asBool());
    EXPECT_TRUE(status["cpu"]["limited"].asBool());
    EXPECT_TRUE(status["memory"]["limited"].asBool());
    EXPECT_EQ(LogCount("limit is not in force"), 0);
    const std::string doctor = Command(std::string(TERVANECTL_PROGRAM) + " --app-dir " + kAppDir + " doctor 2>&1");
    EXPECT_NE(doctor.find("(PSI): absent"), std::string::npos) << doctor;
    EXPECT_EQ(LogCount("stalls of the components in their own groups are not told: the kernel has no pressure"), 1);
    EXPECT_TRUE(status["group_pressure"]["components"].empty());
    // Short memory is told all the same: it is measured, not taken from the pressure figures.
    EXPECT_TRUE(Poll(kSettleSeconds, [] { return !Messages("T_MSG_OS_ABNORMAL").empty(); }));
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

}  // namespace
