// tervanectl: asks a running agent process over its console socket, and looks at the host before one runs.
#include <CLI/CLI.hpp>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "Completion.h"
#include "ConfigCommands.h"
#include "ConfigFiles.h"
#include "CtlExit.h"
#include "Explain.h"
#include "FleetCommands.h"
#include "HistoryCommands.h"
#include "Printable.h"
#include "ShowEvents.h"
#include "ShowStatus.h"
#include "Top.h"
#include "base/FileIo.h"
#include "platform/zel/AgentNames.h"

namespace {

using agent::kOk;
using agent::kUnreachable;
using agent::kUsage;

/// What was asked for.
struct CommandLine {
    std::string appDir;
    std::string name = zel::kMainProcessName;
    std::string command;
    bool named = false;  ///< whether the name was given
    bool json = false;
    agent::EventsOptions events;
    agent::StatusOptions status;
    agent::ExplainOptions explain;
    agent::ConfigOptions config;
    agent::TopOptions top;
    agent::HistoryOptions history;
    agent::FleetOptions fleet;
    std::string shell;  ///< of completion
};

void DeclareEvents(CLI::App& app, agent::EventsOptions& events) {
    CLI::App* view = app.add_subcommand(
        "events", "the last delivered events of all processes, or of one with --name, and findings about the host");
    view->add_option("--last", events.last, "how many; 20, and all of them with --since")->check(CLI::Range(1, 10000));
    view->add_option("--since", events.since, "those of the last 90s, 30m, 2h, 7d, or since 2026-11-22 13:00");
    const CLI::Validator known([](std::string& word) { return agent::JudgeType(word); },
                               "{" + agent::KnownTypes() + "}");
    view->add_option("--type", events.types, "only these")->delimiter(',')->take_all()->check(known);
    view->add_option("--component", events.component, "only those about or of this component or group")
        ->type_name("COMPONENT");
    view->add_flag("--follow", events.follow, "go on with what comes");
}

void DeclareExplain(CLI::App& app, agent::ExplainOptions& explain) {
    CLI::App* view = app.add_subcommand("explain", "the whole story of an event, or of limits that are not in force");
    view->add_option("ID", explain.which, "an id as events shows it; or: last, limits")->type_name("{last,limits}");
}

void DeclareConfig(CLI::App& app, agent::ConfigOptions& config) {
    CLI::App* group = app.add_subcommand("config", "the configuration: what is in force, checks, changes");
    group->require_subcommand(1);
    group->add_subcommand("show", "each value, its unit and where it came from; what was refused and why");
    CLI::App* check = group->add_subcommand("check", "whether the agent takes a file");
    check->add_option("FILE", config.argument, "the file")->required()->type_name("FILE");
    std::string files;
    for (const char* name : agent::kConfigFileNames) files += (files.empty() ? "" : ",") + std::string(name);
    check->add_option("--as", config.as, "which of the agent's files it is to be; by its name otherwise")
        ->type_name("{" + files + "}");
    CLI::App* set = group->add_subcommand("set", "change a value, after the agent's own parser has taken it");
    set->add_option("SETTING", config.argument, "maxCpu=20")->required()->type_name("KEY=VALUE");
    CLI::App* unset = group->add_subcommand("unset", "take a key out of its file");
    unset->add_option("KEY", config.argument, "maxCpu")->required()->type_name("KEY");
    group->add_subcommand("undo", "take the last change back");
}

void Declare(CLI::App& app, CommandLine& line) {
    if (const char* fromEnvironment = getenv("ZEL_APP_DIR")) line.appDir = fromEnvironment;
    app.add_option("--app-dir", line.appDir,
                   "application directory of the agent (default: ZEL_APP_DIR, else /var/lib/tervane)")
        ->type_name("DIRECTORY");
    app.add_option("--name", line.name, "process to ask")->capture_default_str()->type_name("PROCESS");
    app.add_flag("--json", line.json, "as JSON, by the schemas of CONSOLE.md");
    app.set_version_flag("--version", std::string(ZEL_VERSION));
    app.require_subcommand(1);
    app.fallthrough();  // the options of all commands are taken before and after the command
    CLI::App* status = app.add_subcommand("status", "use against limits, mode and its reason, components, delivery");
    status->add_flag("--watch", line.status.watch, "again and again");
    status->add_option("--every", line.status.every, "with --watch: seconds between two looks")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    app.add_subcommand("check", "one line for a monitoring system: OK, DEGRADED or UNREACHABLE");
    CLI::App* top = app.add_subcommand("top", "the same once a second, as a live page on a terminal");
    top->add_option("--for", line.top.forSeconds, "end after this many seconds");
    top->add_flag("--summary", line.top.summary, "at the end, what came of it");
    app.add_subcommand("doctor", "what this host allows, what is in force, and what to do about the rest");
    DeclareEvents(app, line.events);
    DeclareExplain(app, line.explain);
    DeclareConfig(app, line.config);
    agent::DeclareHistoryCommands(app, line.history);
    agent::DeclareFleet(app, line.fleet);
    app.add_subcommand("metrics", "the process's metrics in Prometheus text form");
    app.add_subcommand("threads", "per-thread CPU report with the busiest thread's kernel stack");
    app.add_subcommand("statistics", "the registered statistics, collected now");
    app.add_subcommand("reload", "read the online configuration and agent.json again now");
    app.add_subcommand("stop", "stop the agent process");
    app.add_subcommand("completion", "completion of this program's commands for a shell, on standard output")
        ->add_option("SHELL", line.shell, "bash or zsh")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}));
}

int Unreachable(const base::Error& error) {
    fprintf(stderr, "tervanectl: %s\n", error.Text().c_str());
    return kUnreachable;
}

int Watch(const CommandLine& line) {
    agent::TopOptions options = line.top;
    options.appDir = line.appDir;
    options.process = line.name;
    options.json = line.json;
    if (options.json && options.summary) {
        fprintf(stderr, "tervanectl: --summary is words, and --json has none\n");
        return kUsage;
    }
    // A job without a terminal would fill its file until the process ends.
    const bool endless = options.forSeconds == 0 && !options.json && !options.summary;
    if (endless && isatty(STDOUT_FILENO) == 0) {
        fprintf(stderr,
                "tervanectl: top needs a terminal on standard output: status shows the same once, status --json for a "
                "program, status --watch again and again, and top --for SECONDS ends by itself\n");
        return kUsage;
    }
    const base::Status shown = agent::RunTop(options);
    return shown ? kOk : Unreachable(shown.GetError());
}

int ShowEvents(const CommandLine& line) {
    agent::EventsOptions options = line.events;
    options.appDir = line.appDir;
    options.json = line.json;
    if (line.named) options.process = line.name;
    return agent::RunEvents(options);
}

int Explain(const CommandLine& line) {
    agent::ExplainOptions options = line.explain;
    options.appDir = line.appDir;
    options.process = line.name;
    options.named = line.named;
    options.json = line.json;
    return agent::RunExplain(options);
}

int Configure(const CommandLine& line) {
    agent::ConfigOptions options = line.config;
    options.appDir = line.appDir;
    options.process = line.name;
    options.json = line.json;
    return agent::RunConfig(options);
}

int AskFleet(const CommandLine& line) {
    agent::FleetOptions options = line.fleet;
    options.place.appDir = line.appDir;
    options.json = line.json;
    return agent::RunFleet(options);
}

int Run(const CommandLine& line) {
    agent::StatusOptions asked = line.status;
    asked.appDir = line.appDir;
    asked.process = line.name;
    asked.json = line.json;
    if (line.command == "status") return agent::RunStatus(asked);
    if (line.command == "check") return agent::RunCheck(asked);
    if (line.command == "doctor") return agent::RunDoctor(asked);
    if (line.command == "events") return ShowEvents(line);
    if (line.command == "explain") return Explain(line);
    if (line.command == "config") return Configure(line);
    if (line.command == "top") return Watch(line);
    if (line.command == "fleet") return AskFleet(line);
    if (agent::IsHistoryCommand(line.command)) {
        agent::HistoryOptions options = line.history;
        options.json = line.json;
        return agent::RunHistoryCommand(line.command, line.appDir, options);
    }
    return agent::RunRequest(asked, line.command);
}

/// Says what is wrong with the command line. To the parser an unknown command is merely one that is missing.
int RefuseLine(const CLI::App& app, const CLI::ParseError& error) {
    std::string problem = error.what();
    const bool missing = error.get_name() == "RequiredError" && app.remaining_size(true) > 0;
    const std::string word = missing ? app.remaining(true).front() : "";
    if (!word.empty()) {
        problem = word[0] == '-' ? "there is no option " + agent::Printable(word)
                                 : "there is no command \"" + agent::Printable(word) + "\"";
    }
    std::string help = "tervanectl";
    for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
        at = at->get_subcommands()[0];
        help += " " + at->get_name();
    }
    fprintf(stderr, "tervanectl: %s; \"%s --help\" names what there is\n", problem.c_str(), help.c_str());
    return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Console of the host agent"};
    CommandLine line;
    Declare(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {
        return app.exit(done);
    } catch (const CLI::ParseError& error) {
        return RefuseLine(app, error);
    }
    line.named = app.get_option("--name")->count() > 0;
    line.command = app.get_subcommands().front()->get_name();
    if (line.command == "completion") {
        fputs(agent::MakeCompletion(app, line.shell).c_str(), stdout);
        return kOk;
    }
    if (line.command == "fleet") agent::NoteFleetCommand(app, line.fleet);
    if (line.command == "config") line.config.action = app.get_subcommand("config")->get_subcommands()[0]->get_name();
    // Before an agent is installed the doctor looks at the host alone.
    const bool installed = base::ReadFileMark(zel::kDefaultAppDir).exists;
    if (line.appDir.empty() && (installed || line.command != "doctor")) line.appDir = zel::kDefaultAppDir;
    return Run(line);
}
