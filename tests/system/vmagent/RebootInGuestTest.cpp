// A machine that goes down with kills behind it and comes up again with the agent's directory: two boots of one guest,
// one test in each, with the directory carried over in /carry.
#include <signal.h>
#include <sys/wait.h>

#include "GuestAgent.h"

using namespace guest;

namespace {

const char* const kRuntime = "multi_cgroup_oom_runtime";
const char* const kAfterRestart = "multi_cgroup_oom_after_restart";
const char* const kWatermark = "/tmp/app/conf/cgroup_oom_watermark.json";
const char* const kBootId = "/proc/sys/kernel/random/boot_id";

using RebootInGuest = AgentInGuest;

TEST_F(RebootInGuest, FirstBootLeavesKillsInTheFile) {
    WriteRoomyResource();
    WriteComponents(KillableComponent("Killable", "collect-defense"));
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    KillComponentOnce("Killable", "collect-defense");
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return !OomEvents(kRuntime).empty(); })) << "no event";
    EXPECT_TRUE(Poll(kSettleSeconds, [] { return CountOf(ReadText(kWatermark), "\"oom_kill\" : 1") == 2U; }))
        << ReadText(kWatermark);
    KillMain();  // the machine loses its power: nothing is taken down in order
    ASSERT_EQ(Command("cp -a /tmp/app /carry/ && rm -rf /carry/app/run 2>&1"), "");
    ASSERT_TRUE(WriteText("/carry/boot_id", ReadText(kBootId)));
}

TEST_F(RebootInGuest, SecondBootReportsNothingOfTheFirst) {
    ASSERT_NE(ReadText("/carry/boot_id"), "");
    ASSERT_NE(ReadText("/carry/boot_id"), ReadText(kBootId)) << "this is no second boot";
    ASSERT_EQ(Command("rm -rf /tmp/app && cp -a /carry/app /tmp/app 2>&1"), "");
    ASSERT_EQ(CountOf(ReadText(kWatermark), "\"oom_kill\" : 1"), 2U) << ReadText(kWatermark);
    ASSERT_EQ(OomEvents(kRuntime).size(), 1U);
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(KillsIn("collect-defense"), 0);
    SleepMs(20000);  // longer than the agent takes between two looks
    EXPECT_EQ(OomEvents(kRuntime).size(), 1U);
    EXPECT_EQ(OomEvents(kAfterRestart).size(), 0U);
    EXPECT_EQ(CountOf(ReadText(kWatermark), "\"oom_kill\" : 0"), CountOf(ReadText(kWatermark), "\"oom_kill\""))
        << "the file holds the counters of this boot: " << ReadText(kWatermark);

    // As many kills as the first boot had are seen for what they are.
    KillMain();
    const int status = WaitEnd(RunInLeaf("main/Tervane", {"/bin/vm-hog", "300"}), kSettleSeconds);
    ASSERT_TRUE(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kSettleSeconds, [] { return !OomEvents(kAfterRestart).empty(); })) << "no event";
    const Json::Value item =
        OomEvents(kAfterRestart)[0]["items"]["main|" + GroupDir("memory", "main") + (IsV2("memory") ? "|v2" : "|v1")];
    EXPECT_EQ(item["oom_kill_delta"].asInt64(), 1) << item.toStyledString();
}

}  // namespace
