// tervanectl: asks a running agent process over its console socket, and looks at the host before one runs.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#include "AskAgent.h"
#include "Doctor.h"
#include "ShowEvents.h"
#include "StatusJson.h"
#include "StatusText.h"
#include "Top.h"
#include "platform/zel/AgentNames.h"

namespace {

enum CtlExit { kOk = 0, kRefused = 1, kUnreachable = 2, kUsage = 11 };

int Unreachable(const base::Error& error) {
    fprintf(stderr, "tervanectl: %s\n", error.Text().c_str());
    return kUnreachable;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Console of the host agent"};
    std::string appDir;
    std::string name = zel::kMainProcessName;
    bool json = false;
    if (const char* fromEnvironment = getenv("ZEL_APP_DIR")) appDir = fromEnvironment;
    app.add_option("--app-dir", appDir, "application directory of the agent (default: ZEL_APP_DIR)");
    app.add_option("--name", name, "process to ask")->capture_default_str();
    app.set_version_flag("--version", std::string(ZEL_VERSION));
    app.require_subcommand(1);
    CLI::App* status = app.add_subcommand("status", "use against limits, mode and its reason, components, delivery");
    status->add_flag("--json", json, "as JSON");
    agent::TopOptions watched;
    CLI::App* top = app.add_subcommand("top", "the same once a second, as a live page on a terminal");
    top->add_option("--for", watched.forSeconds, "end after this many seconds");
    top->add_flag("--summary", watched.summary, "at the end, what came of it");
    CLI::App* doctor =
        app.add_subcommand("doctor", "what this host allows, what is in force, and what to do about the rest");
    unsigned int last = 20;
    CLI::App* events =
        app.add_subcommand("events", "the last delivered events, and the stored findings about the host");
    events->add_option("--last", last, "how many")->capture_default_str()->check(CLI::Range(1, 1000));
    app.add_subcommand("metrics", "the process's metrics in Prometheus text form");
    app.add_subcommand("threads", "per-thread CPU report with the busiest thread's kernel stack");
    app.add_subcommand("statistics", "the registered statistics, collected now");
    app.add_subcommand("reload", "read the online configuration again now");
    app.add_subcommand("stop", "stop the agent process");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {
        return app.exit(done);
    } catch (const CLI::ParseError& error) {
        app.exit(error);
        return kUsage;
    }
    if (doctor->parsed()) {
        std::string text;
        bool healthy = agent::Diagnose(appDir, text);
        fputs(text.c_str(), stdout);
        return healthy ? kOk : kRefused;
    }
    if (appDir.empty()) {
        fprintf(stderr, "tervanectl: which agent? name its directory with --app-dir or ZEL_APP_DIR\n");
        return kUsage;
    }
    if (events->parsed()) {
        fputs(agent::ShowEvents(appDir, name, last).c_str(), stdout);
        return kOk;
    }
    if (top->parsed()) {
        watched.appDir = appDir;
        watched.process = name;
        const base::Status shown = agent::RunTop(watched);
        return shown ? kOk : Unreachable(shown.GetError());
    }
    std::string request = app.get_subcommands().front()->get_name();
    const base::Result<agent::Answer> asked = agent::AskAgent(appDir, name, request);
    if (!asked) {
        return Unreachable(asked.GetError());
    }
    const bool ok = asked->ok;
    std::string body = asked->body;
    if (ok && status->parsed() && !json) {
        agent::PictureOptions picture;
        picture.allComponents = true;
        const base::Result<agent::StatusReport> report = agent::ParseStatusJson(body);
        if (report) body = agent::JoinLines(agent::MakePicture(*report, {}, picture));
    }
    fputs(body.c_str(), ok ? stdout : stderr);
    return ok ? kOk : kRefused;
}
