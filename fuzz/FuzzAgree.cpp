// Two readers of one thing: what the module does by a text and what the agent says of it beside the module's fixed
// lines must be the same. The first byte chooses the text: resource file, /proc/vmstat, record of a failed limit.
#include <list>
#include <map>
#include <string>

#include "FuzzSupport.h"
#include "MemoryRefusal.h"
#include "MonitorPri.h"
#include "ResourceFileCheck.h"
#include "abnormal/OsAbnormalDecisions.h"
#include "base/ProcFiles.h"
#include "doubles/Platform.h"
#include "limits/CgroupErrorRecord.h"
#include "platform/zel/LimitKeys.h"
#include "support/Files.h"

namespace {

using fuzzing::Require;

class Probe : public CMonitorPri {
public:
    using CMonitorPri::m_cgroupGroupsSpec;
    using CMonitorPri::m_memLimitKernelRange;
};

/// What the agent finds of a key, converted as the module converts.
long AgentsNumber(const std::string& text, const zel::LimitKey& key) {
    const std::string value = agent::FindResourceValue(text, key.resourceName);
    return zel::CStringUtil::StringToInt(value, nullptr, 10);
}

bool Names(const std::string& text, const zel::LimitKey& key) {
    return !agent::FindResourceValue(text, key.resourceName).empty();
}

void CheckResourceFile(const std::string& text) {
    static const support::TempDir directory;
    const std::string path = directory / "resource_config";
    Require(support::WriteText(path, text), "the file can be written");
    doubles::ResetPlatform();
    doubles::P().files.alsoFiles.insert(path);
    COnlineClientConf conf;
    ResourceConfig config;
    Probe probe;
    Require(probe.ParseMonitorConfig(path, config), "a file that can be read is accepted");
    // Only a text without a finding promises that both have understood it alike.
    bool understood = true;
    for (const std::string& finding : agent::CheckResourceText(text)) {
        Require(fuzzing::IsOnOneLine(finding), "a finding is one line");
        understood = understood && finding.compare(0, 5, "line ") != 0;
    }
    if (understood) {
        const std::pair<const zel::LimitKey*, long> taken[] = {{&zel::kMaxCpuKey, conf.maxCpu.Get()},
                                                               {&zel::kMaxMemoryKey, conf.maxMemory.Get()},
                                                               {&zel::kLimitModeKey, conf.resourceLimitMode.Get()},
                                                               {&zel::kMaxReadIoKey, conf.maxReadIo.Get()},
                                                               {&zel::kMaxWriteIoKey, conf.maxWriteIo.Get()},
                                                               {&zel::kMaxPidCheckKey, conf.maxPidCheck.Get()},
                                                               {&zel::kCpuAllKey, conf.cpuAll.Get()},
                                                               {&zel::kHashModeKey, conf.hashMode.Get()}};
        for (const auto& [key, value] : taken) {
            const long expected = Names(text, *key) ? AgentsNumber(text, *key) : key->byDefault;
            Require(value == expected, "the agent finds the number that the module goes by");
        }
        Require(probe.m_memLimitKernelRange == agent::FindResourceValue(text, zel::kKernelRangeKey.resourceName),
                "the agent finds the kernels that the module goes by");
        Require(probe.m_cgroupGroupsSpec == agent::FindResourceValue(text, zel::kGroupsKey.resourceName),
                "the agent finds the groups that the module goes by");
    }
    doubles::ForgetOnlineConf();
}

void CheckVmStat(const std::string& text) {
    static const SwapIndexMap kWanted = {{"pgmajfault", 0}, {"pswpin", 0}};
    std::list<std::string> lines;
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        lines.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    SwapIndexMap counters;
    ParseVmstat(lines, kWanted, counters);
    for (const auto& wanted : kWanted) {
        // The kernel writes "name number"; of such a line both make the same.
        const std::string line = wanted.first + " ";
        if (text.compare(0, line.size(), line) != 0) continue;
        const std::string number = text.substr(line.size(), text.find('\n') - line.size());
        if (number.empty() || number.size() > 19 || number.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const std::optional<uint64_t> theirs = base::ParseVmStat(text, wanted.first);
        Require(theirs.has_value() && counters.count(wanted.first) == 1 && counters[wanted.first] == *theirs,
                "a counter is the same for both");
    }
}

void CheckRecord(const std::string& text) {
    constexpr int64_t kNow = 1700000000;
    const std::string line = text.substr(0, text.find('\n'));
    int code = 0;
    int64_t when = 0;
    const bool parsed = ParseCgroupError(line, code, when);
    const bool pauses = parsed && IsRecordedCgroupError(code) && IsRecentCgroupError(kNow, when);
    const std::optional<agent::MemoryPause> pause = agent::ParseMemoryPause(line, kNow);
    Require(pause.has_value() == pauses, "the agent tells of a pause when the module makes one");
    if (!pause) return;
    Require(pause->code == code && pause->since == when, "the agent tells of the same failure");
    Require(pause->until > kNow && fuzzing::IsOnOneLine(agent::DescribePause(*pause)), "a pause ends later");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr void (*kChecks[])(const std::string&) = {CheckResourceFile, CheckVmStat, CheckRecord};
    if (size == 0) return 0;
    kChecks[data[0] % std::size(kChecks)](std::string(fuzzing::TextOf(data + 1, size - 1)));
    return 0;
}
