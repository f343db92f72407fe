// Doubles of the host's classes: sampling class, online configuration, statistics registry, delivery, HTTP.
#include <algorithm>
#include <cstddef>

#include "Platform.h"
#include "platform/host/Http.h"
#include "platform/host/MsgTransmit.h"

using doubles::Format;
using doubles::P;

template class CSingleton<COnlineClientConf>;

struct COnlineClientConf::Impl {};
COnlineClientConf::COnlineClientConf() = default;
COnlineClientConf::~COnlineClientConf() = default;
void COnlineClientConf::AddNotify(IOnlineClientConfNotify* notify) {
    P().Record("COnlineClientConf::AddNotify()");
    P().notifies.push_back(notify);
}
void COnlineClientConf::RemoveNotify(IOnlineClientConfNotify* notify) {
    P().Record("COnlineClientConf::RemoveNotify()");
    auto& all = P().notifies;
    all.erase(std::remove(all.begin(), all.end(), notify), all.end());
}

namespace {
const char* NameOf(const CAtomicInt64<long>* value) {
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    if (conf == nullptr) return "?";
    const std::pair<const CAtomicInt64<long>*, const char*> names[] = {
        {&conf->maxCpu, "maxCpu"},
        {&conf->maxWriteIo, "maxWriteIo"},
        {&conf->maxReadIo, "maxReadIo"},
        {&conf->cpuAll, "cpuAll"},
        {&conf->maxFdCount, "maxFdCount"},
        {&conf->maxPidCheck, "maxPidCheck"},
        {&conf->hashMode, "hashMode"},
        {&conf->maxMemory, "maxMemory"},
        {&conf->cpuLimitEnabled, "cpuLimitEnabled"},
        {&conf->resourceLimitMode, "resourceLimitMode"},
        {&conf->groupMaxCpu, "groupMaxCpu"},
        {&conf->groupMaxMemory, "groupMaxMemory"},
        {&conf->availableMemThreshold, "availableMemThreshold"},
        {&conf->osAbnormalReportInterval, "osAbnormalReportInterval"},
        {&conf->osAbnormalSwitch, "osAbnormalSwitch"},
    };
    for (const auto& entry : names) {
        if (entry.first == value) return entry.second;
    }
    return "?";
}
}  // namespace

template <class T>
void CAtomicInt64<T>::Set(T value) {
    P().Record(Format("COnlineClientConf::%s.Set(%ld)", NameOf(this), value));
    m_value.store(value, std::memory_order_relaxed);
}
template class CAtomicInt64<long>;

void CMtIntf::RegMtInfoCallback(IMtInfo* info) {
    P().Record("CMtIntf::RegMtInfoCallback()");
    P().registered.push_back(info);
}
void CMtIntf::UnRegMtInfoCallback(IMtInfo* info) {
    P().Record("CMtIntf::UnRegMtInfoCallback()");
    auto& all = P().registered;
    all.erase(std::remove(all.begin(), all.end(), info), all.end());
}

struct CResourceMonitor::Impl {};
CResourceMonitor::CResourceMonitor() = default;
CResourceMonitor::~CResourceMonitor() = default;
void CResourceMonitor::run() {}
void CResourceMonitor::MonitorOther(unsigned long) {}
bool CResourceMonitor::StartMonitor(IResourceMonitorEvent* event) {
    P().Record("CResourceMonitor::StartMonitor()");
    P().base.lastEvent = event;
    return P().base.start.Next();
}
bool CResourceMonitor::StopMonitor() {
    P().Record("CResourceMonitor::StopMonitor()");
    return P().base.stop.Next();
}
void CResourceMonitor::SetMaxResourceConfig(const ResourceConfig& c) {
    P().Record(Format(
        "CResourceMonitor::SetMaxResourceConfig(cpu=%d mem=%d fd=%d a=%d b=%d rio=%d wio=%d pid=%d all=%d)", c.maxCpu,
        c.maxMemory, c.maxFd, c.auxValueA, c.auxValueB, c.maxReadIo, c.maxWriteIo, c.maxPidCheck, c.cpuAll));
    P().base.lastConfig = c;
    if (P().base.onSetMaxResourceConfig != nullptr) P().base.onSetMaxResourceConfig();
}
void CResourceMonitor::SetThreadHeartbeat(unsigned int tid, const std::string& name, int timeout) {
    P().Record(Format("CResourceMonitor::SetThreadHeartbeat(%u,%s,%d)", tid, name.c_str(), timeout));
}
void CResourceMonitor::RemoveThreadHeartbeat(unsigned int tid) {
    P().Record(Format("CResourceMonitor::RemoveThreadHeartbeat(%u)", tid));
}
void CResourceMonitor::SetMonitorIOEnable(bool enable) {
    P().Record(Format("CResourceMonitor::SetMonitorIOEnable(%d)", enable));
}
void CResourceMonitor::SetWatcherProcess(std::map<unsigned int, std::string> processes) {
    std::string text = "CResourceMonitor::SetWatcherProcess(";
    for (const auto& entry : processes) text += Format("%u=%s ", entry.first, entry.second.c_str());
    P().Record(text + ")");
}
void CResourceMonitor::SetCpuSolarisMode(bool on) {
    P().Record(Format("CResourceMonitor::SetCpuSolarisMode(%d)", on));
    P().base.solaris = on;
}
bool CResourceMonitor::IsCpuSolarisMode() {
    P().Record("CResourceMonitor::IsCpuSolarisMode()");
    return P().base.solaris;
}
void CResourceMonitor::SetMaxCpu(int percent) {
    P().Record(Format("CResourceMonitor::SetMaxCpu(%d)", percent));
}
void CResourceMonitor::SetMaxMem(int mb) {
    P().Record(Format("CResourceMonitor::SetMaxMem(%d)", mb));
}
void CResourceMonitor::SetMaxIO(int readLimit, int writeLimit) {
    P().Record(Format("CResourceMonitor::SetMaxIO(%d,%d)", readLimit, writeLimit));
}
void CResourceMonitor::SetMaxPidCheck(int count) {
    P().Record(Format("CResourceMonitor::SetMaxPidCheck(%d)", count));
}
void CResourceMonitor::SetMaxFdCount(int count) {
    P().Record(Format("CResourceMonitor::SetMaxFdCount(%d)", count));
}
int CResourceMonitor::GetMaxCpu() {
    P().Record("CResourceMonitor::GetMaxCpu()");
    return P().base.maxCpu;
}
int CResourceMonitor::GetMaxMem() {
    P().Record("CResourceMonitor::GetMaxMem()");
    return P().base.maxMem;
}
// Nothing is ever judged here, so that each query comes to the journal.
int CResourceMonitor::CpuLevelUnjudged() {
    P().Record("CResourceMonitor::GetCpuUsageLevel()");
    return P().base.cpuLevel;
}
int CResourceMonitor::MemLevelUnjudged() {
    P().Record("CResourceMonitor::GetMemUsageLevel()");
    return P().base.memLevel;
}
bool CResourceMonitor::GetCpuHighAllRound() {
    P().Record("CResourceMonitor::GetCpuHighAllRound()");
    return P().base.cpuHighAllRound;
}
bool CResourceMonitor::GetCpuBusyLastHour() {
    P().Record("CResourceMonitor::GetCpuBusyLastHour()");
    return P().base.cpuBusyLastHour;
}
bool CResourceMonitor::GetAvgCpuMinuteBusy() {
    P().Record("CResourceMonitor::GetAvgCpuMinuteBusy()");
    return P().base.avgCpuMinuteBusy;
}
bool CResourceMonitor::GetAvgCpuWindowBusy() {
    P().Record("CResourceMonitor::GetAvgCpuWindowBusy()");
    return P().base.avgCpuWindowBusy;
}
bool CResourceMonitor::FetchResourceMonitorInfo(ResourceMonitorInfo& info) {
    P().Record("CResourceMonitor::FetchResourceMonitorInfo()");
    if (!P().base.fetchOk) return false;
    info = P().base.info;
    return true;
}

namespace {
class TransmitDouble final : public IMsgTransmit {
public:
    bool SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                 int arg2) override {
        P().Record(Format("IMsgTransmit::SendMsg(%s,body,\"%s\",%d,%d)", type.c_str(), extra.c_str(), arg1, arg2));
        P().sent.push_back({type, body, extra, arg1, arg2});
        return P().sendMsg.Next();
    }
};
class HttpDouble final : public IHttp {
public:
    unsigned int GetFailCount() override {
        P().Record("IHttp::GetFailCount()");
        return P().httpFailCount;
    }
};
}  // namespace

IMsgTransmit* GetMsgTransmitInstance() {
    static TransmitDouble transmit;
    return P().transmitPresent ? &transmit : nullptr;
}
IHttp* GetHttpInstance() {
    static HttpDouble http;
    return P().httpPresent ? &http : nullptr;
}
