// The files that remain when a process was asked to stop itself.
#include "sampling/SelfKillRecord.h"

#include <dirent.h>
#include <json/json.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/FileReplace.h"
#include "base/MakeDirectories.h"
#include "base/ProcFiles.h"
#include "sampling/ThreadFacts.h"
#include "platform/zel/ToolUtil.h"

namespace zelhost {
namespace {

constexpr int kRecordVersion = 1;
constexpr size_t kRecordThreads = 10;
constexpr mode_t kRecordMode = 0640;
constexpr size_t kMostGroupBytes = 8192;  // of a record, for the list of groups

std::string RecordDir(const SamplingSettings& settings) {
    if (!settings.options.recordDir.empty()) return settings.options.recordDir;
    return zel::CToolUtil::GetApplicationDirPath() + "/selfkill";
}

std::string Prefix(const SamplingSettings& settings) {
    return base::FileNamePart(settings.processName) + "-";
}

/// Leaves the newest kRecordsKept records; their names sort by time.
void RemoveOldRecords(const std::string& dir, const std::string& prefix) {
    DIR* stream = opendir(dir.c_str());
    if (stream == nullptr) return;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(stream)) {
        const std::string name = entry->d_name;
        const bool record = name.compare(0, prefix.size(), prefix) == 0 && name.size() > prefix.size() &&
                            name[prefix.size()] >= '0' && name[prefix.size()] <= '9';
        if (record) names.push_back(name);
    }
    closedir(stream);
    if (names.size() <= kRecordsKept) return;
    std::sort(names.begin(), names.end());
    for (size_t i = 0; i < names.size() - kRecordsKept; ++i) unlink((dir + "/" + names[i]).c_str());
}

base::Status Keep(const std::string& dir, const std::string& path, const std::string& json) {
    const base::Status made = base::MakeDirectories(dir);
    return made ? base::ReplaceFile(path, json, kRecordMode, base::Durability::kSynced) : made;
}

Json::Value FiguresJson(const RoundFigures& round) {
    const SamplerFigures& now = round.figures;
    Json::Value figures;
    figures["cpu_100times"] = static_cast<Json::Int64>(now.cpu100Times);
    figures["cpu_minute_100times"] = static_cast<Json::Int64>(now.cpuMinute100Times);
    figures["cpu_window_100times"] = static_cast<Json::Int64>(now.cpuWindow100Times);
    figures["cpu_hour_100times"] = static_cast<Json::Int64>(now.cpuHour100Times);
    figures["mem_kb"] = static_cast<Json::Int64>(now.memKb);
    figures["read_kbps"] = static_cast<Json::Int64>(now.readKbps);
    figures["write_kbps"] = static_cast<Json::Int64>(now.writeKbps);
    figures["descriptors"] = static_cast<Json::Int64>(now.descriptors);
    figures["load_avg"] = now.loadAvg;
    figures["rounds"] = static_cast<Json::UInt64>(round.totals.rounds);
    figures["missed_rounds"] = static_cast<Json::UInt64>(now.missedRounds);
    return figures;
}

/// The limits that the kernel holds this process to: control groups by /proc/self/cgroup, resource limits by
/// getrlimit(2).
void AddKernelLimits(Json::Value& limits) {
    base::Result<std::string> groups = base::ReadProcText(base::kOwnGroupsFile);
    if (groups && !groups->empty()) limits["cgroup"] = groups->substr(0, kMostGroupBytes);
    const std::pair<const char*, int> wanted[] = {
        {"rlimit_nofile", RLIMIT_NOFILE}, {"rlimit_as", RLIMIT_AS}, {"rlimit_cpu", RLIMIT_CPU}};
    for (const auto& item : wanted) {
        rlimit limit{};
        if (getrlimit(static_cast<__rlimit_resource>(item.second), &limit) != 0) continue;
        limits[item.first] = limit.rlim_cur == RLIM_INFINITY ? Json::Value("unlimited")
                                                             : Json::Value(static_cast<Json::UInt64>(limit.rlim_cur));
    }
}

Json::Value LimitsJson(const SamplingRules& rules) {
    Json::Value limits;
    limits["max_cpu"] = rules.maxCpu.load();
    limits["max_mem_mb"] = rules.maxMem.load();
    limits["max_fd"] = rules.maxFd.load();
    limits["max_read_io"] = rules.maxReadIo.load();
    limits["max_write_io"] = rules.maxWriteIo.load();
    limits["whole_machine"] = rules.solaris.load();
    AddKernelLimits(limits);
    return limits;
}

Json::Value ThreadsJson() {
    Json::Value threads(Json::arrayValue);
    for (const auto& thread : CThreadFacts::Instance().Busiest(kRecordThreads)) {
        Json::Value item;
        item["tid"] = static_cast<Json::Int64>(thread.tid);
        item["name"] = thread.name;
        item["load_100times"] = thread.avgLoad;
        item["system_100times"] = thread.sysLoad;
        threads.append(item);
    }
    return threads;
}

std::string RecordText(const Json::Value& root) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, root) + "\n";
}

}  // namespace

std::string SelfKillText(const SelfKillRecord& record, unsigned int breaches, const RoundFigures& round,
                         const SamplingRules& rules, CSamplerEvents& events) {
    Json::Value root;
    root["version"] = kRecordVersion;
    root["process"] = rules.settings.processName;
    root["pid"] = static_cast<Json::Int64>(getpid());
    root["time"] = static_cast<Json::Int64>(record.wallTime);
    root["kind"] = ResourceKindName(record.kind);
    root["value"] = static_cast<Json::Int64>(record.value);
    root["limit"] = static_cast<Json::Int64>(record.limit);
    root["sustained_ms"] = static_cast<Json::Int64>(record.sustainedMs);
    root["breaches"] = breaches;
    root["figures"] = FiguresJson(round);
    root["limits"] = LimitsJson(rules);
    root["threads"] = ThreadsJson();
    if (record.kind == ResourceKind::kCpu && !root["threads"].empty()) {
        const auto tid = static_cast<unsigned int>(root["threads"][0]["tid"].asInt64());
        root["busiest_thread_stack"] = base::ReadKernelStack(tid);
    }
    root["extra"] = events.ExtraForRecord(record.kind).substr(0, kRecordExtraBytes);
    return RecordText(root);
}

std::string WatchedText(const WatchedEvent& event, const std::string& processName) {
    Json::Value root;
    root["version"] = kRecordVersion;
    root["process"] = processName;
    root["time"] = static_cast<Json::Int64>(time(nullptr));
    root["watched_pid"] = event.pid;
    root["watched_name"] = event.name;
    root["event"] = event.kind == WatchedEvent::kEnded     ? "ended"
                    : event.kind == WatchedEvent::kCpuHigh ? "cpu"
                                                           : "memory";
    root["value"] = static_cast<Json::Int64>(event.value);
    return RecordText(root);
}

base::Result<std::string> KeepRecord(const SamplingSettings& settings, const SelfKillRecord& record, uint64_t number) {
    const std::string dir = RecordDir(settings);
    char stamp[64];
    std::snprintf(stamp, sizeof(stamp), "%012lld-%06llu", static_cast<long long>(record.wallTime),
                  static_cast<unsigned long long>(number));
    const std::string path = dir + "/" + Prefix(settings) + stamp + "-" + ResourceKindName(record.kind) + ".json";
    const base::Status kept = Keep(dir, path, record.json);
    if (!kept) return kept.GetError();
    RemoveOldRecords(dir, Prefix(settings));
    return path;
}

base::Status KeepWatchedRecord(const SamplingSettings& settings, const std::string& name, const std::string& json) {
    const std::string dir = RecordDir(settings);
    return Keep(dir, dir + "/watched-" + base::FileNamePart(name) + ".json", json);
}

}  // namespace zelhost
