// The thread that watches the host for memory pressure, swapping and a full disk.
#include "OsAbnormalMonitor.h"

#include <json/json.h>

COsAbnormalMonitor::COsAbnormalMonitor()
    : m_initialised(false), m_memRising(false), m_lastMemUsage(0), m_lastReportTick(0), m_lastSwapTime(0) {}
COsAbnormalMonitor::~COsAbnormalMonitor() {}
void COsAbnormalMonitor::run() {}
bool COsAbnormalMonitor::Start() { return true; }
bool COsAbnormalMonitor::Uninit() { return false; }
bool COsAbnormalMonitor::Init() { return true; }
bool COsAbnormalMonitor::IsDiskFull() { return m_diskFull; }
void COsAbnormalMonitor::CheckOsAbnormal(unsigned long) {}
bool COsAbnormalMonitor::IsMemoryAbnormal(Json::Value&, int&, bool&) { return false; }
bool COsAbnormalMonitor::IsCheckMemory(int, unsigned long) { return false; }
bool COsAbnormalMonitor::IsDiskAbnormal(Json::Value&, int&) { return false; }
void COsAbnormalMonitor::ReadSwapIndexForSwap(std::map<std::string, unsigned long>&) {}
bool COsAbnormalMonitor::FetchSwapIndexIncrement(Json::Value&) { return false; }
bool IsMoniitorOsAbnormal() { return false; }
bool IsHighMem() { return false; }
