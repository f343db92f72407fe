// The layout is parsed once for each change of the mounts, and read without an open in between.
#include "kernel/Layout.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/ProcFiles.h"
#include "support/Files.h"
#include "support/SystemCalls.h"
#include "support/Waiting.h"

namespace {

using zel::cgroup::Layout;
using zel::cgroup::LayoutMark;
using zel::cgroup::LayoutTexts;

bool HasMount(const Layout& layout, const std::string& point) {
    for (const base::CgroupMount& mount : *layout.mounts) {
        if (mount.mountPoint == point) return true;
    }
    return false;
}

TEST(LayoutTest, SaysWhatTheKernelSays) {
    LayoutTexts texts;
    texts.mountInfo = *base::ReadProcText(base::kMountInfoFile);
    texts.selfCgroup = *base::ReadProcText(base::kOwnGroupsFile);
    const Layout asRead(texts);
    auto layout = zel::cgroup::ReadLayout();
    ASSERT_TRUE(layout.Ok());
    ASSERT_EQ(asRead.mounts->size(), layout->mounts->size());
    for (const base::CgroupMount& mount : *asRead.mounts) EXPECT_TRUE(HasMount(*layout, mount.mountPoint));
    ASSERT_EQ(asRead.own->size(), layout->own->size());
    for (size_t i = 0; i < asRead.own->size(); ++i) EXPECT_EQ((*asRead.own)[i].path, (*layout->own)[i].path);
}

TEST(LayoutTest, IsNotOpenedNorParsedAgainWithoutAChange) {
    ASSERT_TRUE(zel::cgroup::ReadLayout().Ok());
    const uint64_t parses = zel::cgroup::CountLayoutParses();
    constexpr int kTimes = 100;
    const support::SystemCalls calls = support::CountSystemCalls([] {
        for (int i = 0; i < kTimes; ++i) static_cast<void>(zel::cgroup::ReadLayout());
    });
    if (!calls.counted) GTEST_SKIP() << "SKIP direct: this thread cannot be traced";
    EXPECT_EQ(0, calls.opens);
    // The process's number, the poll of the mounts, the text of its groups.
    EXPECT_LE(calls.all, 3 * kTimes);
    EXPECT_GE(calls.all, 2 * kTimes) << "something is asked of the kernel";
    EXPECT_EQ(parses, zel::cgroup::CountLayoutParses());
}

/// In mounts of its own, so that nobody else uses what is mounted. Returns: 0, or the number of what is wrong.
int SeeAMountComeAndGo(const std::string& folder) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 1;
    auto before = zel::cgroup::ReadLayoutMark();
    auto any = zel::cgroup::ReadLayout();
    if (!before || !any || any->mounts->empty()) return 2;
    if (mount(any->mounts->front().mountPoint.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) != 0) return 3;
    auto during = zel::cgroup::ReadLayoutMark();
    auto shown = zel::cgroup::ReadLayout();
    if (!during || during->mounts == before->mounts || !shown || !HasMount(*shown, folder)) return 4;
    if (umount(folder.c_str()) != 0) return 5;
    auto after = zel::cgroup::ReadLayout();
    return after && !HasMount(*after, folder) ? 0 : 6;
}

TEST(LayoutTest, AMountAndAnUnmountAreSeenAtOnce) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root";
    const support::TempDir folder;
    const pid_t child = fork();
    if (child == 0) _exit(SeeAMountComeAndGo(folder.Path()));
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(WIFEXITED(status));
}

// A child is another process: what its parent keeps open tells of the parent.
TEST(LayoutTest, AForkedProcessSeesItsOwnGroups) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root";
    auto layout = zel::cgroup::ReadLayout();
    ASSERT_TRUE(layout.Ok());
    if (layout->mounts->empty()) GTEST_SKIP() << "SKIP direct: no hierarchy is mounted";
    const base::CgroupMount mount = layout->mounts->front();
    const std::string name = "zeltest-layout-" + std::to_string(getpid());
    const std::string group = mount.mountPoint + "/" + name;
    ASSERT_EQ(0, mkdir(group.c_str(), 0755));
    const pid_t child = fork();
    if (child == 0) {
        bool inside = false;
        if (!support::WriteText(group + "/cgroup.procs", std::to_string(getpid()))) _exit(2);
        auto own = zel::cgroup::ReadLayout();
        if (!own) _exit(3);
        for (const base::CgroupMembership& line : *own->own)
            inside = inside || line.path.find(name) != std::string::npos;
        _exit(inside ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(support::Poll(10, [&] { return rmdir(group.c_str()) == 0; }));
}

}  // namespace
