// Which of two places a file of the configuration is read from.
#include "AgentPaths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/zel/AgentNames.h"
#include "support/Files.h"

using namespace agent;

namespace {

TEST(AgentPathsTest, FileOfTheApplicationDirectoryComesFirst) {
    const support::TempDir scratch;
    const std::string app = scratch.Path() + "/app";
    const std::string admin = scratch.Path() + "/admin";
    const std::string own = app + "/conf/agent.json";
    EXPECT_EQ(admin + "/agent.json", ChooseConfigurationFile(app, zel::kAgentConfigFileName, admin));
    ASSERT_TRUE(support::WriteText(own, "{}"));
    EXPECT_EQ(own, ChooseConfigurationFile(app, zel::kAgentConfigFileName, admin));
    // A link is no way round: it is there, and is refused where it is read.
    ASSERT_EQ(0, unlink(own.c_str()));
    ASSERT_EQ(0, symlink("/nowhere", own.c_str()));
    EXPECT_EQ(own, ChooseConfigurationFile(app, zel::kAgentConfigFileName, admin));
}

TEST(AgentPathsTest, OnlyTheDefaultDirectoryHasASecondPlace) {
    EXPECT_EQ("/srv/agent/conf/resource_config", ConfigurationFile("/srv/agent", zel::kResourceConfigFileName));
}

}  // namespace
