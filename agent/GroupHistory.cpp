// Gathering for one row of the history. Touches a few control files of each group and those below /proc/pressure.
#include "GroupHistory.h"

#include <ctime>
#include <optional>

#include "HistoryRow.h"
#include "platform/zel/CgroupObserve.h"

namespace agent {

namespace {

/// How often a limit on memory was reached changes seldom, and needs one more file for each group.
constexpr unsigned int kHitsEvery = 5;
constexpr uint64_t kUsPerMs = 1000;

}  // namespace

void GroupHistory::ReadWaits(base::PressureResource resource, int64_t& some, int64_t* full) {
    base::KeptFile& file = m_pressure[static_cast<size_t>(resource)];
    if (!file.IsOpen() && !file.Open(base::PressureFile(resource))) return;
    char buffer[base::kSmallProcBytes];  // not filled
    const std::optional<base::Pressure> now = base::ParsePressure(file.Read(buffer, sizeof buffer));
    if (!now) return;
    some = static_cast<int64_t>(now->some.totalUs / kUsPerMs);
    if (full != nullptr && now->full) *full = static_cast<int64_t>(now->full->totalUs / kUsPerMs);
}

bool GroupHistory::GetExceptionInfo(std::map<std::string, std::string>& info) {
    HistoryRow row;
    row.observed = zel::ObservedLimits();
    row.groups = m_reader.Read(m_asked++ % kHitsEvery == 0);
    ReadWaits(base::PressureResource::kCpu, row.pressure.cpuMs, nullptr);
    ReadWaits(base::PressureResource::kMemory, row.pressure.memoryMs, &row.pressure.memoryFullMs);
    ReadWaits(base::PressureResource::kIo, row.pressure.ioMs, &row.pressure.ioFullMs);
    AddHistoryFigures(row, info);
    return true;
}

}  // namespace agent
