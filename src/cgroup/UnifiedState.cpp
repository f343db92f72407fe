// The settings that the manager reconciled in full, as the next update compares with them and restores them. Below both
// the unified mode, which remembers them, and its exits, which forget them. Configuration and notify threads.
#include "MonitorPri.h"

void CMonitorPri::RememberUnified(int mode, long effectiveMaxCpu, int maxMem) {
    m_lastUnifiedMaxCpu = effectiveMaxCpu;
    m_lastUnifiedMaxMem = maxMem;
    m_lastUnifiedMode = mode;
}

void CMonitorPri::ForgetUnified() {
    m_lastUnifiedMode = 0;
    m_lastUnifiedMaxCpu = 0;
    m_lastUnifiedMaxMem = 0;
}
