// What somebody else has stored at the broker: levels of a configuration and states of hosts. The first byte chooses;
// texts are parted by a byte 0.
#include <algorithm>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Printable.h"
#include "fleet/HostState.h"
#include "fleet/RemoteConfig.h"
#include "fleet/Rollout.h"

namespace {

using fuzzing::Require;

std::vector<std::string> Parts(const std::string& text) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == '\0' && parts.size() < 5)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

/// The first part is the host's own file, each of the others a level; an empty one is a level that was deleted.
void CheckConfig(const std::string& text) {
    const std::vector<std::string> parts = Parts(text);
    std::vector<agent::RemoteLevel> levels;
    for (size_t i = 1; i < parts.size(); ++i) {
        agent::RemoteLevel level{"group.g" + std::to_string(i), i, std::nullopt};
        if (!parts[i].empty()) level.text = parts[i];
        levels.push_back(level);
    }
    const agent::RemoteDecision decision = agent::DecideRemoteConfig(levels, parts[0]);
    Require(decision.revision == levels.size(), "the highest revision is seen");
    Require(levels.empty() == (decision.revision == 0), "a fleet that says nothing has no revision");
    switch (decision.action) {
        case agent::RemoteAction::kNothing: break;
        case agent::RemoteAction::kPinned: Require(agent::IsPinned(parts[0]), "a pin is written down"); break;
        case agent::RemoteAction::kRefused:
            Require(!decision.error.empty() && fuzzing::IsOnOneLine(decision.error), "a refusal says why on one line");
            break;
        case agent::RemoteAction::kWrite: {
            Require(!agent::IsPinned(decision.text), "the fleet pins nothing");
            const auto origin = agent::ReadFleetOrigin(decision.text);
            Require(origin && origin->revision == decision.revision, "a file of the fleet's says so");
            const agent::RemoteDecision again = agent::DecideRemoteConfig(levels, decision.text);
            Require(again.action == agent::RemoteAction::kNothing, "what was written stays");
            break;
        }
    }
}

void CheckState(const std::string& text) {
    const base::Result<agent::HostState> state = agent::ParseHostState(text);
    if (!state) {
        Require(fuzzing::IsOnOneLine(agent::Printable(state.GetError().Text())), "a refusal says why on one line");
        return;
    }
    Require(fuzzing::IsOnOneLine(state->host + state->version + state->mode + state->config.error), "texts are plain");
    const std::string written = agent::FormatHostState(*state);
    Require(written.size() <= agent::kMostHostStateBytes, "a state is small");
    const base::Result<agent::HostState> again = agent::ParseHostState(written);
    Require(again && agent::FormatHostState(*again) == written, "a state says the same again");
    Require(!agent::DiffersForFleet(*state, *again), "nothing is lost on the way");
    Require(agent::PresenceOf(*state, 600) == agent::Presence::kGone, "silence is silence");
}

void CheckChange(const std::string& text) {
    const std::vector<std::string> parts = Parts(text);
    const std::string change = parts.size() > 1 ? parts[1] : "{\"maxCpu\": 7}";
    const base::Result<std::string> level = agent::ChangeLevel(parts[0], change);
    if (!level) return;
    const agent::RemoteDecision decision = agent::DecideRemoteConfig({{"all", 1, *level}}, std::nullopt);
    Require(decision.action == agent::RemoteAction::kWrite, "what a console puts is taken by a host");
    const base::Result<std::string> again = agent::ChangeLevel(*level, change);
    Require(again && *again == *level, "a change that is there already changes nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr void (*kChecks[])(const std::string&) = {CheckConfig, CheckState, CheckChange};
    if (size == 0) return 0;
    kChecks[data[0] % std::size(kChecks)](std::string(fuzzing::TextOf(data + 1, size - 1)));
    return 0;
}
