// Lifecycle of the private object: construction, start, stop, the one-minute heartbeat timer, the schedule of
// periodic work and the re-application of every limit after an online update.
// Threads: the host's (construction, start, stop), the timer's (timeEvent), the sampling thread (MonitorOther), the
// online configuration's notify thread (OnUpdate).
#include "MonitorPri.h"

#include <ctime>

#include "LimitConversion.h"
#include "MonitorCommon.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/OSInfo.h"
#include "platform/zel/ThreadUtil.h"
#include "platform/zel/ToolUtil.h"

using monitor::Say;

namespace {

constexpr const char* kHeartbeatTimerName = "main_heartbeat";
constexpr unsigned long kHeartbeatPeriodMs = 60000;
constexpr const char* kHeartbeatThreadName = "main";  // a thread's, not the group's
constexpr int kHeartbeatTimeout = 1800;

constexpr int kStartAuxValueB = 1000;  // the sampling class's own meaning

// In sampling rounds.
constexpr unsigned long kMemInfoRounds = 60;
constexpr unsigned long kOomCheckRounds = 15;

constexpr int64_t kMemInfoForcedSeconds = 3600;
constexpr int kMemInfoHighPercent = 80;

}  // namespace

CMonitorPri::CMonitorPri() {
    CMtIntf::RegMtInfoCallback(this);
    m_configPath = zel::CToolUtil::GetApplicationDirPath() + zel::kResourceConfigFileName;
}

CMonitorPri::~CMonitorPri() {
    CMtIntf::UnRegMtInfoCallback(this);
    zel::CCgroupManager* manager = m_cgroupManager;
    if (manager != nullptr) {
        delete manager;
        m_cgroupManager = nullptr;
    }
}

bool CMonitorPri::StartMonitor(IResourceMonitorEvent* event, const std::string& appName) {
    m_appName = appName;
    if (appName == zel::kMainProcessName) {
        m_isMainAgent = true;
        // Not fatal: the agent keeps its own budget without watching the host.
        if (!m_osAbnormalMonitor.Start()) Say(zel::kLogWarning, "start os os abnormal monitor fail");
    }

    ResourceConfig config;
    if (!ParseMonitorConfig(m_configPath, config)) {
        Say(zel::kLogError, "ParseMonitorConfig Fail");
        return false;
    }
    config.auxValueB = kStartAuxValueB;
    SetMaxResourceConfig(config);

    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    if (conf == nullptr) {
        Say(zel::kLogError, "get COnlineClientConf instance fail");
        return false;
    }
    conf->AddNotify(this);

    m_heartbeatTimerId = startTimer(kHeartbeatPeriodMs, StringToMagicNum(kHeartbeatTimerName));
    if (m_heartbeatTimerId == 0) {
        // The subscription stays: the owner's StopMonitor takes it back.
        Say(zel::kLogWarning, "start timer fail for monitor timer");
        return false;
    }
    return CResourceMonitor::StartMonitor(event);
}

bool CMonitorPri::StopMonitor() {
    if (m_heartbeatTimerId != 0) {
        killTimer(m_heartbeatTimerId);
        m_heartbeatTimerId = 0;
    }
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    if (conf != nullptr) conf->RemoveNotify(this);
    m_osAbnormalMonitor.Uninit();
    return CResourceMonitor::StopMonitor();
}

void CMonitorPri::SetConfigPath(const std::string& path) {
    if (!path.empty()) m_configPath = path;
}

void CMonitorPri::timeEvent(unsigned long timerId) {
    if (timerId == m_heartbeatTimerId) {
        SetThreadHeartbeat(zel::CThreadUtil::GetCurrentThreadId(), kHeartbeatThreadName, kHeartbeatTimeout);
    }
}

void CMonitorPri::MonitorOther(unsigned long tick) {
    if (tick % kMemInfoRounds == 0) LogMemInfo();
    if (tick % kOomCheckRounds == 0) CheckMultiCgroupOom();
}

void CMonitorPri::OnUpdate() {
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    if (conf == nullptr) return;
    const int mode = static_cast<int>(conf->resourceLimitMode.Get());
    const long maxCpu = conf->maxCpu.Get();
    const int maxMem = static_cast<int>(conf->maxMemory.Get());
    long groupCpu = conf->groupMaxCpu.Get();
    int groupMem = static_cast<int>(conf->groupMaxMemory.Get());
    const bool solaris = conf->cpuAll.Get() != 0;

    SetCpuSolarisMode(solaris);
    RelaxMultiCgroupLimits(groupCpu, groupMem, solaris);
    if (!m_isMainAgent && m_cgroupClient != nullptr) {
        // The main process's broadcast may have been missed, so follow its file on every update.
        Say(zel::kLogInfo, "MonitorPri: compensation reload cgroup config after online config update");
        m_cgroupClient->ReloadConfig();
    }
    UpdateMultiCgroup(mode, groupCpu, groupMem);
    CheckMultiCgroupOom();
    CpuResourceLimit(mode, maxCpu);

    const bool unified = (mode & MULTI_CGROUP_MODE_UNIFIED) != 0;
    const long effectiveCpu = unified ? groupCpu : maxCpu;
    const int effectiveMem = unified ? groupMem : maxMem;
    m_effectiveMaxCpu = effectiveCpu;
    m_effectiveMaxMem = effectiveMem;
    int selfKillCpu = 0;
    int selfKillMem = 0;
    ResolveSelfKillLimits(effectiveCpu, effectiveMem, selfKillCpu, selfKillMem);
    SetMaxCpu(selfKillCpu);
    // Deliberately the plain maximum in unified mode too.
    MemResourceLimit(mode, MbToKbWithHeadroom(maxMem), MbToKb(maxMem), false);
    SetMaxMem(selfKillMem);

    SetMaxIO(static_cast<int>(conf->maxReadIo.Get()), static_cast<int>(conf->maxWriteIo.Get()));
    SetMaxPidCheck(static_cast<int>(conf->maxPidCheck.Get()));
    SetMaxFdCount(static_cast<int>(conf->maxFdCount.Get()));
    const int hashMode = static_cast<int>(conf->hashMode.Get());
    zel::CAlgorithmUtil::SetHashMode(hashMode);
    SAY_FORMATTED(zel::kLogInfo, "set hash mode %u", static_cast<unsigned int>(hashMode));
}

void LogMemInfo() {
    // Seconds since the epoch, shared by every caller of the process. A lost update between two threads only moves
    // the next hourly line.
    static RelaxedValue<int64_t> lastForced{0};
    const int64_t now = time(nullptr);
    bool forced = false;
    if (now > lastForced + kMemInfoForcedSeconds) {
        lastForced = now;
        forced = true;
    }
    const int usagePercent = zel::COSInfo::GetMemoryUsage(nullptr);
    if (forced || usagePercent >= kMemInfoHighPercent) {
        SAY_FORMATTED(zel::kLogInfo, "system memory usage is %d", usagePercent);
    }
}
