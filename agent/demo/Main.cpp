// tervanedemo: the agent's abilities in 40 seconds, told line by line while they happen. Not installed.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>

#include "Acts.h"

namespace {

constexpr int kReadMs = 2000;  // a person reads what an act has shown

/// Shows the acts one after the other. Errors: why it ended before its end.
base::Status Play(agent::Stage& stage, agent::Narrator& narrator, int budgetPercent) {
    agent::ShownSoFar shown;
    const std::function<base::Status()> acts[] = {
        [&] { return ShowStart(stage, narrator); },
        [&] { return ShowHoldingBack(stage, narrator, shown); },
        [&] { return ShowOutOfMemory(stage, narrator, shown); },
        [&] { return ShowDrift(stage, narrator, shown); },
        [&] { return ShowChange(stage, narrator, budgetPercent, shown); },
        [&] { return ShowSummary(stage, narrator, shown); },
    };
    for (const auto& act : acts) {
        if (base::Status played = act(); !played) return played;
        if (narrator.IsReaderGone()) return base::SentenceError("nobody reads any more");
        agent::Pause(kReadMs);
    }
    return {};
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"The agent's demonstration: 40 seconds, told line by line"};
    agent::StageOptions options;
    std::error_code ignored;
    options.programs = std::filesystem::canonical(argv[0], ignored).parent_path().string();
    app.add_option("--programs", options.programs, "directory of tervane and tervanectl (default: this program's)");
    app.add_option("--samples", options.samples, "directory with the shipped conf/")->required();
    app.add_option("--app-dir", options.appDir,
                   "application directory without a configuration, which stays (default: one that goes)");
    int budgetPercent = 20;
    app.add_option("--new-budget", budgetPercent, "what groupMaxCpu is set to while it runs: not what is shipped")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    CLI11_PARSE(app, argc, argv);

    agent::TakeEndSignals();
    agent::Narrator narrator;
    agent::Stage stage(options);
    printf(
        "A host agent must never be the reason that a server is slow or out of memory. This is a real one, with the\n"
        "configuration that it is shipped with; every figure is read from it or from the kernel as it is told.\n");
    base::Status shown = stage.Begin();
    if (shown) shown = Play(stage, narrator, budgetPercent);
    const size_t groups = stage.RememberedGroups();
    const std::vector<std::string> left = stage.End();
    for (const std::string& thing : left) fprintf(stderr, "tervanedemo: left behind: %s\n", thing.c_str());
    if (!shown) fprintf(stderr, "tervanedemo: %s\n", shown.GetError().Text().c_str());
    if (left.empty() && groups > 0) {
        narrator.Say("The agent has ended; nothing is left of its control groups (" + std::to_string(groups) +
                     " directories) and its processes" + (options.appDir.empty() ? ", nor of its files." : "."));
    }
    if (agent::IsEndAsked()) return left.empty() ? 0 : 1;
    return shown && left.empty() ? 0 : 1;
}
