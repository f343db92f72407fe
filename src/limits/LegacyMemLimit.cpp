// The legacy memory limit: one group for the whole agent.
#include "MonitorPri.h"

bool CMonitorPri::MemResourceLimit(int, int, int, bool) { return true; }
