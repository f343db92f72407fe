// Each change is put with the revision that was read: who is slower than somebody else changes nothing.
#include "FleetConfigCommands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "CtlExit.h"
#include "FleetLevels.h"
#include "FleetLink.h"
#include "FleetMarks.h"
#include "FleetReading.h"
#include "FleetRollout.h"
#include "HumanText.h"
#include "Printable.h"
#include "View.h"
#include "fleet/ConfigDuty.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr char kBucket[] = "config";

std::string LevelName(const FleetConfigOptions& options) {
    if (!options.host.empty()) return "host." + fleet::EscapeName(options.host);
    return options.group.empty() ? "all" : "group." + fleet::EscapeName(options.group);
}

Json::Value RequestFor(const char* op, const std::string& level) {
    Json::Value request(Json::objectValue);
    request["op"] = op;
    request["bucket"] = kBucket;
    if (!level.empty()) request["key"] = level;
    return request;
}

base::Error NotRead(const std::string& level, const std::string& why) {
    return base::SentenceError("the level " + level + " cannot be read: " + why);
}

/// As the broker has it now. Errors: a sentence; kNoServer: there was no answer.
base::Result<LevelEntry> ReadLevel(FleetLink& link, const std::string& level) {
    const base::Result<FleetAnswer> answer = link.Ask(RequestFor("get", level));
    if (!answer) return answer.GetError();
    if (!answer->ok) return NotRead(level, answer->error);
    const bool isFound = answer->body["found"].isBool() && answer->body["found"].asBool();
    LevelEntry entry = isFound ? TakeLevel(level, answer->body) : TakeLevel(level, Json::Value());
    entry.level = level;
    if (entry.isCut) return NotRead(level, "it is too long");
    return entry;
}

/// All levels, or the states of one that the broker still has. Errors: as above.
base::Result<std::vector<LevelEntry>> ReadLevels(FleetLink& link, const char* op, const std::string& level) {
    std::vector<LevelEntry> levels;
    const base::Result<FleetAnswer> answer = link.Ask(RequestFor(op, level), [&](const Json::Value& item) {
        levels.push_back(TakeLevel(level, item));
        return true;
    });
    if (!answer) return answer.GetError();
    if (!answer->ok) return NotRead(level.empty() ? "of each kind" : level, answer->error);
    return levels;
}

int FailReading(const base::Error& error) {
    return FleetFail(error.kind == base::ErrorKind::kNoServer ? kUnreachable : kRefused, error.Text());
}

std::string RevisionText(const LevelEntry& entry) {
    return "revision " + std::to_string(entry.revision) + ", " + ClockText(static_cast<int64_t>(entry.time));
}

Json::Value HostsJson(const LevelHosts& hosts) {
    Json::Value view(Json::objectValue);
    view["all"] = Json::UInt64(hosts.all);
    view["applied"] = Json::UInt64(hosts.applied);
    view["refused"] = Json::UInt64(hosts.refused);
    view["pinned"] = Json::UInt64(hosts.pinned);
    return view;
}

Json::Value ChangesJson(const std::vector<KeyChange>& changes) {
    Json::Value list(Json::arrayValue);
    for (const KeyChange& change : changes) {
        Json::Value one(Json::objectValue);
        one["key"] = Printable(change.key);
        one["before"] = Printable(change.before.value_or(""));
        one["after"] = Printable(change.after.value_or(""));
        list.append(one);
    }
    return list;
}

// --- show ---

/// Whether a level is among those that were asked for.
bool IsShown(const LevelEntry& entry, const FleetConfigOptions& options) {
    if (!options.group.empty()) return entry.level == LevelName(options);
    return options.allLevels || (entry.text && entry.level.compare(0, 5, "host.") != 0);
}

Json::Value LevelJson(const LevelEntry& entry, const LevelHosts& hosts) {
    Json::Value view(Json::objectValue);
    view["level"] = Printable(entry.level);
    view["revision"] = Json::UInt64(entry.revision);
    view["time"] = Json::Int64(static_cast<int64_t>(entry.time));
    view["deleted"] = !entry.text;
    view["hosts"] = HostsJson(hosts);
    view["values"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : ValuesOf(entry.text)) view["values"][Printable(key)] = Printable(value);
    return view;
}

void PrintLevel(const LevelEntry& entry, const LevelHosts& hosts) {
    printf("%s  %s; %s%s\n", Printable(entry.level).c_str(), RevisionText(entry).c_str(), WordLevelHosts(hosts).c_str(),
           entry.text ? "" : "; taken away");
    for (const auto& [key, value] : ValuesOf(entry.text)) {
        printf("  %s = %s\n", Printable(key).c_str(), Printable(value).c_str());
    }
}

int ShowLevels(FleetLink& link, const FleetConfigOptions& options) {
    const base::Result<std::vector<LevelEntry>> read = ReadLevels(link, "keys", "");
    if (!read) return FailReading(read.GetError());
    const base::Result<FleetRoster> roster = ReadRoster(link);
    if (!roster) return FailReading(roster.GetError());
    std::map<std::string, LevelEntry> levels;  // a key that comes twice counts with its higher revision
    for (const LevelEntry& entry : *read) {
        LevelEntry& kept = levels[entry.level];
        if (entry.revision >= kept.revision) kept = entry;
    }
    Json::Value view = NewView("fleet-config");
    view["levels"] = Json::Value(Json::arrayValue);
    size_t shown = 0, others = 0;
    for (const auto& [name, entry] : levels) {
        if (!IsShown(entry, options)) {
            others += entry.text.has_value();
            continue;
        }
        ++shown;
        const LevelHosts hosts = CountLevelHosts(*roster, name, entry.revision);
        if (!options.json) PrintLevel(entry, hosts);
        view["levels"].append(LevelJson(entry, hosts));
    }
    const std::vector<MarkedRollout> rollouts = FindRollouts(*read, static_cast<int64_t>(roster->Time().now));
    view["rollouts"] = Json::Value(Json::arrayValue);
    for (const MarkedRollout& rollout : rollouts) view["rollouts"].append(RolloutJson(rollout));
    if (options.json) {
        fputs(ViewText(view).c_str(), stdout);
        return kOk;
    }
    if (shown == 0) printf("the fleet gives nothing%s\n", options.group.empty() ? "" : " on this level");
    if (others > 0 && options.group.empty()) {
        printf("%zu %s: --all-levels shows it too\n", others,
               others == 1 ? "level of a single host" : "levels of single hosts");
    }
    for (const MarkedRollout& rollout : rollouts) {
        printf("%s, %s: %s\n", WordRollout(rollout).c_str(), rollout.isAbandoned ? "was left behind" : "goes on",
               RemedyOf(rollout).c_str());
    }
    return kOk;
}

/// A host's values as the fleet gives them, and what it says of them itself.
struct HostPicture {
    std::string host;
    const FleetRow* row = nullptr;  ///< null: it has said nothing yet
    RemoteDecision decision;
    std::map<std::string, std::string> origins;
};

/// What a host says of the fleet's configuration itself.
std::string WordApplied(const FleetRow* row, uint64_t revision) {
    if (row == nullptr) return "it has said nothing of itself yet: its groups are not known, and are left out";
    const AppliedConfig& config = row->state.config;
    const std::string seen =
        "it has seen revision " + std::to_string(config.seen) + " and applied " + std::to_string(config.applied);
    if (config.pinned) return seen + ", and keeps a file of its own (pinned)";
    if (!config.error.empty()) return seen + ": " + Printable(config.error);
    return seen + (config.applied < revision ? ", and not yet the one above" : "");
}

Json::Value HostConfigJson(const HostPicture& picture) {
    Json::Value view = NewView("fleet-config-host");
    const AppliedConfig config = picture.row == nullptr ? AppliedConfig() : picture.row->state.config;
    view["host"] = Printable(picture.host);
    view["known"] = picture.row != nullptr;
    view["groups"] = JsonList(picture.row == nullptr ? std::vector<std::string>() : picture.row->state.groups);
    view["revision"] = Json::UInt64(picture.decision.revision);
    view["refused"] = picture.decision.error;
    view["values"] = Json::Value(Json::arrayValue);
    for (const auto& [key, value] : ValuesOf(picture.decision.text)) {
        Json::Value one(Json::objectValue);
        one["key"] = Printable(key);
        one["value"] = Printable(value);
        const auto found = picture.origins.find(key);
        one["level"] = found == picture.origins.end() ? "" : found->second;
        view["values"].append(one);
    }
    view["config"]["seen"] = Json::UInt64(config.seen);
    view["config"]["applied"] = Json::UInt64(config.applied);
    view["config"]["pinned"] = config.pinned;
    view["config"]["error"] = Printable(config.error);
    return view;
}

void PrintHost(const HostPicture& picture) {
    std::string groups;
    if (picture.row != nullptr) {
        for (const std::string& group : picture.row->state.groups) groups += (groups.empty() ? "" : ", ") + group;
    }
    printf("%s  groups %s; revision %llu\n", Printable(picture.host).c_str(),
           groups.empty() ? "none" : Printable(groups).c_str(),
           static_cast<unsigned long long>(picture.decision.revision));
    for (const auto& [key, value] : ValuesOf(picture.decision.text)) {
        const auto found = picture.origins.find(key);
        printf("  %s = %s, from %s\n", Printable(key).c_str(), Printable(value).c_str(),
               found == picture.origins.end() ? "?" : found->second.c_str());
    }
    if (!picture.decision.error.empty()) printf("%s\n", picture.decision.error.c_str());
    if (picture.decision.revision == 0) printf("the fleet gives it nothing\n");
    printf("%s\n", WordApplied(picture.row, picture.decision.revision).c_str());
}

int ShowHost(FleetLink& link, const FleetConfigOptions& options) {
    const base::Result<FleetRoster> roster = ReadRoster(link);
    if (!roster) return FailReading(roster.GetError());
    HostPicture picture;
    picture.host = options.host;
    for (const FleetRow& row : roster->Rows()) {
        if (row.key == fleet::EscapeName(options.host)) picture.row = &row;
    }
    std::vector<RemoteLevel> levels;
    const std::vector<std::string> none;
    for (const std::string& name :
         ConfigLevels(options.host, picture.row == nullptr ? none : picture.row->state.groups)) {
        const base::Result<LevelEntry> entry = ReadLevel(link, name);
        if (!entry) return FailReading(entry.GetError());
        levels.push_back({name, entry->revision, entry->text});
    }
    picture.decision = DecideRemoteConfig(levels, std::nullopt);
    const std::optional<FleetOrigin> origin = ReadFleetOrigin(picture.decision.text);
    if (origin) picture.origins = origin->levels;
    if (options.json) {
        fputs(ViewText(HostConfigJson(picture)).c_str(), stdout);
    } else {
        PrintHost(picture);
    }
    const bool isWell =
        picture.decision.error.empty() && (picture.row == nullptr || picture.row->state.config.error.empty());
    return isWell ? kOk : kDegraded;
}

// --- changes ---

/// What was to be put, and what came of it.
struct Edit {
    LevelEntry before;
    std::optional<std::string> after;
    uint64_t revision = 0;  ///< that was stored
    std::string note;       ///< a sentence; may be empty
};

int PrintEdit(FleetLink& link, const FleetConfigOptions& options, const Edit& edit) {
    const std::vector<KeyChange> changes = CompareLevels(edit.before.text, edit.after);
    // Best effort: the change is stored whether the hosts can be counted or not.
    const base::Result<FleetRoster> roster = ReadRoster(link);
    const LevelHosts hosts = roster ? CountLevelHosts(*roster, edit.before.level, edit.revision) : LevelHosts();
    if (options.json) {
        Json::Value view = NewView("fleet-config-change");
        view["level"] = edit.before.level;
        view["changes"] = ChangesJson(changes);
        view["revision"] = Json::UInt64(edit.revision);
        view["deleted"] = !edit.after;
        view["hosts"] = HostsJson(hosts);
        view["note"] = edit.note;
        fputs(ViewText(view).c_str(), stdout);
        return kOk;
    }
    for (const KeyChange& change : changes) printf("%s\n", WordChange(change).c_str());
    if (!edit.note.empty()) printf("%s\n", edit.note.c_str());
    const std::string readers =
        hosts.all == 1 ? "1 host reads it, and takes" : std::to_string(hosts.all) + " hosts read it, and take";
    const bool isStored = edit.revision != edit.before.revision;
    printf("%s has revision %llu%s; %s\n", edit.before.level.c_str(), static_cast<unsigned long long>(edit.revision),
           edit.after || !isStored ? "" : ", and is taken away",
           isStored && hosts.all > 0 ? (readers + " it within ten seconds").c_str() : WordLevelHosts(hosts).c_str());
    return kOk;
}

/// What somebody else has made of the level since it was read.
std::string WordOthers(const Edit& edit, const LevelEntry& now) {
    std::string changes;
    for (const KeyChange& change : CompareLevels(edit.before.text, now.text)) {
        changes += (changes.empty() ? "" : ", ") + WordChange(change);
    }
    return edit.before.level + " was changed by somebody else meanwhile, revision " + std::to_string(now.revision) +
           (changes.empty() ? "" : " (" + changes + ")") +
           ": this change was not made; look at it with fleet config "
           "history, and say again what is to be changed";
}

int FailUnknown(const Edit& edit, const std::string& why) {
    return FleetFail(kUnreachable, "it is not known whether " + edit.before.level + " was changed: " + why +
                                       "; look with fleet config history what became of it");
}

/// After a put without an answer, where the level is what somebody else has made of it: the change may have been stored
/// before that.
int SettleOvertaken(FleetLink& link, Edit& edit, const LevelEntry& now, const std::string& why) {
    const base::Result<std::vector<LevelEntry>> history = ReadLevels(link, "history", edit.before.level);
    if (!history) return FailUnknown(edit, why + "; " + history.GetError().Text());
    // A copy that lags behind has not got all of it.
    const bool isWhole = !history->empty() && history->back().revision >= now.revision;
    if (!isWhole) return FailUnknown(edit, why + "; revision " + std::to_string(now.revision) + " is somebody else's");
    for (const LevelEntry& entry : *history) {
        if (entry.revision <= edit.before.revision || entry.text != edit.after) continue;
        std::string changes;
        for (const KeyChange& change : CompareLevels(entry.text, now.text))
            changes += (changes.empty() ? "" : ", ") + WordChange(change);
        return FleetFail(kRefused, entry.level + " was changed, revision " + std::to_string(entry.revision) +
                                       ", and by somebody else since, revision " + std::to_string(now.revision) +
                                       (changes.empty() ? "" : " (" + changes + ")") +
                                       ": look at it with fleet config history");
    }
    return FleetFail(kRefused, WordOthers(edit, now));
}

/// After a put without an answer: what the level is now.
int SettleUnknown(FleetLink& link, const FleetConfigOptions& options, Edit& edit, const std::string& why) {
    const base::Result<LevelEntry> now = ReadLevel(link, edit.before.level);
    if (!now) return FailUnknown(edit, why + "; " + now.GetError().Text());
    if (now->revision == edit.before.revision) {
        return FleetFail(kRefused, edit.before.level + " is not changed so far, and may be yet, since the broker did " +
                                       "not answer: " + why + "; look with fleet config history what became of it");
    }
    if (now->text != edit.after) return SettleOvertaken(link, edit, *now, why);
    edit.revision = now->revision;
    edit.note = "the broker did not answer, and has it now";
    return PrintEdit(link, options, edit);
}

int Put(FleetLink& link, const FleetConfigOptions& options, Edit& edit) {
    Json::Value request = RequestFor("put", edit.before.level);
    if (edit.after) request["value"] = *edit.after;
    request["expected"] = Json::UInt64(edit.before.revision);
    const base::Result<FleetAnswer> answer = link.Ask(std::move(request));
    if (!answer) return FailUnknown(edit, answer.GetError().Text());
    if (answer->ok) {
        edit.revision = answer->body["revision"].isUInt64() ? answer->body["revision"].asUInt64() : 0;
        return PrintEdit(link, options, edit);
    }
    if (answer->outcome == "conflict") {
        const base::Result<LevelEntry> now = ReadLevel(link, edit.before.level);
        if (!now) return FleetFail(kRefused, edit.before.level + " was not changed: " + answer->error);
        return FleetFail(kRefused, WordOthers(edit, *now));
    }
    if (answer->outcome == "refused")
        return FleetFail(kRefused, edit.before.level + " was not changed: " + answer->error);
    return SettleUnknown(link, options, edit, answer->error);
}

/// Returns: a code where a rollout's hosts would be judged by this change too.
std::optional<int> JudgeMeddling(FleetLink& link, const std::string& level) {
    const base::Result<std::vector<LevelEntry>> levels = ReadLevels(link, "keys", "");
    if (!levels) return FailReading(levels.GetError());
    const bool isMarked = std::any_of(levels->begin(), levels->end(),
                                      [](const LevelEntry& entry) { return ReadRolloutMark(entry.text).has_value(); });
    if (!isMarked) return std::nullopt;
    const base::Result<FleetRoster> roster = ReadRoster(link);
    if (!roster) return FailReading(roster.GetError());
    const std::vector<MarkedRollout> rollouts = FindRollouts(*levels, static_cast<int64_t>(roster->Time().now));
    const MarkedRollout* const found = FindMeddled(rollouts, *roster, level);
    if (found == nullptr) return std::nullopt;
    return FleetFail(kRefused, WordRefusal(level, *found));
}

int Change(FleetLink& link, const FleetConfigOptions& options, bool isSet) {
    const base::Result<std::vector<KeyChange>> changes = ReadChanges(options.words, isSet);
    if (!changes) return FleetFail(kRefused, changes.GetError().Text());
    const base::Result<LevelEntry> before = ReadLevel(link, LevelName(options));
    if (!before) return FailReading(before.GetError());
    const base::Result<std::optional<std::string>> after = ChangeKeys(before->text, *changes);
    if (!after) return FleetFail(kRefused, before->level + " is not changed: " + after.GetError().Text());
    if (CompareLevels(before->text, *after).empty()) {
        Edit same{*before, before->text, before->revision, "nothing is changed: the values are these already"};
        return PrintEdit(link, options, same);
    }
    if (const std::optional<int> code = JudgeMeddling(link, before->level)) return *code;
    Edit edit{*before, *after, 0, ""};
    return Put(link, options, edit);
}

int Undo(FleetLink& link, const FleetConfigOptions& options) {
    const std::string level = LevelName(options);
    const base::Result<std::vector<LevelEntry>> history = ReadLevels(link, "history", level);
    if (!history) return FailReading(history.GetError());
    const base::Result<UndoTarget> target =
        FindUndo(*history, options.to == 0 ? std::nullopt : std::optional<uint64_t>(options.to));
    if (!target) return FleetFail(kRefused, level + " is not changed: " + target.GetError().Text());
    const std::string note = target->revision == 0 ? std::string("as before the rollout: it was not there")
                                                   : "as of revision " + std::to_string(target->revision);
    Edit edit{history->back(), target->text, 0, note};
    return Put(link, options, edit);
}

// --- history ---

int ShowHistory(FleetLink& link, const FleetConfigOptions& options) {
    const std::string level = LevelName(options);
    const base::Result<std::vector<LevelEntry>> history = ReadLevels(link, "history", level);
    if (!history) return FailReading(history.GetError());
    Json::Value view = NewView("fleet-config-history");
    view["level"] = level;
    view["entries"] = Json::Value(Json::arrayValue);
    std::optional<std::string> before;
    for (const LevelEntry& entry : *history) {
        const std::vector<KeyChange> changes = CompareLevels(before, entry.text);
        const bool isFirst = &entry == &history->front();
        before = entry.text;
        if (options.json) {
            Json::Value one(Json::objectValue);
            one["revision"] = Json::UInt64(entry.revision);
            one["time"] = Json::Int64(static_cast<int64_t>(entry.time));
            one["deleted"] = !entry.text;
            one["oldest"] = isFirst;
            one["changes"] = ChangesJson(changes);
            view["entries"].append(one);
            continue;
        }
        printf("%s%s\n", RevisionText(entry).c_str(), entry.text ? "" : ": taken away");
        for (const KeyChange& change : changes) {
            // What was there before the oldest one is not known.
            const std::string shown = Printable(change.key) + " = " + Printable(change.after.value_or(""));
            printf("  %s\n", isFirst ? shown.c_str() : WordChange(change).c_str());
        }
    }
    if (options.json) fputs(ViewText(view).c_str(), stdout);
    if (!options.json && history->empty()) printf("nothing was ever set on %s\n", level.c_str());
    return kOk;
}

CLI::Option* AddGroup(CLI::App& command, FleetConfigOptions& options) {
    return command.add_option("--group", options.group, "of this group of hosts")->type_name("GROUP");
}

CLI::Option* AddLevel(CLI::App& command, FleetConfigOptions& options) {
    CLI::Option* host = command.add_option("--host", options.host, "of this host")->type_name("HOST");
    AddGroup(command, options)->excludes(host);
    return host;
}

/// What makes a change one in two steps.
void AddRollout(CLI::App& command, FleetConfigOptions& options, CLI::Option* host) {
    const auto share = [](std::string& text) {
        return ParseCanaryPercent(text) > 0 ? std::string() : text + " is no share of hosts: 1% to 100%";
    };
    const auto time = [](std::string& text) {
        return ParseRolloutWait(text) > 0 ? std::string()
                                          : text + " is no time up to a week: a number with s, m, h or d";
    };
    CLI::Option* canary = command.add_option("--canary", options.canary, "share of the hosts that get it first; 5%")
                              ->check(CLI::Validator(share, "PERCENT"));
    CLI::Option* wait = command.add_option("--wait", options.wait, "how long they have to stay well; 10m")
                            ->check(CLI::Validator(time, "TIME"));
    if (host == nullptr) return;
    canary->excludes(host);
    wait->excludes(host);
}

}  // namespace

void DeclareFleetConfig(CLI::App& fleet, FleetConfigOptions& options) {
    CLI::App* config = fleet.add_subcommand("config", "the configuration that the fleet gives its hosts");
    config->require_subcommand(1);
    CLI::App* show = config->add_subcommand("show", "levels with their values, or what one host gets of them");
    AddLevel(*show, options);
    show->add_flag("--all-levels", options.allLevels, "those of single hosts, and those that were taken away, too");
    CLI::App* set = config->add_subcommand("set", "give keys a value, for all hosts, a group or one host");
    set->add_option("SETTING", options.words, "what to set")->required()->type_name("FLEET-KEY=VALUE");
    AddRollout(*set, options, AddLevel(*set, options));
    CLI::App* rollout = config->add_subcommand("rollout", "the same for a few hosts, and for all if those stay well");
    rollout->add_option("SETTING", options.words, "what to set")->required()->type_name("FLEET-KEY=VALUE");
    AddGroup(*rollout, options);
    AddRollout(*rollout, options, nullptr);
    CLI::App* unset = config->add_subcommand("unset", "take keys away");
    unset->add_option("FLEET-KEY", options.words, "what to take away")->required()->type_name("FLEET-KEY");
    AddLevel(*unset, options);
    AddLevel(*config->add_subcommand("history", "states of a level that the broker still has"), options);
    CLI::App* undo = config->add_subcommand("undo", "bring the state before the last change back");
    undo->add_option("--to", options.to, "the revision to bring back")
        ->type_name("REVISION")
        ->check(CLI::PositiveNumber);
    AddLevel(*undo, options);
}

int JudgeFleetConfig(const std::string& action, const FleetConfigOptions& options) {
    if (action != "set" && action != "unset") return kOk;
    const base::Result<std::vector<KeyChange>> changes = ReadChanges(options.words, action == "set");
    if (!changes) {
        const bool isUsage = changes.GetError().kind == base::ErrorKind::kInvalidValue;
        return FleetFail(isUsage ? kUsage : kRefused, changes.GetError().Text());
    }
    // The values alone, before a broker is asked.
    const base::Result<std::optional<std::string>> alone = ChangeKeys(std::nullopt, *changes);
    return alone ? kOk : FleetFail(kRefused, "nothing is changed: " + alone.GetError().Text());
}

int RunFleetConfig(FleetLink& link, const std::string& action, const FleetConfigOptions& options) {
    if (action == "set" || action == "unset") return Change(link, options, action == "set");
    if (action == "history") return ShowHistory(link, options);
    if (action == "undo") return Undo(link, options);
    return options.host.empty() ? ShowLevels(link, options) : ShowHost(link, options);
}

}  // namespace agent
