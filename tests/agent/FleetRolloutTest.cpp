// A rollout from the console, by a broker and a clock that are scripted: each ending, what is put, and what is named.
#include "FleetRollout.h"

#include <signal.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <thread>

#include "FleetFixture.h"
#include "support/Waiting.h"

using namespace agent;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

/// A broker's keys, hosts that take what they are given, and a clock that only a pause moves.
class World : public RolloutWorld {
public:
    base::Result<FleetRoster> ReadHosts() override {
        ++looks;
        if (onLook) onLook();
        if (isAway) return base::SentenceError("the broker is away");
        FleetRoster roster;
        for (const auto& [key, host] : hosts) {
            Json::Value item(Json::objectValue);
            item["key"] = key;
            item["value"] = FormatHostState(host);
            item["time"] = static_cast<double>(1000000 + now - (key == late ? lateSeconds : 1));
            item["revision"] = Json::UInt64(host.time > 0 ? host.time : 1);  // a new one for each state
            roster.Take(item);
        }
        roster.Finish(static_cast<double>(1000000 + now), static_cast<double>(1000000 + now));
        return roster;
    }
    base::Result<std::vector<RemoteLevel>> ReadLevels() override {
        std::vector<RemoteLevel> list;
        for (const auto& [name, level] : levels) list.push_back(level);
        return list;
    }
    base::Result<RemoteLevel> ReadLevel(const std::string& level) override {
        if (isAway) return base::SentenceError("the broker is away");
        if (onRead) onRead(level);
        const auto found = levels.find(level);
        return found == levels.end() ? RemoteLevel{level, 0, std::nullopt} : found->second;
    }
    RolloutPutAnswer Put(const RolloutPut& put) override {
        ++puts;
        if (onPut) onPut(put.level);
        if (isAway) return {PutOutcome::kUnknown, 0, "the broker is away"};
        if (put.level == refused) return {PutOutcome::kRefused, 0, "no right to publish"};
        RemoteLevel& level = levels[put.level];
        level.name = put.level;
        if (level.revision != put.expected) return {PutOutcome::kConflict, 0, "somebody else has changed it"};
        const bool isSilent = put.level == silent;
        if (isSilent) silent.clear();
        if (isSilent && !isSilentStored) return {PutOutcome::kUnknown, 0, "no answer"};
        level = {put.level, ++revision, put.text};
        stored.push_back(put.level + (put.text ? " " + *put.text : " deleted"));
        const auto host = hosts.find(put.level.substr(put.level.find('.') + 1));
        if (host != hosts.end() && !isDeaf) host->second.config.applied = host->second.config.seen = revision;
        if (isSilent) return {PutOutcome::kUnknown, 0, "no answer"};
        return {PutOutcome::kStored, revision, ""};
    }
    RolloutMark Author() override { return author; }
    int64_t NowSeconds() override { return now; }
    void Pause(int64_t seconds) override { now += seconds; }
    int Signals() override { return signals; }
    void Say(const std::string& line) override { said += line + "\n"; }

    std::map<std::string, HostState> hosts;
    std::map<std::string, RemoteLevel> levels;
    std::vector<std::string> stored;
    std::string said, late, refused, silent;
    std::function<void()> onLook;
    std::function<void(const std::string&)> onPut, onRead;
    bool isAway = false, isDeaf = false, isSilentStored = true;
    RolloutMark author = {"ann", "c1", 4711, 0, 0, "", "", 0};
    int signals = 0, looks = 0, puts = 0;
    uint64_t revision = 100;
    int64_t now = 50, lateSeconds = 200;
};

class FleetRolloutTest : public testing::Test {
protected:
    FleetRolloutTest() {
        for (const char* name : {"web_2e1", "web2"}) {
            m_world.hosts[name] = {};
            HostState& host = m_world.hosts[name];
            host.host = name == std::string("web2") ? "web2" : "web.1";
            host.groups = {"web.eu"};
            host.agentRuns = true;
            host.uptimeSeconds = 5000;
        }
        m_options.words = {"maxCpu=20"};
        m_options.group = "web.eu";
        m_options.canary = "100%";
    }
    int Drive() { return DriveRollout(m_world, m_options, m_place); }
    /// Once the chosen hosts have it, at the third look (the first chooses them).
    void AtThirdLook(const std::function<void()>& what) {
        m_world.onLook = [this, what] {
            if (m_world.looks == 3) what();
        };
    }
    bool HostsAreClean() const {
        for (const auto& [name, level] : m_world.levels) {
            if (name.compare(0, 5, "host.") == 0 && level.text) return false;
        }
        return true;
    }
    bool IsWide() const {
        const auto level = m_world.levels.find("group.web_2eeu");
        return level != m_world.levels.end() && level->second.text;
    }

    World m_world;
    RolloutOptions m_options;
    FleetPlace m_place;
};

TEST_F(FleetRolloutTest, AFewThenAllAndNothingIsLeft) {
    EXPECT_EQ(Drive(), 0) << m_world.said;
    EXPECT_THAT(m_world.stored, testing::SizeIs(5));
    EXPECT_EQ(m_world.stored[2], R"(group.web_2eeu {"maxCpu":20})");
    EXPECT_TRUE(HostsAreClean());
    EXPECT_GE(m_world.now, 650);
    EXPECT_THAT(
        m_world.said,
        AllOf(HasSubstr("maxCpu: nothing -> 20\ngroup.web.eu: first 2 of 2 hosts: "),
              HasSubstr("host.web.1 has it, revision 10"), HasSubstr("reported by 2 of 2\nwell for 1 min of 10 min"),
              HasSubstr("group.web.eu has it, revision 103\n"), HasSubstr("host.web.1 has what it had\n"),
              HasSubstr("\ndone: group.web.eu has revision 103\n")));
}

TEST_F(FleetRolloutTest, EachTroubleBringsBackWhatWas) {
    const std::map<std::string, std::function<void()>> troubles{
        {"had a kill: QorHips",
         [this] {
             m_world.hosts["web2"].lastKill = {9, "ab-1", "QorHips"};
         }},
        {"is late", [this] { m_world.late = "web2"; }},
        {"refuses it: maxCpu is odd", [this] { m_world.hosts["web2"].config.error = "maxCpu is odd"; }},
        {"had limits changed by somebody else", [this] { m_world.hosts["web2"].drifts = 3; }},
        {"has a new finding: no limit", [this] {
             m_world.hosts["web2"].problems = 1;
             m_world.hosts["web2"].findings = {"no limit"};
         }}};
    const World fresh = m_world;
    for (const auto& [why, happens] : troubles) {
        m_world = fresh;
        m_world.levels["host.web2"] = {"host.web2", 7, R"({"maxMemory":300})"};
        AtThirdLook(happens);
        EXPECT_EQ(Drive(), 1) << why;
        EXPECT_THAT(m_world.said,
                    AllOf(HasSubstr("going back: web2 " + why), HasSubstr("; nothing of it is left at the broker, ")));
        EXPECT_EQ(m_world.levels["host.web2"].text, R"({"maxMemory":300})") << why;
        EXPECT_FALSE(m_world.levels["host.web_2e1"].text) << why;
        EXPECT_FALSE(IsWide()) << why;
    }
}

TEST_F(FleetRolloutTest, AnAgentThatIsEachTimeAsYoungGoesBack) {
    m_world.onLook = [this] { m_world.hosts["web2"].time = m_world.now; };
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, HasSubstr("going back: web2 has restarted its agent 2 times"));
    EXPECT_TRUE(HostsAreClean());
}

TEST_F(FleetRolloutTest, TheSumCallsHostsAsPeopleCallThem) {
    m_options.json = true;
    EXPECT_EQ(Drive(), 0) << m_world.said;
    const size_t last = m_world.said.rfind("\n", m_world.said.size() - 2) + 1;
    EXPECT_THAT(m_world.said.substr(last), HasSubstr(R"("canaries":["web2","web.1"],)"));
}

TEST_F(FleetRolloutTest, ItsHostsLevelsSayWhoseTheyAre) {
    m_world.levels["host.web2"] = {"host.web2", 7, R"({"maxMemory":300})"};
    m_options.words = {"maxCpu=20", "maxFdCount=99"};
    EXPECT_EQ(Drive(), 0) << m_world.said;
    const std::string first = m_world.stored[0].substr(m_world.stored[0].find(' ') + 1);
    const std::optional<RolloutMark> mark = ReadRolloutMark(first);
    ASSERT_TRUE(mark) << first;
    EXPECT_EQ(mark->user + mark->machine + std::to_string(mark->process), "annc14711");
    EXPECT_EQ(mark->level, "group.web_2eeu");
    EXPECT_EQ(mark->what, "maxCpu=20 maxFdCount=99");
    EXPECT_EQ(mark->since, 1000050);
    EXPECT_EQ(mark->until, 1000050 + 600 + 2400);
    EXPECT_EQ(mark->before, m_world.stored[0].compare(0, 9, "host.web2") == 0 ? 7u : 0u);
    for (const auto& [name, level] : m_world.levels)
        EXPECT_THAT(level.text.value_or(""), Not(HasSubstr("_rollout"))) << name << " has its mark still";
}

TEST_F(FleetRolloutTest, HostsOfAnotherRolloutAreNotTakenTwice) {
    const World fresh = m_world;
    const auto marked = [](const char* level, int64_t until) {
        return std::string(
                   R"({"maxCpu":9,"_rollout":{"user":"bob","machine":"c2","process":5,"since":1000000,"until":)") +
               std::to_string(until) + R"(,"level":")" + level + R"(","what":"maxCpu=9","before":0}})";
    };
    for (const int64_t until : {1009000, 1000049}) {
        for (const char* other : {"all", "group.web_2eeu"}) {
            m_world = fresh;
            m_world.levels["host.web2"] = {"host.web2", 7, marked(other, until)};
            testing::internal::CaptureStderr();
            EXPECT_EQ(Drive(), 1);
            const bool isAlive = until == 1009000;
            EXPECT_THAT(
                testing::internal::GetCapturedStderr(),
                AllOf(HasSubstr("group.web.eu is not changed: there is a rollout of "),
                      HasSubstr(" by bob on c2 (process 5), on web2, which "),
                      HasSubstr(isAlive ? "which goes on: wait for its end, " : "which was left behind: take it"),
                      HasSubstr("take it back: tervanectl fleet config undo --host web2\n")));
            EXPECT_EQ(m_world.puts, 0);
        }
    }
    // Of another group, and on a host that does not belong to this one.
    m_world = fresh;
    m_world.hosts["db1"] = m_world.hosts["web2"];
    m_world.hosts["db1"].groups = {"db"};
    m_world.levels["host.db1"] = {"host.db1", 7, marked("group.db", 1009000)};
    EXPECT_EQ(Drive(), 0);
}

TEST_F(FleetRolloutTest, WhatNeverEndsGoesBackBeforeItsMarkIsOver) {
    m_options.wait = "10m";
    m_world.onLook = [this] {  // a host that loses the value again and again
        m_world.hosts["web2"].config.applied = m_world.now % 500 < 60 ? 0 : m_world.revision;
    };
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, HasSubstr("going back: the hosts had it for too short a time at once, "));
    EXPECT_LT(m_world.now, 50 + 600 + 2400);
    EXPECT_TRUE(HostsAreClean());
}

TEST_F(FleetRolloutTest, WhatIsWaitedForAtTheEndIsLookedAtAsUsual) {
    m_world.late = "web2";  // its states are old: one that is younger than the time has to come
    m_world.lateSeconds = 60;
    int looks = 0;
    m_world.onLook = [this, &looks] {
        if (m_world.now >= 660 && ++looks == 1) m_world.now = 670;
        if (m_world.now >= 700) m_world.late.clear();
    };
    EXPECT_EQ(Drive(), 0) << m_world.said;
    EXPECT_THAT(m_world.said, HasSubstr("one more state of each is waited for"));
    EXPECT_LE(looks, 12) << "every five seconds";
}

TEST_F(FleetRolloutTest, HostsInReasonsAreCalledAsPeopleCallThem) {
    const World fresh = m_world;
    AtThirdLook([this] {
        m_world.hosts["web_2e1"].lastKill = {9, "ab-1", "QorHips"};
        m_world.refused = "host.web_2e1";
        m_world.onPut = [this](const std::string&) { m_world.signals = 2; };
    });
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, AllOf(HasSubstr("going back: web.1 had a kill: QorHips\n"),
                                    HasSubstr("left: host.web.1 keeps the value it was tried with: ")));
    EXPECT_THAT(m_world.said, Not(HasSubstr("_2e")));
    m_world = fresh;
    m_world.refused = "host.web_2e1";
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, HasSubstr("going back: host.web.1 could not be changed: no right to publish\n"));
}

TEST_F(FleetRolloutTest, NotReportedInTimeGoesBack) {
    m_world.isDeaf = true;
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, AllOf(HasSubstr("reported by 0 of 2"), HasSubstr("has not reported it in time")));
    EXPECT_TRUE(HostsAreClean());
}

TEST_F(FleetRolloutTest, WhatSomebodyElseChangedStaysAndIsNamed) {
    AtThirdLook([this] {
        m_world.levels["host.web2"] = {"host.web2", ++m_world.revision, R"({"maxCpu":50})"};
        m_world.signals = 1;
    });
    EXPECT_EQ(Drive(), 1);
    EXPECT_EQ(m_world.levels["host.web2"].text, R"({"maxCpu":50})");
    EXPECT_THAT(m_world.said, AllOf(HasSubstr("left: host.web2 was changed by somebody else"),
                                    HasSubstr("    tervanectl fleet config history --host web2\n")));
    EXPECT_FALSE(m_world.levels["host.web_2e1"].text);
}

TEST_F(FleetRolloutTest, APutWithoutAnAnswerIsReadBack) {
    const World fresh = m_world;
    for (const bool isStored : {true, false}) {
        for (const char* level : {"host.web2", "group.web_2eeu"}) {
            m_world = fresh;
            m_world.silent = level;
            m_world.isSilentStored = isStored;
            const bool isTarget = level[0] == 'g';
            EXPECT_EQ(Drive(), isTarget ? 0 : 1) << m_world.said;
            EXPECT_EQ(IsWide(), isTarget);
            EXPECT_TRUE(HostsAreClean()) << m_world.said;
        }
    }
}

TEST_F(FleetRolloutTest, WhatGoesBackWithoutAnAnswerIsReadToo) {
    const World fresh = m_world;
    for (const bool isStored : {true, false}) {
        m_world = fresh;
        m_world.isSilentStored = isStored;
        AtThirdLook([this] {
            m_world.signals = 1;
            m_world.silent = "host.web2";
        });
        EXPECT_EQ(Drive(), 1);
        EXPECT_TRUE(HostsAreClean());
        EXPECT_THAT(m_world.said, AllOf(HasSubstr("host.web2 has what it had\n"),
                                        HasSubstr("; nothing of it is left at the broker, ")));
    }
}

TEST_F(FleetRolloutTest, ARefusedPutGoesBack) {
    m_world.refused = "group.web_2eeu";
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, HasSubstr("going back: group.web.eu could not be changed: no right to publish"));
    EXPECT_TRUE(HostsAreClean());
}

TEST_F(FleetRolloutTest, AnElectionAtThePutForAllIsWaitedFor) {
    const World fresh = m_world;
    for (const int tries : {3, 1000}) {
        m_world = fresh;
        m_world.refused = "group.web_2eeu";
        int refusals = 0;
        m_world.onPut = [this, &refusals, tries](const std::string& level) {
            if (level[0] == 'g' && ++refusals == tries) m_world.refused.clear();
        };
        const bool isShort = tries == 3;
        EXPECT_EQ(Drive(), isShort ? 0 : 1) << m_world.said;
        EXPECT_EQ(IsWide(), isShort);
        EXPECT_TRUE(HostsAreClean());
        EXPECT_THAT(m_world.said, HasSubstr("tried again for 1 min at most: no right to publish\n"));
        EXPECT_LE(refusals, 13) << "a minute, not for ever";
    }
}

TEST_F(FleetRolloutTest, WhoEndsItWhileAllAreRefusedHasItBackAtOnce) {
    m_world.refused = "group.web_2eeu";
    m_world.onPut = [this](const std::string& level) { m_world.signals = level[0] == 'g' ? 1 : m_world.signals; };
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, Not(HasSubstr("tried again")));
    EXPECT_TRUE(HostsAreClean());
}

TEST_F(FleetRolloutTest, OneThatIsRefusedHoldsNoOtherBack) {
    const World fresh = m_world;
    for (const std::string kept : {"web_2e1", "web2"}) {
        m_world = fresh;
        m_world.hosts["web3"] = m_world.hosts["web2"];
        m_world.hosts["web3"].host = "web3";
        int64_t begunAt = 0, restAt = 0;
        AtThirdLook([&] {
            m_world.signals = 1;
            m_world.refused = "host." + kept;
            begunAt = m_world.now;
        });
        m_world.onPut = [&](const std::string& level) {
            if (m_world.signals > 0 && level != m_world.refused) restAt = m_world.now;
        };
        EXPECT_EQ(Drive(), 1);
        EXPECT_LE(restAt, begunAt + 5) << "the others wait for nothing";
        for (const auto& [name, host] : m_world.hosts)
            EXPECT_EQ(m_world.levels["host." + name].text.has_value(), name == kept) << m_world.said;
        const std::string name = kept == "web2" ? "web2" : "web.1";
        EXPECT_THAT(m_world.said,
                    AllOf(HasSubstr("left: host." + name + " keeps the value it was tried with: no right to publish\n"),
                          HasSubstr("    tervanectl fleet config undo --host " + name + "\n"),
                          HasSubstr("host.web3 has what it had\n")));
    }
}

TEST_F(FleetRolloutTest, OneThatIsRefusedForAWhileGetsItBackToo) {
    AtThirdLook([this] {
        m_world.signals = 1;
        m_world.refused = "host.web2";
    });
    m_world.onPut = [this](const std::string&) {
        if (m_world.puts > 20) m_world.refused.clear();
    };
    EXPECT_EQ(Drive(), 1);
    EXPECT_TRUE(HostsAreClean()) << m_world.said;
    EXPECT_THAT(m_world.said, HasSubstr("; nothing of it is left at the broker, "));
}

TEST_F(FleetRolloutTest, AllThatHadNoAnswerAndIsAnothersNowIsUnknown) {
    m_world.silent = "group.web_2eeu";
    m_world.onRead = [this](const std::string& level) {
        if (level[0] == 'g') m_world.levels[level] = {level, ++m_world.revision, R"({"maxCpu":33})"};
    };
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said,
                AllOf(HasSubstr("left: it is not known whether group.web.eu was changed: the broker did not "
                                "answer, and somebody else has changed it since\n"),
                      HasSubstr("    tervanectl fleet config history --group web.eu\n"),
                      Not(HasSubstr("could not be changed")), Not(HasSubstr("config unset"))));
    EXPECT_TRUE(HostsAreClean());
}

TEST_F(FleetRolloutTest, ABrokerThatIsBackInTimeGetsAllBack) {
    AtThirdLook([this] { m_world.signals = 1; });
    m_world.onPut = [this](const std::string&) { m_world.isAway = m_world.signals > 0 && m_world.puts < 10; };
    EXPECT_EQ(Drive(), 1);
    EXPECT_TRUE(HostsAreClean()) << m_world.said;
    EXPECT_THAT(m_world.said, AllOf(HasSubstr("tried again for 5 min at most: "), HasSubstr("nothing of it is left")));
}

TEST_F(FleetRolloutTest, ABrokerThatStaysAwayHasCommandsNamed) {
    m_world.levels["host.web2"] = {"host.web2", 7, R"({"maxMemory":300})"};
    m_place.credentials = "my chief.creds";
    AtThirdLook([this] { m_world.isAway = true; });
    EXPECT_EQ(Drive(), 1);
    EXPECT_LT(m_world.now, 50 + 700);
    EXPECT_THAT(m_world.said,
                AllOf(HasSubstr("    tervanectl fleet --creds 'my chief.creds' config undo --to 7 --host web2\n"),
                      HasSubstr("    tervanectl fleet --creds 'my chief.creds' config history --host web.1\n"),
                      HasSubstr("something of it is left, see above\n"), Not(HasSubstr("nothing of it is left"))));
}

TEST_F(FleetRolloutTest, EndedWhileItPutsGoesBack) {
    m_world.onPut = [this](const std::string&) { m_world.signals = 1; };
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.stored, testing::SizeIs(2)) << "one was put, and taken back";
    EXPECT_TRUE(HostsAreClean());
    EXPECT_THAT(m_world.said, HasSubstr("going back: somebody has ended it\n"));
}

TEST_F(FleetRolloutTest, EndedBeforeAllHaveItIsNotPutAgain) {
    m_world.silent = "group.web_2eeu";
    m_world.isSilentStored = false;
    m_world.onPut = [this](const std::string& level) { m_world.signals = level[0] == 'g' ? 1 : m_world.signals; };
    EXPECT_EQ(Drive(), 1);
    EXPECT_FALSE(IsWide());
    EXPECT_TRUE(HostsAreClean());
    EXPECT_THAT(m_world.said, HasSubstr("    tervanectl fleet config history --group web.eu\n"));
}

TEST_F(FleetRolloutTest, EndedOnceAllHaveItIsDone) {
    m_world.onPut = [this](const std::string& level) { m_world.signals = level[0] == 'g' ? 1 : m_world.signals; };
    EXPECT_EQ(Drive(), 0);
    EXPECT_TRUE(IsWide());
    EXPECT_TRUE(HostsAreClean());
    EXPECT_THAT(m_world.said, HasSubstr("group.web.eu has the change already, and keeps it\n"));
}

TEST_F(FleetRolloutTest, EndedTwiceNamesWhatIsLeft) {
    AtThirdLook([this] { m_world.signals = 2; });
    EXPECT_EQ(Drive(), 1);
    EXPECT_EQ(m_world.puts, 2);
    EXPECT_THAT(
        m_world.said,
        AllOf(HasSubstr("left: host.web2 keeps the value it was tried with: somebody has ended it a second time"),
              HasSubstr("    tervanectl fleet config undo --host web.1\n")));
}

/// At a program that answers as a broker, by requests over its pipes and real signals.
class FleetRolloutRunTest : public fleettest::FleetFixture {
protected:
    /// A rollout gets these once its host has the value.
    void RunAndSend(const std::vector<int>& signals) {
        AddHost(WellHost("web1"), 1);
        options.config.words = {"maxCpu=20"};
        options.config.wait = m_wait;
        WriteWorld();
        bool isPut = false;
        std::thread killer([&] {
            isPut = support::Eventually(
                [this] { return support::ReadText(WorldFile()).find("host.web1") != std::string::npos; });
            sigaction(SIGTERM, nullptr, &m_meanwhile);
            for (const int number : signals) kill(getpid(), isPut ? number : SIGKILL);
        });
        EXPECT_EQ(Run("config rollout"), m_code) << err;
        killer.join();
    }
    void ExpectBack() {
        const Json::Value config = WorldNow()["config"];
        ASSERT_EQ(config.size(), 2u) << out;
        EXPECT_THAT(config[0]["value"].asString(), AllOf(HasSubstr(R"("maxCpu":20)"), HasSubstr(R"("_rollout":{)")));
        EXPECT_TRUE(config[1]["deleted"].asBool());
        EXPECT_THAT(out, HasSubstr("going back: somebody has ended it\nhost.web1 has what it had\n"));
    }

    struct sigaction m_meanwhile {};
    std::string m_wait = "1h";
    int m_code = 1;
};

TEST_F(FleetRolloutRunTest, ASignalBringsAllBack) {
    RunAndSend({SIGTERM});
    ExpectBack();
    for (const int number : {SIGINT, SIGHUP, SIGTERM})
        EXPECT_EQ(sigismember(&m_meanwhile.sa_mask, number), 1) << number << " could come while one is counted";
}

TEST_F(FleetRolloutRunTest, TheTerminalsKeyBringsAllBack) {
    RunAndSend({SIGINT});
    ExpectBack();
}

TEST_F(FleetRolloutRunTest, ALostTerminalBringsAllBack) {
    RunAndSend({SIGPIPE, SIGHUP, SIGTERM, SIGHUP});  // of the shell, the session's manager and the kernel
    ExpectBack();
}

TEST_F(FleetRolloutRunTest, WhatWasIgnoredBeforeIsNoEnd) {
    // As below nohup: it goes on without its terminal.
    struct sigaction before {
    }, ignored{}, after{};
    ignored.sa_handler = SIG_IGN;
    sigaction(SIGHUP, &ignored, &before);
    m_wait = "3s";
    m_code = 0;
    RunAndSend({SIGHUP});
    sigaction(SIGHUP, &before, &after);
    EXPECT_EQ(after.sa_handler, SIG_IGN);
    EXPECT_THAT(out, HasSubstr("\ndone: all has revision "));
}

TEST_F(FleetRolloutRunTest, AProgramThatEndsIsStartedAnew) {
    AddHost(WellHost("web1"), 1);
    options.config.words = {"maxCpu=20"};
    options.config.wait = "1s";
    world["faults"]["put"] = Parsed(R"(["none", "die", "none", "none"])");
    EXPECT_EQ(Run("config rollout"), 0) << out << err;
    const Json::Value config = WorldNow()["config"];
    ASSERT_EQ(config.size(), 3u) << out;
    EXPECT_EQ(config[1]["key"], "all");
    EXPECT_THAT(out, HasSubstr("tried again for 5 min at most: the fleet is not reached: the connection is lost"));
}

TEST_F(FleetRolloutTest, WhatIsSoAlreadyIsNotTried) {
    m_world.levels["group.web_2eeu"] = {"group.web_2eeu", 9, R"({"maxCpu":20})"};
    EXPECT_EQ(Drive(), 0);
    EXPECT_EQ(m_world.puts, 0);
    m_options.group = "nobody";
    EXPECT_EQ(Drive(), 1);
    EXPECT_THAT(m_world.said, HasSubstr("not done: no host of group.nobody is well enough to try it on"));
    m_world.isAway = true;
    EXPECT_EQ(Drive(), 2);
}

TEST_F(FleetRolloutTest, WhatIsTypedIsJudgedBeforeABrokerIsAsked) {
    EXPECT_EQ(ParseCanaryPercent("5%"), 5);
    EXPECT_EQ(ParseCanaryPercent("100"), 100);
    for (const char* text : {"", "%", "0", "101%", "-1", "5 %", "1e2"}) EXPECT_EQ(ParseCanaryPercent(text), 0) << text;
    EXPECT_EQ(ParseRolloutWait("90s"), 90);
    EXPECT_EQ(ParseRolloutWait("10m"), 600);
    EXPECT_EQ(ParseRolloutWait("7d"), 604800);
    for (const char* text : {"", "m", "0m", "8d", "10 m", "99999999s", "1w"})
        EXPECT_EQ(ParseRolloutWait(text), 0) << text;
    EXPECT_EQ(JudgeRollout(m_options), 0);
    m_options.words = {"maxCpu"};
    EXPECT_EQ(JudgeRollout(m_options), 11);
    m_options.words = {"maxCpu=odd"};
    EXPECT_EQ(JudgeRollout(m_options), 1);
}

TEST_F(FleetRolloutTest, EachLineOfItsJsonIsAnObject) {
    m_options.json = true;
    EXPECT_EQ(Drive(), 0);
    std::istringstream in(m_world.said);
    std::string line, schema;
    for (Json::Value view; std::getline(in, line);) {
        Json::CharReaderBuilder builder;
        std::string errors;
        std::istringstream one(line);
        ASSERT_TRUE(Json::parseFromStream(builder, one, &view, &errors)) << line;
        schema = view["schema"].asString();
    }
    EXPECT_EQ(schema, "tervanectl.fleet-rollout") << "the sum comes last";
}

}  // namespace
