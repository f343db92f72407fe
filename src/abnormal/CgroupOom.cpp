// Out-of-memory kills inside the agent's groups: after a restart and at run time.
#include "MonitorPri.h"

#include <json/json.h>

bool CMonitorPri::ReportCgroupOomEvent(const std::string&, const Json::Value&) { return false; }
void CMonitorPri::CheckSelfCgroupOomAfterRestart() {}
void CMonitorPri::CheckMultiCgroupOom() {}
