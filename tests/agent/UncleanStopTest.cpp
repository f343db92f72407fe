// The verdict on a run that did not end in order, from each combination of evidence, and the files that carry it.
#include "UncleanStop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

#include "AgentPaths.h"
#include "JsonText.h"
#include "support/Faults.h"
#include "support/Files.h"

using namespace agent;

namespace {

constexpr char kKill[] = "Memory cgroup out of memory: Killed process 77 (tervane) total-vm:90000kB, anon-rss:50000kB";
/// The second of the two lines that older kernels write; the first says "Kill process" and can name another.
constexpr char kOldKill[] = "Killed process 77 (tervane) total-vm:90000kB, anon-rss:50000kB, file-rss:0kB";

RunMark Mark() {
    return {77, "boot-a", 1700000000, 5000000};
}

EndNote Note(const char* code, const char* status, int64_t kills) {
    return {77, "signal", code, status, kills};
}

struct Row {
    const char* name;
    const char* bootId;
    std::optional<EndNote> note;
    KernelWord kernel;
    EndCause cause;
    bool certain;
    const char* known;    ///< a part of it
    const char* unknown;  ///< a part of it; empty: nothing is unknown
};

/// Whatever would make a file longer fails, as on a full disk.
class NoFileGrows {
public:
    NoFileGrows() : m_before(signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_limit);
        const rlimit none{0, m_limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &none);
    }
    ~NoFileGrows() {
        setrlimit(RLIMIT_FSIZE, &m_limit);
        signal(SIGXFSZ, m_before);
    }
    NoFileGrows(const NoFileGrows&) = delete;
    NoFileGrows& operator=(const NoFileGrows&) = delete;

private:
    sighandler_t m_before;
    rlimit m_limit{};
};

std::string Words(const std::vector<std::string>& words) {
    std::string all;
    for (const std::string& word : words) all += word + "\n";
    return all;
}

}  // namespace

TEST(UncleanStopTest, EachCombinationOfEvidenceHasItsVerdict) {
    EndNote foreign = Note("killed", "KILL", 3);
    foreign.pid = 76;
    const std::vector<Row> rows = {
        {"kernel", "boot-a", {}, {"", kKill}, EndCause::kOutOfMemory, true, "Killed process 77", "which limit"},
        {"kernel and note",
         "boot-a",
         Note("killed", "KILL", 1),
         {"", kKill},
         EndCause::kOutOfMemory,
         true,
         "out-of-memory kills in its own group: 1",
         "which limit"},
        {"counters only",
         "boot-a",
         Note("killed", "KILL", 1),
         {"denied", ""},
         EndCause::kOutOfMemory,
         false,
         "result signal, killed KILL",
         "the kernel's log cannot be read: denied"},
        {"kernel of two lines", "boot-a", {}, {"", kOldKill}, EndCause::kOutOfMemory, true, kOldKill, "which limit"},
        {"counters against the kernel",
         "boot-a",
         Note("killed", "KILL", 1),
         {},
         EndCause::kOutOfMemory,
         false,
         "has no kill of it",
         "which limit"},
        {"no counters", "boot-a", Note("killed", "KILL", 0), {}, EndCause::kSignal, true, "has no kill", "who sent"},
        {"other signal", "boot-a", Note("dumped", "SEGV", 0), {}, EndCause::kSignal, true, "dumped SEGV", "who sent"},
        {"no groups left",
         "boot-a",
         Note("killed", "KILL", -1),
         {},
         EndCause::kSignal,
         true,
         "killed KILL",
         "the counters of its own group"},
        {"exit", "boot-a", Note("exited", "1", 0), {}, EndCause::kExit, true, "exited 1", ""},
        {"nothing", "boot-a", {}, {"denied", ""}, EndCause::kUnknown, false, "", "no service manager left a note"},
        {"note of another run", "boot-a", foreign, {}, EndCause::kUnknown, false, "has no kill", "no service manager"},
        {"reboot", "boot-b", {}, {"", kKill}, EndCause::kReboot, false, "started anew", "whether it had ended before"},
        {"end, then reboot", "boot-b", Note("killed", "TERM", 0), {}, EndCause::kSignal, true, "killed TERM", "who"},
        {"no boot known", "", {}, {"", kKill}, EndCause::kOutOfMemory, true, "Killed process 77", "which limit"},
    };
    for (const Row& row : rows) {
        const UncleanStop stop = JudgeUncleanStop(Mark(), row.bootId, row.note, row.kernel);
        EXPECT_EQ(row.cause, stop.cause) << row.name;
        EXPECT_EQ(row.certain, stop.certain) << row.name;
        EXPECT_THAT(Words(stop.known), testing::HasSubstr(row.known)) << row.name;
        EXPECT_THAT(Words(stop.unknown), testing::HasSubstr(row.unknown)) << row.name;
        EXPECT_EQ(*row.unknown == '\0', stop.unknown.empty()) << row.name;
    }
}

TEST(UncleanStopTest, OnlyTheKernelsKillOfThatProcessCounts) {
    EXPECT_TRUE(IsKillOf(77, kKill));
    EXPECT_TRUE(IsKillOf(77, "Out of memory: Killed process 77 (x) total-vm:1kB"));
    EXPECT_FALSE(IsKillOf(7, kKill));
    EXPECT_FALSE(IsKillOf(777, kKill));
    EXPECT_TRUE(IsKillOf(77, kOldKill));
    EXPECT_FALSE(IsKillOf(7, kOldKill));
    EXPECT_FALSE(IsKillOf(77, "Killed process 77 (tervane)"));
    EXPECT_FALSE(IsKillOf(77, std::string("somebody says: ") + kOldKill));
    EXPECT_FALSE(IsKillOf(77, "Memory cgroup out of memory: Kill process 77 (tervane) score 9 or sacrifice child"));
    EXPECT_FALSE(IsKillOf(77, "oom-kill:constraint=CONSTRAINT_MEMCG,task=tervane,pid=77,uid=0"));
    EXPECT_FALSE(IsKillOf(77, ""));
}

TEST(UncleanStopTest, MarkAndNoteComeBackAndGarbageDoesNot) {
    const auto mark = ParseRunMark(FormatRunMark(Mark()));
    ASSERT_TRUE(mark.Ok());
    EXPECT_EQ(FormatRunMark(Mark()), FormatRunMark(*mark));
    const EndNote note = Note("killed", "KILL", 4);
    const auto again = ParseEndNote(FormatEndNote(note));
    ASSERT_TRUE(again.Ok());
    EXPECT_EQ(FormatEndNote(note), FormatEndNote(*again));
    for (const char* text : {"", "[]", "{", "{}", "{\"pid\": 0}", "{\"pid\": \"1\"}", "{\"pid\": 99999999999}"}) {
        EXPECT_FALSE(ParseRunMark(text).Ok()) << text;
    }
    const auto hostile = ParseEndNote("{\"pid\": 1, \"result\": \"a\\nb\", \"code\": \"x y\", \"status\": 5}");
    ASSERT_TRUE(hostile.Ok());
    EXPECT_EQ("", hostile->result + hostile->code + hostile->status);
}

TEST(UncleanStopTest, OnlyAnEndInOrderTakesTheMarkAway) {
    support::TempDir dir;
    ASSERT_TRUE(support::WriteText(RunMarkFile(dir.Path(), "tervane") + ".dir", ""));
    RunRecord first(dir.Path());
    EXPECT_FALSE(first.Begin().has_value());
    RunRecord second(dir.Path());
    const auto news = second.Begin();
    ASSERT_TRUE(news.has_value());
    const auto body = ParseJson(news->body);
    ASSERT_TRUE(body.Ok());
    EXPECT_EQ(getpid(), (*body)["pid"].asInt());
    EXPECT_EQ("unknown", (*body)["cause"].asString());
    EXPECT_THAT(news->line, testing::HasSubstr("did not end in order"));
    second.End();
    RunRecord third(dir.Path());
    EXPECT_FALSE(third.Begin().has_value());
    RunRecord untouched(dir.Path());
    untouched.End();
    EXPECT_TRUE(support::Exists(RunMarkFile(dir.Path(), "tervane"))) << "it had not begun";
}

TEST(UncleanStopTest, AMarkThatCannotBeRenewedIsToldOnce) {
    support::TempDir dir;
    ASSERT_TRUE(support::WriteText(RunMarkFile(dir.Path(), "tervane"), FormatRunMark(Mark())));
    {
        const NoFileGrows full;
        RunRecord unmarked(dir.Path());
        EXPECT_TRUE(unmarked.Begin().has_value());
        unmarked.End();
    }
    RunRecord next(dir.Path());
    EXPECT_FALSE(next.Begin().has_value()) << "the run before it ended in order";
}

TEST(UncleanStopTest, AMarkThatIsNotSyncedGoesWithItsRun) {
    support::TempDir dir;
    ASSERT_TRUE(support::WriteText(RunMarkFile(dir.Path(), "tervane") + ".dir", ""));
    RunRecord run(dir.Path());
    {
        const faults::Failing directory(faults::Call::kFsync, EIO, 2);
        EXPECT_FALSE(run.Begin().has_value());
    }
    run.End();
    EXPECT_FALSE(support::Exists(RunMarkFile(dir.Path(), "tervane"))) << "the next start would tell of a bad end";
}

TEST(UncleanStopTest, TheManagersWordReachesTheNextStart) {
    support::TempDir dir;
    ASSERT_TRUE(support::WriteText(RunMarkFile(dir.Path(), "tervane") + ".dir", ""));
    EXPECT_EQ(0, NoteEnd(dir.Path()));
    EXPECT_FALSE(support::Exists(EndNoteFile(dir.Path(), "tervane"))) << "nothing was under way";
    RunRecord first(dir.Path());
    EXPECT_FALSE(first.Begin().has_value());
    setenv("SERVICE_RESULT", "signal", 1);
    setenv("EXIT_CODE", "killed", 1);
    setenv("EXIT_STATUS", "SEGV", 1);
    EXPECT_EQ(0, NoteEnd(dir.Path()));
    for (const char* name : {"SERVICE_RESULT", "EXIT_CODE", "EXIT_STATUS"}) unsetenv(name);
    RunRecord second(dir.Path());
    const auto news = second.Begin();
    ASSERT_TRUE(news.has_value());
    EXPECT_THAT(news->line, testing::HasSubstr("by a signal; known: "));
    EXPECT_THAT(news->line, testing::HasSubstr("result signal, killed SEGV"));
    EXPECT_FALSE(support::Exists(EndNoteFile(dir.Path(), "tervane"))) << "it would be told of the next run too";
}
