// Opening, reading and writing of files where somebody may have planted something else.
#include "base/FileIo.h"
#include "base/MakeDirectories.h"

#include <climits>
#include <functional>

#include <fcntl.h>
#include <sys/eventfd.h>

#include "support/FileTests.h"

using base::ErrorKind;
using base::Fd;
using base::Result;
using base::Status;

namespace {

class FileIoTest : public FilesFixture {
protected:
    // A file, and one of each kind that is none.
    void SetUp() override {
        WriteText(m_file, "text");
        ASSERT_EQ(0, ::symlink("file", (m_dir / "link").c_str()));
        ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
        ASSERT_EQ(0, ::mkdir((m_dir / "folder").c_str(), 0700));
    }

    const std::string m_file = m_dir / "file";
};

struct Opener {
    const char* name;
    Result<Fd> (*open)(const std::string& path);
};

constexpr Opener kOpeners[] = {
    {"reading", base::OpenForReading},
    {"appending", [](const std::string& path) { return base::OpenForAppending(AT_FDCWD, path, 0640); }},
    {"updating", [](const std::string& path) { return base::OpenForUpdating(AT_FDCWD, path, 0640); }}};

TEST_F(FileIoTest, EveryOpenerTakesARegularFileOnly) {
    for (const Opener& opener : kOpeners) {
        const Result<Fd> fd = opener.open(m_file);
        ASSERT_TRUE(fd) << opener.name;
        EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd->Get(), F_GETFD)) << opener.name;
        for (const char* other : {"link", "pipe", "folder"}) {
            const Result<Fd> refused = opener.open(m_dir / other);
            ASSERT_FALSE(refused) << opener.name << " " << other;
            EXPECT_THAT(refused.GetError().kind, testing::AnyOf(ErrorKind::kRefused, ErrorKind::kOther))
                << opener.name << " " << other;
        }
        EXPECT_EQ("a symbolic link is not followed", opener.open(m_dir / "link").GetError().Reason());
        EXPECT_EQ("not a regular file", opener.open("/dev/null").GetError().Reason());
        EXPECT_EQ(ErrorKind::kNotFound, opener.open(m_dir / "none/file").GetError().kind);
        EXPECT_EQ(ErrorKind::kNotFound, opener.open("").GetError().kind);
    }
    EXPECT_EQ("text", ReadText(m_file));
    EXPECT_EQ(ErrorKind::kNotFound, base::OpenForReading(m_dir / "none").GetError().kind);
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("file", "folder", "link", "pipe"));
}

TEST_F(FileIoTest, WritersMakeAMissingFileWithTheirMode) {
    const Result<Fd> folder = base::OpenDirectory(m_dir.Path());
    ASSERT_TRUE(folder);
    const Result<Fd> appending = base::OpenForAppending(folder->Get(), "made", 0640);
    ASSERT_TRUE(appending);
    EXPECT_EQ(0640, ModeOf(m_dir / "made"));
    ASSERT_TRUE(base::WriteAll(*appending, "one", "made"));
    ASSERT_EQ(0, ::lseek(appending->Get(), 0, SEEK_SET));
    ASSERT_TRUE(base::WriteAll(*appending, "two", "made"));
    EXPECT_EQ("onetwo", ReadText(m_dir / "made"));
    ASSERT_TRUE(base::OpenForUpdating(AT_FDCWD, m_dir / "lock", 0600));
    EXPECT_EQ(0600, ModeOf(m_dir / "lock"));
}

TEST_F(FileIoTest, AFileWithASecondNameIsReadAndNotWritten) {
    ASSERT_EQ(0, ::link(m_file.c_str(), (m_dir / "second").c_str()));
    EXPECT_TRUE(base::OpenForReading(m_file));
    for (const Opener& opener : kOpeners) {
        if (opener.open == base::OpenForReading) continue;
        EXPECT_EQ("it has a second name", opener.open(m_file).GetError().Reason()) << opener.name;
    }
    ASSERT_EQ(0, ::unlink((m_dir / "second").c_str()));
    for (const Opener& opener : kOpeners) EXPECT_TRUE(opener.open(m_file)) << opener.name;
}

TEST_F(FileIoTest, WhatMustBeThereIsNotMade) {
    EXPECT_TRUE(base::OpenExistingForWriting("/dev/null"));
    EXPECT_EQ(ErrorKind::kNotFound, base::OpenExistingForWriting(m_dir / "none").GetError().kind);
    EXPECT_EQ(ErrorKind::kRefused, base::OpenExistingForWriting(m_dir / "link").GetError().kind);
    EXPECT_FALSE(support::NamesIn(m_dir.Path()).size() > 4);
}

TEST_F(FileIoTest, DirectoriesOpenWithAndWithoutALink) {
    ASSERT_EQ(0, ::symlink("folder", (m_dir / "way").c_str()));
    EXPECT_TRUE(base::OpenDirectory(m_dir / "folder"));
    EXPECT_TRUE(base::OpenDirectory(m_dir / "way"));
    EXPECT_TRUE(base::OpenOwnDirectory(m_dir / "folder"));
    EXPECT_FALSE(base::OpenOwnDirectory(m_dir / "way"));
    EXPECT_FALSE(base::OpenDirectory(m_file));
    EXPECT_FALSE(base::OpenDirectory(m_dir / "none"));
}

TEST_F(FileIoTest, AWholeReadTakesUpToTheLimitAndRefusesMore) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{16383}, size_t{16384}, size_t{16385}, size_t{100000}}) {
        WriteText(m_file, std::string(size, 'x'));
        const Result<std::string> whole = base::ReadWholeFile(m_file, size);
        ASSERT_TRUE(whole) << size;
        EXPECT_EQ(size, whole->size());
        EXPECT_TRUE(base::ReadWholeFile(m_file, SIZE_MAX)) << size;
        if (size == 0) continue;
        const Result<std::string> cut = base::ReadWholeFile(m_file, size - 1);
        ASSERT_FALSE(cut) << size;
        EXPECT_EQ(ErrorKind::kTooLarge, cut.GetError().kind);
    }
    // The kernel gives such files no size.
    EXPECT_TRUE(base::ReadWholeFile("/proc/self/status", 65536));
}

TEST_F(FileIoTest, AShortTextKeepsNoRoomThatItDoesNotNeed) {
    WriteText(m_file, std::string(300, 'x'));
    const Result<std::string> text = base::ReadWholeFile(m_file, 100000);
    ASSERT_TRUE(text.Ok());
    EXPECT_EQ(300u, text->size());
    EXPECT_LT(text->capacity(), 1000u);
}

TEST_F(FileIoTest, FailedAndInterruptedReadsAreTold) {
    WriteText(m_file, std::string(40000, 'x'));
    {
        const Failing broken(Call::kRead, EIO, 2);
        const Result<std::string> text = base::ReadWholeFile(m_file, 100000);
        ASSERT_FALSE(text);
        EXPECT_EQ(EIO, text.GetError().error);
        EXPECT_EQ("cannot read " + m_file + ": Input/output error", text.GetError().Text());
    }
    const Failing interrupted(Call::kRead, EINTR, 1, 3);
    EXPECT_TRUE(base::ReadWholeFile(m_file, 100000));
}

TEST_F(FileIoTest, WritesAreCarriedOnAndTellWhatStopsThem) {
    Result<Fd> fd = base::OpenForUpdating(AT_FDCWD, m_file, 0600);
    ASSERT_TRUE(fd);
    {
        const ShortWrites slow(3);
        const Failing interrupted(Call::kWrite, EINTR, 2, 2);
        EXPECT_TRUE(base::WriteAll(*fd, "0123456789", m_file));
    }
    EXPECT_EQ("0123456789", ReadText(m_file));
    const ShortWrites slow(3);
    const Failing full(Call::kWrite, ENOSPC, 2);
    const Status status = base::WriteAll(*fd, "abcdefghij", m_file);
    ASSERT_FALSE(status);
    EXPECT_EQ(ErrorKind::kNoSpace, status.GetError().kind);
    EXPECT_TRUE(base::WriteAll(*fd, "", m_file));
}

TEST_F(FileIoTest, AnEventIsRaisedAndAFullOneIsNotWaitedFor) {
    const Fd event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    ASSERT_TRUE(event);
    base::RaiseEvent(event);
    base::RaiseEvent(event);
    uint64_t count = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof count), ::read(event.Get(), &count, sizeof count));
    EXPECT_EQ(2U, count);
    const uint64_t most = UINT64_MAX - 1;
    ASSERT_EQ(static_cast<ssize_t>(sizeof most), ::write(event.Get(), &most, sizeof most));
    base::RaiseEvent(event);
    ASSERT_EQ(static_cast<ssize_t>(sizeof count), ::read(event.Get(), &count, sizeof count));
    EXPECT_EQ(most, count);
}

TEST_F(FileIoTest, DirectoriesAreMadeWithTheirParents) {
    EXPECT_TRUE(base::MakeDirectories(m_dir / "a/b/c"));
    EXPECT_TRUE(base::MakeDirectories(m_dir / "a/b/c"));
    EXPECT_TRUE(base::MakeDirectories(m_dir / "a/b/c/"));
    EXPECT_EQ(0750, ModeOf(m_dir / "a/b/c"));
    EXPECT_TRUE(base::MakeDirectories(m_dir / "a//d///e//"));
    EXPECT_TRUE(support::Exists(m_dir / "a/d/e"));
    EXPECT_EQ(ErrorKind::kRefused, base::MakeDirectories(m_file).GetError().kind);
    EXPECT_FALSE(base::MakeDirectories(m_dir / "file/below"));
    EXPECT_EQ(ErrorKind::kInvalidValue, base::MakeDirectories("").GetError().kind);
}

TEST_F(FileIoTest, RelativeDirectoriesAreMadeFromWhereWeAre) {
    const base::Result<Fd> before = base::OpenDirectory(".");
    ASSERT_TRUE(before);
    ASSERT_EQ(0, ::chdir(m_dir.Path().c_str()));
    EXPECT_TRUE(base::MakeDirectories("near"));
    EXPECT_TRUE(base::MakeDirectories("folder/far/off"));
    EXPECT_TRUE(base::MakeDirectories("./here//"));
    const Status broken = base::MakeDirectories("file/a");
    const Status linked = base::MakeDirectories("link/a");
    ASSERT_EQ(0, ::fchdir(before->Get()));
    for (const char* made : {"near", "folder/far/off", "here"}) EXPECT_EQ(0750, ModeOf(m_dir / made)) << made;
    ASSERT_FALSE(broken);
    EXPECT_FALSE(linked);
    EXPECT_THAT(broken.GetError().Text(), testing::HasSubstr("file"));
}

TEST_F(FileIoTest, ADirectoryThatCannotBeMadeIsNamed) {
    ASSERT_EQ(0, ::symlink("nowhere", (m_dir / "folder/dangling").c_str()));
    const Status dangling = base::MakeDirectories(m_dir / "folder/dangling/below");
    ASSERT_FALSE(dangling);
    EXPECT_THAT(dangling.GetError().Text(), testing::HasSubstr(m_dir / "folder/dangling"));
    const Status tooLong = base::MakeDirectories(m_dir / "folder/" + std::string(300, 'x') + "/below");
    ASSERT_FALSE(tooLong);
    EXPECT_EQ(ENAMETOOLONG, tooLong.GetError().error);
    EXPECT_THAT(NamesIn(m_dir / "folder"), ElementsAre("dangling"));
}

TEST_F(FileIoTest, DirectoriesAreMadeInTrustedPlacesOnly) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: another user's directory";
    constexpr uid_t kForeigner = 65534;
    ASSERT_EQ(0, ::mkdir((m_dir / "victim").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((m_dir / "theirs").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((m_dir / "shared").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("../victim", (m_dir / "theirs/link").c_str()));
    ASSERT_EQ(0, ::symlink("victim", (m_dir / "ours").c_str()));
    ASSERT_EQ(0, ::chown((m_dir / "theirs").c_str(), kForeigner, kForeigner));
    ASSERT_EQ(0, ::lchown((m_dir / "theirs/link").c_str(), kForeigner, kForeigner));
    ASSERT_EQ(0, ::chmod((m_dir / "shared").c_str(), 01777));
    for (const char* place : {"theirs/x", "theirs/link/x", "theirs/link/x/y", "shared/x"}) {
        const Status refused = base::MakeDirectories(m_dir / place);
        ASSERT_FALSE(refused) << place;
        EXPECT_EQ(ErrorKind::kRefused, refused.GetError().kind) << place;
        EXPECT_EQ("trust", refused.GetError().operation) << "by the verdict, and not by what followed";
    }
    EXPECT_THAT(NamesIn(m_dir / "victim"), ElementsAre());
    EXPECT_THAT(NamesIn(m_dir / "theirs"), ElementsAre("link"));
    EXPECT_THAT(NamesIn(m_dir / "shared"), ElementsAre());
    EXPECT_TRUE(base::MakeDirectories(m_dir / "theirs/link")) << "what is there already is not looked into";
    EXPECT_TRUE(base::MakeDirectories(m_dir / "ours/x/y")) << "a link of our own";
    EXPECT_TRUE(support::Exists(m_dir / "victim/x/y"));
}

TEST_F(FileIoTest, ADirectoryOnAReadOnlyDiskIsWhatWasWanted) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(base::MakeDirectories(disk / "there"));
    ASSERT_TRUE(disk.MakeReadOnly());
    EXPECT_TRUE(base::MakeDirectories(disk / "there"));
    const Status status = base::MakeDirectories(disk / "there/more");
    ASSERT_FALSE(status);
    EXPECT_EQ(ErrorKind::kReadOnly, status.GetError().kind);
    EXPECT_EQ(ErrorKind::kReadOnly, base::OpenForUpdating(AT_FDCWD, disk / "file", 0600).GetError().kind);
}

TEST_F(FileIoTest, FilesAreMovedAndRemoved) {
    WriteText(m_dir / "other", "replaced");
    EXPECT_TRUE(base::RenameFile(m_file, m_dir / "other"));
    EXPECT_EQ("text", ReadText(m_dir / "other"));
    EXPECT_EQ(ErrorKind::kNotFound, base::RenameFile(m_file, m_dir / "other").GetError().kind);
    Result<Fd> folder = base::OpenDirectory(m_dir.Path());
    ASSERT_TRUE(folder);
    EXPECT_TRUE(base::RenameIn(*folder, "other", "file"));
    EXPECT_EQ("text", ReadText(m_file));
    EXPECT_EQ(ErrorKind::kNotFound, base::RenameIn(*folder, "other", "file").GetError().kind);
    EXPECT_TRUE(base::RemoveFile(m_dir / "link"));
    EXPECT_EQ("text", ReadText(m_file)) << "the link went, not its target";
    EXPECT_TRUE(base::RemoveFile(m_dir / "link")) << "gone is gone";
    EXPECT_FALSE(base::RemoveFile(m_dir / "folder"));
}

TEST_F(FileIoTest, FileSystemsOfOtherHostsAreKnownByTheirType) {
    for (const long type : {0x6969L, 0xFF534D42L, 0xFE534D42L, 0x01021997L, 0x65735546L, -11317950L}) {
        EXPECT_TRUE(base::IsNetworkFileSystemType(type)) << type;
    }
    // tmpfs, ext4, xfs, btrfs, overlay, proc
    for (const long type : {0x01021994L, 0xEF53L, 0x58465342L, 0x9123683EL, 0x794c7630L, 0x9fa0L}) {
        EXPECT_FALSE(base::IsNetworkFileSystemType(type)) << type;
    }
    EXPECT_FALSE(base::IsNetworkFileSystem("/proc/self"));
    EXPECT_FALSE(base::IsNetworkFileSystem("/missing"));
}

TEST_F(FileIoTest, AMarkTellsEveryChangeOfAFile) {
    const base::FileMark before = base::ReadFileMark(m_file);
    EXPECT_TRUE(before.exists);
    EXPECT_EQ(before, base::ReadFileMark(m_file));
    ASSERT_EQ(0, ::chmod(m_file.c_str(), 0600));
    EXPECT_NE(before, base::ReadFileMark(m_file)) << "a mode is a change";
    WriteText(m_dir / "new", "text");
    ASSERT_TRUE(base::RenameFile(m_dir / "new", m_file));
    EXPECT_NE(before.inode, base::ReadFileMark(m_file).inode);
    EXPECT_NE(base::ReadFileMark(m_dir / "link"), base::ReadFileMark(m_file)) << "a link has a mark of its own";
    EXPECT_FALSE(base::ReadFileMark(m_dir / "none").exists);
    EXPECT_EQ(base::FileMark(), base::ReadFileMark(m_dir / "none"));
}

TEST_F(FileIoTest, AMarkIsComparedInEachOfItsPartsAndWhole) {
    constexpr int64_t kLarge = int64_t{1} << 32;
    base::FileMark mark;
    mark.exists = true;
    mark.device = 7;
    mark.inode = 8;
    mark.size = 9;
    mark.modified = {10, 11};
    mark.changed = {12, 13};
    const base::FileMark same = mark;
    EXPECT_EQ(mark, same);
    const std::function<void(base::FileMark&)> changes[] = {
        [](base::FileMark& each) { each.exists = false; },
        [](base::FileMark& each) { ++each.device; },
        [](base::FileMark& each) { each.device += kLarge; },
        [](base::FileMark& each) { ++each.inode; },
        [](base::FileMark& each) { each.inode += kLarge; },
        [](base::FileMark& each) { ++each.size; },
        [](base::FileMark& each) { each.size += kLarge; },
        [](base::FileMark& each) { ++each.modified.tv_sec; },
        [](base::FileMark& each) { each.modified.tv_sec += kLarge; },
        [](base::FileMark& each) { ++each.modified.tv_nsec; },
        [](base::FileMark& each) { ++each.changed.tv_sec; },
        [](base::FileMark& each) { each.changed.tv_sec += kLarge; },
        [](base::FileMark& each) { ++each.changed.tv_nsec; }};
    size_t number = 0;
    for (const auto& change : changes) {
        base::FileMark other = mark;
        change(other);
        EXPECT_FALSE(mark == other) << number;
        EXPECT_FALSE(other == mark) << number;
        EXPECT_NE(mark, other) << number++;
    }
    base::FileMark none = mark;
    none.exists = false;
    EXPECT_EQ(base::FileMark(), none) << "of what is not there nothing else counts";
}

TEST_F(FileIoTest, AMarkHoldsWhatTheKernelSaysWhole) {
    ASSERT_EQ(0, ::truncate(m_file.c_str(), 100));
    const timespec times[2] = {{(int64_t{1} << 32) + 5, 6}, {(int64_t{1} << 32) + 7, 8}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, m_file.c_str(), times, 0));
    // The first is there on every machine, the second is larger than 4 GiB where it is there.
    for (const std::string& path : {m_file, std::string("/proc/kcore")}) {
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) continue;
        const base::FileMark mark = base::ReadFileMark(path);
        EXPECT_TRUE(mark.exists);
        EXPECT_EQ(info.st_dev, mark.device);
        EXPECT_EQ(info.st_ino, mark.inode);
        EXPECT_EQ(info.st_size, mark.size);
        EXPECT_EQ(info.st_mtim.tv_sec, mark.modified.tv_sec);
        EXPECT_EQ(info.st_mtim.tv_nsec, mark.modified.tv_nsec);
        EXPECT_EQ(info.st_ctim.tv_sec, mark.changed.tv_sec);
        EXPECT_EQ(info.st_ctim.tv_nsec, mark.changed.tv_nsec);
    }
}

}  // namespace
