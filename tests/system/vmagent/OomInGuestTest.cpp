// Kills for want of memory inside the agent's groups, from the kernel's counters to the delivered event.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>

#include "GuestAgent.h"

using namespace guest;

namespace {

const char* const kRuntime = "multi_cgroup_oom_runtime";
const char* const kAfterRestart = "multi_cgroup_oom_after_restart";

class OomInGuest : public AgentInGuest {
protected:
    static std::string Key(const std::string& group) {
        return (group.empty() ? std::string("parent") : group) + "|" + GroupDir("memory", group) +
               (IsV2("memory") ? "|v2" : "|v1");
    }
    static std::string PolledLine() {
        return IsV2("memory") ? "MonitorPri: cgroup v2 memory OOM" : "MonitorPri: cgroup v1 memory OOM";
    }

    /// The item of a group ("": the parent) with its place, and with the counters that a kill by a limit leaves.
    static void ExpectItem(const Json::Value& event, const std::string& group, int64_t kills, int64_t killsRise) {
        ASSERT_TRUE(event["items"].isMember(Key(group))) << event.toStyledString();
        const Json::Value& item = event["items"][Key(group)];
        EXPECT_EQ(item["group"].asString(), group.empty() ? "zel.agent" : group);
        EXPECT_EQ(item["path"].asString(), GroupDir("memory", group));
        EXPECT_EQ(item["parent"].asBool(), group.empty());
        EXPECT_EQ(item["v2"].asBool(), IsV2("memory"));
        EXPECT_EQ(item["oom_kill"].asInt64(), kills) << event.toStyledString();
        EXPECT_EQ(item["oom_kill_delta"].asInt64(), killsRise) << event.toStyledString();
        EXPECT_EQ(item["oom_group_kill"].asInt64(), 0);
        EXPECT_EQ(item["oom_group_kill_delta"].asInt64(), 0);
    }

    void StartWithKillable() {
        WriteRoomyResource();
        WriteComponents(KillableComponent("Killable", "collect-defense"));
        StartAgent();
    }
};

TEST_F(OomInGuest, KilledComponentIsReportedOnceWithPathAndCounters) {
    StartWithKillable();
    ASSERT_FALSE(HasFatalFailure());
    KillComponentOnce("Killable", "collect-defense");
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return !OomEvents(kRuntime).empty(); })) << "no event";
    Json::Value event = OomEvents(kRuntime)[0];
    EXPECT_EQ(event["process"].asString(), "tervane");
    EXPECT_NEAR(static_cast<double>(event["detect_time"].asInt64()), static_cast<double>(time(nullptr)), 120);
    EXPECT_EQ(event["items"].size(), 2U) << event.toStyledString();
    ExpectItem(event, "collect-defense", 1, 1);
    ExpectItem(event, "", 1, 1);
    if (IsV2("memory")) {
        // Whose limit it was: the component's, which its group counts with it, and not the parent's. The kernel may
        // find no memory more than once before the victim is gone.
        EXPECT_GE(event["items"][Key("collect-defense")]["oom_delta"].asInt64(), 1);
        EXPECT_EQ(event["items"][Key("")]["oom_delta"].asInt64(), 0);
    }
    EXPECT_GE(ComponentOf("Killable")["restarts"].asInt(), 1);

    // The second one within 300 seconds stands in the log and is not sent.
    const int lines = LogCount(PolledLine());
    EXPECT_EQ(lines, 2);
    KillComponentOnce("Killable", "collect-defense");
    EXPECT_TRUE(WaitLog(PolledLine(), lines + 2));
    EXPECT_EQ(OomEvents(kRuntime).size(), 1U);
    // The line comes before the counters are on disk, and this guest is slow.
    EXPECT_TRUE(Poll(kSettleSeconds, [] {
        const std::string stored = ReadText(std::string(kAppDir) + "/conf/cgroup_oom_watermark.json");
        return stored.find("\"oom_kill\" : 2") != std::string::npos;
    }));

    // Neither a main process that died nor a clean restart tells it again.
    KillMain();
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kStartSeconds, [] { return !ProcessesIn("memory", "collect-defense/Killable").empty(); }));
    EXPECT_EQ(KillsIn("collect-defense"), 2) << "the adopted group keeps its counters";
    SleepMs(20000);  // longer than the agent takes between two looks
    EXPECT_EQ(StopAgent(), 0);
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(OomEvents(kAfterRestart).size(), 0U);
    EXPECT_EQ(OomEvents(kRuntime).size(), 1U);
    EXPECT_EQ(LogCount("detected cgroup memory OOM after restart"), 0);
}

TEST_F(OomInGuest, KillWhileMainProcessIsDownIsReportedAtNextStart) {
    StartWithKillable();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Exists(std::string(kAppDir) + "/conf/cgroup_oom_watermark.json"));
    KillMain();
    // Two at the limit of the main process's own leaf, and one at the parent's.
    for (int i = 0; i < 2; ++i) {
        const int status = WaitEnd(RunInLeaf("main/Tervane", {"/bin/vm-hog", "300"}), kSettleSeconds);
        ASSERT_TRUE(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }
    const std::string limit = IsV2("memory") ? "/memory.max" : "/memory.limit_in_bytes";
    ASSERT_TRUE(WriteText(GroupDir("memory") + limit, "16777216"));
    const int status = WaitEnd(RunInLeaf("main/Tervane", {"/bin/vm-hog", "300"}), kSettleSeconds);
    ASSERT_TRUE(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    ASSERT_EQ(KillsIn("main"), 3);

    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return !OomEvents(kAfterRestart).empty(); })) << "no event";
    Json::Value event = OomEvents(kAfterRestart)[0];
    EXPECT_EQ(event["items"].size(), 2U) << event.toStyledString();
    ExpectItem(event, "main", 3, 3);
    ExpectItem(event, "", 3, 3);
    if (IsV2("memory")) {
        EXPECT_GE(event["items"][Key("main")]["oom_delta"].asInt64(), 2);
        EXPECT_GE(event["items"][Key("")]["oom_delta"].asInt64(), 1) << "the parent's limit was hit";
    }
    KillMain();
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(OomEvents(kAfterRestart).size(), 1U) << "told twice";
    EXPECT_EQ(OomEvents(kRuntime).size(), 0U);
}

TEST_F(OomInGuest, GroupsMadeAnewAreNoNews) {
    StartWithKillable();
    ASSERT_FALSE(HasFatalFailure());
    KillComponentOnce("Killable", "collect-defense");
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return !OomEvents(kRuntime).empty(); })) << "no event";
    KillMain();
    for (const std::string& group : AllGroups()) rmdir(group.c_str());
    ASSERT_EQ(AllGroups(), std::vector<std::string>());
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(KillsIn("collect-defense"), 0);
    // What happens from here on is counted from zero and still told: the file follows downwards too.
    KillMain();
    const int status = WaitEnd(RunInLeaf("main/Tervane", {"/bin/vm-hog", "300"}), kSettleSeconds);
    ASSERT_TRUE(status != -1 && WIFSIGNALED(status)) << status;
    EXPECT_EQ(OomEvents(kAfterRestart).size(), 0U);
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return !OomEvents(kAfterRestart).empty(); }));
    ExpectItem(OomEvents(kAfterRestart)[0], "main", 1, 1);
    EXPECT_EQ(OomEvents(kRuntime).size(), 1U);
}

}  // namespace
