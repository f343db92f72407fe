// Durable replacement of files and what surrounds it.
#include "SecureFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include "HostSupport.h"

using namespace zelhost;

TEST(SecureFileTest, ReplacesWholeAndLeavesNoOtherFile) {
    support::TempDir dir;
    std::string reason;
    ASSERT_TRUE(WriteFileDurably(dir / "f", "one", reason)) << reason;
    ASSERT_TRUE(WriteFileDurably(dir / "f", "two", reason)) << reason;
    EXPECT_EQ(support::ReadText(dir / "f"), "two");
    EXPECT_EQ(support::NamesIn(dir.Path()), Lines{"f"});
    struct stat st {};
    ASSERT_EQ(stat((dir / "f").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST(SecureFileTest, AFailureKeepsTheOldContentAndGivesItsReason) {
    support::TempDir dir;
    std::string reason;
    EXPECT_FALSE(WriteFileDurably(dir / "none/f", "x", reason));
    EXPECT_THAT(reason, testing::HasSubstr("No such file"));
    ASSERT_EQ(mkdir((dir / "target").c_str(), 0700), 0);
    EXPECT_FALSE(WriteFileDurably(dir / "target", "x", reason));
    EXPECT_EQ(support::NamesIn(dir.Path()), Lines{"target"});
}

TEST(SecureFileTest, ALinkAtTheTargetIsReplacedNotFollowed) {
    support::TempDir dir;
    std::string reason;
    support::WriteText(dir / "victim", "precious");
    ASSERT_EQ(symlink((dir / "victim").c_str(), (dir / "f").c_str()), 0);
    ASSERT_TRUE(WriteFileDurably(dir / "f", "new", reason)) << reason;
    EXPECT_EQ(support::ReadText(dir / "victim"), "precious");
    EXPECT_EQ(support::ReadText(dir / "f"), "new");
}

TEST(SecureFileTest, DirectoriesAreMadeWithTheirParents) {
    support::TempDir dir;
    std::string reason;
    EXPECT_TRUE(MakeDirectories(dir / "a/b/c", reason)) << reason;
    EXPECT_TRUE(MakeDirectories(dir / "a/b/c", reason)) << reason;
    support::WriteText(dir / "file", "x");
    EXPECT_FALSE(MakeDirectories(dir / "file", reason));
    EXPECT_FALSE(MakeDirectories(dir / "file/below", reason));
}

TEST(SecureFileTest, NamesInPathsHoldNoSurprises) {
    EXPECT_EQ(FileNamePart("TervaneUpdate"), "TervaneUpdate");
    EXPECT_EQ(FileNamePart("../../etc/passwd"), "_.._.._etc_passwd");
    EXPECT_EQ(FileNamePart(""), "_");
    EXPECT_EQ(FileNamePart("a b\n"), "a_b_");
    EXPECT_EQ(FileNamePart(std::string(500, 'x')).size(), 64u);
    EXPECT_EQ(DirectoryOf("/a/b"), "/a");
    EXPECT_EQ(DirectoryOf("/a"), "/");
    EXPECT_EQ(DirectoryOf("a"), ".");
}
