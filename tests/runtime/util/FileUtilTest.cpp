// Whole-file operations against real files: what is there, what is not, what is too big, links, full and failing disks.
#include "platform/zel/FileUtil.h"

#include <climits>

#include <fcntl.h>

#include "support/FileTests.h"

using testing::IsEmpty;
using zel::CFileCom;
using zel::CFileUtil;

namespace {

class FileUtilTest : public FilesFixture {
protected:
    std::list<std::string> m_lines{"before"};
    std::string m_text = "before";
};

TEST_F(FileUtilTest, IsFileTellsRegularFilesFromEverythingElse) {
    WriteText(m_dir / "file", "");
    ASSERT_EQ(0, ::symlink("file", (m_dir / "link").c_str()));
    ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
    EXPECT_TRUE(CFileUtil::IsFile(m_dir / "file"));
    EXPECT_FALSE(CFileUtil::IsFile(m_dir / "link"));
    EXPECT_FALSE(CFileUtil::IsFile(m_dir / "pipe"));
    EXPECT_FALSE(CFileUtil::IsFile(m_dir.Path()));
    EXPECT_FALSE(CFileUtil::IsFile(m_dir / "missing"));
    EXPECT_FALSE(CFileUtil::IsFile("/dev/null"));
    EXPECT_FALSE(CFileUtil::IsFile(""));
}

struct LineCase {
    const char* name;
    std::string content;
    unsigned long limit;
    std::list<std::string> lines;
};

class FileLinesTest : public testing::TestWithParam<LineCase> {};

TEST_P(FileLinesTest, ComeBackWithoutTheirEnds) {
    const TempDir dir;
    WriteText(dir / "file", GetParam().content);
    std::list<std::string> lines{"before"};
    EXPECT_TRUE(CFileUtil::ReadFileLineToList(dir / "file", lines, GetParam().limit));
    EXPECT_EQ(GetParam().lines, lines);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FileLinesTest,
    testing::Values(LineCase{"Empty", "", 10, {}}, LineCase{"OneWithEnd", "a\n", 10, {"a"}},
                    LineCase{"OneWithoutEnd", "a", 10, {"a"}}, LineCase{"EmptyLines", "\n\n", 10, {"", ""}},
                    LineCase{"DosEnds", "a\r\nb\r\n", 10, {"a", "b"}},
                    LineCase{"CarriageReturnInside", "a\rb\n\r\n", 10, {"a\rb", ""}},
                    LineCase{"ExactlyTheLimit", "a\nb\n", 2, {"a", "b"}},
                    LineCase{"LongerThanTheLimit", "a\nb\nc", 2, {"a", "b"}}, LineCase{"LimitZero", "a\n", 0, {}},
                    LineCase{"Binary", std::string("\0\x01\n\xff", 4), 10, {std::string("\0\x01", 2), "\xff"}},
                    LineCase{"AcrossChunks",
                             std::string(40000, 'x') + "\n" + std::string(20000, 'y'),
                             10,
                             {std::string(40000, 'x'), std::string(20000, 'y')}}),
    [](const auto& one) { return std::string(one.param.name); });

TEST_F(FileUtilTest, LinesOfProcFilesAreRead) {
    // The kernel gives such files no size.
    EXPECT_TRUE(CFileUtil::ReadFileLineToList("/proc/self/status", m_lines, 10240));
    EXPECT_THAT(m_lines.front(), testing::StartsWith("Name:"));
    EXPECT_TRUE(CFileUtil::ReadFileLineToList("/proc/vmstat", m_lines, 3));
    EXPECT_EQ(3U, m_lines.size());
}

TEST_F(FileUtilTest, FailedReadsLeaveTheOutputsAsTheyWere) {
    WriteText(m_dir / "file", "text\n");
    ASSERT_EQ(0, ::symlink("file", (m_dir / "link").c_str()));
    ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
    for (const std::string& path :
         {m_dir / "missing", m_dir / "link", m_dir / "pipe", m_dir.Path(), std::string("/dev/zero"), std::string()}) {
        EXPECT_FALSE(CFileUtil::ReadFileLineToList(path, m_lines, 10)) << path;
        EXPECT_FALSE(CFileUtil::ReadFullFile(path, m_text, 10)) << path;
    }
    const Failing broken(Call::kRead, EIO, 1, 2);
    EXPECT_FALSE(CFileUtil::ReadFileLineToList(m_dir / "file", m_lines, 10));
    EXPECT_FALSE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 10));
    EXPECT_THAT(m_lines, ElementsAre("before"));
    EXPECT_EQ("before", m_text);
}

TEST_F(FileUtilTest, ReadErrorsInTheMiddleAreFailures) {
    WriteText(m_dir / "file", std::string(40000, 'x'));
    const Failing broken(Call::kRead, EIO, 2);
    EXPECT_FALSE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 100000));
    EXPECT_EQ("before", m_text);
}

TEST_F(FileUtilTest, InterruptedReadsAreCarriedOn) {
    WriteText(m_dir / "file", "a\nb\n");
    {
        const Failing interrupted(Call::kRead, EINTR, 1, 3);
        EXPECT_TRUE(CFileUtil::ReadFileLineToList(m_dir / "file", m_lines, 10));
        EXPECT_GT(interrupted.Calls(), 3);
    }
    const Failing interrupted(Call::kRead, EINTR, 2, 2);
    EXPECT_TRUE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 10));
    EXPECT_THAT(m_lines, ElementsAre("a", "b"));
    EXPECT_EQ("a\nb\n", m_text);
}

TEST_F(FileUtilTest, AnEndlessLineIsRefused) {
    const int fd = ::open((m_dir / "sparse").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(0, ::ftruncate(fd, 65L * 1024 * 1024));
    ::close(fd);
    EXPECT_FALSE(CFileUtil::ReadFileLineToList(m_dir / "sparse", m_lines, 10));
    EXPECT_THAT(m_lines, ElementsAre("before"));
}

TEST_F(FileUtilTest, AFullReadTakesUpToTheLimitAndRefusesMore) {
    WriteText(m_dir / "file", "12345");
    EXPECT_FALSE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 4));
    EXPECT_EQ("before", m_text);
    EXPECT_TRUE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 5));
    EXPECT_EQ("12345", m_text);
    WriteText(m_dir / "file", std::string(65536, 'x'));
    EXPECT_FALSE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 65535));
    EXPECT_TRUE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 65536));
    EXPECT_EQ(65536U, m_text.size());
    EXPECT_TRUE(CFileUtil::ReadFullFile(m_dir / "file", m_text, ULONG_MAX));
    WriteText(m_dir / "file", "");
    EXPECT_TRUE(CFileUtil::ReadFullFile(m_dir / "file", m_text, 0));
    EXPECT_EQ("", m_text);
}

TEST_F(FileUtilTest, WriteNewFileMakesExactlyTheTextWithItsMode) {
    const mode_t umaskBefore = ::umask(0077);
    EXPECT_TRUE(CFileUtil::WriteNewFile(m_dir / "file", "no end added", false));
    ::umask(umaskBefore);
    EXPECT_EQ("no end added", ReadText(m_dir / "file"));
    EXPECT_EQ(0640, ModeOf(m_dir / "file"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file"));
}

TEST_F(FileUtilTest, WriteNewFileReplacesAWiderAndLongerFile) {
    WriteText(m_dir / "file", std::string(10000, 'o'));
    ASSERT_EQ(0, ::chmod((m_dir / "file").c_str(), 0666));
    EXPECT_TRUE(CFileUtil::WriteNewFile(m_dir / "file", "", true));
    EXPECT_EQ("", ReadText(m_dir / "file"));
    EXPECT_EQ(0640, ModeOf(m_dir / "file"));
}

TEST_F(FileUtilTest, WriteNewFileRefusesWhatIsNoRegularFile) {
    WriteText(m_dir / "target", "untouched");
    ASSERT_EQ(0, ::symlink("target", (m_dir / "link").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (m_dir / "dangling").c_str()));
    ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
    for (const std::string& path : {m_dir / "link", m_dir / "dangling", m_dir / "pipe", m_dir.Path(),
                                    m_dir / "missing/file", std::string("/dev/full"), std::string()}) {
        EXPECT_FALSE(CFileUtil::WriteNewFile(path, "text", false)) << path;
    }
    EXPECT_EQ("untouched", ReadText(m_dir / "target"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("dangling", "link", "pipe", "target"));
}

TEST_F(FileUtilTest, ShortAndInterruptedWritesAreCarriedOn) {
    {
        const ShortWrites slow(3);
        EXPECT_TRUE(CFileUtil::WriteNewFile(m_dir / "file", "0123456789", false));
    }
    EXPECT_EQ("0123456789", ReadText(m_dir / "file"));
    const Failing interrupted(Call::kWrite, EINTR, 1, 2);
    EXPECT_TRUE(CFileUtil::WriteNewFile(m_dir / "file", "again", false));
    EXPECT_EQ("again", ReadText(m_dir / "file"));
}

TEST_F(FileUtilTest, FailedWritesLeaveTheOldFileAndNoOther) {
    WriteText(m_dir / "file", "old");
    {
        const ShortWrites slow(3);
        const Failing full(Call::kWrite, ENOSPC, 2);
        EXPECT_FALSE(CFileUtil::WriteNewFile(m_dir / "file", "0123456789", false));
    }
    {
        const Failing broken(Call::kFsync, EIO);
        EXPECT_FALSE(CFileUtil::WriteNewFile(m_dir / "file", "0123456789", true));
    }
    EXPECT_EQ("old", ReadText(m_dir / "file"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file"));
}

TEST_F(FileUtilTest, OnlyDurableWriteSyncsTheFileAndThenItsDirectory) {
    {
        const Failing counter(Call::kFsync, EIO, 100);
        EXPECT_TRUE(CFileUtil::WriteNewFile(m_dir / "file", "text", false));
        EXPECT_EQ(0, counter.Calls());
        EXPECT_TRUE(CFileUtil::WriteNewFile(m_dir / "file", "text", true));
        EXPECT_EQ(2, counter.Calls());
    }
    const Failing directoryFails(Call::kFsync, EIO, 2);
    EXPECT_FALSE(CFileUtil::WriteNewFile(m_dir / "file", "newer", true));
}

TEST_F(FileUtilTest, AFullDiskFailsTheWriteAndKeepsTheOldFile) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(CFileUtil::WriteNewFile(disk / "file", "old", false));
    disk.Fill();
    EXPECT_FALSE(CFileUtil::WriteNewFile(disk / "file", std::string(8192, 'n'), false));
    EXPECT_EQ("old", ReadText(disk / "file"));
    EXPECT_THAT(NamesIn(disk.Path()), ElementsAre("file", "filler"));
    ASSERT_TRUE(CFileUtil::RemoveFile(disk / "filler"));
    EXPECT_TRUE(CFileUtil::WriteNewFile(disk / "file", std::string(8192, 'n'), false));
}

TEST_F(FileUtilTest, AReadOnlyDiskFailsEveryChange) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(CFileUtil::WriteNewFile(disk / "file", "old", false));
    ASSERT_TRUE(disk.MakeReadOnly());
    EXPECT_FALSE(CFileUtil::WriteNewFile(disk / "file", "new", false));
    EXPECT_FALSE(CFileUtil::RemoveFile(disk / "file"));
    EXPECT_FALSE(CFileCom(disk / "file").rename(disk / "other"));
    EXPECT_EQ("old", ReadText(disk / "file"));
}

TEST_F(FileUtilTest, RemoveFileTellsWhetherThereWasOne) {
    WriteText(m_dir / "file", "");
    EXPECT_TRUE(CFileUtil::RemoveFile(m_dir / "file"));
    EXPECT_FALSE(CFileUtil::RemoveFile(m_dir / "file"));
    EXPECT_FALSE(CFileUtil::RemoveFile(m_dir.Path()));
    EXPECT_THAT(NamesIn(m_dir.Path()), IsEmpty());
}

TEST_F(FileUtilTest, RenameReplacesTheTarget) {
    WriteText(m_dir / "from", "new");
    WriteText(m_dir / "to", "old");
    EXPECT_TRUE(CFileCom(m_dir / "from").rename(m_dir / "to"));
    EXPECT_EQ("new", ReadText(m_dir / "to"));
    EXPECT_FALSE(CFileCom(m_dir / "from").rename(m_dir / "to"));
    EXPECT_FALSE(CFileCom(m_dir / "to").rename(m_dir / "missing/to"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("to"));
}

TEST_F(FileUtilTest, NoOperationLeavesADescriptorOpen) {
    WriteText(m_dir / "file", "text");
    const size_t before = support::OpenDescriptors();
    for (int round = 0; round < 3; ++round) {
        CFileUtil::ReadFileLineToList(m_dir / "file", m_lines, 1);
        CFileUtil::ReadFullFile(m_dir / "file", m_text, 1);
        CFileUtil::ReadFullFile(m_dir.Path(), m_text, 1);
        CFileUtil::WriteNewFile(m_dir / "file", "text", true);
    }
    EXPECT_EQ(before, support::OpenDescriptors());
}

}  // namespace
