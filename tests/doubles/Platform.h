// The scripted platform that unit tests link instead of the runtime: every operation of the seam is here, records
// itself in one journal in the order of the calls, and answers what the test scripted.
//
// A journal line of a platform call is "Class::Operation(arguments)". Log lines stand in the same journal:
//   W<level> <text>              a fixed text (WriteLogMessage)
//   F<level> [<source>] <text>   a formatted line (log)
// Pure operations (strings) are not journaled, the clock only on request.
#pragma once

#include <ctime>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/MtIntf.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/host/ResourceMonitor.h"
#include "platform/zel/CgroupRecords.h"

namespace doubles {

/// What a scripted operation answers: queued answers first, each once, then the standing one.
template <class T>
class Answers {
public:
    Answers() = default;
    explicit Answers(T standing) : m_standing(std::move(standing)) {}
    Answers& Always(T value) {
        m_queue.clear();
        m_standing = std::move(value);
        return *this;
    }
    Answers& Then(T value) {
        m_queue.push_back(std::move(value));
        return *this;
    }
    T Next() {
        if (m_queue.empty()) return m_standing;
        T value = m_queue.front();
        m_queue.pop_front();
        return value;
    }

private:
    T m_standing{};
    std::deque<T> m_queue;
};

/// Result of an operation with an error output.
struct LimitAnswer {
    int result = 0;
    int error = 0;
};

struct LogLine {
    char kind = 'W';  ///< 'W' fixed, 'F' formatted
    int level = 0;
    std::string source;  ///< empty for fixed texts
    std::string text;
};

struct SentMessage {
    std::string type, body, extra;
    int arg1 = 0, arg2 = 0;
};

/// Files of the platform's file operations, in memory. A path named in a fail set fails that operation.
struct FakeFiles {
    std::map<std::string, std::string> content;
    std::set<std::string> alsoFiles;  ///< IsFile answers true although nothing is there
    std::set<std::string> failRead, failWrite, failRemove, failRename;
    bool failedReadLeavesLines = false;  ///< ReadFileLineToList hands over what it has before it fails
    bool failedReadLeavesText = false;   ///< ReadFullFile likewise
    std::set<std::string> existing;      ///< paths for which access(F_OK) succeeds besides `content`
    bool realIsFile = false;             ///< IsFile asks the real file system too
};

struct FakeMemory {
    int usagePercent = 50;
    unsigned long available = 8000;
    bool writesAvailable = true;
};

struct FakeDisk {
    bool ok = true;
    unsigned long freeSpace = 1UL << 40;
    unsigned long freeInodes = 1UL << 20;
};

/// Legacy resource-limit object.
struct FakeLimitUtil {
    bool present = true;
    Answers<LimitAnswer> startCpu, stopCpu, startMem, stopMem;
    Answers<int> prepareMem{0};
    Answers<int> otherProcessNum{0};
    Answers<bool> selfRemoved{false};
    Answers<bool> cpuLimited{false};
    Answers<bool> memLimited{false};
    Answers<bool> cpuV2Runtime{false};
    Answers<bool> memV2Runtime{false};
};

struct FakeManager {
    Answers<bool> ensureInitialized{true};
    Answers<bool> reconcile{true};            ///< overload with a total
    Answers<bool> reconcileGroupsOnly{true};  ///< overload without
    Answers<bool> cpuEnabled{false}, memEnabled{false};
    Answers<bool> cpuV2{false}, memV2{false};
    Answers<bool> parentCpuActive{false}, parentMemActive{false};
    Answers<int> parentCpuLimit{0}, parentMemLimit{0};
    Answers<bool> addPid{true}, removePid{true};
    Answers<bool> writeComponent{true}, writeDisabled{true};
    Answers<bool> snapshotOk{true}, pollOk{true};
    Answers<std::vector<zel::CgroupMemoryOomEvent>> snapshot, poll;
    int constructed = 0;
    int destroyed = 0;
    // last arguments, for tests that look closer than the journal line
    zel::CgroupTotalLimitConfig lastTotal;
    std::vector<zel::CgroupGroupConfig> lastGroups;
    std::vector<zel::CgroupComponentQuota> lastQuotas;
};

struct FakeClient {
    Answers<bool> reload{true};
    Answers<bool> cpuJoined{false}, memJoined{false};
    Answers<int> cpuQuota{0}, memQuota{0};
    Answers<std::string> cpuPath, memPath;
};

struct FakeMonitorBase {
    Answers<bool> start{true}, stop{true};
    int cpuLevel = 0, memLevel = 0;
    int maxCpu = 0, maxMem = 0;
    bool solaris = false;
    bool cpuHighAllRound = false, cpuBusyLastHour = false, avgCpuMinuteBusy = false, avgCpuWindowBusy = false;
    bool fetchOk = true;
    ResourceMonitorInfo info;
    ResourceConfig lastConfig;
    IResourceMonitorEvent* lastEvent = nullptr;
    void (*onSetMaxResourceConfig)() = nullptr;
};

struct FakeSqlite {
    Answers<int> openError{0};  ///< non-zero: GetSqliteDB gives null with this code
    Answers<bool> compile{true}, execute{true}, step{true};
    std::map<std::string, bool> failBind;  ///< parameter name -> fails
    int lastError = 0;
    int open = 0;            ///< databases open now
    int openStatements = 0;  ///< statements compiled and not released
};

struct FakeProcess {
    Answers<int> startTimerId{0};  ///< unused; see timerIds
    Answers<unsigned long> processMemory{0};
};

struct FakeKernel {
    int unameResult = 0;
    std::string release = "6.1.0-13-cloud-amd64";
    int unameCalls = 0;
    long configuredCpus = 4;
    int sysconfCalls = 0;
    int pid = 4242;
    int getrusageResult = 0;
    Answers<long> majorFaults{0};
};

/// Everything at once; one object per process, made new for each test.
struct Platform {
    std::vector<std::string> journal;
    std::vector<LogLine> logs;
    /// Which lines the journal keeps; unset: all. Keeps the journal small in a test of millions of ticks.
    std::function<bool(const std::string&)> keepInJournal;
    /// Sees every line before the operation answers, so that an answer can depend on what was done before.
    std::function<void(const std::string&)> onCall;

    bool clockScripted = true;
    bool journalTime = false;                   ///< time() is a line of the journal too
    time_t now = 1700000000;                    ///< CToolUtil::sleep moves it on
    std::function<void(unsigned int)> onSleep;  ///< what happens to the world during CToolUtil::sleep

    std::string appDir = "/opt/agent/home";
    std::string globalCfgDir = "/opt/agent/home/conf";
    int dayOfMonth = 14;

    FakeFiles files;
    FakeMemory memory;
    FakeDisk disk;
    FakeLimitUtil limit;
    FakeManager manager;
    FakeClient client;
    FakeMonitorBase base;
    FakeSqlite sqlite;
    FakeProcess process;
    FakeKernel kernel;

    unsigned int threadId = 77;
    std::map<long, std::string> threadNames;
    Answers<bool> startThread{true}, stopThread{true};
    bool threadRunning = false;
    Answers<unsigned long> timerId{9001};
    unsigned long magicNum = 4711;
    bool sleepForLoop = true;

    bool transmitPresent = true;
    Answers<bool> sendMsg{true};
    std::vector<SentMessage> sent;
    bool httpPresent = true;
    unsigned int httpFailCount = 0;

    std::vector<IMtInfo*> registered;
    std::vector<IOnlineClientConfNotify*> notifies;

    std::recursive_mutex lock;

    void Record(const std::string& line);
    /// Takes the journal and leaves it empty.
    std::vector<std::string> TakeJournal();
    /// The journal's log lines only.
    std::vector<std::string> LogJournal() const;
};

/// The platform of the running test.
Platform& P();

/// Makes everything new: default answers, empty journal, no online configuration.
void ResetPlatform();

/// printf into a string, for journal lines.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Takes the online configuration's instance away (null afterwards) without destroying it.
void ForgetOnlineConf();

/// Makes the resource monitor's singleton pointer null again between tests.
void ForgetMonitor();

}  // namespace doubles
