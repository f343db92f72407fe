// The status report in words and in JSON.
#include "StatusReport.h"

#include <json/json.h>

#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

Json::Value Show(const zel::CgroupControllerStatus& controller) {
    Json::Value value(Json::objectValue);
    value["version"] = controller.version;
    value["group"] = controller.groupPath;
    value["limited"] = controller.limited;
    value["limit_group"] = controller.limitPath;
    value["reason"] = controller.reason;
    value["advice"] = controller.advice;
    return value;
}

Json::Value Show(const zel::CgroupUse& use) {
    Json::Value value(Json::objectValue);
    value["present"] = use.present;
    value["path"] = use.path;
    value["limit"] = use.limit;
    value["used"] = Json::Int64(use.used);
    value["periods"] = Json::Int64(use.periods);
    value["throttled_periods"] = Json::Int64(use.throttledPeriods);
    value["throttled_us"] = Json::Int64(use.throttledUs);
    value["limit_hits"] = Json::Int64(use.limitHits);
    value["oom_kills"] = Json::Int64(use.oomKills);
    return value;
}

const char* Name(ComponentState state) {
    switch (state) {
        case ComponentState::kWaiting: return "waiting";
        case ComponentState::kRunning: return "running";
        case ComponentState::kStopped: return "stopped";
    }
    return "unknown";
}

const char* Name(zel::CgroupLevel level) {
    switch (level) {
        case zel::CgroupLevel::kParent: return "parent";
        case zel::CgroupLevel::kGroup: return "group";
        case zel::CgroupLevel::kComponent: return "component";
    }
    return "unknown";
}

Json::Value Show(const WorkerFigures& workers) {
    Json::Value value(Json::objectValue);
    value["threads"] = workers.threads;
    value["pieces"] = Json::UInt64(workers.pieces);
    value["asked"] = Json::UInt64(workers.asked);
    value["held"] = Json::UInt64(workers.held);
    return value;
}

}  // namespace

std::string DescribeMode(const StatusReport& report) {
    std::string wanted = "mode " + std::to_string(report.mode) + ": ";
    bool cpu = (report.mode & zel::kModeCpu) != 0;
    bool memory = (report.mode & zel::kModeMemory) != 0;
    if (!cpu && !memory) return wanted + "no limit is asked for";
    if (report.unified) return wanted + "one group per component, " + report.tree.layout;
    if ((report.mode & zel::kModeUnified) != 0) {
        return wanted + "one group per component is asked for and not in force; " +
               (report.cgroup.cpu.limited || report.cgroup.mem.limited ? "one group for the whole agent holds instead"
                                                                       : "no limit holds");
    }
    return wanted + "one group for the whole agent";
}

std::string FormatStatusJson(const StatusReport& report) {
    Json::Value root(Json::objectValue);
    root["process"] = report.process;
    root["pid"] = report.pid;
    root["time"] = Json::Int64(report.now);
    root["uptime_seconds"] = Json::Int64(report.uptimeSeconds);
    root["mode"] = report.mode;
    root["unified"] = report.unified;
    root["mode_reason"] = report.modeReason;
    root["disk_full"] = report.diskFull;
    for (bool need : report.cpuNeedLimit) root["cpu_need_limit"].append(need);

    Json::Value& own = root["own"] = Json::Value(Json::objectValue);
    own["sampling"] = report.samplerRuns;
    own["cpu_100times"] = Json::Int64(report.sampler.cpu100Times);
    own["cpu_minute_100times"] = Json::Int64(report.sampler.cpuMinute100Times);
    own["cpu_level"] = report.sampler.cpuLevel;
    own["max_cpu"] = report.sampler.maxCpu;
    own["memory_kb"] = Json::Int64(report.sampler.memKb);
    own["memory_level"] = report.sampler.memLevel;
    own["max_memory_mb"] = report.sampler.maxMemMb;
    own["descriptors"] = Json::Int64(report.sampler.descriptors);
    own["read_kbps"] = Json::Int64(report.sampler.readKbps);
    own["write_kbps"] = Json::Int64(report.sampler.writeKbps);
    own["rounds"] = Json::UInt64(report.sampler.rounds);
    own["warnings"] = Json::UInt64(report.warnings);
    own["stalls"] = Json::UInt64(report.stalls);
    own["greedy"] = Show(report.greedy);
    own["polite"] = Show(report.polite);
    own["held_memory_kb"] = Json::UInt64(report.heldMemoryKb);

    Json::Value& cpu = root["cpu"] = Show(report.cgroup.cpu);
    cpu["limit_100times"] = report.cgroup.cpu.limit100Times;
    cpu["quota_us"] = Json::Int64(report.cgroup.cpu.quotaUs);
    cpu["period_us"] = Json::Int64(report.cgroup.cpu.periodUs);
    cpu["periods"] = Json::Int64(report.cgroup.cpu.periods);
    cpu["throttled_periods"] = Json::Int64(report.cgroup.cpu.throttledPeriods);
    cpu["throttled_us"] = Json::Int64(report.cgroup.cpu.throttledUs);
    Json::Value& memory = root["memory"] = Show(report.cgroup.mem);
    memory["limit_bytes"] = Json::Int64(report.cgroup.mem.limitBytes);
    memory["usage_bytes"] = Json::Int64(report.cgroup.mem.usageBytes);
    memory["limit_hits"] = Json::Int64(report.cgroup.mem.limitHits);
    memory["oom_kills"] = Json::Int64(report.cgroup.mem.oomKills);

    Json::Value& tree = root["tree"] = Json::Value(Json::objectValue);
    tree["present"] = report.tree.present;
    tree["layout"] = report.tree.layout;
    tree["cpu_place"] = report.tree.cpuPlace;
    tree["memory_place"] = report.tree.memoryPlace;
    tree["nodes"] = Json::Value(Json::arrayValue);
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        Json::Value item(Json::objectValue);
        item["level"] = Name(node.level);
        item["name"] = node.name;
        item["group"] = node.group;
        item["cpu"] = Show(node.cpu);
        item["memory"] = Show(node.memory);
        item["pids"] = Json::Value(Json::arrayValue);
        for (int pid : node.pids) item["pids"].append(pid);
        item["membership_verified"] = node.membershipVerified;
        tree["nodes"].append(item);
    }

    root["components"] = Json::Value(Json::arrayValue);
    for (const ComponentStatus& component : report.components) {
        Json::Value item(Json::objectValue);
        item["name"] = component.name;
        item["group"] = component.group;
        item["state"] = Name(component.state);
        item["pid"] = static_cast<int>(component.pid);
        item["started_at"] = Json::Int64(component.startedAt);
        item["next_start_at"] = Json::Int64(component.nextStartAt);
        item["restarts"] = Json::UInt64(component.restarts);
        item["restarts_last_hour"] = Json::UInt64(component.recentRestarts);
        item["budget_exhausted"] = component.exhausted;
        item["last_reason"] = component.lastReason;
        root["components"].append(item);
    }

    Json::Value& delivery = root["delivery"] = Json::Value(Json::objectValue);
    delivery["present"] = report.delivery.present;
    delivery["accepted"] = Json::UInt64(report.delivery.accepted);
    delivery["spooled"] = Json::UInt64(report.delivery.spooled);
    delivery["dropped"] = Json::UInt64(report.delivery.dropped);
    delivery["in_memory"] = Json::UInt64(report.delivery.inMemory);
    delivery["spool_broken"] = report.delivery.spoolBroken;
    for (const zelhost::SinkStats& sink : report.delivery.sinks) {
        Json::Value item(Json::objectValue);
        item["name"] = sink.name;
        item["delivered"] = Json::UInt64(sink.delivered);
        item["failures"] = Json::UInt64(sink.failures);
        item["waiting"] = Json::UInt64(sink.waiting);
        item["last_error"] = sink.lastError;
        delivery["sinks"].append(item);
    }
    return root.toStyledString();
}

std::string FormatComponentEnd(const ComponentEnd& end, int64_t now) {
    Json::Value body(Json::objectValue);
    body["component"] = end.name;
    body["pid"] = static_cast<int>(end.pid);
    body["detect_time"] = Json::Int64(now);
    body["reason"] = end.reason;
    body["status"] = end.status;
    body["next_start"] = Json::Int64(end.nextStartAt);
    body["budget_exhausted"] = end.exhausted;
    return body.toStyledString();
}

}  // namespace agent
