// States of hosts as they come in a list, and what their age means.
#include "FleetRoster.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "FleetLink.h"
#include "HumanText.h"
#include "View.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr size_t kMostKeyBytes = 256;
constexpr size_t kMostFindingBytes = 300;
constexpr int64_t kMsPerSecond = 1000;
constexpr double kMostTime = 1e11;  // seconds since the epoch, far beyond any clock

std::string AgeText(int64_t seconds) {
    return HumanDuration(std::max<int64_t>(0, seconds) * kMsPerSecond);
}

/// A host as it was is kept by the thousand: no more of its texts than is shown of one.
void Shorten(HostState& state) {
    if (state.findings.size() > 1) state.findings.resize(1);
    for (std::string* text :
         {&state.mode, &state.blocked, &state.config.error, &state.lastKill.event, &state.lastKill.component}) {
        *text = ShortText(*text, kMostFindingBytes);
    }
    for (std::string& finding : state.findings) finding = ShortText(finding, kMostFindingBytes);
    state.findings.shrink_to_fit();
}

HostStanding StandingOf(const HostState& state, int64_t silentSeconds) {
    switch (PresenceOf(state, silentSeconds)) {
        case Presence::kLate: return HostStanding::kLate;
        case Presence::kGone: return HostStanding::kGone;
        case Presence::kOk:
        case Presence::kTroubled: break;
    }
    if (!state.blocked.empty()) return HostStanding::kBlocked;
    return PresenceOf(state, silentSeconds) == Presence::kOk ? HostStanding::kOk : HostStanding::kTroubled;
}

std::string GroupsText(const std::vector<std::string>& groups) {
    std::string text;
    for (const std::string& group : groups) text += (text.empty() ? "" : ",") + group;
    return text.empty() ? "-" : text;
}

std::string KillText(const LastKill& kill) {
    if (kill.time <= 0 && kill.event.empty()) return "-";
    return ClockText(kill.time) + " " + kill.component;
}

std::string Count(uint64_t count) {
    return count == 0 ? "-" : std::to_string(count);
}

/// Characters of a text that is well-formed UTF-8.
size_t WidthOf(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(),
                                             [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::vector<std::string> CellsOf(const FleetRow& row) {
    const HostState& state = row.state;
    if (row.standing == HostStanding::kUnreadable) {
        return {row.name, NameOf(row.standing), "-", "-", "-", "-", "-", "-", "-", AgeText(row.silentSeconds)};
    }
    return {row.name,
            NameOf(row.standing),
            state.version.empty() ? "-" : state.version,
            GroupsText(state.groups),
            ConfigWord(state.config),
            Count(state.eventsWaiting),
            state.oldestWaitingSeconds > 0 ? AgeText(state.oldestWaitingSeconds) : "-",
            Count(state.eventsDropped + state.eventsGivenUp),
            KillText(state.lastKill),
            AgeText(row.silentSeconds)};
}

/// What a row has no column for.
std::vector<std::string> NotesOf(const FleetRow& row) {
    std::vector<std::string> notes;
    if (!row.problem.empty()) notes.push_back(row.problem);
    if (!row.state.blocked.empty()) notes.push_back("its events do not get through: " + row.state.blocked);
    if (!row.state.config.error.empty()) notes.push_back("configuration: " + row.state.config.error);
    if (row.standing == HostStanding::kTroubled && !row.state.agentRuns) notes.push_back("its agent does not run");
    for (const std::string& finding : row.state.findings) notes.push_back(finding);
    return notes;
}

}  // namespace

double BrokerTimeIn(const Json::Value& value) {
    return value.isNumeric() ? std::clamp(value.asDouble(), 0.0, kMostTime) : 0;
}

const char* NameOf(HostStanding standing) {
    return kHostStandingNames[static_cast<size_t>(standing)];
}

void FleetRoster::Take(const Json::Value& item) {
    const Json::Value& key = item["key"];
    if (!key.isString()) return;
    FleetRow row;
    row.key = ShortText(key.asString(), kMostKeyBytes);
    row.name = row.key;
    row.storedAt = BrokerTimeIn(item["time"]);
    row.revision = item["revision"].isUInt64() ? item["revision"].asUInt64() : 0;
    row.isDeleted = item["deleted"].isBool() && item["deleted"].asBool();
    const base::Result<HostState> state = ParseHostState(item["value"].isString() ? item["value"].asString() : "");
    if (state) {
        row.state = *state;
        if (fleet::EscapeName(state->host) == row.key) row.name = state->host;
        Shorten(row.state);
    } else {
        row.problem = "its state cannot be read: " + ShortText(state.GetError().Text());
    }
    m_rows.push_back(std::move(row));
}

void FleetRoster::DropOlder() {
    std::sort(m_rows.begin(), m_rows.end(), [](const FleetRow& a, const FleetRow& b) {
        return std::tie(a.key, b.revision) < std::tie(b.key, a.revision);
    });
    const auto same = [](const FleetRow& a, const FleetRow& b) { return a.key == b.key; };
    m_rows.erase(std::unique(m_rows.begin(), m_rows.end(), same), m_rows.end());
    const auto deleted = [](const FleetRow& row) { return row.isDeleted; };
    m_rows.erase(std::remove_if(m_rows.begin(), m_rows.end(), deleted), m_rows.end());
}

void FleetRoster::Finish(double toldNow, double consoleNow) {
    DropOlder();
    m_time.now = std::clamp(toldNow, 0.0, kMostTime);
    m_time.isTold = toldNow > 0;
    for (const FleetRow& row : m_rows) m_time.now = std::max(m_time.now, row.storedAt);
    m_time.consoleAhead = m_time.now > 0 ? static_cast<int64_t>(std::floor(consoleNow - m_time.now)) : 0;
    for (FleetRow& row : m_rows) {
        row.silentSeconds = static_cast<int64_t>(m_time.now - row.storedAt);
        row.standing = row.problem.empty() ? StandingOf(row.state, row.silentSeconds) : HostStanding::kUnreadable;
    }
}

FleetHosts FleetRoster::Hosts() const {
    FleetHosts hosts;
    for (const FleetRow& row : m_rows) {
        if (row.problem.empty()) hosts[row.key] = {row.state, row.silentSeconds, row.revision};
    }
    return hosts;
}

FleetRoster FleetRoster::OfGroup(const std::string& group) const {
    FleetRoster part;
    part.m_time = m_time;
    for (const FleetRow& row : m_rows) {
        if (IsWanted(row, group, "")) part.m_rows.push_back(row);
    }
    return part;
}

bool IsWanted(const FleetRow& row, const std::string& group, const std::string& standing) {
    const std::vector<std::string>& groups = row.state.groups;
    const bool grouped = group.empty() || std::find(groups.begin(), groups.end(), group) != groups.end();
    return grouped && (standing.empty() || standing == NameOf(row.standing));
}

std::string ConfigWord(const AppliedConfig& config) {
    if (config.pinned) return "pinned";
    if (!config.error.empty()) return "refused " + std::to_string(config.seen);
    if (config.seen == 0 && config.applied == 0) return "-";
    if (config.applied >= config.seen) return std::to_string(config.applied);
    return std::to_string(config.applied) + " of " + std::to_string(config.seen);
}

Json::Value HostJson(const FleetRow& row) {
    const HostState& state = row.state;
    Json::Value host(Json::objectValue);
    host["host"] = row.name;
    host["key"] = row.key;
    host["state"] = NameOf(row.standing);
    host["silent_seconds"] = Json::Int64(row.silentSeconds);
    host["problem"] = row.problem;
    host["version"] = state.version;
    host["groups"] = JsonList(state.groups);
    host["runs"] = state.agentRuns;
    host["uptime_seconds"] = Json::Int64(state.uptimeSeconds);
    host["mode"] = state.mode;
    host["problems"] = Json::UInt64(state.problems);
    host["findings"] = JsonList(state.findings);
    host["blocked"] = state.blocked;
    host["config"]["seen"] = Json::UInt64(state.config.seen);
    host["config"]["applied"] = Json::UInt64(state.config.applied);
    host["config"]["pinned"] = state.config.pinned;
    host["config"]["error"] = state.config.error;
    host["events"]["waiting"] = Json::UInt64(state.eventsWaiting);
    host["events"]["oldest_seconds"] = Json::Int64(state.oldestWaitingSeconds);
    host["events"]["dropped"] = Json::UInt64(state.eventsDropped);
    host["events"]["given_up"] = Json::UInt64(state.eventsGivenUp);
    host["throttled"] = Json::Value(Json::arrayValue);
    for (const Throttling& one : state.throttled) {
        Json::Value& entry = host["throttled"].append(Json::Value(Json::objectValue));
        entry["name"] = one.name;
        entry["throttled_100times"] = Json::Int64(one.share100Times);
    }
    host["drifts"] = Json::UInt64(state.drifts);
    host["last_kill"]["time"] = Json::Int64(state.lastKill.time);
    host["last_kill"]["event"] = state.lastKill.event;
    host["last_kill"]["component"] = state.lastKill.component;
    return host;
}

std::vector<std::string> AlignColumns(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const std::vector<std::string>& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            const bool toRight = &row == &rows[0] && !row[i].empty() && row[i][0] == '>';
            widths[i] = std::max(widths[i], WidthOf(row[i]) - (toRight ? 1 : 0));
        }
    }
    std::vector<std::string> lines;
    for (const std::vector<std::string>& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const bool toRight = !rows[0][i].empty() && rows[0][i][0] == '>';
            const std::string cell = &row == &rows[0] && toRight ? row[i].substr(1) : row[i];
            const std::string gap(widths[i] - WidthOf(cell), ' ');
            line += (i == 0 ? "" : "  ") + (toRight ? gap + cell : cell + gap);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

std::vector<TextLine> HostTable(const std::vector<const FleetRow*>& rows) {
    std::vector<std::vector<std::string>> cells;
    cells.reserve(rows.size() + 1);
    cells.push_back(
        {"HOST", "STATE", "VERSION", "GROUPS", "CONFIG", ">WAITING", ">OLDEST", ">LOST", "LAST KILL", ">SILENT"});
    for (const FleetRow* row : rows) cells.push_back(CellsOf(*row));
    const std::vector<std::string> aligned = AlignColumns(cells);
    std::vector<TextLine> lines{{aligned[0], LineKind::kTableHead}};
    for (size_t i = 0; i < rows.size(); ++i) {
        const HostStanding standing = rows[i]->standing;
        const bool well = standing == HostStanding::kOk;
        const bool bad = standing == HostStanding::kGone || standing == HostStanding::kBlocked;
        lines.push_back({aligned[i + 1], well ? LineKind::kPlain : bad ? LineKind::kAlarm : LineKind::kNotice, true});
        for (const std::string& note : NotesOf(*rows[i])) lines.push_back({"    " + note});
    }
    return lines;
}

}  // namespace agent
