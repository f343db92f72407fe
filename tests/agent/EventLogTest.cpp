// Events of several processes and of files put aside, what comes later, and what an ordinary user is told.
#include "EventLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "ShowEvents.h"
#include "support/Files.h"

using namespace agent;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class EventLogTest : public ::testing::Test {
protected:
    static std::string Line(const std::string& id, int time, const std::string& type = "T_MSG_X") {
        return "{\"id\":\"" + id + "\",\"time\":" + std::to_string(time) + ",\"process\":\"tervane\",\"type\":\"" +
               type + "\",\"body\":\"{}\"}\n";
    }
    std::string File(const std::string& process) const { return m_directory / ("log/" + process + ".events.jsonl"); }
    void Add(const std::string& path, const std::string& text) {
        ASSERT_TRUE(support::WriteText(path, support::ReadText(path) + text));
    }
    EventPage Read(const EventQuery& query) const { return ReadEvents(m_directory.Path(), query); }
    static std::vector<std::string> Ids(const std::vector<TailEvent>& events) {
        std::vector<std::string> ids;
        for (const TailEvent& event : events) ids.push_back(event.id);
        return ids;
    }
    support::TempDir m_directory;
};

/// Runs the view as another user with what it prints in files. Returns: exit code, -1 where there is no other user.
int RunAsNobody(const EventsOptions& options, const std::string& out, const std::string& error) {
    const pid_t child = fork();
    if (child == 0) {
        if (freopen(out.c_str(), "w", stdout) == nullptr || freopen(error.c_str(), "w", stderr) == nullptr) _exit(99);
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) _exit(98);
        const int code = RunEvents(options);
        fflush(nullptr);
        _exit(code);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST_F(EventLogTest, ProcessesAndFilesPutAsideComeInTheOrderOfTime) {
    Add(File("tervane") + ".1", Line("a-1", 10) + Line("a-2", 30));
    Add(File("tervane"), Line("a-3", 50) + "no event\n" + Line("a-4", 70));
    Add(File("QorNet"), Line("b-1", 20) + Line("b-2", 60));
    EventQuery query;
    EXPECT_THAT(Ids(Read(query).events), ElementsAre("a-1", "b-1", "a-2", "a-3", "b-2", "a-4"));
    EXPECT_THAT(Read(query).unread, IsEmpty());
    query.most = 3;
    EXPECT_THAT(Ids(Read(query).events), ElementsAre("a-3", "b-2", "a-4"));
    EXPECT_TRUE(Read(query).cut);
    query.most = 20;
    query.process = "QorNet";
    EXPECT_THAT(Ids(Read(query).events), ElementsAre("b-1", "b-2"));
    query.process.clear();
    query.since = 30;
    EXPECT_THAT(Ids(Read(query).events), ElementsAre("a-2", "a-3", "b-2", "a-4"));
    query.wanted = [](const TailEvent& event) { return event.id != "a-3"; };
    EXPECT_THAT(Ids(Read(query).events), ElementsAre("a-2", "b-2", "a-4"));
    EXPECT_FALSE(Read(query).cut);
}

TEST_F(EventLogTest, AClockThatWasSetBackHidesNothing) {
    Add(File("tervane"), Line("a-1", 100) + Line("a-2", 40) + Line("a-3", 110));
    EventQuery query;
    query.since = 90;
    EXPECT_THAT(Ids(Read(query).events), ElementsAre("a-1", "a-3"));
}

TEST_F(EventLogTest, WhatIsMissingIsSaid) {
    EventPage page = Read({});
    ASSERT_THAT(page.unread, SizeIs(1));
    EXPECT_THAT(page.unread[0], HasSubstr(m_directory / "log"));
    Add(File("tervane"), Line("a-1", 1));
    EventQuery query;
    query.process = "Absent";
    page = Read(query);
    ASSERT_THAT(page.unread, SizeIs(1));
    EXPECT_THAT(page.unread[0], HasSubstr("Absent.events.jsonl is not there"));
}

TEST_F(EventLogTest, FollowsWhatIsAddedThroughARotation) {
    Add(File("tervane"), Line("a-1", 1));
    EventFollower follower(m_directory.Path(), "");
    EXPECT_THAT(follower.Next(), IsEmpty());
    const std::string half = Line("a-2", 2);
    std::ofstream(File("tervane"), std::ios::app) << half.substr(0, 10);
    EXPECT_THAT(follower.Next(), IsEmpty()) << "half a line";
    std::ofstream(File("tervane"), std::ios::app) << half.substr(10);
    EXPECT_THAT(Ids(follower.Next()), ElementsAre("a-2"));
    std::ofstream(File("tervane"), std::ios::app) << Line("a-3", 3);
    ASSERT_EQ(rename(File("tervane").c_str(), (File("tervane") + ".1").c_str()), 0);
    Add(File("tervane"), Line("a-4", 4));
    Add(File("QorNet"), Line("b-1", 5));
    EXPECT_THAT(Ids(follower.Next()), ElementsAre("a-3", "a-4", "b-1"));
    EXPECT_THAT(follower.Next(), IsEmpty());
}

TEST_F(EventLogTest, ALineOfManyMegabytesIsPassedOver) {
    Add(File("tervane"), Line("a-1", 1));
    EventFollower follower(m_directory.Path(), "");
    const std::string hidden = Line("a-2", 2);
    std::ofstream(File("tervane"), std::ios::app) << std::string(16UL << 20, 'x') << hidden << Line("a-3", 3);
    std::vector<std::string> ids;
    for (int step = 0; step < 4; ++step) {
        for (const std::string& id : Ids(follower.Next())) ids.push_back(id);
    }
    EXPECT_THAT(ids, ElementsAre("a-3")) << "the end of a long line is no event of its own";
}

TEST_F(EventLogTest, BeforeTheFirstRunItIsSaidWhatToDo) {
    EventsOptions options;
    options.appDir = m_directory / "nowhere";
    testing::internal::CaptureStderr();
    EXPECT_EQ(RunEvents(options), 2);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("nowhere/log cannot be read: No such file or directory; it is there once an agent has run"));
}

TEST_F(EventLogTest, AnOrdinaryUserIsToldWhatItMayNotRead) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP agent: not root: cannot become another user";
    Add(File("tervane"), Line("a-1", 1, "T_MSG_THREAD_STALL"));
    Add(File("QorNet"), Line("b-1", 2, "T_MSG_SELF_KILL"));
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod((m_directory / "log").c_str(), 0750), 0);
    const support::TempDir output;
    EventsOptions options;
    options.appDir = m_directory.Path();
    EXPECT_EQ(RunAsNobody(options, output / "out", output / "error"), 2);
    EXPECT_EQ(support::ReadText(output / "out"), "");
    EXPECT_THAT(support::ReadText(output / "error"),
                HasSubstr(m_directory / "log cannot be read: Permission denied; only root"));
    ASSERT_EQ(chmod((m_directory / "log").c_str(), 0755), 0);
    ASSERT_EQ(chmod(File("tervane").c_str(), 0644), 0);
    ASSERT_EQ(chmod(File("QorNet").c_str(), 0600), 0);
    EXPECT_EQ(RunAsNobody(options, output / "out", output / "error"), 1);
    EXPECT_THAT(support::ReadText(output / "out"), HasSubstr("stall"));
    EXPECT_THAT(support::ReadText(output / "error"), HasSubstr(File("QorNet") + " cannot be read"));
}
