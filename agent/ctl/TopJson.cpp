// From a status, and what two of them tell, to members.
#include "TopJson.h"

#include "Health.h"
#include "View.h"

namespace agent {

namespace {

Json::Value Number(int64_t value) {
    return {static_cast<Json::Int64>(value)};
}

Json::Value Count(uint64_t value) {
    return {static_cast<Json::UInt64>(value)};
}

/// -1: not known.
Json::Value ShareOf(const CpuShares& shares, const std::string& path) {
    const auto found = shares.find(path);
    return Number(found == shares.end() ? -1 : found->second);
}

Json::Value OwnJson(const StatusReport& report) {
    const zelhost::SamplerFigures& own = report.sampler;
    Json::Value object(Json::objectValue);
    object["sampling"] = report.samplerRuns;
    object["cpu_100times"] = Number(own.cpu100Times);
    object["max_cpu"] = own.maxCpu;
    object["cpu_level"] = own.cpuLevel;
    object["memory_kb"] = Number(own.memKb);
    object["max_memory_mb"] = own.maxMemMb;
    object["memory_level"] = own.memLevel;
    return object;
}

Json::Value GroupJson(const zel::CgroupNodeStatus& node, const TopHistory& history) {
    static constexpr const char* kLevels[] = {"parent", "group", "component"};  // in the order of CgroupLevel
    Json::Value object(Json::objectValue);
    object["level"] = kLevels[static_cast<size_t>(node.level)];
    object["name"] = node.name;
    object["group"] = node.group;
    object["cpu_100times"] = ShareOf(history.Shares(), node.cpu.path);
    object["cpu_limit_100times"] = node.cpu.limit;
    object["throttled_100times"] = ShareOf(history.Throttled(), node.cpu.path);
    object["throttled_us"] = Number(node.cpu.throttledUs);
    object["memory_kb"] = Number(node.memory.used);
    object["memory_limit_kb"] = node.memory.limit;
    object["oom_kills"] = Number(node.memory.oomKills);
    object["processes"] = Count(node.pids.size());
    object["membership_verified"] = node.membershipVerified;
    return object;
}

Json::Value HoldBackJson(const std::string& name, const HoldBack& seen) {
    Json::Value object(Json::objectValue);
    object["name"] = name;
    object["cpu_level"] = seen.cpuLevel;
    object["memory_level"] = seen.memoryLevel;
    object["need_limit"] = Json::Value(Json::arrayValue);
    for (const bool now : seen.now) object["need_limit"].append(now);
    object["answers"] = Count(seen.told);
    object["slept_ms"] = Count(seen.sleptMs);
    return object;
}

}  // namespace

Json::Value TopLook(const StatusReport& report, const TopHistory& history, const Cooperation& cooperation) {
    Json::Value view = NewView("top");
    view["process"] = report.process;
    view["pid"] = report.pid;
    view["time"] = Number(report.now);
    view["uptime_seconds"] = Number(report.uptimeSeconds);
    view["mode_in_force"] = report.modeInForce;
    view["healthy"] = FindTrouble(report).empty();
    view["disk_full"] = report.diskFull;
    view["need_limit"] = Json::Value(Json::arrayValue);
    for (const bool now : report.cpuNeedLimit) view["need_limit"].append(now);
    view["own"] = OwnJson(report);
    view["groups"] = Json::Value(Json::arrayValue);
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) view["groups"].append(GroupJson(node, history));
    view["components"] = Json::Value(Json::arrayValue);
    for (const auto& [name, seen] : cooperation) view["components"].append(HoldBackJson(name, seen));
    view["log"]["count"] = Count(report.logCount);
    view["log"]["new_lines"] = JsonList(history.NewLines());
    return view;
}

}  // namespace agent
