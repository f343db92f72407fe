// The utility library of this platform: log to stderr, threads and timers of the standard library, whole small files.
// What it does without says so: no database, so no store of what was abnormal.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

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

namespace zel {

// --- log ---

CLogMessage* CLogMessage::GetInstance() {
    static CLogMessage logger;
    return &logger;
}

void CLogMessage::WriteLogMessage(const std::string& text, int level) {
    fprintf(stderr, "%d %s\n", level, text.c_str());
}

void CLogMessage::log(int level, const char* sourceFileName, int line, const char* format, ...) {
    char text[4096];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    fprintf(stderr, "%d %s:%d %s\n", level, sourceFileName, line, text);
}

// --- mutex ---

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

// --- threads: a stop cuts the body's sleeps short ---

struct CThreadUtil::Impl {
    std::mutex mutex;
    std::condition_variable changed;
    std::thread thread;
    std::atomic<bool> running{false};
    bool stopping = false;
};

namespace {

std::mutex g_sleepMutex;
std::condition_variable g_sleepEnd;
thread_local const bool* t_stopping = nullptr;  ///< of the thread object that this thread is the body of

}  // namespace

CThreadUtil::CThreadUtil() : m_impl(std::make_unique<Impl>()) {}
CThreadUtil::~CThreadUtil() = default;

bool CThreadUtil::startThread() {
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->thread.joinable()) return false;
    m_impl->stopping = false;
    m_impl->running = true;
    m_impl->thread = std::thread([this] {
        t_stopping = &m_impl->stopping;
        run();
        m_impl->running = false;
    });
    return true;
}

bool CThreadUtil::stopThread() {
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->thread.joinable()) return false;
    {
        const std::lock_guard<std::mutex> sleeping(g_sleepMutex);
        m_impl->stopping = true;
    }
    g_sleepEnd.notify_all();
    m_impl->thread.join();
    return true;
}

bool CThreadUtil::IsThreadRunning() {
    return m_impl->running;
}
unsigned int CThreadUtil::GetCurrentThreadId() {
    return static_cast<unsigned int>(syscall(SYS_gettid));
}
std::string CThreadUtil::GetThreadName(long tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}
void CThreadUtil::SetThreadName(const std::string& name) {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

void CToolUtil::sleep(unsigned int seconds) {
    std::unique_lock<std::mutex> lock(g_sleepMutex);
    g_sleepEnd.wait_for(lock, std::chrono::seconds(seconds), [] { return t_stopping != nullptr && *t_stopping; });
}
void CToolUtil::msleep(unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}
bool CSleepUtil::SleepForLoop() {
    CToolUtil::msleep(10);
    return true;
}

// --- timers: a thread each, which is enough for the one that the module starts ---

struct CTimerEvent::Impl {
    struct Timer {
        std::thread thread;
        bool ending = false;
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::map<unsigned long, std::shared_ptr<Timer>> timers;
};

CTimerEvent::CTimerEvent() : m_impl(std::make_shared<Impl>()) {}
CTimerEvent::~CTimerEvent() {
    while (!m_impl->timers.empty()) killTimer(m_impl->timers.begin()->first);
}

unsigned long CTimerEvent::StringToMagicNum(const std::string& name) {
    return std::max<unsigned long>(1, std::hash<std::string>()(name));
}

unsigned long CTimerEvent::startTimer(unsigned long periodMs, unsigned long magic) {
    killTimer(magic);
    auto timer = std::make_shared<Impl::Timer>();
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->timers[magic] = timer;
    timer->thread = std::thread([this, timer, periodMs, magic] {
        std::unique_lock<std::mutex> waiting(m_impl->mutex);
        auto due = std::chrono::steady_clock::now();
        for (;;) {
            due += std::chrono::milliseconds(std::max(1UL, periodMs));
            if (m_impl->changed.wait_until(waiting, due, [&] { return timer->ending; })) return;
            waiting.unlock();
            timeEvent(magic);
            waiting.lock();
        }
    });
    return magic;
}

bool CTimerEvent::killTimer(unsigned long id) {
    std::shared_ptr<Impl::Timer> timer;
    {
        const std::lock_guard<std::mutex> lock(m_impl->mutex);
        const auto found = m_impl->timers.find(id);
        if (found == m_impl->timers.end()) return false;
        timer = found->second;
        timer->ending = true;
        m_impl->timers.erase(found);
    }
    m_impl->changed.notify_all();
    if (timer->thread.get_id() == std::this_thread::get_id()) {
        timer->thread.detach();
    } else {
        timer->thread.join();
    }
    return true;
}

// --- files ---

bool CFileUtil::IsFile(const std::string& path) {
    struct stat facts {};
    return lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode);
}

bool CFileUtil::ReadFileLineToList(const std::string& path, std::list<std::string>& lines, unsigned long limit) {
    std::ifstream file(path);
    if (!file) return false;
    for (std::string line; lines.size() < limit && std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return true;
}

bool CFileUtil::ReadFullFile(const std::string& path, std::string& text, unsigned long limit) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream whole;
    if (!file || !(whole << file.rdbuf()) || whole.str().size() > limit) return false;
    text = whole.str();
    return true;
}

bool CFileUtil::WriteNewFile(const std::string& path, const std::string& text, bool) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(file << text << std::flush) && chmod(path.c_str(), 0640) == 0;
}

bool CFileUtil::RemoveFile(const std::string& path) {
    return unlink(path.c_str()) == 0;
}

CFileCom::CFileCom(const std::string& path) : m_path(path) {}
CFileCom::~CFileCom() = default;
bool CFileCom::rename(const std::string& newPath) {
    return ::rename(m_path.c_str(), newPath.c_str()) == 0;
}

// --- texts ---

std::vector<std::string> CStringUtil::stringSplit(const std::string& text, const std::string& separator,
                                                  bool skipEmpty) {
    std::vector<std::string> pieces;
    for (size_t at = 0;;) {
        const size_t end = separator.empty() ? std::string::npos : text.find(separator, at);
        const std::string piece = text.substr(at, end == std::string::npos ? end : end - at);
        if (!skipEmpty || !piece.empty()) pieces.push_back(piece);
        if (end == std::string::npos) return pieces;
        at = end + separator.size();
    }
}

bool CStringUtil::stringStartWith(const std::string& text, const std::string& prefix, bool ignoreCase) {
    const auto same = [ignoreCase](unsigned char a, unsigned char b) {
        return ignoreCase ? std::tolower(a) == std::tolower(b) : a == b;
    };
    return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(), same);
}

std::string CStringUtil::trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

int CStringUtil::StringToInt(const std::string& text, bool* ok, int base) {
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text.c_str(), &end, base);
    const bool whole = end != text.c_str() && *end == '\0' && errno == 0 && value >= INT_MIN && value <= INT_MAX;
    if (ok != nullptr) *ok = whole;
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

unsigned long CStringUtil::StringToUInt(const std::string& text, bool* ok, int base) {
    char* end = nullptr;
    errno = 0;
    const bool begins = !text.empty() && std::isalnum(static_cast<unsigned char>(text[0])) != 0;
    const unsigned long value = begins ? strtoul(text.c_str(), &end, base) : 0;
    if (ok != nullptr) *ok = begins && end != text.c_str() && *end == '\0' && errno == 0;
    return value;
}

// The module writes decimal numbers only.
std::string CStringUtil::IntToString(long value, bool* ok, int) {
    if (ok != nullptr) *ok = true;
    return std::to_string(value);
}
std::string CStringUtil::UIntToString(unsigned long value, bool* ok, int) {
    if (ok != nullptr) *ok = true;
    return std::to_string(value);
}

std::string CStringUtil::strprintf(const char* format, ...) {
    va_list values, again;
    va_start(values, format);
    va_copy(again, values);
    std::string text(static_cast<size_t>(std::max(0, vsnprintf(nullptr, 0, format, values))) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    va_end(values);
    text.pop_back();
    return text;
}

// --- time, memory, directories, processes ---

time_t CDataTime::ToTime_t() const {
    return m_seconds;
}
int CDataTime::GetDayOfMonth() const {
    tm local{};
    localtime_r(&m_seconds, &local);
    return local.tm_mday;
}
CDataTime CTimeUtil::GetCurrentDataTime() {
    return CDataTime(time(nullptr));
}

int COSInfo::GetMemoryUsage(unsigned long* available) {
    std::ifstream file("/proc/meminfo");
    unsigned long total = 0, left = 0, value = 0;
    std::string key, unit;
    for (; file >> key >> value; std::getline(file, unit)) {
        if (key == "MemTotal:") total = value;
        if (key == "MemAvailable:") left = value;
    }
    if (total == 0) return -1;
    if (available != nullptr) *available = left / 1024;
    return static_cast<int>(100 - 100 * left / total);
}

std::string CToolUtil::GetApplicationDirPath() {
    const char* named = getenv("OWN_PLATFORM_DIR");
    return named != nullptr ? named : ".";
}

bool CToolUtil::GetSelfDiskFreeSpace(unsigned long& freeSpace, unsigned long* freeInodes, std::string path) {
    struct statvfs facts {};
    if (path.empty()) path = GetApplicationDirPath();
    if (statvfs(path.c_str(), &facts) != 0) return false;
    freeSpace = facts.f_bavail * facts.f_frsize;
    if (freeInodes != nullptr) *freeInodes = facts.f_files == 0 ? ULONG_MAX : facts.f_favail;
    return true;
}

void CAlgorithmUtil::SetHashMode(int) {}

COrvexPathInfo* COrvexPathInfo::GetInstance() {
    static COrvexPathInfo info;
    return &info;
}
std::string COrvexPathInfo::GetGlobalCfgPath() {
    return CToolUtil::GetApplicationDirPath() + "/conf";
}

namespace {

class OwnProcessUtil final : public IProcessUtil {
public:
    int GetCurrentProcessId() override { return getpid(); }
    unsigned long GetProcessMemory(int pid) override {
        std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
        unsigned long size = 0, resident = 0;
        if (!(file >> size >> resident)) return 0;
        return resident * static_cast<unsigned long>(sysconf(_SC_PAGESIZE)) / 1024;
    }
};

}  // namespace

IProcessUtil* GetProcessUtil() {
    static OwnProcessUtil util;
    return &util;
}

ISqliteDB* GetSqliteDB(const std::string&, int& error) {
    error = 1;  // SQLITE_ERROR
    return nullptr;
}
void RemoveSqliteDB(ISqliteDB*) {}

}  // namespace zel
