// The files that remain when a process was asked to stop itself.
#include "sampling/SelfKillRecord.h"

#include <dirent.h>
#include <json/json.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "sampling/ProcReaders.h"
#include "SecureFile.h"
#include "platform/zel/ToolUtil.h"

namespace zelhost {
namespace {

std::string RecordDir(const SamplingSettings& settings) {
    if (!settings.options.recordDir.empty()) return settings.options.recordDir;
    return zel::CToolUtil::GetApplicationDirPath() + "/selfkill";
}

std::string Prefix(const SamplingSettings& settings) {
    return FileNamePart(settings.processName) + "-";
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

std::string Keep(const std::string& dir, const std::string& path, const std::string& json, std::string& reason) {
    if (!MakeDirectories(dir, reason)) return "";
    return WriteFileDurably(path, json, reason) ? path : "";
}

}  // namespace

void AddKernelLimits(Json::Value& limits) {
    char text[8192];
    CKeptFile file;
    if (file.Open("/proc/self/cgroup") && file.Read(text, sizeof(text)) > 0) limits["cgroup"] = text;
    const std::pair<const char*, int> wanted[] = {
        {"rlimit_nofile", RLIMIT_NOFILE}, {"rlimit_as", RLIMIT_AS}, {"rlimit_cpu", RLIMIT_CPU}};
    for (const auto& item : wanted) {
        rlimit limit{};
        if (getrlimit(static_cast<__rlimit_resource>(item.second), &limit) != 0) continue;
        limits[item.first] = limit.rlim_cur == RLIM_INFINITY ? Json::Value("unlimited")
                                                             : Json::Value(static_cast<Json::UInt64>(limit.rlim_cur));
    }
}

std::string RecordText(const Json::Value& root) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, root) + "\n";
}

std::string KeepRecord(const SamplingSettings& settings, const std::string& kind, int64_t wallTime, uint64_t number,
                       const std::string& json, std::string& reason) {
    const std::string dir = RecordDir(settings);
    char stamp[64];
    std::snprintf(stamp, sizeof(stamp), "%012lld-%06llu", static_cast<long long>(wallTime),
                  static_cast<unsigned long long>(number));
    const std::string path = dir + "/" + Prefix(settings) + stamp + "-" + kind + ".json";
    const std::string kept = Keep(dir, path, json, reason);
    if (!kept.empty()) RemoveOldRecords(dir, Prefix(settings));
    return kept;
}

std::string KeepWatchedRecord(const SamplingSettings& settings, const std::string& name, const std::string& json,
                              std::string& reason) {
    const std::string dir = RecordDir(settings);
    return Keep(dir, dir + "/watched-" + FileNamePart(name) + ".json", json, reason);
}

}  // namespace zelhost
