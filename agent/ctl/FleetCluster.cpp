// What is judged of a fleet, and its words.
#include "FleetCluster.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <map>

#include "FleetLink.h"
#include "HumanText.h"
#include "Text.h"
#include "View.h"

namespace agent {

namespace {

constexpr size_t kMostReplicas = 64;
constexpr size_t kMostNamed = 3;
constexpr size_t kMostVersions = 6;
constexpr int64_t kFullFrom100Times = 8000;
constexpr int64_t kLateEventsSeconds = 300;
constexpr int64_t kClockSeconds = 30;
constexpr int64_t kSilentFleetSeconds = 180;
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kMostNumber = int64_t{1} << 60;
constexpr uint64_t kEqualFrom = 2010027;  // 2.10.27: older ones may differ without their leader knowing

int64_t WholeIn(const Json::Value& object, const char* key) {
    const Json::Value& value = object[key];
    return value.isInt64() ? std::clamp(value.asInt64(), -kMostNumber, kMostNumber) : 0;
}

uint64_t CountIn(const Json::Value& object, const char* key) {
    return static_cast<uint64_t>(std::max<int64_t>(0, WholeIn(object, key)));
}

double TimeIn(const Json::Value& object, const char* key) {
    return BrokerTimeIn(object[key]);
}

std::string TextIn(const Json::Value& object, const char* key) {
    const Json::Value& value = object[key];
    return value.isString() ? ShortText(value.asString(), 100) : "";
}

bool FlagIn(const Json::Value& object, const char* key) {
    return object[key].isBool() && object[key].asBool();
}

std::string AgeText(double seconds) {
    return HumanDuration(static_cast<int64_t>(std::max(0.0, seconds)) * kMsPerSecond);
}

/// Of many hosts a few by name.
std::string Named(const std::vector<const FleetRow*>& rows) {
    std::string text;
    for (size_t i = 0; i < rows.size() && i < kMostNamed; ++i) text += (i == 0 ? "" : ", ") + rows[i]->name;
    const size_t more = rows.size() - std::min(rows.size(), kMostNamed);
    return text + (more == 0 ? "" : " and " + std::to_string(more) + " more");
}

std::string Hosts(size_t count) {
    return count == 1 ? "1 host" : std::to_string(count) + " hosts";
}

class Judge {
public:
    Judge(const FleetCluster& cluster, const FleetRoster& roster) : m_cluster(cluster), m_roster(roster) {}

    std::vector<DoctorFinding> All() {
        if (!m_cluster.unfit.empty()) {
            Add(Severity::kProblem, "hosts give this broker nothing: " + m_cluster.unfit,
                "bring every node to the version that is named");
        }
        for (const FleetStream& stream : m_cluster.streams) JudgeStream(stream);
        JudgeTime();
        JudgeStandings();
        JudgeFigures();
        std::stable_sort(m_found.begin(), m_found.end(), [](const DoctorFinding& a, const DoctorFinding& b) {
            return static_cast<int>(a.severity) > static_cast<int>(b.severity);
        });
        return std::move(m_found);
    }

private:
    void Add(Severity severity, const std::string& what, const std::string& remedy) {
        m_found.push_back({severity, what, "", remedy});
    }

    void JudgeStream(const FleetStream& stream) {
        const std::string name = "stream " + stream.name;
        if (!stream.problem.empty()) {
            return Add(
                Severity::kProblem, "nothing is known of " + name + ": " + stream.problem,
                "make it with tervanectl fleet setup where it is not there, or name credentials that may ask for it");
        }
        JudgeCopies(stream, name);
        JudgeFill(stream, name);
    }

    void JudgeCopies(const FleetStream& stream, const std::string& name) {
        std::string list;
        for (const StreamReplica& replica : stream.replicas) {
            if (replica.current && !replica.offline && replica.lag == 0) continue;
            list += (list.empty() ? "" : ", ") + replica.name +
                    (replica.offline ? " is away" : " is " + std::to_string(replica.lag) + " messages behind");
        }
        switch (CopiesOf(m_cluster, stream)) {
            case Copies::kOne:
            case Copies::kEqual: return;
            case Copies::kOffline:
                return Add(Severity::kProblem, name + ": " + list,
                           "start the broker there again: without more than half of the copies nothing is stored");
            case Copies::kLagging:
                return Add(Severity::kWarning, name + ": " + list,
                           "it catches up by itself; if it does not, see that node's log and disk");
            case Copies::kNotKnown: break;
        }
        if (stream.leader.empty()) {
            return Add(Severity::kProblem, name + " has no leader: nothing is stored, and hosts keep their events",
                       "see whether more than half of the brokers run and reach each other");
        }
        Add(Severity::kWarning,
            "whether the copies of " + name + " are equal is not known: brokers of version " + m_cluster.version +
                " may differ after a lost quorum without saying so",
            "bring every node to 2.10.27 or later");
    }

    void JudgeFill(const FleetStream& stream, const std::string& name) {
        const int64_t fill = FillOf(stream);
        if (fill < 0) {
            if (stream.name != kEventStream) return;  // as many messages as hosts and levels have keys
            return Add(Severity::kWarning, name + " has no limit of bytes: it may fill the broker's disk",
                       "give it one, 70 % of the volume at most (docs/FLEET.md)");
        }
        if (fill < kFullFrom100Times) return;
        const std::string oldest = stream.firstTime > 0 && m_roster.Time().now > 0
                                       ? "; the oldest is " + AgeText(m_roster.Time().now - stream.firstTime) + " old"
                                       : "";
        const std::string what = name + " is " + HumanPercent(fill) + " full: from 100 % on ";
        if (stream.discard == "new") {
            return Add(Severity::kWarning, what + "nothing more is stored, and hosts keep their events" + oldest,
                       "give it more bytes, or have it discard old messages (docs/FLEET.md)");
        }
        if (stream.discard != "old") {
            return Add(Severity::kWarning,
                       what + "either each new message costs the oldest one or nothing more is stored" + oldest,
                       "give it more bytes, or see which it discards (docs/FLEET.md)");
        }
        Add(Severity::kWarning, what + "each new message costs the oldest one" + oldest,
            "give it more bytes where that is not old enough (docs/FLEET.md)");
    }

    void JudgeTime() {
        const BrokerTime& time = m_roster.Time();
        if (m_roster.Rows().empty()) {
            return Add(Severity::kWarning, "no host has said anything of itself yet",
                       "enrol a host (fleet-enrol host) and give it the block \"fleet\" in its conf/agent.json");
        }
        const bool silent = !time.isTold && time.consoleAhead >= kSilentFleetSeconds;
        if (silent) {
            Add(Severity::kProblem,
                "the youngest word of any host is " + AgeText(static_cast<double>(time.consoleAhead)) +
                    " old by this console's clock: all of them are silent, or this clock is wrong; the broker tells "
                    "no time, so the ages shown count from that word on",
                "compare this host's clock with the broker's, then see whether hosts reach the broker");
        } else if (std::llabs(time.consoleAhead) >= kClockSeconds && (time.isTold || time.consoleAhead < 0)) {
            Add(Severity::kWarning,
                "this console's clock is " + AgeText(static_cast<double>(std::llabs(time.consoleAhead))) +
                    (time.consoleAhead > 0 ? " ahead of" : " behind") + " the broker's",
                "set one of them right; ages are shown by the broker's");
        }
    }

    std::vector<const FleetRow*> With(HostStanding standing) const {
        std::vector<const FleetRow*> rows;
        for (const FleetRow& row : m_roster.Rows()) {
            if (row.standing == standing) rows.push_back(&row);
        }
        return rows;
    }

    void JudgeStanding(HostStanding standing, Severity severity, const char* words, const char* remedy) {
        const std::vector<const FleetRow*> rows = With(standing);
        if (rows.empty()) return;
        Add(severity, Hosts(rows.size()) + " " + words + ": " + Named(rows), remedy);
    }

    void JudgeStandings() {
        JudgeStanding(HostStanding::kGone, Severity::kProblem, "not heard of for ten minutes or more",
                      "see whether the host runs and reaches the broker; fleet-enrol revoke where it is no more");
        JudgeStanding(HostStanding::kBlocked, Severity::kProblem, "cannot bring events to the stream",
                      "tervanectl fleet hosts --state blocked says why");
        JudgeStanding(
            HostStanding::kUnreadable, Severity::kProblem, "of which the state cannot be read",
            "tervanectl fleet hosts --state unreadable says why; an agent that is newer wants a newer console");
        JudgeStanding(HostStanding::kLate, Severity::kWarning, "not heard of for three minutes or more",
                      "wait for a restart or reboot to be over");
        JudgeStanding(HostStanding::kTroubled, Severity::kWarning, "with something that is not as it was asked for",
                      "tervanectl fleet hosts --state troubled says what; tervanectl doctor on the host says more");
    }

    template <typename Test>
    std::vector<const FleetRow*> Where(Test test) const {
        std::vector<const FleetRow*> rows;
        for (const FleetRow& row : m_roster.Rows()) {
            if (test(row.state)) rows.push_back(&row);
        }
        return rows;
    }

    void JudgeFigures() {
        const auto refusing = Where([](const HostState& state) { return !state.config.error.empty(); });
        if (!refusing.empty()) {
            Add(Severity::kWarning,
                Hosts(refusing.size()) + " did not take the fleet's configuration: " + Named(refusing) + ": " +
                    refusing[0]->state.config.error,
                "mend what is named; tervanectl config show says on a host what is in force there");
        }
        const auto losing = Where([](const HostState& state) { return state.eventsDropped + state.eventsGivenUp > 0; });
        if (!losing.empty()) {
            Add(Severity::kWarning, Hosts(losing.size()) + " lost events for want of room: " + Named(losing),
                "see how long they were without the broker; their own events.jsonl may still have them");
        }
        const auto waiting =
            Where([](const HostState& state) { return state.oldestWaitingSeconds >= kLateEventsSeconds; });
        if (!waiting.empty()) {
            Add(Severity::kWarning,
                Hosts(waiting.size()) + " with events that wait for five minutes or more: " + Named(waiting),
                "tervanectl status on the host says what they wait for");
        }
    }

    const FleetCluster& m_cluster;
    const FleetRoster& m_roster;
    std::vector<DoctorFinding> m_found;
};

std::string HostsLine(const FleetRoster& roster) {
    const HostCounts counts = CountHosts(roster);
    std::string text = std::to_string(roster.Rows().size());
    for (size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] > 0)
            text += std::string(text.find(':') == std::string::npos ? ": " : ", ") + std::to_string(counts[i]) + " " +
                    kHostStandingNames[i];
    }
    return text;
}

Json::Value StreamJson(const FleetCluster& cluster, const FleetStream& stream, double now) {
    Json::Value object(Json::objectValue);
    object["name"] = stream.name;
    object["problem"] = stream.problem;
    object["messages"] = Json::UInt64(stream.messages);
    object["bytes"] = Json::Int64(stream.bytes);
    object["max_bytes"] = Json::Int64(stream.maxBytes);
    object["discard"] = stream.discard;
    object["fill_100times"] = Json::Int64(FillOf(stream));
    object["oldest_seconds"] =
        Json::Int64(stream.firstTime > 0 && now > 0 ? std::max(0.0, now - stream.firstTime) : -1);
    object["subjects"] = Json::UInt64(stream.subjects);
    object["copies"] = NameOf(CopiesOf(cluster, stream));
    object["leader"] = stream.leader;
    object["replicas"] = Json::Value(Json::arrayValue);
    for (const StreamReplica& replica : stream.replicas) {
        Json::Value& one = object["replicas"].append(Json::Value(Json::objectValue));
        one["name"] = replica.name;
        one["current"] = replica.current;
        one["lag"] = Json::UInt64(replica.lag);
        one["offline"] = replica.offline;
    }
    return object;
}

}  // namespace

const char* NameOf(Copies copies) {
    switch (copies) {
        case Copies::kOne: return "one";
        case Copies::kEqual: return "equal";
        case Copies::kLagging: return "lagging";
        case Copies::kOffline: return "offline";
        case Copies::kNotKnown: break;
    }
    return "not known";
}

HostCounts CountHosts(const FleetRoster& roster) {
    HostCounts counts{};
    for (const FleetRow& row : roster.Rows()) ++counts[static_cast<size_t>(row.standing)];
    return counts;
}

std::map<std::string, size_t> CountVersions(const FleetRoster& roster) {
    std::map<std::string, size_t> versions;
    for (const FleetRow& row : roster.Rows()) {
        if (row.problem.empty()) ++versions[row.state.version.empty() ? "unknown" : row.state.version];
    }
    return versions;
}

std::string DescribeVersions(const FleetRoster& roster) {
    const std::map<std::string, size_t> versions = CountVersions(roster);
    std::string text;
    size_t shown = 0;
    for (const auto& [version, count] : versions) {
        if (shown++ == kMostVersions) return text + " and " + std::to_string(versions.size() - kMostVersions) + " more";
        text += (text.empty() ? "" : ", ") + version + " (" + std::to_string(count) + ")";
    }
    return text.empty() ? "none" : text;
}

std::string DescribeStream(const FleetCluster& cluster, const FleetStream& stream, double now) {
    if (!stream.problem.empty()) return stream.problem;
    const int64_t fill = FillOf(stream);
    std::string text = std::to_string(stream.messages) + " messages, " + HumanBytes(stream.bytes) +
                       (fill < 0 ? ", no limit" : ", " + HumanPercent(fill) + " of " + HumanBytes(stream.maxBytes));
    if (stream.firstTime > 0 && now > 0) text += ", oldest " + AgeText(now - stream.firstTime);
    const Copies copies = CopiesOf(cluster, stream);
    text += std::string("; copies: ") + NameOf(copies);
    // Of the other nodes nobody has asked the version.
    if (copies == Copies::kEqual) text += " by the leader's word";
    if (!stream.replicas.empty()) {
        text += " (" + std::to_string(stream.replicas.size() + 1) + ", leader " +
                (stream.leader.empty() ? "none" : stream.leader) + ")";
    }
    return text;
}

std::string DescribeBroker(const FleetCluster& cluster) {
    return "version " + (cluster.version.empty() ? "not known" : cluster.version) +
           (cluster.cluster.empty() ? ", single node" : ", cluster " + cluster.cluster);
}

FleetStream ReadStream(const std::string& name, const Json::Value& answer) {
    FleetStream stream;
    stream.name = name;
    stream.messages = CountIn(answer, "messages");
    stream.bytes = WholeIn(answer, "bytes");
    stream.maxBytes = WholeIn(answer, "maxBytes");
    stream.firstSequence = CountIn(answer, "firstSequence");
    stream.discard = TextIn(answer, "discard");
    stream.firstTime = TimeIn(answer, "firstTime");
    stream.lastTime = TimeIn(answer, "lastTime");
    stream.subjects = CountIn(answer, "subjects");
    stream.leader = TextIn(answer, "leader");
    for (const Json::Value& entry : answer["replicas"]) {
        if (!entry.isObject() || stream.replicas.size() == kMostReplicas) continue;
        stream.replicas.push_back(
            {TextIn(entry, "name"), FlagIn(entry, "current"), CountIn(entry, "lag"), FlagIn(entry, "offline")});
    }
    return stream;
}

uint64_t VersionNumber(const std::string& version) {
    unsigned int parts[3] = {};
    if (sscanf(version.c_str(), "%3u.%3u.%3u", &parts[0], &parts[1], &parts[2]) != 3) return 0;
    return parts[0] * 1000000ULL + parts[1] * 1000ULL + parts[2];
}

Copies CopiesOf(const FleetCluster& cluster, const FleetStream& stream) {
    if (!stream.problem.empty()) return Copies::kNotKnown;
    if (stream.replicas.empty())
        return stream.leader.empty() && !cluster.cluster.empty() ? Copies::kNotKnown : Copies::kOne;
    if (stream.leader.empty()) return Copies::kNotKnown;
    bool lagging = false;
    for (const StreamReplica& replica : stream.replicas) {
        if (replica.offline) return Copies::kOffline;
        lagging = lagging || !replica.current || replica.lag > 0;
    }
    if (lagging) return Copies::kLagging;
    return VersionNumber(cluster.version) >= kEqualFrom ? Copies::kEqual : Copies::kNotKnown;
}

int64_t FillOf(const FleetStream& stream) {
    if (stream.maxBytes <= 0) return -1;
    return static_cast<int64_t>(
        std::lround(10000.0 * static_cast<double>(stream.bytes) / static_cast<double>(stream.maxBytes)));
}

std::vector<DoctorFinding> JudgeFleet(const FleetCluster& cluster, const FleetRoster& roster) {
    return Judge(cluster, roster).All();
}

std::vector<TextLine> WordFleet(const FleetCluster& cluster, const FleetRoster& roster,
                                const std::vector<DoctorFinding>& findings) {
    const auto row = [](const char* name, const std::string& text) { return TextLine{Text("%-9s", name) + text}; };
    std::vector<TextLine> lines{row("hosts", HostsLine(roster)), row("agents", DescribeVersions(roster)),
                                row("broker", DescribeBroker(cluster))};
    for (const FleetStream& stream : cluster.streams) {
        lines.push_back(row("stream", stream.name + ": " + DescribeStream(cluster, stream, roster.Time().now)));
    }
    if (findings.empty()) lines.push_back({"all is as it should be"});
    for (const DoctorFinding& finding : findings) {
        lines.push_back({"", LineKind::kPlain});
        lines.push_back({std::string(NameOf(finding.severity)) + ": " + finding.what,
                         finding.severity == Severity::kProblem ? LineKind::kAlarm : LineKind::kNotice});
        lines.push_back({"  to do: " + finding.remedy});
    }
    return lines;
}

Json::Value FleetJson(const FleetCluster& cluster, const FleetRoster& roster,
                      const std::vector<DoctorFinding>& findings) {
    Json::Value view = NewView("fleet-status");
    const HostCounts counts = CountHosts(roster);
    view["healthy"] = findings.empty();
    view["findings"] = FindingsJson(findings);
    view["hosts"]["all"] = Json::UInt64(roster.Rows().size());
    for (size_t i = 0; i < counts.size(); ++i) view["hosts"][kHostStandingNames[i]] = Json::UInt64(counts[i]);
    view["versions"] = Json::Value(Json::arrayValue);
    for (const auto& [version, count] : CountVersions(roster)) {
        Json::Value& one = view["versions"].append(Json::Value(Json::objectValue));
        one["version"] = version;
        one["hosts"] = Json::UInt64(count);
    }
    view["broker"]["version"] = cluster.version;
    view["broker"]["cluster"] = cluster.cluster;
    view["time"]["broker"] = Json::Int64(roster.Time().now);
    view["time"]["told"] = roster.Time().isTold;
    view["time"]["console_ahead_seconds"] = Json::Int64(roster.Time().consoleAhead);
    view["streams"] = Json::Value(Json::arrayValue);
    for (const FleetStream& stream : cluster.streams) {
        view["streams"].append(StreamJson(cluster, stream, roster.Time().now));
    }
    return view;
}

}  // namespace agent
