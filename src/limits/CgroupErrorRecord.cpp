// The record of a failed memory limit, which holds further attempts back for 12 hours.
#include "MonitorPri.h"

bool CMonitorPri::WriteCgroupError(int) { return false; }
bool CMonitorPri::CheckCgroupError() { return false; }
