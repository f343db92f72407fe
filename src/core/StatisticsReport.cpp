// The statistics map for the host's registry, on the collector's thread. In the main process the same call samples
// the host's memory and reports a shortage at once. Takes no lock; an entry that the map already holds is kept.
#include <json/json.h>

#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "platform/host/Http.h"
#include "platform/zel/OSInfo.h"
#include "platform/zel/ResourceLimitUtil.h"
#include "platform/zel/StringUtil.h"
#include "platform/zel/TimeUtil.h"

namespace {

std::string Text(long value) {
    return zel::CStringUtil::IntToString(value, nullptr, monitor::kDecimal);
}
std::string Text(uint32_t value) {
    return zel::CStringUtil::UIntToString(value, nullptr, monitor::kDecimal);
}
std::string Text(bool value) {
    return value ? "1" : "0";
}
std::string Text(float value) {
    return zel::CStringUtil::strprintf("%.2f", static_cast<double>(value));
}

void SendMemoryShortage(int usagePercent, unsigned long available) {
    Json::Value body(Json::objectValue);
    body[monitor::kMemUsageMember] = usagePercent;
    body[monitor::kAvailableMemMember] = static_cast<Json::UInt64>(available);
    IMsgTransmit* transmit = GetMsgTransmitInstance();
    if (transmit != nullptr) monitor::SendOsAbnormal(*transmit, body.toStyledString());
}

}  // namespace

bool CMonitorPri::GetExceptionInfo(std::map<std::string, std::string>& info) {
    if (m_isMainAgent) {
        unsigned long available = 0;
        const int usagePercent = zel::COSInfo::GetMemoryUsage(&available);
        info.emplace(monitor::kMemUsageMember, Text(static_cast<long>(usagePercent)));
        if (m_osAbnormalMonitor.IsCheckMemory(usagePercent, available)) SendMemoryShortage(usagePercent, available);
    }

    ResourceMonitorInfo figures;
    if (!FetchResourceMonitorInfo(figures)) {
        monitor::Say(zel::kLogError, "FetchResourceMonitorInfo fail");
        return false;
    }
    // emplace: the first value of a key wins.
    const auto insert = [&info, this](const char* suffix, const std::string& value) {
        info.emplace(m_appName + suffix, value);
    };
    insert("_write_pid_times", Text(figures.writePidTimes));
    insert("_avg_cpu", Text(figures.avgCpu));
    insert("_max_cpu", Text(figures.maxCpu));
    insert("_avg_cpu_100times", Text(figures.avgCpu100Times));
    insert("_avg_mem", Text(figures.avgMem));
    insert("_max_mem", Text(figures.maxMem));
    insert("_cpu_warn_count", Text(figures.cpuWarnCount));
    insert("_cpu_minute_high_count", Text(figures.cpuMinuteHighCount));
    insert("_cpu_high_count", Text(figures.cpuHighCount));
    insert("_cpu_limit_enable", Text(static_cast<bool>(m_resourceLimited)));
    insert("_cpu_limit_error_code", Text(static_cast<long>(m_legacyCpuErrorCode)));
    insert("_avg_fd_count", Text(figures.avgFdCount));
    insert("_upload_time", Text(static_cast<long>(zel::CTimeUtil::GetCurrentDataTime().ToTime_t())));
    insert("_avg_rio", Text(figures.avgReadIo));
    insert("_avg_wio", Text(figures.avgWriteIo));
    insert("_rio_warn_count", Text(figures.readIoWarnCount));
    insert("_wio_warn_count", Text(figures.writeIoWarnCount));
    insert("_max_rio", Text(figures.maxReadIo));
    insert("_max_wio", Text(figures.maxWriteIo));
    insert("_load_avg", Text(figures.loadAvg));
    insert("_single_load_avg", Text(figures.singleLoadAvg));
    zel::IResourceLimitUtil* limitUtil = zel::GetResourceLimitUtil();
    insert("_cgroup_other_process_num", Text(static_cast<long>(limitUtil->GetCgroupOtherProcessNum())));
    insert("_self_has_been_removed", Text(limitUtil->IsSelfRemovedFromCgroup()));

    IHttp* http = GetHttpInstance();
    const unsigned int failCount = http != nullptr ? http->GetFailCount() : 0;
    if (failCount != 0) {
        SAY_FORMATTED(zel::kLogInfo, "http fail count is %u", failCount);
        insert("_http_fail_count", Text(failCount));
    }
    return true;
}
