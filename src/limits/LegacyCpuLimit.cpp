// The legacy CPU limit: one group for the whole agent.
#include "MonitorPri.h"

bool CMonitorPri::CpuResourceLimit(int, long) { return true; }
