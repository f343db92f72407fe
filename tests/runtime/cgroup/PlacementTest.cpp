// Where groups may be made, on a real version 2 hierarchy: delegated units, services that are not, and the root. The
// hierarchy needs no controller for that, so this runs beside version 1 controllers too.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <algorithm>

#include "support/Faults.h"
#include "Hierarchy.h"
#include "Placement.h"
#include "RealKernel.h"
#include "OwnGroup.h"
#include "base/ProcGroups.h"
#include "support/Waiting.h"

using namespace zel::cgroup;

namespace {

/// Another program that is nobody's child here.
class Stranger {
public:
    Stranger() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        const pid_t between = fork();
        if (between == 0) {
            const pid_t own = fork();
            if (own == 0) execl("/bin/sleep", "sleep", "1000", nullptr);
            _exit(write(ends[1], &own, sizeof own) == sizeof own ? 0 : 1);
        }
        close(ends[1]);
        waitpid(between, nullptr, 0);
        EXPECT_EQ(static_cast<ssize_t>(sizeof m_pid), read(ends[0], &m_pid, sizeof m_pid));
        char none = 0;
        EXPECT_EQ(0, read(ends[0], &none, 1)) << "closed when the program runs";
        close(ends[0]);
    }
    ~Stranger() {
        if (m_pid > 0) kill(m_pid, SIGKILL);
    }
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;
    int Pid() const { return m_pid; }

private:
    pid_t m_pid = 0;
};

class PlacementTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "SKIP direct v2: not root";
        auto layout = ReadLayout();
        ASSERT_TRUE(layout.Ok());
        for (const base::CgroupMount& mount : *layout->mounts) {
            if (mount.v2 && !mount.readOnly && mount.root == "/") m_mount = mount;
        }
        if (m_mount.mountPoint.empty()) GTEST_SKIP() << "SKIP direct v2: no writable cgroup2 mount";
        m_texts.mountInfo = "1 1 " + std::to_string(m_mount.devMajor) + ":" + std::to_string(m_mount.devMinor) + " / " +
                            m_mount.mountPoint + " rw - cgroup2 cgroup2 rw\n";
        m_hierarchy.controller = Controller::kCpu;
        m_hierarchy.version = Version::kV2;
        m_hierarchy.mountPoint = m_mount.mountPoint;
        m_hierarchy.mountRoot = "/";
        m_unit = "zeltest-" + std::to_string(getpid()) + ".service";
        auto root = GroupDir::Open(m_mount.mountPoint, Version::kV2);
        ASSERT_TRUE(root.Ok());
        m_root = std::move(*root);
        auto unit = m_root.MakeChild(m_unit);
        ASSERT_TRUE(unit.Ok()) << unit.GetError().Text();
        m_unitDir = std::move(*unit);
        ASSERT_TRUE(m_unitDir.MakeChild("sub").Ok());
    }
    void TearDown() override {
        if (!m_unitDir.IsOpen()) return;
        EXPECT_TRUE(m_unitDir.RemoveChild("sub").Ok());
        EXPECT_TRUE(support::Poll(10, [this] { return m_root.RemoveChild(m_unit).Ok(); }));
    }
    Result<Placement> Place(const std::string& own) {
        m_texts.selfCgroup = "0::" + own + "\n";
        m_hierarchy.ownPath = own;
        return FindPlacement(m_hierarchy, m_texts);
    }

    base::CgroupMount m_mount;
    LayoutTexts m_texts;
    Hierarchy m_hierarchy;
    std::string m_unit;
    GroupDir m_root;
    GroupDir m_unitDir;
};

TEST_F(PlacementTest, AServiceThatIsNotDelegatedIsLeftAlone) {
    auto placement = Place("/" + m_unit + "/sub");
    ASSERT_FALSE(placement.Ok());
    EXPECT_EQ(ErrorKind::kNotDelegated, placement.GetError().kind);
    EXPECT_EQ("cannot make groups for /" + m_unit + "/sub: not delegated; " + m_unit +
                  " is not delegated: add Delegate=yes to its [Service] section",
              placement.GetError().Text());
}

TEST_F(PlacementTest, ADelegatedServiceIsTheBaseAlsoFromBelow) {
    for (const char* mark : {"user.delegate", "trusted.delegate"}) {
        if (fsetxattr(m_unitDir.Descriptor(), mark, "1", 1, 0) != 0) GTEST_SKIP() << "SKIP: no " << mark << " here";
        for (const std::string& own : {"/" + m_unit, "/" + m_unit + "/sub", "/" + m_unit + "/gone/deeper"}) {
            auto placement = Place(own);
            ASSERT_TRUE(placement.Ok()) << own << ": " << placement.GetError().Text();
            EXPECT_TRUE(placement->delegated);
            EXPECT_EQ("/" + m_unit, placement->groupPath);
            EXPECT_EQ(m_mount.mountPoint + "/" + m_unit, placement->base.Path());
            EXPECT_EQ("inside the group that the service manager delegated, /" + m_unit, placement->reason);
        }
        ASSERT_EQ(0, fremovexattr(m_unitDir.Descriptor(), mark));
    }
}

TEST_F(PlacementTest, AMarkThatSaysNoIsNoDelegation) {
    if (fsetxattr(m_unitDir.Descriptor(), "user.delegate", "0", 1, 0) != 0) GTEST_SKIP() << "SKIP: no user.delegate";
    EXPECT_FALSE(Place("/" + m_unit).Ok());
}

TEST_F(PlacementTest, OutsideServicesTheRootIsTheBase) {
    if (!m_root.IsHierarchyRoot()) GTEST_SKIP() << "SKIP direct v2: in a namespace of groups there is no such root";
    for (const char* own : {"/", "/user.slice/session-1.scope"}) {
        auto placement = Place(own);
        ASSERT_TRUE(placement.Ok()) << own;
        EXPECT_FALSE(placement->delegated);
        EXPECT_EQ(m_mount.mountPoint, placement->base.Path());
    }
}

TEST_F(PlacementTest, AGroupThatTheMountDoesNotShowIsRefused) {
    auto placement = Place("/../outside");
    ASSERT_FALSE(placement.Ok());
    EXPECT_EQ(ErrorKind::kRefused, placement.GetError().kind);
    EXPECT_NE(std::string::npos, placement.GetError().Text().find("does not show this group"));
    m_hierarchy.mountRoot = "/..";
    EXPECT_FALSE(Place("/").Ok());
}

// A container's root is any group for the kernel: it takes no limited groups beside processes.
TEST_F(PlacementTest, AContainersRootIsUsedForTheAgentAlone) {
    m_hierarchy.mountPoint = m_unitDir.Path();
    m_texts.mountInfo.replace(m_texts.mountInfo.find(m_mount.mountPoint), m_mount.mountPoint.size(), m_unitDir.Path());
    WaitingChild child;
    ASSERT_TRUE(m_unitDir.MoveHere(child.Pid()).Ok());
    EXPECT_TRUE(Place("/").Ok()) << "a child is the agent's own";
    const Stranger stranger;
    ASSERT_TRUE(m_unitDir.MoveHere(stranger.Pid()).Ok());
    auto placement = Place("/");
    ASSERT_FALSE(placement.Ok());
    EXPECT_EQ("cannot make groups below " + m_unitDir.Path() +
                  ": not delegated; this process would get out of the limits there anywhere else, and process " +
                  std::to_string(stranger.Pid()) +
                  " in it is not the agent's: start the agent in a group of its own below it, or with Delegate=yes",
              placement.GetError().Text());
}

TEST_F(PlacementTest, AReadOnlyMountIsRefusedWithTheCure) {
    m_hierarchy.readOnly = true;
    auto placement = Place("/");
    ASSERT_FALSE(placement.Ok());
    EXPECT_EQ(ErrorKind::kReadOnly, placement.GetError().kind);
}

TEST_F(PlacementTest, AControllerThatIsNotOfferedIsNamedWithTheCure) {
    auto offered = m_unitDir.HasController("cpu");
    ASSERT_TRUE(offered.Ok());
    if (*offered) GTEST_SKIP() << "SKIP: this hierarchy offers cpu below the root";
    Status status = m_unitDir.EnableForChildren("cpu");
    ASSERT_FALSE(status.Ok());
    EXPECT_EQ(ErrorKind::kNoController, status.GetError().kind);
    EXPECT_NE(std::string::npos, status.GetError().Text().find("it is not in cgroup.controllers"));
    EXPECT_TRUE(m_unitDir.DisableForChildren("cpu").Ok());
}

/// Below groups that others have limited, on the machine's own version 1 controllers.
class LimitedPlacementTest : public RealV1 {
protected:
    void SetUp() override {
        RealV1::SetUp();
        if (IsSkipped()) return;
        for (const Hierarchy* hierarchy : {&m_cpu, &m_memory}) {
            auto outer = GroupDir::Open(hierarchy->mountPoint, Version::kV1)->MakeChild(m_name);
            ASSERT_TRUE(outer.Ok() && outer->MakeChild("middle").Ok());
            ASSERT_TRUE(outer->OpenChild("middle")->MakeChild("inner").Ok());
        }
    }
    std::string BaseFrom(Hierarchy hierarchy, const std::string& own) const {
        hierarchy.ownPath = own;
        auto placement = FindPlacement(hierarchy, m_texts);
        return placement ? placement->groupPath : placement.GetError().Text();
    }
    void Limit(const std::string& file, const std::string& value) const {
        ASSERT_TRUE(support::WriteText(file, value)) << file;
    }
};

TEST_F(LimitedPlacementTest, TheDeepestLimitAboveIsTheBase) {
    const std::string inner = "/" + m_name + "/middle/inner";
    EXPECT_EQ("/", BaseFrom(m_cpu, inner));
    EXPECT_EQ("/", BaseFrom(m_memory, inner));
    Limit(CpuDir(m_name) + "/cpu.cfs_quota_us", "50000");
    EXPECT_EQ("/" + m_name, BaseFrom(m_cpu, inner));
    EXPECT_EQ("/", BaseFrom(m_memory, inner)) << "each hierarchy for itself";
    Limit(CpuDir(m_name) + "/middle/cpu.cfs_quota_us", "30000");
    EXPECT_EQ("/" + m_name + "/middle", BaseFrom(m_cpu, inner));
    EXPECT_EQ("/" + m_name + "/middle", BaseFrom(m_cpu, inner + "/gone")) << "as far as it is there";
    EXPECT_EQ("/" + m_name, BaseFrom(m_cpu, "/" + m_name)) << "what is below does not hold for it";
    EXPECT_EQ("/", BaseFrom(m_cpu, "/"));
}

TEST_F(LimitedPlacementTest, EveryMemoryLimitCounts) {
    const std::string inner = "/" + m_name + "/middle/inner";
    const std::string dir = MemDir(m_name) + "/middle";
    for (const char* file : {"/memory.limit_in_bytes", "/memory.soft_limit_in_bytes"}) {
        Limit(dir + file, "104857600");
        EXPECT_EQ("/" + m_name + "/middle", BaseFrom(m_memory, inner)) << file;
        Limit(dir + file, "-1");
        EXPECT_EQ("/", BaseFrom(m_memory, inner)) << file;
    }
}

TEST_F(LimitedPlacementTest, LimitsOfOurOwnAreNoneOfOthers) {
    const std::string inner = "/" + m_name + "/middle/inner";
    Limit(CpuDir(m_name) + "/cpu.cfs_quota_us", "50000");
    Limit(CpuDir(m_name) + "/middle/cpu.cfs_quota_us", "30000");
    auto middle = GroupDir::Open(CpuDir(m_name) + "/middle", Version::kV1);
    ASSERT_TRUE(middle.Ok() && MarkOwn(*middle).Ok());
    EXPECT_EQ("/" + m_name, BaseFrom(m_cpu, inner));
    Limit(CpuDir(m_name) + "/middle/cpu.cfs_quota_us", "-1");
    Limit(CpuDir(m_name) + "/cpu.cfs_quota_us", "-1");
    EXPECT_EQ("/" + m_name, BaseFrom(m_cpu, inner)) << "where the groups stand they stay";
}

TEST_F(LimitedPlacementTest, TellsTheTightestQuotaAtTheBaseAndAbove) {
    Limit(CpuDir(m_name) + "/cpu.cfs_quota_us", "30000");
    Limit(CpuDir(m_name) + "/cpu.cfs_period_us", "200000");
    m_cpu.ownPath = "/" + m_name + "/middle";
    auto placement = FindPlacement(m_cpu, m_texts);
    ASSERT_TRUE(placement.Ok());
    EXPECT_EQ(1500, AmountOf(Controller::kCpu, placement->outer));
    m_cpu.ownPath = "/";
    placement = FindPlacement(m_cpu, m_texts);
    ASSERT_TRUE(placement.Ok());
    EXPECT_FALSE(IsLimited(Controller::kCpu, placement->outer));
}

}  // namespace
