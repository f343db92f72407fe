#include "ComponentsConfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Files.h"

using namespace agent;

TEST(ComponentsConfigTest, AMissingFileGivesTheBuiltInComponents) {
    const auto components = LoadComponents("/nowhere/components.json");
    ASSERT_TRUE(components);
    ASSERT_EQ(5u, components->size());
    EXPECT_EQ("TervaneMonitor", (*components)[0].name);
    EXPECT_EQ("guard", (*components)[1].group);
}

// The commands in it are run by this process.
TEST(ComponentsConfigTest, AFileThatOthersMayHaveWrittenIsRefused) {
    const support::TempDir dir;
    const std::string path = dir / "components.json";
    ASSERT_TRUE(support::WriteText(path, "{\"components\":[]}"));
    EXPECT_TRUE(LoadComponents(path));
    ASSERT_EQ(0, chmod(path.c_str(), 0646));
    EXPECT_NE(std::string::npos, LoadComponents(path).GetError().Text().find("writable by everybody"));
    ASSERT_EQ(0, chmod(path.c_str(), 0640));
    ASSERT_EQ(0, symlink("components.json", (dir / "link").c_str()));
    EXPECT_NE(std::string::npos, LoadComponents(dir / "link").GetError().Text().find("a symbolic link"));
    EXPECT_FALSE(LoadComponents(dir.Path()));
    if (geteuid() != 0) return;
    ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));
    EXPECT_NE(std::string::npos, LoadComponents(path).GetError().Text().find("owned by user 65534"));
}

TEST(ComponentsConfigTest, ReadsLoadsAndCommands) {
    const auto components = ParseComponents(R"({"version":1,"components":[{"name":"A","group":"main","load":"greedy:2"},
                          {"name":"B","command":["/bin/sleep","60"]}]})");
    ASSERT_TRUE(components) << components.GetError().Text();
    ASSERT_EQ(2u, components->size());
    EXPECT_EQ("greedy:2", FormatLoadProfile((*components)[0].load));
    EXPECT_EQ((std::vector<std::string>{"/bin/sleep", "60"}), (*components)[1].command);
}

TEST(ComponentsConfigTest, RefusesWithKeyAndReason) {
    const std::pair<const char*, const char*> bad[] = {
        {"", ""},
        {"[]", "components"},
        {"{\"components\":{}}", "components"},
        {"{\"components\":[1]}", "components[0]"},
        {"{\"components\":[{}]}", "name"},
        {"{\"components\":[{\"name\":5}]}", "components[0].name"},
        {"{\"components\":[{\"name\":\"../x\"}]}", "components[0].name"},
        {"{\"components\":[{\"name\":\"A\",\"nice\":1}]}", "components[0].nice"},
        {"{\"components\":[{\"name\":\"A\"},{\"name\":\"A\"}]}", "components[1].name"},
        {"{\"components\":[{\"name\":\"tervane\"}]}", "components[0].name"},
        {R"({"components":[{"name":"A"},{"name":"TervaneRelay"}]})",
         "components[1].name \"TervaneRelay\": the agent's relay to a fleet's broker is called so"},
        {"{\"components\":[{\"name\":\"A\",\"load\":\"busy\"}]}", "components[0].load"},
        {"{\"components\":[{\"name\":\"A\",\"command\":[]}]}", "components[0].command"},
        {"{\"components\":[{\"name\":\"A\",\"command\":[\"sleep\"]}]}", "components[0].command"},
        {"{\"components\":[{\"name\":\"A\",\"command\":[\"/bin/sleep\",5]}]}", "components[0].command"},
        {R"({"components":[{"name":"A","command":["/bin/sleep\u0000x"]}]})", "components[0].command"},
        {"{\"version\":2,\"components\":[]}", "version"},
        {"{\"components\":[],\"extra\":1}", "extra"},
        {"{\"components\":[]", ""},
        {"{\"components\":[]} trailing", ""},
    };
    for (const auto& item : bad) {
        const auto components = ParseComponents(item.first);
        ASSERT_FALSE(components) << item.first;
        const std::string problem = components.GetError().Text();
        EXPECT_NE(std::string::npos, problem.find(item.second)) << item.first << " -> " << problem;
    }
}

TEST(ComponentsConfigTest, DeepNestingIsRefusedNotFollowed) {
    EXPECT_FALSE(ParseComponents("{\"components\":" + std::string(5000, '[') + "}"));
}
