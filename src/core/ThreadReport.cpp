// The per-thread CPU report of the facade: a table of the host's thread figures, the busiest thread's kernel stack
// and the messages of the monitor points. Reads /proc/PID/task/TID/stack through the platform's file reader.
// Entered by host threads; they never hold both of the facade's mutexes, nor either of them while the report is logged.
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

#include "Monitor.h"
#include "MonitorCommon.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/ThreadUtil.h"

namespace {

constexpr size_t kLineBytes = 1024;  // one formatted line; what is longer is cut
constexpr unsigned long kStackReadLimit = 104857600;

// One row of the table, what printf makes of "%-20s" and five times "%-12u" ("%-10u" the first): a report of ten
// thousand threads is ten thousand of them.
class Row {
public:
    Row& Column(const char* text, size_t length, size_t width) {
        Put(text, length);
        static constexpr char kBlanks[] = "                    ";
        static_assert(sizeof kBlanks > kNameWidth, "as wide as the widest column");
        if (length < width) Put(kBlanks, width - length);
        return *this;
    }
    Row& Column(uint32_t number, size_t width) {
        char digits[std::numeric_limits<uint32_t>::digits10 + 1];
        const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
        return Column(digits, static_cast<size_t>(end - digits), width);
    }
    void EndIn(std::string& report) {
        Put("\n", 1);
        report.append(m_line, m_length);
    }
    static constexpr size_t kNameWidth = 20;
    static constexpr size_t kIdWidth = 10;
    static constexpr size_t kFigureWidth = 12;

private:
    // What is beyond the line's bound is cut, its end included.
    void Put(const char* text, size_t length) {
        length = std::min(length, kLineBytes - 1 - m_length);
        memcpy(m_line + m_length, text, length);
        m_length += length;
    }

    char m_line[kLineBytes];
    size_t m_length = 0;
};

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
        Row row;
        row.Column(thread.name.c_str(), strlen(thread.name.c_str()), Row::kNameWidth).Column(tid, Row::kIdWidth);
        for (const uint32_t figure : {thread.statCnt, thread.sysLoad, thread.avgLoad, thread.hit}) {
            row.Column(figure, Row::kFigureWidth);
        }
        row.EndIn(report);
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
