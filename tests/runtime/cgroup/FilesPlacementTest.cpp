// Where the agent's groups and its components' processes belong, on hosts of both versions made of files, whole and as
// a container sees them.
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "AgentProcesses.h"
#include "AgentTree.h"
#include "Branch.h"
#include "FilesHost.h"
#include "Hierarchy.h"
#include "OwnGroup.h"
#include "Placement.h"
#include "support/Faults.h"

using namespace fileshost;
using namespace zel::cgroup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class FilesPlacementTest : public FilesTree {
protected:
    Hierarchy HierarchyOf(Controller controller = Controller::kCpu) const {
        auto layout = zel::cgroup::ReadLayout();
        EXPECT_TRUE(layout.Ok());
        return FindHierarchy(controller, *layout);
    }
    Result<Placement> Find(const std::string& own, Controller controller = Controller::kCpu) const {
        Hierarchy hierarchy = HierarchyOf(controller);
        hierarchy.ownPath = own;
        return FindPlacement(hierarchy, *zel::cgroup::ReadLayout());
    }
    void Make(const std::string& group) { ASSERT_EQ(0, host->Kernel().MakeGroup(group)); }
    /// Groups /a and /a/b with both controllers.
    void MakeTwo() {
        for (const char* each : {"+cpu", "+memory"}) host->Kernel().WriteAs("", "cgroup.subtree_control", each);
        Make("/a");
        for (const char* each : {"+cpu", "+memory"}) host->Kernel().WriteAs("/a", "cgroup.subtree_control", each);
        Make("/a/b");
    }
    void LimitCpu(const Where& where, const std::string& group, int64_t quotaUs) {
        const bool isV2 = where.version == Version::kV2;
        const std::string value = quotaUs < 0 && isV2 ? "max" : std::to_string(quotaUs);
        ASSERT_EQ(0, host->Kernel().WriteAs(group, isV2 ? "cpu.max" : "cpu.cfs_quota_us", value));
    }
    static std::string At(const Where& where, const std::string& group) {
        return where.mountRoot == "/" ? (group.empty() ? "/" : group) : where.mountRoot + group;
    }
};

TEST_F(FilesPlacementTest, AKnownBaseIsOpenedAsItIs) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Begin(where.version, where.mountRoot);
        MakeTwo();
        LimitCpu(where, "/a", 30000);
        LimitCpu(where, "/a/b", 20000);
        for (const bool delegated : {false, true}) {
            auto place = PlacementAt(HierarchyOf(), At(where, "/a/b"), delegated);
            ASSERT_TRUE(place.Ok()) << place.GetError().Text();
            EXPECT_EQ(host->Mount() + "/a/b", place->base.Path());
            EXPECT_EQ(At(where, "/a/b"), place->groupPath);
            EXPECT_EQ(delegated, place->delegated);
            EXPECT_TRUE(place->bound);
            EXPECT_FALSE(place->inside);
            EXPECT_EQ("", place->origin);
            EXPECT_EQ(where.version == Version::kV1 ? 2000 : 0, AmountOf(Controller::kCpu, place->outer));
            EXPECT_EQ(delegated ? "inside the group that the service manager delegated, " + At(where, "/a/b")
                                : "inside " + At(where, "/a/b") + ", so that the limits of others there go on holding",
                      place->reason);
            EXPECT_EQ(At(where, "/a/b") + "/x", place->PathOf("x"));
        }
        auto above = PlacementAt(HierarchyOf(), At(where, "/a"), false);
        ASSERT_TRUE(above.Ok());
        EXPECT_EQ(where.version == Version::kV1 ? 3000 : 0, AmountOf(Controller::kCpu, above->outer));
        auto root = PlacementAt(HierarchyOf(), where.mountRoot, false);
        ASSERT_TRUE(root.Ok());
        EXPECT_EQ(host->Mount(), root->base.Path());
        EXPECT_EQ("in a group of its own at the root of the hierarchy", root->reason);
        EXPECT_FALSE(IsLimited(Controller::kCpu, root->outer));
        EXPECT_EQ(At(where, "/x"), root->PathOf("x"));
        auto gone = PlacementAt(HierarchyOf(), At(where, "/a/c"), false);
        ASSERT_FALSE(gone.Ok());
        EXPECT_EQ(ErrorKind::kNotFound, gone.GetError().kind);
        if (where.mountRoot != "/") {
            auto elsewhere = PlacementAt(HierarchyOf(), "/outer/two", false);
            ASSERT_FALSE(elsewhere.Ok());
            EXPECT_EQ(ErrorKind::kNotFound, elsewhere.GetError().kind);
            EXPECT_THAT(elsewhere.GetError().Text(), HasSubstr("the mount at " + host->Mount() + " does not show it"));
        }
        End();
    }
}

TEST_F(FilesPlacementTest, ACopyHasEverythingButTheDescriptor) {
    Begin(Version::kV1);
    MakeTwo();
    LimitCpu(kEverywhere[0], "/a", 30000);
    auto place = PlacementAt(HierarchyOf(), "/a", true);
    ASSERT_TRUE(place.Ok());
    place->inside = true;
    place->origin = "/a/b";
    place->service = "x.service";
    auto other = GroupDir::Open(host->Mount() + "/a/b", Version::kV1);
    ASSERT_TRUE(other.Ok());
    const Placement copy = place->With(std::move(*other));
    EXPECT_EQ(host->Mount() + "/a/b", copy.base.Path());
    EXPECT_EQ("/a", copy.groupPath);
    EXPECT_TRUE(copy.delegated && copy.bound && copy.inside);
    EXPECT_EQ(3000, AmountOf(Controller::kCpu, copy.outer));
    EXPECT_EQ("/a/b", copy.origin);
    EXPECT_EQ("x.service", copy.service);
    EXPECT_EQ(place->reason, copy.reason);
}

TEST_F(FilesPlacementTest, TheDeepestLimitOnTheWayIsTheBase) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Begin(where.version, where.mountRoot);
        MakeTwo();
        const auto base = [&](const std::string& own) {
            auto place = Find(At(where, own));
            return place ? place->groupPath + (place->bound ? "" : " free") : place.GetError().Text();
        };
        const auto limitOf = [&](const std::string& own) {
            Hierarchy hierarchy = HierarchyOf();
            hierarchy.ownPath = At(where, own);
            return FindLimitOfOthers(hierarchy);
        };
        EXPECT_EQ(where.mountRoot + " free", base("/a/b"));
        EXPECT_EQ("", limitOf("/a/b"));
        LimitCpu(where, "/a", 30000);
        EXPECT_EQ(At(where, "/a"), base("/a/b"));
        EXPECT_EQ(At(where, "/a"), base("/a/b/gone"));
        EXPECT_EQ(At(where, "/a"), limitOf("/a/b"));
        EXPECT_EQ(where.mountRoot + " free", base("")) << "what is below does not hold for it";
        LimitCpu(where, "/a/b", 20000);
        EXPECT_EQ(At(where, "/a/b"), base("/a/b"));
        EXPECT_EQ(At(where, "/a"), base("/a"));
        EXPECT_EQ(At(where, "/a/b"), limitOf("/a/b"));
        ASSERT_TRUE(MarkOwn(*GroupDir::Open(host->Mount() + "/a/b", where.version)).Ok());
        EXPECT_EQ(At(where, "/a"), base("/a/b")) << "its own limits are none of others";
        EXPECT_EQ(At(where, "/a"), limitOf("/a/b"));
        auto place = Find(At(where, "/a/b"));
        ASSERT_TRUE(place.Ok());
        EXPECT_TRUE(place->inside);
        EXPECT_EQ(where.version == Version::kV1 ? 3000 : 0, AmountOf(Controller::kCpu, place->outer));
        LimitCpu(where, "/a/b", -1);
        LimitCpu(where, "/a", -1);
        EXPECT_EQ(At(where, "/a"), base("/a/b")) << "where the groups stand they stay";
        host->Kernel().RemoveGroup("/a/b");
        End();
    }
}

TEST_F(FilesPlacementTest, EachFileThatLimitsMemoryBinds) {
    struct Case {
        Version version;
        std::string file, limited, free;
    };
    const std::vector<Case> cases = {
        {Version::kV1, "memory.limit_in_bytes", "104857600", "9223372036854771712"},
        {Version::kV1, "memory.soft_limit_in_bytes", "0", "9223372036854771712"},
        {Version::kV1, "memory.memsw.limit_in_bytes", "104857600", "9223372036854771712"},
        {Version::kV2, "memory.max", "0", "max"},
        {Version::kV2, "memory.high", "0", "max"},
        {Version::kV2, "memory.swap.max", "0", "max"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.file);
        Begin(each.version);
        MakeTwo();
        const auto base = [&] { return Find("/a/b", Controller::kMemory)->groupPath; };
        host->Kernel().Show("/a", each.file, each.free + "\n");
        EXPECT_EQ("/", base());
        host->Kernel().Show("/a", each.file, each.limited + "\n");
        EXPECT_EQ("/a", base());
        host->Kernel().Show("/a", each.file, "nonsense\n");
        EXPECT_EQ("/", base()) << "what cannot be read says nothing";
        End();
    }
}

TEST_F(FilesPlacementTest, ALimitThatDoesNotHoldBelowIsTold) {
    Begin(Version::kV1);
    MakeTwo();
    host->Kernel().Show("/a", "memory.use_hierarchy", "0\n");
    EXPECT_TRUE(Find("/a/b", Controller::kMemory).Ok()) << "it has no limit";
    LimitCpu(kEverywhere[0], "/a", 30000);
    auto place = Find("/a/b", Controller::kMemory);
    ASSERT_FALSE(place.Ok());
    EXPECT_EQ(ErrorKind::kNotDelegated, place.GetError().kind);
    EXPECT_THAT(place.GetError().Text(), HasSubstr("write 1 to its memory.use_hierarchy"));
    for (const char* text : {"1\n", "x\n"}) {
        host->Kernel().Show("/a", "memory.use_hierarchy", text);
        EXPECT_TRUE(Find("/a/b", Controller::kMemory).Ok()) << text;
    }
}

TEST_F(FilesPlacementTest, AProcessThatCannotBeSeenIsAStranger) {
    Begin(Version::kV2);
    host->Kernel().WriteAs("", "cgroup.subtree_control", "+cpu");
    Make("/a");
    Make("/a/b");
    LimitCpu(kEverywhere[1], "/a", 30000);
    EXPECT_TRUE(Find("/a/b").Ok()) << "nobody is in it";
    host->Kernel().Bear("/a", 0);
    auto place = Find("/a/b");
    ASSERT_FALSE(place.Ok());
    EXPECT_EQ(ErrorKind::kNotDelegated, place.GetError().kind);
    EXPECT_THAT(place.GetError().Text(), HasSubstr("and a process that cannot be seen from here in it is not"));
    EXPECT_EQ(0, FindStranger(*GroupDir::Open(host->Mount() + "/a", Version::kV2)));
    host->Kernel().WriteAs("/a", "cgroup.procs", "0");
    auto moved = host->Kernel().GroupOf(0);
    EXPECT_EQ("/a", moved);
}

TEST_F(FilesPlacementTest, AGroupWithUnseenProcessesIsInUse) {
    Begin(Version::kV2);
    auto root = GroupDir::Open(host->Mount(), Version::kV2);
    ASSERT_TRUE(root.Ok());
    host->Kernel().WriteAs("", "cgroup.subtree_control", "+cpu");
    Make("/a");
    auto group = root->OpenChild("a");
    ASSERT_TRUE(group.Ok());
    auto holds = group->HoldsProcesses();
    EXPECT_TRUE(holds.Ok() && !*holds);
    host->Kernel().Bear("/a", 0);
    holds = group->HoldsProcesses();
    EXPECT_TRUE(holds.Ok() && *holds);
    EXPECT_THAT(*group->Processes(), IsEmpty());
    auto made = MakeOwnChild(*root, "a");
    ASSERT_FALSE(made.Ok()) << "somebody else's is not taken over";
    EXPECT_EQ(ErrorKind::kRefused, made.GetError().kind);
    auto marked = IsMarkedOwn(*group);
    EXPECT_TRUE(marked.Ok() && !*marked);
    Status enabled = group->EnableForChildren("cpu");
    ASSERT_FALSE(enabled.Ok());
    EXPECT_THAT(enabled.GetError().Text(), HasSubstr("enable controller cpu under")) << "nothing is written";
    size_t unseen = 7;
    EXPECT_TRUE(group->Processes(unseen).Ok());
    EXPECT_EQ(1U, unseen);
    auto none = root->Processes(unseen);
    EXPECT_THAT(*none, ElementsAre(getpid()));
    EXPECT_EQ(0U, unseen);
}

TEST_F(FilesPlacementTest, AnUnseenProcessKeepsTheTree) {
    Publish(Version::kV2);
    auto tree = FindBranches();
    host->Kernel().Bear(Tree() + "/greedy/Greedy", 0);
    Status removed = RemoveEmptiedTree(*tree.of.cpu);
    ASSERT_FALSE(removed.Ok());
    EXPECT_EQ(ErrorKind::kBusy, removed.GetError().kind);
    EXPECT_TRUE(support::Exists(host->Mount() + Tree() + "/main/Tervane")) << "nothing of it goes";
    EXPECT_FALSE(SweepTree(*tree.of.cpu, GroupTargets())) << "something is left";
    host->Kernel().End(0);
}

TEST_F(FilesPlacementTest, AServiceThatIsNotDelegatedIsNamed) {
    Begin(Version::kV1);
    EXPECT_EQ("", zel::UndelegatedService());
    host->AddGroups("1:name=systemd:/system.slice/x.service\n");
    EXPECT_EQ("x.service", zel::UndelegatedService());
    EXPECT_THAT(Find("/")->reason, HasSubstr("; x.service is not delegated, so its manager moves"));
    host->AddGroups("1:name=systemd:/user.slice/x.scope\n");
    EXPECT_EQ("", zel::UndelegatedService());
    host->AddGroups("0::/system.slice/y.service/sub\n");
    EXPECT_EQ("y.service", zel::UndelegatedService()) << "where version 2 carries the units";
}

TEST_F(FilesPlacementTest, TheManagerFindsItsPlace) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Begin(where.version, where.mountRoot);
        EXPECT_FALSE(manager->IsCpuV2());
        EXPECT_FALSE(manager->IsMemV2());
        EXPECT_TRUE(manager->EnsureInitialized());
        EXPECT_EQ(where.version == Version::kV2, manager->IsCpuV2());
        EXPECT_EQ(where.version == Version::kV2, manager->IsMemV2());
        EXPECT_FALSE(manager->IsCpuCgroupEnabled() || manager->IsMemCgroupEnabled());
        std::vector<std::string> said;
        for (const auto& line : support::TakeLogLines()) said.push_back(std::to_string(line.level) + " " + line.text);
        ASSERT_EQ(2U, said.size());
        const std::string version = where.version == Version::kV2 ? "the version 2" : "a version 1";
        for (const size_t at : {0, 1}) {
            EXPECT_THAT(said[at], HasSubstr(std::string("controller ") + (at == 0 ? "cpu" : "memory") + " is on " +
                                            version + " hierarchy at " + host->Mount() +
                                            ", in a group of its own at the root of the hierarchy"));
            EXPECT_EQ(std::to_string(zel::kLogInfo), said[at].substr(0, 1));
        }
        EXPECT_TRUE(manager->EnsureInitialized());
        EXPECT_THAT(support::LogLines(), IsEmpty()) << "once";
        host->SetMounts(host->MountLine("ro"));
        EXPECT_FALSE(manager->EnsureInitialized());
        EXPECT_EQ(where.version == Version::kV2, manager->IsCpuV2());
        host->SetMounts("");
        EXPECT_FALSE(manager->EnsureInitialized());
        EXPECT_FALSE(manager->IsCpuV2() || manager->IsMemV2());
        host->SetMounts(host->MountLine());
        EXPECT_TRUE(manager->EnsureInitialized());
        manager = std::make_unique<zel::CCgroupManager>();
        host->SetMounts(host->MountLine("ro"));
        EXPECT_FALSE(manager->EnsureInitialized());
        for (const auto& line : support::TakeLogLines()) EXPECT_EQ(zel::kLogWarning, line.level) << line.text;
        host->SetMounts(host->MountLine());
        End();
    }
}

TEST_F(FilesPlacementTest, LimitsAreWhereTheMountShowsThem) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Publish(where.version, where.mountRoot);
        const bool isV2 = where.version == Version::kV2;
        EXPECT_EQ(isV2 ? "40000 100000" : "40000", Value(Tree(), isV2 ? "cpu.max" : "cpu.cfs_quota_us"));
        EXPECT_EQ(isV2 ? "20000 100000" : "20000", Value(Tree() + "/greedy", isV2 ? "cpu.max" : "cpu.cfs_quota_us"));
        EXPECT_EQ("20971520", Value(Tree() + "/greedy/Greedy", isV2 ? "memory.max" : "memory.limit_in_bytes"));
        EXPECT_EQ(4000, manager->GetParentCpuLimit100Times());
        EXPECT_EQ(524288, manager->GetParentMemLimitKB());
        EXPECT_TRUE(manager->IsParentCpuActive() && manager->IsParentMemActive());
        ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
        EXPECT_EQ(Tree() + "/main/Tervane", host->Kernel().GroupOf(getpid()));
        auto place = FindBranches().of.cpu;
        ASSERT_TRUE(place && place->placement);
        EXPECT_EQ(where.mountRoot, place->placement->groupPath);
        EXPECT_TRUE(place->placement->inside);
        EXPECT_EQ(At(where, Tree()), place->Tree().path);
        EXPECT_TRUE(place->Tree().Holds(At(where, Tree() + "/main/Tervane")));
        EXPECT_FALSE(place->Tree().Holds(At(where, Tree() + "x")));
        ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
        EXPECT_EQ("", host->Kernel().GroupOf(getpid()));
        End();
    }
}

class FilesProgramTest : public FilesTree {
protected:
    bool Place(const std::string& component, int pid) {
        error.clear();
        return zel::PlaceComponentProcess(component, pid, error);
    }
    /// A child with a child of its own.
    void BearTwo() {
        int ends[2] = {-1, -1};
        ASSERT_EQ(0, pipe(ends));
        parent = std::make_unique<treetest::Child>([&ends] {
            const pid_t own = fork();
            if (own == 0) treetest::Sleeper();
            if (write(ends[1], &own, sizeof own) != sizeof own) return 1;
            return treetest::Sleeper();
        });
        close(ends[1]);
        ASSERT_EQ(static_cast<ssize_t>(sizeof child), read(ends[0], &child, sizeof child));
        close(ends[0]);
        host->Kernel().Bear("", parent->Pid());
        host->Kernel().Bear("", child);
    }
    void EndTwo() {
        kill(child, SIGKILL);
        host->Kernel().End(child);
        host->Kernel().End(parent->Pid());
        parent.reset();
    }
    std::string Of(int pid) const { return host->Kernel().GroupOf(pid); }
    void MoveAs(int pid, const std::string& group) {
        ASSERT_EQ(0, host->Kernel().WriteAs(group, "cgroup.procs", std::to_string(pid)));
    }

    std::unique_ptr<treetest::Child> parent;
    pid_t child = 0;
    std::string error;
};

TEST_F(FilesProgramTest, IsPutIntoItsLeafWithAllThatItHasStarted) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Publish(where.version, where.mountRoot);
        const std::string leaf = Tree() + "/greedy/Greedy";
        BearTwo();
        ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
        EXPECT_EQ(leaf, Of(parent->Pid()));
        EXPECT_EQ(leaf, Of(child));
        EXPECT_EQ("", Of(getpid())) << "nobody else is moved";
        ASSERT_TRUE(Place("Greedy", parent->Pid()));
        MoveAs(child, "");
        ASSERT_TRUE(Place("Greedy", parent->Pid()));
        EXPECT_EQ("", Of(child)) << "while nothing tells of a change only it is looked at";
        MoveAs(parent->Pid(), Tree() + "/main/Tervane");
        ASSERT_TRUE(Place("Greedy", parent->Pid()));
        EXPECT_EQ(leaf, Of(parent->Pid()));
        EXPECT_EQ(leaf, Of(child));
        ASSERT_TRUE(Place("Greedy", parent->Pid()));
        MoveAs(child, "");
        host->SetMounts(host->MountLine());
        ASSERT_TRUE(Place("Greedy", parent->Pid()));
        EXPECT_EQ(leaf, Of(child)) << "the mounts have changed";
        ASSERT_TRUE(Place("Greedy", parent->Pid()));
        MoveAs(child, "");
        ASSERT_TRUE(PublishAgain(600));
        ASSERT_TRUE(Place("Greedy", parent->Pid()));
        EXPECT_EQ(leaf, Of(child)) << "the file has changed";
        ASSERT_TRUE(Place("Tervane", parent->Pid()));
        EXPECT_EQ(Tree() + "/main/Tervane", Of(parent->Pid())) << "it is another component now";
        EXPECT_EQ(Tree() + "/main/Tervane", Of(child));
        EndTwo();
        End();
    }
}

TEST_F(FilesProgramTest, WithoutAPlaceItGoesToTheMainProcess) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Publish(where.version, where.mountRoot);
        BearTwo();
        const std::string leaf = Tree() + "/greedy/Greedy";
        ASSERT_EQ(0, host->Kernel().MakeGroup("/beside"));
        for (const std::string& main : {std::string(), std::string("/beside")}) {
            MoveAs(getpid(), main);
            ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
            EXPECT_EQ(leaf, Of(child));
            ASSERT_TRUE(Place("Unknown", parent->Pid())) << error;
            EXPECT_EQ(main, Of(parent->Pid()));
            EXPECT_EQ(main, Of(child));
        }
        MoveAs(child, "");
        ASSERT_TRUE(Place("Unlisted", parent->Pid())) << error;
        EXPECT_EQ("", Of(child)) << "outside the tree it is left";
        ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
        ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
        ASSERT_TRUE(Place("Unknown", parent->Pid())) << error;
        EXPECT_EQ("", Of(parent->Pid())) << "beside the tree";
        ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
        ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
        ASSERT_TRUE(manager->WriteDisabledConfig(file));
        MoveAs(getpid(), "");
        ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
        EXPECT_EQ("", Of(parent->Pid())) << "there are no unified limits";
        EXPECT_EQ("", Of(child));
        ASSERT_TRUE(PublishAgain(500));
        ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
        EXPECT_EQ(leaf, Of(child));
        ASSERT_EQ(0, unlink(file.c_str()));
        ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
        EXPECT_EQ("", Of(parent->Pid())) << "no file, and nobody in the tree";
        EndTwo();
        End();
    }
}

TEST_F(FilesProgramTest, StaysWhileItsPlaceCannotBeTold) {
    Publish(Version::kV2);
    BearTwo();
    ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
    const std::string good = support::ReadText(file);
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_FALSE(Place("Greedy", parent->Pid())) << "it is awaited";
    EXPECT_THAT(error, HasSubstr(file));
    EXPECT_EQ("", Of(parent->Pid()));
    ASSERT_TRUE(support::WriteText(file, "{"));
    EXPECT_FALSE(Place("Greedy", parent->Pid()));
    EXPECT_THAT(error, HasSubstr(file));
    ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
    EXPECT_FALSE(Place("Greedy", parent->Pid())) << "a damaged one is none that is missing";
    ASSERT_TRUE(support::ReplaceText(file, good));
    host->Kernel().RemoveGroup(Tree() + "/greedy/Greedy");
    EXPECT_FALSE(Place("Greedy", parent->Pid()));
    EXPECT_THAT(error, HasSubstr("/greedy/Greedy"));
    ASSERT_TRUE(PublishAgain(500));
    for (const int number : {1, 2}) {
        host->Kernel().FailWrite(number, EACCES);
        EXPECT_FALSE(Place("Greedy", parent->Pid())) << number;
        EXPECT_THAT(error, HasSubstr("/greedy/Greedy/cgroup.procs"));
        EXPECT_EQ(number == 2, Of(parent->Pid()) != "");
        EXPECT_EQ("", Of(child));
        MoveAs(parent->Pid(), "");
    }
    host->Kernel().FailWrite(1, ESRCH);
    EXPECT_TRUE(Place("Greedy", parent->Pid())) << "one that has ended is no failure: " << error;
    EXPECT_EQ(Tree() + "/greedy/Greedy", Of(child));
    const int pid = parent->Pid();
    EndTwo();
    EXPECT_TRUE(Place("Greedy", pid)) << error;
}

TEST_F(FilesProgramTest, WhatWasNotSeenIsNotTakenForPlaced) {
    Publish(Version::kV2);
    BearTwo();
    const std::string leaf = Tree() + "/greedy/Greedy";
    ASSERT_TRUE(Place("Greedy", parent->Pid()) && Place("Greedy", parent->Pid()));
    for (const bool known : {true, false}) {
        MoveAs(child, "");
        host->SetMounts(host->MountLine());
        {
            const faults::Failing failing(faults::Call::kRead, EIO);
            ASSERT_TRUE(Place("Greedy", parent->Pid())) << error;
        }
        EXPECT_EQ(leaf, Of(child)) << "known before: " << known;
    }
    MoveAs(child, "");
    ASSERT_TRUE(Place("Greedy", parent->Pid()));
    EXPECT_EQ(leaf, Of(child)) << "it could not be told where it was";
    EndTwo();
}

TEST_F(FilesProgramTest, EveryPlaceOfTheFileIsNamed) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Publish(where.version, where.mountRoot);
        zel::ComponentPlaces places;
        ASSERT_TRUE(zel::ReadComponentPlaces(places, error)) << error;
        EXPECT_TRUE(places.unified);
        EXPECT_FALSE(places.awaited);
        ASSERT_EQ(2U, places.directories.size());
        EXPECT_THAT(places.directories["Greedy"], ElementsAre(host->Mount() + Tree() + "/greedy/Greedy"));
        EXPECT_THAT(places.directories["Tervane"], ElementsAre(host->Mount() + Tree() + "/main/Tervane"));
        host->Kernel().RemoveGroup(Tree() + "/greedy/Greedy");
        ASSERT_TRUE(zel::ReadComponentPlaces(places, error)) << error;
        EXPECT_THAT(places.directories["Greedy"], IsEmpty()) << "it is not there as the file says";
        EXPECT_EQ(1U, places.directories.count("Greedy"));
        EXPECT_EQ(1U, places.directories["Tervane"].size());
        ASSERT_TRUE(manager->WriteDisabledConfig(file));
        ASSERT_TRUE(zel::ReadComponentPlaces(places, error)) << error;
        EXPECT_FALSE(places.unified || places.awaited);
        EXPECT_THAT(places.directories, IsEmpty());
        End();
    }
}

TEST_F(FilesProgramTest, AFileIsAwaitedWhileTheMainIsInTheTree) {
    Publish(Version::kV1);
    zel::ComponentPlaces places;
    std::string problem;
    const auto look = [&] {
        error = problem = "";
        places.unified = places.awaited = true;
        const bool read = zel::ReadComponentPlaces(places, error);
        const bool awaited = zel::IsComponentFileAwaited(problem);
        return std::string(read ? "read" : "unread") + (places.unified ? " unified" : "") +
               (places.awaited ? " awaited" : "") + (error.empty() ? "" : " told") + (awaited ? " wait" : "") +
               (problem.empty() ? "" : " told");
    };
    const std::string good = support::ReadText(file);
    EXPECT_EQ("read unified", look());
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_EQ("read", look()) << "nobody is in the tree";
    ASSERT_TRUE(support::WriteText(file, "{"));
    EXPECT_EQ("unread told", look());
    ASSERT_TRUE(support::ReplaceText(file, good));
    ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
    EXPECT_EQ("read unified", look());
    ASSERT_TRUE(support::ReplaceText(file, "{"));
    EXPECT_EQ("unread awaited told wait told", look());
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_EQ("unread awaited told wait told", look());
    ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
    EXPECT_EQ("read", look());
    host->Kernel().Bear(Tree() + "/main/Tervane", 1);
    EXPECT_EQ("read", look()) << "somebody else's process is no main process";
    host->Kernel().End(1);
}

}  // namespace
