// The rotating file: bounds, modes, links, other processes, full disks.
#include "LogFile.h"

#include "support/FileTests.h"

using testing::HasSubstr;
using zel::LogFile;

namespace {

constexpr std::chrono::milliseconds kAlwaysCheck{0};
constexpr unsigned long kRoomy = 1000000;

class LogFileTest : public FilesFixture {
protected:
    LogFile Make(unsigned long maxBytes = kRoomy, unsigned int maxFiles = 3) {
        return LogFile(m_dir / "log", "p.log", maxBytes, maxFiles, kAlwaysCheck);
    }

    std::string m_path = m_dir / "log/p.log";
};

TEST_F(LogFileTest, MakesDirectoryAndFileForTheAgentAlone) {
    LogFile file = Make();
    EXPECT_TRUE(file.Write("a\n"));
    EXPECT_TRUE(file.Write("b\n"));
    EXPECT_EQ("a\nb\n", ReadText(m_path));
    EXPECT_EQ(0640, ModeOf(m_path));
    EXPECT_EQ(0750, ModeOf(m_dir / "log"));
}

TEST_F(LogFileTest, GoesOnAtTheEndOfAnExistingFile) {
    ASSERT_EQ(0, ::mkdir((m_dir / "log").c_str(), 0700));
    WriteText(m_path, "before\n");
    LogFile file = Make();
    EXPECT_TRUE(file.Write("a\n"));
    EXPECT_EQ("before\na\n", ReadText(m_path));
}

TEST_F(LogFileTest, KeepsNoMoreFilesAndBytesThanAllowed) {
    LogFile file = Make(10, 3);
    for (const char* line : {"111\n", "222\n", "333\n", "444\n", "555\n", "666\n", "777\n", "888\n", "999\n"}) {
        EXPECT_TRUE(file.Write(line));
    }
    EXPECT_THAT(NamesIn(m_dir / "log"), ElementsAre("p.log", "p.log.1", "p.log.2"));
    EXPECT_EQ("999\n", ReadText(m_path));
    EXPECT_EQ("777\n888\n", ReadText(m_path + ".1"));
    EXPECT_EQ("555\n666\n", ReadText(m_path + ".2"));
}

TEST_F(LogFileTest, EmptiesItsOnlyFile) {
    LogFile file = Make(6, 1);
    EXPECT_TRUE(file.Write("111\n"));
    EXPECT_TRUE(file.Write("222\n"));
    EXPECT_THAT(NamesIn(m_dir / "log"), ElementsAre("p.log"));
    EXPECT_EQ("222\n", ReadText(m_path));
}

TEST_F(LogFileTest, EmptiesWhatCannotBeMovedAside) {
    LogFile file = Make(6, 2);
    EXPECT_TRUE(file.Write("111\n"));
    ASSERT_EQ(0, ::mkdir((m_path + ".1").c_str(), 0700));
    WriteText(m_path + ".1/keep", "");
    EXPECT_TRUE(file.Write("222\n"));
    EXPECT_EQ("222\n", ReadText(m_path));
}

TEST_F(LogFileTest, FollowsARenameByALogCleaner) {
    LogFile file = Make();
    EXPECT_TRUE(file.Write("a\n"));
    ASSERT_EQ(0, ::rename(m_path.c_str(), (m_dir / "taken").c_str()));
    EXPECT_TRUE(file.Write("b\n"));
    EXPECT_EQ("a\n", ReadText(m_dir / "taken"));
    EXPECT_EQ("b\n", ReadText(m_path));
}

TEST_F(LogFileTest, TwoWritersOfOneNameRotateOnce) {
    LogFile one = Make(10, 3);
    LogFile two = Make(10, 3);
    EXPECT_TRUE(one.Write("1111\n"));
    EXPECT_TRUE(two.Write("2222\n"));
    EXPECT_TRUE(one.Write("3333\n"));  // moves both writers' lines aside
    EXPECT_TRUE(two.Write("4444\n"));  // finds the new file
    EXPECT_EQ("3333\n4444\n", ReadText(m_path));
    EXPECT_EQ("1111\n2222\n", ReadText(m_path + ".1"));
}

TEST_F(LogFileTest, RefusesLinksPipesAndSecondNames) {
    ASSERT_EQ(0, ::mkdir((m_dir / "log").c_str(), 0700));
    WriteText(m_dir / "target", "untouched");
    ASSERT_EQ(0, ::symlink("../target", m_path.c_str()));
    LogFile file = Make();
    EXPECT_FALSE(file.Write("a\n"));
    EXPECT_THAT(file.Error(), HasSubstr("cannot open " + m_path + ": "));

    ASSERT_EQ(0, ::unlink(m_path.c_str()));
    ASSERT_EQ(0, ::link((m_dir / "target").c_str(), m_path.c_str()));
    EXPECT_FALSE(file.Write("a\n"));
    EXPECT_THAT(file.Error(), HasSubstr("has a second name"));

    ASSERT_EQ(0, ::unlink(m_path.c_str()));
    ASSERT_EQ(0, ::mkfifo(m_path.c_str(), 0600));
    EXPECT_FALSE(file.Write("a\n"));
    EXPECT_EQ("untouched", ReadText(m_dir / "target"));

    ASSERT_EQ(0, ::unlink(m_path.c_str()));
    EXPECT_TRUE(file.Write("a\n"));
    EXPECT_EQ("", file.Error());
}

TEST_F(LogFileTest, RefusesADirectoryThatIsALinkOrAFile) {
    ASSERT_EQ(0, ::mkdir((m_dir / "elsewhere").c_str(), 0700));
    ASSERT_EQ(0, ::symlink("elsewhere", (m_dir / "log").c_str()));
    LogFile file = Make();
    EXPECT_FALSE(file.Write("a\n"));
    EXPECT_THAT(file.Error(), HasSubstr("cannot open directory " + (m_dir / "log")));
    EXPECT_THAT(NamesIn(m_dir / "elsewhere"), testing::IsEmpty());
    ASSERT_EQ(0, ::unlink((m_dir / "log").c_str()));
    WriteText(m_dir / "log", "");
    EXPECT_FALSE(file.Write("a\n"));
}

TEST_F(LogFileTest, SaysThatTheParentIsMissing) {
    LogFile file(m_dir / "no/log", "p.log", kRoomy, 3);
    EXPECT_FALSE(file.Write("a\n"));
    EXPECT_EQ("cannot make directory " + (m_dir / "no/log") + ": No such file or directory", file.Error());
}

TEST_F(LogFileTest, StartsANewLineAfterABrokenOffOne) {
    LogFile file = Make();
    {
        const ShortWrites slow(3);
        const Failing full(Call::kWrite, ENOSPC, 2);
        EXPECT_FALSE(file.Write("12345\n"));
        EXPECT_EQ("cannot write " + m_path + ": No space left on device", file.Error());
    }
    EXPECT_TRUE(file.Write("next\n"));
    EXPECT_EQ("123\nnext\n", ReadText(m_path));
}

TEST_F(LogFileTest, InterruptedAndShortWritesAreCarriedOn) {
    LogFile file = Make();
    const ShortWrites slow(2);
    const Failing interrupted(Call::kWrite, EINTR, 1, 2);
    EXPECT_TRUE(file.Write("12345\n"));
    EXPECT_EQ("12345\n", ReadText(m_path));
}

TEST_F(LogFileTest, ComesBackWhenAFullDiskIsFreed) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    LogFile file(disk / "log", "p.log", kRoomy, 3, kAlwaysCheck);
    EXPECT_TRUE(file.Write("a\n"));
    disk.Fill();
    const std::string tooMuch(8192, 'x');
    EXPECT_FALSE(file.Write(tooMuch + "\n"));
    EXPECT_THAT(file.Error(), HasSubstr("No space left on device"));
    ASSERT_EQ(0, ::unlink((disk / "filler").c_str()));
    EXPECT_TRUE(file.Write("b\n"));
    const std::string text = ReadText(disk / "log/p.log");
    EXPECT_THAT(text, testing::StartsWith("a\n"));
    EXPECT_THAT(text, testing::EndsWith("\nb\n"));
}

TEST_F(LogFileTest, FailsOnAReadOnlyDisk) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(disk.MakeReadOnly());
    LogFile file(disk / "log", "p.log", kRoomy, 3);
    EXPECT_FALSE(file.Write("a\n"));
    EXPECT_THAT(file.Error(), HasSubstr("Read-only file system"));
}

}  // namespace
