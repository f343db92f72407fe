// The component file without a kernel: format and parser agree, and a replacement is whole or none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ComponentFile.h"
#include "support/Files.h"

namespace {

using namespace zel::cgroup;

ComponentFile Sample() {
    ComponentFile file;
    file.enabled = true;
    file.bootId = "6f1c1f0e-3f5a-4c53-9d0e-0b8f6e1f2a3b";
    file.cpu = {true, "/sys/fs/cgroup/cpu/zel.agent", Version::kV1, 41, 900};
    file.memory = {true, "/sys/fs/cgroup/zel.agent", Version::kV2, 18446744073709551615U, 2147483647};
    ComponentEntry one;
    one.name = "Tervane";
    one.cpu = {true, "main", file.cpu.path + "/main/Tervane", Version::kV1, 51, 36};
    one.memory = {true, "main", file.memory.path + "/main/Tervane", Version::kV2, 52, 0};
    ComponentEntry two;
    two.name = "QorNet";
    two.memory = {true, "guard", file.memory.path + "/guard/QorNet", Version::kV2, 53, 10240};
    file.components = {one, two};
    return file;
}

TEST(ComponentFileTest, ReadsBackWhatItWrites) {
    const std::string text = FormatComponentFile(Sample());
    Result<ComponentFile> parsed = ParseComponentFile(text);
    ASSERT_TRUE(parsed) << parsed.GetError().Text();
    EXPECT_EQ(text, FormatComponentFile(*parsed));
    EXPECT_EQ(18446744073709551615U, parsed->memory.inode);
    EXPECT_EQ(2147483647, parsed->memory.limit);
    ASSERT_NE(nullptr, parsed->Find("QorNet"));
    EXPECT_FALSE(parsed->Find("QorNet")->cpu.present);
    EXPECT_EQ(nullptr, parsed->Find("qornet"));
}

TEST(ComponentFileTest, WritesAnEmptyListOfComponents) {
    ComponentFile file = Sample();
    file.components.clear();
    const std::string text = FormatComponentFile(file);
    EXPECT_THAT(text, ::testing::HasSubstr("\"components\": []\n}\n"));
    EXPECT_TRUE(ParseComponentFile(text));
}

TEST(ComponentFileTest, BearsMembersThatItDoesNotKnow) {
    std::string text = FormatComponentFile(Sample());
    text.insert(2, "  \"later\": {\"x\": [1]},\n");
    EXPECT_TRUE(ParseComponentFile(text));
}

TEST(ComponentFileTest, RefusesLeafOfControllerThatTheParentHasNot) {
    ComponentFile file = Sample();
    file.cpu = ComponentParent();
    Result<ComponentFile> parsed = ParseComponentFile(FormatComponentFile(file));
    ASSERT_FALSE(parsed);
    EXPECT_EQ("cpu of component Tervane has a leaf and the parent has none", parsed.GetError().hint);
}

TEST(ComponentFileTest, RefusesALeafOfAnotherVersionThanTheParent) {
    ComponentFile file = Sample();
    file.components[0].cpu.version = Version::kV2;
    EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file)));
}

TEST(ComponentFileTest, RefusesAnEnabledFileWithoutAnyController) {
    ComponentFile file;
    file.enabled = true;
    EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file)));
}

TEST(ComponentFileTest, RefusesPathsThatAreNotPlain) {
    for (const char* path : {"sys/fs", "/", "//a", "/a/", "/a//b", "/a/./b", "/a/../b", "/..", ""}) {
        ComponentFile file = Sample();
        file.cpu.path = path;
        file.components[0].cpu.path = std::string(path) + "/main/Tervane";
        EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file))) << path;
    }
}

TEST(ComponentFileTest, RefusesMoreComponentsThanItsBound) {
    ComponentFile file = Sample();
    file.components.clear();
    for (size_t index = 0; index <= kMaxComponents; ++index) {
        ComponentEntry entry;
        entry.name = "c" + std::to_string(index);
        file.components.push_back(entry);
    }
    EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file)));
    file.components.pop_back();
    EXPECT_TRUE(ParseComponentFile(FormatComponentFile(file)));
}

class AtomicWriteTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (mounted) {
            EXPECT_EQ(0, umount(dir.c_str()));
        }
        for (const char* name : {"/file", "/file.tmp", "/other"}) unlink((dir + name).c_str());
        EXPECT_THAT(support::NamesIn(dir), ::testing::IsEmpty()) << "something else was left";
    }

    const support::TempDir directory;
    const std::string dir = directory.Path();
    const std::string path = directory / "file";
    bool mounted = false;
};

TEST_F(AtomicWriteTest, ReplacesTheFileWithModeAndAll) {
    ASSERT_TRUE(WriteFileAtomically(path, "old"));
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    const mode_t before = umask(0077);
    ASSERT_TRUE(WriteFileAtomically(path, "new"));
    umask(before);
    EXPECT_EQ("new", support::ReadText(path));
    struct stat info {};
    ASSERT_EQ(0, stat(path.c_str(), &info));
    EXPECT_EQ(0640u, info.st_mode & 07777u) << "whatever the umask and the old file's mode";
    EXPECT_NE(0, access((path + ".tmp").c_str(), F_OK));
}

TEST_F(AtomicWriteTest, WritesThroughNoLinkAndReplacesALeftover) {
    ASSERT_TRUE(WriteFileAtomically(dir + "/other", "untouched"));
    ASSERT_EQ(0, symlink((dir + "/other").c_str(), (path + ".tmp").c_str()));
    ASSERT_TRUE(WriteFileAtomically(path, "text"));
    EXPECT_EQ("untouched", support::ReadText(dir + "/other"));
    EXPECT_EQ("text", support::ReadText(path));
    unlink(path.c_str());
    ASSERT_EQ(0, symlink((dir + "/other").c_str(), path.c_str()));
    ASSERT_TRUE(WriteFileAtomically(path, "again"));
    EXPECT_EQ("untouched", support::ReadText(dir + "/other")) << "the link is replaced, not followed";
}

TEST_F(AtomicWriteTest, KeepsTheOldFileWhenTheDiskIsFull) {
    if (geteuid() != 0 || mount("none", dir.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "SKIP direct: not root: cannot mount a small file system";
    }
    mounted = true;
    ASSERT_TRUE(WriteFileAtomically(path, "old"));
    Status status = WriteFileAtomically(path, std::string(200 * 1024, 'x'));
    ASSERT_FALSE(status);
    EXPECT_EQ(ENOSPC, status.GetError().error);
    EXPECT_EQ("old", support::ReadText(path));
    EXPECT_NE(0, access((path + ".tmp").c_str(), F_OK)) << "nothing half-written stays";
}

TEST_F(AtomicWriteTest, FailsWithoutADirectoryAndOntoOne) {
    EXPECT_FALSE(WriteFileAtomically(dir + "/nowhere/file", "x"));
    ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    EXPECT_FALSE(WriteFileAtomically(path, "x"));
    EXPECT_NE(0, access((path + ".tmp").c_str(), F_OK));
    ASSERT_EQ(0, rmdir(path.c_str()));
}

}  // namespace
