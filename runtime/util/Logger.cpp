// The process-wide logger: callers put a record into a bounded queue, one thread formats and writes. Lines are
// formatted and distributed by spdlog; the queue is our own, because it must count what it drops, keep room for
// warnings, and cost nothing until it is used.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>

#include "LogFile.h"
#include "LogJournal.h"
#include "LogText.h"
#include "base/Mutex.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/ThreadUtil.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr size_t kMaxQueuedLines = 4096;
constexpr size_t kMaxQueuedBytes = 2 * 1024 * 1024;
constexpr size_t kKeptQueueLines = 256;  // a burst's memory beyond this is given back
// Lines of kLogInfo may fill this much of the queue; the rest is for warnings and errors.
constexpr size_t kInfoShareNumerator = 3;
constexpr size_t kInfoShareDenominator = 4;
constexpr size_t kFileBufferBytes = 64 * 1024;
constexpr unsigned long kLeastFileBytes = 4096;
constexpr unsigned int kMostFiles = 99;
constexpr auto kFlushWait = 2s;
constexpr auto kRetryInterval = 5s;  // between attempts at a file that could not be written
constexpr char kLinePattern[] = "%Y-%m-%dT%H:%M:%S.%e%z %l %* %v";
constexpr char kWriterThreadName[] = "zel-log";
constexpr char kOwnSource[] = "Logger";

struct Record {
    std::chrono::system_clock::time_point time;
    int level = kLogInfo;
    unsigned long threadId = 0;
    int line = 0;
    std::string source;
    std::string text;
    size_t cutBytes = 0;  ///< of the text

    size_t Bytes() const { return sizeof(Record) + source.size() + text.size(); }
};

spdlog::level::level_enum ToSpdlog(int level) {
    if (level < kLogError) return spdlog::level::critical;
    if (level > kLogInfo) return spdlog::level::debug;
    return level == kLogError ? spdlog::level::err : level == kLogWarning ? spdlog::level::warn : spdlog::level::info;
}

int ToZel(spdlog::level::level_enum level) {
    return spdlog::level::critical - level + 1;
}

// "name[pid:tid] source:line", the part of a line that tells where it comes from.
class OriginFlag final : public spdlog::custom_flag_formatter {
public:
    explicit OriginFlag(std::string processName) : m_processName(std::move(processName)) {}

    void format(const spdlog::details::log_msg& message, const std::tm&, spdlog::memory_buf_t& out) override {
        fmt::format_to(std::back_inserter(out), "{}[{}:{}]", m_processName, ::getpid(), message.thread_id);
        if (message.source.filename != nullptr && *message.source.filename != '\0') {
            fmt::format_to(std::back_inserter(out), " {}:{}", message.source.filename, message.source.line);
        }
    }

    std::unique_ptr<custom_flag_formatter> clone() const override {
        return std::make_unique<OriginFlag>(m_processName);
    }

private:
    const std::string m_processName;
};

std::unique_ptr<spdlog::formatter> MakeLineFormatter(const std::string& processName, const std::string& lineEnd) {
    auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::local, lineEnd);
    formatter->add_flag<OriginFlag>('*', processName).set_pattern(kLinePattern);
    return formatter;
}

// Keeps every signal away from the thread that writes: the host's handlers belong to the host's threads, and a closed
// pipe behind stderr must not end the process.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_before{};
};

void WriteToStderr(std::string_view text) {
    while (!text.empty()) {
        const ssize_t put = base::RetryOnSignal([&] { return ::write(STDERR_FILENO, text.data(), text.size()); });
        if (put <= 0) return;  // nothing is left to complain to
        text.remove_prefix(static_cast<size_t>(put));
    }
}

using Sink = spdlog::sinks::base_sink<spdlog::details::null_mutex>;  // only the writing thread enters a sink

class ConsoleSink final : public Sink {
protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        WriteToStderr({line.data(), line.size()});
    }
    void flush_() override {}
};

class TapSink final : public Sink {
public:
    explicit TapSink(std::atomic<LogTap>& tap) : m_tap(tap) {}

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        const LogTap tap = m_tap.load(std::memory_order_acquire);
        if (tap == nullptr) return;
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        tap(ToZel(message.level), std::string(line.data(), line.size()));
    }
    void flush_() override {}

private:
    std::atomic<LogTap>& m_tap;
};

class JournalSink final : public Sink {
public:
    explicit JournalSink(std::string processName) : m_processName(std::move(processName)) {}

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        JournalEntry entry;
        // Syslog's error, warning and informational are 3, 4 and 6; our levels are 2, 3 and 4.
        const int level = ToZel(message.level);
        entry.priority = level <= kLogWarning ? level + 1 : level + 2;
        entry.identifier = m_processName;
        entry.source = message.source.filename == nullptr ? "" : message.source.filename;
        entry.line = message.source.line;
        entry.threadId = message.thread_id;
        entry.text = std::string_view(message.payload.data(), message.payload.size());
        m_journal.Send(entry);
    }
    void flush_() override {}

private:
    const std::string m_processName;
    LogJournal m_journal;
};

// The file, and stderr in its place while it cannot be written.
class FileSink final : public Sink {
public:
    FileSink(const LogOptions& options, std::atomic<unsigned long>& redirected)
        : m_file(options.directory, LogFileStem(options.processName) + ".log", options.maxBytes, options.maxFiles),
          m_consoleToo(options.console),
          m_bufferBytes(std::min<unsigned long>(kFileBufferBytes, options.maxBytes)),
          m_redirected(redirected) {}

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        if (m_buffer.size() + line.size() > m_bufferBytes) flush_();
        m_buffer.append(line.data(), line.size());
        ++m_buffered;
    }

    void flush_() override {
        if (m_buffer.empty()) return;
        const bool mayTry = !m_failing || Clock::now() >= m_nextAttempt;
        if (mayTry && m_file.Write(m_buffer)) {
            if (m_failing) WriteToStderr("the log file is written again\n");
            m_failing = false;
        } else {
            if (mayTry) StartFailing();
            // With the console on, stderr has had these lines already.
            if (!m_consoleToo) WriteToStderr(m_buffer);
            m_redirected.fetch_add(m_buffered, std::memory_order_relaxed);
        }
        m_buffer.clear();
        m_buffered = 0;
    }

private:
    // Said once for as long as it lasts.
    void StartFailing() {
        if (!m_failing) WriteToStderr("log file: " + m_file.Error() + "; lines go to stderr until it can be written\n");
        m_failing = true;
        m_nextAttempt = Clock::now() + kRetryInterval;
    }

    LogFile m_file;
    const bool m_consoleToo;
    const size_t m_bufferBytes;
    std::atomic<unsigned long>& m_redirected;
    std::string m_buffer;
    unsigned long m_buffered = 0;
    bool m_failing = false;
    Clock::time_point m_nextAttempt{};
};

LogOptions Completed(LogOptions options) {
    if (options.directory.empty()) options.directory = CToolUtil::GetApplicationDirPath() + "/log";
    if (options.processName.empty()) options.processName = ::program_invocation_short_name;
    options.processName = LogFileStem(options.processName);
    options.maxBytes = std::max(options.maxBytes, kLeastFileBytes);
    options.maxFiles = std::clamp(options.maxFiles, 1U, kMostFiles);
    return options;
}

// The logger itself. Never destroyed: other threads and static objects may log until the very end.
class Logger {
public:
    Logger() = default;
    // For a forked child: the same set-up, none of the parent's lines and no writing thread yet.
    explicit Logger(Logger* parent) : m_parent(parent), m_options(parent->m_options), m_isSetUp(parent->m_isSetUp) {
        m_maxLevel.store(parent->m_maxLevel.load(std::memory_order_relaxed), std::memory_order_relaxed);
        m_tap.store(parent->m_tap.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    bool Wants(int level) const { return level <= m_maxLevel.load(std::memory_order_relaxed); }

    void Submit(Record&& record) {
        const size_t bytes = record.Bytes();
        base::MutexLock lock(m_mutex);
        if (m_ended) {
            lock.unlock();
            WriteLate(record);
            return;
        }
        if (!HasRoom(record.level, bytes)) {
            ++m_dropped;
            return;
        }
        m_queue.push_back(std::move(record));
        m_queuedBytes += bytes;
        ++m_submitted;
        StartWriter();
        // A writer that has work already looks at the queue again before it waits.
        const bool wake = m_queue.size() == 1;
        lock.unlock();
        if (wake) m_work.notify_one();
    }

    void Configure(const LogOptions& options) {
        base::MutexLock guard(m_mutex);
        m_maxLevel.store(options.maxLevel, std::memory_order_relaxed);
        m_options = options;
        m_isSetUp = true;
        m_configure = true;  // the writer changes over before it takes up further lines
    }

    void Name(const std::string& processName) {
        base::MutexLock guard(m_mutex);
        if (m_isSetUp) return;
        m_options.processName = processName;
        m_configure = true;
    }

    bool Flush() {
        base::MutexLock lock(m_mutex);
        return WaitUntilCompleted(m_submitted);
    }

    void SetTap(LogTap tap) { m_tap.store(tap, std::memory_order_release); }

    LogCounters Counters() {
        base::MutexLock guard(m_mutex);
        LogCounters counters;
        counters.written = m_completed;
        counters.dropped = m_dropped;
        counters.redirected = m_redirected.load(std::memory_order_relaxed);
        return counters;
    }

    // The end of the process: writes what is queued. A writer that hangs in a dead disk is left behind.
    void End() {
        base::MutexLock lock(m_mutex);
        m_ended = true;
        if (!m_writer.joinable()) {
            const SignalsBlocked aroundTheWrite;
            WriteQueue();
            return;
        }
        m_work.notify_one();
        const bool drained = WaitUntilCompleted(m_submitted);
        std::thread writer = std::move(m_writer);
        lock.unlock();
        if (drained) {
            writer.join();
        } else {
            writer.detach();
        }
    }

    // Held around a fork.
    void LockForFork() ZEL_ACQUIRE(m_mutex) { m_mutex.lock(); }
    void UnlockAfterFork() ZEL_RELEASE(m_mutex) { m_mutex.unlock(); }

private:
    // Returns: false when it took too long.
    bool WaitUntilCompleted(unsigned long target) ZEL_REQUIRES(m_mutex) {
        const Clock::time_point end = Clock::now() + kFlushWait;
        while (m_completed < target) {
            if (m_progress.wait_until(m_mutex, end) == std::cv_status::timeout) return m_completed >= target;
        }
        return true;
    }

    bool HasRoom(int level, size_t bytes) const ZEL_REQUIRES(m_mutex) {
        size_t lines = kMaxQueuedLines;
        size_t most = kMaxQueuedBytes;
        if (level >= kLogInfo) {
            lines = lines * kInfoShareNumerator / kInfoShareDenominator;
            most = most * kInfoShareNumerator / kInfoShareDenominator;
        }
        return m_queue.size() < lines && m_queuedBytes + bytes <= most;
    }

    void StartWriter() ZEL_REQUIRES(m_mutex) {
        if (m_writer.joinable()) return;
        try {
            const SignalsBlocked inherited;
            m_writer = std::thread([this] { WriteLoop(); });
        } catch (const std::exception&) {
            // No thread to be had now: the next line tries again, and the end of the process writes what is queued.
        }
    }

    void WriteLoop() {
        CThreadUtil::SetThreadName(kWriterThreadName);
        base::MutexLock lock(m_mutex);
        for (;;) {
            while (m_queue.empty() && !m_ended) m_work.wait(m_mutex);
            if (m_queue.empty()) return;
            WriteQueue();
        }
    }

    // Writes everything that is queued now. The lock is released while writing.
    void WriteQueue() ZEL_REQUIRES(m_mutex) {
        m_batch.swap(m_queue);
        m_queuedBytes = 0;
        const unsigned long dropped = m_dropped - m_droppedTold;
        m_droppedTold = m_dropped;
        const bool configure = m_configure || m_sinks.empty();
        m_configure = false;
        const LogOptions options = configure ? m_options : LogOptions();
        m_mutex.unlock();
        if (configure) OpenSinks(options);
        for (const Record& record : m_batch) WriteRecord(record);
        if (dropped != 0) TellDropped(dropped);
        for (const auto& sink : m_sinks) sink->flush();
        m_mutex.lock();
        m_completed += m_batch.size();
        m_batch.clear();
        if (m_batch.capacity() > kKeptQueueLines) m_batch.shrink_to_fit();
        m_progress.notify_all();
    }

    void OpenSinks(const LogOptions& wanted) {
        m_sinks.clear();
        const LogOptions options = Completed(wanted);
        // The console first: it has had a line by the time the file fails and tells about it.
        if (options.console) Add<ConsoleSink>(options, "\n");
        if (options.file) Add<FileSink>(options, "\n", options, m_redirected);
        if (options.journald) Add<JournalSink>(options, "", options.processName);
        Add<TapSink>(options, "", m_tap);
    }

    template <class Kind, class... Args>
    void Add(const LogOptions& options, const char* lineEnd, Args&&... args) {
        auto sink = std::make_unique<Kind>(std::forward<Args>(args)...);
        sink->set_formatter(MakeLineFormatter(options.processName, lineEnd));
        m_sinks.push_back(std::move(sink));
    }

    void WriteRecord(const Record& record) {
        const std::string text = SanitizeLogText(record.text, record.cutBytes);
        const std::string source = SanitizeLogText(record.source);
        spdlog::details::log_msg message(record.time, spdlog::source_loc(source.c_str(), record.line, ""), "",
                                         ToSpdlog(record.level), text);
        message.thread_id = record.threadId;
        for (const auto& sink : m_sinks) {
            try {
                sink->log(message);
            } catch (const std::exception&) {
                // A line that one place refuses is lost there; the other places still get it.
            }
        }
    }

    void TellDropped(unsigned long count) {
        Record record;
        record.time = std::chrono::system_clock::now();
        record.level = kLogWarning;
        record.threadId = CThreadUtil::GetCurrentThreadId();
        record.line = __LINE__;
        record.source = kOwnSource;
        record.text = std::to_string(count) + " log lines were dropped, the log could not be written fast enough";
        WriteRecord(record);
    }

    // A line after the writer has gone, from a static object's destructor.
    void WriteLate(const Record& record) {
        const SignalsBlocked aroundTheWrite;
        if (!m_mutex.try_lock()) return;
        try {
            WriteLastWords(record);
        } catch (const std::exception&) {
            // Nothing is left to tell it to.
        }
        m_mutex.unlock();
    }

    void WriteLastWords(const Record& record) ZEL_REQUIRES(m_mutex) {
        if (m_completed != m_submitted) return;
        if (m_sinks.empty()) OpenSinks(m_options);
        WriteRecord(record);
        for (const auto& sink : m_sinks) sink->flush();
    }

    std::atomic<int> m_maxLevel{kLogInfo};
    std::atomic<LogTap> m_tap{nullptr};
    std::atomic<unsigned long> m_redirected{0};

    // In a forked child, so that what it inherited counts as reachable.
    [[maybe_unused]] Logger* const m_parent = nullptr;

    base::Mutex m_mutex;
    base::Condition m_work;
    base::Condition m_progress;
    LogOptions m_options ZEL_GUARDED_BY(m_mutex);
    bool m_isSetUp ZEL_GUARDED_BY(m_mutex) = false;  ///< by the host, which names what it wants named
    bool m_configure ZEL_GUARDED_BY(m_mutex) = false;
    bool m_ended ZEL_GUARDED_BY(m_mutex) = false;
    unsigned long m_submitted ZEL_GUARDED_BY(m_mutex) = 0;
    unsigned long m_completed ZEL_GUARDED_BY(m_mutex) = 0;
    unsigned long m_dropped ZEL_GUARDED_BY(m_mutex) = 0;
    unsigned long m_droppedTold ZEL_GUARDED_BY(m_mutex) = 0;
    size_t m_queuedBytes ZEL_GUARDED_BY(m_mutex) = 0;
    std::vector<Record> m_queue ZEL_GUARDED_BY(m_mutex);
    std::thread m_writer ZEL_GUARDED_BY(m_mutex);

    std::vector<Record> m_batch;                 ///< of the writing thread
    std::vector<std::unique_ptr<Sink>> m_sinks;  ///< of the writing thread
};

std::atomic<Logger*> g_logger{nullptr};
std::once_flag g_loggerOnce;

// A child made by fork has no writing thread, and the parent's may have been anywhere: the child starts afresh. The
// lock is taken around the fork so that what it copies is whole; its old logger stays locked and is never used again.
void BeforeFork() ZEL_NO_THREAD_SAFETY_ANALYSIS {
    g_logger.load()->LockForFork();
}

void AfterForkInParent() ZEL_NO_THREAD_SAFETY_ANALYSIS {
    g_logger.load()->UnlockAfterFork();
}

void AfterForkInChild() {
    g_logger.store(new Logger(g_logger.load()));
}

Logger& TheLogger() {
    std::call_once(g_loggerOnce, [] {
        g_logger.store(new Logger);
        ::pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
        std::atexit([] { g_logger.load()->End(); });
    });
    return *g_logger.load(std::memory_order_acquire);
}

void Submit(int level, std::string text, const char* source, int line) {
    Logger& logger = TheLogger();
    if (!logger.Wants(level)) return;
    Record record;
    record.time = std::chrono::system_clock::now();
    record.level = level;
    record.threadId = CThreadUtil::GetCurrentThreadId();
    record.line = line;
    if (source != nullptr) record.source = source;
    record.cutBytes = CutLogText(text);
    record.text = std::move(text);
    logger.Submit(std::move(record));
}

}  // namespace

CLogMessage* CLogMessage::GetInstance() {
    static CLogMessage message;
    return &message;
}

void CLogMessage::WriteLogMessage(const std::string& text, int level) {
    const int errorBefore = errno;
    Submit(level, text, nullptr, 0);
    errno = errorBefore;
}

void CLogMessage::log(int level, const char* sourceFileName, int line, const char* format, ...) {
    const int errorBefore = errno;
    if (!TheLogger().Wants(level)) return;
    errno = errorBefore;  // for "%m"
    std::string text;
    va_list args;
    va_start(args, format);
    char* formatted = nullptr;
    if (::vasprintf(&formatted, format, args) >= 0) {
        text = formatted;
        ::free(formatted);
    } else {
        text = format;
    }
    va_end(args);
    Submit(level, std::move(text), sourceFileName, line);
    errno = errorBefore;
}

void ConfigureLog(const LogOptions& options) {
    TheLogger().Configure(options);
}
void NameLog(const std::string& processName) {
    TheLogger().Name(processName);
}

bool FlushLog() {
    return TheLogger().Flush();
}

void SetLogTap(LogTap tap) {
    TheLogger().SetTap(tap);
}

LogCounters GetLogCounters() {
    return TheLogger().Counters();
}

}  // namespace zel
