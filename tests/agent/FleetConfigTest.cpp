// The fleet's configuration from the console: what is shown, what is put, and what is said when it is not.
#include <sys/wait.h>
#include <unistd.h>

#include "FleetFixture.h"

using namespace agent;

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class FleetConfigTest : public fleettest::FleetFixture {
protected:
    void SetUp() override {
        FleetFixture::SetUp();
        HostState web = WellHost("web.1");
        web.groups = {"web", "old stock"};
        AddHost(web, 5, "web_2e1");
        HostState db = WellHost("db1");
        db.groups = {"db"};
        db.config = {12, 9, false, "key 'maxCpu' is odd"};
        AddHost(db, 5);
        HostState pinned = WellHost("db2");
        pinned.groups = {"db"};
        pinned.config = {12, 0, true, ""};
        AddHost(pinned, 5);
        AddLevel("all", 11, R"({"maxCpu":20,"maxMemory":300,"_why":"x"})");
        AddLevel("group.web", 12, R"({"maxCpu":30})");
        AddLevel("group.old_20stock", 10, R"({"maxFdCount":99})");
        AddLevel("host.web_2e1", 9, R"({"maxMemory":400})");
        AddLevel("host.db1", 8, "");
    }
    int Set(const std::vector<std::string>& words) {
        options.config.words = words;
        return Run("config set");
    }
    /// The level as the broker has it after the last command, and keeps it for the next.
    Json::Value Newest() {
        world = WorldNow();
        return world["config"][world["config"].size() - 1];
    }
    size_t Puts() const { return WorldNow()["config"].size(); }
};

TEST_F(FleetConfigTest, LevelsAreShownWithThoseWhoReadThem) {
    EXPECT_EQ(Run("config show"), 0) << err;
    EXPECT_EQ(out,
              "all  revision 11, 1970-01-12 13:46:51; 3 hosts read it, 1 as it is, 1 with an error, 1 pinned\n"
              "  maxCpu = 20\n  maxMemory = 300\n"
              "group.old_20stock  revision 10, 1970-01-12 13:46:50; 1 host reads it, 1 as it is\n  maxFdCount = 99\n"
              "group.web  revision 12, 1970-01-12 13:46:52; 1 host reads it, 1 as it is\n  maxCpu = 30\n"
              "1 level of a single host: --all-levels shows it too\n");
    options.config.allLevels = true;
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("\nhost.db1  revision 8, 1970-01-12 13:46:48; 1 host reads it, 0 as it is, 1 "
                                     "with an error; taken away\n"),
                           HasSubstr("\nhost.web_2e1  revision 9"), Not(HasSubstr("single host"))));
    options.config.allLevels = false;
    options.config.group = "old stock";
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, AllOf(StartsWith("group.old_20stock  "), Not(HasSubstr("group.web")), Not(HasSubstr("--all"))));
    options.config.group = "none";
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_EQ(out, "the fleet gives nothing on this level\n");
}

TEST_F(FleetConfigTest, OfAKeyThatComesTwiceTheNewerCounts) {
    AddLevel("all", 5, R"({"maxCpu":1})", "again");
    AddLevel("group.web", 19, R"({"maxCpu":2})", "again");
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("all  revision 11, "), HasSubstr("group.web  revision 19, "),
                           HasSubstr("\n  maxCpu = 2\n"), Not(HasSubstr("maxCpu = 1\n"))));
}

TEST_F(FleetConfigTest, AHostsValuesNameTheirLevel) {
    options.config.host = "web.1";
    EXPECT_EQ(Run("config show"), 0) << err;
    EXPECT_EQ(out,
              "web.1  groups web, old stock; revision 12\n"
              "  maxCpu = 30, from group.web\n  maxFdCount = 99, from group.old_20stock\n"
              "  maxMemory = 400, from host.web_2e1\nit has seen revision 12 and applied 12\n");
    options.config.host = "db1";
    EXPECT_EQ(Run("config show"), 1);
    EXPECT_THAT(out, HasSubstr("it has seen revision 12 and applied 9: key 'maxCpu' is odd\n"));
    options.config.host = "db2";
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, HasSubstr("applied 0, and keeps a file of its own (pinned)\n"));
    options.config.host = "nobody";
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("nobody  groups none; revision 11\n  maxCpu = 20, from all\n"),
                           HasSubstr("its groups are not known")));
}

TEST_F(FleetConfigTest, ALevelThatTheAgentRefusesIsNamed) {
    AddLevel("group.web", 13, R"({"maxCpu":"x"})");
    options.config.host = "web.1";
    EXPECT_EQ(Run("config show"), 1);
    EXPECT_THAT(out,
                AllOf(HasSubstr("\"group.web\", revision 13, is refused"), HasSubstr("and not yet the one above")));
}

TEST_F(FleetConfigTest, AChangeIsPutWithWhatWasRead) {
    EXPECT_EQ(Set({"maxCpu=25", "maxFdCount=50"}), 0) << err;
    EXPECT_EQ(out,
              "maxCpu: 20 -> 25\nmaxFdCount: nothing -> 50\n"
              "all has revision 13; 3 hosts read it, and take it within ten seconds\n");
    EXPECT_EQ(Newest()["value"].asString(), R"({"_why":"x","maxCpu":25,"maxFdCount":50,"maxMemory":300})");
    options.config.group = "web";
    EXPECT_EQ(Set({"maxCpu=31"}), 0);
    EXPECT_EQ(Newest()["key"].asString(), "group.web");
    options.config.group = "";
    options.config.host = "new host";
    EXPECT_EQ(Set({"maxCpu=32"}), 0);
    EXPECT_EQ(Newest()["key"].asString(), "host.new_20host");
}

TEST_F(FleetConfigTest, ValuesThatAreThereAlreadyArePutNoMore) {
    const size_t before = world["config"].size();
    EXPECT_EQ(Set({"maxCpu=20"}), 0);
    EXPECT_THAT(out,
                AllOf(HasSubstr("nothing is changed"), HasSubstr("all has revision 11; 3 hosts read it, 1 as it is")));
    options.config.words = {"maxFdCount"};
    EXPECT_EQ(Run("config unset"), 0);
    EXPECT_THAT(out, HasSubstr("nothing is changed"));
    options.config.host = "nobody";
    EXPECT_EQ(Run("config unset"), 0);
    EXPECT_THAT(out, HasSubstr("host.nobody has revision 0; no host that is known reads it\n"));
    EXPECT_EQ(Puts(), before);
}

TEST_F(FleetConfigTest, WhatTheAgentRefusesIsNotPut) {
    const size_t before = world["config"].size();
    EXPECT_EQ(Set({"maxCpu=much"}), 1);
    EXPECT_THAT(err, HasSubstr("nothing is changed: the agent refuses it: maxCpu"));
    EXPECT_EQ(Set({"maxCpus=1"}), 1);
    EXPECT_EQ(Set({"maxCpu"}), 11);
    EXPECT_EQ(Set({"=1"}), 11);
    EXPECT_EQ(Set({"maxCpu=1", "maxCpu=2"}), 11);
    EXPECT_EQ(Run("config unset"), 11);
    AddLevel("all", 14, "garbage");
    EXPECT_EQ(Set({"maxCpu=1"}), 1);
    EXPECT_THAT(err, HasSubstr("all is not changed: what is there is no configuration"));
    EXPECT_EQ(Puts(), before + 1);
}

TEST_F(FleetConfigTest, WhatSomebodyElseChangedIsNotOverwritten) {
    AddLevel("all", 20, R"({"maxCpu":21})", "meanwhile");
    EXPECT_EQ(Set({"maxMemory=301"}), 1);
    EXPECT_THAT(err, AllOf(HasSubstr("all was changed by somebody else meanwhile, revision 20 (maxCpu: 20 -> 21, "
                                     "maxMemory: 300 -> nothing)"),
                           HasSubstr("this change was not made")));
    EXPECT_EQ(Newest()["value"].asString(), R"({"maxCpu":21})");
}

TEST_F(FleetConfigTest, APutWithoutAnAnswerIsReadBack) {
    world["silence"] = "the broker does not answer";
    EXPECT_EQ(Set({"maxCpu=25"}), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("maxCpu: 20 -> 25\nthe broker did not answer, and has it now\n"),
                           HasSubstr("all has revision 13")));
    world["silence"] = Json::Value();
    Json::Value& fault = world["faults"]["put"];
    fault["error"] = "no word";
    fault["outcome"] = "unknown";
    EXPECT_EQ(Set({"maxCpu=25"}), 1);
    EXPECT_THAT(err, AllOf(HasSubstr("all is not changed so far, and may be yet"), HasSubstr("no word")));
    fault["outcome"] = "refused";
    EXPECT_EQ(Set({"maxCpu=25"}), 1);
    EXPECT_THAT(err, HasSubstr("all was not changed: no word"));
    world["faults"]["put"] = "die";
    EXPECT_EQ(Set({"maxCpu=25"}), 2);
    EXPECT_THAT(err, HasSubstr("it is not known whether all was changed"));
}

TEST_F(FleetConfigTest, WithoutAnAnswerAnothersChangeIsToldApart) {
    world["lost"] = "no word";
    AddLevel("all", 30, R"({"maxCpu":22})", "meanwhile");
    EXPECT_EQ(Set({"maxCpu=25"}), 1);
    EXPECT_THAT(err, AllOf(HasSubstr("by somebody else meanwhile, revision 30 (maxCpu: 20 -> 22"),
                           HasSubstr("this change was not made")));
    Json::Value lost(Json::objectValue);
    lost["error"] = "nobody leads it";
    world["faults"]["get"] = Parsed(R"(["none"])");
    world["faults"]["get"].append(lost);
    EXPECT_EQ(Set({"maxCpu=25"}), 2);
    EXPECT_THAT(err, AllOf(HasSubstr("it is not known whether all was changed"), HasSubstr("nobody leads it")));
}

TEST_F(FleetConfigTest, StoredAndChangedAgainIsNotCalledNotMade) {
    world["silence"] = "no word";
    AddLevel("all", 30, R"({"maxCpu":22})", "afterwards");
    EXPECT_EQ(Set({"maxCpu=25"}), 1);
    EXPECT_THAT(err,
                AllOf(HasSubstr("all was changed, revision 13, and by somebody else since, revision 30 (maxCpu: 25 "
                                "-> 22, maxMemory: 300 -> nothing)"),
                      HasSubstr("look at it with fleet config history"), Not(HasSubstr("not made"))));
}

TEST_F(FleetConfigTest, AHistoryThatCannotBeReadLeavesItUnknown) {
    world["faults"]["history"]["error"] = "nobody leads it";
    world["silence"] = "no word";
    AddLevel("all", 30, R"({"maxCpu":22})", "afterwards");
    EXPECT_EQ(Set({"maxCpu=25"}), 2);
    EXPECT_THAT(err,
                AllOf(HasSubstr("it is not known whether all was changed: no word; "), HasSubstr("nobody leads it"),
                      HasSubstr("look with fleet config history what became of it"), Not(HasSubstr("not made"))));
    // A copy that lags behind has not got the change yet.
    world["faults"]["history"] = Json::Value();
    world["faults"]["history"]["ok"] = true;
    EXPECT_EQ(Set({"maxCpu=25"}), 2);
    EXPECT_THAT(err,
                AllOf(HasSubstr("it is not known whether all was changed: no word; "), Not(HasSubstr("not made"))));
}

class FleetMarkTest : public FleetConfigTest {
protected:
    /// A rollout of group.web has marked the level of web.1.
    void Mark(int until, const std::string& machine = "c2", int process = 5, int before = 0) {
        Json::Value mark(Json::objectValue);
        mark["user"] = "bob";
        mark["machine"] = machine;
        mark["process"] = process;
        mark["since"] = 999000;
        mark["until"] = until;
        mark["level"] = "group.web";
        mark["what"] = "maxCpu=77";
        mark["before"] = before;
        Json::Value level(Json::objectValue);
        level["maxCpu"] = 77;
        level["_rollout"] = mark;
        AddLevel("host.web_2e1", 40, Compact(level));
    }
    const std::string m_live =
        "a rollout of group.web (maxCpu=77), begun 1970-01-12 13:30:00 by bob on c2 (process 5), on web.1";
    const std::string m_back = "take it back: tervanectl fleet config undo --host web.1";
};

TEST_F(FleetMarkTest, ChangesBesideARolloutThatGoesOnAreRefused) {
    Mark(1009000);
    const size_t puts = 6;
    for (const char* level : {"all", "group.web", "group.old stock", "host.web.1"}) {
        const std::string name = level;
        options.config.group = name.compare(0, 6, "group.") == 0 ? name.substr(6) : "";
        options.config.host = name.compare(0, 5, "host.") == 0 ? name.substr(5) : "";
        EXPECT_EQ(Set({"maxCpu=55"}), 1) << level;
        EXPECT_THAT(err, AllOf(HasSubstr(m_live + ", which goes on: wait for its end, "), HasSubstr(m_back)));
        EXPECT_EQ(Puts(), puts);
    }
    options.config.words = {"maxCpu"};
    EXPECT_EQ(Run("config unset"), 1);
    EXPECT_THAT(err, HasSubstr(m_live));
    options.config.host.clear();
    options.config.group = "db";
    EXPECT_EQ(Set({"maxCpu=55"}), 0) << "none of its hosts reads it";
}

TEST_F(FleetMarkTest, WhatWasLeftBehindHoldsItsHostAlone) {
    Mark(999999);
    EXPECT_EQ(Set({"maxCpu=55"}), 0) << err;
    world = WorldNow();
    options.config.host = "web.1";
    EXPECT_EQ(Set({"maxCpu=55"}), 1);
    EXPECT_THAT(err, HasSubstr(m_live + ", which was left behind: " + m_back + "\n"));
}

TEST_F(FleetMarkTest, AnUndoTakesARolloutBack) {
    options.config.host = "web.1";
    Mark(999999, "c2", 5, 9);
    EXPECT_EQ(Run("config undo"), 0) << err;
    EXPECT_EQ(Newest()["value"].asString(), R"({"_back_to":9,"maxMemory":400})");
    Mark(999999);
    world["config"][world["config"].size() - 1]["revision"] = 60;
    EXPECT_EQ(Run("config undo"), 0) << err;
    EXPECT_THAT(out, HasSubstr("maxCpu: 77 -> nothing\nas before the rollout: it was not there\n"));
    EXPECT_TRUE(Newest()["deleted"].asBool());
    options.config.to = 60;
    EXPECT_EQ(Run("config undo"), 0) << err;
    EXPECT_EQ(Newest()["value"].asString(), R"({"_back_to":60,"maxCpu":77})")
        << "what comes back is no rollout's any more";
}

TEST_F(FleetMarkTest, WhatWasLeftBehindIsNamedWithItsWayBack) {
    Run("status");
    EXPECT_THAT(out, Not(HasSubstr("rollout")));
    Mark(999999);
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, HasSubstr("\n" + m_live + ", was left behind: " + m_back + "\n"));
    EXPECT_EQ(Run("status"), 1);
    EXPECT_THAT(out, AllOf(HasSubstr(m_live + ", was left behind"), HasSubstr(m_back)));
    options.json = true;
    EXPECT_EQ(Run("config show"), 0);
    const Json::Value rollout = Parsed(out)["rollouts"][0];
    EXPECT_EQ(rollout["hosts"][0], "web.1");
    EXPECT_EQ(rollout["back"][0], "tervanectl fleet config undo --host web.1");
    EXPECT_TRUE(rollout["abandoned"].asBool());
}

TEST_F(FleetMarkTest, OneThatGoesOnIsNoFinding) {
    Mark(1009000);
    Run("status");
    EXPECT_THAT(out, Not(HasSubstr("rollout")));
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, HasSubstr(m_live + ", goes on: wait for its end, "));
}

TEST_F(FleetMarkTest, AProcessOfThisMachineThatIsGoneHasLeftItBehind) {
    char machine[256] = {};
    ASSERT_EQ(gethostname(machine, sizeof(machine) - 1), 0);
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    Mark(1009000, machine, child);
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, HasSubstr("was left behind"));
    world["config"].resize(world["config"].size() - 1);
    Mark(1009000, machine, getpid());
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, HasSubstr("goes on"));
    world["config"].resize(world["config"].size() - 1);
    Mark(1009000, "c2", child);
    EXPECT_EQ(Run("config show"), 0);
    EXPECT_THAT(out, HasSubstr("goes on")) << "of another machine nothing is known here";
}

TEST_F(FleetConfigTest, TheLastKeyTakesItsLevelAway) {
    options.config.words = {"maxCpu"};
    EXPECT_EQ(Run("config unset"), 0);
    EXPECT_THAT(out, StartsWith("maxCpu: 20 -> nothing\nall has revision 13; "));
    options.config.group = "web";
    EXPECT_EQ(Run("config unset"), 0);
    EXPECT_THAT(out, HasSubstr("group.web has revision 13, and is taken away; 1 host reads it, and takes it within"));
    EXPECT_TRUE(Newest()["deleted"].asBool());
}

TEST_F(FleetConfigTest, HistoryNamesWhatEachRevisionChanged) {
    AddLevel("all", 14, R"({"maxCpu":21,"maxFdCount":5})");
    AddLevel("all", 15, "");
    EXPECT_EQ(Run("config history"), 0) << err;
    EXPECT_EQ(out,
              "revision 11, 1970-01-12 13:46:51\n  maxCpu = 20\n  maxMemory = 300\n"
              "revision 14, 1970-01-12 13:46:54\n  maxCpu: 20 -> 21\n  maxMemory: 300 -> nothing\n"
              "  maxFdCount: nothing -> 5\n"
              "revision 15, 1970-01-12 13:46:55: taken away\n  maxCpu: 21 -> nothing\n  maxFdCount: 5 -> nothing\n");
    options.config.group = "none";
    EXPECT_EQ(Run("config history"), 0);
    EXPECT_EQ(out, "nothing was ever set on group.none\n");
}

TEST_F(FleetConfigTest, UndoBringsBackAndNamesTheRevision) {
    AddLevel("all", 14, R"({"maxCpu":21})");
    EXPECT_EQ(Run("config undo"), 0) << err;
    EXPECT_THAT(out, AllOf(StartsWith("maxCpu: 21 -> 20\nmaxMemory: nothing -> 300\nas of revision 11\n"),
                           HasSubstr("all has revision 15; 3 hosts")));
    EXPECT_EQ(Newest()["value"].asString(), R"({"_back_to":11,"_why":"x","maxCpu":20,"maxMemory":300})");
    EXPECT_EQ(Run("config undo"), 1);
    EXPECT_THAT(err, HasSubstr("all is not changed: the broker has nothing before revision 11 of all"));
    options.config.to = 14;
    EXPECT_EQ(Run("config undo"), 0);
    EXPECT_THAT(out, HasSubstr("as of revision 14\n"));
    Newest();
    AddLevel("all", 40, R"({"maxCpu":99})", "meanwhile");
    options.config.to = 11;
    EXPECT_EQ(Run("config undo"), 1);
    EXPECT_THAT(err, HasSubstr("by somebody else meanwhile, revision 40"));
    options.config.group = "none";
    EXPECT_EQ(Run("config undo"), 1);
    EXPECT_THAT(err, HasSubstr("nothing was ever set there"));
}

TEST_F(FleetConfigTest, WhatCannotBeReadIsSaid) {
    for (const char* command : {"config show", "config history", "config undo", "config set"}) {
        options.config.words = {"maxCpu=1"};
        for (const char* op : {"get", "keys", "history"}) world["faults"][op]["error"] = "nobody leads it";
        EXPECT_EQ(Run(command), 1) << command;
        EXPECT_THAT(err, HasSubstr("nobody leads it")) << command;
        for (const char* op : {"get", "keys", "history"}) world["faults"][op] = "die";
        EXPECT_EQ(Run(command), 2) << command;
        world["faults"] = Json::Value(Json::objectValue);
    }
}

}  // namespace
