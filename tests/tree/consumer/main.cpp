// The least an agent does: make the monitor, ask it something, and see that nothing was started.
#include <cstdio>

#include "Monitor.h"
#include "platform/host/OnlineClientConf.h"

int main() {
    if (CSingleton<CMonitor>::GetInstance() != nullptr) return 1;
    COnlineClientConf conf;
    CMonitor monitor;
    if (CSingleton<CMonitor>::GetInstance() != &monitor) return 2;
    if (CSingleton<COnlineClientConf>::GetInstance() != &conf) return 3;
    conf.cpuLimitEnabled.Set(1);
    if (monitor.IsCpuNeedLimit(1)) return 4;
    printf("the installed package works\n");
    return 0;
}
