// A host's state on its way to the fleet and back: nothing lost, bounded, and judged by its age.
#include "fleet/HostState.h"

#include <gtest/gtest.h>

#include "Printable.h"

using namespace agent;

namespace {

HostState Full() {
    HostState state;
    state.host = "h1";
    state.groups = {"web", "db"};
    state.version = "0.1.0";
    state.time = 4102444800;  // beyond 2038
    state.uptimeSeconds = 3;
    state.agentRuns = true;
    state.mode = "limits in force";
    state.problems = 2;
    state.findings = {"one", "two"};
    state.config = {5000000000, 4999999999, true, "why"};
    state.eventsWaiting = 6;
    state.oldestWaitingSeconds = 7;
    state.eventsDropped = 8;
    state.eventsGivenUp = 9;
    state.blocked = "the stream is full";
    state.throttled = {{"QorNet", 1250}, {"group main", 1}};
    state.drifts = 10;
    state.lastKill = {11, "abc-12", "QorNet"};
    return state;
}

}  // namespace

TEST(HostStateTest, EverythingComesBack) {
    const std::string text = FormatHostState(Full());
    const base::Result<HostState> back = ParseHostState(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(FormatHostState(*back), text);
    EXPECT_EQ(back->host, "h1");
    EXPECT_EQ(back->groups, (std::vector<std::string>{"web", "db"}));
    EXPECT_EQ(back->version, "0.1.0");
    EXPECT_EQ(back->time, 4102444800);
    EXPECT_EQ(back->uptimeSeconds, 3);
    EXPECT_TRUE(back->agentRuns);
    EXPECT_EQ(back->findings, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(back->config.seen, 5000000000u);
    EXPECT_EQ(back->config.applied, 4999999999u);
    EXPECT_TRUE(back->config.pinned);
    EXPECT_EQ(back->config.error, "why");
    EXPECT_EQ(back->eventsWaiting, 6u);
    EXPECT_EQ(back->oldestWaitingSeconds, 7);
    EXPECT_EQ(back->eventsDropped, 8u);
    EXPECT_EQ(back->eventsGivenUp, 9u);
    EXPECT_EQ(back->blocked, "the stream is full");
    ASSERT_EQ(back->throttled.size(), 2u);
    EXPECT_EQ(back->throttled[0].name, "QorNet");
    EXPECT_EQ(back->throttled[0].share100Times, 1250);
    EXPECT_EQ(back->drifts, 10u);
    EXPECT_EQ(back->problems, 2u);
    EXPECT_EQ(back->lastKill.time, 11);
    EXPECT_EQ(back->lastKill.event, "abc-12");
    EXPECT_EQ(back->lastKill.component, "QorNet");
}

TEST(HostStateTest, AStateOfAnotherVersionIsReadAsFarAsItIsKnown) {
    const base::Result<HostState> state = ParseHostState(
        R"({"version": 2, "host": "h2", "new": [1], "problems": -1, "findings": [1, "x"], "config": 3, "runs": 1,
             "throttled": [7, {"name": 3, "share_100times": 99999}, {"share_100times": -1}]})");
    ASSERT_TRUE(state);
    EXPECT_EQ(state->host, "h2");
    EXPECT_EQ(state->problems, 0u);
    EXPECT_EQ(state->findings, (std::vector<std::string>{"x"}));
    EXPECT_FALSE(state->agentRuns);
    ASSERT_EQ(state->throttled.size(), 2u);
    EXPECT_EQ(state->throttled[0].name, "");
    EXPECT_EQ(state->throttled[0].share100Times, 10000);
    EXPECT_EQ(state->throttled[1].share100Times, 0);
    for (const char* text :
         {"", "[]", "{}", R"({"version": "1"})", R"({"version": 0})", R"({"version": 1)", R"({"version": 1} x)"}) {
        EXPECT_FALSE(ParseHostState(text)) << text;
    }
    EXPECT_FALSE(ParseHostState(R"({"version": 1, "host": ")" + std::string(kMostHostStateBytes, 'x') + "\"}"));
}

TEST(HostStateTest, ItStaysSmallWhateverItSays) {
    HostState state = Full();
    std::string hostile;
    for (int i = 0; i < 4000; ++i) hostile += "\xE2\x82\xAC\x1B";
    state.mode = state.blocked = state.config.error = state.lastKill.event = state.lastKill.component = hostile;
    state.findings.assign(100, hostile);
    state.throttled.assign(100, {hostile, 5});
    const std::string text = FormatHostState(state);
    EXPECT_LE(text.size(), kMostHostStateBytes);
    const base::Result<HostState> back = ParseHostState(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->mode, Printable(back->mode));
    EXPECT_EQ(back->problems, 2u) << "how many there are is told though they are left out";
}

TEST(HostStateTest, EveryTextAtItsLongestStillFits) {
    HostState state = Full();
    std::string wide;
    for (int i = 0; i < 4000; ++i) wide += "\xC3\xA9";
    state.host = state.version = state.mode = state.config.error = state.lastKill.event = state.lastKill.component =
        wide;
    state.blocked = wide;
    state.throttled.assign(8, {wide, 10000});
    state.findings.assign(100, wide);
    state.groups.assign(500, wide.substr(0, 64));
    const std::string text = FormatHostState(state);
    EXPECT_LE(text.size(), kMostHostStateBytes);
    const base::Result<HostState> back = ParseHostState(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(FormatHostState(*back), text);
    EXPECT_EQ(back->host, wide.substr(0, 64));
    EXPECT_EQ(back->version, wide.substr(0, 64));
}

TEST(HostStateTest, OfManyGroupsTheHeaviestAreKept) {
    HostState state = Full();
    state.groups.clear();
    for (int i = 0; i < 20; ++i) state.groups.push_back("g" + std::to_string(i));
    state.groups.insert(state.groups.begin() + 19, std::string(65, 'x'));  // cut, it would be another one
    const auto back = ParseHostState(FormatHostState(state));
    ASSERT_TRUE(back);
    ASSERT_EQ(back->groups.size(), 16u);
    EXPECT_EQ(back->groups.front(), "g4");
    EXPECT_EQ(back->groups.back(), "g19");
    std::string written = R"({"version": 1, "groups": ["light")";
    for (int i = 0; i < 16; ++i) written += ", \"g" + std::to_string(i) + "\"";
    const auto read = ParseHostState(written + "]}");
    ASSERT_TRUE(read);
    EXPECT_EQ(read->groups.front(), "g0");
    EXPECT_EQ(read->groups.back(), "g15");
}

TEST(HostStateTest, WhatIsWrongIsToldWithItsRemedy) {
    StatusReport report;
    report.now = 100;
    report.modeReason = "reason";
    report.samplerRuns = true;
    report.diskFull = true;
    report.delivery.dropped = 3;
    report.delivery.sinks = {{"jsonl", 1, 0, 4, "", 1}, {"http", 1, 0, 9, "", 2}};
    report.keeper.found[0] = 2;
    report.keeper.found[9] = 3;
    const HostState state = TakeHostState(report);
    EXPECT_TRUE(state.agentRuns);
    EXPECT_EQ(state.time, 100);
    EXPECT_EQ(state.mode, "reason");
    EXPECT_EQ(state.problems, 1u);
    EXPECT_EQ(state.findings, (std::vector<std::string>{"the disk is full: make room on the agent's disk"}));
    EXPECT_EQ(state.eventsWaiting, 9u) << "the slowest sink's";
    EXPECT_EQ(state.eventsGivenUp, 3u);
    EXPECT_EQ(state.eventsDropped, 3u);
    EXPECT_EQ(state.drifts, 5u);
}

TEST(HostStateTest, OnlyWhatMattersIsToldBeforeTheMinuteIsOver) {
    const HostState before = Full();
    HostState after = before;
    after.time += 10;
    after.uptimeSeconds += 10;
    after.eventsWaiting += 10;
    after.oldestWaitingSeconds += 10;
    EXPECT_FALSE(DiffersForFleet(before, after));
    const auto differs = [&before](auto change) {
        HostState other = before;
        change(other);
        return DiffersForFleet(before, other) && DiffersForFleet(other, before);
    };
    EXPECT_TRUE(differs([](HostState& s) { s.version = "2"; }));
    EXPECT_TRUE(differs([](HostState& s) { s.agentRuns = false; }));
    EXPECT_TRUE(differs([](HostState& s) { s.mode = "x"; }));
    EXPECT_TRUE(differs([](HostState& s) { s.groups.pop_back(); }));
    EXPECT_TRUE(differs([](HostState& s) { ++s.problems; }));
    EXPECT_TRUE(differs([](HostState& s) { ++s.drifts; }));
    EXPECT_TRUE(differs([](HostState& s) { ++s.eventsDropped; }));
    EXPECT_TRUE(differs([](HostState& s) { ++s.eventsGivenUp; }));
    EXPECT_TRUE(differs([](HostState& s) { s.lastKill.event = "x"; }));
    EXPECT_TRUE(differs([](HostState& s) { ++s.config.seen; }));
    EXPECT_TRUE(differs([](HostState& s) { ++s.config.applied; }));
    EXPECT_TRUE(differs([](HostState& s) { s.config.pinned = false; }));
    EXPECT_TRUE(differs([](HostState& s) { s.config.error = ""; }));
}

TEST(HostStateTest, AHostIsLateBeforeItIsGone) {
    HostState well;
    well.agentRuns = true;
    EXPECT_EQ(PresenceOf(well, 0), Presence::kOk);
    EXPECT_EQ(PresenceOf(well, 179), Presence::kOk);
    EXPECT_EQ(PresenceOf(well, 180), Presence::kLate);
    EXPECT_EQ(PresenceOf(well, 599), Presence::kLate);
    EXPECT_EQ(PresenceOf(well, 600), Presence::kGone);
    EXPECT_EQ(PresenceOf(well, -5), Presence::kOk) << "two clocks differ";
    HostState refused = well;
    refused.config.error = "x";
    EXPECT_EQ(PresenceOf(refused, 0), Presence::kTroubled);
    HostState ill = well;
    ill.problems = 1;
    EXPECT_EQ(PresenceOf(ill, 0), Presence::kTroubled);
    EXPECT_EQ(PresenceOf(HostState(), 0), Presence::kTroubled) << "only its relay is there";
    EXPECT_EQ(PresenceOf(ill, 200), Presence::kLate);
    EXPECT_STREQ(NameOf(Presence::kOk), "ok");
    EXPECT_STREQ(NameOf(Presence::kTroubled), "troubled");
    EXPECT_STREQ(NameOf(Presence::kLate), "late");
    EXPECT_STREQ(NameOf(Presence::kGone), "gone");
}
