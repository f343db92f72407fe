// Gathering for one row of the history. Touches a few control files of each group and those below /proc/pressure.
#include "GroupHistory.h"

#include <ctime>

#include "HistoryRow.h"
#include "base/ProcFiles.h"

namespace agent {

namespace {

/// How often a limit on memory was reached changes seldom, and needs one more file for each group.
constexpr unsigned int kHitsEvery = 5;

void ReadPressure(const char* file, int64_t& some, int64_t* full) {
    const base::Result<std::string> text = base::ReadProcText(file, base::kSmallProcBytes);
    if (!text) return;
    some = ParsePressureMs(*text, "some");
    if (full != nullptr) *full = ParsePressureMs(*text, "full");
}

}  // namespace

bool GroupHistory::GetExceptionInfo(std::map<std::string, std::string>& info) {
    HistoryRow row;
    row.groups = zel::ReadCgroupFigures(m_asked++ % kHitsEvery == 0);
    ReadPressure(base::kCpuPressureFile, row.pressure.cpuMs, nullptr);
    ReadPressure(base::kMemoryPressureFile, row.pressure.memoryMs, &row.pressure.memoryFullMs);
    ReadPressure(base::kIoPressureFile, row.pressure.ioMs, &row.pressure.ioFullMs);
    AddHistoryFigures(row, info);
    return true;
}

}  // namespace agent
