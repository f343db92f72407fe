// Events to counts.
#include "FleetReportTally.h"

#include <algorithm>
#include <optional>
#include <tuple>

#include "EventWords.h"
#include "HumanText.h"

namespace agent {

namespace {

constexpr int64_t kLateSeconds = 180;  ///< as a host is called late
constexpr int64_t kAheadSeconds = 60;  ///< by which a host's clock may be before the broker's
constexpr int64_t kDaySeconds = 86400;
constexpr int64_t kMsPerSecond = 1000;
constexpr size_t kMostStoryBytes = 160;

struct Look {
    const char* letter;
    const char* member;
    const char* name;
};
/// In the order of FleetMark.
constexpr Look kLooks[kFleetMarks] = {{"M", "out_of_memory", "out-of-memory kill"},
                                      {"K", "self_kill", "self-kill"},
                                      {"W", "would_kill", "kill that an observed limit would have caused"},
                                      {"R", "not_put_right", "limit changed and not put right"},
                                      {"D", "drift", "drift of a limit, put right"},
                                      {"T", "held_back", "component held back by a limit"},
                                      {"S", "silent_thread", "silent thread"},
                                      {"E", "end", "end of a component or a run"},
                                      {"H", "host", "host short of memory, CPU or disk"},
                                      {"L", "late", "stored three minutes or more after it happened"}};

const Look& LookOf(FleetMark mark) {
    return kLooks[static_cast<size_t>(mark)];
}

/// Returns: none for what is no trouble.
std::optional<FleetMark> MarkOf(EventKind kind, const Json::Value& body) {
    switch (kind) {
        case EventKind::kOom: return FleetMark::kOom;
        case EventKind::kSelfKill: return FleetMark::kKill;
        case EventKind::kWouldKill: return FleetMark::kWouldKill;
        case EventKind::kDrift: return FlagIn(body, "repaired") ? FleetMark::kDrift : FleetMark::kNotPutRight;
        case EventKind::kPressure: return WordIn(body, "component").empty() ? FleetMark::kHost : FleetMark::kHeldBack;
        case EventKind::kStall:
            return FlagIn(body, "recovered") ? std::nullopt : std::optional<FleetMark>(FleetMark::kSilent);
        case EventKind::kComponentEnd:
            return body.isObject() && body["oom"].isObject() ? FleetMark::kOom : FleetMark::kEnd;
        case EventKind::kUncleanStop: return FleetMark::kEnd;
        case EventKind::kHost: return FleetMark::kHost;
        case EventKind::kObservation:
        case EventKind::kOther: break;
    }
    return std::nullopt;
}

}  // namespace

const char* LetterOf(FleetMark mark) {
    return LookOf(mark).letter;
}

const char* NameOf(FleetMark mark) {
    return LookOf(mark).name;
}

const char* MemberOf(FleetMark mark) {
    return LookOf(mark).member;
}

size_t TallyPeriod::ColumnAt(int64_t time) const {
    const int64_t column = (std::clamp(time, from, to) - from) / width;
    return std::min(columns - 1, static_cast<size_t>(column));
}

TallyPeriod MakePeriod(int64_t from, int64_t to) {
    constexpr int64_t kWidths[] = {60, 300, 600, 900, 1800, 3600, 7200, 14400, 21600, 43200, kDaySeconds};
    TallyPeriod period;
    period.from = from;
    period.to = std::max(to, from + 1);
    const int64_t span = period.to - from;
    const auto columnsOf = [span](int64_t width) { return (span + width - 1) / width; };
    const auto* found = std::find_if(std::begin(kWidths), std::end(kWidths), [&](int64_t width) {
        return columnsOf(width) <= static_cast<int64_t>(kMostColumns);
    });
    constexpr auto kMost = static_cast<int64_t>(kMostColumns);
    const int64_t days = (columnsOf(kDaySeconds) + kMost - 1) / kMost;
    period.width = found != std::end(kWidths) ? *found : days * kDaySeconds;
    period.columns = static_cast<size_t>(columnsOf(period.width));
    return period;
}

uint64_t HostTally::Weight() const {
    uint64_t sum = 0;
    for (size_t i = 0; i < static_cast<size_t>(FleetMark::kLate); ++i) sum += counts[i];
    return sum;
}

int64_t FleetTally::MomentOf(const FleetEvent& event) const {
    const int64_t stored = static_cast<int64_t>(event.storedAt);
    const bool possible = event.event.time >= m_period.from && event.event.time <= stored + kAheadSeconds;
    return possible ? event.event.time : stored;
}

void FleetTally::Count(HostTally& tally, FleetMark mark, int64_t moment) const {
    if (tally.columns.empty()) tally.columns.resize(m_period.columns);
    ++tally.counts[static_cast<size_t>(mark)];
    ++tally.columns[m_period.ColumnAt(moment)][static_cast<size_t>(mark)];
}

void FleetTally::Take(const FleetEvent& event) {
    ++m_fleet.events;
    const bool known = m_hosts.count(event.key) != 0 || m_hosts.size() < kMostTallied;
    HostTally* const host = known ? &m_hosts[event.key] : nullptr;
    if (host == nullptr) {
        ++m_leftOut;
    } else {
        ++host->events;
        if (host->host.empty()) host->host = event.host;
    }
    const int64_t moment = MomentOf(event);
    const auto note = [&](FleetMark mark, const std::string& what) {
        Count(m_fleet, mark, moment);
        if (host == nullptr) return;
        Count(*host, mark, moment);
        host->last[mark] = {moment, EventName(event), ShortText(what, kMostStoryBytes)};
    };
    const EventInWords words = WordEvent(event.event);
    const std::optional<FleetMark> mark = MarkOf(words.kind, EventBody(event.event));
    if (mark) note(*mark, words.about[0] + ": " + words.what);
    const int64_t waited = static_cast<int64_t>(event.storedAt) - event.event.time;
    if (event.event.time > 0 && waited >= kLateSeconds) {
        note(FleetMark::kLate, "stored " + HumanDuration(waited * kMsPerSecond) + " after it happened: " + words.what);
    }
}

std::vector<const HostTally*> HeaviestHosts(const FleetTally& tally) {
    std::vector<const HostTally*> hosts;
    for (const auto& [key, host] : tally.Hosts()) {
        if (!host.columns.empty()) hosts.push_back(&host);
    }
    const auto rank = [](const HostTally* host) {
        return std::make_tuple(host->Weight(), host->counts[static_cast<size_t>(FleetMark::kLate)]);
    };
    std::sort(hosts.begin(), hosts.end(), [&](const HostTally* a, const HostTally* b) {
        return rank(a) != rank(b) ? rank(a) > rank(b) : a->host < b->host;
    });
    return hosts;
}

}  // namespace agent
