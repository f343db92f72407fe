// What the main process's components are told to the control groups as.
#include "ComponentCare.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/zel/AgentNames.h"
#include "support/Files.h"

namespace agent {
namespace {

std::vector<std::string> Words(const std::vector<zel::CgroupComponentQuota>& declared) {
    std::vector<std::string> words;
    for (const zel::CgroupComponentQuota& one : declared) {
        EXPECT_EQ(one.cpuGroup, one.memGroup);
        words.push_back(one.name + " " + one.cpuGroup + " " + std::to_string(one.memQuotaKB));
    }
    return words;
}

TEST(ComponentCareTest, ARelayThatComesOrGoesTakesNoOthersGroup) {
    const std::vector<ComponentConfig> components{{"A", "guard", {}, {}}, {"B", "", {}, {}}, {"C", "main", {}, {}}};
    const std::vector<std::string> others{"A guard 0", "C main 0"};
    EXPECT_EQ(Words(GroupsToDeclare(components, false)), others);
    std::vector<std::string> all = others;
    for (const std::string group : {zel::kCollectGroup, zel::kMainGroup}) {
        all.push_back(std::string(zel::kRelayComponent) + " " + group + " " + std::to_string(kRelayMemoryKb));
    }
    EXPECT_EQ(Words(GroupsToDeclare(components, true)), all);
}

TEST(ComponentCareTest, ComponentsAreReadOnceAndABadFileGivesNone) {
    const support::TempDir app;
    const std::string path = app / "conf/components.json";
    ASSERT_TRUE(support::WriteText(path, R"({"components":[{"name":"A","group":"guard"}]})"));
    const std::vector<ComponentConfig> read = DeclareComponents(app.Path(), false);
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0].name, "A");
    ASSERT_TRUE(support::WriteText(path, R"({"components":[{"name":"TervaneRelay"}]})"));
    EXPECT_TRUE(DeclareComponents(app.Path(), false).empty());
}

}  // namespace
}  // namespace agent
