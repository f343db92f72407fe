// Doubles of the utility library: logger, threads, timers, files, strings, time, OS facts, tools, SQLite.
#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <climits>
#include <cstring>

#include <sys/stat.h>

#include "Platform.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/MutexUtil.h"
#include "platform/zel/OSInfo.h"
#include "platform/zel/PathInfo.h"
#include "platform/zel/ProcessUtil.h"
#include "platform/zel/SqliteDB.h"
#include "platform/zel/StringUtil.h"
#include "platform/zel/ThreadUtil.h"
#include "platform/zel/TimeUtil.h"
#include "platform/zel/TimerEvent.h"
#include "platform/zel/ToolUtil.h"

using doubles::Format;
using doubles::P;

namespace zel {

// --- logger ---
CLogMessage* CLogMessage::GetInstance() {
    static CLogMessage logger;
    return &logger;
}

void CLogMessage::WriteLogMessage(const std::string& text, int level) {
    std::lock_guard<std::recursive_mutex> guard(P().lock);
    P().logs.push_back({'W', level, "", text});
    P().Record(Format("W%d ", level) + text);
}

/// Lines of a source file, at most.
constexpr int kLongestSource = 2000;

void CLogMessage::log(int level, const char* sourceFileName, int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    int length = vasprintf(&text, format, args);
    va_end(args);
    std::string formatted(length >= 0 ? text : "");
    free(text);
    std::lock_guard<std::recursive_mutex> guard(P().lock);
    P().logs.push_back({'F', level, sourceFileName, formatted});
    // Where in the file a line was written moves with every change; that it is somewhere there does not.
    const bool somewhere = line > 0 && line < kLongestSource;
    P().Record(Format("F%d [%s%s] ", level, sourceFileName, somewhere ? "" : ", nowhere") + formatted);
}

// --- threads: nothing runs unless a test calls run() ---
struct CThreadUtil::Impl {};
CThreadUtil::CThreadUtil() = default;
CThreadUtil::~CThreadUtil() = default;
bool CThreadUtil::startThread() {
    P().Record("CThreadUtil::startThread()");
    bool ok = P().startThread.Next();
    if (ok) P().threadRunning = true;
    return ok;
}
bool CThreadUtil::stopThread() {
    P().Record("CThreadUtil::stopThread()");
    P().threadRunning = false;
    return P().stopThread.Next();
}
bool CThreadUtil::IsThreadRunning() {
    P().Record("CThreadUtil::IsThreadRunning()");
    return P().threadRunning;
}
unsigned int CThreadUtil::GetCurrentThreadId() {
    return P().threadId;
}
std::string CThreadUtil::GetThreadName(long tid) {
    P().Record(Format("CThreadUtil::GetThreadName(%ld)", tid));
    auto found = P().threadNames.find(tid);
    return found == P().threadNames.end() ? std::string() : found->second;
}
void CThreadUtil::SetThreadName(const std::string& name) {
    P().Record("CThreadUtil::SetThreadName(" + name + ")");
}

// --- timers ---
struct CTimerEvent::Impl {};
CTimerEvent::CTimerEvent() = default;
CTimerEvent::~CTimerEvent() = default;
unsigned long CTimerEvent::StringToMagicNum(const std::string& name) {
    P().Record("CTimerEvent::StringToMagicNum(" + name + ")");
    return P().magicNum;
}
unsigned long CTimerEvent::startTimer(unsigned long periodMs, unsigned long magic) {
    P().Record(Format("CTimerEvent::startTimer(%lu,%lu)", periodMs, magic));
    return P().timerId.Next();
}
bool CTimerEvent::killTimer(unsigned long id) {
    P().Record(Format("CTimerEvent::killTimer(%lu)", id));
    return true;
}

// --- mutexes: real, so that a forgotten unlock is found ---
struct CMutexUtil::Impl {
    std::mutex mutex;
};
CMutexUtil::CMutexUtil() : m_impl(std::make_unique<Impl>()) {}
CMutexUtil::~CMutexUtil() = default;
void CMutexUtil::lock() {
    m_impl->mutex.lock();
}
void CMutexUtil::unlock() {
    m_impl->mutex.unlock();
}
CMutexLockUtil::CMutexLockUtil(CMutexUtil& mutex) : m_mutex(mutex) {
    m_mutex.lock();
}
CMutexLockUtil::~CMutexLockUtil() {
    m_mutex.unlock();
}

// --- files: in memory ---
bool CFileUtil::IsFile(const std::string& path) {
    P().Record("CFileUtil::IsFile(" + path + ")");
    if (P().files.content.count(path) != 0 || P().files.alsoFiles.count(path) != 0) return true;
    struct stat info {};
    return P().files.realIsFile && lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}
bool CFileUtil::ReadFileLineToList(const std::string& path, std::list<std::string>& lines, unsigned long limit) {
    P().Record(Format("CFileUtil::ReadFileLineToList(%s,%lu)", path.c_str(), limit));
    auto found = P().files.content.find(path);
    const bool fails = P().files.failRead.count(path) != 0;
    if (found == P().files.content.end() || (fails && !P().files.failedReadLeavesLines)) return false;
    const std::string& text = found->second;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return !fails;
}
bool CFileUtil::ReadFullFile(const std::string& path, std::string& text, unsigned long limit) {
    P().Record(Format("CFileUtil::ReadFullFile(%s,%lu)", path.c_str(), limit));
    auto found = P().files.content.find(path);
    if (found == P().files.content.end()) return false;
    if (P().files.failRead.count(path) != 0 || found->second.size() > limit) {
        if (P().files.failedReadLeavesText) text = found->second;
        return false;
    }
    text = found->second;
    return true;
}
bool CFileUtil::WriteNewFile(const std::string& path, const std::string& text, bool flag) {
    P().Record(Format("CFileUtil::WriteNewFile(%s,%d)", path.c_str(), flag));
    if (P().files.failWrite.count(path) != 0) return false;
    P().files.content[path] = text;
    return true;
}
bool CFileUtil::RemoveFile(const std::string& path) {
    P().Record("CFileUtil::RemoveFile(" + path + ")");
    if (P().files.failRemove.count(path) != 0) return false;
    return P().files.content.erase(path) + P().files.alsoFiles.erase(path) > 0;
}
CFileCom::CFileCom(const std::string& path) : m_path(path) {}
CFileCom::~CFileCom() = default;
bool CFileCom::rename(const std::string& newPath) {
    P().Record("CFileCom(" + m_path + ")::rename(" + newPath + ")");
    auto found = P().files.content.find(m_path);
    if (P().files.failRename.count(m_path) != 0 || found == P().files.content.end()) return false;
    P().files.content[newPath] = found->second;
    P().files.content.erase(m_path);
    return true;
}

// --- strings: the real rules of the seam's contract ---
std::vector<std::string> CStringUtil::stringSplit(const std::string& text, const std::string& separator,
                                                  bool skipEmpty) {
    std::vector<std::string> pieces;
    size_t at = 0;
    for (;;) {
        size_t end = separator.empty() ? std::string::npos : text.find(separator, at);
        std::string piece = text.substr(at, end == std::string::npos ? end : end - at);
        if (!skipEmpty || !piece.empty()) pieces.push_back(piece);
        if (end == std::string::npos) return pieces;
        at = end + separator.size();
    }
}
bool CStringUtil::stringStartWith(const std::string& text, const std::string& prefix, bool ignoreCase) {
    if (text.size() < prefix.size()) return false;
    return std::equal(prefix.begin(), prefix.end(), text.begin(), [ignoreCase](char a, char b) {
        return ignoreCase ? std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b))
                          : a == b;
    });
}
std::string CStringUtil::trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}
int CStringUtil::StringToInt(const std::string& text, bool* ok, int base) {
    char* end = nullptr;
    errno = 0;
    long value = strtol(text.c_str(), &end, base);
    bool clean = end != text.c_str() && *end == '\0' && errno == 0 && value >= INT_MIN && value <= INT_MAX;
    if (ok != nullptr) *ok = clean;
    return static_cast<int>(std::clamp(value, static_cast<long>(INT_MIN), static_cast<long>(INT_MAX)));
}
unsigned long CStringUtil::StringToUInt(const std::string& text, bool* ok, int base) {
    char* end = nullptr;
    errno = 0;
    const size_t first = text.find_first_not_of(" \t\n\v\f\r");
    bool digit = first != std::string::npos && std::isalnum(static_cast<unsigned char>(text[first])) != 0;
    unsigned long value = digit ? strtoul(text.c_str(), &end, base) : 0;
    bool clean = digit && end != text.c_str() && *end == '\0' && errno == 0;
    if (ok != nullptr) *ok = clean;
    return value;
}
std::string CStringUtil::IntToString(long value, bool* ok, int) {
    if (ok != nullptr) *ok = true;
    return std::to_string(value);
}
std::string CStringUtil::UIntToString(unsigned long value, bool* ok, int) {
    if (ok != nullptr) *ok = true;
    return std::to_string(value);
}
std::string CStringUtil::to_string(int value) {
    return std::to_string(value);
}
std::string CStringUtil::strprintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = nullptr;
    int length = vasprintf(&text, format, args);
    va_end(args);
    std::string formatted(length >= 0 ? text : "");
    free(text);
    return formatted;
}

// --- time, OS facts, tools ---
time_t CDataTime::ToTime_t() const {
    return m_seconds;
}
int CDataTime::GetDayOfMonth() const {
    return P().dayOfMonth;
}
CDataTime CTimeUtil::GetCurrentDataTime() {
    return CDataTime(P().now);
}

int COSInfo::GetMemoryUsage(unsigned long* available) {
    P().Record(Format("COSInfo::GetMemoryUsage(%s)", available == nullptr ? "null" : "available"));
    if (available != nullptr && P().memory.writesAvailable) *available = P().memory.available;
    return P().memory.usagePercent;
}

std::string CToolUtil::GetApplicationDirPath() {
    P().Record("CToolUtil::GetApplicationDirPath()");
    return P().appDir;
}
bool CToolUtil::GetSelfDiskFreeSpace(unsigned long& freeSpace, unsigned long* freeInodes, std::string path) {
    P().Record("CToolUtil::GetSelfDiskFreeSpace(" + path + ")");
    if (!P().disk.ok) return false;
    freeSpace = P().disk.freeSpace;
    if (freeInodes != nullptr) *freeInodes = P().disk.freeInodes;
    return true;
}
void CToolUtil::sleep(unsigned int seconds) {
    P().Record(Format("CToolUtil::sleep(%u)", seconds));
    P().now += static_cast<time_t>(seconds);
    if (P().onSleep) P().onSleep(seconds);
}
void CToolUtil::msleep(unsigned int milliseconds) {
    P().Record(Format("CToolUtil::msleep(%u)", milliseconds));
}
bool CSleepUtil::SleepForLoop() {
    P().Record("CSleepUtil::SleepForLoop()");
    return P().sleepForLoop;
}
void CAlgorithmUtil::SetHashMode(int mode) {
    P().Record(Format("CAlgorithmUtil::SetHashMode(%d)", mode));
}
COrvexPathInfo* COrvexPathInfo::GetInstance() {
    static COrvexPathInfo info;
    return &info;
}
std::string COrvexPathInfo::GetGlobalCfgPath() {
    return P().globalCfgDir;
}

// --- processes ---
namespace {
class ProcessUtilDouble final : public IProcessUtil {
public:
    int GetCurrentProcessId() override { return P().kernel.pid; }
    unsigned long GetProcessMemory(int pid) override {
        P().Record(Format("IProcessUtil::GetProcessMemory(%d)", pid));
        return P().process.processMemory.Next();
    }
};

// --- SQLite ---
class StatementDouble final : public ISqliteStatement {
public:
    bool Step() override {
        P().Record("ISqliteStatement::Step()");
        return P().sqlite.step.Next();
    }
    bool BindString(const std::string& name, const std::string& value) override {
        P().Record("ISqliteStatement::BindString(" + name + "," + value + ")");
        return !P().sqlite.failBind[name];
    }
    bool BindInt(const std::string& name, int value) override {
        P().Record(Format("ISqliteStatement::BindInt(%s,%d)", name.c_str(), value));
        return !P().sqlite.failBind[name];
    }
};
class DatabaseDouble final : public ISqliteDB {
public:
    ISqliteStatement* Compile(const std::string& sql) override {
        P().Record("ISqliteDB::Compile(" + sql + ")");
        if (!P().sqlite.compile.Next()) return nullptr;
        ++P().sqlite.openStatements;
        return &m_statement;
    }
    void ReleaseStatement(ISqliteStatement*) override {
        P().Record("ISqliteDB::ReleaseStatement()");
        --P().sqlite.openStatements;
    }
    bool Execute(const std::string& sql) override {
        P().Record("ISqliteDB::Execute(" + sql + ")");
        return P().sqlite.execute.Next();
    }
    int GetLastError() override {
        P().Record("ISqliteDB::GetLastError()");
        return P().sqlite.lastError;
    }

private:
    StatementDouble m_statement;
};
}  // namespace

IProcessUtil* GetProcessUtil() {
    static ProcessUtilDouble util;
    return &util;
}

ISqliteDB* GetSqliteDB(const std::string& path, int& error) {
    P().Record("GetSqliteDB(" + path + ")");
    error = P().sqlite.openError.Next();
    if (error != 0) return nullptr;
    if (P().files.content.count(path) == 0) P().files.content[path] = "";
    ++P().sqlite.open;
    return new DatabaseDouble;  // never shared: a use after RemoveSqliteDB is found by the address sanitizer
}
void RemoveSqliteDB(ISqliteDB* db) {
    P().Record("RemoveSqliteDB()");
    --P().sqlite.open;
    delete static_cast<DatabaseDouble*>(db);
}

}  // namespace zel
