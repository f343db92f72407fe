// Local date and time.
#pragma once

#include <ctime>

#include "platform/zel/Export.h"

namespace zel {

/// A moment, read as local date and time.
class ZEL_API CDataTime {
public:
    explicit CDataTime(time_t seconds) : m_seconds(seconds) {}

    /// Returns: seconds since the epoch.
    time_t ToTime_t() const;

    /// Returns: day of the month in local time, 1..31.
    int GetDayOfMonth() const;

private:
    time_t m_seconds;
};

/// Thread-safety: any thread.
class ZEL_API CTimeUtil {
public:
    /// Returns: now. The wall clock, so it moves when the clock is set.
    static CDataTime GetCurrentDataTime();
};

}  // namespace zel
