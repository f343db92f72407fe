// Kills by the kernel for want of memory in the agent's groups: seen while it runs, seen at the next start when they
// happened in between, reported once, and never invented.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "AgentFixture.h"

namespace agenttest {
namespace {

constexpr const char* kRuntime = "multi_cgroup_oom_runtime";
constexpr const char* kAfterRestart = "multi_cgroup_oom_after_restart";
constexpr const char* kMainLeaf = "/main/Tervane";
constexpr const char* kOtherLeaf = "/collect-defense/QorHips";

class OutOfMemoryTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        WriteResource({{"max_cpu", "100"}, {"max_memory", "200"}, {"resource_limit_mode", "13"}});
    }

    std::string Group(const std::string& below) const { return MemoryRoot() + "/" + Tree() + below; }

    /// Lets the kernel kill a process in a leaf for its memory, and nothing else: the hog is by far the largest there.
    void KillOneIn(const std::string& leaf) {
        const std::string control = Group(leaf) + "/memory.oom_control";
        const int64_t before = ReadField(control, "oom_kill");
        std::string output;
        ASSERT_EQ(RunToEnd({"sh", "-c", "echo $$ > " + Group(leaf) + "/cgroup.procs && exec tail /dev/zero"}, output),
                  1000 + SIGKILL)
            << output;
        ASSERT_EQ(ReadField(control, "oom_kill"), before + 1);
    }

    /// Any change of the online configuration makes the main process look at once instead of at its next round.
    void Nudge() { WriteOnline("{\"hashMode\": " + std::to_string(++m_nudges) + "}"); }

    bool WaitEvents(const std::string& type, size_t count) {
        Nudge();
        return Poll(kSettleSeconds, [&] { return EventBodies(type).size() >= count; });
    }

    std::string KeyOf(const std::string& group) const { return group + "|" + Group("/" + group) + "|v1"; }

    std::string ParentKey() const { return "parent|" + Group("") + "|v1"; }

    /// The lines about a kill at run time.
    int RuntimeLines() const { return LogCount("MonitorPri: cgroup v1 memory OOM group=["); }

    /// Ends the main process the hard way and waits until its components are gone.
    void KillAgent(Child& agent) {
        agent.Kill();
        ASSERT_TRUE(Poll(kStopSeconds, [this] { return AllProcesses().empty(); }));
    }

    int m_nudges = 0;
};

TEST_F(OutOfMemoryTest, HogIsReportedOnceThoughKilledAgain) {
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hog:128\"}");
    Child agent = StartRunningAgent();
    // It is killed, started again and killed again.
    ASSERT_TRUE(
        Poll(kSettleSeconds, [&] { return ReadField(Group(kOtherLeaf) + "/memory.oom_control", "oom_kill") >= 1; }));
    ASSERT_TRUE(WaitEvents(kRuntime, 1));
    ASSERT_TRUE(
        Poll(kSettleSeconds, [&] { return ReadField(Group(kOtherLeaf) + "/memory.oom_control", "oom_kill") >= 2; }));
    const int lines = RuntimeLines();
    Nudge();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RuntimeLines() > lines; })) << "the second kill is not logged";
    EXPECT_EQ(agent.Stop(), 0);

    std::vector<Json::Value> bodies = EventBodies(kRuntime);
    ASSERT_EQ(bodies.size(), 1U) << "a second report within 300 s";
    EXPECT_EQ(bodies[0]["process"].asString(), "tervane");
    const Json::Value& items = bodies[0]["items"];
    // The parent counts what happened anywhere below it.
    ASSERT_EQ(items.getMemberNames(), (std::vector<std::string>{KeyOf("collect-defense"), ParentKey()}));
    EXPECT_TRUE(items[ParentKey()]["parent"].asBool());
    EXPECT_EQ(items[ParentKey()]["path"].asString(), Group(""));
    EXPECT_EQ(items[ParentKey()]["oom_kill_delta"].asInt64(), 1);
    const Json::Value& item = items[KeyOf("collect-defense")];
    EXPECT_EQ(item["group"].asString(), "collect-defense");
    EXPECT_EQ(item["path"].asString(), Group("/collect-defense"));
    EXPECT_FALSE(item["v2"].asBool());
    EXPECT_FALSE(item["parent"].asBool());
    EXPECT_EQ(item["oom_kill"].asInt64(), 1);
    EXPECT_EQ(item["oom_kill_delta"].asInt64(), 1);
    EXPECT_TRUE(LogHas("ended: killed by signal 9 (Killed)"));
    ExpectNothingLeft();
}

TEST_F(OutOfMemoryTest, EachKillIsOneEventWithVictimAndItsLimit) {
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hog:128\"}");
    Child agent = StartRunningAgent();
    const std::string control = Group(kOtherLeaf) + "/memory.oom_control";
    const auto ends = [&] {
        std::vector<Json::Value> found;
        for (const Json::Value& event : Events()) {
            Json::Value body;
            if (event["type"].asString() == "T_MSG_COMPONENT_END" && ParseJson(event["body"].asString(), body)) {
                found.push_back(body);
            }
        }
        return found;
    };
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ends().size() >= 2; })) << Log();
    // The view agrees with the events: what died in a leaf died in its group and in the agent.
    Json::Value status;
    int64_t kernel = -1;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        kernel = ReadField(control, "oom_kill");
        status = Status();
        return ReadField(control, "oom_kill") == kernel && !status["tree"]["nodes"].empty();
    }));
    int seen = 0;
    for (const Json::Value& node : status["tree"]["nodes"]) {
        const std::string name = node["name"].asString();
        if (name != Tree() && name != "collect-defense" && name != "QorHips") continue;
        EXPECT_EQ(node["memory"]["oom_kills"].asInt64(), kernel) << name;
        ++seen;
    }
    EXPECT_EQ(seen, 3);
    EXPECT_EQ(agent.Stop(), 0);
    const std::vector<Json::Value> all = ends();
    EXPECT_GE(static_cast<int64_t>(all.size()), kernel);
    for (const Json::Value& end : all) {
        EXPECT_EQ(end["oom"]["victim"].asString(), "QorHips");
        EXPECT_EQ(end["oom"]["group"].asString(), "collect-defense");
        EXPECT_EQ(end["oom"]["limit_of"].asString(), "component");
        EXPECT_EQ(end["oom"]["path"].asString(), Group(kOtherLeaf));
        EXPECT_EQ(end["oom"]["limit_kb"].asInt64(), 30720) << "as the table says for it";
        EXPECT_NE(end["reason"].asString().find("out of memory at its own limit of 30 MB"), std::string::npos);
    }
    ExpectNothingLeft();
}

TEST_F(OutOfMemoryTest, KillInMainGroupIsReportedNotAgainOnRestart) {
    Child agent = StartRunningAgent();
    KillOneIn(kMainLeaf);
    ASSERT_TRUE(agent.Running());
    ASSERT_TRUE(WaitEvents(kRuntime, 1));
    const Json::Value item = EventBodies(kRuntime)[0]["items"][KeyOf("main")];
    EXPECT_EQ(item["oom_kill"].asInt64(), 1);
    EXPECT_EQ(item["oom_kill_delta"].asInt64(), 1);
    KillOneIn(kMainLeaf);
    const int lines = RuntimeLines();
    Nudge();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return RuntimeLines() > lines; }));
    EXPECT_TRUE(LogHas("oomKill=2(+1)"));
    // What the next start compares with is written after the look, so wait for it.
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        return ReadText(Conf("cgroup_oom_watermark.json")).find("\"oom_kill\" : 2") != std::string::npos;
    }));
    KillAgent(agent);
    Child next = StartRunningAgent();
    EXPECT_EQ(next.Stop(), 0);
    EXPECT_EQ(EventBodies(kRuntime).size(), 1U);
    EXPECT_EQ(EventBodies(kAfterRestart).size(), 0U) << "reported again";
    ExpectNothingLeft();
}

TEST_F(OutOfMemoryTest, KillsWhileDownAreReportedAtNextStartOnly) {
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Exists(Conf("cgroup_oom_watermark.json")); }));
    KillAgent(agent);
    KillOneIn(kMainLeaf);
    KillOneIn(kMainLeaf);
    KillOneIn(kOtherLeaf);

    agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return EventBodies(kAfterRestart).size() == 1; })) << Log();
    const Json::Value items = EventBodies(kAfterRestart)[0]["items"];
    EXPECT_EQ(items.getMemberNames(), (std::vector<std::string>{KeyOf("collect-defense"), KeyOf("main"), ParentKey()}));
    EXPECT_EQ(items[ParentKey()]["oom_kill_delta"].asInt64(), 3);
    EXPECT_EQ(items[KeyOf("main")]["oom_kill"].asInt64(), 2);
    EXPECT_EQ(items[KeyOf("main")]["oom_kill_delta"].asInt64(), 2);
    EXPECT_EQ(items[KeyOf("main")]["path"].asString(), Group("/main"));
    EXPECT_EQ(items[KeyOf("collect-defense")]["oom_kill_delta"].asInt64(), 1);
    EXPECT_TRUE(LogHas("MonitorPri: detected cgroup memory OOM after restart group=[main] parent=0"));
    KillAgent(agent);

    agent = StartRunningAgent();
    Nudge();
    EXPECT_TRUE(WaitLog("set hash mode " + std::to_string(m_nudges)));
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_EQ(EventBodies(kAfterRestart).size(), 1U);
    EXPECT_EQ(EventBodies(kRuntime).size(), 0U) << "old kills taken for new ones";
    ExpectNothingLeft();
}

TEST_F(OutOfMemoryTest, GroupThatWasMadeAgainGivesNoFalseReport) {
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Exists(Conf("cgroup_oom_watermark.json")); }));
    KillAgent(agent);
    KillOneIn(kMainLeaf);
    agent = StartRunningAgent();  // reports, and remembers one kill
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return EventBodies(kAfterRestart).size() == 1; }));
    EXPECT_EQ(agent.Stop(), 0);  // the groups are gone, and the counters with them
    ASSERT_TRUE(AllGroups().empty());
    agent = StartRunningAgent();
    EXPECT_EQ(ReadField(Group(kMainLeaf) + "/memory.oom_control", "oom_kill"), 0);
    Nudge();
    EXPECT_TRUE(WaitLog("set hash mode " + std::to_string(m_nudges)));
    KillAgent(agent);
    // The counter of the new group starts at nothing: one kill is one again, and no more.
    KillOneIn(kMainLeaf);
    agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return EventBodies(kAfterRestart).size() == 2; }));
    EXPECT_EQ(EventBodies(kAfterRestart)[1]["items"][KeyOf("main")]["oom_kill_delta"].asInt64(), 1);
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_EQ(EventBodies(kRuntime).size(), 0U);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
