// A made-up day of a fleet for its page: hosts in each state, events of each kind, changes of the configuration; and
// names and texts that would be a page's own language if they were not escaped.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "FleetReportPage.h"
#include "fleet/HostState.h"
#include "rule/FleetNames.h"

namespace fleettest {

constexpr int64_t kDayBegin = 1700006400;
constexpr int64_t kDayEnd = kDayBegin + 86400;
constexpr char kHostile[] = "<script>document.title='taken'</script>\"'&";

inline std::string OneLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

/// An event of a type and with a body as an agent sends it.
inline agent::FleetEvent Event(const std::string& host, int number, int64_t time, const std::string& type,
                               const Json::Value& body) {
    agent::FleetEvent event;
    event.key = fleet::EscapeName(host);
    event.host = host;
    event.event = {"ab12000000000001-" + std::to_string(number), time, "tervane", type, OneLine(body)};
    event.storedAt = static_cast<double>(time) + 1;
    return event;
}

inline Json::Value SelfKill(const std::string& component) {
    Json::Value body(Json::objectValue);
    body["process"] = component;
    body["pid"] = 811;
    body["resource"] = "cpu";
    body["value"] = 2512;
    body["limit"] = 1000;
    body["sustained_ms"] = 600000;
    return body;
}

inline Json::Value ComponentEnd(const std::string& component, bool oom) {
    Json::Value body(Json::objectValue);
    body["component"] = component;
    body["pid"] = 811;
    body["reason"] = oom ? "killed by signal 9 (Killed), out of memory at its own limit of 64 MB" : "exit code 3";
    if (oom) body["oom"]["group"] = "guard";
    return body;
}

inline Json::Value Drift(const std::string& component, bool repaired) {
    Json::Value body(Json::objectValue);
    body["component"] = component;
    body["kind"] = "cpu_quota";
    body["found"] = "no limit";
    body["wanted"] = "8 % of one CPU";
    body["repaired"] = repaired;
    if (!repaired) body["problem"] = "the group is not writable";
    return body;
}

inline Json::Value LimitStall(const std::string& component) {
    Json::Value body(Json::objectValue);
    body["component"] = component;
    body["resource"] = "cpu";
    body["limit_group"] = "guard";
    body["limit_100times"] = 800;
    body["stalled_100times"] = 4100;
    return body;
}

inline Json::Value WouldKill(const std::string& component) {
    Json::Value body(Json::objectValue);
    body["component"] = component;
    body["pid"] = 811;
    body["by"] = "kernel";
    body["resource"] = "memory";
    body["value"] = 70000;
    body["limit"] = 65536;
    return body;
}

inline Json::Value Silence(const std::string& process, bool recovered) {
    Json::Value body(Json::objectValue);
    body["process"] = process;
    body["thread"] = "scan";
    body["tid"] = 812;
    body["silent_ms"] = 90000;
    body["recovered"] = recovered;
    return body;
}

inline Json::Value HostMemory() {
    Json::Value body(Json::objectValue);
    body["mem_usage"] = 93;
    body["available_mem"] = 180;
    return body;
}

struct Sent {
    const char* type;
    Json::Value body;
};
/// One of each kind, in the order of FleetMark but for the late one.
inline std::vector<Sent> OneOfEach(const std::string& component) {
    return {{"T_MSG_COMPONENT_END", ComponentEnd(component, true)},
            {"T_MSG_SELF_KILL", SelfKill(component)},
            {"T_MSG_WOULD_KILL", WouldKill(component)},
            {"T_MSG_LIMIT_DRIFT", Drift(component, false)},
            {"T_MSG_LIMIT_DRIFT", Drift(component, true)},
            {"T_MSG_LIMIT_STALL", LimitStall(component)},
            {"T_MSG_THREAD_STALL", Silence(component, false)},
            {"T_MSG_COMPONENT_END", ComponentEnd(component, false)},
            {"T_MSG_OS_ABNORMAL", HostMemory()}};
}

inline agent::HostState WellState(const std::string& host, const std::string& group = "web") {
    agent::HostState state;
    state.host = host;
    state.groups = {group};
    state.version = "1.4.0";
    state.agentRuns = true;
    state.uptimeSeconds = 5000;
    state.config = {14, 14, false, ""};
    return state;
}

inline void AddState(agent::FleetRoster& roster, const agent::HostState& state, int silentSeconds) {
    Json::Value item(Json::objectValue);
    item["key"] = fleet::EscapeName(state.host);
    item["revision"] = 7;
    item["time"] = Json::Int64(kDayEnd - silentSeconds);
    item["value"] = agent::FormatHostState(state);
    roster.Take(item);
}

inline agent::FleetStream Stream(const std::string& name, int64_t firstTime) {
    agent::FleetStream stream;
    stream.name = name;
    stream.messages = 48211;
    stream.bytes = 41000000;
    stream.maxBytes = 1000000000;
    stream.firstSequence = 901;
    stream.firstTime = static_cast<double>(firstTime);
    stream.lastTime = static_cast<double>(kDayEnd);
    stream.leader = "n1";
    stream.replicas = {{"n2", true, 0, false}, {"n3", true, 0, false}};
    return stream;
}

inline agent::FleetReportFacts EmptyDay() {
    agent::FleetReportFacts facts;
    facts.version = "1.5.0";
    facts.cluster.version = "2.10.27";
    facts.cluster.cluster = "fleet";
    for (const char* name : {"EVENTS", "KV_state", "KV_config"}) {
        facts.cluster.streams.push_back(Stream(name, kDayBegin - 86400));
    }
    facts.tally = agent::FleetTally(agent::MakePeriod(kDayBegin, kDayEnd));
    return facts;
}

inline std::string HostName(int number) {
    constexpr const char* kKinds[] = {"web", "db", "build", "edge"};
    return kKinds[number % 4] + std::to_string(number / 4 + 1) + ".example";
}

/// hosts: of which a part has had events. hostile: their names and texts are.
inline agent::FleetReportFacts FleetDay(int hosts, bool hostile) {
    agent::FleetReportFacts facts = EmptyDay();
    uint32_t chance = 12345;
    const auto next = [&chance](uint32_t bound) {
        chance = chance * 1664525U + 1013904223U;
        return (chance >> 8U) % bound;
    };
    const std::string tail = hostile ? std::string(kHostile) + "\x1b[31m" : "";
    const auto sent = OneOfEach("QorHips" + tail);
    int number = 0;
    for (int i = 0; i < hosts; ++i) {
        const std::string name = hostile ? HostName(i) + kHostile : HostName(i);
        agent::HostState state = WellState(name);
        if (i % 17 == 3) state.version = "1.3.2";
        if (i % 23 == 4) state.config = {15, 14, false, "all (15): maxCpu \"fast\" is no number" + tail};
        if (i % 19 == 5) state.problems = 1, state.findings = {"memory of guard has no limit: not writable" + tail};
        if (i % 31 == 7) state.blocked = "no right to publish" + tail;
        AddState(facts.roster, state, i % 29 == 6 ? 900 : i % 13 == 8 ? 240 : 20);
        const uint32_t events = i % 3 == 0 ? next(i % 12 == 0 ? 60 : 12) : 0;
        for (uint32_t at = 0; at < events; ++at) {
            const uint32_t kind = i % 12 == 0 ? next(2) + 4 : next(9);
            // Afternoons are worse.
            const int64_t time = kDayBegin + std::max(next(86000), next(86000));
            agent::FleetEvent event = Event(name, ++number, time, sent[kind].type, sent[kind].body);
            if (i % 7 == 0 && at % 5 == 0) event.storedAt += 1300;
            facts.tally.Take(event);
        }
    }
    facts.roster.Finish(static_cast<double>(kDayEnd), static_cast<double>(kDayEnd));
    facts.changes = {{kDayBegin + 20000, "group.web", 13, "maxCpu 10 to 12" + tail},
                     {kDayBegin + 51000, "all", 14, "logLevel 3 to 4, maxMemory 200"},
                     {kDayBegin + 51900, "all", 15, "maxCpu \"fast\"" + tail}};
    facts.findings = agent::JudgeFleet(facts.cluster, facts.roster);
    return facts;
}

}  // namespace fleettest
