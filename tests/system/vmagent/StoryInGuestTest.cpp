// The narrated demonstration on version 2: what it tells is what the guest's kernel and the delivered events say.
#include <regex>

#include "GuestAgent.h"

using namespace guest;

namespace {

constexpr int kStorySeconds = 240;
constexpr char kOutput[] = "/tmp/story.out";
constexpr char kGreedy[] = "collect-defense/QorNet";
constexpr char kHungry[] = "collect-defense/QorWebGuard";

class StoryInGuest : public AgentInGuest {
protected:
    void TearDown() override {
        if (HasFailure()) printf("--- story\n%s\n", ReadText(kOutput).c_str());
        AgentInGuest::TearDown();
    }
    static std::string Story() { return std::regex_replace(ReadText(kOutput), std::regex("\\s+"), " "); }
    static bool WaitStory(const std::string& part) {
        const auto has = [](const std::string& words) { return Story().find(words) != std::string::npos; };
        Poll(kStorySeconds, [&] { return has(part) || has("tervanedemo: "); });
        return has(part);
    }
    static std::string Told(const std::string& expression) {
        std::smatch found;
        const std::string story = Story();
        return std::regex_search(story, found, std::regex(expression)) ? found[1].str() : "not told: " + expression;
    }
};

}  // namespace

TEST_F(StoryInGuest, TellsWhatTheKernelDid) {
    // The shipped table of a budget that an emulated processor can do with: 57 % of two, and 85 % in the end.
    std::string resource = ReadText("/job/conf/resource_config");
    resource = std::regex_replace(resource, std::regex("\nmax_cpu = \\d+"), "\nmax_cpu = 60");
    resource = std::regex_replace(resource, std::regex("\ncpu_all = \\d+"), "\ncpu_all = 1");
    ASSERT_TRUE(WriteText("/tmp/samples/conf/resource_config", resource));
    ASSERT_TRUE(WriteText("/tmp/samples/conf/online_config.json", ReadText("/job/conf/online_config.json")));
    // It configures a directory that is nobody's yet.
    Command(std::string("cd ") + kAppDir + "/conf && rm -f resource_config online_config.json components.json");
    Command(std::string(TERVANEDEMO_PROGRAM) + " --samples /tmp/samples --new-budget 90 --app-dir " + kAppDir + " >" +
            kOutput + " 2>&1 &");
    ASSERT_TRUE(WaitStory("2. A polite worker"));
    EXPECT_EQ("10", Told("(\\d+) control groups \\(v2\\)"));
    EXPECT_EQ(57 * 2 * 60 / 2, CpuLimit(kGreedy));
    EXPECT_EQ(57 * 2 * 100, CpuLimit(""));
    ASSERT_TRUE(WaitStory("The whole story:"));
    EXPECT_GE(KillsIn(kHungry), 1);
    const std::vector<Json::Value> ends = Messages("T_MSG_COMPONENT_END");
    ASSERT_FALSE(ends.empty());
    EXPECT_EQ(std::to_string(ends[0]["pid"].asInt()), Told("QorWebGuard: process (\\d+) ended: killed by signal 9"));
    ASSERT_TRUE(WaitStory("5. A new limit"));
    EXPECT_EQ(GroupDir("cpu", kGreedy) + "/cpu.max", Told("echo max > (\\S+)"));
    const std::vector<Json::Value> drifts = Messages("T_MSG_LIMIT_DRIFT");
    ASSERT_EQ(1u, drifts.size());
    EXPECT_TRUE(drifts[0]["repaired"].asBool());
    ASSERT_TRUE(WaitStory("In force:"));
    EXPECT_EQ(85 * 2 * 60 / 2, CpuLimit(kGreedy));
    EXPECT_EQ(85 * 2 * 100, CpuLimit(""));
    EXPECT_EQ("51 % instead of 34.20 %", Told("QorNet ([0-9.]+ % instead of [0-9.]+ %)"));
    ASSERT_TRUE(WaitStory("nothing is left"));
    EXPECT_EQ("1", Told("(\\d+) kill for want of memory explained, 1 change by others put right"));
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}
