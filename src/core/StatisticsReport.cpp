// The statistics map for the host's registry.
#include "MonitorPri.h"

bool CMonitorPri::GetExceptionInfo(std::map<std::string, std::string>&) { return true; }
