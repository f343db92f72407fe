// Gathering for one row of the history. Touches a few control files of each group and those below /proc/pressure.
#include "GroupHistory.h"

#include <ctime>

#include "HistoryRow.h"
#include "base/Pressure.h"

namespace agent {

namespace {

/// How often a limit on memory was reached changes seldom, and needs one more file for each group.
constexpr unsigned int kHitsEvery = 5;
constexpr uint64_t kUsPerMs = 1000;

void ReadWaits(base::PressureResource resource, int64_t& some, int64_t* full) {
    const base::Result<base::Pressure> now = base::ReadPressure(resource);
    if (!now) return;
    some = static_cast<int64_t>(now->some.totalUs / kUsPerMs);
    if (full != nullptr && now->full) *full = static_cast<int64_t>(now->full->totalUs / kUsPerMs);
}

}  // namespace

bool GroupHistory::GetExceptionInfo(std::map<std::string, std::string>& info) {
    HistoryRow row;
    row.groups = zel::ReadCgroupFigures(m_asked++ % kHitsEvery == 0);
    ReadWaits(base::PressureResource::kCpu, row.pressure.cpuMs, nullptr);
    ReadWaits(base::PressureResource::kMemory, row.pressure.memoryMs, &row.pressure.memoryFullMs);
    ReadWaits(base::PressureResource::kIo, row.pressure.ioMs, &row.pressure.ioFullMs);
    AddHistoryFigures(row, info);
    return true;
}

}  // namespace agent
