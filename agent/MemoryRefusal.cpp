// Reading of the record and of the list.
#include "MemoryRefusal.h"

#include <cstdlib>
#include <ctime>
#include <list>

#include "ResourceFileCheck.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/KernelVersion.h"
#include "platform/zel/LimitKeys.h"

namespace agent {

namespace {

constexpr int64_t kPauseSeconds = 12 * 3600;
constexpr size_t kMostRecordLines = 16;

std::string LocalTime(int64_t seconds) {
    const time_t when = seconds;
    tm local{};
    char text[32] = "";
    if (localtime_r(&when, &local) == nullptr || strftime(text, sizeof text, "%F %R", &local) == 0) return "?";
    return text;
}

}  // namespace

std::optional<MemoryPause> ReadMemoryPause(const std::string& appDir, int64_t now) {
    MemoryPause pause;
    pause.path = appDir + zel::kCgroupErrorFileName;
    std::list<std::string> lines;
    if (!zel::CFileUtil::IsFile(pause.path) ||
        !zel::CFileUtil::ReadFileLineToList(pause.path, lines, kMostRecordLines)) {
        return std::nullopt;
    }
    for (const std::string& line : lines) {
        const size_t dash = line.find('-');
        if (dash == std::string::npos) continue;
        pause.code = static_cast<int>(std::strtol(line.c_str(), nullptr, 10));
        pause.since = std::strtoll(line.c_str() + dash + 1, nullptr, 10);
        pause.until = pause.since + kPauseSeconds;
        if (now < pause.until) return pause;
    }
    return std::nullopt;
}

std::string DescribePause(const MemoryPause& pause) {
    return "paused until " + LocalTime(pause.until) + " because it failed with " + std::to_string(pause.code) + " at " +
           LocalTime(pause.since);
}

std::string ExplainKernelList(const std::string& resourceText, const std::string& release) {
    const std::string key = zel::kKernelRangeKey.resourceName;
    const std::string list = zel::CStringUtil::trim(FindResourceValue(resourceText, key));
    if (list.empty())
        return key + " is empty, so memory is limited on no kernel in this mode: name this one, " + release;
    zel::KernelReleaseNumbers numbers;
    if (!zel::ParseKernelRelease(release, numbers)) return "the kernel's release " + release + " cannot be read";
    if (zel::IsKernelInRangeList(list, zel::PackKernelRelease(numbers))) return "";
    return key + " = " + list + " does not hold this kernel, " + release;
}

}  // namespace agent
