// The resource configuration file: reading, publishing, first application; and the limit conversions.
#include "MonitorPri.h"
#include "LimitConversion.h"

void RelaxMultiCgroupLimits(long&, int&, bool) {}
int MbToKb(int) { return 0; }
int MbToKbWithHeadroom(int) { return 0; }
bool CMonitorPri::ParseMonitorConfig(const std::string&, ResourceConfig&) { return false; }
