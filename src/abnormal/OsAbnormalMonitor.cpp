// The thread that watches the host for memory pressure, swapping and a full disk. Reads /proc/vmstat and getrusage(2).
// All checks run on the monitor's own thread, a tick every two seconds.
#include "OsAbnormalMonitor.h"

#include <json/json.h>
#include <sys/resource.h>

#include <ctime>
#include <vector>

#include "MonitorCommon.h"
#include "abnormal/OsAbnormalDecisions.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/OSInfo.h"
#include "platform/zel/ProcessUtil.h"
#include "platform/zel/StringUtil.h"
#include "platform/zel/ToolUtil.h"

using monitor::Say;

namespace {

/// A swap alarm was reported and holds. Module-wide: it outlives an instance, so that a new one does not report the
/// same alarm again. Touched by the monitor's thread only.
bool g_swapAlarmActive = false;

constexpr unsigned int kStartDelaySeconds = 10;
constexpr unsigned int kTickSeconds = 2;

constexpr const char* kMajorFaults = "maj_flt";  // of this process; all other indices are the kernel's
constexpr const char* kVmstatPath = "/proc/vmstat";
constexpr unsigned long kVmstatMaxLines = 10240;

constexpr int kHighMemTries = 3;
constexpr unsigned long kHighMemKb = 153600;

}  // namespace

SwapRates ComputeSwapRates(const SwapIndexMap& previous, const SwapIndexMap& current, uint64_t elapsedSeconds,
                           const SwapIndexMap& thresholds) {
    SwapRates result;
    for (const auto& index : current) {
        const auto before = previous.find(index.first);
        if (before == previous.end()) continue;
        const uint64_t rate = (index.second - before->second) / elapsedSeconds;
        result.rates[index.first] = rate;
        const auto threshold = thresholds.find(index.first);
        if (threshold != thresholds.end() && threshold->second <= rate) ++result.reached;
    }
    return result;
}

void ParseVmstat(const std::list<std::string>& lines, const SwapIndexMap& thresholds, SwapIndexMap& out) {
    const size_t wanted = thresholds.empty() ? 0 : thresholds.size() - 1;  // all but this process's own faults
    size_t found = 0;
    for (const std::string& line : lines) {
        const std::vector<std::string> fields = zel::CStringUtil::stringSplit(line, " ");
        if (fields.size() < 2 || thresholds.count(fields[0]) == 0) continue;
        bool ok = false;
        const unsigned long value = zel::CStringUtil::StringToUInt(fields[1], &ok, monitor::kDecimal);
        if (ok) out[fields[0]] = value;
        if (++found >= wanted) return;
    }
}

COsAbnormalMonitor::COsAbnormalMonitor()
    : m_initialised(false),
      m_diskFull(false),
      m_stopRequested(false),
      m_memRising(false),
      m_lastMemUsage(0),
      m_lastReportTick(0),
      m_lastSwapTime(0),
      m_swapThresholds{
          {"pgmajfault", 50},
          {"pgsteal_kswapd_dma", 20},
          {"pgsteal_kswapd_dma32", 1000},
          {"pgscan_kswapd_dma", 20},
          {"pgscan_kswapd_dma32", 1000},
          {"pageoutrun", 10},
          {"pgrotated", 2},
          {"nr_vmscan_write", 10},
          {"nr_vmscan_immediate_reclaim", 10},
          {"workingset_refault", 1000},
          {kMajorFaults, 5},
      } {}

COsAbnormalMonitor::~COsAbnormalMonitor() = default;

void COsAbnormalMonitor::run() {
    Say(zel::kLogInfo, "COsAbnormalMonitor::run Enter");
    SetThreadName("OsAbnormalMonitor");
    zel::CToolUtil::sleep(kStartDelaySeconds);
    for (unsigned long tick = 0; !m_stopRequested; ++tick) {
        zel::CToolUtil::sleep(kTickSeconds);
        CheckOsAbnormal(tick);
    }
}

bool COsAbnormalMonitor::Start() {
    m_stopRequested = false;
    return IsThreadRunning() || startThread();
}

bool COsAbnormalMonitor::Uninit() {
    m_stopRequested = true;
    return IsThreadRunning() && stopThread();
}

bool COsAbnormalMonitor::Init() {
    return true;
}

bool COsAbnormalMonitor::IsDiskFull() {
    return m_diskFull;
}

void COsAbnormalMonitor::CheckOsAbnormal(unsigned long tick) {
    if (!IsMoniitorOsAbnormal()) return;

    Json::Value measurement(Json::objectValue);
    OsAbnormalEventType type = OS_ABNORMAL_NONE;
    int eventTime = 0;
    bool swapAlarm = false;

    if (!m_initialised && tick % kInitTicks == 0) m_initialised = Init();
    if (!m_memRising && tick % kMemoryCheckTicks != 0) return;

    if (IsMemoryAbnormal(measurement, eventTime, swapAlarm)) type = OS_ABNORMAL_MEMORY;
    if (tick % kDiskCheckTicks == 0) {
        m_diskFull = IsDiskAbnormal(measurement, eventTime);
        if (m_diskFull) type = OS_ABNORMAL_DISK;
    }
    if (type == OS_ABNORMAL_NONE) return;

    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    const uint64_t interval = EffectiveReportIntervalTicks(conf != nullptr ? conf->osAbnormalReportInterval.Get() : 0);
    const SendDecision decision =
        DecideSend(tick, m_lastReportTick, interval, swapAlarm, g_swapAlarmActive, m_memRising);
    g_swapAlarmActive = decision.swapAlarmActive;

    const std::string body = measurement.toStyledString();
    if (decision.send) {
        m_lastReportTick = tick;
        IMsgTransmit* transmit = GetMsgTransmitInstance();
        if (transmit != nullptr) monitor::SendOsAbnormal(*transmit, body);
    }
    // Nothing is written to a disk that is judged full, also hours after that judgement.
    if (!m_diskFull) m_eventStore.InsertData(type, eventTime, "", body);
}

bool COsAbnormalMonitor::IsMemoryAbnormal(Json::Value& out, int& eventTime, bool& swapAlarm) {
    swapAlarm = false;
    unsigned long available = 0;
    const int usage = zel::COSInfo::GetMemoryUsage(&available);
    m_memRising = false;
    if (!IsCheckMemory(usage, available)) return false;

    if (usage - m_lastMemUsage > 1) m_memRising = true;
    m_lastMemUsage = usage;
    out[monitor::kMemUsageMember] = usage;
    out[monitor::kAvailableMemMember] = Json::UInt64(available);
    eventTime = static_cast<int>(time(nullptr));  // before the swap sample, which may take a second
    swapAlarm = FetchSwapIndexIncrement(out);
    return true;
}

bool COsAbnormalMonitor::IsCheckMemory(int usagePercent, unsigned long availableMem) {
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    const long online = conf != nullptr ? conf->availableMemThreshold.Get() : 0;
    return IsMemoryShort(usagePercent, availableMem, EffectiveAvailableMemThreshold(online));
}

bool COsAbnormalMonitor::IsDiskAbnormal(Json::Value& out, int& eventTime) {
    unsigned long freeSpace = 0;
    unsigned long freeInodes = 0;
    if (!zel::CToolUtil::GetSelfDiskFreeSpace(freeSpace, &freeInodes, "")) {
        Say(zel::kLogWarning, "get disk free space fail");
        return false;
    }
    if (!IsDiskShort(freeSpace, freeInodes)) return false;
    eventTime = static_cast<int>(time(nullptr));
    out["free_space"] = Json::UInt64(freeSpace);
    out["free_inode"] = Json::UInt64(freeInodes);
    return true;
}

void COsAbnormalMonitor::ReadSwapIndexForSwap(std::map<std::string, unsigned long>& out) {
    struct rusage usage {};
    if (getrusage(RUSAGE_SELF, &usage) == 0) out[kMajorFaults] = static_cast<unsigned long>(usage.ru_majflt);
    std::list<std::string> lines;
    if (!zel::CFileUtil::ReadFileLineToList(kVmstatPath, lines, kVmstatMaxLines)) return;
    ParseVmstat(lines, m_swapThresholds, out);
}

bool COsAbnormalMonitor::FetchSwapIndexIncrement(Json::Value& out) {
    SwapIndexMap sample;
    ReadSwapIndexForSwap(sample);
    if (sample.empty()) return false;
    int64_t now = time(nullptr);
    if (m_lastSwapTime < 1) {
        // The first sample of a run: a second one right after it, so that an alarm need not wait for the next check.
        m_prevSwapIndex.swap(sample);
        m_lastSwapTime = now;
        zel::CToolUtil::sleep(1);
        sample.clear();
        ReadSwapIndexForSwap(sample);
        if (sample.empty()) return false;
        now = time(nullptr);
    }
    if (m_lastSwapTime < 1 || m_lastSwapTime >= now) {
        out["error"] = "fetch time error";
        return false;
    }

    const SwapRates increase =
        ComputeSwapRates(m_prevSwapIndex, sample, static_cast<uint64_t>(now - m_lastSwapTime), m_swapThresholds);
    for (const auto& rate : increase.rates) out[rate.first] = Json::UInt64(rate.second);
    const bool alarm = IsSwapAlarm(increase.reached, m_swapThresholds.size());
    if (alarm) out["swap"] = 1;
    m_prevSwapIndex.swap(sample);
    m_lastSwapTime = now;
    return alarm;
}

bool IsMoniitorOsAbnormal() {
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    return conf != nullptr && (conf->osAbnormalSwitch.Get() & 1) != 0;
}

bool IsHighMem() {
    for (int i = 0; i < kHighMemTries; ++i) {
        zel::IProcessUtil* process = zel::GetProcessUtil();
        if (process->GetProcessMemory(process->GetCurrentProcessId()) > kHighMemKb) return true;
        zel::CToolUtil::sleep(1);
    }
    return false;
}
