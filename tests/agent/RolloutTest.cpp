// A staged change: who gets it first, what stops it, and that everything comes back.
#include "fleet/Rollout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

using namespace agent;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/// A broker's keys and hosts that take what they are given.
class RolloutTest : public testing::Test {
protected:
    RolloutTest() {
        for (int i = 0; i < 40; ++i) {
            FleetHost host;
            host.state.agentRuns = true;
            host.state.uptimeSeconds = 1000;
            host.state.groups = {i < 30 ? "web" : "db"};
            m_hosts["h" + std::to_string(i)] = host;
        }
        m_plan = {"group.web", R"({"maxCpu": 20})", 5, 600, 180};
    }

    Rollout Begin() {
        std::vector<RemoteLevel> levels;
        for (const auto& [name, level] : m_levels) levels.push_back(level);
        return Rollout(m_plan, m_hosts, levels, m_now);
    }
    /// Stores what is to be put, as a broker does: only with the revision that is expected.
    void Store(Rollout& rollout) {
        while (const std::optional<RolloutPut> put = rollout.Next()) {
            RemoteLevel& level = m_levels[put->level];
            if (put->isUnknown) {
                rollout.OnRead(level);
                continue;
            }
            m_puts.push_back(put->level + (put->text ? " " + *put->text : " deleted"));
            if (level.revision != put->expected || put->level == m_contested) {
                rollout.OnPut(PutOutcome::kConflict, 0, "somebody else has changed it");
                if (put->level == m_contested) m_contested.clear();
                continue;
            }
            if (put->level == m_silent && m_silentStores == Silent::kNever) {
                Lose(rollout);
                continue;
            }
            level = {put->level, ++m_revision, put->text};
            if (put->level == m_silent)
                Lose(rollout);
            else
                rollout.OnPut(PutOutcome::kStored, m_revision, "");
        }
    }
    void Lose(Rollout& rollout) {
        m_silent.clear();
        rollout.OnPut(PutOutcome::kUnknown, 0, "no answer");
    }
    void Apply(const std::string& host) { m_hosts.at(host).state.config.applied = m_revision; }
    void Until(Rollout& rollout, int64_t seconds) {
        for (const int64_t end = m_now + seconds; m_now < end; m_now += 5) rollout.Look(m_hosts, m_now);
        rollout.Look(m_hosts, m_now);
    }
    std::map<std::string, std::optional<std::string>> Texts() const {
        std::map<std::string, std::optional<std::string>> texts;
        for (const auto& [name, level] : m_levels) {
            if (level.text) texts[name] = level.text;
        }
        return texts;
    }

    FleetHosts m_hosts;
    RolloutPlan m_plan;
    std::map<std::string, RemoteLevel> m_levels;
    std::vector<std::string> m_puts;
    std::string m_contested;
    enum class Silent { kStored, kNever } m_silentStores = Silent::kStored;
    std::string m_silent;  // the level whose next put has no answer
    uint64_t m_revision = 100;
    int64_t m_now = 50;
};

}  // namespace

TEST_F(RolloutTest, AFewGetItAndThenAll) {
    m_levels["group.web"] = {"group.web", 7, R"({"maxMemory": 300})"};
    Rollout rollout = Begin();
    ASSERT_THAT(rollout.Canaries(), SizeIs(2)) << "5 % of the 30 that belong to it";
    for (const std::string& name : rollout.Canaries()) m_levels["host." + name].name = "host." + name;
    Store(rollout);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching);
    EXPECT_EQ(m_puts[0], "host." + rollout.Canaries()[0] + R"( {"maxCpu":20})");
    for (const std::string& name : rollout.Canaries()) Apply(name);
    Until(rollout, 600);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching) << "they are looked at for the whole time";
    Until(rollout, 5);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWidening);
    Store(rollout);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kDone);
    EXPECT_EQ(m_puts[2], R"(group.web {"maxCpu":20,"maxMemory":300})");
    EXPECT_THAT(Texts(), SizeIs(1)) << "the hosts have no level of their own any more";
    EXPECT_THAT(rollout.Left(), IsEmpty());
}

TEST_F(RolloutTest, EachTellsAStateAfterTheOneThatReportedIt) {
    m_plan.waitSeconds = 8;
    Rollout rollout = Begin();
    Store(rollout);
    for (const std::string& name : rollout.Canaries()) Apply(name);
    FleetHost& last = m_hosts.at(rollout.Canaries()[1]);
    rollout.Look(m_hosts, m_now);
    for (int64_t i = 1; i <= 60; ++i) {
        last.silentSeconds = i;
        rollout.Look(m_hosts, m_now + i);
    }
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching) << "what it last said was before anything could have shown";
    last.silentSeconds = 0;
    last.state.problems = 1;
    rollout.Look(m_hosts, m_now + 61);
    EXPECT_THAT(rollout.Reason(), HasSubstr("has a new finding"));
}

TEST_F(RolloutTest, AHostThatFallsSilentWhileItIsWatchedStopsIt) {
    m_plan.waitSeconds = 120;
    Rollout rollout = Begin();
    Store(rollout);
    for (const std::string& name : rollout.Canaries()) Apply(name);
    FleetHost& last = m_hosts.at(rollout.Canaries()[1]);
    rollout.Look(m_hosts, m_now);
    // It tells one state more, and freezes: by the end of the time it is not late yet.
    for (int64_t i = 5; i < 180; i += 5) {
        last.silentSeconds = i - 5;
        rollout.Look(m_hosts, m_now + i);
        ASSERT_EQ(rollout.Phase(), RolloutPhase::kWatching) << i;
    }
    last.silentSeconds = 180;
    rollout.Look(m_hosts, m_now + 185);
    EXPECT_THAT(rollout.Reason(), HasSubstr("is late"));
}

TEST_F(RolloutTest, AGroupIsFoundByItsEscapedName) {
    for (auto& [name, host] : m_hosts) host.state.groups = {"web.eu"};
    m_plan.target = "group.web_2eeu";
    EXPECT_THAT(Begin().Canaries(), SizeIs(2));
    m_plan.target = "group.web.eu";
    EXPECT_THAT(Begin().Canaries(), IsEmpty());
}

TEST_F(RolloutTest, WhatStopsItBringsEverythingBack) {
    using Change = void (*)(FleetHost&);
    const std::pair<const char*, Change> cases[] = {
        {"is late", [](FleetHost& h) { h.silentSeconds = 180; }},
        {"is gone", [](FleetHost& h) { h.silentSeconds = 600; }},
        {"refuses it: why", [](FleetHost& h) { h.state.config.error = "why"; }},
        {"keeps a file of its own", [](FleetHost& h) { h.state.config.pinned = true; }},
        {"has no running agent", [](FleetHost& h) { h.state.agentRuns = false; }},
        {"had a kill: QorNet",
         [](FleetHost& h) {
             h.state.lastKill = {9, "x-1", "QorNet"};
         }},
        {"had limits changed", [](FleetHost& h) { h.state.drifts = 4; }},
        {"has a new finding: it burns", [](FleetHost& h) { h.state.problems = 1, h.state.findings = {"it burns"}; }},
    };
    for (auto& [name, host] : m_hosts) host.state.drifts = 3;
    const FleetHosts hosts = m_hosts;
    for (const auto& [text, change] : cases) {
        m_hosts = hosts;
        m_levels.clear();
        m_levels["group.web"] = {"group.web", 7, R"({"maxCpu": 10})"};
        const std::vector<std::string> chosen = Begin().Canaries();
        const std::string &first = chosen[0], &second = chosen[1];
        m_levels["host." + first] = {"host." + first, 3, R"({"maxCpu": 1, "maxFdCount": 5})"};
        const auto before = Texts();
        Rollout rollout = Begin();
        Store(rollout);
        Apply(first);
        Apply(second);
        Until(rollout, 300);
        ASSERT_EQ(rollout.Phase(), RolloutPhase::kWatching) << text;
        change(m_hosts.at(second));
        Until(rollout, 5);
        EXPECT_EQ(rollout.Phase(), RolloutPhase::kGoingBack) << text;
        EXPECT_THAT(rollout.Reason(), HasSubstr(second + " " + text));
        Store(rollout);
        EXPECT_EQ(rollout.Phase(), RolloutPhase::kFailed);
        EXPECT_EQ(Texts(), before) << text;
    }
}

TEST_F(RolloutTest, AnAgentThatWasRestartedCountsItsDriftsAnew) {
    for (auto& [name, host] : m_hosts) host.state.drifts = 3;
    Rollout rollout = Begin();
    Store(rollout);
    for (const std::string& name : rollout.Canaries()) {
        Apply(name);
        m_hosts.at(name).state.uptimeSeconds = 5;
        m_hosts.at(name).state.drifts = 0;
    }
    Until(rollout, 300);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching);
    m_hosts.at(rollout.Canaries()[1]).state.drifts = 1;
    Until(rollout, 5);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kGoingBack);
}

TEST_F(RolloutTest, WhoDoesNotReportItInTimeStopsIt) {
    Rollout rollout = Begin();
    Store(rollout);
    Apply(rollout.Canaries()[0]);
    m_hosts.at(rollout.Canaries()[1]).state.config.applied = m_revision - 1;
    Until(rollout, 175);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching);
    Until(rollout, 5);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kGoingBack);
    EXPECT_THAT(rollout.Reason(), HasSubstr(rollout.Canaries()[1] + " has not reported it in time"));
}

TEST_F(RolloutTest, SomebodyElsesChangeIsNotOverwritten) {
    Rollout rollout = Begin();
    m_contested = "host." + rollout.Canaries()[1];
    Store(rollout);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(rollout.Reason(), HasSubstr("somebody else has changed it"));
    EXPECT_THAT(m_puts, SizeIs(3)) << "the second was never changed and is not brought back";
    EXPECT_THAT(Texts(), IsEmpty());

    Rollout wide = Begin();
    Store(wide);
    for (const std::string& name : wide.Canaries()) Apply(name);
    m_contested = "group.web";
    Until(wide, 605);
    Store(wide);
    EXPECT_EQ(wide.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(wide.Reason(), HasSubstr("group.web could not be changed"));
    EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(RolloutTest, WhatCannotBeBroughtBackIsTold) {
    Rollout rollout = Begin();
    Store(rollout);
    m_levels["host." + rollout.Canaries()[0]] = {"", ++m_revision, R"({"maxCpu": 33})"};
    rollout.Cancel("asked for");
    Store(rollout);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kFailed);
    EXPECT_EQ(rollout.Reason(), "asked for");
    ASSERT_THAT(rollout.Left(), SizeIs(1));
    EXPECT_EQ(rollout.Left()[0], "host." + rollout.Canaries()[0] + " was changed by somebody else and stays as it is");
    EXPECT_THAT(Texts(), SizeIs(1)) << "the other one's is back, the foreign change stays";
}

TEST_F(RolloutTest, ACanaryWhosePutHadNoAnswerGoesBackToo) {
    for (const Silent stores : {Silent::kStored, Silent::kNever}) {
        m_levels.clear();
        const std::string first = Begin().Canaries()[0], second = Begin().Canaries()[1];
        m_levels["host." + second] = {"host." + second, 3, R"({"maxCpu": 1})"};
        const auto before = Texts();
        Rollout rollout = Begin();
        m_silent = "host." + second;
        m_silentStores = stores;
        Store(rollout);
        EXPECT_EQ(rollout.Phase(), RolloutPhase::kFailed);
        EXPECT_EQ(rollout.Reason(), "it is not known whether host." + second + " was changed: no answer");
        EXPECT_EQ(Texts(), before);
        EXPECT_GT(m_levels["host." + second].revision, 3u) << "an attempt that comes late finds another revision";
        EXPECT_THAT(rollout.Left(), IsEmpty());
    }
}

TEST_F(RolloutTest, WhatNobodyKnowsIsTold) {
    Rollout unread = Begin();
    const std::string first = "host." + unread.Canaries()[0];
    unread.Next();
    unread.OnPut(PutOutcome::kUnknown, 0, "no answer");
    ASSERT_TRUE(unread.Next()->isUnknown);
    unread.OnRead(base::SentenceError("no broker"));
    EXPECT_EQ(unread.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(unread.Left(),
                ElementsAre("it is not known whether " + first + " keeps the value it was tried with: no broker"));

    Rollout foreign = Begin();
    foreign.Next();
    foreign.OnPut(PutOutcome::kUnknown, 0, "no answer");
    foreign.Next();
    foreign.OnRead(RemoteLevel{first, 77, R"({"maxCpu": 33})"});
    EXPECT_THAT(foreign.Left(), ElementsAre(first + " was changed by somebody else and stays as it is"));

    Rollout wide = Begin();
    Store(wide);
    for (const std::string& name : wide.Canaries()) Apply(name);
    Until(wide, 605);
    m_silent = "group.web";
    Store(wide);
    EXPECT_EQ(wide.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(wide.Left(), ElementsAre("it is not known whether group.web was changed: no answer"));

    Rollout back = Begin();
    Store(back);
    back.Cancel("asked for");
    back.Next();
    back.OnPut(PutOutcome::kRefused, 0, "no right");
    back.Next();
    back.OnPut(PutOutcome::kUnknown, 0, "no answer");
    EXPECT_EQ(back.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(back.Left(), ElementsAre(first + " keeps the value it was tried with: no right",
                                         "it is not known whether host." + back.Canaries()[1] +
                                             " keeps the value it was tried with: no answer"));
}

TEST_F(RolloutTest, AnEndThatIsAskedForWaitsForTheAnswer) {
    Rollout rollout = Begin();
    const std::optional<RolloutPut> put = rollout.Next();
    ASSERT_TRUE(put);
    rollout.Cancel("asked for");
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kCanaries) << "an answer is due";
    m_levels[put->level] = {put->level, ++m_revision, put->text};
    rollout.OnPut(PutOutcome::kStored, m_revision, "");
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kGoingBack);
    EXPECT_EQ(rollout.Reason(), "asked for");
    Store(rollout);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(Texts(), IsEmpty());
    EXPECT_THAT(rollout.Left(), IsEmpty());

    for (const bool stored : {true, false}) {
        m_levels.clear();
        Rollout wide = Begin();
        Store(wide);
        for (const std::string& name : wide.Canaries()) Apply(name);
        Until(wide, 605);
        ASSERT_TRUE(wide.Next());
        wide.Cancel("too late");
        wide.OnPut(stored ? PutOutcome::kStored : PutOutcome::kConflict, ++m_revision, "why");
        Store(wide);
        EXPECT_EQ(wide.Phase(), stored ? RolloutPhase::kDone : RolloutPhase::kFailed);
    }
    Rollout before = Begin();
    Store(before);
    for (const std::string& name : before.Canaries()) Apply(name);
    Until(before, 605);
    ASSERT_EQ(before.Phase(), RolloutPhase::kWidening);
    before.Cancel("in time");
    EXPECT_EQ(before.Phase(), RolloutPhase::kGoingBack) << "all have got nothing yet";
}

TEST_F(RolloutTest, ASecondRestartOfAnAgentStopsIt) {
    Rollout rollout = Begin();
    Store(rollout);
    for (const std::string& name : rollout.Canaries()) Apply(name);
    const std::string& name = rollout.Canaries()[0];
    Until(rollout, 5);
    m_hosts.at(name).state.uptimeSeconds = 10;
    Until(rollout, 100);
    m_hosts.at(name).state.uptimeSeconds = 2000;  // longer than before it all began
    Until(rollout, 100);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching) << "one may be an update";
    m_hosts.at(name).state.uptimeSeconds = 1500;
    Until(rollout, 5);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kGoingBack);
    EXPECT_THAT(rollout.Reason(), HasSubstr(name + " has restarted its agent 2 times"));
}

/// A host's next state: so much later by its own clock, stored when it is looked at.
static void TellState(FleetHost& host, int64_t later, int64_t uptime) {
    ++host.revision;
    host.state.time += later;
    host.state.uptimeSeconds = uptime;
    host.silentSeconds = 0;
}

TEST_F(RolloutTest, ACrashLoopOfEqualUptimesStopsIt) {
    const FleetHosts fresh = m_hosts;
    for (const int64_t apart : {60, 5}) {  // states of each minute, or as often as a host may tell one
        m_hosts = fresh;
        m_levels.clear();
        for (auto& [name, host] : m_hosts) host.state.uptimeSeconds = 4;
        Rollout rollout = Begin();
        Store(rollout);
        for (const std::string& name : rollout.Canaries()) Apply(name);
        const std::string& name = rollout.Canaries()[0];
        for (const int64_t end = m_now + 120; m_now < end;) {
            m_now += apart;
            TellState(m_hosts.at(name), apart, 5);
            rollout.Look(m_hosts, m_now);
            rollout.Look(m_hosts, m_now);
        }
        EXPECT_EQ(rollout.Phase(), RolloutPhase::kGoingBack) << apart;
        EXPECT_THAT(rollout.Reason(), HasSubstr(name + " has restarted its agent 2 times"));
    }
}

TEST_F(RolloutTest, AHostThatTellsNothingNewHasNotRestarted) {
    Rollout rollout = Begin();
    Store(rollout);
    for (const std::string& name : rollout.Canaries()) Apply(name);
    for (int i = 0; i < 30; ++i) {
        m_now += 5;
        for (auto& [name, host] : m_hosts) host.silentSeconds = (i % 12) * 5 + 3;
        if (i % 12 == 0)
            for (auto& [name, host] : m_hosts) TellState(host, 60, host.state.uptimeSeconds + 60);
        rollout.Look(m_hosts, m_now);
        ASSERT_EQ(rollout.Phase(), RolloutPhase::kWatching) << rollout.Reason();
    }
}

TEST_F(RolloutTest, AHealthyHostIsNeverCalledRestarted) {
    struct Tick {
        int64_t looked, byItsClock, uptime;
    };
    const std::pair<const char*, std::vector<Tick>> cases[] = {
        {"states that come early and late", {{66, 54, 54}, {54, 66, 66}, {66, 54, 54}, {70, 60, 56}, {5, 5, 6}}},
        {"ages that were taken before the rest", {{70, 70, 58}, {50, 50, 62}, {70, 70, 58}, {50, 50, 62}}},
        {"states that a broker took late", {{180, 60, 60}, {200, 60, 60}, {150, 60, 60}}},
        {"a clock that is set", {{60, 3660, 60}, {60, -3540, 60}, {60, 3660, 60}}}};
    const FleetHosts fresh = m_hosts;
    for (const auto& [what, ticks] : cases) {
        m_hosts = fresh;
        m_levels.clear();
        Rollout rollout = Begin();
        Store(rollout);
        for (const std::string& name : rollout.Canaries()) Apply(name);
        FleetHost& host = m_hosts.at(rollout.Canaries()[0]);
        for (const Tick& tick : ticks) {
            m_now += tick.looked;
            TellState(host, tick.byItsClock, host.state.uptimeSeconds + tick.uptime);
            rollout.Look(m_hosts, m_now);
            ASSERT_EQ(rollout.Phase(), RolloutPhase::kWatching) << what << ": " << rollout.Reason();
        }
    }
}

TEST_F(RolloutTest, DriftsOfARestartedAgentCountHoweverLongAgo) {
    for (auto& [name, host] : m_hosts) host.state.drifts = 3;
    Rollout rollout = Begin();
    Store(rollout);
    for (const std::string& name : rollout.Canaries()) Apply(name);
    HostState& state = m_hosts.at(rollout.Canaries()[0]).state;
    state.uptimeSeconds = 5;
    state.drifts = 0;
    Until(rollout, 5);
    state.uptimeSeconds = 1400;
    Until(rollout, 5);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching);
    state.drifts = 2;
    Until(rollout, 5);
    EXPECT_THAT(rollout.Reason(), HasSubstr("had limits changed"));
}

TEST_F(RolloutTest, AKillThatIsForgottenIsNoKill) {
    for (auto& [name, host] : m_hosts) host.state.lastKill = {9, "x-1", "QorNet"};
    Rollout rollout = Begin();
    Store(rollout);
    for (const std::string& name : rollout.Canaries()) {
        Apply(name);
        m_hosts.at(name).state.lastKill = {};
    }
    Until(rollout, 300);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching) << rollout.Reason();
    m_hosts.at(rollout.Canaries()[0]).state.lastKill = {12, "x-2", "QorNet"};
    Until(rollout, 5);
    EXPECT_THAT(rollout.Reason(), HasSubstr("had a kill"));
}

TEST_F(RolloutTest, WhoLosesItAgainHasTimeToReportIt) {
    Rollout rollout = Begin();
    Store(rollout);
    Until(rollout, 100);
    for (const std::string& name : rollout.Canaries()) Apply(name);
    Until(rollout, 300);
    m_hosts.at(rollout.Canaries()[0]).state.config.applied = 0;
    Until(rollout, 100);
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kWatching) << rollout.Reason();
    Until(rollout, 90);
    EXPECT_THAT(rollout.Reason(), HasSubstr("has not reported it in time"));
}

TEST_F(RolloutTest, AValueCannotBeTakenAwayInSteps) {
    m_plan.change = R"({"maxFdCount": 9, "maxCpu": null})";
    m_levels["group.web"] = {"group.web", 7, R"({"maxCpu": 10})"};
    Rollout rollout = Begin();
    EXPECT_EQ(rollout.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(rollout.Reason(), HasSubstr("a value that is taken away (null) cannot be tried on a few hosts"));
    EXPECT_FALSE(rollout.Next());
}

TEST_F(RolloutTest, ItBeginsOnlyWhereItCanSucceed) {
    m_plan.change = R"({"maxCpu": 90000})";
    Rollout bad = Begin();
    EXPECT_EQ(bad.Phase(), RolloutPhase::kFailed);
    EXPECT_THAT(bad.Reason(), HasSubstr("outside 0..10000"));
    EXPECT_FALSE(bad.Next());
    m_plan = {"group.none", R"({"maxCpu": 1})", 5, 600, 180};
    EXPECT_EQ(Begin().Phase(), RolloutPhase::kFailed);
    m_plan.target = "group.db";
    for (auto& [name, host] : m_hosts) host.state.problems = 1;
    EXPECT_EQ(Begin().Phase(), RolloutPhase::kFailed) << "nobody is well";
    for (auto& [name, host] : m_hosts) host.state.problems = 0, host.state.config.pinned = true;
    EXPECT_EQ(Begin().Phase(), RolloutPhase::kFailed) << "nobody takes it";
}

TEST_F(RolloutTest, TheShareIsOfAllAndOneAtLeast) {
    const auto share = [this](const char* target, int percent) {
        m_plan.target = target;
        m_plan.percent = percent;
        return Begin().Canaries().size();
    };
    EXPECT_EQ(share("all", 5), 2u);
    EXPECT_EQ(share("all", 6), 3u);
    EXPECT_EQ(share("group.db", 1), 1u);
    EXPECT_EQ(share("group.db", 100), 10u);
    EXPECT_EQ(share("group.db", 0), 1u);
    EXPECT_EQ(share("group.db", 1000), 10u);
    m_plan.target = "group.web";
    m_plan.percent = 5;
    const std::vector<std::string> web = Begin().Canaries();
    EXPECT_EQ(web, Begin().Canaries()) << "the same for the same fleet";
    m_hosts.at(web[0]).silentSeconds = 200;
    const std::vector<std::string> others = Begin().Canaries();
    EXPECT_EQ(std::count(others.begin(), others.end(), web[0]), 0) << "who is late is no judge";
    m_levels["host." + others[0]] = {"host." + others[0], 3, "[]"};
    const std::vector<std::string> changeable = Begin().Canaries();
    EXPECT_EQ(std::count(changeable.begin(), changeable.end(), others[0]), 0) << "its own level is damaged";
}

TEST_F(RolloutTest, AValueIsTakenAwayByNull) {
    EXPECT_EQ(*ChangeLevel(R"({"maxCpu": 1, "maxMemory": 2})", R"({"maxCpu": null, "maxFdCount": 3})"),
              R"({"maxFdCount":3,"maxMemory":2})");
    EXPECT_EQ(*ChangeLevel(std::nullopt, R"({"maxCpu": 1})"), R"({"maxCpu":1})");
    EXPECT_FALSE(ChangeLevel("[]", R"({"maxCpu": 1})"));
    EXPECT_FALSE(ChangeLevel("{}", "3"));
    EXPECT_FALSE(ChangeLevel("{}", R"({"maxCpuu": 1})"));
    EXPECT_FALSE(ChangeLevel("{", R"({"maxCpu": 1})"));
}

TEST_F(RolloutTest, ALevelThatIsNoUtf8IsRefused) {
    // A byte alone, half of a character, the half of a pair that only an escape can name.
    for (const char* text :
         {"{\"_a\": \"\x85\"}", "{\"_\x85\": \"x\"}", "{\"_a\": \"\xe2\x82\"}", R"({"_a": "\udc00"})"}) {
        const base::Result<std::string> changed = ChangeLevel("{}", text);
        ASSERT_FALSE(changed) << text;
        EXPECT_EQ(changed.GetError().Text(), "a name or value in it is not written in UTF-8");
        EXPECT_FALSE(ChangeLevel(text, R"({"maxCpu": 1})")) << text;
    }
    const std::string euro = *ChangeLevel("{}", "{\"_\xe2\x82\xac\": \"\xf0\x9f\x98\x80\"}");
    EXPECT_EQ(*ChangeLevel(euro, "{\"_\xe2\x82\xac\": \"\xf0\x9f\x98\x80\"}"), euro);
}
