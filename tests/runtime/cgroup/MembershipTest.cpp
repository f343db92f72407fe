// In and out of a group on the machine's own version 1 controllers: all groups or none, and back where a process came
// from.
#include "Membership.h"

#include <linux/sched.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>

#include "RealKernel.h"
#include "support/Faults.h"

namespace zel {
namespace cgroup {
namespace {

class MembershipTest : public RealV1 {
protected:
    void SetUp() override {
        RealV1::SetUp();
        if (IsSkipped()) return;
        m_cpuOurs = Make(m_cpu, m_name);
        m_memoryOurs = Make(m_memory, m_name);
        m_cpuBefore = Make(m_cpu, m_name + ".before");
        ASSERT_TRUE(m_cpuBefore.MoveHere(m_child.Pid()).Ok());
    }
    void TearDown() override {
        m_child.End();
        RealV1::TearDown();
    }

    GroupDir Make(const Hierarchy& hierarchy, const std::string& name) {
        Result<GroupDir> root = GroupDir::Open(hierarchy.mountPoint, hierarchy.version);
        EXPECT_TRUE(root.Ok());
        Result<GroupDir> child = root->MakeChild(name);
        EXPECT_TRUE(child.Ok());
        return std::move(*child);
    }
    std::string Where(const Hierarchy& hierarchy) const {
        Result<std::string> path = ReadGroupOf(m_child.Pid(), hierarchy);
        return path ? *path : path.GetError().Text();
    }
    Territory Ours(const Hierarchy& hierarchy) const { return {hierarchy, "/" + m_name}; }
    std::vector<Entry> Both() const { return {{Ours(m_cpu), &m_cpuOurs}, {Ours(m_memory), &m_memoryOurs}}; }
    /// Says that it was asked, and moves nobody.
    Refuge Counted() {
        return [this](int) {
            ++m_refuge;
            return Status();
        };
    }

    WaitingChild m_child;
    GroupDir m_cpuOurs;
    GroupDir m_memoryOurs;
    GroupDir m_cpuBefore;
    Membership m_membership;
    std::vector<Error> m_stranded;
    int m_refuge = 0;
};

TEST(TerritoryTest, HoldsItselfAndWhatIsBelow) {
    const Territory ours{Hierarchy(), "/a/zel"};
    EXPECT_TRUE(ours.Holds("/a/zel"));
    EXPECT_TRUE(ours.Holds("/a/zel/main"));
    for (const char* path : {"/a/zel2", "/a", "/", "", "/b/a/zel"}) EXPECT_FALSE(ours.Holds(path)) << path;
    EXPECT_FALSE((Territory{Hierarchy(), ""}).Holds("/")) << "no place, nobody inside";
}

TEST_F(MembershipTest, JoinsEveryGroupAndReturnsToTheOrigin) {
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), Both(), m_stranded).Ok());
    EXPECT_EQ("/" + m_name, Where(m_cpu));
    EXPECT_EQ("/" + m_name, Where(m_memory));
    ASSERT_TRUE(m_membership.Leave(m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ("/" + m_name + ".before", Where(m_cpu));
    EXPECT_EQ("/" + m_name, Where(m_memory));
    EXPECT_EQ(0, m_refuge);
}

TEST_F(MembershipTest, JoinsAllGroupsOrNone) {
    const faults::Failing failing(faults::Call::kWrite, EBUSY, 2);
    const std::string memoryBefore = Where(m_memory);
    EXPECT_FALSE(m_membership.Join(m_child.Pid(), Both(), m_stranded).Ok());
    EXPECT_EQ("/" + m_name + ".before", Where(m_cpu)) << "the first move is taken back";
    EXPECT_EQ(memoryBefore, Where(m_memory));
    EXPECT_TRUE(m_stranded.empty());
}

TEST_F(MembershipTest, TellsOfAMoveThatCannotBeTakenBack) {
    {
        const faults::Failing failing(faults::Call::kWrite, EBUSY, 2, 2);
        EXPECT_FALSE(m_membership.Join(m_child.Pid(), Both(), m_stranded).Ok());
    }
    ASSERT_EQ(1u, m_stranded.size());
    EXPECT_EQ("/" + m_name, Where(m_cpu));
    ASSERT_TRUE(m_membership.Leave(m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ("/" + m_name + ".before", Where(m_cpu)) << "its origin is known all the same";
    EXPECT_EQ(0, m_refuge);
}

TEST_F(MembershipTest, KeepsTheFirstOriginUntilTheProcessLeaves) {
    const GroupDir elsewhere = Make(m_cpu, m_name + ".elsewhere");
    const std::vector<Entry> cpu = {{Ours(m_cpu), &m_cpuOurs}};
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), cpu, m_stranded).Ok());
    ASSERT_TRUE(elsewhere.MoveHere(m_child.Pid()).Ok());
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), cpu, m_stranded).Ok());
    ASSERT_TRUE(m_membership.Leave(m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ("/" + m_name + ".before", Where(m_cpu)) << "where somebody else put it is not where it came from";
    ASSERT_TRUE(elsewhere.MoveHere(m_child.Pid()).Ok());
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), cpu, m_stranded).Ok());
    ASSERT_TRUE(m_membership.Leave(m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ("/" + m_name + ".elsewhere", Where(m_cpu)) << "forgotten when it left";
}

TEST_F(MembershipTest, GoesToTheRefugeWhenTheOriginIsGone) {
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), Both(), m_stranded).Ok());
    Result<GroupDir> root = GroupDir::Open(m_cpu.mountPoint, m_cpu.version);
    ASSERT_TRUE(root.Ok());
    ASSERT_TRUE(root->RemoveChild(m_name + ".before").Ok());
    ASSERT_TRUE(m_membership.Leave(m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ(1, m_refuge);
}

TEST_F(MembershipTest, GoesToTheRefugeWhenItWasBornInside) {
    ASSERT_TRUE(m_cpuOurs.MoveHere(m_child.Pid()).Ok());
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), {{Ours(m_cpu), &m_cpuOurs}}, m_stranded).Ok());
    ASSERT_TRUE(m_membership.Leave(m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ(1, m_refuge);
}

TEST_F(MembershipTest, LeavesAProcessOutsideWhereItIs) {
    ASSERT_TRUE(m_membership.Leave(m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ("/" + m_name + ".before", Where(m_cpu));
    EXPECT_EQ(0, m_refuge);
}

TEST_F(MembershipTest, SendsAChildWhereItsParentCameFrom) {
    const WaitingChild other;
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), {{Ours(m_cpu), &m_cpuOurs}}, m_stranded).Ok());
    ASSERT_TRUE(m_cpuOurs.MoveHere(other.Pid()).Ok());
    ASSERT_TRUE(m_membership.SendBack(other.Pid(), m_child.Pid(), Ours(m_cpu), Counted()).Ok());
    Result<bool> there = m_cpuBefore.Contains(other.Pid());
    EXPECT_TRUE(there && *there);
}

/// Starts a waiting process of that very pid. Returns: 0, or why the kernel would not.
int StartAs(pid_t pid) {
    clone_args arguments = {};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<uint64_t>(&pid);
    arguments.set_tid_size = 1;
    const long started = syscall(SYS_clone3, &arguments, sizeof arguments);
    if (started == 0) {
        for (;;) pause();
    }
    return started < 0 ? errno : 0;
}

TEST_F(MembershipTest, TakesAPidThatIsUsedAgainForAStranger) {
    ASSERT_TRUE(m_membership.Join(m_child.Pid(), {{Ours(m_cpu), &m_cpuOurs}}, m_stranded).Ok());
    const pid_t pid = m_child.Pid();
    m_child.End();
    usleep(30000);  // start times are told in hundredths of a second
    const int error = StartAs(pid);
    if (error != 0) GTEST_SKIP() << "SKIP: the kernel gives no pid of choice: " << strerror(error);
    ASSERT_TRUE(m_cpuOurs.MoveHere(pid).Ok());
    EXPECT_TRUE(m_membership.Leave(pid, Ours(m_cpu), Counted()).Ok());
    EXPECT_EQ(1, m_refuge) << "the origin is another process's";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(MembershipTest, SaysThatAProcessIsNotThere) {
    const int pid = m_child.Pid();
    m_child.End();
    EXPECT_EQ(ErrorKind::kNotFound, m_membership.Join(pid, Both(), m_stranded).GetError().kind);
    EXPECT_EQ(ErrorKind::kNotFound, m_membership.Leave(pid, Ours(m_cpu), Counted()).GetError().kind);
}

}  // namespace
}  // namespace cgroup
}  // namespace zel
