// Where a component finds the tree that the main process has made, and what a controller needs on the way there, on
// hosts made of files.
#include <cerrno>
#include <string>
#include <vector>

#include "Branch.h"
#include "ComponentPlaces.h"
#include "FilesHost.h"
#include "Hierarchy.h"
#include "OwnGroup.h"
#include "Placement.h"

using namespace fileshost;
using namespace zel::cgroup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class FilesPlacesTest : public FilesTree {
protected:
    /// A component's look at the host, and where it takes the tree to be by its file; "-" where that says nothing.
    std::string TakeFrom(const std::string& tree, const std::string& own) {
        Branches branches = FindBranches();
        Branch& branch = *branches.of.cpu;
        branch.placement.reset();
        branch.hierarchy.ownPath = own;
        ComponentFile published;
        published.enabled = true;
        published.cpu.present = true;
        published.cpu.path = tree;
        const Status taken = TakePublishedPlaces(branches, published);
        if (!taken) return taken.GetError().Text();
        if (!branch.placement) return "-";
        EXPECT_EQ(host->Mount() + (branch.placement->groupPath == branch.hierarchy.mountRoot ? "" : "/a"),
                  branch.placement->base.Path());
        return branch.placement->groupPath;
    }
};

TEST_F(FilesPlacesTest, TheTreesPathNamesItsBase) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Begin(where.version, where.mountRoot);
        ASSERT_EQ(0, host->Kernel().MakeGroup("/a"));
        const std::string root = where.mountRoot;
        const std::string below = root == "/" ? "/a" : root + "/a";
        const std::string mount = host->Mount();
        EXPECT_EQ(root, TakeFrom(mount + Tree(), root));
        EXPECT_EQ(below, TakeFrom(mount + "/a" + Tree(), root));
        EXPECT_EQ("-", TakeFrom(mount + "/a", root)) << "of another name";
        EXPECT_EQ("-", TakeFrom(mount + "/a" + Tree() + "x", root));
        EXPECT_EQ("-", TakeFrom(mount + "/ax" + treeName, root)) << "the name is a part of one";
        EXPECT_EQ("-", TakeFrom(mount + "a" + Tree(), root)) << "beside the mount";
        EXPECT_EQ("-", TakeFrom("/elsewhere/that/is/far/longer/than/the/mount/is" + Tree(), root));
        EXPECT_EQ("-", TakeFrom(Tree(), root));
        EXPECT_EQ("-", TakeFrom("", root));
        EXPECT_THAT(TakeFrom(mount + "/gone" + Tree(), root), HasSubstr(mount + "/gone"));
        End();
    }
}

TEST_F(FilesPlacesTest, NobodyGetsOutOfALimitOfOthers) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Begin(where.version, where.mountRoot);
        const bool isV2 = where.version == Version::kV2;
        host->Kernel().WriteAs("", "cgroup.subtree_control", "+cpu");
        for (const char* group : {"/a", "/b"}) ASSERT_EQ(0, host->Kernel().MakeGroup(group));
        const std::string above = where.mountRoot == "/" ? "" : where.mountRoot;
        const std::string mount = host->Mount();
        EXPECT_EQ(above + "/a", TakeFrom(mount + "/a" + Tree(), above + "/b"));
        host->Kernel().WriteAs("/b", isV2 ? "cpu.max" : "cpu.cfs_quota_us", "30000");
        const std::string refused = TakeFrom(mount + "/a" + Tree(), above + "/b");
        EXPECT_THAT(refused, HasSubstr("get out of the limits that others have set on " + above + "/b: start it"));
        EXPECT_THAT(TakeFrom(mount + Tree(), above + "/b"), HasSubstr("get out of the limits"));
        host->Kernel().WriteAs("/a", isV2 ? "cpu.max" : "cpu.cfs_quota_us", "30000");
        EXPECT_EQ(above + "/a", TakeFrom(mount + "/a" + Tree(), above + "/a")) << "the same limit holds there";
        End();
    }
}

TEST_F(FilesPlacesTest, AKnownPlaceIsNotLookedForAgain) {
    Publish(Version::kV2);
    Branches branches = FindBranches();
    const Placement* const before = &*branches.of.cpu->placement;
    const std::string reason = before->reason;
    branches.of.cpu->placement->reason = "known";
    ComponentFile published = *ReadComponentFile(file);
    ASSERT_TRUE(TakePublishedPlaces(branches, published).Ok());
    EXPECT_EQ("known", branches.of.cpu->placement->reason);
    published.cpu.present = published.memory.present = false;
    branches.of.cpu->placement.reset();
    ASSERT_TRUE(TakePublishedPlaces(branches, published).Ok());
    EXPECT_FALSE(branches.of.cpu->placement) << "the file names no place";
    published.memory.present = true;
    ASSERT_TRUE(TakePublishedPlaces(branches, published).Ok());
    ASSERT_TRUE(branches.of.cpu->placement) << "one hierarchy serves both";
    EXPECT_EQ(reason, branches.of.cpu->placement->reason);
    branches.of.cpu.reset();
    branches.of.memory.reset();
    EXPECT_TRUE(TakePublishedPlaces(branches, published).Ok()) << "no hierarchy, no place";
}

class FilesPrepareTest : public FilesPlacesTest {
protected:
    void SetUp() override {
        FilesPlacesTest::SetUp();
        if (IsSkipped()) return;
        Begin(Version::kV2);
        for (const char* group : {"/a", "/a/b", "/a/b/leaf"}) ASSERT_EQ(0, host->Kernel().MakeGroup(group));
    }
    std::string Prepare(const std::string& base, bool delegated) {
        const auto layout = zel::cgroup::ReadLayout();
        const Hierarchy hierarchy = FindHierarchy(Controller::kCpu, *layout);
        auto place = PlacementAt(hierarchy, base, delegated);
        EXPECT_TRUE(place.Ok());
        auto leaf = GroupDir::Open(host->Mount() + "/a/b/leaf", Version::kV2);
        host->Kernel().TakeJournal();
        const Status prepared = PrepareBase(hierarchy, *place, Controller::kCpu, *leaf);
        return prepared ? "" : prepared.GetError().Text();
    }
};

TEST_F(FilesPrepareTest, EachGroupAboveGivesTheController) {
    EXPECT_EQ("", Prepare("/a/b", false));
    EXPECT_THAT(host->Kernel().TakeJournal(),
                ElementsAre("/cgroup.subtree_control=+cpu", "/a/cgroup.subtree_control=+cpu",
                            "/a/b/cgroup.subtree_control=+cpu"));
    EXPECT_EQ("", Prepare("/a/b", false));
    EXPECT_THAT(host->Kernel().TakeJournal(), IsEmpty());
    EXPECT_EQ("cpu", Value("/a/b/leaf", "cgroup.controllers"));
}

TEST_F(FilesPrepareTest, OneAboveThatRefusesIsTold) {
    const auto child = Bear("/a");
    EXPECT_THAT(Prepare("/a/b", false),
                HasSubstr("enable controller cpu under " + host->Mount() + "/a/cgroup.subtree_control: "));
    EXPECT_THAT(host->Kernel().TakeJournal(), ElementsAre("/cgroup.subtree_control=+cpu"));
    host->Kernel().End(child->Pid());
    host->Kernel().FailWrite(2, EACCES);
    EXPECT_THAT(Prepare("/a/b", false), HasSubstr("/a/b/cgroup.subtree_control: Permission denied"));
    EXPECT_THAT(
        host->Kernel().TakeJournal(),
        ElementsAre("/a/cgroup.subtree_control=+cpu", "/a/b/cgroup.subtree_control=+cpu !" + std::to_string(EACCES)));
    EXPECT_EQ("", Prepare("/a/b", false));
}

TEST_F(FilesPrepareTest, WhatIsInADelegatedBaseGoesToTheLeaf) {
    for (const char* group : {"", "/a"}) host->Kernel().WriteAs(group, "cgroup.subtree_control", "+cpu");
    const auto child = Bear("/a/b");
    EXPECT_EQ("", Prepare("/a/b", true));
    EXPECT_EQ("/a/b/leaf", host->Kernel().GroupOf(child->Pid()));
    EXPECT_THAT(host->Kernel().TakeJournal(), ElementsAre("/a/b/leaf/cgroup.procs=" + std::to_string(child->Pid()),
                                                          "/a/b/cgroup.subtree_control=+cpu"));
    host->Kernel().End(child->Pid());
}

TEST_F(FilesPrepareTest, ABaseOfStrangersIsLeftAsItIs) {
    host->Kernel().Bear("/a/b", 0);
    EXPECT_THAT(Prepare("/a/b", false),
                HasSubstr("enable controller cpu under " + host->Mount() + "/a/b/cgroup.subtree_control: "));
    EXPECT_THAT(host->Kernel().TakeJournal(),
                ElementsAre("/cgroup.subtree_control=+cpu", "/a/cgroup.subtree_control=+cpu"));
    host->Kernel().End(0);
    const auto child = Bear("/a/b");
    EXPECT_EQ("", Prepare("/a/b", false)) << "a child is the agent's own";
    EXPECT_EQ("/a/b/leaf", host->Kernel().GroupOf(child->Pid()));
    host->Kernel().End(child->Pid());
}

}  // namespace
