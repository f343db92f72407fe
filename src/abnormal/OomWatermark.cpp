// The last seen out-of-memory counters of the agent's groups, kept across restarts in one JSON file.
#include "MonitorPri.h"

void CMonitorPri::RefreshSelfCgroupOomWatermark() {}
