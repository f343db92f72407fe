// The readers of mountinfo, /proc/PID/cgroup and /proc/cgroups, with good and with hostile text.
#include "base/ProcGroups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

using namespace base;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const char kV1Mounts[] =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "31 23 0:28 / /sys/fs/cgroup rw,relatime - tmpfs tmpfs rw,mode=755\n"
    "32 31 0:29 / /sys/fs/cgroup/cpu,cpuacct rw,nosuid,relatime shared:9 - cgroup cgroup rw,cpu,cpuacct\n"
    "35 31 0:32 / /sys/fs/cgroup/memory rw,relatime shared:10 master:3 - cgroup cgroup rw,memory\n"
    "40 31 0:37 / /sys/fs/cgroup/systemd rw - cgroup cgroup rw,xattr,release_agent=/lib/agent,name=systemd\n"
    "41 31 0:38 / /sys/fs/cgroup/unified ro,relatime - cgroup2 cgroup2 rw,nsdelegate\n";

TEST(MountInfoTest, ReadsEveryCgroupMountAndNothingElse) {
    const auto mounts = ParseMountInfo(kV1Mounts);
    ASSERT_THAT(mounts, SizeIs(4));
    EXPECT_FALSE(mounts[0].v2);
    EXPECT_FALSE(mounts[0].readOnly);
    EXPECT_EQ("/sys/fs/cgroup/cpu,cpuacct", mounts[0].mountPoint);
    EXPECT_EQ("/", mounts[0].root);
    EXPECT_THAT(mounts[0].controllers, ElementsAre("cpu", "cpuacct"));
    EXPECT_EQ(0u, mounts[0].devMajor);
    EXPECT_EQ(29u, mounts[0].devMinor);
    EXPECT_THAT(mounts[1].controllers, ElementsAre("memory"));
    EXPECT_THAT(mounts[2].controllers, ElementsAre("name=systemd"));
    EXPECT_TRUE(mounts[3].v2);
    EXPECT_TRUE(mounts[3].readOnly);
    EXPECT_THAT(mounts[3].controllers, IsEmpty());
}

TEST(MountInfoTest, ResolvesOctalEscapesInPaths) {
    const auto mounts = ParseMountInfo("1 2 0:29 /a\\040b /mnt/x\\134y\\012z rw - cgroup c rw,cpu\n");
    ASSERT_THAT(mounts, SizeIs(1));
    EXPECT_EQ("/a b", mounts[0].root);
    EXPECT_EQ("/mnt/x\\y\nz", mounts[0].mountPoint);
}

TEST(MountInfoTest, KeepsSeveralMountsOfOneHierarchyAndBindMounts) {
    const auto mounts = ParseMountInfo(
        "1 2 0:29 / /cg/cpu rw - cgroup c rw,cpu\n"
        "3 2 0:29 /docker/abc /mnt/cpu rw - cgroup c rw,cpu\n");
    ASSERT_THAT(mounts, SizeIs(2));
    EXPECT_FALSE(mounts[1].readOnly);
    EXPECT_TRUE(ParseMountInfo("1 2 0:29 / /cg/cpu rw - cgroup c ro,cpu\n").at(0).readOnly) << "all of that hierarchy";
    EXPECT_FALSE(ParseMountInfo("1 2 0:29 / /cg/cpu rw,rox - cgroup c xro,cpu\n").at(0).readOnly);
    EXPECT_EQ("/docker/abc", mounts[1].root);
    EXPECT_EQ(mounts[0].devMinor, mounts[1].devMinor);
}

TEST(MountInfoTest, SkipsLinesThatDoNotParse) {
    struct Case {
        const char* what;
        std::string text;
    };
    const Case cases[] = {
        {"empty", ""},
        {"only line ends", "\n\n\n"},
        {"cut before the type", "32 31 0:29 / /sys/fs/cgroup/cpu rw,relatime -"},
        {"cut before the dash", "32 31 0:29 / /sys/fs/cgroup/cpu rw,relatime shared:1"},
        {"no device", "32 31 x / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu"},
        {"negative device", "32 31 -1:29 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu"},
        {"device too large", "32 31 0:99999999999999999999999 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu"},
        {"relative mount point", "32 31 0:29 / sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu"},
        {"relative root", "32 31 0:29 .. /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu"},
        {"nul in the mount point", "32 31 0:29 / /sys\\000/x rw - cgroup cgroup rw,cpu"},
        {"type with a tail", "32 31 0:29 / /sys/fs/cgroup/cpu rw - cgroup3 cgroup rw,cpu"},
        {"garbage", std::string("\xff\xfe\x00\x01 - cgroup \\", 16)},
        {"path too long", "1 2 0:29 / /" + std::string(5000, 'a') + " rw - cgroup c rw,cpu"},
    };
    for (const Case& c : cases) EXPECT_THAT(ParseMountInfo(c.text), IsEmpty()) << c.what;
}

TEST(MountInfoTest, StopsAtItsBounds) {
    std::string text;
    for (size_t i = 0; i < kMaxMounts + 10; ++i) text += "1 2 0:1 / /c rw - cgroup c rw,cpu\n";
    EXPECT_THAT(ParseMountInfo(text), SizeIs(kMaxMounts));
}

TEST(ProcCgroupTest, ReadsBothVersions) {
    const auto lines = ParseProcCgroup("4:memory:/a/b\n2:cpu,cpuacct:/\n9:name=systemd:/s\n0::/user.slice/x:y\n");
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_EQ("/a/b", MembershipPath(lines, "memory"));
    EXPECT_EQ("/", MembershipPath(lines, "cpuacct"));
    EXPECT_EQ("/s", MembershipPath(lines, "name=systemd"));
    EXPECT_EQ("/user.slice/x:y", MembershipPath(lines, ""));
    EXPECT_EQ("", MembershipPath(lines, "pids"));
}

TEST(ProcCgroupTest, TheUnifiedLineHasNoControllers) {
    const auto lines = ParseProcCgroup("0:cpu:/a\n3::/b\n0::/c\n0::/d\n");
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_EQ("/c", MembershipPath(lines, "")) << "number 0 and no controller, both";
    EXPECT_EQ("/a", MembershipPath(lines, "cpu"));
    EXPECT_EQ("", MembershipPath({lines[0], lines[1]}, ""));
}

TEST(ProcCgroupTest, MarksARemovedGroup) {
    const auto lines = ParseProcCgroup("0::/gone (deleted)\n");
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_TRUE(lines[0].deleted);
    EXPECT_EQ("/gone", lines[0].path);
}

TEST(ProcCgroupTest, SkipsLinesThatDoNotParse) {
    EXPECT_THAT(ParseProcCgroup("\n:\n::\nx::/a\n1:cpu\n1:cpu:\n1:cpu:rel\n-1:cpu:/a\n99999999999:cpu:/a"), IsEmpty());
}

TEST(ProcCgroupTest, NothingIsReadBehindATextThatIsCut) {
    const std::string_view whole = "1:cpu:/";
    EXPECT_THAT(ParseProcCgroup(whole), SizeIs(1));
    for (size_t size = 0; size < whole.size(); ++size) {
        EXPECT_THAT(ParseProcCgroup(whole.substr(0, size)), IsEmpty()) << size;
    }
}

TEST(ProcCgroupsTest, ReadsStatesAndSkipsGarbage) {
    const auto states = ParseProcCgroups(
        "#subsys_name\thierarchy\tnum_cgroups\tenabled\n#io\t2\t1\t1\ncpu\t1\t15\t1\nmemory\t0\t1\t0\ncut\t1\n"
        "bad\tx\t1\t1\n\t1\t1\t1\n\n");
    ASSERT_THAT(states, SizeIs(2));
    EXPECT_EQ("cpu", states[0].name);
    EXPECT_EQ(1, states[0].hierarchyId);
    EXPECT_TRUE(states[0].enabled);
    EXPECT_FALSE(states[1].enabled);
}

TEST(OctalTest, LeavesWhatIsNoEscape) {
    EXPECT_EQ("a b", UnescapeOctal("a\\040b"));
    EXPECT_EQ("\\", UnescapeOctal("\\"));
    EXPECT_EQ("\\04", UnescapeOctal("\\04"));
    EXPECT_EQ("\\480", UnescapeOctal("\\480"));
    EXPECT_EQ("\xff", UnescapeOctal("\\377"));
}

TEST(OctalTest, EachDigitHasItsOwnBounds) {
    for (const char* text : {"\\/00", "\\400", "\\0/0", "\\080", "\\00/", "\\008", "/000"}) {
        EXPECT_EQ(text, UnescapeOctal(text));
    }
    EXPECT_EQ(std::string(1, '\0'), UnescapeOctal("\\000"));
    EXPECT_EQ("?", UnescapeOctal("\\077"));
    EXPECT_EQ("\xc0", UnescapeOctal("\\300"));
}

TEST(ProcCgroupTest, AProcessesGroupsAreReadOrTheErrorSaysWhy) {
    const auto own = ReadProcessGroups(static_cast<int>(getpid()));
    ASSERT_TRUE(own.Ok()) << own.GetError().Text();
    EXPECT_FALSE(own->empty());
    const auto none = ReadProcessGroups(INT32_MAX);
    ASSERT_FALSE(none.Ok());
    EXPECT_EQ(ErrorKind::kNotFound, none.GetError().kind);
    EXPECT_EQ("cannot open /proc/2147483647/cgroup: No such file or directory", none.GetError().Text());
}

}  // namespace
