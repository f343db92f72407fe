// Marks in levels, grouped by the rollout that they are of.
#include "FleetMarks.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <tuple>

#include "FleetLink.h"
#include "HumanText.h"
#include "Printable.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr char kHostLevel[] = "host.";
constexpr size_t kHostLevelBytes = sizeof(kHostLevel) - 1;
constexpr size_t kMostNameBytes = 256;
constexpr size_t kMostNamed = 3;  // hosts in a sentence

std::string MachineName() {
    char name[kMostNameBytes] = {};
    return gethostname(name, sizeof(name) - 1) == 0 ? name : "";
}

std::string UserName() {
    const uid_t user = getuid();
    const passwd* const entry = getpwuid(user);
    return entry == nullptr ? "user " + std::to_string(user) : entry->pw_name;
}

/// Another machine's process nobody here knows anything of.
bool IsGone(const RolloutMark& mark) {
    if (mark.machine != MachineName() || mark.process <= 0) return false;
    return kill(static_cast<pid_t>(mark.process), 0) != 0 && errno == ESRCH;
}

std::string LevelWord(const std::string& level) {
    const size_t dot = level.find('.');
    return dot == std::string::npos ? level : level.substr(0, dot + 1) + fleet::NameOfKey(level.substr(dot + 1));
}

std::string HostsWord(const std::vector<std::string>& hosts) {
    std::string text;
    for (size_t i = 0; i < std::min(hosts.size(), kMostNamed); ++i)
        text += (i == 0 ? "" : ", ") + fleet::NameOfKey(hosts[i]);
    const size_t more = hosts.size() - std::min(hosts.size(), kMostNamed);
    return more == 0 ? text : text + " and " + std::to_string(more) + (more == 1 ? " more host" : " more hosts");
}

}  // namespace

RolloutMark OwnRolloutMark() {
    RolloutMark mark;
    mark.user = UserName();
    mark.machine = MachineName();
    mark.process = getpid();
    return mark;
}

std::string ShellWord(const std::string& word) {
    const char* const plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:=,%@";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos) return word;
    std::string quoted = "'";
    for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::vector<MarkedRollout> FindRollouts(const std::vector<LevelEntry>& levels, int64_t now) {
    std::map<std::string, const LevelEntry*> newest;
    for (const LevelEntry& entry : levels) {
        const LevelEntry*& kept = newest[entry.level];
        if (kept == nullptr || entry.revision >= kept->revision) kept = &entry;
    }
    std::map<std::tuple<int64_t, std::string, std::string, int64_t, std::string>, MarkedRollout> found;
    for (const auto& [level, entry] : newest) {
        if (level.compare(0, kHostLevelBytes, kHostLevel) != 0) continue;
        const std::optional<RolloutMark> mark = ReadRolloutMark(entry->text);
        if (!mark) continue;
        MarkedRollout& rollout = found[{mark->since, mark->machine, mark->user, mark->process, mark->level}];
        rollout.mark = *mark;
        rollout.hosts.push_back(level.substr(kHostLevelBytes));
        rollout.isAbandoned = now > mark->until || IsGone(*mark);
    }
    std::vector<MarkedRollout> rollouts;
    rollouts.reserve(found.size());
    for (auto& [key, rollout] : found) rollouts.push_back(std::move(rollout));
    return rollouts;
}

std::string WordRollout(const MarkedRollout& rollout) {
    const RolloutMark& mark = rollout.mark;
    return Printable("a rollout of " + LevelWord(mark.level) + " (" + ShortText(mark.what) + "), begun " +
                     ClockText(mark.since) + " by " + mark.user + " on " + mark.machine + " (process " +
                     std::to_string(mark.process) + "), on " + HostsWord(rollout.hosts));
}

std::vector<std::string> WaysBack(const MarkedRollout& rollout) {
    std::vector<std::string> commands;
    for (const std::string& host : rollout.hosts)
        commands.push_back("tervanectl fleet config undo --host " + ShellWord(Printable(fleet::NameOfKey(host))));
    return commands;
}

std::string RemedyOf(const MarkedRollout& rollout) {
    std::string back = WaysBack(rollout).front();
    for (size_t i = 1; i < rollout.hosts.size(); ++i)
        back += (i == 1 ? ", and the same for " : ", ") + Printable(fleet::NameOfKey(rollout.hosts[i]));
    if (rollout.isAbandoned) return "take it back: " + back;
    return "wait for its end, " + ClockText(rollout.mark.until) +
           " at the latest, or end it there; where its process is gone, take it back: " + back;
}

std::string WordRefusal(const std::string& level, const MarkedRollout& rollout) {
    return level + " is not changed: there is " + WordRollout(rollout) +
           (rollout.isAbandoned ? ", which was left behind" : ", which goes on") + ": " + RemedyOf(rollout);
}

const MarkedRollout* FindMeddled(const std::vector<MarkedRollout>& rollouts, const FleetRoster& roster,
                                 const std::string& level) {
    for (const MarkedRollout& rollout : rollouts) {
        for (const std::string& host : rollout.hosts) {
            if (level == kHostLevel + host) return &rollout;
        }
        if (rollout.isAbandoned) continue;
        if (level == "all" || level == rollout.mark.level) return &rollout;
        for (const FleetRow& row : roster.Rows()) {
            const bool isFirst = std::find(rollout.hosts.begin(), rollout.hosts.end(), row.key) != rollout.hosts.end();
            if (isFirst && ReadsLevel(row, level)) return &rollout;
        }
    }
    return nullptr;
}

Json::Value RolloutJson(const MarkedRollout& rollout) {
    Json::Value view(Json::objectValue);
    view["level"] = Printable(rollout.mark.level);
    view["what"] = Printable(rollout.mark.what);
    view["user"] = Printable(rollout.mark.user);
    view["machine"] = Printable(rollout.mark.machine);
    view["process"] = Json::Int64(rollout.mark.process);
    view["since"] = Json::Int64(rollout.mark.since);
    view["until"] = Json::Int64(rollout.mark.until);
    view["abandoned"] = rollout.isAbandoned;
    view["hosts"] = Json::Value(Json::arrayValue);
    for (const std::string& host : rollout.hosts) view["hosts"].append(Printable(fleet::NameOfKey(host)));
    view["back"] = Json::Value(Json::arrayValue);
    for (const std::string& command : WaysBack(rollout)) view["back"].append(command);
    return view;
}

}  // namespace agent
