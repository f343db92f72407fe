// Gathering for report and advice; the page is written by the runtime's writer of files.
#include "HistoryCommands.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <set>

#include "Advice.h"
#include "AgentPaths.h"
#include "CtlExit.h"
#include "DayHistory.h"
#include "Doctor.h"
#include "EventTail.h"
#include "HumanText.h"
#include "HistoryJson.h"
#include "Printable.h"
#include "ReportPage.h"
#include "View.h"
#include "base/FileIo.h"
#include "base/FileReplace.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr mode_t kPageMode = 0640;
constexpr size_t kMostEvents = 400;  ///< of one process
constexpr size_t kMostMarks = 2000;
constexpr int64_t kDaySeconds = 86400;

std::string HostName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "this host";
}

/// Names of the processes whose events may be there: each leaf is a component.
std::set<std::string> ProcessesOf(const DayHistory& day) {
    std::set<std::string> names = {zel::kMainProcessName};
    for (const GroupUse& group : day.groups) {
        const size_t slash = group.name.rfind('/');
        const std::string leaf = slash == std::string::npos ? "" : group.name.substr(slash + 1);
        if (!leaf.empty() && leaf != zel::kMainComponent) names.insert(leaf);
    }
    return names;
}

void ReadMarks(const std::string& appDir, ReportFacts& facts) {
    for (const std::string& process : ProcessesOf(facts.day)) {
        const std::string path = EventFile(appDir, process);
        if (base::ReadFileMark(path).exists && !base::OpenForReading(path)) {
            facts.day.problems.push_back("its events cannot be read by this user: " + path);
        }
        for (Mark& mark : MarksOfEvents(ReadEventTail(path, kMostEvents), facts.since)) {
            facts.marks.push_back(std::move(mark));
        }
    }
    for (Mark& mark : MarksOfLimits(facts.day)) facts.marks.push_back(std::move(mark));
    // A clock that was wrong, or somebody's joke, is no reason for an axis of centuries.
    const int64_t tomorrow = facts.now + kDaySeconds;
    facts.marks.erase(std::remove_if(facts.marks.begin(), facts.marks.end(),
                                     [tomorrow](const Mark& mark) { return mark.time > tomorrow; }),
                      facts.marks.end());
    std::stable_sort(facts.marks.begin(), facts.marks.end(),
                     [](const Mark& a, const Mark& b) { return a.time < b.time; });
    if (facts.marks.size() <= kMostMarks) return;
    facts.marks.erase(facts.marks.begin(), facts.marks.end() - static_cast<std::ptrdiff_t>(kMostMarks));
}

ReportFacts GatherReport(const std::string& appDir, int64_t since) {
    ReportFacts facts;
    facts.host = HostName();
    facts.directory = appDir;
    facts.version = ZEL_VERSION;
    facts.now = time(nullptr);
    facts.since = since;
    facts.day = ReadDayHistory(appDir, since);
    ReadMarks(appDir, facts);
    facts.findings = Diagnose(appDir).findings;
    return facts;
}

base::Status WritePage(const ReportFacts& facts, const std::string& path) {
    return base::ReplaceFile(path, MakeReportPage(facts), kPageMode, base::Durability::kSynced);
}

int Report(const std::string& appDir, const HistoryOptions& options, int64_t since) {
    if (options.htmlFile.empty() && !options.json) {
        fprintf(stderr, "tervanectl: report needs --html FILE for a page, or --json\n");
        return kUsage;
    }
    const ReportFacts facts = GatherReport(appDir, since);
    const base::Status written = options.htmlFile.empty() ? base::Status() : WritePage(facts, options.htmlFile);
    if (!written) {
        fprintf(stderr, "tervanectl: %s\n", written.GetError().Text().c_str());
        return kRefused;
    }
    if (options.json) {
        fputs(ViewText(ReportView(facts), true).c_str(), stdout);
        return kOk;
    }
    for (const std::string& problem : facts.day.problems) {
        fprintf(stderr, "tervanectl: note: %s\n", Printable(problem).c_str());
    }
    printf("%s: %zu recorded minutes, %zu groups, %zu mark%s\n", options.htmlFile.c_str(), facts.day.rows,
           facts.day.groups.size(), facts.marks.size(), facts.marks.size() == 1 ? "" : "s");
    return kOk;
}

}  // namespace

void DeclareHistoryCommands(CLI::App& app, HistoryOptions& options) {
    const auto isPast = [](const std::string& text) {
        const int64_t now = time(nullptr);
        const base::Result<int64_t> since = ParseSince(text, now);
        if (!since) return since.GetError().Text();
        return *since < now ? std::string() : "\"" + text + "\" is not in the past";
    };
    CLI::App* report = app.add_subcommand("report", "the last day by group and limit: a page for a browser, or JSON");
    report->add_option("--since", options.since, "from when on: 90m, 24h or a date; a day is kept")
        ->capture_default_str()
        ->check(isPast);
    report->add_option("--html", options.htmlFile, "the page to write")->type_name("FILE");
    CLI::App* advise =
        app.add_subcommand("advise", "limits that the last day would have needed, and how often today's held");
    advise->add_option("--since", options.since, "from when on: 90m, 24h or a date; a day is kept")
        ->capture_default_str()
        ->check(isPast);
}

bool IsHistoryCommand(const std::string& command) {
    return command == "report" || command == "advise";
}

int RunHistoryCommand(const std::string& command, const std::string& appDir, const HistoryOptions& options) {
    const base::Result<int64_t> asked = ParseSince(options.since, time(nullptr));
    const int64_t since = asked ? *asked : 0;
    if (command == "report") return Report(appDir, options, since);
    const DayHistory day = ReadDayHistory(appDir, since);
    const std::vector<GroupAdvice> advice = MakeAdvice(day);
    fputs((options.json ? ViewText(AdviceView(day, advice)) : AdviceText(day, advice)).c_str(), stdout);
    return kOk;
}

}  // namespace agent
