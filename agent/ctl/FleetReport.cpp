// Requests for the report, and its JSON; the page is written by the runtime's writer of files.
#include "FleetReport.h"

#include <json/json.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <unordered_set>

#include "CtlExit.h"
#include "FleetReading.h"
#include "HumanText.h"
#include "JsonText.h"
#include "Printable.h"
#include "View.h"
#include "base/FileReplace.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr mode_t kPageMode = 0640;
constexpr char kConfigBucket[] = "config";
constexpr size_t kMostLevels = 200;  ///< keys of which the changes are read
constexpr size_t kMostChanges = 2000;
constexpr size_t kMostChangeBytes = 300;
constexpr size_t kMostLevelBytes = 256;

/// A key of the configuration as the list or the history has it.
struct LevelPut {
    std::string key;
    uint64_t revision = 0;
    int64_t time = 0;
    bool isDeleted = false;
    std::string value;
};

LevelPut PutOf(const Json::Value& item) {
    LevelPut put;
    if (item["key"].isString()) put.key = item["key"].asString();
    if (item["revision"].isUInt64()) put.revision = item["revision"].asUInt64();
    put.time = static_cast<int64_t>(BrokerTimeIn(item["time"]));
    put.isDeleted = item["deleted"].isBool() && item["deleted"].asBool();
    if (item["value"].isString()) put.value = item["value"].asString();
    return put;
}

std::string CompactText(const Json::Value& value) {
    const std::string text = ViewText(value, true);
    return text.substr(0, text.size() - 1);
}

base::Status AskAll(FleetLink& link, const char* op, const std::string& key, const FleetLink::OnItem& onItem) {
    Json::Value request(Json::objectValue);
    request["op"] = op;
    request["bucket"] = kConfigBucket;
    if (!key.empty()) request["key"] = key;
    const base::Result<FleetAnswer> answer = link.Ask(std::move(request), onItem);
    if (!answer) return answer.GetError();
    if (!answer->ok) return base::SentenceError(answer->error);
    return {};
}

class Gathering {
public:
    Gathering(FleetLink& link, const FleetReportOptions& options) : m_link(link), m_options(options) {}

    FleetReportFacts Take(const FleetRoster& roster, int64_t since, int64_t now) {
        m_facts.group = m_options.group;
        m_facts.version = ZEL_VERSION;
        m_facts.roster = m_options.group.empty() ? roster : roster.OfGroup(m_options.group);
        for (const FleetRow& row : m_facts.roster.Rows()) m_keys.insert(row.key);
        m_facts.cluster = ReadCluster(m_link);
        m_facts.findings = JudgeFleet(m_facts.cluster, m_facts.roster);
        m_facts.tally = FleetTally(MakePeriod(since, now));
        ReadEvents(since);
        ReadChanges(since);
        return std::move(m_facts);
    }

private:
    bool IsOfGroup(const std::string& key) const { return m_options.group.empty() || m_keys.count(key) != 0; }

    void ReadEvents(int64_t since) {
        FleetEventQuery query;
        query.since = since;
        FleetEventReader reader;
        const base::Status read = ReadFleetEvents(m_link, query, reader, [this](const FleetEvent& event) {
            if (IsOfGroup(event.key)) m_facts.tally.Take(event);
            return true;
        });
        m_facts.repeated = reader.Repeated();
        m_facts.unread = reader.Unread();
        if (!read) m_facts.problems.push_back(read.GetError().Text());
    }

    /// The level of all, of the group, and of its hosts.
    bool Concerns(const std::string& key) const {
        constexpr char kHostLevel[] = "host.";
        if (m_options.group.empty() || key == "all" || key == "group." + fleet::EscapeName(m_options.group))
            return true;
        return key.compare(0, sizeof kHostLevel - 1, kHostLevel) == 0 &&
               m_keys.count(key.substr(sizeof kHostLevel - 1)) != 0;
    }

    void ReadChanges(int64_t since) {
        std::vector<LevelPut> levels;
        const base::Status listed = AskAll(m_link, "keys", "", [&](const Json::Value& item) {
            LevelPut put = PutOf(item);
            put.value.clear();
            if (put.time >= since && Concerns(put.key)) levels.push_back(std::move(put));
            return true;
        });
        if (!listed) m_facts.problems.push_back("the configuration cannot be read: " + listed.GetError().Text());
        std::sort(levels.begin(), levels.end(),
                  [](const LevelPut& a, const LevelPut& b) { return a.revision > b.revision; });
        std::unordered_set<std::string> seen;  // a key that was put during the list comes twice
        for (const LevelPut& level : levels) {
            if (!seen.insert(level.key).second) continue;
            if (seen.size() <= kMostLevels && m_facts.changes.size() < kMostChanges && !ReadHistory(level.key, since)) {
                break;
            }
            if (seen.size() > kMostLevels || m_facts.changes.size() >= kMostChanges) ++m_facts.changesLeftOut;
        }
        std::sort(m_facts.changes.begin(), m_facts.changes.end(),
                  [](const FleetChange& a, const FleetChange& b) { return a.revision < b.revision; });
    }

    bool ReadHistory(const std::string& key, int64_t since) {
        LevelPut before;
        bool isKnown = false;
        const base::Status read = AskAll(m_link, "history", key, [&](const Json::Value& item) {
            LevelPut put = PutOf(item);
            if (put.time >= since) {
                m_facts.changes.push_back({put.time, ShortText(key, kMostLevelBytes), put.revision,
                                           WordChange(isKnown ? &before.value : nullptr, put.value, put.isDeleted)});
            }
            before = std::move(put);
            isKnown = true;
            return m_facts.changes.size() < kMostChanges;
        });
        if (!read) m_facts.problems.push_back("changes of the configuration cannot be read: " + read.GetError().Text());
        return static_cast<bool>(read);
    }

    FleetLink& m_link;
    const FleetReportOptions& m_options;
    FleetReportFacts m_facts;
    std::unordered_set<std::string> m_keys;
};

// --- as JSON ---------------------------------------------------------------------------------------------------------

template <typename Counts>
Json::Value CountsJson(const Counts& counts) {
    Json::Value object(Json::objectValue);
    for (size_t i = 0; i < kFleetMarks; ++i) object[MemberOf(static_cast<FleetMark>(i))] = Json::UInt64(counts[i]);
    return object;
}

Json::Value ColumnsJson(const TallyPeriod& period, const HostTally& tally) {
    Json::Value list(Json::arrayValue);
    for (size_t i = 0; i < tally.columns.size(); ++i) {
        Json::Value& one = list.append(Json::Value(Json::objectValue));
        one["from"] = Json::Int64(period.BeginOf(i));
        one["counts"] = CountsJson(tally.columns[i]);
    }
    return list;
}

Json::Value HeadJson(const FleetReportFacts& facts) {
    const TallyPeriod& period = facts.tally.Period();
    const StreamReach reach = ReachOf(facts.cluster, period.from);
    Json::Value view = FleetJson(facts.cluster, facts.roster, facts.findings);
    view["schema"] = NewView("fleet-report")["schema"];
    view["group"] = facts.group;
    view["since"] = Json::Int64(period.from);
    view["until"] = Json::Int64(period.to);
    view["piece_seconds"] = Json::Int64(period.width);
    view["reach"]["from"] = Json::Int64(reach.from);
    view["reach"]["whole"] = reach.isWhole;
    view["reach"]["note"] = reach.note;
    view["problems"] = JsonList(facts.problems);
    view["events"]["read"] = Json::UInt64(facts.tally.Fleet().events);
    view["events"]["repeated"] = Json::UInt64(facts.repeated);
    view["events"]["unread"] = Json::UInt64(facts.unread);
    view["events"]["without_row"] = Json::UInt64(facts.tally.LeftOut());
    view["counts"] = CountsJson(facts.tally.Fleet().counts);
    view["pieces"] = ColumnsJson(period, facts.tally.Fleet());
    view["changes"] = Json::Value(Json::arrayValue);
    for (const FleetChange& change : facts.changes) {
        Json::Value& one = view["changes"].append(Json::Value(Json::objectValue));
        one["time"] = Json::Int64(change.time);
        one["level"] = change.level;
        one["revision"] = Json::UInt64(change.revision);
        one["what"] = change.what;
    }
    view["keys_left_out"] = Json::UInt64(facts.changesLeftOut);
    return view;
}

Json::Value RowJson(const FleetRow* row, const std::string& key, const HostTally& tally, const TallyPeriod& period,
                    bool isShown) {
    Json::Value object(Json::objectValue);
    object["host"] = row != nullptr ? row->name : tally.host;
    object["key"] = key;
    object["state"] = row != nullptr ? NameOf(row->standing) : "";
    object["version"] = row != nullptr ? row->state.version : "";
    const AppliedConfig config = row != nullptr ? row->state.config : AppliedConfig();
    object["config"]["seen"] = Json::UInt64(config.seen);
    object["config"]["applied"] = Json::UInt64(config.applied);
    object["config"]["pinned"] = config.pinned;
    object["config"]["error"] = config.error;
    object["events"] = Json::UInt64(tally.events);
    object["counts"] = CountsJson(tally.counts);
    object["last"] = Json::Value(Json::arrayValue);
    for (const auto& [mark, last] : tally.last) {
        Json::Value& one = object["last"].append(Json::Value(Json::objectValue));
        one["kind"] = MemberOf(mark);
        one["time"] = Json::Int64(last.time);
        one["event"] = last.name;
        one["what"] = last.what;
    }
    object["pieces"] = isShown ? ColumnsJson(period, tally) : Json::Value(Json::arrayValue);
    return object;
}

/// One line for each host: first those that the page lists, in its order, then those that are known by events alone.
void PrintJson(const FleetReportFacts& facts) {
    std::unordered_set<const HostTally*> shown;
    for (const HostTally* host : HeaviestHosts(facts.tally)) {
        if (shown.size() < kShownHostRows) shown.insert(host);
    }
    const std::string head = CompactText(HeadJson(facts));
    printf("%s,\"rows\":[", head.substr(0, head.rfind('}')).c_str());
    const char* between = "\n";
    const auto print = [&](const FleetRow* row, const std::string& key, const HostTally& tally) {
        const Json::Value object = RowJson(row, key, tally, facts.tally.Period(), shown.count(&tally) != 0);
        printf("%s%s", between, CompactText(object).c_str());
        between = ",\n";
    };
    const HostTally silent;
    std::unordered_set<std::string> printed;
    for (const FleetRow* row : HostsInOrder(facts)) {
        const auto tally = facts.tally.Hosts().find(row->key);
        print(row, row->key, tally == facts.tally.Hosts().end() ? silent : tally->second);
        printed.insert(row->key);
    }
    for (const auto& [key, tally] : facts.tally.Hosts()) {
        if (printed.count(key) == 0) print(nullptr, ShortText(key, kMostLevelBytes), tally);
    }
    printf("]}\n");
}

}  // namespace

void DeclareFleetReport(CLI::App& fleet, FleetReportOptions& options) {
    CLI::App* report = fleet.add_subcommand("report", "the fleet over a period: a page for a browser, or JSON");
    const auto isTime = [](const std::string& text) {
        const base::Result<int64_t> since = ParseSince(text, time(nullptr));
        return since ? std::string() : since.GetError().Text();
    };
    report->add_option("--since", options.since, "from when on: 90m, 24h, 7d or a date")
        ->capture_default_str()
        ->check(isTime);
    report->add_option("--html", options.htmlFile, "the page to write")->type_name("FILE");
    report->add_option("--group", options.group, "only the hosts of this group")->type_name("GROUP");
}

std::string WordChange(const std::string* before, const std::string& after, bool isDeleted) {
    const auto parsed = [](const std::string& text) {
        const base::Result<Json::Value> value = ParseJson(text);
        return value && value->isObject() ? *value : Json::Value(Json::objectValue);
    };
    if (isDeleted) return "taken away as a whole";
    const base::Result<Json::Value> now = ParseJson(after);
    if (!now || !now->isObject()) return "put as a text that is no configuration";
    const Json::Value was = before != nullptr ? parsed(*before) : Json::Value(Json::objectValue);
    std::string text;
    const auto add = [&text](const std::string& what) { text += (text.empty() ? "" : ", ") + what; };
    for (const std::string& key : now->getMemberNames()) {
        const std::string value = CompactText((*now)[key]);
        if (!was.isMember(key)) {
            add(key + " " + value);
        } else if (was[key] != (*now)[key]) {
            add(key + " " + CompactText(was[key]) + " to " + value);
        }
        if (text.size() > kMostChangeBytes) break;
    }
    for (const std::string& key : was.getMemberNames()) {
        if (!now->isMember(key)) add(key + " taken away");
        if (text.size() > kMostChangeBytes) break;
    }
    if (text.empty()) text = "put as it was";
    return ShortText(before == nullptr ? "put, what was before is not known: " + text : text, kMostChangeBytes);
}

int MakeFleetReport(FleetLink& link, const FleetReportOptions& options) {
    const base::Result<FleetRoster> roster = ReadRoster(link);
    if (!roster) return FleetFail(kUnreachable, roster.GetError().Text());
    const auto told = static_cast<int64_t>(roster->Time().now);
    const int64_t now = told > 0 ? told : time(nullptr);
    const base::Result<int64_t> since = ParseSince(options.since, now);
    if (!since || *since >= now) {
        return FleetFail(kUsage,
                         "--since " + (since ? "is not in the past by the broker's clock" : since.GetError().Text()));
    }
    if (!options.group.empty() && roster->OfGroup(options.group).Rows().empty()) {
        return FleetFail(kRefused, "no host says that it is of the group \"" + options.group +
                                       "\": tervanectl fleet hosts shows which groups there are");
    }
    const FleetReportFacts facts = Gathering(link, options).Take(*roster, *since, now);
    if (!options.htmlFile.empty()) {
        const base::Status written =
            base::ReplaceFile(options.htmlFile, MakeFleetPage(facts), kPageMode, base::Durability::kSynced);
        if (!written) return FleetFail(kRefused, written.GetError().Text());
    }
    for (const std::string& problem : facts.problems) FleetFail(kPartly, problem);
    if (options.json) {
        PrintJson(facts);
    } else {
        printf("%s: %zu hosts, %llu events, %zu changes of the configuration\n", options.htmlFile.c_str(),
               facts.roster.Rows().size(), static_cast<unsigned long long>(facts.tally.Fleet().events),
               facts.changes.size());
    }
    return facts.problems.empty() ? kOk : kPartly;
}

}  // namespace agent
