// The rollout's puts and looks at the broker, what is said of them, and what is named at the end.
#include "FleetRollout.h"

#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <utility>

#include "CtlExit.h"
#include "FleetLevels.h"
#include "FleetLink.h"
#include "FleetMarks.h"
#include "FleetReading.h"
#include "HumanText.h"
#include "Printable.h"
#include "View.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr int64_t kLookSeconds = 5;
constexpr int64_t kTellSeconds = 60;         // how long they have been well
constexpr int64_t kMostAwaySeconds = 300;    // of the broker, before it is given up
constexpr int64_t kMostRefusedSeconds = 60;  // of what all are to get: an election takes seconds
constexpr int64_t kMostWaitSeconds = 7 * 86400;
constexpr int64_t kMostLongerSeconds = 1200;  // than the hosts have to stay well, until it goes back by itself
constexpr int64_t kMostBackSeconds = 1200;    // for its way back
constexpr int64_t kMsPerSecond = 1000;

std::string TimeText(int64_t seconds) {
    return HumanDuration(seconds * kMsPerSecond);
}

base::Result<std::string> ChangeOf(const std::vector<KeyChange>& changes) {
    const base::Result<std::optional<std::string>> alone = ChangeKeys(std::nullopt, changes);
    if (!alone) return alone.GetError();
    return alone->value_or("{}");
}

/// One thing that happens on the way.
struct Step {
    const char* name;
    std::string text;
    std::string level = {};
    uint64_t revision = 0;
    size_t count = 0, of = 0;
};

/// Thread-safety: one thread.
class Driver {
public:
    Driver(RolloutWorld& world, const RolloutOptions& options, const FleetPlace& place)
        : m_world(world), m_options(options), m_place(place) {}
    int Run();

private:
    /// Returns: a code where nothing is to be done.
    std::optional<int> Begin();
    std::optional<int> Judge(const FleetRoster& roster, const std::vector<RemoteLevel>& levels);
    void Mark(const BrokerTime& time);
    void TellPlan(const FleetRoster& roster, const std::vector<KeyChange>& changes);
    void Heed();
    void Serve(const RolloutPut& put);
    RolloutPutAnswer PutOnce(const RolloutPut& put, bool& mayCome);
    RolloutPutAnswer PutAll(const RolloutPut& put);
    void ServeBack(const RolloutPut& put);
    void PutOff(const std::string& level, const std::string& why);
    void LeaveAsItIs(const RolloutPut& put);
    void Watch();
    void TellProgress(const FleetHosts& hosts);
    void TellPhase();
    /// Waits for a broker that did not do what it was asked for. Returns: false when it has been so for too long.
    bool IsPatient(const std::string& why, int64_t most = kMostAwaySeconds, bool pauses = true);
    void NoteLeft(const std::string& level, PutOutcome outcome);
    RemoteLevel Before(const std::string& level) const;
    std::string NameOfLevel(const std::string& level) const;
    std::string Command(const std::string& action, const std::string& level) const;
    std::string WayBack(const std::string& level, bool isKnown) const;
    void Tell(const Step& step);
    int Sum();

    RolloutWorld& m_world;
    const RolloutOptions& m_options;
    const FleetPlace& m_place;
    RolloutPlan m_plan;
    std::optional<Rollout> m_rollout;
    std::map<std::string, RemoteLevel> m_levels;
    std::map<std::string, std::string> m_names;    // of hosts, by key
    std::map<std::string, uint64_t> m_given;       // revision, by canary
    std::map<std::string, std::string> m_whyBack;  // a level could not be put back so far
    std::map<std::string, bool> m_mayCome;         // what was put back there, without an answer
    size_t m_putOff = 0;                           // levels, one after the other
    RolloutPhase m_told = RolloutPhase::kCanaries;
    std::optional<int64_t> m_awaySince;
    std::optional<int64_t> m_wellSince;
    int64_t m_begunAt = 0;
    int64_t m_toldAt = 0;
    std::optional<size_t> m_reported;
    bool m_waitsForLater = false;  // and says so
    bool m_isEnded = false;        // by a signal
    std::string m_leaves;          // why nothing more is put; empty: it is
    uint64_t m_revision = 0;       // of the target, once it is changed
    std::vector<std::string> m_byHand;
};

void Driver::Tell(const Step& step) {
    if (!m_options.json) return m_world.Say(Printable(step.text));
    Json::Value view = NewView("fleet-rollout-step");
    view["step"] = step.name;
    view["text"] = Printable(step.text);
    view["level"] = step.level;
    view["revision"] = Json::UInt64(step.revision);
    view["count"] = Json::UInt64(step.count);
    view["of"] = Json::UInt64(step.of);
    std::string line = ViewText(view, true);
    line.pop_back();
    m_world.Say(line);
}

RemoteLevel Driver::Before(const std::string& level) const {
    const auto found = m_levels.find(level);
    return found == m_levels.end() ? RemoteLevel{level, 0, std::nullopt} : found->second;
}

/// "host.web.1" for the key "host.web_2e1".
std::string Driver::NameOfLevel(const std::string& level) const {
    if (level.compare(0, 5, "host.") != 0) return m_options.group.empty() ? level : "group." + m_options.group;
    const auto name = m_names.find(level.substr(5));
    return name == m_names.end() ? level : "host." + name->second;
}

std::string Driver::Command(const std::string& action, const std::string& level) const {
    std::string text = "tervanectl fleet";
    std::string servers;
    for (const std::string& server : m_place.servers) servers += (servers.empty() ? "" : ",") + server;
    if (!servers.empty()) text += " --servers " + ShellWord(servers);
    if (!m_place.credentials.empty()) text += " --creds " + ShellWord(m_place.credentials);
    if (!m_place.caFile.empty()) text += " --ca " + ShellWord(m_place.caFile);
    text += " config " + action;
    const std::string name = NameOfLevel(level);
    if (level.compare(0, 5, "host.") == 0) return text + " --host " + ShellWord(name.substr(5));
    return m_options.group.empty() ? text : text + " --group " + ShellWord(m_options.group);
}

/// The command by which a level gets what it had. isKnown: it is known to have the rollout's mark, by which an undo
/// finds the way where there was nothing before.
std::string Driver::WayBack(const std::string& level, bool isKnown) const {
    const RemoteLevel before = Before(level);
    if (before.text) return Command("undo --to " + std::to_string(before.revision), level);
    if (level.compare(0, 5, "host.") == 0) return Command(isKnown ? "undo" : "history", level);
    std::string keys;
    const base::Result<std::vector<KeyChange>> changes = ReadChanges(m_options.words, true);
    for (const KeyChange& change : *changes) keys += " " + ShellWord(change.key);
    return Command("unset" + keys, level);
}

void Driver::TellPlan(const FleetRoster& roster, const std::vector<KeyChange>& changes) {
    size_t all = 0;
    for (const FleetRow& row : roster.Rows()) all += IsWanted(row, m_options.group, "");
    for (const KeyChange& change : changes) Tell({"change", WordChange(change), m_plan.target});
    std::string few;
    for (const std::string& name : m_rollout->Canaries()) few += (few.empty() ? "" : ", ") + m_names[name];
    const size_t count = m_rollout->Canaries().size();
    if (count == 0) return;
    Tell({"plan",
          NameOfLevel(m_plan.target) + ": first " + std::to_string(count) + " of " + std::to_string(all) +
              (all == 1 ? " host: " : " hosts: ") + few,
          m_plan.target, 0, count, all});
}

/// Two at once would judge their hosts by each other's values.
std::optional<int> Driver::Judge(const FleetRoster& roster, const std::vector<RemoteLevel>& levels) {
    std::vector<LevelEntry> entries;
    entries.reserve(levels.size());
    for (const RemoteLevel& level : levels) entries.push_back({level.name, level.revision, 0, level.text, false});
    for (const MarkedRollout& other : FindRollouts(entries, static_cast<int64_t>(roster.Time().now))) {
        const auto isOurs = [&](const FleetRow& row) {
            const bool isFirst = std::find(other.hosts.begin(), other.hosts.end(), row.key) != other.hosts.end();
            return isFirst && ReadsLevel(row, m_plan.target);
        };
        const bool meddles = m_plan.target == "all" || other.mark.level == m_plan.target ||
                             std::any_of(roster.Rows().begin(), roster.Rows().end(), isOurs);
        if (!meddles) continue;
        return FleetFail(kRefused, WordRefusal(NameOfLevel(m_plan.target), other));
    }
    return std::nullopt;
}

void Driver::Mark(const BrokerTime& time) {
    m_plan.mark = m_world.Author();
    m_plan.mark.since = static_cast<int64_t>(time.now);
    m_plan.mark.until = m_plan.mark.since + m_plan.waitSeconds + kMostLongerSeconds + kMostBackSeconds;
    m_plan.mark.level = m_plan.target;
    std::string what;
    for (const std::string& word : m_options.words) what += (what.empty() ? "" : " ") + word;
    m_plan.mark.what = ShortText(what);
    m_begunAt = m_world.NowSeconds();
}

std::optional<int> Driver::Begin() {
    const base::Result<std::vector<KeyChange>> changes = ReadChanges(m_options.words, true);
    if (!changes) return FleetFail(kUsage, changes.GetError().Text());
    const base::Result<std::string> change = ChangeOf(*changes);
    if (!change) return FleetFail(kRefused, "nothing is changed: " + change.GetError().Text());
    m_plan.target = m_options.group.empty() ? "all" : "group." + fleet::EscapeName(m_options.group);
    m_plan.change = *change;
    m_plan.percent = ParseCanaryPercent(m_options.canary);
    m_plan.waitSeconds = ParseRolloutWait(m_options.wait);
    const base::Result<FleetRoster> roster = m_world.ReadHosts();
    if (!roster) return FleetFail(kUnreachable, roster.GetError().Text());
    const base::Result<std::vector<RemoteLevel>> levels = m_world.ReadLevels();
    if (!levels) return FleetFail(kUnreachable, levels.GetError().Text());
    for (const RemoteLevel& level : *levels) m_levels[level.name] = level;
    for (const FleetRow& row : roster->Rows()) m_names[row.key] = row.name;
    const std::optional<std::string> before = Before(m_plan.target).text;
    const base::Result<std::string> after = ChangeLevel(before, m_plan.change);
    if (!after) {
        return FleetFail(
            kRefused, NameOfLevel(m_plan.target) + " is not changed, the agent refuses it: " + after.GetError().Text());
    }
    if (const std::optional<int> code = Judge(*roster, *levels)) return code;
    Mark(roster->Time());
    m_rollout.emplace(m_plan, roster->Hosts(), *levels, m_world.NowSeconds());
    const std::vector<KeyChange> differences = CompareLevels(before, *after);
    if (!differences.empty()) TellPlan(*roster, differences);
    if (differences.empty()) {
        Tell({"same", "nothing is changed: " + NameOfLevel(m_plan.target) + " has these values already", m_plan.target,
              Before(m_plan.target).revision});
        m_revision = Before(m_plan.target).revision;
    }
    return differences.empty() ? std::optional<int>(kOk) : std::nullopt;
}

int Driver::Run() {
    if (const std::optional<int> code = Begin()) return *code;
    while (!m_rollout->HasEnded()) {
        Heed();
        TellPhase();
        if (m_rollout->HasEnded()) break;
        if (const std::optional<RolloutPut> put = m_rollout->Next()) {
            Serve(*put);
        } else {
            Watch();
        }
        TellPhase();
    }
    return Sum();
}

void Driver::Heed() {
    const int signals = m_world.Signals();
    if (signals > 0 && !m_isEnded) {
        m_isEnded = true;
        const RolloutPhase phase = m_rollout->Phase();
        m_rollout->Cancel("somebody has ended it");
        if (phase == RolloutPhase::kClearing)
            Tell({"ended", NameOfLevel(m_plan.target) + " has the change already, and keeps it", m_plan.target});
    }
    if (signals > 1 && m_leaves.empty()) m_leaves = "somebody has ended it a second time";
}

bool Driver::IsPatient(const std::string& why, int64_t most, bool pauses) {
    const int64_t now = m_world.NowSeconds();
    if (!m_awaySince) {
        m_awaySince = now;
        Tell({"waiting", "tried again for " + TimeText(most) + " at most: " + why});
    }
    if (now - *m_awaySince >= most) {
        m_awaySince.reset();
        return false;
    }
    if (pauses) m_world.Pause(kLookSeconds);
    return true;
}

/// mayCome: one without an answer may be stored yet; it is read then what has become of it.
RolloutPutAnswer Driver::PutOnce(const RolloutPut& put, bool& mayCome) {
    const RolloutPutAnswer answer = m_world.Put(put);
    mayCome = mayCome || answer.outcome == PutOutcome::kUnknown;
    const bool isSettled = answer.outcome == PutOutcome::kStored || !mayCome;
    if (isSettled) return answer;
    const base::Result<RemoteLevel> now = m_world.ReadLevel(put.level);
    if (!now) return {PutOutcome::kUnknown, 0, now.GetError().Text()};
    if (now->revision == put.expected) return {PutOutcome::kUnknown, 0, answer.error};
    const bool isOurs = now->text == put.text;
    return {isOurs ? PutOutcome::kStored : PutOutcome::kConflict, now->revision, "somebody else has changed it"};
}

/// Of the target. Whoever ends it meanwhile does not want it put again.
RolloutPutAnswer Driver::PutAll(const RolloutPut& put) {
    bool mayCome = false;
    for (;;) {
        const RolloutPutAnswer answer = PutOnce(put, mayCome);
        // What is somebody else's now may have been stored before that.
        if (answer.outcome == PutOutcome::kConflict && mayCome) {
            const std::string why = "the broker did not answer, and somebody else has changed it since";
            return {PutOutcome::kUnknown, answer.revision, why};
        }
        const bool isRefused = answer.outcome == PutOutcome::kRefused;
        if (answer.outcome != PutOutcome::kUnknown && !isRefused) return answer;
        const int64_t most = isRefused ? kMostRefusedSeconds : kMostAwaySeconds;
        if (m_world.Signals() > 0 || !IsPatient(answer.error, most) || m_world.Signals() > 0) return answer;
    }
}

/// What cannot be put back now: the others first, and then again for a while.
void Driver::PutOff(const std::string& level, const std::string& why) {
    m_whyBack[level] = why;
    m_rollout->PutOff();
    const bool isRound = ++m_putOff >= m_rollout->Pending();
    if (isRound) m_putOff = 0;
    if (!IsPatient(why, kMostAwaySeconds, isRound)) m_leaves = why;
}

/// Nothing more is put: the level is named.
void Driver::LeaveAsItIs(const RolloutPut& put) {
    const auto own = m_whyBack.find(put.level);
    const std::string why = own == m_whyBack.end() ? m_leaves : own->second;
    const bool isUnknown = put.isUnknown || m_mayCome[put.level];
    const PutOutcome outcome = isUnknown ? PutOutcome::kUnknown : PutOutcome::kRefused;
    NoteLeft(put.level, outcome);
    m_rollout->OnPut(outcome, 0, why);
}

void Driver::ServeBack(const RolloutPut& put) {
    if (!m_leaves.empty()) return LeaveAsItIs(put);
    if (put.isUnknown) {
        const base::Result<RemoteLevel> found = m_world.ReadLevel(put.level);
        if (!found) return PutOff(put.level, found.GetError().Text());
        const size_t left = m_rollout->Left().size();
        m_rollout->OnRead(found);
        if (m_rollout->Left().size() > left) NoteLeft(put.level, PutOutcome::kConflict);
    } else {
        const RolloutPutAnswer answer = PutOnce(put, m_mayCome[put.level]);
        const bool isStored = answer.outcome == PutOutcome::kStored;
        if (!isStored && answer.outcome != PutOutcome::kConflict) return PutOff(put.level, answer.error);
        NoteLeft(put.level, answer.outcome);
        if (isStored) Tell({"back", NameOfLevel(put.level) + " has what it had", put.level, answer.revision});
        m_rollout->OnPut(answer.outcome, answer.revision, answer.error);
    }
    m_awaySince.reset();
    m_putOff = 0;
}

void Driver::NoteLeft(const std::string& level, PutOutcome outcome) {
    if (outcome == PutOutcome::kStored) return;
    m_byHand.push_back(outcome == PutOutcome::kConflict ? Command("history", level)
                                                        : WayBack(level, outcome == PutOutcome::kRefused));
}

void Driver::Serve(const RolloutPut& put) {
    const RolloutPhase phase = m_rollout->Phase();
    if (phase == RolloutPhase::kGoingBack || phase == RolloutPhase::kClearing) return ServeBack(put);
    const bool isAll = phase == RolloutPhase::kWidening;
    const RolloutPutAnswer answer = isAll ? PutAll(put) : m_world.Put(put);
    m_awaySince.reset();
    if (isAll && answer.outcome == PutOutcome::kUnknown) {
        m_byHand.push_back(Command("history", put.level));
        if (answer.revision == 0)
            m_byHand.push_back(WayBack(put.level, false));  // not over what is somebody else's now
    }
    if (answer.outcome == PutOutcome::kStored) {
        if (isAll) m_revision = answer.revision;
        if (!isAll) m_given[put.level.substr(5)] = answer.revision;
        Tell({"put", NameOfLevel(put.level) + " has it, revision " + std::to_string(answer.revision), put.level,
              answer.revision});
    }
    m_rollout->OnPut(answer.outcome, answer.revision, answer.error);
}

void Driver::Watch() {
    const base::Result<FleetRoster> roster = m_world.ReadHosts();
    if (!roster) {
        if (!IsPatient(roster.GetError().Text())) m_rollout->Cancel(roster.GetError().Text());
        return;
    }
    m_awaySince.reset();
    const FleetHosts hosts = roster->Hosts();
    const int64_t now = m_world.NowSeconds();
    m_rollout->Look(hosts, now);
    if (m_rollout->Phase() != RolloutPhase::kWatching) return;
    if (now - m_begunAt >= m_plan.waitSeconds + kMostLongerSeconds) {
        return m_rollout->Cancel("the hosts had it for too short a time at once, " + TimeText(now - m_begunAt) +
                                 " after it began");
    }
    TellProgress(hosts);
    const int64_t left = m_wellSince ? m_plan.waitSeconds - (now - *m_wellSince) : kLookSeconds;
    m_world.Pause(left > 0 ? std::min(left, kLookSeconds) : kLookSeconds);
}

void Driver::TellProgress(const FleetHosts& hosts) {
    const size_t all = m_given.size();
    size_t reported = 0;
    for (const auto& [name, revision] : m_given) {
        const auto host = hosts.find(name);
        reported += host != hosts.end() && host->second.state.config.applied >= revision;
    }
    if (m_reported != reported) {
        m_reported = reported;
        Tell({"reported", "reported by " + std::to_string(reported) + " of " + std::to_string(all), "", 0, reported,
              all});
    }
    const int64_t now = m_world.NowSeconds();
    if (reported < all) m_waitsForLater = false;
    if (reported < all) return m_wellSince.reset();
    if (!m_wellSince) m_wellSince = m_toldAt = now;
    if (now - *m_wellSince >= m_plan.waitSeconds) {
        if (!std::exchange(m_waitsForLater, true)) {
            Tell({"later", "well for " + TimeText(m_plan.waitSeconds) +
                               "; one more state of each is waited for, which comes within a minute or so"});
        }
        return;
    }
    if (now == *m_wellSince || now - m_toldAt < kTellSeconds) return;
    m_toldAt = now;
    Tell({"healthy", "well for " + TimeText(now - *m_wellSince) + " of " + TimeText(m_plan.waitSeconds), "", 0,
          static_cast<size_t>(now - *m_wellSince), static_cast<size_t>(m_plan.waitSeconds)});
}

void Driver::TellPhase() {
    const RolloutPhase phase = m_rollout->Phase();
    if (std::exchange(m_told, phase) == phase) return;
    if (phase == RolloutPhase::kWatching)
        Tell({"watching", "waiting until they report it, then looking at them for " + TimeText(m_plan.waitSeconds)});
    if (phase == RolloutPhase::kWidening)
        Tell({"widening", "they have stayed well: " + NameOfLevel(m_plan.target) + " is changed", m_plan.target});
    if (phase == RolloutPhase::kGoingBack) Tell({"going_back", "going back: " + m_rollout->Reason()});
}

int Driver::Sum() {
    const bool isDone = m_rollout->Phase() == RolloutPhase::kDone;
    const std::vector<std::string>& left = m_rollout->Left();
    if (m_options.json) {
        Json::Value view = NewView("fleet-rollout");
        view["done"] = isDone;
        view["level"] = m_plan.target;
        view["revision"] = Json::UInt64(m_revision);
        view["reason"] = Printable(m_rollout->Reason());
        view["canaries"] = Json::Value(Json::arrayValue);
        for (const std::string& name : m_rollout->Canaries()) view["canaries"].append(Printable(m_names[name]));
        view["left"] = JsonList(left);
        view["by_hand"] = JsonList(m_byHand);
        std::string line = ViewText(view, true);
        line.pop_back();
        m_world.Say(line);
        return isDone && left.empty() ? kOk : kDegraded;
    }
    for (const std::string& sentence : left) m_world.Say("left: " + Printable(sentence));
    if (!m_byHand.empty()) m_world.Say("to be looked at, or set back, by hand:");
    for (const std::string& command : m_byHand) m_world.Say("    " + Printable(command));
    const std::string target = NameOfLevel(m_plan.target);
    if (isDone) {
        m_world.Say(Printable("done: " + target + " has revision " + std::to_string(m_revision)));
    } else {
        const char* const end = left.empty()
                                    ? "; nothing of it is left at the broker, and hosts follow as they hear of it"
                                    : "; something of it is left, see above";
        m_world.Say(Printable("not done: " + m_rollout->Reason() + end));
    }
    return isDone && left.empty() ? kOk : kDegraded;
}

}  // namespace

int ParseCanaryPercent(const std::string& text) {
    const std::string digits = !text.empty() && text.back() == '%' ? text.substr(0, text.size() - 1) : text;
    const bool isNumber =
        !digits.empty() && digits.size() <= 3 && digits.find_first_not_of("0123456789") == std::string::npos;
    const int percent = isNumber ? atoi(digits.c_str()) : 0;
    return percent <= 100 ? percent : 0;
}

int64_t ParseRolloutWait(const std::string& text) {
    const size_t end = std::min(text.find_first_not_of("0123456789"), text.size());
    if (end == 0 || end > 7 || text.size() > end + 1) return 0;
    const std::map<std::string, int64_t> units{{"", 1}, {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    const auto unit = units.find(text.substr(end));
    const int64_t seconds = unit == units.end() ? 0 : atoll(text.c_str()) * unit->second;
    return seconds <= kMostWaitSeconds ? seconds : 0;
}

int JudgeRollout(const RolloutOptions& options) {
    if (ParseCanaryPercent(options.canary) == 0)
        return FleetFail(kUsage, "--canary " + options.canary + " is no share of hosts: 1% to 100%");
    if (ParseRolloutWait(options.wait) == 0)
        return FleetFail(kUsage, "--wait " + options.wait + " is no time up to a week: a number with s, m, h or d");
    const base::Result<std::vector<KeyChange>> changes = ReadChanges(options.words, true);
    if (!changes) {
        const bool isUsage = changes.GetError().kind == base::ErrorKind::kInvalidValue;
        return FleetFail(isUsage ? kUsage : kRefused, changes.GetError().Text());
    }
    const base::Result<std::string> alone = ChangeOf(*changes);
    return alone ? kOk : FleetFail(kRefused, "nothing is changed: " + alone.GetError().Text());
}

int DriveRollout(RolloutWorld& world, const RolloutOptions& options, const FleetPlace& place) {
    return Driver(world, options, place).Run();
}

}  // namespace agent
