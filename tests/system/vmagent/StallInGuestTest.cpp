// A component that its own limit stalls, as the kernel of version 2 tells of it and as the agent says it.
#include <sys/stat.h>
#include <unistd.h>

#include "GuestAgent.h"

using namespace guest;

namespace {

class StallInGuest : public AgentInGuest {
protected:
    Json::Value StallOf(const std::string& component, const std::string& resource) {
        const Json::Value status = Status();
        for (const Json::Value& entry : status["group_pressure"]["components"]) {
            if (entry["component"] == component && entry["resource"] == resource) return entry;
        }
        return Json::nullValue;
    }
    static std::string Console(const std::string& words) {
        return Command(std::string(TERVANECTL_PROGRAM) + " --app-dir " + kAppDir + " " + words + " 2>&1");
    }
    static bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
};

TEST_F(StallInGuest, WhoseLimitItIsAndWhatToDoIsToldOnce) {
    WriteRoomyResource();
    WriteComponents(
        "{\"name\": \"Greedy\", \"group\": \"collect-defense\", \"command\": [\"/bin/vm-burn\", \"600\"]},"
        "{\"name\": \"Quiet\", \"group\": \"guard\", \"command\": [\"/bin/sleep\", \"600\"]}");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    const auto stalls = [] {
        std::vector<Json::Value> out;
        for (const Json::Value& body : Messages("T_MSG_LIMIT_STALL")) {
            if (body["component"] == "Greedy") out.push_back(body);
        }
        return out;
    };
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !stalls().empty(); })) << Status()["group_pressure"].toStyledString();
    const Json::Value stall = stalls().front();
    EXPECT_EQ(stall["resource"].asString(), "cpu");
    EXPECT_EQ(stall["limit_group"].asString(), "collect-defense/Greedy") << stall.toStyledString();
    EXPECT_EQ(stall["limit_100times"].asInt(), 1140);
    EXPECT_GT(stall["held"].asInt(), 0);
    EXPECT_GT(stall["stalled_100times"].asInt(), 5000);

    const Json::Value shown = StallOf("Greedy", "cpu");
    EXPECT_TRUE(shown["watched"].asBool() || shown["lasts"].asBool()) << shown.toStyledString();
    EXPECT_TRUE(shown["by_limit"].asBool());
    EXPECT_GE(shown["stalls"].asInt(), 1);
    EXPECT_TRUE(StallOf("Greedy", "memory")["watched"].asBool());
    EXPECT_FALSE(StallOf("Quiet", "cpu")["by_limit"].asBool()) << "it sleeps; a slow guest alone may hold it up";
    EXPECT_TRUE(StallOf("Quiet", "cpu")["watched"].asBool()) << StallOf("Quiet", "cpu").toStyledString();
    const std::string doctor = Console("doctor");
    EXPECT_TRUE(Has(doctor, "component Greedy stalls: it waited ")) << doctor;
    EXPECT_TRUE(Has(doctor, "raise its share in cgroup_components, or groupMaxCpu")) << doctor;
    // The kernel is asked again after a minute, which a slow guest may have passed by now: the count is not held to 1.
    const std::string status = Console("status");
    EXPECT_TRUE(Has(status, "stalls  Greedy ") && Has(status, ", now: it waited ")) << status;
    const std::string series =
        "zel_component_stalls_total{component=\"Greedy\",group=\"collect-defense\",process=\"tervane\",resource="
        "\"cpu\"} ";
    const std::string metrics = Console("metrics");
    EXPECT_TRUE(Has(metrics, series) && !Has(metrics, series + "0\n")) << metrics;
    EXPECT_EQ(stalls().size(), 1U);
    EXPECT_EQ(LogCount("stall of Greedy: it waited"), 1);
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>()) << "an open trigger is in nobody's way";
}

TEST_F(StallInGuest, AGroupMadeAnewAfterAStallIsAskedToo) {
    WriteRoomyResource();
    WriteComponents("{\"name\": \"Greedy\", \"group\": \"collect-defense\", \"command\": [\"/bin/vm-burn\", \"600\"]}");
    // The trigger on its memory would tell that the group is gone.
    WriteOwned("agent.json", "{\"version\": 1, \"pressure\": {\"own_memory\": 0}}");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    const auto stalls = [] { return Messages("T_MSG_LIMIT_STALL").size(); };
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return stalls() != 0; })) << Status()["group_pressure"].toStyledString();
    const std::string leaf = GroupDir("cpu", "collect-defense/Greedy");
    const auto inode = [&] {
        struct stat found {};
        return stat(leaf.c_str(), &found) == 0 ? found.st_ino : ino_t{0};
    };
    const ino_t before = inode();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        for (const pid_t pid : ProcessesIn("cpu", "collect-defense/Greedy")) {
            WriteText(MountOf("cpu") + "/cgroup.procs", std::to_string(pid));
        }
        return rmdir(leaf.c_str()) == 0;
    }));
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return inode() != 0 && inode() != before; })) << "nobody made it anew";
    // After a stall the kernel is asked again in a minute, and the groups are looked for when it refuses.
    EXPECT_TRUE(Poll(2 * kSettleSeconds, [&] { return stalls() >= 2; })) << Status()["group_pressure"].toStyledString();
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

TEST_F(StallInGuest, FollowsGroupsThatAreMadeAnewAndLeavesNone) {
    WriteRoomyResource();
    WriteComponents("{\"name\": \"Quiet\", \"group\": \"guard\", \"command\": [\"/bin/sleep\", \"600\"]}");
    StartAgent();
    ASSERT_FALSE(HasFatalFailure());
    const auto watched = [&] { return StallOf("Quiet", "cpu")["watched"].asBool(); };
    ASSERT_TRUE(Poll(kSettleSeconds, watched));
    WriteOnline("{\"resourceLimitMode\": 5}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Status()["group_pressure"]["components"].empty(); }));
    EXPECT_TRUE(Poll(kSettleSeconds, [] { return FoldersIn(GroupDir("cpu", "guard")).empty(); }))
        << "the groups could not be removed";
    WriteOnline("{\"resourceLimitMode\": 13}");
    EXPECT_TRUE(Poll(kSettleSeconds, watched));
    WriteOwned("agent.json", "{\"version\": 1, \"pressure\": {\"own_cpu\": 0, \"own_memory\": 0}}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Status()["group_pressure"]["components"].empty(); }));
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

}  // namespace
