// Which version serves a controller, decided from the kernel's texts alone, and the sentence that says why.
#include "Hierarchy.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace zel::cgroup;

namespace {

constexpr char kV1[] =
    "32 31 0:29 / /sys/fs/cgroup/cpu,cpuacct rw - cgroup cgroup rw,cpu,cpuacct\n"
    "35 31 0:32 / /sys/fs/cgroup/memory rw - cgroup cgroup rw,memory\n";
constexpr char kV2[] = "41 31 0:38 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n";

Hierarchy Best(Controller controller, const LayoutTexts& texts) {
    return DecideHierarchy(controller, texts).front();
}

TEST(DecideHierarchyTest, FindsVersionOneWithCoMountedControllers) {
    const Hierarchy cpu = Best(Controller::kCpu, {kV1, "2:cpu,cpuacct:/own\n", "cpu 2 1 1\n"});
    EXPECT_EQ(Version::kV1, cpu.version);
    EXPECT_EQ("/own", cpu.ownPath);
    EXPECT_EQ("controller cpu is on a version 1 hierarchy at /sys/fs/cgroup/cpu,cpuacct", cpu.reason);
    EXPECT_EQ("/sys/fs/cgroup/cpu,cpuacct/own", cpu.DirectoryOf("/own"));
    EXPECT_EQ("/sys/fs/cgroup/cpu,cpuacct", cpu.DirectoryOf("/"));
}

TEST(DecideHierarchyTest, FindsVersionTwo) {
    const Hierarchy memory = Best(Controller::kMemory, {kV2, "0::/a\n", "memory 0 1 1\n"});
    EXPECT_EQ(Version::kV2, memory.version);
    EXPECT_EQ("/a", memory.ownPath);
    EXPECT_EQ("controller memory is on the version 2 hierarchy at /sys/fs/cgroup", memory.reason);
}

TEST(DecideHierarchyTest, DecidesEachControllerAlone) {
    const std::string mixed = std::string("32 31 0:29 / /cg/cpu rw - cgroup cgroup rw,cpu\n") + kV2;
    EXPECT_EQ(Version::kV1, Best(Controller::kCpu, {mixed, "", ""}).version);
    EXPECT_EQ(Version::kV2, Best(Controller::kMemory, {mixed, "", ""}).version);
}

TEST(DecideHierarchyTest, SaysWhatToDoWhenThereIsNone) {
    struct Case {
        LayoutTexts texts;
        const char* reason;
    };
    const Case cases[] = {
        {{"", "", ""}, "no cgroup file system with controller memory is mounted: mount cgroup2 on /sys/fs/cgroup"},
        {{kV2, "0::/\n", "memory 4 1 1\n"},
         "controller memory belongs to a version 1 hierarchy that is not mounted here: mount it, or start the kernel "
         "with cgroup_no_v1=memory"},
        {{kV2, "0::/\n", "memory 0 1 0\n"},
         "controller memory is switched off in the kernel: remove cgroup_disable=memory from the kernel command line"},
    };
    for (const Case& c : cases) {
        const Hierarchy none = Best(Controller::kMemory, c.texts);
        EXPECT_EQ(Version::kNone, none.version);
        EXPECT_EQ(c.reason, none.reason);
    }
}

TEST(DecideHierarchyTest, PrefersWritableWholeAndLaterMounts) {
    const std::string mounts =
        "1 2 0:32 / /first rw - cgroup c rw,memory\n"
        "2 2 0:32 / /second rw - cgroup c rw,memory\n"
        "3 2 0:32 /part /bind rw - cgroup c rw,memory\n"
        "4 2 0:32 / /readonly ro - cgroup c rw,memory\n";
    const auto candidates = DecideHierarchy(Controller::kMemory, LayoutTexts{mounts, "", ""});
    ASSERT_EQ(4u, candidates.size());
    EXPECT_EQ("/second", candidates[0].mountPoint);
    EXPECT_EQ("/first", candidates[1].mountPoint);
    EXPECT_EQ("/bind", candidates[2].mountPoint);
    EXPECT_EQ("/readonly", candidates[3].mountPoint);
}

TEST(DecideHierarchyTest, MapsGroupsThroughABindMount) {
    const Hierarchy part =
        Best(Controller::kCpu, {"3 2 0:32 /part /bind rw - cgroup c rw,cpu\n", "1:cpu:/part/x\n", ""});
    EXPECT_EQ("/bind/x", part.DirectoryOf("/part/x"));
    EXPECT_EQ("/bind", part.DirectoryOf("/part"));
    EXPECT_EQ("", part.DirectoryOf("/party"));
    EXPECT_EQ("", part.DirectoryOf("/"));
    EXPECT_EQ("", part.DirectoryOf("part"));
}

TEST(DecideHierarchyTest, AGroupAboveTheNamespaceIsNotReachable) {
    const Hierarchy whole = Best(Controller::kCpu, {kV1, "2:cpu:/../other\n", ""});
    EXPECT_EQ("", whole.DirectoryOf("/../other"));
    EXPECT_EQ("/sys/fs/cgroup/cpu,cpuacct/..x", whole.DirectoryOf("/..x"));
}

TEST(FindHierarchyTest, RefusesPlainDirectoryAnnouncedAsHierarchy) {
    const Hierarchy none =
        FindHierarchy(Controller::kMemory, LayoutTexts{"3 2 0:32 / /proc rw - cgroup c rw,memory\n", "", ""});
    EXPECT_EQ(Version::kNone, none.version);
    EXPECT_EQ(
        "controller memory cannot be used: cannot use /proc: not a cgroup file system; no cgroup version 1 file "
        "system is mounted there",
        none.reason);
}

TEST(AgentGroupNameTest, TakesAnotherSafeNameOnly) {
    ASSERT_EQ(0, unsetenv("ZEL_CGROUP_NAME"));
    EXPECT_EQ("zel.agent", AgentGroupName());
    setenv("ZEL_CGROUP_NAME", "zeltest-42", 1);
    EXPECT_EQ("zeltest-42", AgentGroupName());
    for (const char* bad : {"", ".", "..", "a/b", "../x", ".hidden", "-x", "a b", "ü", "a\nb"}) {
        setenv("ZEL_CGROUP_NAME", bad, 1);
        EXPECT_EQ("zel.agent", AgentGroupName()) << bad;
    }
    setenv("ZEL_CGROUP_NAME", std::string(65, 'a').c_str(), 1);
    EXPECT_EQ("zel.agent", AgentGroupName());
    unsetenv("ZEL_CGROUP_NAME");
}

TEST(ApplicationTagTest, TellsDirectoriesApart) {
    EXPECT_EQ("811c9dc5", ApplicationTag(""));
    EXPECT_NE(ApplicationTag("/opt/a"), ApplicationTag("/opt/b"));
    EXPECT_EQ(8u, ApplicationTag("/opt/a").size());
}

}  // namespace
