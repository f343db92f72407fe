// Reading of the record and of the list.
#include "MemoryRefusal.h"

#include <ctime>
#include <list>
#include <vector>

#include "ResourceFileCheck.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/KernelVersion.h"
#include "platform/zel/LimitKeys.h"
#include "platform/zel/StringUtil.h"

namespace agent {

namespace {

constexpr int64_t kPauseSeconds = 12 * 3600;
constexpr size_t kMostRecordLines = 128;
constexpr int kDecimal = 10;

std::string LocalTime(int64_t seconds) {
    const time_t when = seconds;
    tm local{};
    char text[32] = "";
    if (localtime_r(&when, &local) == nullptr || strftime(text, sizeof text, "%F %R", &local) == 0) return "?";
    return text;
}

}  // namespace

// As the monitor reads it: what it passes over pauses nothing.
std::optional<MemoryPause> ParseMemoryPause(const std::string& line, int64_t now) {
    const std::vector<std::string> pieces = zel::CStringUtil::stringSplit(line, "-");
    if (pieces.size() != 2) return std::nullopt;
    MemoryPause pause;
    pause.code = zel::CStringUtil::StringToInt(pieces[0], nullptr, kDecimal);
    if (pause.code != 13 && pause.code != 105 && pause.code != 119) return std::nullopt;
    pause.since = zel::CStringUtil::StringToInt(pieces[1], nullptr, kDecimal);
    pause.until = pause.since + kPauseSeconds;
    if (now - pause.since >= kPauseSeconds) return std::nullopt;
    return pause;
}

std::optional<MemoryPause> ReadMemoryPause(const std::string& appDir, int64_t now) {
    const std::string path = appDir + zel::kCgroupErrorFileName;
    std::list<std::string> lines;
    if (!zel::CFileUtil::IsFile(path) || !zel::CFileUtil::ReadFileLineToList(path, lines, kMostRecordLines)) {
        return std::nullopt;
    }
    for (const std::string& line : lines) {
        std::optional<MemoryPause> pause = ParseMemoryPause(line, now);
        if (!pause) continue;
        pause->path = path;
        return pause;
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
