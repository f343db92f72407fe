// One replacement for everybody: what it makes, what it refuses, and what is left when any step of it fails.
#include "base/FileReplace.h"

#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "base/FilePath.h"
#include "support/FileTests.h"

using base::Durability;
using base::ErrorKind;
using base::ReplaceFile;
using base::Status;

namespace {

constexpr Durability kBoth[] = {Durability::kSynced, Durability::kRenewed};

class FileReplaceTest : public FilesFixture {
protected:
    std::string AsideOf(const std::string& path) const { return path + "." + std::to_string(::gettid()) + ".tmp"; }

    const std::string m_file = m_dir / "file";
};

// An operator may name a directory of another user's; that user must not turn us to a third place.
TEST_F(FileReplaceTest, ALinkOfAnotherUsersOnTheWayIsNotFollowed) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: another user's link";
    constexpr uid_t kForeigner = 65534;
    ASSERT_EQ(0, ::mkdir((m_dir / "theirs").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((m_dir / "victim").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("../victim", (m_dir / "theirs/folder").c_str()));
    for (const Durability durability : kBoth) {
        EXPECT_TRUE(ReplaceFile(m_dir / "theirs/folder/file", "text", 0644, durability)) << "a link of our own";
        ASSERT_EQ(0, ::unlink((m_dir / "victim/file").c_str()));
    }
    ASSERT_EQ(0, ::chown((m_dir / "theirs").c_str(), kForeigner, kForeigner));
    ASSERT_EQ(0, ::lchown((m_dir / "theirs/folder").c_str(), kForeigner, kForeigner));
    for (const Durability durability : kBoth) {
        const Status refused = ReplaceFile(m_dir / "theirs/folder/file", "text", 0644, durability);
        ASSERT_FALSE(refused);
        EXPECT_EQ(ErrorKind::kRefused, refused.GetError().kind);
        EXPECT_EQ(m_dir / "theirs/folder", refused.GetError().path);
        EXPECT_THAT(NamesIn(m_dir / "victim"), ElementsAre());
        EXPECT_TRUE(ReplaceFile(m_dir / "theirs/file", "text", 0644, durability)) << "the directory itself is theirs";
    }
}

TEST_F(FileReplaceTest, MakesAndReplacesWithExactlyTextAndMode) {
    for (const Durability durability : kBoth) {
        WriteText(m_file, std::string(10000, 'o'));
        ASSERT_EQ(0, ::chmod(m_file.c_str(), 0666));
        for (const mode_t mode : {0640U, 0644U, 0600U}) {
            const mode_t before = ::umask(0077);
            const Status status = ReplaceFile(m_file, "new, no end added", mode, durability);
            ::umask(before);
            EXPECT_TRUE(status) << status.GetError().Text();
            EXPECT_EQ("new, no end added", ReadText(m_file));
            EXPECT_EQ(static_cast<int>(mode), ModeOf(m_file));
            EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file"));
        }
        ASSERT_EQ(0, ::unlink(m_file.c_str()));
        EXPECT_TRUE(ReplaceFile(m_file, "", 0640, durability));
        EXPECT_EQ(0640, ModeOf(m_file));
        EXPECT_EQ("", ReadText(m_file));
    }
}

TEST_F(FileReplaceTest, KeepsTheOwnerOrTakesTheGroupsRights) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: files of others";
    constexpr uid_t kUser = 65534;
    constexpr gid_t kGroup = 54321;
    const auto replace = [&] { return ReplaceFile(m_file, "b", 0640, Durability::kRenewed, base::Owner::kAsBefore); };
    struct stat info {};
    ASSERT_TRUE(replace()) << "there is none to be like";
    ASSERT_EQ(0, ::chown(m_file.c_str(), kUser, kGroup));
    ASSERT_TRUE(replace());
    ASSERT_EQ(0, ::stat(m_file.c_str(), &info));
    EXPECT_EQ(kUser, info.st_uid);
    EXPECT_EQ(kGroup, info.st_gid);
    EXPECT_EQ(0640u, info.st_mode & 07777);
    // A user of his own place who is not of that group.
    ASSERT_EQ(0, ::chown(base::DirectoryOf(m_file).c_str(), kUser, kUser));
    const pid_t child = ::fork();
    if (child == 0) {
        const bool other = ::setgroups(0, nullptr) == 0 && ::setgid(kUser) == 0 && ::setuid(kUser) == 0;
        _exit(other && replace() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    ASSERT_EQ(0, ::stat(m_file.c_str(), &info));
    EXPECT_EQ(kUser, info.st_gid);
    EXPECT_EQ(0600u, info.st_mode & 07777) << "the new group was never meant to read it";
    ASSERT_TRUE(ReplaceFile(m_file, "c", 0640, Durability::kRenewed));
    ASSERT_EQ(0, ::stat(m_file.c_str(), &info));
    EXPECT_EQ(0u, info.st_uid) << "the writer's, where nothing else is asked for";
}

struct WriterCase {
    const char* name;
    uid_t writer;
    gid_t second;  // a group that the writer is in besides
    uid_t owner;
    gid_t group;
    uid_t expectedOwner;
    gid_t expectedGroup;
    mode_t expectedMode;
};

TEST_F(FileReplaceTest, EachWriterGivesWhatItMayAndNoMore) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: files of others";
    constexpr uid_t kUser = 65533;
    constexpr uid_t kOther = 65534;
    constexpr gid_t kGroup = 54321;
    const WriterCase cases[] = {
        {"root gives both", 0, 0, kOther, kGroup, kOther, kGroup, 0640},
        {"root gives the user", 0, 0, kOther, 0, kOther, 0, 0640},
        {"root gives the group and stays the owner", 0, 0, 0, kGroup, 0, kGroup, 0640},
        {"nothing to be given", 0, 0, 0, 0, 0, 0, 0640},
        {"a member of the group gives that alone", kUser, kGroup, kOther, kGroup, kUser, kGroup, 0640},
        {"the owner gives a group of his", kUser, kGroup, kUser, kGroup, kUser, kGroup, 0640},
        {"who is not in it takes its rights away", kUser, kUser, kOther, kGroup, kUser, kUser, 0600},
        {"who is in no other has the group already", kUser, kUser, kOther, kUser, kUser, kUser, 0640}};
    std::vector<gid_t> groups(static_cast<size_t>(::getgroups(0, nullptr)));
    ASSERT_EQ(static_cast<int>(groups.size()), ::getgroups(static_cast<int>(groups.size()), groups.data()));
    for (const WriterCase& one : cases) {
        WriteText(m_file, "a");
        ASSERT_EQ(0, ::chown(m_file.c_str(), one.owner, one.group));
        ASSERT_EQ(0, ::chown(m_dir.Path().c_str(), one.writer, one.writer));
        ASSERT_EQ(0, ::setgroups(1, &one.second));
        ASSERT_EQ(0, ::setegid(one.writer));
        ASSERT_EQ(0, ::seteuid(one.writer));
        const Status status = ReplaceFile(m_file, "b", 0640, Durability::kRenewed, base::Owner::kAsBefore);
        ASSERT_EQ(0, ::seteuid(0));
        ASSERT_EQ(0, ::setegid(0));
        ASSERT_EQ(0, ::setgroups(groups.size(), groups.data()));
        ASSERT_TRUE(status) << one.name;
        struct stat info {};
        ASSERT_EQ(0, ::stat(m_file.c_str(), &info));
        EXPECT_EQ("b", ReadText(m_file)) << one.name;
        EXPECT_EQ(one.expectedOwner, info.st_uid) << one.name;
        EXPECT_EQ(one.expectedGroup, info.st_gid) << one.name;
        EXPECT_EQ(one.expectedMode, info.st_mode & 07777) << one.name;
        EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file")) << one.name;
        ASSERT_EQ(0, ::unlink(m_file.c_str()));
    }
    ASSERT_EQ(0, ::chown(m_dir.Path().c_str(), 0, 0));
}

TEST_F(FileReplaceTest, WhatIsNoRegularFileIsRefusedAndStays) {
    WriteText(m_dir / "target", "untouched");
    ASSERT_EQ(0, ::symlink("target", (m_dir / "link").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (m_dir / "dangling").c_str()));
    ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
    ASSERT_EQ(0, ::mkdir((m_dir / "folder").c_str(), 0700));
    const std::vector<std::string> before = NamesIn(m_dir.Path());
    for (const Durability durability : kBoth) {
        for (const char* name : {"link", "dangling", "pipe", "folder"}) {
            const Status status = ReplaceFile(m_dir / name, "text", 0640, durability);
            ASSERT_FALSE(status) << name;
            EXPECT_EQ(ErrorKind::kRefused, status.GetError().kind) << name;
            EXPECT_EQ("not a regular file", status.GetError().Reason()) << name;
        }
        EXPECT_EQ(ErrorKind::kRefused, ReplaceFile("/dev/full", "text", 0640, durability).GetError().kind);
        EXPECT_EQ(ErrorKind::kInvalidValue, ReplaceFile(m_dir / "", "text", 0640, durability).GetError().kind);
        EXPECT_EQ(ErrorKind::kInvalidValue, ReplaceFile("", "text", 0640, durability).GetError().kind);
        EXPECT_EQ(ErrorKind::kNotFound, ReplaceFile(m_dir / "none/file", "x", 0640, durability).GetError().kind);
        EXPECT_EQ(ErrorKind::kRefused, ReplaceFile(m_dir / "target/file", "x", 0640, durability).GetError().kind);
    }
    EXPECT_EQ("untouched", ReadText(m_dir / "target"));
    EXPECT_EQ(before, NamesIn(m_dir.Path()));
    struct stat info {};
    ASSERT_EQ(0, ::lstat((m_dir / "link").c_str(), &info));
    EXPECT_TRUE(S_ISLNK(info.st_mode));
}

TEST_F(FileReplaceTest, NothingAtTheNameAsideIsWrittenThrough) {
    WriteText(m_dir / "target", "untouched");
    ASSERT_EQ(0, ::symlink("target", AsideOf(m_file).c_str()));
    EXPECT_TRUE(ReplaceFile(m_file, "text", 0640, Durability::kSynced));
    EXPECT_EQ("untouched", ReadText(m_dir / "target"));
    EXPECT_EQ("text", ReadText(m_file));
    WriteText(AsideOf(m_file), "left by a crash, longer than what follows");
    EXPECT_TRUE(ReplaceFile(m_file, "again", 0640, Durability::kSynced));
    EXPECT_EQ("again", ReadText(m_file));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file", "target"));
    ASSERT_EQ(0, ::mkdir(AsideOf(m_file).c_str(), 0700));
    EXPECT_FALSE(ReplaceFile(m_file, "third", 0640, Durability::kSynced));
    EXPECT_EQ("again", ReadText(m_file));
}

TEST_F(FileReplaceTest, WhatADeadWriterLeftGoesWithTheNextOne) {
    const pid_t dead = ::fork();
    if (dead == 0) ::_exit(0);
    ASSERT_EQ(dead, ::waitpid(dead, nullptr, 0));
    const std::string left = std::to_string(dead);
    const std::vector<std::string> names = {"file.1.tmp",
                                            "file.tmp",
                                            "file..tmp",
                                            "file.x.tmp",
                                            "file." + left,
                                            "file." + left + "x.tmp",
                                            "file.-" + left + ".tmp",
                                            "other." + left + ".tmp"};
    for (const std::string& name : names) {
        WriteText(m_dir / name, "left");
    }
    std::vector<std::string> expected = NamesIn(m_dir.Path());
    expected.insert(expected.begin(), "file");
    for (const Durability durability : kBoth) {
        ASSERT_TRUE(WriteText(m_dir / ("file." + left + ".tmp"), "left"));
        EXPECT_TRUE(ReplaceFile(m_file, "text", 0640, durability));
        EXPECT_EQ(expected, NamesIn(m_dir.Path())) << "a living writer's file and others' files are left alone";
    }
}

struct FaultCase {
    const char* name;
    Call call;
    int error;
    int nth;
    ErrorKind kind;
};

TEST_F(FileReplaceTest, AFailedStepKeepsTheOldFileAndLeavesNoOther) {
    WriteText(m_file, "old");
    for (const FaultCase& one : {FaultCase{"first write", Call::kWrite, ENOSPC, 1, ErrorKind::kNoSpace},
                                 FaultCase{"third write", Call::kWrite, ENOSPC, 3, ErrorKind::kNoSpace},
                                 FaultCase{"write error", Call::kWrite, EIO, 2, ErrorKind::kOther},
                                 FaultCase{"sync", Call::kFsync, EIO, 1, ErrorKind::kOther},
                                 FaultCase{"sync that finds no room", Call::kFsync, ENOSPC, 1, ErrorKind::kNoSpace}}) {
        const ShortWrites slow(3);
        const Failing failing(one.call, one.error, one.nth);
        const Status status = ReplaceFile(m_file, "0123456789", 0640, Durability::kSynced);
        ASSERT_FALSE(status) << one.name;
        EXPECT_EQ(one.kind, status.GetError().kind) << one.name;
        EXPECT_EQ(one.error, status.GetError().error) << one.name;
        EXPECT_EQ("old", ReadText(m_file)) << one.name;
        EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file")) << one.name;
    }
}

TEST_F(FileReplaceTest, ShortAndInterruptedCallsAreCarriedOn) {
    {
        const ShortWrites slow(3);
        EXPECT_TRUE(ReplaceFile(m_file, "0123456789", 0640, Durability::kSynced));
    }
    EXPECT_EQ("0123456789", ReadText(m_file));
    {
        const Failing interrupted(Call::kWrite, EINTR, 1, 2);
        EXPECT_TRUE(ReplaceFile(m_file, "again", 0640, Durability::kSynced));
    }
    EXPECT_EQ("again", ReadText(m_file));
    const Failing interrupted(Call::kFsync, EINTR, 1, 3);
    EXPECT_TRUE(ReplaceFile(m_file, "third", 0640, Durability::kSynced));
    EXPECT_EQ("third", ReadText(m_file));
}

TEST_F(FileReplaceTest, OnlyASyncedOneSyncsItsFileAndThenItsFolder) {
    {
        const Failing counter(Call::kFsync, EIO, 100);
        EXPECT_TRUE(ReplaceFile(m_file, "text", 0640, Durability::kRenewed));
        EXPECT_EQ(0, counter.Calls());
        EXPECT_TRUE(ReplaceFile(m_file, "text", 0640, Durability::kSynced));
        EXPECT_EQ(2, counter.Calls());
    }
    {
        const Failing directoryFails(Call::kFsync, EIO, 2);
        const Status status = ReplaceFile(m_file, "newer", 0640, Durability::kSynced);
        ASSERT_FALSE(status);
        EXPECT_EQ(m_dir.Path(), status.GetError().path);
        EXPECT_EQ("newer", ReadText(m_file));
    }
    const Failing directoryCannot(Call::kFsync, EINVAL, 2);
    EXPECT_TRUE(ReplaceFile(m_file, "newest", 0640, Durability::kSynced)) << "this file system syncs no directories";
}

TEST_F(FileReplaceTest, AFullDiskKeepsTheOldFile) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    for (const Durability durability : kBoth) {
        ASSERT_TRUE(ReplaceFile(disk / "file", "old", 0640, durability));
        disk.Fill();
        const Status status = ReplaceFile(disk / "file", std::string(8192, 'n'), 0640, durability);
        ASSERT_FALSE(status);
        EXPECT_EQ(ENOSPC, status.GetError().error);
        EXPECT_EQ("old", ReadText(disk / "file"));
        EXPECT_THAT(NamesIn(disk.Path()), ElementsAre("file", "filler"));
        ASSERT_EQ(0, ::unlink((disk / "filler").c_str()));
        EXPECT_TRUE(ReplaceFile(disk / "file", std::string(8192, 'n'), 0640, durability));
    }
}

TEST_F(FileReplaceTest, AReadOnlyDiskIsNamedAsSuch) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(ReplaceFile(disk / "file", "old", 0640, Durability::kSynced));
    ASSERT_TRUE(disk.MakeReadOnly());
    const Status status = ReplaceFile(disk / "file", "new", 0640, Durability::kSynced);
    ASSERT_FALSE(status);
    EXPECT_EQ(ErrorKind::kReadOnly, status.GetError().kind);
    EXPECT_EQ("old", ReadText(disk / "file"));
}

TEST_F(FileReplaceTest, WithoutADescriptorTheOldFileStays) {
    WriteText(m_file, "old");
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    // The lowest free descriptor is the first that is refused; with one more the folder opens, and the file does not.
    const int lowest = ::dup(STDIN_FILENO);
    ASSERT_GE(lowest, 0);
    ::close(lowest);
    for (const int more : {0, 1}) {
        const rlimit few{static_cast<rlim_t>(lowest + more), before.rlim_max};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &few));
        const Status status = ReplaceFile(m_file, "new", 0640, Durability::kSynced);
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
        ASSERT_FALSE(status) << more;
        EXPECT_EQ(EMFILE, status.GetError().error) << more;
        EXPECT_EQ("old", ReadText(m_file));
        EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file"));
    }
    EXPECT_TRUE(ReplaceFile(m_file, "new", 0640, Durability::kSynced));
}

TEST_F(FileReplaceTest, WritersOfOneFileNeverMixTheirTexts) {
    constexpr int kRounds = 200;
    const std::string texts[] = {std::string(30000, 'a'), std::string(20000, 'b'), std::string(10000, 'c')};
    std::vector<std::thread> writers;
    for (const std::string& text : texts) {
        writers.emplace_back([&, this] {
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_TRUE(ReplaceFile(m_file, text, 0640, Durability::kRenewed));
                const std::string found = ReadText(m_file);
                EXPECT_TRUE(found == texts[0] || found == texts[1] || found == texts[2]) << found.size();
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file"));
}

TEST_F(FileReplaceTest, ItLeavesNoDescriptorOpen) {
    const size_t before = support::OpenDescriptors();
    EXPECT_TRUE(ReplaceFile(m_file, "text", 0640, Durability::kSynced));
    EXPECT_FALSE(ReplaceFile(m_dir / "none/file", "text", 0640, Durability::kSynced));
    {
        const Failing failing(Call::kWrite, EIO);
        EXPECT_FALSE(ReplaceFile(m_file, "text", 0640, Durability::kSynced));
    }
    EXPECT_EQ(before, support::OpenDescriptors());
}

TEST_F(FileReplaceTest, OnlyARegularFileIsRemoved) {
    WriteText(m_file, "text");
    ASSERT_EQ(0, ::symlink("file", (m_dir / "link").c_str()));
    ASSERT_EQ(0, ::mkdir((m_dir / "folder").c_str(), 0700));
    EXPECT_EQ(ErrorKind::kRefused, base::RemoveReplaced(m_dir / "link").GetError().kind);
    EXPECT_EQ(ErrorKind::kRefused, base::RemoveReplaced(m_dir / "folder").GetError().kind);
    EXPECT_EQ(ErrorKind::kNotFound, base::RemoveReplaced(m_dir / "none/file").GetError().kind);
    EXPECT_FALSE(base::RemoveReplaced(m_dir / ""));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file", "folder", "link"));
    EXPECT_TRUE(base::RemoveReplaced(m_file));
    EXPECT_TRUE(base::RemoveReplaced(m_file)) << "gone is gone";
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("folder", "link"));
}

}  // namespace
