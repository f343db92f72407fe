// Local date and time.
#include "platform/zel/TimeUtil.h"

namespace zel {

time_t CDataTime::ToTime_t() const {
    return m_seconds;
}

int CDataTime::GetDayOfMonth() const {
    std::tm local{};
    // Only a year beyond the range of int has no calendar date; 0 equals no day that anybody stored.
    return localtime_r(&m_seconds, &local) == nullptr ? 0 : local.tm_mday;
}

CDataTime CTimeUtil::GetCurrentDataTime() {
    return CDataTime(::time(nullptr));
}

}  // namespace zel
