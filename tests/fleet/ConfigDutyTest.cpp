// The fleet's configuration on its way into the file, with a scripted broker and real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "fleet/ConfigDuty.h"
#include "fleet/ScriptedKeys.h"
#include "support/Files.h"
#include "support/SmallDisk.h"

namespace agent {
namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using Outcome = ConfigDuty::Outcome;

class ConfigDutyTest : public ::testing::Test {
protected:
    ConfigDutyTest() { support::WriteText(m_app / "conf/.keep", ""); }
    ConfigDuty Make(const std::vector<std::string>& groups = {"web"}) { return MakeOn(m_app.Path(), groups); }
    ConfigDuty MakeOn(const std::string& appDir, const std::vector<std::string>& groups = {"web"}) {
        return ConfigDuty({"h.1", groups, appDir, [this](const std::string& said) { m_said.push_back(said); }});
    }
    std::string File() const { return support::ReadText(m_file); }
    /// Looks until nothing is to be tried again. Returns: false where that does not come.
    bool Settle(ConfigDuty& duty) {
        for (int i = 0; i < 5; ++i) {
            if (duty.Look(m_keys) == Outcome::kDone) return true;
        }
        return false;
    }

    support::TempDir m_app;
    const std::string m_file = m_app / "conf/online_config.json";
    const std::string m_kept = m_file + ".before-fleet";
    ScriptedKeys m_keys;
    std::vector<std::string> m_said;
};

TEST_F(ConfigDutyTest, LevelsAreMergedIntoTheFileByWeight) {
    m_keys.Set("all", R"({"maxCpu": 10, "maxMemory": 100})");
    m_keys.Set("host.h_2e1", R"({"maxMemory": 300})");
    m_keys.Set("group.web", R"({"maxMemory": 200, "maxFdCount": 900})");
    ConfigDuty duty = Make();
    EXPECT_THAT(duty.Levels(), ElementsAre("all", "group.web", "host.h_2e1"));
    ASSERT_EQ(duty.Look(m_keys), Outcome::kDone);
    const auto origin = ReadFleetOrigin(File());
    ASSERT_TRUE(origin.has_value()) << File();
    EXPECT_EQ(origin->revision, 3u);
    EXPECT_EQ(origin->levels.at("maxMemory"), "host.h_2e1");
    EXPECT_EQ(origin->levels.at("maxCpu"), "all");
    EXPECT_THAT(File(), HasSubstr("\"maxMemory\" : 300"));
    EXPECT_EQ(support::ModeOf(m_file), 0640);
    EXPECT_EQ(duty.Get().seen, 3u);
    EXPECT_EQ(duty.Get().error, "");
    EXPECT_FALSE(support::Exists(m_kept));
}

TEST_F(ConfigDutyTest, WrittenIsNotYetApplied) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    EXPECT_TRUE(duty.IsUnread());
    EXPECT_EQ(duty.Get().applied, 0u);
    duty.OnProblem("");  // a status from before the agent has read it
    EXPECT_EQ(duty.Get().applied, 0u);
    duty.OnRead("");
    EXPECT_FALSE(duty.IsUnread());
    EXPECT_EQ(duty.Get().applied, 1u);
    m_keys.Set("all", R"({"maxCpu": 11})");
    ASSERT_TRUE(Settle(duty));
    EXPECT_TRUE(duty.IsUnread());
    duty.OnRead("others may write its directory");
    EXPECT_EQ(duty.Get().seen, 2u);
    EXPECT_EQ(duty.Get().applied, 1u);
    EXPECT_THAT(duty.Get().error, HasSubstr("others may write its directory"));
    duty.OnProblem("");
    EXPECT_EQ(duty.Get().applied, 2u);
    EXPECT_EQ(duty.Get().error, "");
}

TEST_F(ConfigDutyTest, FileOfAnEarlierRunIsReadAgain) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty before = Make();
    ASSERT_TRUE(Settle(before));
    ConfigDuty after = Make();
    ASSERT_TRUE(Settle(after));
    EXPECT_TRUE(after.IsUnread());
    after.OnRead("");
    EXPECT_EQ(after.Get().applied, 1u);
    ASSERT_TRUE(Settle(after));
    EXPECT_FALSE(after.IsUnread()) << "nothing was written";
}

TEST_F(ConfigDutyTest, PinnedFileStays) {
    const std::string own = R"({"_pinned": true, "maxCpu": 55})";
    ASSERT_TRUE(support::WriteText(m_file, own));
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(File(), own);
    EXPECT_TRUE(duty.Get().pinned);
    EXPECT_EQ(duty.Get().seen, 1u);
    EXPECT_EQ(duty.Get().applied, 0u);
    EXPECT_EQ(duty.Get().error, "");
    m_keys.Delete("all");
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(File(), own);
}

TEST_F(ConfigDutyTest, FileOfTheFleetThatIsPinnedOutlivesItsLevels) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    const std::string pinned = File().replace(File().find('{'), 1, "{\"_pinned\": true,");
    ASSERT_TRUE(support::ReplaceText(m_file, pinned));
    m_keys.Delete("all");
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(File(), pinned);
    EXPECT_TRUE(duty.Get().pinned);
}

TEST_F(ConfigDutyTest, BadLevelChangesNothingUntilItIsMended) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    const std::string good = File();
    m_keys.Set("group.web", R"({"maxCpu": 90000})");
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(File(), good);
    EXPECT_EQ(duty.Get().seen, 2u);
    EXPECT_THAT(duty.Get().error, HasSubstr("group.web"));
    EXPECT_THAT(duty.Get().error, HasSubstr("90000"));
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(m_said.size(), 2u) << "the writing, and once the error";
    m_keys.Set("group.web", R"({"maxCpu": 90})");
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(duty.Get().error, "");
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 90"));
}

TEST_F(ConfigDutyTest, HostsOwnFileIsKeptOnceAndComesBack) {
    const std::string own = "{\"maxCpu\": 44}\n";
    ASSERT_TRUE(support::WriteText(m_file, own));
    ASSERT_EQ(chmod(m_file.c_str(), 0644), 0);
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(support::ReadText(m_kept), own);
    EXPECT_EQ(support::ModeOf(m_kept), 0644);
    EXPECT_EQ(support::ModeOf(m_file), 0644) << "as the file had it";
    EXPECT_THAT(m_said, Contains(HasSubstr(m_kept)));
    // Another one later on gives way too, and that is said: it is the one that comes back.
    m_said.clear();
    const std::string later = "{\"maxCpu\": 45}";
    ASSERT_TRUE(support::WriteText(m_file, later));
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(support::ReadText(m_kept), later);
    EXPECT_EQ(support::ReadText(m_kept + ".1"), own);
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 10"));
    EXPECT_THAT(m_said, Contains(AllOf(HasSubstr("_pinned"), HasSubstr(m_kept + ".1"))));
    m_said.clear();
    ASSERT_TRUE(support::WriteText(m_file, later));  // the same once more: nothing is moved
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(support::ReadText(m_kept + ".1"), own);
    EXPECT_THAT(m_said, Not(Contains(HasSubstr("_pinned"))));
    m_keys.Delete("all");
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(File(), later);
    EXPECT_FALSE(support::Exists(m_kept));
    EXPECT_EQ(duty.Get().seen, 2u);
    duty.OnRead("");
    EXPECT_EQ(duty.Get().applied, 0u);
    // What the fleet gives then begins anew.
    m_keys.Set("all", R"({"maxCpu": 12})");
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(support::ReadText(m_kept), later);
}

TEST_F(ConfigDutyTest, AnotherGroupIsNoChangeByHand) {
    m_keys.Set("group.web", R"({"maxCpu": 10})");
    m_keys.Set("group.db", R"({"maxMemory": 300})");
    m_keys.Set("all", R"({"maxFdCount": 900})");
    ConfigDuty before = Make({"web"});
    ASSERT_TRUE(Settle(before));
    m_said.clear();
    ConfigDuty after = Make({"db"});
    ASSERT_TRUE(Settle(after));
    EXPECT_THAT(File(), AllOf(HasSubstr("maxMemory"), Not(HasSubstr("maxCpu"))));
    EXPECT_THAT(m_said, Not(Contains(HasSubstr("is set back"))));
    EXPECT_THAT(m_said, Contains(HasSubstr("is written to")));
}

TEST_F(ConfigDutyTest, FileGoesWhereTheHostHadNone) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    m_keys.Set("host.h_2e1", R"({"maxCpu": 30})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    m_keys.Delete("host.h_2e1");
    ASSERT_TRUE(Settle(duty));
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 10")) << "the next level";
    EXPECT_EQ(ReadFleetOrigin(File())->revision, 3u);
    m_keys.Delete("all");
    ASSERT_TRUE(Settle(duty));
    EXPECT_FALSE(support::Exists(m_file));
    EXPECT_EQ(duty.Get().error, "");
    ASSERT_TRUE(Settle(duty));
}

TEST_F(ConfigDutyTest, BrokerThatKnowsNoKeyTakesNothingAway) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    const std::string good = File();
    m_keys.levels.clear();
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(File(), good);
}

TEST_F(ConfigDutyTest, GroupThatTheHostHasLeftGivesNothing) {
    m_keys.Set("group.web", R"({"maxCpu": 10})");
    ConfigDuty in = Make();
    ASSERT_TRUE(Settle(in));
    ConfigDuty out = Make({});
    ASSERT_TRUE(Settle(out));
    EXPECT_FALSE(support::Exists(m_file));
}

TEST_F(ConfigDutyTest, OlderAnswerIsBelievedTheSecondTime) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    const fleet::KvEntry older = m_keys.levels["all"];
    m_keys.Set("all", R"({"maxCpu": 20})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    const fleet::KvEntry newer = m_keys.levels["all"];
    m_keys.levels["all"] = older;  // a replica that lags
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    m_keys.levels["all"] = newer;
    EXPECT_EQ(duty.Look(m_keys), Outcome::kDone);
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 20"));
    m_keys.levels["all"] = older;  // a broker that was set back
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 20"));
    EXPECT_EQ(duty.Look(m_keys), Outcome::kDone);
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 10"));
    EXPECT_EQ(duty.Get().seen, 1u);
    // At a start the file says what was known.
    m_keys.Set("all", R"({"maxCpu": 30})");
    ASSERT_TRUE(Settle(duty));
    m_keys.levels["all"] = older;
    ConfigDuty fresh = Make();
    EXPECT_EQ(fresh.Look(m_keys), Outcome::kAgain);
}

TEST_F(ConfigDutyTest, FileThatChangesMeanwhileIsLookedAtAgain) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    m_keys.onRead = [this] {
        m_keys.onRead = nullptr;
        support::ReplaceText(m_file, R"({"_pinned": true})");
    };
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_EQ(File(), R"({"_pinned": true})");
    EXPECT_THAT(duty.Get().error, HasSubstr("changed by somebody else"));
    EXPECT_EQ(duty.Look(m_keys), Outcome::kDone);
    EXPECT_TRUE(duty.Get().pinned);
    EXPECT_EQ(duty.Get().error, "");
}

TEST_F(ConfigDutyTest, PlaceThatOthersMayWriteIsNotWrittenTo) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ASSERT_EQ(chmod((m_app / "conf").c_str(), 0777), 0);
    ConfigDuty duty = Make();
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_FALSE(support::Exists(m_file));
    EXPECT_THAT(duty.Get().error, HasSubstr("conf"));
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_EQ(m_said.size(), 1u);
    ASSERT_EQ(chmod((m_app / "conf").c_str(), 0750), 0);
    EXPECT_EQ(duty.Look(m_keys), Outcome::kDone);
    EXPECT_TRUE(support::Exists(m_file));
    EXPECT_EQ(duty.Get().error, "");
}

TEST_F(ConfigDutyTest, LastGoodFileStaysOnAFullDisk) {
    support::SmallDisk disk(256);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    const std::string file = disk / "conf/online_config.json";
    support::WriteText(disk / "conf/.keep", "");
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = MakeOn(disk.Path());
    ASSERT_TRUE(Settle(duty)) << duty.Get().error;
    const std::string good = support::ReadText(file);
    ASSERT_NE(good, "");
    disk.Fill();
    m_keys.Set("all", R"({"maxCpu": 20})");
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_EQ(support::ReadText(file), good);
    EXPECT_THAT(duty.Get().error, HasSubstr("No space left"));
    EXPECT_EQ(duty.Get().seen, 2u);
    ASSERT_EQ(remove((disk / "filler").c_str()), 0);
    EXPECT_EQ(duty.Look(m_keys), Outcome::kDone);
    EXPECT_THAT(support::ReadText(file), HasSubstr("\"maxCpu\" : 20"));
    EXPECT_EQ(duty.Get().error, "");
}

TEST_F(ConfigDutyTest, BrokerThatDoesNotAnswerIsNamedWhenItLasts) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    const std::string good = File();
    m_keys.failure = ScriptedKeys::Silence("Timeout");
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_EQ(duty.Get().error, "") << "once is nothing";
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_THAT(duty.Get().error, HasSubstr("Timeout"));
    EXPECT_EQ(File(), good);
    m_keys.failure = ScriptedKeys::Ok();
    EXPECT_EQ(duty.Look(m_keys), Outcome::kDone);
    EXPECT_EQ(duty.Get().error, "");
    m_keys.failure = ScriptedKeys::Silence("Permissions Violation for Publish to \"x\"", true);
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_THAT(duty.Get().error, HasSubstr("Permissions Violation")) << "at once: somebody has to do something";
}

TEST_F(ConfigDutyTest, BrokerThatMayNotBeUsedGivesNoConfiguration) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    m_keys.judged = base::SentenceError("too old", base::ErrorKind::kRefused);
    ConfigDuty duty = Make();
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_FALSE(support::Exists(m_file));
    EXPECT_THAT(duty.Get().error, HasSubstr("too old"));
}

TEST_F(ConfigDutyTest, FileOfTheFleetThatSomebodyChangesIsSetBack) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    std::string changed = File();
    changed.replace(changed.find("10"), 2, "99");
    ASSERT_TRUE(support::ReplaceText(m_file, changed));
    m_said.clear();
    ASSERT_TRUE(Settle(duty));
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 10"));
    EXPECT_THAT(m_said, Contains(AllOf(HasSubstr("_pinned"), HasSubstr("is set back"))));
    EXPECT_FALSE(support::Exists(m_kept));
}

TEST_F(ConfigDutyTest, FileThatCannotBeReadStays) {
    ASSERT_TRUE(support::WriteText(m_file, "{\"_pinned\": true,"));
    m_keys.Set("all", R"({"maxCpu": 10})");
    ConfigDuty duty = Make();
    ASSERT_TRUE(Settle(duty));
    EXPECT_EQ(File(), "{\"_pinned\": true,");
    EXPECT_THAT(duty.Get().error, HasSubstr("cannot be read"));
    ASSERT_TRUE(support::WriteText(m_file, std::string(kMostRemoteBytes + 1, ' ')));
    EXPECT_EQ(duty.Look(m_keys), Outcome::kAgain);
    EXPECT_EQ(File().size(), kMostRemoteBytes + 1);
}

}  // namespace
}  // namespace agent
