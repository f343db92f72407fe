// The levels judged by the agent's own parser, one after the other and once more together.
#include "fleet/RemoteConfig.h"

#include <json/json.h>

#include <algorithm>

#include "JsonText.h"
#include "Printable.h"
#include "platform/host/OnlineConfigText.h"

namespace agent {

namespace {

Json::Value ObjectOf(const std::string& text) {
    const base::Result<Json::Value> root = ParseJson(text, JsonRules::kStrict);
    return root && root->isObject() ? *root : Json::Value(Json::objectValue);
}

bool IsRemark(const std::string& member) {
    return !member.empty() && member[0] == '_';
}

/// Returns: empty when the agent takes the text; otherwise the first thing for which it does not.
std::string Judge(const std::string& text) {
    if (text.size() > kMostRemoteBytes) return "it has more than " + std::to_string(kMostRemoteBytes) + " bytes";
    zelhost::OnlineNumbers values;
    const std::vector<zelhost::OnlineFinding> findings = zelhost::JudgeOnlineText(text, values);
    if (findings.empty()) return "";
    const zelhost::OnlineFinding& first = findings.front();
    if (first.key.empty()) return first.reason;
    return "key '" + first.key + "', value " + first.value + ": " + first.reason;
}

/// Returns: empty when the host's own file may be read; otherwise why it cannot, and so may say what nobody sees.
std::string JudgeLocal(const std::optional<std::string>& local) {
    if (!local || local->find_first_not_of(" \t\r\n") == std::string::npos) return "";
    const base::Result<Json::Value> root = ParseJson(*local, JsonRules::kStrict);
    if (root && root->isObject()) return "";
    return Printable("the host's own file stays as it is, since it cannot be read: " +
                     (root ? std::string("it is no JSON object") : root.GetError().Text()));
}

std::string Write(const Json::Value& root) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "    ";
    return Json::writeString(builder, root) + "\n";
}

}  // namespace

RemoteDecision DecideRemoteConfig(const std::vector<RemoteLevel>& levels, const std::optional<std::string>& local) {
    RemoteDecision decision;
    Json::Value merged(Json::objectValue);
    Json::Value origin(Json::objectValue);
    for (const RemoteLevel& level : levels) {
        decision.revision = std::max(decision.revision, level.revision);
        if (!level.text || !decision.error.empty()) continue;
        const std::string problem = Judge(*level.text);
        if (!problem.empty()) {
            decision.error = Printable("the fleet's configuration \"" + level.name + "\", revision " +
                                       std::to_string(level.revision) + ", is refused: " + problem);
            continue;
        }
        const Json::Value given = ObjectOf(*level.text);
        for (const std::string& member : given.getMemberNames()) {
            if (IsRemark(member)) continue;
            merged[member] = given[member];
            origin[member] = level.name;
        }
    }
    if (decision.revision == 0) return decision;
    if (local && IsPinned(*local)) {
        decision.action = RemoteAction::kPinned;
        return decision;
    }
    merged[kFleetRemark]["revision"] = Json::UInt64(decision.revision);
    merged[kFleetRemark]["from"] = origin;
    const std::string text = Write(merged);
    if (decision.error.empty()) decision.error = JudgeLocal(local);
    if (decision.error.empty()) decision.error = Judge(text);
    if (!decision.error.empty()) {
        decision.action = RemoteAction::kRefused;
    } else if (!local || *local != text) {
        decision.action = RemoteAction::kWrite;
        decision.text = text;
    }
    return decision;
}

std::optional<FleetOrigin> ReadFleetOrigin(const std::string& text) {
    const Json::Value remark = ObjectOf(text)[kFleetRemark];
    if (!remark.isObject() || !remark["revision"].isUInt64() || !remark["from"].isObject()) return std::nullopt;
    FleetOrigin origin;
    origin.revision = remark["revision"].asUInt64();
    for (const std::string& member : remark["from"].getMemberNames()) {
        if (remark["from"][member].isString()) origin.levels[member] = Printable(remark["from"][member].asString());
    }
    return origin;
}

bool IsPinned(const std::string& text) {
    const Json::Value remark = ObjectOf(text)[kPinnedRemark];
    return remark.isBool() && remark.asBool();
}

}  // namespace agent
