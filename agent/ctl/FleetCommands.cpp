// The command line of `fleet`, and the two views of its hosts.
#include "FleetCommands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>

#include "CtlExit.h"
#include "FleetCluster.h"
#include "FleetExplain.h"
#include "FleetLink.h"
#include "FleetMarks.h"
#include "FleetMetrics.h"
#include "FleetReading.h"
#include "FleetReport.h"
#include "FleetRollout.h"
#include "FleetRoster.h"
#include "ShowEvents.h"
#include "View.h"

namespace agent {

namespace {

constexpr std::string_view kConfigWords = "config ";

bool IsRollout(const std::string& action, const FleetConfigOptions& config) {
    return action == "rollout" || (action == "set" && (!config.canary.empty() || !config.wait.empty()));
}

RolloutOptions RolloutOf(const FleetOptions& options) {
    RolloutOptions rollout;
    rollout.words = options.config.words;
    rollout.group = options.config.group;
    if (!options.config.canary.empty()) rollout.canary = options.config.canary;
    if (!options.config.wait.empty()) rollout.wait = options.config.wait;
    rollout.json = options.json;
    return rollout;
}

/// Rollouts that were left behind. Where the levels cannot be read their stream is not well, which is a finding itself.
void AddAbandoned(FleetLink& link, const FleetRoster& roster, std::vector<DoctorFinding>& findings) {
    Json::Value request(Json::objectValue);
    request["op"] = "keys";
    request["bucket"] = "config";
    std::vector<LevelEntry> levels;
    const base::Result<FleetAnswer> answer = link.Ask(request, [&levels](const Json::Value& item) {
        LevelEntry entry = TakeLevel("", item);
        // Of ten thousand levels only those that matter are kept, and what has replaced them.
        if (!ReadRolloutMark(entry.text)) entry.text.reset();
        levels.push_back(std::move(entry));
        return true;
    });
    if (!answer || !answer->ok) return;
    for (const MarkedRollout& rollout : FindRollouts(levels, static_cast<int64_t>(roster.Time().now))) {
        if (!rollout.isAbandoned) continue;
        findings.push_back({Severity::kWarning, WordRollout(rollout) + ", was left behind: they keep what they tried",
                            "KV_config", RemedyOf(rollout)});
    }
}

int ShowStatus(FleetLink& link, const FleetOptions& options) {
    const base::Result<FleetRoster> roster = ReadRoster(link);
    if (!roster) return FleetFail(kUnreachable, roster.GetError().Text());
    const FleetCluster cluster = ReadCluster(link);
    std::vector<DoctorFinding> findings = JudgeFleet(cluster, *roster);
    AddAbandoned(link, *roster, findings);
    if (options.command == "metrics") {
        fputs(FleetMetrics(cluster, *roster, findings).c_str(), stdout);
        // What is not well is in it; half of it must not take the place of what is whole.
        if (fflush(stdout) == 0 && ferror(stdout) == 0) return kOk;
        return FleetFail(kUnreachable, "the figures could not be written: is the disk full?");
    }
    if (options.json) {
        fputs(ViewText(FleetJson(cluster, *roster, findings)).c_str(), stdout);
    } else {
        fputs(PaintLines(WordFleet(cluster, *roster, findings)).c_str(), stdout);
    }
    return findings.empty() ? kOk : kDegraded;
}

/// A host at a time: of ten thousand no text is made as a whole.
void PrintHostsJson(const std::vector<const FleetRow*>& rows, const FleetRoster& roster) {
    Json::Value view = NewView("fleet-hosts");
    view["time"]["broker"] = Json::Int64(roster.Time().now);
    view["time"]["told"] = roster.Time().isTold;
    const std::string head = ViewText(view, true);
    printf("%s,\"hosts\":[", head.substr(0, head.rfind('}')).c_str());
    for (const FleetRow* row : rows) {
        const std::string text = ViewText(HostJson(*row), true);
        printf("%s%s", row == rows.front() ? "\n" : ",\n", text.substr(0, text.size() - 1).c_str());
    }
    printf("]}\n");
}

int ShowHosts(FleetLink& link, const FleetOptions& options) {
    const base::Result<FleetRoster> roster = ReadRoster(link);
    if (!roster) return FleetFail(kUnreachable, roster.GetError().Text());
    std::vector<const FleetRow*> rows;
    for (const FleetRow& row : roster->Rows()) {
        if (IsWanted(row, options.group, options.state)) rows.push_back(&row);
    }
    if (options.json) {
        PrintHostsJson(rows, *roster);
        return kOk;
    }
    if (rows.empty()) {
        printf("no host%s\n", roster->Rows().empty() ? " has said anything of itself yet" : " of this kind");
        return kOk;
    }
    for (const TextLine& line : HostTable(rows)) printf("%s\n", Painted(line.text, line.kind).c_str());
    return kOk;
}

void DeclareEvents(CLI::App& fleet, FleetOptions& options) {
    CLI::App* events = fleet.add_subcommand("events", "events of the hosts out of the stream, each once");
    events->add_option("--last", options.events.last, "how many; 20, and 10000 with --since")
        ->check(CLI::Range(1, 10000));
    events->add_option("--since", options.events.since, "from when on: 90s, 30m, 2h, 7d or a date; an hour otherwise");
    events->add_option("--type", options.events.types, "only these")
        ->delimiter(',')
        ->take_all()
        ->check(CLI::Validator([](std::string& word) { return JudgeType(word); }, "{" + KnownTypes() + "}"));
    events->add_option("--host", options.events.host, "only those of this host")->type_name("HOST");
    events->add_flag("--follow", options.events.follow, "go on with what comes");
    CLI::App* explain = fleet.add_subcommand("explain", "the story of an event as far as it carries it");
    explain->add_option("EVENT", options.event, "as events shows it: HOST/ID, or an id alone")
        ->required()
        ->type_name("EVENT");
}

void DeclareSetup(CLI::App& fleet, FleetOptions& options) {
    CLI::App* setup = fleet.add_subcommand("setup", "make the streams of a fleet, or compare them with what is needed");
    setup->add_option("--replicas", options.setup.replicas, "copies: 3 in a cluster, 1 otherwise")
        ->check(CLI::IsMember({1, 3}));
    const auto size = [](std::string& text) {
        return ParseStreamBytes(text) > 0 ? std::string() : text + " is no size: a number with MB, GB or TB";
    };
    const auto age = [](std::string& text) {
        return ParseStreamAge(text) > 0 ? std::string() : text + " is no age: a number with h or d, as 7d";
    };
    setup->add_option("--max-bytes", options.setup.maxBytes, "most bytes of events that are kept, as 14GB")
        ->check(CLI::Validator(size, "SIZE"));
    setup->add_option("--max-age", options.setup.maxAge, "how long events are kept; 7d")
        ->check(CLI::Validator(age, "AGE"));
    setup->add_flag("--change", options.setup.change, "change what differs, where nothing that is stored is lost");
}

}  // namespace

void DeclareFleet(CLI::App& app, FleetOptions& options) {
    CLI::App* fleet =
        app.add_subcommand("fleet", "the hosts of a fleet, their events and configuration, by its broker");
    fleet->require_subcommand(1);
    fleet->add_option("--servers", options.place.servers, "brokers to ask; those of conf/agent.json otherwise")
        ->delimiter(',')
        ->take_all()
        ->type_name("ADDRESS");
    fleet->add_option("--creds", options.place.credentials, "credentials of this console")->type_name("FILE");
    fleet->add_option("--ca", options.place.caFile, "authorities that a broker's certificate is to be of")
        ->type_name("FILE");
    fleet->add_subcommand("status", "hosts by state, versions, the cluster's health, and what to do");
    fleet->add_subcommand("metrics", "the figures of status for Prometheus, as a text file for a node exporter");
    CLI::App* hosts = fleet->add_subcommand("hosts", "each host: state, version, configuration, events, last kill");
    hosts->add_option("--group", options.group, "only those of this group of hosts")->type_name("GROUP");
    const std::vector<std::string> standings(std::begin(kHostStandingNames), std::end(kHostStandingNames));
    hosts->add_option("--state", options.state, "only those in this state")->check(CLI::IsMember(standings));
    DeclareEvents(*fleet, options);
    DeclareSetup(*fleet, options);
    DeclareFleetConfig(*fleet, options.config);
    DeclareFleetReport(*fleet, options.report);
}

void NoteFleetCommand(const CLI::App& app, FleetOptions& options) {
    for (const CLI::App* at = app.get_subcommands()[0]; !at->get_subcommands().empty();) {
        at = at->get_subcommands()[0];
        options.command += (options.command.empty() ? "" : " ") + at->get_name();
    }
}

int RunFleet(const FleetOptions& options) {
    const bool isConfig = options.command.compare(0, kConfigWords.size(), kConfigWords) == 0;
    const std::string action = isConfig ? options.command.substr(kConfigWords.size()) : "";
    if (const int wrong = isConfig ? JudgeFleetConfig(action, options.config) : kOk; wrong != kOk) return wrong;
    if (options.command == "report" && options.report.htmlFile.empty() && !options.json) {
        return FleetFail(kUsage, "fleet report needs --html FILE for a page, or --json");
    }
    if (IsRollout(action, options.config)) return RunRollout(options.place, RolloutOf(options));
    const base::Result<FleetAccess> access = FindFleet(options.place);
    if (!access) return FleetFail(kUnreachable, access.GetError().Text());
    const base::Result<std::unique_ptr<FleetLink>> link = FleetLink::Open(*access);
    if (!link) return FleetFail(kUnreachable, link.GetError().Text());
    if (options.command == "hosts") return ShowHosts(**link, options);
    if (options.command == "explain") return ExplainFleetEvent(**link, options.event, options.json);
    if (options.command == "events") {
        FleetEventsOptions events = options.events;
        events.json = options.json;
        return ShowFleetEvents(**link, events);
    }
    if (options.command == "setup") {
        FleetSetupOptions setup = options.setup;
        setup.json = options.json;
        return SetUpFleet(**link, setup);
    }
    if (options.command == "report") {
        FleetReportOptions report = options.report;
        report.json = options.json;
        return MakeFleetReport(**link, report);
    }
    if (isConfig) {
        FleetConfigOptions config = options.config;
        config.json = options.json;
        return RunFleetConfig(**link, action, config);
    }
    return ShowStatus(**link, options);
}

}  // namespace agent
