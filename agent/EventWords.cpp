// Wording of events. Every text of a body may be anybody's and is made printable.
#include "EventWords.h"

#include <json/json.h>

#include <algorithm>
#include <limits>

#include "HumanText.h"
#include "JsonText.h"
#include "Printable.h"
#include "StatusReport.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr size_t kSpoolDigits = 4;
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kMostNumber = int64_t{1} << 50;
constexpr Json::ArrayIndex kNamedConsumers = 3;

struct TypeOfKind {
    const char* type;
    EventKind kind;
};
constexpr TypeOfKind kTypes[] = {
    {zel::kComponentEndMessage, EventKind::kComponentEnd}, {zel::kSelfKillMessage, EventKind::kSelfKill},
    {zel::kThreadStallMessage, EventKind::kStall},         {zel::kUncleanStopMessage, EventKind::kUncleanStop},
    {zel::kLimitDriftMessage, EventKind::kDrift},          {zel::kHostPressureMessage, EventKind::kPressure},
    {zel::kLimitStallMessage, EventKind::kPressure},       {zel::kObservationMessage, EventKind::kObservation},
    {zel::kWouldKillMessage, EventKind::kWouldKill}};

EventKind KindOf(const TailEvent& event, const Json::Value& body) {
    for (const TypeOfKind& known : kTypes) {
        if (event.type == known.type) return known.kind;
    }
    if (event.type != zel::kOsAbnormalMessage) return EventKind::kOther;
    return body.isObject() && body["items"].isObject() ? EventKind::kOom : EventKind::kHost;
}

void WordOom(const Json::Value& body, EventInWords& words) {
    const bool before = WordIn(body, "type") == "multi_cgroup_oom_after_restart";
    std::string list;
    for (const std::string& key : body["items"].getMemberNames()) {
        const Json::Value& item = body["items"][key];
        if (!item.isObject() || NumberIn(item, "oom_kill_delta") <= 0) continue;
        const bool parent = FlagIn(item, "parent");
        const std::string group = WordIn(item, "group");
        if (!parent) words.about.push_back(group);
        list += (list.empty() ? " " : ", ") + (parent ? std::string("whole agent") : group) + " +" +
                std::to_string(NumberIn(item, "oom_kill_delta"));
    }
    words.what = std::string("killed for want of memory") + (before ? " while the agent was down:" : ":") + list;
}

void WordHost(const Json::Value& body, EventInWords& words) {
    if (body.isMember("mem_usage")) {
        words.what = "memory of the host: " + std::to_string(NumberIn(body, "mem_usage")) + " % in use, " +
                     std::to_string(NumberIn(body, "available_mem")) + " MB available" +
                     (NumberIn(body, "swap") != 0 ? ", it swaps" : "");
    }
    if (body.isMember("free_space")) {
        words.what += (words.what.empty() ? "" : "; ") + std::string("disk of the agent: ") +
                      HumanBytes(NumberIn(body, "free_space")) + " and " +
                      std::to_string(NumberIn(body, "free_inode")) + " inodes free";
    }
}

void WordComponentEnd(const TailEvent& event, const Json::Value& body, EventInWords& words) {
    words.about = {WordIn(body, "component")};
    const Json::Value& oom = body["oom"];
    if (oom.isObject()) words.about.push_back(WordIn(oom, "group"));
    const int64_t wait = NumberIn(body, "next_start") - event.time;
    words.what = "process " + std::to_string(NumberIn(body, "pid")) + " ended: " + WordIn(body, "reason");
    if (FlagIn(body, "budget_exhausted")) {
        words.what += "; its restarts of this hour are used up";
    } else {
        words.what += wait > 0 ? "; starts again in " + HumanDuration(wait * kMsPerSecond) : "; starts again at once";
    }
}

void WordSelfKill(const Json::Value& body, EventInWords& words) {
    words.about = {WordIn(body, "process")};
    const bool cpu = WordIn(body, "resource") == "cpu";
    const auto amount = [&](const char* key) {
        return cpu ? HumanPercent(NumberIn(body, key)) : HumanBytes(NumberIn(body, key) * 1024);
    };
    words.what = "ends itself: " + std::string(cpu ? "CPU " : "memory ") + amount("value") + ", its maximum is " +
                 amount("limit") + ", for " + HumanDuration(NumberIn(body, "sustained_ms"));
}

void WordStall(const Json::Value& body, EventInWords& words) {
    words.about = {WordIn(body, "process")};
    words.what = "thread \"" + WordIn(body, "thread") + "\" (" + std::to_string(NumberIn(body, "tid")) + ") " +
                 (FlagIn(body, "gone")        ? "is gone without a word"
                  : FlagIn(body, "recovered") ? "works again"
                                              : "is silent for " + HumanDuration(NumberIn(body, "silent_ms")));
}

void WordUncleanStop(const Json::Value& body, EventInWords& words) {
    words.about = {WordIn(body, "process")};
    std::string cause = WordIn(body, "cause");
    for (char& c : cause) c = c == '_' ? ' ' : c;
    words.what = "the run of process " + std::to_string(NumberIn(body, "pid")) + " did not end in order: " +
                 (cause == "unknown" ? "why is not known" : (FlagIn(body, "certain") ? "" : "presumably ") + cause);
}

/// What was changed, as an operator calls it.
std::string DriftedThing(const std::string& kind) {
    struct Row {
        const char* kind;
        const char* words;
    };
    constexpr Row kRows[] = {{"cpu_quota", "the CPU quota"},       {"cpu_burst", "the CPU burst"},
                             {"memory", "the memory limit"},       {"swap", "the swap limit"},
                             {"controller", "the controller"},     {"group", "the control group"},
                             {"member", "the place of a process"}, {"foreign", "who is in the group"},
                             {"file", "the component file"},       {"memory_soft", "the soft memory limit"}};
    for (const Row& row : kRows) {
        if (kind == row.kind) return row.words;
    }
    return kind.empty() ? "something" : kind;
}

void WordDrift(const Json::Value& body, EventInWords& words) {
    for (const char* key : {"component", "group"}) {
        if (!WordIn(body, key).empty()) words.about.push_back(WordIn(body, key));
    }
    if (words.about.empty()) words.about = {"agent"};
    const std::string cause = WordIn(body, "cause");
    words.what = DriftedThing(WordIn(body, "kind")) + " was changed by somebody else: found " + WordIn(body, "found") +
                 ", wanted " + WordIn(body, "wanted") + "; " +
                 (FlagIn(body, "repaired") ? "put right" : "not put right: " + WordIn(body, "problem")) +
                 (FlagIn(body, "contested") ? ", contested" : "") + (cause.empty() ? "" : "; " + cause);
}

/// A component in its own group, in place of the host.
void WordComponentStall(const Json::Value& body, EventInWords& words) {
    const ComponentStall stall = StallIn(body);
    words.about = {stall.component};
    words.what = DescribeStall(stall) + (FlagIn(body, "goes_on") ? ", for an hour already" : "");
}

void WordPressure(const Json::Value& body, EventInWords& words) {
    if (!WordIn(body, "component").empty()) return WordComponentStall(body, words);
    words.about = {"host"};
    std::string list;
    const Json::Value& consumers = body["consumers"];
    for (Json::ArrayIndex i = 0; consumers.isArray() && i < consumers.size() && i < kNamedConsumers; ++i) {
        if (!consumers[i].isObject()) continue;
        const std::string component = WordIn(consumers[i], "component");
        list += (list.empty() ? "; most of it by " : ", ") + WordIn(consumers[i], "name") + " (" +
                std::to_string(NumberIn(consumers[i], "pid")) + ")";
        if (!component.empty()) words.about.push_back(component);
    }
    // The kernel reports within its window; its average follows two seconds later, and has none of it until then: of a
    // window that reached the threshold it shows more than a tenth of that.
    constexpr int64_t kTenth = 10;  // hundredths for each percent
    const int64_t average = NumberIn(body, "avg10_100times");
    const bool hasIt = average > 0 && average >= NumberIn(body, "threshold_percent") * kTenth;
    words.what = "the host waits for " + WordIn(body, "resource") +
                 (hasIt ? ": " + HumanPercent(average) + " of the last 10 s" : "") +
                 (FlagIn(body, "goes_on") ? ", for an hour already" : "") + list;
}

void WordObservation(const Json::Value& body, EventInWords& words) {
    words.about = {"agent"};
    const int64_t limits = NumberIn(body, "limits");
    const bool cpu = (limits & zel::kModeCpu) != 0;
    const bool memory = (limits & zel::kModeMemory) != 0;
    const std::string held = DescribeHeldThoughObserved(static_cast<int>(limits & NumberIn(body, "in_force")));
    words.what = cpu || memory ? std::string("limits are observed only: ") + (cpu ? "CPU" : "") +
                                     (cpu && memory ? " and " : "") + (memory ? "memory" : "") + ", by " +
                                     WordIn(body, "order") + (held.empty() ? "" : "; but " + held)
                               : "limits are to be put in force, and not only observed any more";
}

void WordWouldKill(const Json::Value& body, EventInWords& words) {
    words.about = {WordIn(body, "component")};
    if (!WordIn(body, "group").empty()) words.about.push_back(WordIn(body, "group"));
    const bool cpu = WordIn(body, "resource") == "cpu";
    const auto amount = [&](const char* key) {
        return cpu ? HumanPercent(NumberIn(body, key)) : HumanBytes(NumberIn(body, key) * 1024);
    };
    const std::string pid = std::to_string(NumberIn(body, "pid"));
    words.what = (WordIn(body, "by") == "itself" ? "process " + pid + " would have ended itself: "
                                                 : "the kernel would have killed process " + pid + ": ") +
                 std::string(cpu ? "CPU " : "memory ") + amount("value") + ", the limit of " + amount("limit") +
                 " is observed only";
}

}  // namespace

std::string WordIn(const Json::Value& object, const char* key) {
    const Json::Value& value = object.isObject() ? object[key] : Json::Value::nullSingleton();
    return value.isString() ? Printable(value.asString()) : "";
}

int64_t NumberIn(const Json::Value& object, const char* key) {
    const Json::Value& value = object.isObject() ? object[key] : Json::Value::nullSingleton();
    // Anybody's word: bounded so that it can be reckoned with, in whatever unit.
    return value.isInt64() ? std::clamp(value.asInt64(), -kMostNumber, kMostNumber) : 0;
}

bool FlagIn(const Json::Value& object, const char* key) {
    const Json::Value& value = object.isObject() ? object[key] : Json::Value::nullSingleton();
    return value.isBool() && value.asBool();
}

std::string DescribeStall(const ComponentStall& stall) {
    const bool cpu = stall.resource == "cpu";
    const std::string whose = stall.limitGroup.empty()                          ? "the whole agent"
                              : stall.limitGroup.find('/') == std::string::npos ? "group " + stall.limitGroup
                                                                                : "its own group " + stall.limitGroup;
    return "it waited " + HumanPercent(stall.stalled100Times) + " of the time for " + (cpu ? "a CPU" : "memory") +
           ", held back by the limit of " + whose + ", " +
           (cpu ? HumanPercent(stall.limit) + " of a CPU" : HumanBytes(static_cast<int64_t>(stall.limit) * 1024));
}

std::string AdviseOnStall(const ComponentStall& stall) {
    const bool cpu = stall.resource == "cpu";
    const std::string maximum = cpu ? "groupMaxCpu" : "groupMaxMemory";
    if (stall.limitGroup.empty()) return "raise " + maximum;
    const std::string table = stall.limitGroup.find('/') == std::string::npos ? "cgroup_groups" : "cgroup_components";
    return std::string("raise its ") + (cpu ? "share" : "KB") + " in " + table + ", or " + maximum +
           ", or have it do less";
}

ComponentStall StallIn(const Json::Value& body) {
    ComponentStall stall;
    stall.component = WordIn(body, "component");
    stall.resource = WordIn(body, "resource");
    stall.limitGroup = WordIn(body, "limit_group");
    const int64_t limit = NumberIn(body, stall.resource == "cpu" ? "limit_100times" : "limit_kb");
    stall.limit = static_cast<int>(std::clamp<int64_t>(limit, 0, std::numeric_limits<int>::max()));
    stall.stalled100Times = static_cast<int>(std::clamp<int64_t>(NumberIn(body, "stalled_100times"), 0, 10000));
    return stall;
}

Json::Value EventBody(const TailEvent& event) {
    const base::Result<Json::Value> body = ParseJson(event.body);
    return body && body->isObject() ? *body : Json::Value();
}

EventInWords WordEvent(const TailEvent& event) {
    const Json::Value body = EventBody(event);
    EventInWords words;
    words.kind = KindOf(event, body);
    switch (words.kind) {
        case EventKind::kOom: WordOom(body, words); break;
        case EventKind::kHost: WordHost(body, words); break;
        case EventKind::kComponentEnd: WordComponentEnd(event, body, words); break;
        case EventKind::kSelfKill: WordSelfKill(body, words); break;
        case EventKind::kStall: WordStall(body, words); break;
        case EventKind::kUncleanStop: WordUncleanStop(body, words); break;
        case EventKind::kDrift: WordDrift(body, words); break;
        case EventKind::kPressure: WordPressure(body, words); break;
        case EventKind::kObservation: WordObservation(body, words); break;
        case EventKind::kWouldKill: WordWouldKill(body, words); break;
        case EventKind::kOther: break;
    }
    if (words.kind == EventKind::kHost) words.about = {"host"};
    if (words.what.empty()) words.what = Printable(event.type);
    if (words.about.empty() || words.about[0].empty()) words.about = {Printable(event.process)};
    return words;
}

std::string DescribeEvent(const TailEvent& event) {
    const EventInWords words = WordEvent(event);
    return ClockText(event.time) + " " + NameOf(words.kind) + " " + words.about[0] + ": " + words.what;
}

const char* NameOf(EventKind kind) {
    return kEventKindNames[static_cast<size_t>(kind)];
}

bool IsOfType(const TailEvent& event, EventKind kind, const std::string& word) {
    return word == NameOf(kind) || word == event.type;
}

std::string ShortId(const std::string& id) {
    const size_t dash = id.rfind('-');
    if (dash == std::string::npos || dash <= kSpoolDigits) return Printable(id);
    return Printable(id.substr(0, kSpoolDigits) + id.substr(dash));
}

bool MeansId(const std::string& word, const std::string& id) {
    if (word == id) return true;
    const size_t typed = word.rfind('-');
    const size_t dash = id.rfind('-');
    if (typed == std::string::npos || dash == std::string::npos || typed == 0) return false;
    return word.substr(typed) == id.substr(dash) && id.compare(0, typed, word, 0, typed) == 0;
}

}  // namespace agent
