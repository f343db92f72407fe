// The logger as its users see it: the lines in the file, what happens when there are too many, and when they cannot be
// written.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "support/Files.h"
#include "support/SmallDisk.h"
#include "support/StderrCapture.h"
#include "support/Waiting.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ThreadUtil.h"

#if defined(__SANITIZE_THREAD__)
#define ZEL_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEL_THREAD_SANITIZER 1
#endif
#endif

using support::CountOf;
using support::LinesOf;
using support::ModeOf;
using support::NamesIn;
using support::ReadText;
using support::Signal;
using support::SmallDisk;
using support::StderrCapture;
using support::TempDir;
using support::WriteText;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using zel::CLogMessage;
using zel::ConfigureLog;
using zel::FlushLog;
using zel::GetLogCounters;
using zel::LogOptions;
using zel::SetLogTap;

namespace {

class LoggerTest : public testing::Test {
protected:
    LoggerTest() {
        m_options.directory = m_dir / "log";
        m_options.processName = "Tervane";
    }
    ~LoggerTest() override {
        SetLogTap(nullptr);
        // The next test's lines must not land in a directory that is gone.
        LogOptions nowhere;
        nowhere.file = false;
        ConfigureLog(nowhere);
        CLogMessage::GetInstance()->WriteLogMessage("", zel::kLogError);
        FlushLog();
    }

    void Configure() { ConfigureLog(m_options); }

    static void Write(const std::string& text, int level = zel::kLogInfo) {
        CLogMessage::GetInstance()->WriteLogMessage(text, level);
    }

    /// What is queued takes a slow machine longer than one call waits.
    std::vector<std::string> Lines() {
        EXPECT_TRUE(support::Eventually([] { return FlushLog(); }));
        return LinesOf(ReadText(m_path));
    }

    TempDir m_dir;
    std::string m_path = m_dir / "log/Tervane.log";
    LogOptions m_options;
};

TEST_F(LoggerTest, ALineTellsWhenHowBadWhoWhereAndWhat) {
    Configure();
    CLogMessage::GetInstance()->log(zel::kLogWarning, "MonitorPri", 88, "limit %s fail, error is %d", "cpu", 5);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(1U, lines.size());
    const std::string origin = "Tervane\\[" + std::to_string(::getpid()) + ":" +
                               std::to_string(zel::CThreadUtil::GetCurrentThreadId()) + "\\] MonitorPri:88";
    EXPECT_THAT(lines[0],
                testing::MatchesRegex("[0-9]{4}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}"
                                      "[+-][0-9]{2}:[0-9]{2} warning " +
                                      origin + " limit cpu fail, error is 5"));
    EXPECT_EQ(0640, ModeOf(m_path));
}

TEST_F(LoggerTest, AFixedTextIsDataAndHasNoSource) {
    Configure();
    Write("100%s {} %n", zel::kLogError);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_THAT(lines[0], HasSubstr(" error Tervane["));
    EXPECT_THAT(lines[0], EndsWith("] 100%s {} %n"));
}

TEST_F(LoggerTest, ANameDoesNotOverruleAHostThatHasSetItUp) {
    Configure();
    zel::NameLog("Another");
    Write("a line");
    EXPECT_EQ(1U, Lines().size());
    EXPECT_EQ(1U, NamesIn(m_dir / "log").size());
}

TEST_F(LoggerTest, LevelsBeyondTheThreeHaveNamesToo) {
    m_options.maxLevel = 9;
    Configure();
    for (const int level : {0, 2, 3, 4, 7}) Write("level " + std::to_string(level), level);
    std::vector<std::string> names;
    for (const std::string& line : Lines()) names.push_back(line.substr(30, line.find(' ', 30) - 30));
    EXPECT_THAT(names, ElementsAre("critical", "error", "warning", "info", "debug"));
}

TEST_F(LoggerTest, LessSevereLinesThanWantedAreNotWritten) {
    m_options.maxLevel = zel::kLogWarning;
    Configure();
    Write("info", zel::kLogInfo);
    CLogMessage::GetInstance()->log(zel::kLogInfo, "Monitor", 1, "%s", "info");
    Write("warning", zel::kLogWarning);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_THAT(lines[0], EndsWith(" warning"));
}

TEST_F(LoggerTest, NoTextPassesForALineOfItsOwn) {
    Configure();
    Write("report\nrow one\n\x1b[2Jrow two\n");
    CLogMessage::GetInstance()->log(zel::kLogInfo, "Moni\ntor", 1, "%s", "a\rb");
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(5U, lines.size());
    EXPECT_THAT(lines[0], EndsWith("] report"));
    EXPECT_EQ("    row one", lines[1]);
    EXPECT_EQ("    \\x1b[2Jrow two", lines[2]);
    EXPECT_EQ("    tor:1 a\\rb", lines[4]);
}

TEST_F(LoggerTest, AHugeTextIsCut) {
    Configure();
    Write(std::string(1000000, 'x'));
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_LT(lines[0].size(), 70000U);
    EXPECT_THAT(lines[0], EndsWith("x ... (934464 bytes cut)"));
}

TEST_F(LoggerTest, ErrnoSurvivesAndIsUsableInAFormat) {
    Configure();
    errno = ENOENT;
    CLogMessage::GetInstance()->log(zel::kLogInfo, "Monitor", 1, "%m");
    EXPECT_EQ(ENOENT, errno);
    Write("text");
    EXPECT_EQ(ENOENT, errno);
    EXPECT_THAT(Lines()[0], EndsWith(" No such file or directory"));
}

TEST_F(LoggerTest, ManyThreadsLoseNothingAndKeepTheirOrder) {
    Configure();
    constexpr int kThreads = 8;
    constexpr int kLines = 250;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (int line = 0; line < kLines; ++line) {
                CLogMessage::GetInstance()->log(zel::kLogInfo, "T", line, "thread=%d line=%d", thread, line);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<int> next(kThreads, 0);
    const std::vector<std::string> lines = Lines();
    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
    for (const std::string& line : lines) {
        int thread = -1;
        int number = -1;
        ASSERT_EQ(2, std::sscanf(line.c_str() + line.find("thread="), "thread=%d line=%d", &thread, &number)) << line;
        EXPECT_EQ(next[static_cast<size_t>(thread)]++, number);
    }
}

// --- a writer that does not get on ---

Signal* g_entered = nullptr;
Signal* g_release = nullptr;

void BlockingTap(int, const std::string&) {
    g_entered->Set();
    g_release->Wait();
}

class StalledLoggerTest : public LoggerTest {
protected:
    StalledLoggerTest() {
        g_entered = &m_entered;
        g_release = &m_release;
        Configure();
        SetLogTap(BlockingTap);
        Write("the line that the writer sits in");
        EXPECT_TRUE(m_entered.Wait());
    }
    ~StalledLoggerTest() override {
        m_release.Set();
        SetLogTap(nullptr);
        FlushLog();  // the writer is out of the tap before the signals go
    }

    Signal m_entered;
    Signal m_release;
};

TEST_F(StalledLoggerTest, CallersGoOnAndLossesAreCountedAndTold) {
    const unsigned long before = GetLogCounters().dropped;
    for (int i = 0; i < 5000; ++i) Write("info " + std::to_string(i));
    const unsigned long dropped = GetLogCounters().dropped - before;
    EXPECT_GT(dropped, 0UL);
    m_release.Set();
    const std::vector<std::string> lines = Lines();
    // Told once, with the very number, and nothing else is missing.
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
                  return line.find(" " + std::to_string(dropped) + " log lines were dropped") != std::string::npos;
              }));
    EXPECT_EQ(5002 - dropped, lines.size());
}

TEST_F(StalledLoggerTest, WarningsFindRoomWhereInformationDoesNot) {
    for (int i = 0; i < 5000; ++i) Write("info");
    Write("important", zel::kLogWarning);
    m_release.Set();
    const std::vector<std::string> lines = Lines();
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(),
                               [](const std::string& line) { return line.find("important") != std::string::npos; }));
}

TEST_F(StalledLoggerTest, TheQueueIsBoundedInBytesToo) {
    const unsigned long before = GetLogCounters().dropped;
    const std::string large(60000, 'x');
    for (int i = 0; i < 100; ++i) Write(large, zel::kLogError);
    EXPECT_GT(GetLogCounters().dropped - before, 60UL);
}

// --- where lines go ---

std::vector<std::string>* g_tapped = nullptr;

TEST_F(LoggerTest, TheTapSeesEveryLineWithItsLevel) {
    std::vector<std::string> tapped;
    g_tapped = &tapped;
    Configure();
    SetLogTap([](int level, const std::string& line) { g_tapped->push_back(std::to_string(level) + "|" + line); });
    Write("one", zel::kLogWarning);
    Write("two", zel::kLogInfo);
    EXPECT_TRUE(FlushLog());
    SetLogTap(nullptr);
    Write("three");
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(3U, lines.size());
    EXPECT_THAT(tapped, ElementsAre("3|" + lines[0], "4|" + lines[1]));
}

TEST_F(LoggerTest, TheConsoleGetsTheSameLines) {
    m_options.console = true;
    StderrCapture capture;
    Configure();
    Write("text");
    const std::vector<std::string> lines = Lines();
    EXPECT_EQ(lines, LinesOf(capture.Text()));
    EXPECT_EQ(1U, lines.size());
}

TEST_F(LoggerTest, WithoutAFileNoDirectoryIsMade) {
    m_options.file = false;
    Configure();
    Write("text");
    EXPECT_TRUE(FlushLog());
    EXPECT_THAT(NamesIn(m_dir.Path()), testing::IsEmpty());
}

TEST_F(LoggerTest, AMissingJournalIsNoReasonForAWord) {
    m_options.journald = true;
    StderrCapture capture;
    Configure();
    Write("text");
    EXPECT_EQ(1U, Lines().size());
    EXPECT_EQ("", capture.Text());
}

TEST_F(LoggerTest, ProcessNamesCannotLeaveTheDirectory) {
    m_options.processName = "../../evil";
    Configure();
    Write("text");
    EXPECT_TRUE(FlushLog());
    EXPECT_THAT(NamesIn(m_dir / "log"), ElementsAre("___.._evil.log"));
}

TEST_F(LoggerTest, AFullFileMovesAside) {
    m_options.maxBytes = 4096;
    m_options.maxFiles = 3;
    Configure();
    for (int i = 0; i < 300; ++i) Write("some text of a line " + std::to_string(i));
    EXPECT_TRUE(FlushLog());
    EXPECT_THAT(NamesIn(m_dir / "log"), ElementsAre("Tervane.log", "Tervane.log.1", "Tervane.log.2"));
    for (const char* name : {"log/Tervane.log", "log/Tervane.log.1", "log/Tervane.log.2"}) {
        EXPECT_LE(ReadText(m_dir / name).size(), 4096U);
    }
    EXPECT_THAT(LinesOf(ReadText(m_path)).back(), EndsWith(" 299"));
}

TEST_F(LoggerTest, OutOfRangeBoundsAreBroughtIntoRange) {
    m_options.maxBytes = 0;
    m_options.maxFiles = 0;
    Configure();
    for (int i = 0; i < 300; ++i) Write("some text of a line " + std::to_string(i));
    EXPECT_TRUE(FlushLog());
    EXPECT_THAT(NamesIn(m_dir / "log"), ElementsAre("Tervane.log"));
    EXPECT_GT(ReadText(m_path).size(), 0U);
}

// --- a place that cannot be written ---

TEST_F(LoggerTest, LinesGoToStderrAfterOneWordWithoutDirectory) {
    WriteText(m_dir / "log", "a file in the way");
    const unsigned long before = GetLogCounters().redirected;
    StderrCapture capture;
    Configure();
    Write("one");
    EXPECT_TRUE(FlushLog());
    Write("two");
    EXPECT_TRUE(FlushLog());
    const std::vector<std::string> lines = LinesOf(capture.Text());
    ASSERT_EQ(3U, lines.size());
    EXPECT_EQ("log file: cannot open directory " + (m_dir / "log") +
                  ": Not a directory; lines go to stderr until it can be written",
              lines[0]);
    EXPECT_THAT(lines[1], EndsWith("] one"));
    EXPECT_THAT(lines[2], EndsWith("] two"));
    EXPECT_EQ(2UL, GetLogCounters().redirected - before);
}

TEST_F(LoggerTest, TheConsoleDoesNotGetRedirectedLinesTwice) {
    WriteText(m_dir / "log", "a file in the way");
    m_options.console = true;
    StderrCapture capture;
    Configure();
    Write("one");
    EXPECT_TRUE(FlushLog());
    EXPECT_EQ(1U, CountOf(capture.Text(), "] one\n"));
}

TEST_F(LoggerTest, AFullDiskSendsLinesToStderr) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    m_options.directory = disk / "log";
    StderrCapture capture;
    Configure();
    Write("first");
    EXPECT_TRUE(FlushLog());
    disk.Fill();
    for (int i = 0; i < 100; ++i) Write("no room for this: " + std::string(100, 'x'));
    EXPECT_TRUE(FlushLog());
    const std::string text = capture.Text();
    EXPECT_EQ(1U, CountOf(text, "No space left on device"));
    EXPECT_GT(CountOf(text, "no room for this"), 0U);
    EXPECT_THAT(ReadText(disk / "log/Tervane.log"), HasSubstr("] first\n"));
}

TEST_F(LoggerTest, AReadOnlyDiskSendsLinesToStderr) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(disk.MakeReadOnly());
    m_options.directory = disk / "log";
    StderrCapture capture;
    Configure();
    Write("text");
    EXPECT_TRUE(FlushLog());
    const std::string text = capture.Text();
    EXPECT_EQ(1U, CountOf(text, "Read-only file system"));
    EXPECT_EQ(1U, CountOf(text, "] text\n"));
}

TEST_F(LoggerTest, AClosedPipeBehindStderrDoesNotEndTheProcess) {
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[0]);
    ::close(ends[1]);
    m_options.console = true;
    Configure();
    Write("text");
    const size_t lines = Lines().size();
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    EXPECT_EQ(1U, lines);
}

// --- the ends of processes ---

int ExitCodeOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(LoggerTest, AForkedChildHasALogOfItsOwn) {
#ifdef ZEL_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer does not allow threads in a forked child";
#endif
    Configure();
    Write("parent");
    const pid_t child = ::fork();
    if (child == 0) {
        Write("child");
        ::_exit(FlushLog() ? 0 : 1);
    }
    EXPECT_EQ(0, ExitCodeOf(child));
    Write("parent again");
    std::vector<std::string> lines = Lines();
    ASSERT_EQ(3U, lines.size());
    std::sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) { return a.back() < b.back(); });
    EXPECT_THAT(lines[0], HasSubstr("[" + std::to_string(child) + ":" + std::to_string(child) + "] child"));
}

TEST_F(LoggerTest, ExitWritesWhatIsQueued) {
#ifdef ZEL_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer does not allow threads in a forked child";
#endif
    Configure();
    const pid_t child = ::fork();
    if (child == 0) {
        for (int i = 0; i < 1000; ++i) Write("line " + std::to_string(i));
        std::exit(0);
    }
    EXPECT_EQ(0, ExitCodeOf(child));
    EXPECT_EQ(1000U, LinesOf(ReadText(m_path)).size());
}

}  // namespace
