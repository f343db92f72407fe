// The record of a failed memory limit as text and as a decision. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MonitorCommon.h"
#include "platform/zel/StringUtil.h"

/// The name alone is 14 characters: a path this short means an application directory that is empty or bogus.
constexpr size_t kCgroupErrorLongestBogusPath = 24;

/// Most lines that are read; one is ever written.
constexpr unsigned long kCgroupErrorMaxLines = 128;

/// How long a failure holds further attempts back: 12 hours.
constexpr int64_t kCgroupErrorHoldSeconds = 43200;

/// Returns: whether a failure with this code is worth holding back for: the ones that trying again at once cannot mend.
constexpr bool IsRecordedCgroupError(int code) {
    return code == 13 || code == 105 || code == 119;
}

/// Units: seconds since the epoch. A record from the future (a clock that was set back) counts as recent.
constexpr bool IsRecentCgroupError(int64_t now, int64_t when) {
    return now - when < kCgroupErrorHoldSeconds;
}

constexpr bool IsUsableCgroupErrorPath(size_t pathLength) {
    return pathLength > kCgroupErrorLongestBogusPath;
}

/// One line "CODE-TIME", without a line end.
inline std::string FormatCgroupError(int code, int64_t when) {
    return zel::CStringUtil::strprintf("%d-%lld", code, static_cast<long long>(when));
}

/// Reads one line. Numbers that are none read as 0. Returns: false, outputs untouched, for any other shape.
inline bool ParseCgroupError(const std::string& line, int& code, int64_t& when) {
    const std::vector<std::string> pieces = zel::CStringUtil::stringSplit(line, "-");
    if (pieces.size() != 2) return false;
    code = zel::CStringUtil::StringToInt(pieces[0], nullptr, monitor::kDecimal);
    when = zel::CStringUtil::StringToInt(pieces[1], nullptr, monitor::kDecimal);
    return true;
}
