// What the pages of the console are put together from: their frame and style, escaped text, an axis of time, tiles and
// findings. Pure but for the time zone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Doctor.h"

namespace agent {

/// Text from outside as text of a page: no character of it is part of the page's own language. Bytes that are no UTF-8
/// and control characters become '?'. At most `most` bytes of it are taken.
std::string EscapeHtml(const std::string& text, size_t most = 400);

/// From a moment to a place between 0 and 1.
struct ReportAxis {
    int64_t from = 0;
    int64_t to = 1;
    double At(int64_t time) const;
};

/// Local time in a format of strftime.
std::string ReportClock(int64_t seconds, const char* format);

/// Up to the place where a page says something. title: already escaped; moreStyle: a page's own.
std::string BeginPage(const std::string& title, const char* moreStyle = "");
std::string EndPage();

/// The hours below something that is drawn over the axis.
std::string DrawTimes(const ReportAxis& axis);
/// figure, what: already escaped.
std::string DrawTile(const std::string& figure, const std::string& what);
/// Those that are not well, the worst first, each with what to do; of very many the first ones.
std::string DrawFindingList(const std::vector<DoctorFinding>& findings);

}  // namespace agent
