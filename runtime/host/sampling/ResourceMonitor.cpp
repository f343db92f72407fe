// The sampling class: one round a second on a thread of its own.
#include "platform/host/ResourceMonitor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include "sampling/HostContext.h"
#include "sampling/Heartbeats.h"
#include "sampling/ProcReaders.h"
#include "SecureFile.h"
#include "sampling/SelfKillRecord.h"
#include "sampling/ThreadFacts.h"
#include "sampling/UsageLevel.h"
#include "sampling/WatchedProcesses.h"
#include "platform/host/ResourceEventSink.h"
#include "platform/zel/LogMessage.h"

using zelhost::Averages;
using zelhost::BreachStep;
using zelhost::SamplerFigures;
using zelhost::Totals;

namespace {
constexpr int kDefaultRoundMs = 1000;
constexpr int kLeastRoundMs = 100;
constexpr int kMostRoundMs = 60000;
constexpr int kDefaultWindowMinutes = 5;
constexpr int kMostWindowMinutes = 60;
constexpr size_t kMinuteRounds = 60;
constexpr size_t kHourMinutes = 60;
// A kernel that must have its descriptor directory read pays for every open one: read it rarely, and rarer when
// there are many.
constexpr uint64_t kDearFdRounds = 10;
constexpr uint64_t kVeryDearFdRounds = 60;
constexpr int64_t kManyFds = 1000;
constexpr uint64_t kReopenRounds = 60;
constexpr uint64_t kBreachThreadRounds = 10;  // rhythm of the thread facts during a CPU breach
constexpr size_t kRecordThreads = 10;
constexpr std::chrono::milliseconds kBlindSleep{200};

int64_t ClockNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * zelhost::kNsPerSecond + ts.tv_nsec;
}

template <class... Args>
void Log(int level, int line, const char* format, Args... args) {
    zel::CLogMessage::GetInstance()->log(level, "ResourceMonitor", line, format, args...);
}

/// The thread's kernel stack, or the name of the place it waits in. Needs root for the former.
std::string ReadKernelStack(unsigned int tid) {
    char path[64];
    char text[4096];
    for (const char* file : {"stack", "wchan"}) {
        std::snprintf(path, sizeof(path), "/proc/self/task/%u/%s", tid, file);
        zelhost::CKeptFile stack;
        if (stack.Open(path) && stack.Read(text, sizeof(text)) > 0 && std::strcmp(text, "0") != 0) return text;
    }
    return "";
}

bool ThreadExists(unsigned int tid) {
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/self/task/%u", tid);
    return access(path, F_OK) == 0;
}

const char* KindName(ResourceKind kind) {
    switch (kind) {
        case ResourceKind::kCpu: return "cpu";
        case ResourceKind::kMemory: return "memory";
        case ResourceKind::kDescriptors: return "descriptors";
        case ResourceKind::kReadIo: return "read_io";
        case ResourceKind::kWriteIo: return "write_io";
        case ResourceKind::kWatchedProcess: return "watched_process";
        case ResourceKind::kWatchedCpu: return "watched_cpu";
        case ResourceKind::kWatchedMemory: return "watched_memory";
    }
    return "unknown";
}

std::string Quantity(ResourceKind kind, int64_t value) {
    char text[64];
    switch (kind) {
        case ResourceKind::kCpu:
        case ResourceKind::kWatchedCpu:
            std::snprintf(text, sizeof(text), "%lld.%02lld %%", static_cast<long long>(value / 100),
                          static_cast<long long>(value % 100));
            break;
        case ResourceKind::kMemory:
        case ResourceKind::kWatchedMemory:
            std::snprintf(text, sizeof(text), "%lld KB", static_cast<long long>(value));
            break;
        case ResourceKind::kReadIo:
        case ResourceKind::kWriteIo:
            std::snprintf(text, sizeof(text), "%lld KB/s", static_cast<long long>(value));
            break;
        default: std::snprintf(text, sizeof(text), "%lld", static_cast<long long>(value)); break;
    }
    return text;
}

/// One value that can end in a self-kill.
struct Supervised {
    ResourceKind kind = ResourceKind::kCpu;
    zelhost::BreachTracker tracker;
    bool high = false;
    int64_t limit = 0;  // in force when the breach began
};

}  // namespace

struct CResourceMonitor::Impl {
    explicit Impl(CResourceMonitor& owner) : m_owner(owner) {
        m_cpu.kind = ResourceKind::kCpu;
        m_mem.kind = ResourceKind::kMemory;
        m_fds.kind = ResourceKind::kDescriptors;
        m_changes.reserve(16);
        m_events.reserve(16);
        m_cpus = std::max(1L, sysconf(_SC_NPROCESSORS_CONF));
        m_pageKb = std::max(1L, sysconf(_SC_PAGESIZE) / 1024);
    }

    // --- the thread ---
    void Begin();
    void Loop();
    bool SleepUntil(std::chrono::steady_clock::time_point when);

    // --- one round ---
    void Round();
    void OpenFiles();
    void ReadCounters(Totals& now);
    void UpdateLevels();
    void UpdateMinute();
    void UpdateIo();
    void Supervise();
    void SuperviseOne(Supervised& what, int64_t value, int64_t limit, uint64_t periodRounds);
    void CheckHeartbeats(int64_t elapsedMs);
    void CheckWatched();
    void Publish();

    // --- what follows from it ---
    void Warn(ResourceKind kind, WarningStage stage, int64_t value, int64_t limit, int64_t sustainedMs,
              const std::string& name, const std::string& text);
    void SelfKill(const Supervised& what, int64_t value, int64_t sustainedMs);
    std::string BuildRecord(const Supervised& what, int64_t value, int64_t sustainedMs, int64_t wallTime);
    void WriteWatchedRecord(const zelhost::WatchedEvent& event);

    int RoundMs() const;
    size_t WindowMinutes() const;
    uint64_t PeriodRounds(size_t minutes) const;
    /// In the mode that percentages are counted in.
    int64_t Scale(int64_t cpu100Times) const { return m_solaris ? cpu100Times / m_cpus : cpu100Times; }
    int64_t MaxCpu100() const { return int64_t{m_maxCpu.load(std::memory_order_relaxed)} * 100; }
    int64_t MaxMemKb() const { return int64_t{m_maxMem.load(std::memory_order_relaxed)} * 1024; }

    CResourceMonitor& m_owner;

    // Answers of the hot queries: written by the sampling thread, read by any.
    std::atomic<int> m_cpuLevel{0};
    std::atomic<int> m_memLevel{0};
    std::atomic<bool> m_highAllRound{false};
    std::atomic<bool> m_busyLastHour{false};
    std::atomic<bool> m_minuteBusy{false};
    std::atomic<bool> m_windowBusy{false};

    // Settings: written by any thread, read by the sampling thread.
    std::atomic<int> m_maxCpu{0};
    std::atomic<int> m_maxMem{0};
    std::atomic<int> m_maxReadIo{0};
    std::atomic<int> m_maxWriteIo{0};
    std::atomic<int> m_maxFd{0};
    std::atomic<int> m_windowMinutes{kDefaultWindowMinutes};
    std::atomic<int> m_roundMs{kDefaultRoundMs};
    std::atomic<bool> m_solaris{false};
    std::atomic<bool> m_ioEnabled{true};
    zelhost::CHeartbeats m_heartbeats;
    zelhost::CWatchedProcesses m_watched;

    // Stop. One poll of the event descriptor per round is both the sleep and the way to end it early.
    std::atomic<bool> m_stop{false};
    base::Fd m_wake;

    // What others may read whole.
    std::mutex m_figuresLock;
    SamplerFigures m_published;
    ResourceMonitorInfo m_info;
    bool m_infoValid = false;

    // Of the sampling thread only.
    zelhost::SamplingSettings m_settings;
    IResourceEventSink* m_sink = nullptr;
    long m_cpus = 1;
    long m_pageKb = 4;
    zelhost::CKeptFile m_statm, m_io, m_loadavg;
    zelhost::CDescriptorCounter m_fdCounter;
    bool m_ioWarned = false;
    uint64_t m_tick = 0;
    int64_t m_lastNs = 0;
    int64_t m_elapsedNs = 0;
    int64_t m_lastProcessNs = 0;
    zelhost::ProcIo m_lastIo;
    bool m_ioKnown = false;
    Totals m_totals;
    zelhost::TotalsRing<kMinuteRounds + 1> m_rounds;
    zelhost::TotalsRing<kHourMinutes + 1> m_minutes;
    SamplerFigures m_now;
    uint64_t m_highRun = 0;  // rounds in a row at level 2
    uint64_t m_readIoWarnedAt = 0;
    uint64_t m_writeIoWarnedAt = 0;
    uint64_t m_pidRecords = 0;
    uint64_t m_recordNumber = 0;
    Supervised m_cpu, m_mem, m_fds;
    std::vector<ThreadStall> m_changes;
    std::vector<zelhost::WatchedEvent> m_events;
};

int CResourceMonitor::Impl::RoundMs() const {
    if (m_settings.options.roundMs > 0) return static_cast<int>(m_settings.options.roundMs);
    return m_roundMs.load(std::memory_order_relaxed);
}

size_t CResourceMonitor::Impl::WindowMinutes() const {
    return static_cast<size_t>(m_windowMinutes.load(std::memory_order_relaxed));
}

uint64_t CResourceMonitor::Impl::PeriodRounds(size_t minutes) const {
    if (m_settings.options.breachRounds > 0) return m_settings.options.breachRounds;
    return minutes * kMinuteRounds;
}

void CResourceMonitor::Impl::Begin() {
    m_settings = zelhost::GetSamplingSettings();
    m_tick = 0;
    m_totals = Totals();
    m_rounds.Clear();
    m_minutes.Clear();
    m_now = SamplerFigures();
    m_highRun = 0;
    m_ioKnown = false;
    m_ioWarned = false;
    m_pidRecords = 0;
    m_readIoWarnedAt = m_writeIoWarnedAt = 0;
    for (Supervised* what : {&m_cpu, &m_mem, &m_fds}) {
        what->tracker.Clear();
        what->high = false;
    }
    m_watched.Clear();
    OpenFiles();
    m_lastNs = ClockNs(CLOCK_MONOTONIC);
    m_lastProcessNs = ClockNs(CLOCK_PROCESS_CPUTIME_ID);
    m_rounds.Push(m_totals);
    m_minutes.Push(m_totals);
    std::lock_guard<std::mutex> lock(m_figuresLock);
    m_published = SamplerFigures();
    m_info = ResourceMonitorInfo();
    m_infoValid = false;
}

void CResourceMonitor::Impl::OpenFiles() {
    if (!m_statm.IsOpen()) m_statm.Open("/proc/self/statm");
    if (!m_io.IsOpen() && !m_io.Open("/proc/self/io") && !m_ioWarned) {
        m_ioWarned = true;
        Log(zel::kLogWarning, __LINE__, "cannot open /proc/self/io (%s); I/O is not measured",
            base::ErrnoText(errno).c_str());
    }
    if (!m_loadavg.IsOpen()) m_loadavg.Open("/proc/loadavg");
    m_fdCounter.Open();
}

bool CResourceMonitor::Impl::SleepUntil(std::chrono::steady_clock::time_point when) {
    for (;;) {
        if (m_stop.load()) return true;
        auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(when - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        if (!m_wake) left = std::min<std::chrono::nanoseconds>(left, kBlindSleep);  // nothing can wake us
        timespec ts{};
        ts.tv_sec = static_cast<time_t>(left.count() / zelhost::kNsPerSecond);
        ts.tv_nsec = static_cast<long>(left.count() % zelhost::kNsPerSecond);
        pollfd wake = {m_wake.Get(), POLLIN, 0};
        ppoll(&wake, 1, &ts, nullptr);
    }
}

void CResourceMonitor::Impl::Loop() {
    zel::CThreadUtil::SetThreadName("ResourceMonitor");
    Begin();
    auto due = std::chrono::steady_clock::now();
    for (;;) {
        Round();
        const auto length = std::chrono::milliseconds(RoundMs());
        due += length;
        const auto now = std::chrono::steady_clock::now();
        if (now > due) {
            // Rounds that could not be made are left out, not made up for: the figures count by real time.
            const auto behind = (now - due) / length + 1;
            m_now.missedRounds += static_cast<uint64_t>(behind);
            due += behind * length;
        }
        if (SleepUntil(due)) return;
    }
}

void CResourceMonitor::Impl::ReadCounters(Totals& now) {
    char text[1024];
    const int64_t monotonicNs = ClockNs(CLOCK_MONOTONIC);
    const int64_t processNs = ClockNs(CLOCK_PROCESS_CPUTIME_ID);
    m_elapsedNs = monotonicNs - m_lastNs;
    now.rounds += 1;
    now.wallNs += m_elapsedNs;
    now.cpuNs += processNs - m_lastProcessNs;
    m_now.cpu100Times = Scale(zelhost::Cpu100Times(processNs - m_lastProcessNs, m_elapsedNs));
    m_now.cpuTotalNs = processNs;
    m_lastNs = monotonicNs;
    m_lastProcessNs = processNs;

    int64_t pages = 0;
    if (m_statm.IsOpen() && m_statm.Read(text, sizeof(text)) > 0 && zelhost::ParseStatmResident(text, pages)) {
        m_now.memKb = pages * m_pageKb;
    }
    now.memKbSum += m_now.memKb;

    const uint64_t rhythm = m_fdCounter.IsCheap()          ? 1
                            : m_now.descriptors > kManyFds ? kVeryDearFdRounds
                                                           : kDearFdRounds;
    if (m_tick % rhythm == 0) {
        const int64_t count = m_fdCounter.Count();
        if (count >= 0) m_now.descriptors = count;
    }
    now.fdSum += m_now.descriptors;

    zelhost::ProcIo io;
    const bool measured = m_ioEnabled.load(std::memory_order_relaxed) && m_io.IsOpen() &&
                          m_io.Read(text, sizeof(text)) > 0 && zelhost::ParseProcIo(text, io);
    m_now.readKbps = m_now.writeKbps = 0;
    if (measured && m_ioKnown) {
        // Cancelled writes never lower these counters, so differences are not negative.
        const uint64_t readBytes = io.readBytes - m_lastIo.readBytes;
        const uint64_t writeBytes = io.writeBytes - m_lastIo.writeBytes;
        now.readBytes += readBytes;
        now.writeBytes += writeBytes;
        m_now.readKbps = zelhost::PerSecondKb(readBytes, m_elapsedNs);
        m_now.writeKbps = zelhost::PerSecondKb(writeBytes, m_elapsedNs);
    }
    if (measured) {
        m_lastIo = io;
        m_now.readBytesTotal = io.readBytes;
        m_now.writeBytesTotal = io.writeBytes;
    }
    m_ioKnown = measured;

    float load = 0;
    if (m_loadavg.IsOpen() && m_loadavg.Read(text, sizeof(text)) > 0 && zelhost::ParseLoadAvg(text, load)) {
        m_now.loadAvg = load;
    }
}

void CResourceMonitor::Impl::UpdateLevels() {
    const int cpuLevel = zelhost::NextLevel(m_cpuLevel.load(std::memory_order_relaxed), m_now.cpu100Times, MaxCpu100());
    const int memLevel = zelhost::NextLevel(m_memLevel.load(std::memory_order_relaxed), m_now.memKb, MaxMemKb());
    // The first round spans no time worth judging.
    const int judged = m_tick == 0 ? 0 : cpuLevel;
    m_cpuLevel.store(judged, std::memory_order_relaxed);
    m_memLevel.store(memLevel, std::memory_order_relaxed);
    m_now.cpuLevel = judged;
    m_now.memLevel = memLevel;
    if (judged >= 1) ++m_now.cpuWarnCount;
    if (judged == 2) ++m_now.cpuHighCount;
    m_highRun = judged == 2 ? m_highRun + 1 : 0;
    m_highAllRound.store(m_highRun >= WindowMinutes() * kMinuteRounds, std::memory_order_relaxed);
}

void CResourceMonitor::Impl::UpdateMinute() {
    m_rounds.Push(m_totals);
    const int64_t limit = MaxCpu100();
    const Averages minute = zelhost::AverageBetween(m_rounds.Back(kMinuteRounds), m_totals);
    m_now.cpuMinute100Times = Scale(minute.cpu100Times);
    m_now.memMinuteKb = minute.memKb;
    m_minuteBusy.store(m_rounds.Reaches(kMinuteRounds) && zelhost::IsBusy(m_now.cpuMinute100Times, limit),
                       std::memory_order_relaxed);

    const size_t windowMinutes = WindowMinutes();
    if (m_totals.rounds % kMinuteRounds == 0) {
        if (limit > 0 && m_now.cpuMinute100Times >= limit) ++m_now.cpuMinuteHighCount;
        m_minutes.Push(m_totals);
        const Averages hour = zelhost::AverageBetween(m_minutes.Back(kHourMinutes), m_totals);
        m_now.cpuHour100Times = Scale(hour.cpu100Times);
        m_busyLastHour.store(m_minutes.Reaches(kHourMinutes) && zelhost::IsBusy(m_now.cpuHour100Times, limit),
                             std::memory_order_relaxed);
        const Averages window = zelhost::AverageBetween(m_minutes.Back(windowMinutes), m_totals);
        m_windowBusy.store(m_minutes.Reaches(windowMinutes) && zelhost::IsBusy(Scale(window.cpu100Times), limit),
                           std::memory_order_relaxed);
    }
    const bool onBoundary = m_totals.rounds % kMinuteRounds == 0;
    const Averages window =
        zelhost::AverageBetween(m_minutes.Back(onBoundary ? windowMinutes : windowMinutes - 1), m_totals);
    m_now.cpuWindow100Times = Scale(window.cpu100Times);
    m_now.memWindowKb = window.memKb;
    if (m_totals.rounds < kMinuteRounds) {  // nothing whole to show yet
        m_now.cpuHour100Times = Scale(zelhost::AverageBetween(m_minutes.Back(kHourMinutes), m_totals).cpu100Times);
    }

    std::lock_guard<std::mutex> lock(m_figuresLock);
    ResourceMonitorInfo& info = m_info;
    const auto u32 = [](int64_t v) { return static_cast<uint32_t>(std::clamp<int64_t>(v, 0, UINT32_MAX)); };
    info.maxCpu = u32(m_maxCpu);
    info.avgCpu = u32(m_now.cpuWindow100Times / 100);
    info.avgCpu100Times = u32(m_now.cpuWindow100Times);
    info.cpuWarnCount = static_cast<uint32_t>(m_now.cpuWarnCount);
    info.cpuMinuteHighCount = static_cast<uint32_t>(m_now.cpuMinuteHighCount);
    info.cpuHighCount = static_cast<uint32_t>(m_now.cpuHighCount);
    info.writePidTimes = static_cast<uint32_t>(m_pidRecords);
    info.maxReadIo = u32(m_maxReadIo);
    info.maxWriteIo = u32(m_maxWriteIo);
    info.readIoWarnCount = static_cast<uint32_t>(m_now.readIoWarnCount);
    info.writeIoWarnCount = static_cast<uint32_t>(m_now.writeIoWarnCount);
    info.avgReadIo = u32(window.readKbps);
    info.avgWriteIo = u32(window.writeKbps);
    info.maxMem = u32(m_maxMem);
    info.avgMem = u32(window.memKb / 1024);
    info.avgFdCount = u32(window.fds);
    info.loadAvg = m_now.loadAvg;
    info.singleLoadAvg = m_now.loadAvg / static_cast<float>(m_cpus);
    m_infoValid = true;
}

void CResourceMonitor::Impl::UpdateIo() {
    const auto check = [this](ResourceKind kind, int64_t rate, int64_t limit, uint64_t& count, uint64_t& warnedAt) {
        if (limit <= 0 || rate < limit) return;
        ++count;
        // One line a minute: the counter tells the rest.
        if (warnedAt != 0 && m_totals.rounds - warnedAt < kMinuteRounds) return;
        warnedAt = m_totals.rounds;
        Warn(kind, WarningStage::kReached, rate, limit, RoundMs(), "", "");
    };
    check(ResourceKind::kReadIo, m_now.readKbps, m_maxReadIo, m_now.readIoWarnCount, m_readIoWarnedAt);
    check(ResourceKind::kWriteIo, m_now.writeKbps, m_maxWriteIo, m_now.writeIoWarnCount, m_writeIoWarnedAt);
}

void CResourceMonitor::Impl::Warn(ResourceKind kind, WarningStage stage, int64_t value, int64_t limit,
                                  int64_t sustainedMs, const std::string& name, const std::string& text) {
    ResourceWarning warning;
    warning.kind = kind;
    warning.stage = stage;
    warning.value = value;
    warning.limit = limit;
    warning.sustainedMs = sustainedMs;
    warning.wallTime = time(nullptr);
    warning.name = name;
    if (kind == ResourceKind::kCpu && stage != WarningStage::kRecovered) {
        const auto top = zelhost::CThreadFacts::Instance().Busiest(1);
        if (!top.empty() && top[0].avgLoad > 0) {
            warning.tid = top[0].tid;
            warning.name = top[0].name;
        }
    }
    const char* stageText = stage == WarningStage::kReached     ? "at its maximum"
                            : stage == WarningStage::kSustained ? "at its maximum for a whole breach period"
                                                                : "below its maximum again";
    warning.text = text.empty() ? std::string(KindName(kind)) + " " + stageText + ": " + Quantity(kind, value) +
                                      " of " + Quantity(kind, limit)
                                : text;
    if (warning.tid != 0) {
        warning.text += ", busiest thread " + std::to_string(warning.tid) + " (" + warning.name + ")";
    }
    Log(stage == WarningStage::kRecovered ? zel::kLogInfo : zel::kLogWarning, __LINE__, "%s", warning.text.c_str());
    if (m_sink == nullptr) return;
    try {
        m_sink->OnResourceWarning(warning);
    } catch (...) {
        Log(zel::kLogWarning, __LINE__, "%s", "the event sink threw on a warning");
    }
}

void CResourceMonitor::Impl::Supervise() {
    const int64_t cpuLimit = MaxCpu100();
    const int64_t memLimit = MaxMemKb();
    const int64_t fdLimit = m_maxFd;
    const int64_t cpu = m_now.cpuMinute100Times;
    // CPU is judged by the last minute: one short burst is no breach, and one short pause no recovery.
    const bool wholeMinute = m_rounds.Reaches(kMinuteRounds) || m_settings.options.breachRounds > 0;
    m_cpu.high = wholeMinute && zelhost::NextLevel(m_cpu.high ? 2 : 0, cpu, cpuLimit) == 2;
    m_mem.high = m_now.memLevel == 2;
    m_fds.high = zelhost::NextLevel(m_fds.high ? 2 : 0, m_now.descriptors, fdLimit) == 2;
    SuperviseOne(m_cpu, cpu, cpuLimit, PeriodRounds(WindowMinutes()));
    SuperviseOne(m_mem, m_now.memKb, memLimit, PeriodRounds(1));
    SuperviseOne(m_fds, m_now.descriptors, fdLimit, PeriodRounds(1));
    if (m_cpu.tracker.Rounds() % kBreachThreadRounds == 1) zelhost::CThreadFacts::Instance().Sample();
}

void CResourceMonitor::Impl::SuperviseOne(Supervised& what, int64_t value, int64_t limit, uint64_t periodRounds) {
    const int64_t sustainedMs = static_cast<int64_t>(what.tracker.Rounds()) * RoundMs();
    const BreachStep step = what.tracker.Round(what.high, periodRounds);
    if (what.high) what.limit = limit;
    switch (step) {
        case BreachStep::kNone: return;
        case BreachStep::kReached:
            Warn(what.kind, WarningStage::kReached, value, limit, 0, "", "");
            // What is said of the threads later is about the breach, not about the time before it.
            if (what.kind == ResourceKind::kCpu) zelhost::CThreadFacts::Instance().MarkBaseline();
            return;
        case BreachStep::kRecovered:
            return Warn(what.kind, WarningStage::kRecovered, value, what.limit, sustainedMs, "", "");
        case BreachStep::kSustained:
            ++m_now.selfKillWarnings;
            return Warn(what.kind, WarningStage::kSustained, value, limit, sustainedMs, "", "");
        case BreachStep::kKill: break;
    }
    // Descriptors are warned about only: a process that keeps many open harms nobody but itself.
    if (what.kind == ResourceKind::kDescriptors) return;
    if (m_settings.options.selfKill) SelfKill(what, value, sustainedMs);
}

std::string CResourceMonitor::Impl::BuildRecord(const Supervised& what, int64_t value, int64_t sustainedMs,
                                                int64_t wallTime) {
    Json::Value root;
    root["version"] = 1;
    root["process"] = m_settings.processName;
    root["pid"] = static_cast<Json::Int64>(getpid());
    root["time"] = static_cast<Json::Int64>(wallTime);
    root["kind"] = KindName(what.kind);
    root["value"] = static_cast<Json::Int64>(value);
    root["limit"] = static_cast<Json::Int64>(what.limit);
    root["sustained_ms"] = static_cast<Json::Int64>(sustainedMs);
    root["breaches"] = what.tracker.Breaches();
    Json::Value& figures = root["figures"];
    figures["cpu_100times"] = static_cast<Json::Int64>(m_now.cpu100Times);
    figures["cpu_minute_100times"] = static_cast<Json::Int64>(m_now.cpuMinute100Times);
    figures["cpu_window_100times"] = static_cast<Json::Int64>(m_now.cpuWindow100Times);
    figures["cpu_hour_100times"] = static_cast<Json::Int64>(m_now.cpuHour100Times);
    figures["mem_kb"] = static_cast<Json::Int64>(m_now.memKb);
    figures["read_kbps"] = static_cast<Json::Int64>(m_now.readKbps);
    figures["write_kbps"] = static_cast<Json::Int64>(m_now.writeKbps);
    figures["descriptors"] = static_cast<Json::Int64>(m_now.descriptors);
    figures["load_avg"] = m_now.loadAvg;
    figures["rounds"] = static_cast<Json::UInt64>(m_totals.rounds);
    figures["missed_rounds"] = static_cast<Json::UInt64>(m_now.missedRounds);
    Json::Value& limits = root["limits"];
    limits["max_cpu"] = m_maxCpu.load();
    limits["max_mem_mb"] = m_maxMem.load();
    limits["max_fd"] = m_maxFd.load();
    limits["max_read_io"] = m_maxReadIo.load();
    limits["max_write_io"] = m_maxWriteIo.load();
    limits["whole_machine"] = m_solaris.load();
    zelhost::AddKernelLimits(limits);
    root["threads"] = Json::Value(Json::arrayValue);
    for (const auto& thread : zelhost::CThreadFacts::Instance().Busiest(kRecordThreads)) {
        Json::Value item;
        item["tid"] = static_cast<Json::Int64>(thread.tid);
        item["name"] = thread.name;
        item["load_100times"] = thread.avgLoad;
        item["system_100times"] = thread.sysLoad;
        root["threads"].append(item);
    }
    if (what.kind == ResourceKind::kCpu && !root["threads"].empty()) {
        const auto tid = static_cast<unsigned int>(root["threads"][0]["tid"].asInt64());
        root["busiest_thread_stack"] = ReadKernelStack(tid);
    }
    std::string extra;
    if (m_sink != nullptr) m_sink->OnBuildRecord(what.kind, extra);
    root["extra"] = extra.substr(0, zelhost::kRecordExtraBytes);
    return zelhost::RecordText(root);
}

void CResourceMonitor::Impl::SelfKill(const Supervised& what, int64_t value, int64_t sustainedMs) {
    SelfKillRecord record;
    record.kind = what.kind;
    record.value = value;
    record.limit = what.limit;
    record.sustainedMs = sustainedMs;
    record.wallTime = time(nullptr);
    ++m_now.selfKillRequests;
    try {
        record.json = BuildRecord(what, value, sustainedMs, record.wallTime);
    } catch (...) {
        record.json = "{}\n";
    }
    std::string reason;
    record.path =
        zelhost::KeepRecord(m_settings, KindName(what.kind), record.wallTime, ++m_recordNumber, record.json, reason);
    if (record.path.empty()) {
        Log(zel::kLogError, __LINE__, "the self-kill record could not be written: %s", reason.c_str());
    }
    Log(zel::kLogError, __LINE__, "%s at its maximum for a second breach period in a row (%s of %s): %s, record %s",
        KindName(what.kind), Quantity(what.kind, value).c_str(), Quantity(what.kind, what.limit).c_str(),
        m_sink != nullptr ? "asking the host to stop this process" : "nobody to ask", record.path.c_str());
    if (m_sink == nullptr) return;
    try {
        m_sink->OnSelfKill(record);
    } catch (...) {
        Log(zel::kLogWarning, __LINE__, "%s", "the event sink threw on a self-kill");
    }
}

void CResourceMonitor::Impl::CheckHeartbeats(int64_t elapsedMs) {
    m_changes.clear();
    m_heartbeats.Round(elapsedMs, RoundMs(), m_changes);
    for (ThreadStall& change : m_changes) {
        if (change.recovered) {
            Log(zel::kLogInfo, __LINE__, "thread %u (%s) reports again", change.tid, change.name.c_str());
        } else {
            change.gone = !ThreadExists(change.tid);
            if (change.gone) {
                m_heartbeats.Remove(change.tid);
            } else {
                change.stack = ReadKernelStack(change.tid);
            }
            Log(zel::kLogError, __LINE__, "thread %u (%s) %s: no heartbeat for %lld ms, %d s are allowed", change.tid,
                change.name.c_str(), change.gone ? "has ended without saying so" : "is stuck",
                static_cast<long long>(change.silentMs), change.timeoutSeconds);
        }
        if (m_sink == nullptr) continue;
        try {
            m_sink->OnThreadStalled(change);
        } catch (...) {
            Log(zel::kLogWarning, __LINE__, "%s", "the event sink threw on a stalled thread");
        }
    }
}

void CResourceMonitor::Impl::WriteWatchedRecord(const zelhost::WatchedEvent& event) {
    Json::Value root;
    root["version"] = 1;
    root["process"] = m_settings.processName;
    root["time"] = static_cast<Json::Int64>(time(nullptr));
    root["watched_pid"] = event.pid;
    root["watched_name"] = event.name;
    root["event"] = event.kind == zelhost::WatchedEvent::kEnded     ? "ended"
                    : event.kind == zelhost::WatchedEvent::kCpuHigh ? "cpu"
                                                                    : "memory";
    root["value"] = static_cast<Json::Int64>(event.value);
    std::string reason;
    const std::string path = zelhost::KeepWatchedRecord(m_settings, event.name, zelhost::RecordText(root), reason);
    if (path.empty()) {
        Log(zel::kLogWarning, __LINE__, "the record of watched process %u (%s) could not be written: %s", event.pid,
            event.name.c_str(), reason.c_str());
        return;
    }
    ++m_pidRecords;
}

void CResourceMonitor::Impl::CheckWatched() {
    m_events.clear();
    const int64_t maxCpu = m_solaris ? MaxCpu100() * m_cpus : MaxCpu100();
    m_watched.Round(m_lastNs, maxCpu, MaxMemKb(), m_events);
    for (const zelhost::WatchedEvent& event : m_events) {
        const std::string who = "watched process " + std::to_string(event.pid) + " (" + event.name + ") ";
        try {
            WriteWatchedRecord(event);
        } catch (...) {
            Log(zel::kLogWarning, __LINE__, "%s", "a watched process's record could not be built");
        }
        switch (event.kind) {
            case zelhost::WatchedEvent::kEnded:
                Warn(ResourceKind::kWatchedProcess, WarningStage::kReached, event.pid, 0, 0, event.name,
                     who + "has ended");
                break;
            case zelhost::WatchedEvent::kCpuHigh:
                Warn(ResourceKind::kWatchedCpu, WarningStage::kReached, event.value, maxCpu, 0, event.name,
                     who + "uses " + Quantity(ResourceKind::kWatchedCpu, event.value) + " CPU");
                break;
            case zelhost::WatchedEvent::kMemHigh:
                Warn(ResourceKind::kWatchedMemory, WarningStage::kReached, event.value, MaxMemKb(), 0, event.name,
                     who + "holds " + Quantity(ResourceKind::kWatchedMemory, event.value));
                break;
        }
    }
}

void CResourceMonitor::Impl::Publish() {
    m_now.rounds = m_totals.rounds;
    m_now.roundMs = RoundMs();
    m_now.maxCpu = m_maxCpu;
    m_now.solaris = m_solaris;
    m_now.maxMemMb = m_maxMem;
    m_now.maxReadIo = m_maxReadIo;
    m_now.maxWriteIo = m_maxWriteIo;
    m_now.maxDescriptors = m_maxFd;
    m_now.watchedProcesses = m_watched.Count();
    m_now.heartbeats = m_heartbeats.Count();
    m_now.stalledThreads = m_heartbeats.Stalled();
    std::lock_guard<std::mutex> lock(m_figuresLock);
    m_published = m_now;
}

void CResourceMonitor::Impl::Round() {
    if (m_tick % kReopenRounds == kReopenRounds - 1 && !(m_statm.IsOpen() && m_io.IsOpen() && m_loadavg.IsOpen())) {
        OpenFiles();
    }
    ReadCounters(m_totals);
    UpdateLevels();
    UpdateMinute();
    UpdateIo();
    Supervise();
    CheckHeartbeats(m_elapsedNs / 1000000);
    CheckWatched();
    Publish();
    try {
        m_owner.MonitorOther(m_tick);
    } catch (...) {
        Log(zel::kLogWarning, __LINE__, "%s", "an exception left the work of a round");
    }
    ++m_tick;
}

CResourceMonitor::CResourceMonitor() : m_impl(std::make_unique<Impl>(*this)) {}

CResourceMonitor::~CResourceMonitor() {
    zelhost::ClearActiveSampler(m_impl.get());
}

void CResourceMonitor::run() {
    m_impl->Loop();
}

void CResourceMonitor::MonitorOther(unsigned long) {}

bool CResourceMonitor::StartMonitor(IResourceMonitorEvent* event) {
    if (IsThreadRunning()) return false;
    m_impl->m_stop = false;
    m_impl->m_wake = base::Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_impl->m_sink = dynamic_cast<IResourceEventSink*>(event);
    if (!startThread()) return false;
    zelhost::SetActiveSampler(m_impl.get());
    return true;
}

bool CResourceMonitor::StopMonitor() {
    zelhost::ClearActiveSampler(m_impl.get());
    m_impl->m_stop = true;
    const uint64_t one = 1;
    if (m_impl->m_wake) zelhost::WriteAll(m_impl->m_wake.Get(), reinterpret_cast<const char*>(&one), sizeof(one));
    const bool stopped = stopThread();
    // Nobody samples any more: workers must not go on holding back.
    m_impl->m_cpuLevel.store(0, std::memory_order_relaxed);
    m_impl->m_memLevel.store(0, std::memory_order_relaxed);
    return stopped;
}

void CResourceMonitor::SetMaxResourceConfig(const ResourceConfig& config) {
    SetCpuSolarisMode(config.cpuAll);
    SetMaxCpu(config.maxCpu);
    SetMaxMem(config.maxMemory);
    SetMaxFdCount(config.maxFd);
    SetMaxIO(config.maxReadIo, config.maxWriteIo);
    SetMaxPidCheck(config.maxPidCheck);
    const bool window = config.auxValueA >= 1 && config.auxValueA <= kMostWindowMinutes;
    m_impl->m_windowMinutes.store(window ? config.auxValueA : kDefaultWindowMinutes, std::memory_order_relaxed);
    const bool round = config.auxValueB >= kLeastRoundMs && config.auxValueB <= kMostRoundMs;
    m_impl->m_roundMs.store(round ? config.auxValueB : kDefaultRoundMs, std::memory_order_relaxed);
}

void CResourceMonitor::SetThreadHeartbeat(unsigned int tid, const std::string& name, int timeout) {
    m_impl->m_heartbeats.Beat(tid, name, timeout);
}
void CResourceMonitor::RemoveThreadHeartbeat(unsigned int tid) {
    m_impl->m_heartbeats.Remove(tid);
}
void CResourceMonitor::SetMonitorIOEnable(bool enable) {
    m_impl->m_ioEnabled.store(enable, std::memory_order_relaxed);
}
void CResourceMonitor::SetWatcherProcess(std::map<unsigned int, std::string> processes) {
    m_impl->m_watched.Set(std::move(processes));
}
void CResourceMonitor::SetCpuSolarisMode(bool on) {
    m_impl->m_solaris.store(on, std::memory_order_relaxed);
}
bool CResourceMonitor::IsCpuSolarisMode() {
    return m_impl->m_solaris.load(std::memory_order_relaxed);
}
void CResourceMonitor::SetMaxCpu(int percent) {
    m_impl->m_maxCpu.store(percent, std::memory_order_relaxed);
}
void CResourceMonitor::SetMaxMem(int mb) {
    m_impl->m_maxMem.store(mb, std::memory_order_relaxed);
}
void CResourceMonitor::SetMaxIO(int readLimit, int writeLimit) {
    m_impl->m_maxReadIo.store(readLimit, std::memory_order_relaxed);
    m_impl->m_maxWriteIo.store(writeLimit, std::memory_order_relaxed);
}
void CResourceMonitor::SetMaxPidCheck(int count) {
    m_impl->m_watched.SetMost(count);
}
void CResourceMonitor::SetMaxFdCount(int count) {
    m_impl->m_maxFd.store(count, std::memory_order_relaxed);
}
int CResourceMonitor::GetMaxCpu() {
    return m_impl->m_maxCpu.load(std::memory_order_relaxed);
}
int CResourceMonitor::GetMaxMem() {
    return m_impl->m_maxMem.load(std::memory_order_relaxed);
}
int CResourceMonitor::GetCpuUsageLevel() {
    return m_impl->m_cpuLevel.load(std::memory_order_relaxed);
}
int CResourceMonitor::GetMemUsageLevel() {
    return m_impl->m_memLevel.load(std::memory_order_relaxed);
}
bool CResourceMonitor::GetCpuHighAllRound() {
    return m_impl->m_highAllRound.load(std::memory_order_relaxed);
}
bool CResourceMonitor::GetCpuBusyLastHour() {
    return m_impl->m_busyLastHour.load(std::memory_order_relaxed);
}
bool CResourceMonitor::GetAvgCpuMinuteBusy() {
    return m_impl->m_minuteBusy.load(std::memory_order_relaxed);
}
bool CResourceMonitor::GetAvgCpuWindowBusy() {
    return m_impl->m_windowBusy.load(std::memory_order_relaxed);
}

bool CResourceMonitor::FetchResourceMonitorInfo(ResourceMonitorInfo& info) {
    std::lock_guard<std::mutex> lock(m_impl->m_figuresLock);
    if (!m_impl->m_infoValid) return false;
    info = m_impl->m_info;
    return true;
}

namespace zelhost {
namespace {
std::mutex g_contextLock;
CResourceMonitor::Impl* g_active = nullptr;
SamplingSettings g_settings;
}  // namespace

void SetSamplingSettings(const SamplingSettings& settings) {
    std::lock_guard<std::mutex> lock(g_contextLock);
    g_settings = settings;
}
SamplingSettings GetSamplingSettings() {
    std::lock_guard<std::mutex> lock(g_contextLock);
    return g_settings;
}
void SetActiveSampler(CResourceMonitor::Impl* sampler) {
    std::lock_guard<std::mutex> lock(g_contextLock);
    g_active = sampler;
}
void ClearActiveSampler(CResourceMonitor::Impl* sampler) {
    std::lock_guard<std::mutex> lock(g_contextLock);
    if (g_active == sampler) g_active = nullptr;
}
bool ReadActiveSampler(SamplerFigures& figures) {
    std::lock_guard<std::mutex> lock(g_contextLock);
    if (g_active == nullptr) return false;
    std::lock_guard<std::mutex> inner(g_active->m_figuresLock);
    figures = g_active->m_published;
    return figures.rounds > 0;
}

}  // namespace zelhost
