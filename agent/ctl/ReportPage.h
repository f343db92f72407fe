// The report as one page that needs nothing else: no script, no network, no font. Charts are drawn here, as SVG that
// stretches; letters stand beside it, so that they keep their size on a phone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "DayHistory.h"
#include "Doctor.h"
#include "ReportMarks.h"
#include "ReportParts.h"

namespace agent {

struct ReportFacts {
    std::string host;
    std::string directory;  ///< of the agent
    std::string version;
    int64_t now = 0;
    int64_t since = 0;
    DayHistory day;
    std::vector<Mark> marks;  ///< in the order of time
    std::vector<DoctorFinding> findings;
};

/// What the page takes at most, whatever stands in the history and in the events: what there is no room for is counted
/// on the page.
constexpr size_t kMostPageBytes = 2U << 20;

/// Pure but for the time zone.
std::string MakeReportPage(const ReportFacts& facts);

}  // namespace agent
