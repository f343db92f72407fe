// From records to members.
#include "HistoryJson.h"

#include "View.h"

namespace agent {

namespace {

/// In the order of MarkKind.
constexpr const char* kMarkWords[kMarkKinds] = {"oom", "self-kill", "would-kill", "drift", "limit", "end", "host"};

Json::Value Number(int64_t value) {
    return {static_cast<Json::Int64>(value)};
}

Json::Value PointJson(const UsePoint& point) {
    Json::Value object(Json::objectValue);
    object["from"] = Number(point.from);
    object["to"] = Number(point.to);
    object["cpu_100times"] = Number(point.cpu100Times);
    object["cpu_limit_100times"] = point.cpuLimit100Times;
    object["throttled_100times"] = Number(point.throttled100Times);
    object["throttled_ms"] = Number(point.throttledMs);
    object["memory_kb"] = Number(point.memoryKb);
    object["memory_limit_kb"] = point.memoryLimitKb;
    object["limit_hits"] = Number(point.hits);
    object["observed"] = point.observed;
    return object;
}

Json::Value GroupJson(const GroupUse& group) {
    Json::Value object(Json::objectValue);
    object["name"] = group.name;
    object["points"] = Json::Value(Json::arrayValue);
    for (const UsePoint& point : group.points) object["points"].append(PointJson(point));
    return object;
}

Json::Value PressureJson(const PressurePoint& point) {
    Json::Value object(Json::objectValue);
    object["from"] = Number(point.from);
    object["to"] = Number(point.to);
    object["cpu_100times"] = Number(point.cpu);
    object["memory_100times"] = Number(point.memory);
    object["io_100times"] = Number(point.io);
    return object;
}

Json::Value MarkJson(const Mark& mark) {
    Json::Value object(Json::objectValue);
    object["time"] = Number(mark.time);
    object["type"] = kMarkWords[static_cast<size_t>(mark.kind)];
    object["what"] = mark.text;
    object["about"] = JsonList(mark.subjects);
    return object;
}

/// What both say of the rows that they are made from.
void AddSource(const DayHistory& day, Json::Value& view) {
    view["from"] = Number(day.from);
    view["to"] = Number(day.to);
    view["recorded_minutes"] = Number(static_cast<int64_t>(day.rows));
    view["observed"] = day.observed;
    view["observed_minutes"] = Number(static_cast<int64_t>(day.observedRows));
    view["groups_left_out"] = Number(day.leftOut);
    view["unread"] = JsonList(day.problems);
    view["groups"] = Json::Value(Json::arrayValue);
}

/// `unit` stands behind the names of what has one.
Json::Value LimitJson(const LimitAdvice& advice, const std::string& unit) {
    Json::Value object(Json::objectValue);
    object["peak" + unit] = Number(advice.peak);
    object["p99" + unit] = Number(advice.p99);
    object["limit" + unit] = Number(advice.limit);
    object["proposal" + unit] = Number(advice.proposal);
    object["hit_minutes"] = Number(advice.hitMinutes);
    object["known_minutes"] = Number(advice.knownMinutes);
    object["raised"] = advice.raised;
    object["bursts"] = advice.bursts;
    return object;
}

}  // namespace

Json::Value ReportView(const ReportFacts& facts) {
    Json::Value view = NewView("report");
    view["host"] = facts.host;
    view["directory"] = facts.directory;
    view["time"] = Number(facts.now);
    view["since"] = Number(facts.since);
    AddSource(facts.day, view);
    for (const GroupUse& group : facts.day.groups) view["groups"].append(GroupJson(group));
    view["pressure"] = Json::Value(Json::arrayValue);
    for (const PressurePoint& point : facts.day.pressure) view["pressure"].append(PressureJson(point));
    view["marks"] = Json::Value(Json::arrayValue);
    for (const Mark& mark : facts.marks) view["marks"].append(MarkJson(mark));
    view["findings"] = FindingsJson(facts.findings);
    return view;
}

Json::Value AdviceView(const DayHistory& day, const std::vector<GroupAdvice>& advice) {
    Json::Value view = NewView("advise");
    AddSource(day, view);
    for (const GroupAdvice& each : advice) {
        Json::Value& object = view["groups"].append(Json::Value(Json::objectValue));
        object["name"] = each.name;
        object["cpu"] = LimitJson(each.cpu, "_100times");
        object["memory"] = LimitJson(each.memory, "_kb");
    }
    return view;
}

}  // namespace agent
