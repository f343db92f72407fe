// Values, differences and the way back.
#include "FleetLevels.h"

#include <json/json.h>

#include <algorithm>

#include "JsonText.h"
#include "Printable.h"
#include "fleet/RemoteConfig.h"
#include "fleet/Rollout.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

Json::Value ObjectOf(const std::optional<std::string>& text) {
    const base::Result<Json::Value> root = ParseJson(text.value_or("{}"), JsonRules::kStrict);
    return root && root->isObject() ? *root : Json::Value(Json::objectValue);
}

std::string CompactText(const Json::Value& root) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, root);
}

bool IsRemark(const std::string& member) {
    return !member.empty() && member[0] == '_';
}

/// Errors: what the agent refuses of it first.
base::Status JudgeLevel(const std::string& text) {
    const std::vector<ConfigFinding> findings = JudgeConfigText(ConfigFile::kOnline, text);
    if (findings.empty()) return {};
    const ConfigFinding& first = findings.front();
    const std::string where = first.key.empty() ? "" : first.key + " = " + first.value + ": ";
    return base::SentenceError("the agent refuses it: " + where + first.reason, base::ErrorKind::kRefused);
}

/// The online configuration's key of that name. Errors: what is known.
base::Result<SettableKey> FindOnline(const std::string& name) {
    const base::Result<SettableKey> key = FindSettable(name);
    if (key && key->file == ConfigFile::kOnline) return key;
    std::string known;
    for (const SettableKey& one : SettableKeys()) {
        if (one.file == ConfigFile::kOnline) known += (known.empty() ? "" : ", ") + one.name;
    }
    return base::SentenceError("a fleet sets no key \"" + Printable(name) + "\"; it sets " + known,
                               base::ErrorKind::kMalformed);
}

bool IsSame(const LevelEntry& one, const LevelEntry& other) {
    return one.text.has_value() == other.text.has_value() && ValuesOf(one.text) == ValuesOf(other.text);
}

/// The entry whose values an undo has brought back as this one. A remark that was carried along by a later change names
/// another one's values, and counts nothing.
size_t OriginOf(const std::vector<LevelEntry>& history, size_t at) {
    for (bool goesOn = true; goesOn;) {
        goesOn = false;
        const Json::Value root = ObjectOf(history[at].text);
        if (!root[kBackRemark].isUInt64()) return at;
        const uint64_t revision = root[kBackRemark].asUInt64();
        for (size_t i = 0; i < at; ++i) {
            if (history[i].revision != revision || !IsSame(history[i], history[at])) continue;
            at = i;
            goesOn = true;
        }
    }
    return at;
}

/// The entry before the last change of the first `count` ones; none: it is not there any more.
std::optional<size_t> EntryBefore(const std::vector<LevelEntry>& history, size_t count) {
    if (count == 0) return std::nullopt;
    const size_t origin = OriginOf(history, count - 1);
    for (size_t i = origin; i > 0; --i) {
        if (!IsSame(history[i - 1], history[origin])) return i - 1;
    }
    return std::nullopt;
}

base::Error NoWayBack(const std::string& sentence) {
    return base::SentenceError(sentence, base::ErrorKind::kNotFound);
}

base::Result<size_t> FindBefore(const std::vector<LevelEntry>& history) {
    const std::optional<size_t> before = EntryBefore(history, history.size());
    if (!before) {
        return NoWayBack("the broker has nothing before revision " +
                         std::to_string(history[OriginOf(history, history.size() - 1)].revision) + " of " +
                         history.back().level + ": take values away with fleet config unset");
    }
    // A deletion has no remark. This one may be an unset, or an undo of what came after an earlier deletion.
    const std::optional<size_t> earlier = EntryBefore(history, history.size() - 1);
    if (!history.back().text && earlier && !history[*earlier].text) {
        return NoWayBack("revision " + std::to_string(history.back().revision) + " took " + history.back().level +
                         " away, by an unset or an undo, which the broker does not tell apart: name the revision to "
                         "bring back with --to, see fleet config history");
    }
    return *before;
}

}  // namespace

LevelEntry TakeLevel(const std::string& level, const Json::Value& item) {
    LevelEntry entry;
    entry.level = level;
    if (!item.isObject()) return entry;
    if (item["key"].isString()) entry.level = item["key"].asString();
    if (item["revision"].isUInt64()) entry.revision = item["revision"].asUInt64();
    entry.time = BrokerTimeIn(item["time"]);
    const bool isDeleted = item["deleted"].isBool() && item["deleted"].asBool();
    if (!isDeleted && item["value"].isString()) entry.text = item["value"].asString();
    entry.isCut = item["cut"].isBool() && item["cut"].asBool();
    return entry;
}

std::map<std::string, std::string> ValuesOf(const std::optional<std::string>& text) {
    std::map<std::string, std::string> values;
    const Json::Value root = ObjectOf(text);
    for (const std::string& member : root.getMemberNames()) {
        const Json::Value& value = root[member];
        if (!IsRemark(member)) values[member] = value.isString() ? value.asString() : CompactText(value);
    }
    return values;
}

std::vector<KeyChange> CompareLevels(const std::optional<std::string>& before,
                                     const std::optional<std::string>& after) {
    const std::map<std::string, std::string> old = ValuesOf(before), now = ValuesOf(after);
    std::vector<KeyChange> changes;
    for (const auto& [key, value] : old) {
        const auto found = now.find(key);
        if (found == now.end()) changes.push_back({key, value, std::nullopt});
        if (found != now.end() && found->second != value) changes.push_back({key, value, found->second});
    }
    for (const auto& [key, value] : now) {
        if (old.count(key) == 0) changes.push_back({key, std::nullopt, value});
    }
    return changes;
}

std::string WordChange(const KeyChange& change) {
    const auto shown = [](const std::optional<std::string>& value) { return value ? Printable(*value) : "nothing"; };
    return Printable(change.key) + ": " + shown(change.before) + " -> " + shown(change.after);
}

base::Result<std::vector<KeyChange>> ReadChanges(const std::vector<std::string>& words, bool isSet) {
    std::vector<KeyChange> changes;
    for (const std::string& word : words) {
        const size_t equals = word.find('=');
        if (isSet ? equals == std::string::npos || equals == 0 : equals != std::string::npos) {
            return base::SentenceError(
                isSet ? "fleet config set takes KEY=VALUE" : "fleet config unset takes keys, without a value",
                base::ErrorKind::kInvalidValue);
        }
        const base::Result<SettableKey> key = FindOnline(word.substr(0, equals));
        if (!key) return key.GetError();
        for (const KeyChange& one : changes) {
            if (one.key == key->name)
                return base::SentenceError(key->name + " is named twice", base::ErrorKind::kInvalidValue);
        }
        changes.push_back(
            {key->name, std::nullopt, isSet ? std::optional<std::string>(word.substr(equals + 1)) : std::nullopt});
    }
    return changes;
}

base::Result<std::optional<std::string>> ChangeKeys(const std::optional<std::string>& text,
                                                    const std::vector<KeyChange>& changes) {
    std::string changed = text.value_or("{}");
    for (const KeyChange& change : changes) {
        const base::Result<SettableKey> key = FindOnline(change.key);
        if (!key) return key.GetError();
        const base::Result<std::string> one = ChangeValue(*key, change.after, changed);
        if (!one) return base::SentenceError("what is there is no configuration: " + one.GetError().Text());
        changed = *one;
    }
    Json::Value root = ObjectOf(changed);
    root.removeMember(kBackRemark);
    root.removeMember(kRolloutRemark);
    if (root.empty()) return std::optional<std::string>();
    changed = CompactText(root);
    const base::Status judged = JudgeLevel(changed);
    if (!judged) return judged.GetError();
    return std::optional<std::string>(changed);
}

base::Result<UndoTarget> FindUndo(const std::vector<LevelEntry>& history, std::optional<uint64_t> to) {
    if (history.empty()) return NoWayBack("nothing was ever set there");
    // What a rollout has put names what was there before it, also where that was nothing, or had the same values.
    const std::optional<RolloutMark> mark = to ? std::nullopt : ReadRolloutMark(history.back().text);
    if (mark && mark->before == 0) return UndoTarget{};
    if (mark) to = mark->before;
    size_t at = 0;
    if (to) {
        const auto found = std::find_if(history.begin(), history.end(),
                                        [&to](const LevelEntry& entry) { return entry.revision == *to; });
        if (found == history.end()) {
            return NoWayBack("the broker has no revision " + std::to_string(*to) + " of " + history.back().level +
                             ": see fleet config history");
        }
        at = static_cast<size_t>(found - history.begin());
    } else {
        const base::Result<size_t> before = FindBefore(history);
        if (!before) return before.GetError();
        at = *before;
    }
    const LevelEntry& entry = history[at];
    UndoTarget target;
    target.revision = entry.revision;
    if (!entry.text) return target;
    const base::Status judged = JudgeLevel(*entry.text);
    if (!judged) return judged.GetError();
    Json::Value root = ObjectOf(entry.text);
    root.removeMember(kRolloutRemark);
    root[kBackRemark] = Json::UInt64(history[OriginOf(history, at)].revision);
    target.text = CompactText(root);
    return target;
}

bool ReadsLevel(const FleetRow& row, const std::string& level) {
    if (level == "all") return true;
    if (level == "host." + row.key) return true;
    return std::any_of(row.state.groups.begin(), row.state.groups.end(),
                       [&level](const std::string& group) { return "group." + fleet::EscapeName(group) == level; });
}

LevelHosts CountLevelHosts(const FleetRoster& roster, const std::string& level, uint64_t revision) {
    LevelHosts hosts;
    for (const FleetRow& row : roster.Rows()) {
        if (!ReadsLevel(row, level)) continue;
        ++hosts.all;
        const AppliedConfig& config = row.state.config;
        if (config.pinned)
            ++hosts.pinned;
        else if (!config.error.empty())
            ++hosts.refused;
        else if (config.applied >= revision)
            ++hosts.applied;
    }
    return hosts;
}

std::string WordLevelHosts(const LevelHosts& hosts) {
    std::string text = hosts.all == 1 ? "1 host reads it" : std::to_string(hosts.all) + " hosts read it";
    if (hosts.all == 0) return "no host that is known reads it";
    text += ", " + std::to_string(hosts.applied) + " as it is";
    if (hosts.refused > 0) text += ", " + std::to_string(hosts.refused) + " with an error";
    if (hosts.pinned > 0) text += ", " + std::to_string(hosts.pinned) + " pinned";
    return text;
}

}  // namespace agent
