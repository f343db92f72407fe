// A day for the report: groups with limits that change, a pause, marks of each kind, findings; and names that would be
// a page's own language if they were not escaped.
#pragma once

#include <cmath>
#include <string>

#include "ctl/ReportPage.h"

namespace reporttest {

constexpr int64_t kBegin = 1700006400;
constexpr char kHostile[] = "<script>document.title='taken'</script>\"'&";

inline agent::HistoryRow Minute(int minute, const std::vector<std::string>& names) {
    agent::HistoryRow row;
    row.time = kBegin + minute * 60;
    row.pressure = {minute * 3000LL, minute * 40LL, minute * 10LL, minute * 900LL, minute * 300LL};
    int which = 0;
    for (const std::string& name : names) {
        zel::CgroupFigures group;
        group.name = name;
        group.cpuLimit100Times = minute < 900 ? 800 : 1200;
        group.memoryLimitKb = 65536;
        // The sum of a wave is a wave.
        const double slow = minute / 110.0 + which;
        group.cpuMs =
            static_cast<int64_t>(minute * 3600.0 + 60000.0 * std::sin(slow) + 12000.0 * std::sin(minute / 25.0));
        group.periods = minute * 600LL;
        group.throttledPeriods = minute * 60LL + static_cast<int64_t>(4000 * std::sin(slow));
        group.throttledMs = minute * 900LL;
        group.memoryKb = 30000 + static_cast<int64_t>(18000 * std::sin(minute / 70.0 + which)) + minute * 4;
        group.limitHits = minute / 400;
        row.groups.push_back(group);
        ++which;
    }
    return row;
}

inline agent::ReportFacts Day(const std::vector<std::string>& names) {
    agent::ReportFacts facts;
    facts.host = "host-7";
    facts.directory = "/var/lib/tervane";
    facts.version = "1";
    facts.since = kBegin;
    facts.now = kBegin + 24 * 3600;
    std::vector<agent::HistoryRow> rows;
    for (int minute = 0; minute < 1440; ++minute) {
        if (minute < 500 || minute > 560) rows.push_back(Minute(minute, names));  // the agent was down for an hour
    }
    facts.day = agent::MakeDayHistory(std::move(rows), kBegin);
    const std::string leaf = names.empty() ? "" : names.back().substr(names.back().rfind('/') + 1);
    const auto add = [&](int minute, agent::MarkKind kind, const std::string& text) {
        facts.marks.push_back({kBegin + minute * 60, kind, text, {leaf}});
    };
    add(60, agent::MarkKind::kHost, "host: memory of the host: 91 % in use, 180 MB available");
    add(200, agent::MarkKind::kOom,
        leaf + ": process 811 ended: killed by signal 9 (Killed), out of memory at its own limit of 64 MB");
    add(215, agent::MarkKind::kOom,
        leaf + ": process 811 ended: killed by signal 9 (Killed), out of memory at its own limit of 64 MB");
    add(500, agent::MarkKind::kEnd, "the last run ended without a stop: killed by signal 9");
    add(700, agent::MarkKind::kDrift,
        leaf + ": the CPU quota was changed by somebody else: found no limit, wanted 8 % of one CPU; put right");
    for (agent::Mark& mark : agent::MarksOfLimits(facts.day)) facts.marks.push_back(std::move(mark));
    add(1100, agent::MarkKind::kKill, leaf + ": ends itself: CPU 14 %, its maximum is 12 %, for 5 min");
    add(1200, agent::MarkKind::kWouldKill, leaf + ": process 811 would have ended itself: CPU 14 %");
    facts.findings = {
        {agent::Severity::kOk, "version 2 is mounted", "", ""},
        {agent::Severity::kWarning, "no swap accounting", "/proc/cmdline", "boot with swapaccount=1"},
        {agent::Severity::kProblem, "a component waits: " + leaf, "12 restarts in an hour", "read its log"}};
    return facts;
}

}  // namespace reporttest
