// Where groups may be made, on a real version 2 hierarchy: delegated units, services that are not, and the root. The
// hierarchy needs no controller for that, so this runs beside version 1 controllers too.
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <algorithm>

#include "support/Faults.h"
#include "Hierarchy.h"
#include "RealKernel.h"
#include "base/ProcGroups.h"

using namespace zel::cgroup;

namespace {

class PlacementTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "SKIP direct v2: not root";
        auto texts = ReadLayoutTexts();
        ASSERT_TRUE(texts.Ok());
        for (const base::CgroupMount& mount : base::ParseMountInfo(texts->mountInfo)) {
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
        EXPECT_TRUE(m_root.RemoveChild(m_unit).Ok());
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
    for (const char* own : {"/", "/user.slice/session-1.scope", "/../outside"}) {
        auto placement = Place(own);
        ASSERT_TRUE(placement.Ok()) << own;
        EXPECT_FALSE(placement->delegated);
        EXPECT_EQ(m_mount.mountPoint, placement->base.Path());
    }
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

}  // namespace
