// A status in words and columns: the one wording for `status`, for `top` on a terminal and for plain lines.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Cooperation.h"
#include "StatusReport.h"

namespace agent {

/// What a line is, for whoever can show it.
enum class LineKind {
    kPlain,
    kTitle,
    kTableHead,
    kNotice,  ///< worth a look: held back at its limit
    kAlarm    ///< something is not as it should be
};

struct TextLine {
    std::string text;  ///< without a line end
    LineKind kind = LineKind::kPlain;
    bool isRow = false;  ///< of columns: cut where there is no room, since folded they are none
};

/// By what the components of one group are ordered.
enum class SortOrder { kTree, kCpu, kMemory, kThrottling };
const char* NameOf(SortOrder order);
SortOrder NextOrder(SortOrder order);

/// CPU use of each group since the last picture in hundredths of a percent of one CPU, by the path of the group.
using CpuShares = std::map<std::string, int64_t>;

struct PictureOptions {
    SortOrder order = SortOrder::kTree;
    bool wide = true;            ///< columns for 112 characters, otherwise for 80
    bool allComponents = false;  ///< those without trouble too
    /// For a picture that is drawn again and again; null: not known.
    const CpuShares* throttled = nullptr;      ///< share of the periods since the last one, as TopHistory has it
    const Cooperation* cooperation = nullptr;  ///< who holds back
};

/// Use against limits, who is told to hold back, the tree, what went wrong, the last events. Pure.
std::vector<TextLine> MakePicture(const StatusReport& report, const CpuShares& shares, const PictureOptions& options);

/// What came of the time since the process started, for its end. Pure.
std::vector<TextLine> MakeSummary(const StatusReport& report);

/// Lines that are longer than `columns` go on below, at a blank where there is one; rows of a table are cut. Pure.
std::vector<TextLine> FoldLines(const std::vector<TextLine>& lines, size_t columns);

/// The lines one below the other. Pure.
std::string JoinLines(const std::vector<TextLine>& lines);

}  // namespace agent
