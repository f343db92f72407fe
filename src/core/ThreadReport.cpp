// The per-thread CPU report of the facade: a table of the host's thread figures, the busiest thread's kernel stack
// and the messages of the monitor points. Reads /proc/PID/task/TID/stack through the platform's file reader.
// Entered by host threads; they never hold both of the facade's mutexes, nor either of them while the report is logged.
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "Monitor.h"
#include "MonitorCommon.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/ThreadUtil.h"

namespace {

constexpr size_t kLineBytes = 1024;  // one formatted line; what is longer is cut
constexpr unsigned long kStackReadLimit = 104857600;

__attribute__((format(printf, 2, 3))) void AppendFormatted(std::string& text, const char* format, ...) {
    char line[kLineBytes];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (length > 0) text += line;
}

}  // namespace

void CMonitor::GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) {
    {
        zel::CMutexLockUtil guard(m_sysIntfLock);
        if (m_sysIntf != nullptr) m_sysIntf->GetThreadsCpuUsage(list);
    }
    for (CSysThreadsCpuUsage& thread : list) thread.name = zel::CThreadUtil::GetThreadName(thread.tid);
}

void CMonitor::GetHighCpuUsageThreadName(std::string& name, long& tid, unsigned int& usage) {
    tid = 0;
    usage = 0;
    zel::CMutexLockUtil guard(m_sysIntfLock);
    if (m_sysIntf != nullptr) m_sysIntf->GetHighCpuUsageThread(tid, usage);
    name = zel::CThreadUtil::GetThreadName(tid);
}

void CMonitor::GetThreadsInfo(std::string& report, unsigned int* highTid) {
    if (highTid != nullptr) *highTid = 0;
    unsigned int busiestTid = 0;
    uint32_t largestLoad = 0;

    std::list<CSysThreadsCpuUsage> threads;
    GetThreadsCpuUsage(threads);

    AppendFormatted(report, "\n%-20s%-10s%-12s%-12s%-12s%-12s\n", "Name", "Pid", "StatCnt", "SysLoad", "AvgLoad",
                    "Hit");
    for (const CSysThreadsCpuUsage& thread : threads) {
        const unsigned int tid = static_cast<unsigned int>(thread.tid);
        AppendFormatted(report, "%-20s%-10u%-12u%-12u%-12u%-12u\n", thread.name.c_str(), tid, thread.statCnt,
                        thread.sysLoad, thread.avgLoad, thread.hit);
        if (thread.avgLoad > largestLoad) {
            busiestTid = tid;
            largestLoad = thread.avgLoad;
        }
    }

    if (largestLoad > 0 && highTid != nullptr) {
        SAY_FORMATTED_AS(monitor::kFacadeLogSource, zel::kLogInfo, "cpu high thread id:%u", busiestTid);
        *highTid = busiestTid;
        char path[64];
        snprintf(path, sizeof path, "/proc/%u/task/%u/stack", static_cast<unsigned int>(getpid()), busiestTid);
        std::list<std::string> lines;
        if (zel::CFileUtil::ReadFileLineToList(path, lines, kStackReadLimit)) {
            for (const std::string& line : lines) report += line + "\n";
        }
    }

    // The label says pid; the value is the host's id of this thread.
    AppendFormatted(report, "curr pid %u\n",
                    static_cast<unsigned int>(CSingleton<CMonitor>::GetInstance()->GetCurrThreadId()));
    monitor::Say(zel::kLogInfo, report);

    // The messages are logged one by one and so are not in the block that was just logged.
    zel::CMutexLockUtil guard(m_monitorPointLock);
    for (IMonitorInfo* point : m_monitorPoints) {
        if (point == nullptr) continue;
        const std::string message = point->GetMonitorMessage();
        if (message.empty()) continue;
        SAY_FORMATTED_AS(monitor::kFacadeLogSource, zel::kLogInfo, "Msg:%s", message.c_str());
        report += message + "\n";
    }
}
