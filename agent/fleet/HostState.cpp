// The state as JSON, a fixed set of members with a version.
#include "fleet/HostState.h"

#include <json/json.h>

#include <algorithm>
#include <tuple>

#include "Health.h"
#include "JsonText.h"
#include "Printable.h"
#include "rule/PublishRule.h"

namespace agent {

namespace {

constexpr int kStateVersion = 1;
constexpr size_t kMostFindings = 8;
constexpr size_t kMostGroups = 16;
constexpr size_t kMostThrottled = 8;
constexpr int64_t kWhole100Times = 10000;
constexpr size_t kMostTextBytes = 512;
constexpr size_t kMostNameBytes = 64;  // as hosts and groups are called
constexpr char kFleetSink[] = "fleet";
constexpr int64_t kLateIntervals = 3;
constexpr int64_t kGoneIntervals = 10;

std::string Short(const std::string& text, size_t most = kMostTextBytes) {
    std::string cut = Printable(text);
    if (cut.size() <= most) return cut;
    size_t end = most;
    while (end > 0 && (static_cast<unsigned char>(cut[end]) & 0xC0U) == 0x80U) --end;  // not inside a character
    return cut.substr(0, end);
}

std::string TextAt(const Json::Value& object, const char* member, size_t most = kMostTextBytes) {
    const Json::Value& value = object[member];
    return value.isString() ? Short(value.asString(), most) : std::string();
}

/// The heaviest of them, whole: a name that was cut would be another group's.
std::vector<std::string> BoundGroups(const std::vector<std::string>& groups) {
    std::vector<std::string> kept;
    for (const std::string& group : groups) {
        const std::string name = Printable(group);
        if (name.size() <= kMostNameBytes) kept.push_back(name);
    }
    if (kept.size() > kMostGroups) kept.erase(kept.begin(), kept.end() - kMostGroups);
    return kept;
}

std::vector<std::string> GroupsAt(const Json::Value& object) {
    std::vector<std::string> groups;
    for (const Json::Value& group : object["groups"]) {
        if (group.isString()) groups.push_back(group.asString());
    }
    return BoundGroups(groups);
}

uint64_t CountAt(const Json::Value& object, const char* member) {
    const Json::Value& value = object[member];
    return value.isUInt64() ? value.asUInt64() : 0;
}

int64_t NumberAt(const Json::Value& object, const char* member) {
    const Json::Value& value = object[member];
    return value.isInt64() ? value.asInt64() : 0;
}

bool FlagAt(const Json::Value& object, const char* member) {
    return object[member].isBool() && object[member].asBool();
}

std::vector<std::string> TextsAt(const Json::Value& object, const char* member, size_t most) {
    std::vector<std::string> texts;
    for (const Json::Value& text : object[member]) {
        if (text.isString() && texts.size() < most) texts.push_back(Short(text.asString()));
    }
    return texts;
}

std::vector<Throttling> ThrottledAt(const Json::Value& object) {
    std::vector<Throttling> throttled;
    for (const Json::Value& one : object["throttled"]) {
        if (!one.isObject() || throttled.size() == kMostThrottled) continue;
        const int64_t share = std::clamp<int64_t>(NumberAt(one, "share_100times"), 0, kWhole100Times);
        throttled.push_back({TextAt(one, "name", kMostNameBytes), share});
    }
    return throttled;
}

void AddThrottling(std::vector<Throttling>& throttled, const std::string& name, int64_t periods, int64_t held) {
    if (held <= 0 || periods < held) return;
    throttled.push_back({name, std::max<int64_t>(1, held * kWhole100Times / periods)});
}

std::string NodeName(const zel::CgroupNodeStatus& node) {
    if (node.level == zel::CgroupLevel::kParent) return "the whole agent";
    return node.level == zel::CgroupLevel::kGroup ? "group " + node.name : node.name;
}

/// Of the tree each group; without one all processes are in one group, and the main process's figures are that's.
std::vector<Throttling> FindThrottled(const StatusReport& report) {
    std::vector<Throttling> throttled;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        AddThrottling(throttled, NodeName(node), node.cpu.periods, node.cpu.throttledPeriods);
    }
    if (!report.unified && report.cgroup.cpu.limited) {
        AddThrottling(throttled, report.process, report.cgroup.cpu.periods, report.cgroup.cpu.throttledPeriods);
    }
    std::stable_sort(throttled.begin(), throttled.end(),
                     [](const Throttling& a, const Throttling& b) { return a.share100Times > b.share100Times; });
    if (throttled.size() > kMostThrottled) throttled.resize(kMostThrottled);
    return throttled;
}

Json::Value JsonOf(const HostState& state) {
    Json::Value root(Json::objectValue);
    root["version"] = kStateVersion;
    root["host"] = Short(state.host, kMostNameBytes);
    root["groups"] = Json::Value(Json::arrayValue);
    for (const std::string& group : BoundGroups(state.groups)) root["groups"].append(group);
    root["agent"] = Short(state.version, kMostNameBytes);
    root["time"] = Json::Int64(state.time);
    root["uptime"] = Json::Int64(state.uptimeSeconds);
    root["runs"] = state.agentRuns;
    root["mode"] = Short(state.mode);
    root["problems"] = Json::UInt64(state.problems);
    root["findings"] = Json::Value(Json::arrayValue);
    for (const std::string& finding : state.findings) root["findings"].append(Short(finding));
    Json::Value& config = root["config"] = Json::Value(Json::objectValue);
    config["seen"] = Json::UInt64(state.config.seen);
    config["applied"] = Json::UInt64(state.config.applied);
    config["pinned"] = state.config.pinned;
    config["error"] = Short(state.config.error);
    Json::Value& events = root["events"] = Json::Value(Json::objectValue);
    events["waiting"] = Json::UInt64(state.eventsWaiting);
    events["oldest"] = Json::Int64(state.oldestWaitingSeconds);
    events["dropped"] = Json::UInt64(state.eventsDropped);
    events["given_up"] = Json::UInt64(state.eventsGivenUp);
    events["blocked"] = Short(state.blocked);
    root["throttled"] = Json::Value(Json::arrayValue);
    for (const Throttling& one : state.throttled) {
        Json::Value& entry = root["throttled"].append(Json::Value(Json::objectValue));
        entry["name"] = Short(one.name, kMostNameBytes);
        entry["share_100times"] = Json::Int64(one.share100Times);
    }
    root["drifts"] = Json::UInt64(state.drifts);
    Json::Value& kill = root["kill"] = Json::Value(Json::objectValue);
    kill["time"] = Json::Int64(state.lastKill.time);
    kill["event"] = Short(state.lastKill.event);
    kill["component"] = Short(state.lastKill.component);
    return root;
}

}  // namespace

HostState TakeHostState(const StatusReport& report) {
    HostState state;
    state.agentRuns = true;
    state.time = report.now;
    state.uptimeSeconds = report.uptimeSeconds;
    state.mode = report.modeReason;
    const std::vector<Trouble> troubles = FindTrouble(report);
    state.problems = troubles.size();
    for (const Trouble& trouble : troubles) {
        if (state.findings.size() < kMostFindings) state.findings.push_back(trouble.what + ": " + trouble.remedy);
    }
    state.eventsDropped = report.delivery.dropped;
    for (const zelhost::SinkStats& sink : report.delivery.sinks) {
        state.eventsWaiting = std::max(state.eventsWaiting, sink.waiting);
        state.eventsGivenUp += sink.givenUp;
    }
    state.blocked = BlockedReason(report.delivery);
    state.throttled = FindThrottled(report);
    for (const uint64_t found : report.keeper.found) state.drifts += found;
    return state;
}

std::string BlockedReason(const zelhost::DeliveryStats& delivery) {
    const std::string state = fleet::StateName(fleet::State::kBlocked);  // as the sink words it
    const std::string words = state + ": ";
    for (const zelhost::SinkStats& sink : delivery.sinks) {
        if (sink.name != kFleetSink) continue;
        if (sink.lastError == state) return "no reason is known";
        if (sink.lastError.compare(0, words.size(), words) == 0) return sink.lastError.substr(words.size());
    }
    return "";
}

// What is left without findings and throttling fits in any case: a byte of a text becomes three at most, and the texts
// are bounded.
std::string FormatHostState(const HostState& state) {
    Json::Value root = JsonOf(state);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::string text = Json::writeString(builder, root);
    for (const char* list : {"findings", "throttled"}) {
        while (text.size() > kMostHostStateBytes && !root[list].empty()) {
            root[list].resize(root[list].size() - 1);
            text = Json::writeString(builder, root);
        }
    }
    return text;
}

base::Result<HostState> ParseHostState(const std::string& text) {
    const base::Result<Json::Value> root =
        text.size() > kMostHostStateBytes
            ? base::SentenceError("it is longer than a host's state can be", base::ErrorKind::kMalformed)
            : ParseJson(text, JsonRules::kStrict);
    if (!root) return root.GetError();
    if (!root->isObject() || !(*root)["version"].isInt() || (*root)["version"].asInt() < kStateVersion) {
        return base::SentenceError("it is no state of a host", base::ErrorKind::kMalformed);
    }
    HostState state;
    state.host = TextAt(*root, "host", kMostNameBytes);
    state.version = TextAt(*root, "agent", kMostNameBytes);
    state.time = NumberAt(*root, "time");
    state.uptimeSeconds = NumberAt(*root, "uptime");
    state.agentRuns = FlagAt(*root, "runs");
    state.mode = TextAt(*root, "mode");
    state.problems = CountAt(*root, "problems");
    state.groups = GroupsAt(*root);
    state.findings = TextsAt(*root, "findings", kMostFindings);
    const auto part = [&root](const char* name) {
        return (*root)[name].isObject() ? (*root)[name] : Json::Value(Json::objectValue);
    };
    const Json::Value config = part("config"), events = part("events"), kill = part("kill");
    state.config = {CountAt(config, "seen"), CountAt(config, "applied"), FlagAt(config, "pinned"),
                    TextAt(config, "error")};
    state.eventsWaiting = CountAt(events, "waiting");
    state.oldestWaitingSeconds = NumberAt(events, "oldest");
    state.eventsDropped = CountAt(events, "dropped");
    state.eventsGivenUp = CountAt(events, "given_up");
    state.blocked = TextAt(events, "blocked");
    state.throttled = ThrottledAt(*root);
    state.drifts = CountAt(*root, "drifts");
    state.lastKill = {NumberAt(kill, "time"), TextAt(kill, "event"), TextAt(kill, "component")};
    return state;
}

bool DiffersForFleet(const HostState& before, const HostState& after) {
    const auto config = [](const AppliedConfig& c) { return std::tie(c.seen, c.applied, c.pinned, c.error); };
    return before.version != after.version || before.groups != after.groups || before.agentRuns != after.agentRuns ||
           before.mode != after.mode || before.problems != after.problems || before.drifts != after.drifts ||
           before.eventsDropped != after.eventsDropped || before.eventsGivenUp != after.eventsGivenUp ||
           before.blocked != after.blocked || before.lastKill.event != after.lastKill.event ||
           config(before.config) != config(after.config);
}

const char* NameOf(Presence presence) {
    switch (presence) {
        case Presence::kOk: return "ok";
        case Presence::kTroubled: return "troubled";
        case Presence::kLate: return "late";
        case Presence::kGone: break;
    }
    return "gone";
}

Presence PresenceOf(const HostState& state, int64_t silentSeconds) {
    if (silentSeconds >= kGoneIntervals * kHostStateSeconds) return Presence::kGone;
    if (silentSeconds >= kLateIntervals * kHostStateSeconds) return Presence::kLate;
    const bool well = state.agentRuns && state.problems == 0 && state.config.error.empty() && state.blocked.empty();
    return well ? Presence::kOk : Presence::kTroubled;
}

}  // namespace agent
