// What a host says of itself: asked of scripted consoles, with real files of events.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "StatusJson.h"
#include "fleet/StateDuty.h"
#include "platform/zel/AgentNames.h"
#include "support/Files.h"

namespace agent {
namespace {

using Depth = StateDuty::Depth;

class StateDutyTest : public ::testing::Test {
protected:
    StateDutyTest() {
        m_reports["tervane"].process = "tervane";
        m_reports["tervane"].modeReason = "CPU and memory limits hold this process";
    }
    StateDuty Make() {
        StateDutyOptions options{"h1", {"web"}, m_app.Path(), "1.2.3", {}};
        options.ask = [this](const std::string& process, const std::string& request) -> base::Result<Answer> {
            m_asked.push_back(process + " " + request);
            const auto found = m_reports.find(process);
            if (found == m_reports.end()) return base::SentenceError("nobody", base::ErrorKind::kNotFound);
            return Answer{true, FormatStatusJson(found->second)};
        };
        return StateDuty(options);
    }
    void AddComponent(const std::string& name, ComponentState state = ComponentState::kRunning, bool program = false) {
        ComponentStatus component;
        component.name = name;
        component.state = state;
        component.program = program;
        m_reports["tervane"].components.push_back(component);
    }
    static void SetDelivery(StatusReport& report, uint64_t dropped, const std::vector<zelhost::SinkStats>& sinks) {
        report.delivery.present = true;
        report.delivery.dropped = dropped;
        report.delivery.sinks = sinks;
    }
    static zelhost::SinkStats Sink(const std::string& name, uint64_t delivered, uint64_t waiting,
                                   uint64_t givenUp = 0) {
        zelhost::SinkStats sink;
        sink.name = name;
        sink.delivered = delivered;
        sink.waiting = waiting;
        sink.givenUp = givenUp;
        return sink;
    }
    void WriteEvent(const std::string& process, const std::string& id, int64_t time, const std::string& type,
                    const std::string& body) {
        std::string quoted;
        for (const char c : body) quoted += c == '"' ? "\\\"" : std::string(1, c);
        const std::string path = m_app / ("log/" + process + ".events.jsonl");
        support::WriteText(path, support::ReadText(path) + "{\"id\":\"" + id + "\",\"time\":" + std::to_string(time) +
                                     ",\"process\":\"" + process + "\",\"type\":\"" + type + "\",\"body\":\"" + quoted +
                                     "\"}\n");
    }

    support::TempDir m_app;
    std::map<std::string, StatusReport> m_reports;
    std::vector<std::string> m_asked;
};

TEST_F(StateDutyTest, AgentThatDoesNotAnswerIsToldAsNotRunning) {
    StateDuty duty = Make();
    EXPECT_TRUE(duty.Take(Depth::kAll, 100, 1700000000).agentRuns);
    EXPECT_TRUE(duty.ConfigProblem().has_value());
    m_reports.clear();
    const HostState state = duty.Take(Depth::kAll, 160, 1700000060);
    EXPECT_FALSE(state.agentRuns);
    EXPECT_EQ(state.host, "h1");
    EXPECT_EQ(state.version, "1.2.3");
    EXPECT_EQ(state.groups, std::vector<std::string>{"web"});
    EXPECT_EQ(state.time, 1700000060);
    EXPECT_FALSE(duty.ConfigProblem().has_value());
}

TEST_F(StateDutyTest, WhatKeptTheHostFromItsFleetIsNotToldToIt) {
    StateDuty duty = Make();
    const uint64_t problems = duty.Take(Depth::kMain, 100, 1700000000).problems;
    m_reports["tervane"].fleetProblem = "no right";
    EXPECT_EQ(duty.Take(Depth::kMain, 160, 1700000060).problems, problems);
    m_reports["tervane"].diskFull = true;
    EXPECT_EQ(duty.Take(Depth::kMain, 220, 1700000120).problems, problems + 1);
}

TEST_F(StateDutyTest, WaitingEventsOfAllProcessesAreSummed) {
    AddComponent("QorNet");
    AddComponent("QorHips");
    AddComponent("Mail", ComponentState::kRunning, true);
    AddComponent("TervaneUpdate", ComponentState::kStopped);
    SetDelivery(m_reports["tervane"], 1, {Sink("jsonl", 50, 0), Sink("fleet", 10, 40, 2)});
    SetDelivery(m_reports["QorNet"], 10, {Sink("fleet", 0, 5, 1), Sink("http", 0, 3, 1)});
    SetDelivery(m_reports["QorHips"], 100, {Sink("fleet", 7, 0)});
    StateDuty duty = Make();
    HostState state = duty.Take(Depth::kAll, 100, 0);
    EXPECT_EQ(state.eventsWaiting, 45u);
    EXPECT_EQ(state.eventsDropped, 111u);
    EXPECT_EQ(state.eventsGivenUp, 4u);
    EXPECT_EQ(m_asked, (std::vector<std::string>{"tervane status", "QorNet status", "QorHips status"}));
    // Between the minutes only the main process is asked; of the others stands what they said.
    SetDelivery(m_reports["tervane"], 1, {Sink("fleet", 50, 0)});
    m_asked.clear();
    state = duty.Take(Depth::kMain, 110, 0);
    EXPECT_EQ(state.eventsWaiting, 5u);
    EXPECT_EQ(state.eventsDropped, 111u);
    EXPECT_EQ(m_asked, std::vector<std::string>{"tervane status"});
    // One that is no longer configured is no longer counted.
    m_reports["tervane"].components.erase(m_reports["tervane"].components.begin());
    EXPECT_EQ(duty.Take(Depth::kAll, 160, 0).eventsDropped, 101u);
}

TEST_F(StateDutyTest, BlockedSinkOfAnyProcessIsToldWithItsReason) {
    AddComponent("QorHips");
    AddComponent("QorNet");
    const auto say = [&](const std::string& process, const std::string& sink, const std::string& error) {
        SetDelivery(m_reports[process], 0, {Sink("jsonl", 1, 0), Sink(sink, 1, 1)});
        m_reports[process].delivery.sinks.back().lastError = error;
    };
    StateDuty duty = Make();
    const auto look = [&](Depth depth) { return duty.Take(depth, 100, 0).blocked; };
    for (const char* passing :
         {"waiting: no leader", "connecting", "the relay is not there: blocked: no", "blockedness"}) {
        say("tervane", "fleet", passing);
        EXPECT_EQ(look(Depth::kAll), "") << passing;
    }
    say("tervane", "http", "blocked: by somebody else");
    EXPECT_EQ(look(Depth::kAll), "");
    say("QorNet", "fleet", "blocked: the stream is full");
    EXPECT_EQ(look(Depth::kMain), "");
    EXPECT_EQ(look(Depth::kAll), "the stream is full (QorNet)");
    EXPECT_EQ(look(Depth::kMain), "the stream is full (QorNet)") << "it was not asked since";
    say("tervane", "fleet", "blocked: no right to publish");
    EXPECT_EQ(look(Depth::kMain), "no right to publish (tervane and 1 more)");
    say("QorNet", "fleet", "");
    EXPECT_EQ(look(Depth::kAll), "no right to publish (tervane)");
    say("tervane", "fleet", "blocked");
    EXPECT_EQ(look(Depth::kMain), "no reason is known (tervane)");
    say("tervane", "fleet", "");
    EXPECT_EQ(look(Depth::kMain), "");
    // Of one that has nothing to say any more nobody knows it.
    say("QorNet", "fleet", "blocked: the stream is full");
    EXPECT_EQ(look(Depth::kAll), "the stream is full (QorNet)");
    for (ComponentStatus& component : m_reports["tervane"].components) component.suspended = true;
    EXPECT_EQ(look(Depth::kAll), "");
}

TEST_F(StateDutyTest, ThrottledSharesAreThoseOfTheStatus) {
    StatusReport& report = m_reports["tervane"];
    const auto add = [&](zel::CgroupLevel level, const std::string& name, int64_t periods, int64_t held) {
        zel::CgroupNodeStatus node;
        node.level = level;
        node.name = name;
        node.cpu.periods = periods;
        node.cpu.throttledPeriods = held;
        report.tree.nodes.push_back(node);
    };
    report.unified = true;
    add(zel::CgroupLevel::kParent, "parent", 1000, 10);
    add(zel::CgroupLevel::kGroup, "main", 400, 0);
    add(zel::CgroupLevel::kComponent, "QorNet", 400, 100);
    add(zel::CgroupLevel::kComponent, "QorHips", 100000, 1);
    add(zel::CgroupLevel::kGroup, "guard", 10, 10);
    add(zel::CgroupLevel::kComponent, "QorWebGuard", -1, -1);
    add(zel::CgroupLevel::kComponent, "Torn", 5, 7);
    report.cgroup.cpu.limited = true;  // by one of the groups above
    report.cgroup.cpu.periods = 200;
    report.cgroup.cpu.throttledPeriods = 3;
    StateDuty duty = Make();
    const auto look = [&] {
        std::string text;
        // As the fleet reads it.
        const auto read = ParseHostState(FormatHostState(duty.Take(Depth::kMain, 100, 0)));
        for (const Throttling& one : read->throttled) text += one.name + " " + std::to_string(one.share100Times) + ", ";
        return text;
    };
    EXPECT_EQ(look(), "group guard 10000, QorNet 2500, the whole agent 100, QorHips 1, ");
    for (int i = 1; i <= 9; ++i) add(zel::CgroupLevel::kComponent, "Q" + std::to_string(i), 100, 30 + i);
    EXPECT_EQ(look(), "group guard 10000, Q9 3900, Q8 3800, Q7 3700, Q6 3600, Q5 3500, Q4 3400, Q3 3300, ");
    // Without the tree one group holds all of them.
    report.tree.nodes.clear();
    report.unified = false;
    report.cgroup.cpu.limited = false;
    EXPECT_EQ(look(), "") << "no limit of its own";
    report.cgroup.cpu.limited = true;
    EXPECT_EQ(look(), "tervane 150, ");
}

TEST_F(StateDutyTest, OldestWaitingIsSeenFromLookToLook) {
    StateDuty duty = Make();
    const auto look = [&](uint64_t delivered, uint64_t waiting, int64_t second) {
        SetDelivery(m_reports["tervane"], 0, {Sink("fleet", delivered, waiting)});
        return duty.Take(Depth::kAll, second, 0).oldestWaitingSeconds;
    };
    EXPECT_EQ(look(10, 0, 100), 0);
    EXPECT_EQ(look(10, 5, 160), 0) << "seen for the first time";
    EXPECT_EQ(look(10, 9, 220), 60);
    EXPECT_EQ(look(14, 9, 280), 120) << "one of the first five is left";
    EXPECT_EQ(look(15, 9, 340), 0) << "only later ones";
    EXPECT_EQ(look(15, 9, 400), 60);
    EXPECT_EQ(look(15, 4, 460), 120) << "some were dropped for want of room";
    EXPECT_EQ(look(19, 1, 520), 0);
    EXPECT_EQ(look(20, 0, 580), 0);
}

TEST_F(StateDutyTest, LastKillIsFoundInTheFilesOfAllProcesses) {
    AddComponent("QorNet");
    m_reports["QorNet"].process = "QorNet";
    StateDuty duty = Make();
    EXPECT_EQ(duty.Take(Depth::kAll, 0, 0).lastKill.event, "");
    WriteEvent("tervane", "aa-1", 1000, zel::kComponentEndMessage,
               R"({"component":"QorHips","pid":7,"reason":"killed","oom":{"group":"guard"}})");
    WriteEvent("tervane", "aa-2", 1100, zel::kComponentEndMessage,
               R"({"component":"QorWebGuard","pid":8,"reason":"x"})");
    HostState state = duty.Take(Depth::kAll, 60, 0);
    EXPECT_EQ(state.lastKill.event, "aa-1");
    EXPECT_EQ(state.lastKill.time, 1000);
    EXPECT_EQ(state.lastKill.component, "QorHips");
    WriteEvent("QorNet", "bb-1", 1200, zel::kSelfKillMessage, R"({"process":"QorNet","resource":"cpu"})");
    state = duty.Take(Depth::kAll, 120, 0);
    EXPECT_EQ(state.lastKill.event, "bb-1");
    EXPECT_EQ(state.lastKill.component, "QorNet");
    for (int i = 0; i < 100; ++i) WriteEvent("QorNet", "bb-" + std::to_string(i + 2), 1300, "T_X", "{}");
    EXPECT_EQ(duty.Take(Depth::kAll, 180, 0).lastKill.event, "bb-1") << "known though it is far behind now";
}

TEST_F(StateDutyTest, RefusalOfTheConfigurationIsRemembered) {
    m_reports["tervane"].configProblem = "x: key 'maxCpu'";
    StateDuty duty = Make();
    duty.Take(Depth::kMain, 0, 0);
    EXPECT_EQ(duty.ConfigProblem().value_or(""), "x: key 'maxCpu'");
    EXPECT_TRUE(duty.HaveConfigRead());
    EXPECT_EQ(m_asked.back(), "tervane reload");
    m_reports.clear();
    EXPECT_FALSE(duty.HaveConfigRead());
}

}  // namespace
}  // namespace agent
