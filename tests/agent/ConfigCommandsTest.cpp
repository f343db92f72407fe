// `config` without a running agent: what is shown, set, undone and refused, on a directory of the test's own.
#include "ConfigCommands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ConfigJournal.h"
#include "ConfigPicture.h"
#include "support/Files.h"

using namespace agent;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

class ConfigCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        Write("resource_config", "max_cpu = 10\nmax_memory = 200\nresource_limit_mode = 13\n");
        ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
        ASSERT_EQ(chmod(Conf("").c_str(), 0755), 0);
    }
    std::string Conf(const std::string& name) const { return m_directory / ("conf/" + name); }
    void Write(const std::string& name, const std::string& text) { ASSERT_TRUE(support::WriteText(Conf(name), text)); }
    std::string Read(const std::string& name) const { return support::ReadText(Conf(name)); }
    int Run(const std::string& action, const std::string& argument = "", const std::string& as = "") {
        ConfigOptions options{m_directory.Path(), "tervane", action, argument, as, false};
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = RunConfig(options);
        m_said = testing::internal::GetCapturedStdout();
        m_error = testing::internal::GetCapturedStderr();
        return code;
    }
    ConfigRow Row(const std::string& key) {
        const ConfigPicture picture = ReadConfigPicture(m_directory.Path(), "tervane");
        const ConfigRow* row = FindRow(picture, key);
        EXPECT_NE(row, nullptr) << key;
        return row == nullptr ? ConfigRow() : *row;
    }

    support::TempDir m_directory;
    std::string m_said;
    std::string m_error;
};

}  // namespace

TEST_F(ConfigCommandsTest, EachValueSaysWhereItCameFrom) {
    EXPECT_EQ(OriginOf(Row("maxCpu")), Conf("resource_config") + ", key max_cpu");
    EXPECT_EQ(Row("groupMaxCpu").value, "10") << "the resource file sets both";
    EXPECT_EQ(OriginOf(Row("hashMode")), "the default");
    EXPECT_EQ(Run("set", "maxCpu=20"), 0);
    EXPECT_THAT(m_said, HasSubstr("maxCpu: nothing -> 20 in " + Conf("online_config.json") +
                                  ", revision 1; no agent runs here: in force at its start"));
    EXPECT_EQ(OriginOf(Row("maxCpu")), Conf("online_config.json") + ", key maxCpu, revision 1");
    EXPECT_EQ(Row("maxCpu").note, "max_cpu = 10 in resource_config is overridden");
    EXPECT_EQ(Row("maxCpu").value, "20");
    Write("online_config.json", "{\"maxCpu\": 30}");
    EXPECT_EQ(Row("maxCpu").revision, 0u) << "somebody else wrote it";
    Write("resource_config", "max_cpu = 12abc\nmax_memory = 99999999999\n");
    EXPECT_EQ(Row("maxMemory").value, "2147483647") << "as the agent counts it";
}

TEST_F(ConfigCommandsTest, AValueOfTheFleetSaysWhichLevelGaveIt) {
    const std::string remark = R"("_fleet": {"revision": 12, "from": {"maxCpu": "group.web"}})";
    Write("online_config.json", "{" + remark + R"(, "maxCpu": 30, "maxMemory": 300})");
    EXPECT_EQ(OriginOf(Row("maxCpu")),
              Conf("online_config.json") + ", key maxCpu, by the fleet: group.web, revision 12");
    EXPECT_EQ(Row("maxMemory").fleet, "") << "somebody put it beside";
    EXPECT_EQ(Row("hashMode").fleet, "");
    const std::string back = "the fleet wrote this file and puts it back";
    EXPECT_EQ(Run("set", "maxCpu=20"), 0);
    EXPECT_THAT(m_said, HasSubstr(back));
    EXPECT_EQ(Run("set", "max_memory=20"), 0);
    EXPECT_THAT(m_said, HasSubstr("it stays without effect while"));
    Write("online_config.json", "{" + remark + R"(, "_pinned": true, "maxCpu": 30})");
    EXPECT_EQ(Run("set", "maxCpu=20"), 0);
    EXPECT_THAT(m_said, Not(HasSubstr(back)));
}

TEST_F(ConfigCommandsTest, ARefusedFileIsNamedAndCountsForNothing) {
    Write("online_config.json", "{\"maxCpu\": 20, \"maxFdCount\": \"x\"}");
    EXPECT_EQ(Row("maxCpu").value, "10");
    EXPECT_EQ(Run("show"), 1);
    EXPECT_THAT(m_said, HasSubstr("refused  " + Conf("online_config.json") +
                                  ": maxFdCount = \"x\": a whole number is wanted\n"));
    ASSERT_EQ(chmod(Conf("online_config.json").c_str(), 0666), 0);
    EXPECT_EQ(Run("show"), 1);
    EXPECT_THAT(m_said, HasSubstr("refused  " + Conf("online_config.json") + ": "));
    ASSERT_EQ(unlink(Conf("online_config.json").c_str()), 0);
    EXPECT_EQ(Run("show"), 0) << m_said;
}

TEST_F(ConfigCommandsTest, WhatTheAgentWouldRefuseIsNotWritten) {
    EXPECT_EQ(Run("set", "maxCpu=90000"), 1);
    EXPECT_EQ(m_error, Conf("online_config.json") + ": maxCpu = 90000: outside 0..10000 percent\n");
    EXPECT_FALSE(support::Exists(Conf("online_config.json")));
    for (const char* bad : {"max_cpu=abc", "maxCpu=", "maxCpu=1.5", "nokey=1", "cgroup_groups=a:b", "http.url=ftp://x",
                            "syslog=yes", "max_cpu=1\nmax_memory=2"}) {
        EXPECT_EQ(Run("set", bad), 1) << bad;
        EXPECT_NE(m_error, "") << bad;
    }
    EXPECT_EQ(Run("set", "maxCpu"), 11);
    EXPECT_EQ(Read("resource_config"), "max_cpu = 10\nmax_memory = 200\nresource_limit_mode = 13\n");
    EXPECT_EQ(support::NamesIn(Conf("")), std::vector<std::string>{"resource_config"});
    Write("online_config.json", "{ garbage");
    EXPECT_EQ(Run("set", "maxCpu=5"), 1);
    EXPECT_EQ(Read("online_config.json"), "{ garbage");
}

TEST_F(ConfigCommandsTest, ChangesAreTakenBackOneByOne) {
    ASSERT_EQ(chmod(Conf("resource_config").c_str(), 0604), 0);
    EXPECT_EQ(Run("set", "maxCpu=20"), 0);
    EXPECT_EQ(Run("set", "max_cpu=15"), 0);
    EXPECT_THAT(m_said, HasSubstr("it stays without effect while " + Conf("online_config.json") + ", key maxCpu"));
    EXPECT_EQ(support::ModeOf(Conf("resource_config")), 0604) << "who may read it stays as it was";
    EXPECT_EQ(support::ModeOf(Conf("config_changes.json")), 0600);
    EXPECT_EQ(Run("set", "maxCpu=25"), 0);
    EXPECT_EQ(Row("maxCpu").revision, 3u);
    EXPECT_EQ(Run("unset", "maxCpu"), 0);
    EXPECT_EQ(Row("maxCpu").value, "15");
    EXPECT_EQ(Run("undo"), 0);
    EXPECT_EQ(Row("maxCpu").value, "25");
    EXPECT_EQ(Run("undo"), 0);
    EXPECT_EQ(Row("maxCpu").value, "20");
    EXPECT_EQ(Run("undo"), 0);
    EXPECT_EQ(Read("resource_config"), "max_cpu = 10\nmax_memory = 200\nresource_limit_mode = 13\n");
    EXPECT_EQ(Run("undo"), 0);
    EXPECT_EQ(Row("maxCpu").value, "10");
    EXPECT_EQ(Run("undo"), 1);
    EXPECT_THAT(m_error, HasSubstr("there is no change"));
    EXPECT_EQ(Run("set", "maxCpu=21"), 0);
    EXPECT_THAT(m_said, HasSubstr("revision 5")) << "a number is never used twice";
}

TEST_F(ConfigCommandsTest, UndoLeavesAloneWhatSomebodyElseWrote) {
    EXPECT_EQ(Run("set", "maxCpu=20"), 0);
    Write("online_config.json", "{\"maxCpu\": 30}");
    EXPECT_EQ(Run("undo"), 1);
    EXPECT_THAT(m_error, HasSubstr("maxCpu is 30 in " + Conf("online_config.json") + ", not 20 as it was set"));
    EXPECT_EQ(Row("maxCpu").value, "30");
    Write("online_config.json", "{\"maxCpu\": 20, \"_by\": \"hand\"}");
    EXPECT_EQ(Run("undo"), 0) << "what stands beside it stays";
    EXPECT_EQ(Read("online_config.json"), "{\n    \"_by\" : \"hand\"\n}\n");
}

TEST_F(ConfigCommandsTest, AChangeThatACrashCutOffIsUndoneAsNone) {
    ConfigJournal journal;
    journal.lastRevision = 1;
    journal.changes.push_back({1, 5, 0, Conf("resource_config"), "max_cpu", "10", "20"});
    ASSERT_TRUE(WriteConfigJournal(m_directory.Path(), journal));
    EXPECT_EQ(Run("undo"), 0);
    EXPECT_EQ(Row("maxCpu").value, "10");
    EXPECT_TRUE(ReadConfigJournal(m_directory.Path())->changes.empty());
}

TEST_F(ConfigCommandsTest, OnlyTrustedPlacesAreWritten) {
    ASSERT_EQ(chmod(Conf("").c_str(), 0777), 0);
    EXPECT_NE(Run("set", "maxCpu=20"), 0);
    EXPECT_THAT(m_error, AllOf(HasSubstr("nothing is written: " + m_directory / "conf")));
    ASSERT_EQ(chmod(Conf("").c_str(), 0755), 0);
    const std::string elsewhere = m_directory / "elsewhere";
    ASSERT_TRUE(support::WriteText(elsewhere, "{}"));
    ASSERT_EQ(symlink(elsewhere.c_str(), Conf("online_config.json").c_str()), 0);
    EXPECT_NE(Run("set", "maxCpu=20"), 0);
    EXPECT_EQ(support::ReadText(elsewhere), "{}") << "not through a link";
    ASSERT_EQ(unlink(Conf("online_config.json").c_str()), 0);
    Write("config_changes.json", "{}");
    EXPECT_NE(Run("set", "maxCpu=20"), 0);
    EXPECT_THAT(m_error, HasSubstr("config_changes.json is no list of changes"));
    EXPECT_FALSE(support::Exists(Conf("online_config.json")));
}

TEST_F(ConfigCommandsTest, APasswordIsNeverShown) {
    EXPECT_EQ(Run("set", "http.url=http://127.0.0.1:1/x"), 0);
    EXPECT_EQ(Run("set", "http.header=Authorization: hush"), 0);
    EXPECT_THAT(m_said, Not(HasSubstr("hush")));
    EXPECT_EQ(Run("show"), 0);
    EXPECT_THAT(m_said, AllOf(HasSubstr("(set, not shown)"), Not(HasSubstr("hush"))));
    EXPECT_EQ(support::ModeOf(Conf("agent.json")), 0640);
    EXPECT_EQ(Run("set", "http.header=hush"), 1);
    EXPECT_THAT(m_error, AllOf(HasSubstr("http.header"), Not(HasSubstr("hush"))));
}

TEST_F(ConfigCommandsTest, AFileIsCheckedByItsNameOrByAWord) {
    EXPECT_EQ(Run("check", Conf("resource_config")), 0);
    EXPECT_EQ(m_said, Conf("resource_config") + ": the agent takes all of it\n");
    Write("new", "{\"maxCpu\": 1, \"maxCup\": 2}");
    EXPECT_EQ(Run("check", Conf("new")), 11);
    EXPECT_EQ(Run("check", Conf("new"), "online_config.json"), 1);
    EXPECT_EQ(m_error, Conf("new") + ": maxCup = 2: there is no such key\n");
    EXPECT_EQ(Run("check", Conf("absent"), "agent.json"), 2);
    EXPECT_THAT(m_error,
                testing::HasSubstr("/absent: there is no such file, so nothing is judged: name one that is there"));
}

TEST_F(ConfigCommandsTest, AFileIsCheckedToTheLengthTheAgentReads) {
    const std::string blanks(64 * 1024 - 2, ' ');
    for (const char* name : {"agent.json", "online_config.json"}) {
        Write(name, "{}" + blanks);
        EXPECT_EQ(Run("check", Conf(name)), 0) << m_error;
        Write(name, "{}" + blanks + " ");
        EXPECT_EQ(Run("check", Conf(name)), 1);
        EXPECT_EQ(m_error, Conf(name) + ": it is longer than 65536 bytes\n");
    }
    Write("online_config.json", "{" + blanks + "}");
    EXPECT_EQ(Run("set", "maxCpu=20"), 0) << m_error;
    Write("resource_config", "max_cpu = 10\n;" + std::string(1024 * 1024, 'x') + "\n");
    EXPECT_EQ(Run("check", Conf("resource_config")), 1);
    EXPECT_THAT(m_error, HasSubstr("it is longer than 1048576 bytes"));
}

TEST_F(ConfigCommandsTest, AChangedFileKeepsItsGroupAndMode) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP agent: only root gives files away";
    constexpr gid_t kGroup = 54321;
    Write("online_config.json", "{}");
    ASSERT_EQ(chown(Conf("online_config.json").c_str(), 0, kGroup), 0);
    ASSERT_EQ(chmod(Conf("online_config.json").c_str(), 0640), 0);
    EXPECT_EQ(Run("set", "maxCpu=20"), 0) << m_error;
    struct stat info {};
    ASSERT_EQ(stat(Conf("online_config.json").c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, kGroup) << "the agent's user may read it by that";
    EXPECT_EQ(info.st_mode & 0777, 0640u);
}
