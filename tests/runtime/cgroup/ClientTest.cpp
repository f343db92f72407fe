// The cgroup client: this very process joins, changes and leaves, on the real kernel; and whatever is wrong with the
// file, nothing happens.
#include <algorithm>

#include "AgentTreeFixture.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "support/SystemCalls.h"

namespace {

using namespace treetest;
using ::testing::HasSubstr;

class CgroupClientTest : public AgentTree {
protected:
    void SetUp() override {
        AgentTree::SetUp();
        if (!prepared) return;
        zel::SetCgroupClientComponent("Worker");
        before = ReadValue("/proc/self/cgroup");
        ASSERT_TRUE(Publish(10000, 102400));
        ClearFaults();
    }

    /// The main process's part, with quotas that let this process run.
    bool Publish(int cpu, int memKb, bool cpuOn = true, bool memOn = true) {
        return manager.Reconcile(cpuOn, memOn, Total(400, 524288, cpuOn, memOn),
                                 {Group("main", 0, 262144), Group("other", 0, 262144)}) &&
               manager.WriteComponentConfig(
                   file, {Quota("Worker", "main", cpu, memKb), Quota("Somebody", "other", 10000, 102400)}, 40000,
                   524288);
    }
    /// Changes the published text.
    void Edit(const std::string& from, const std::string& to) {
        std::string text = ReadValue(file) + "\n";
        const size_t at = text.find(from);
        ASSERT_NE(std::string::npos, at) << from;
        text.replace(at, from.size(), to);
        ASSERT_EQ(0, unlink(file.c_str()));
        Put(text);
    }
    void Put(const std::string& text, mode_t mode = 0640) {
        const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
        fchmod(fd, mode);
        close(fd);
    }
    /// The file as it says that there are no unified limits.
    void SwitchOff() {
        unlink(file.c_str());
        Put("{\"version\": 1, \"enabled\": false, \"boot_id\": \"\"}");
    }
    /// A refused file: false, one line with the reason, and everything as it was.
    void ExpectRefused(const std::string& reason) {
        const std::string groups = ReadValue("/proc/self/cgroup");
        const bool cpu = client.IsCpuJoined();
        const int quota = client.GetMemQuotaKB();
        ClearFaults();
        EXPECT_FALSE(client.ReloadConfig()) << reason;
        EXPECT_EQ(groups, ReadValue("/proc/self/cgroup"));
        EXPECT_EQ(cpu, client.IsCpuJoined());
        EXPECT_EQ(quota, client.GetMemQuotaKB());
        ASSERT_EQ(1u, Warnings().size()) << reason;
        EXPECT_THAT(Warnings()[0], HasSubstr(reason));
        EXPECT_THAT(Warnings()[0], HasSubstr("membership stays as it is"));
    }

    zel::CCgroupManager manager;
    zel::CCgroupClient client;
    std::string before;
};

TEST_F(CgroupClientTest, JoinsTheLeafThatTheFileNames) {
    EXPECT_FALSE(client.IsCpuJoined());
    EXPECT_EQ("", client.GetMemCgroupPath());
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_TRUE(client.IsCpuJoined());
    EXPECT_TRUE(client.IsMemJoined());
    EXPECT_EQ(10000, client.GetCpuQuota100Times());
    EXPECT_EQ(102400, client.GetMemQuotaKB());
    EXPECT_EQ(cpuTree + "/main/Worker", client.GetCpuCgroupPath());
    EXPECT_EQ(memTree + "/main/Worker", client.GetMemCgroupPath());
    EXPECT_TRUE(IsIn(getpid(), "main/Worker"));
    EXPECT_EQ(layout.cpuV2, Exists(client.GetCpuCgroupPath() + "/cgroup.controllers"));
}

TEST_F(CgroupClientTest, TakesNameFromEnvironmentWhenNobodyGaveOne) {
    zel::SetCgroupClientComponent("");
    setenv("ZEL_COMPONENT", "Somebody", 1);
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_TRUE(IsIn(getpid(), "other/Somebody"));
    unsetenv("ZEL_COMPONENT");
}

TEST_F(CgroupClientTest, FollowsANewQuota) {
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_TRUE(Publish(20000, 204800));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_EQ(20000, client.GetCpuQuota100Times());
    EXPECT_EQ(204800, client.GetMemQuotaKB());
}

TEST_F(CgroupClientTest, ChangesTheGroup) {
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_TRUE(manager.WriteComponentConfig(file, {Quota("Worker", "other", 10000, 102400)}, 40000, 524288));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_TRUE(IsIn(getpid(), "other/Worker"));
    ASSERT_TRUE(
        manager.Reconcile(true, true, Total(400, 524288), {Group("main", 0, 262144), Group("other", 0, 262144)}));
    ASSERT_TRUE(manager.WriteComponentConfig(file, {Quota("Worker", "other", 10000, 102400)}, 40000, 524288));
    EXPECT_FALSE(Exists(cpuTree + "/main/Worker")) << "the leaf that it left is removed";
}

TEST_F(CgroupClientTest, LeavesWhenFileIsGoneAndGoesBackToItsOrigin) {
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    EXPECT_FALSE(client.IsCpuJoined());
    EXPECT_FALSE(client.IsMemJoined());
    EXPECT_EQ(0, client.GetMemQuotaKB());
    EXPECT_EQ("", client.GetCpuCgroupPath());
    EXPECT_TRUE(client.ReloadConfig()) << "nothing to leave is no failure";
}

TEST_F(CgroupClientTest, StaysWhenItsFileIsTakenBesideMain) {
    ASSERT_TRUE(manager.WriteComponentConfig(
        file, {Quota("Worker", "main", 10000, 102400), Quota("Tervane", "main", 10000, 102400)}, 40000, 524288));
    ASSERT_TRUE(client.ReloadConfig());
    Child main(Sleeper);
    for (const std::string& tree : {cpuTree, memTree}) {
        ASSERT_TRUE(support::WriteText(tree + "/main/Tervane/cgroup.procs", std::to_string(main.Pid())));
    }
    std::string problem;
    EXPECT_FALSE(zel::IsComponentFileAwaited(problem));
    const std::string text = ReadValue(file) + "\n";
    ASSERT_EQ(0, unlink(file.c_str()));
    ExpectRefused("No such file");
    EXPECT_TRUE(zel::IsComponentFileAwaited(problem));
    EXPECT_THAT(problem, HasSubstr(file));
    zel::ComponentPlaces places;
    EXPECT_FALSE(zel::ReadComponentPlaces(places, problem)) << "nothing is known of any place";
    EXPECT_TRUE(places.awaited);
    Put("{");
    ExpectRefused(file);
    EXPECT_TRUE(zel::IsComponentFileAwaited(problem));
    ASSERT_EQ(0, unlink(file.c_str()));
    Put(text);
    EXPECT_TRUE(client.ReloadConfig());
    EXPECT_FALSE(zel::IsComponentFileAwaited(problem));
    EXPECT_TRUE(IsIn(getpid(), "main/Worker"));
}

TEST_F(CgroupClientTest, LeavesWhenLimitsAreSwitchedOffAndJoinsAgain) {
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_TRUE(manager.WriteDisabledConfig(file));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    ASSERT_TRUE(Publish(10000, 102400));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_TRUE(IsIn(getpid(), "main/Worker"));
}

TEST_F(CgroupClientTest, SaysOnceThatItLeftWhateverItHadJoined) {
    struct Case {
        bool cpu, memory;
    };
    for (const Case& joined : {Case{true, true}, Case{true, false}, Case{false, true}, Case{false, false}}) {
        SCOPED_TRACE(testing::Message() << "cpu " << joined.cpu << ", memory " << joined.memory);
        if (joined.cpu || joined.memory) {
            ASSERT_TRUE(Publish(10000, 102400, joined.cpu, joined.memory));
            ASSERT_TRUE(client.ReloadConfig());
            EXPECT_EQ(joined.cpu, client.IsCpuJoined());
            EXPECT_EQ(joined.memory, client.IsMemJoined());
        }
        ClearFaults();
        SwitchOff();
        EXPECT_TRUE(client.ReloadConfig());
        unlink(file.c_str());
        EXPECT_TRUE(client.ReloadConfig());
        EXPECT_FALSE(client.IsCpuJoined() || client.IsMemJoined());
        size_t said = 0;
        for (const support::LogLine& line : support::LogLines()) {
            if (line.text.find("left the unified groups: ") == std::string::npos) continue;
            ++said;
            EXPECT_EQ(zel::kLogInfo, line.level);
        }
        EXPECT_EQ(joined.cpu || joined.memory ? 1u : 0u, said);
    }
}

TEST_F(CgroupClientTest, LeavesTheOneControllerThatIsSwitchedOff) {
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_TRUE(Publish(0, 102400, false, true));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_FALSE(client.IsCpuJoined());
    EXPECT_TRUE(client.IsMemJoined());
    EXPECT_EQ(0, client.GetCpuQuota100Times());
}

TEST_F(CgroupClientTest, LeavesTheGroupOfItsBirthWithoutEverJoining) {
    ASSERT_TRUE(manager.AddPidToGroup("main", getpid()));
    Child born([&] {
        zel::CCgroupClient own;
        SwitchOff();
        if (!own.ReloadConfig()) return 1;
        return IsIn(getpid(), "main/Tervane") ? 2 : 0;
    });
    const int status = born.Wait();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    ASSERT_TRUE(manager.RemovePidFromGroup("main", getpid()));
}

// The limits of others that hold for the main process hold for what it has started.
TEST_F(CgroupClientTest, GoesFromTheGroupOfItsBirthToItsParents) {
    if (layout.cpuV2) GTEST_SKIP() << "SKIP: on version 2 the tree's base is where the parent is";
    const std::string outer = layout.cpuMount + "/outer." + std::to_string(getpid());
    ASSERT_EQ(0, mkdir(outer.c_str(), 0755));
    ASSERT_TRUE(WriteText(outer + "/cgroup.procs", std::to_string(getpid())));
    ASSERT_TRUE(manager.AddPidToGroup("main", getpid()));
    int ready[2];
    ASSERT_EQ(0, pipe2(ready, O_CLOEXEC));
    Child born([&] {
        char byte = 0;
        if (read(ready[0], &byte, 1) != 1) return 3;
        zel::CCgroupClient own;
        SwitchOff();
        if (!own.ReloadConfig()) return 1;
        const std::vector<std::string> inside = Procs(outer);
        return std::find(inside.begin(), inside.end(), std::to_string(getpid())) == inside.end() ? 2 : 0;
    });
    EXPECT_TRUE(manager.RemovePidFromGroup("main", getpid()));
    EXPECT_EQ(1, write(ready[1], "x", 1));
    EXPECT_EQ(0, born.Wait());
    EXPECT_TRUE(WriteText(layout.cpuMount + "/cgroup.procs", std::to_string(getpid())));
    EXPECT_TRUE(Eventually([&] { return rmdir(outer.c_str()) == 0; }));
    close(ready[0]);
    close(ready[1]);
}

TEST_F(CgroupClientTest, ComesBackWhenSomebodyMovedItAway) {
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_TRUE(WriteText(layout.memMount + "/cgroup.procs", std::to_string(getpid())));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_TRUE(IsIn(getpid(), "main/Worker"));
}

TEST_F(CgroupClientTest, AStrangerInTheMainLeafIsNoMainProcess) {
    ASSERT_TRUE(manager.WriteComponentConfig(file, {Quota("Tervane", "main", 0, 0), Quota("Worker", "main", 0, 0)},
                                             40000, 524288));
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_TRUE(IsIn(getpid(), "main/Worker"));
    Child stranger([] { return execl("/bin/sleep", "sleep", "100", nullptr); });
    const std::string sleeping = "/proc/" + std::to_string(stranger.Pid()) + "/comm";
    ASSERT_TRUE(Eventually([&] { return ReadValue(sleeping) == "sleep"; }));
    for (const std::string& tree : {cpuTree, memTree}) {
        ASSERT_TRUE(WriteText(tree + "/main/Tervane/cgroup.procs", std::to_string(stranger.Pid())));
    }
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_TRUE(client.ReloadConfig());
    EXPECT_FALSE(IsIn(getpid(), "main/Worker"));
}

TEST_F(CgroupClientTest, ALookAtRestOpensNothing) {
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(client.ReloadConfig());
    constexpr int kTimes = 20;
    const support::SystemCalls calls = support::CountSystemCalls([&] {
        for (int i = 0; i < kTimes; ++i) EXPECT_TRUE(client.ReloadConfig());
    });
    if (!calls.counted) GTEST_SKIP() << "SKIP direct: this thread cannot be traced";
    EXPECT_EQ(0, calls.opens);
    EXPECT_LE(calls.all, 4 * kTimes);
    printf("[ FIGURE ] a look at rest: %d system calls\n", calls.all / kTimes);
}

TEST_F(CgroupClientTest, ALongRestEndsWithWhateverHappens) {
    const auto rest = [&] {
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(client.ReloadConfig());
    };
    rest();
    for (const std::string& root : {layout.cpuMount, layout.memMount}) {
        ASSERT_TRUE(WriteText(root + "/cgroup.procs", std::to_string(getpid())));
        ASSERT_TRUE(client.ReloadConfig());
        EXPECT_TRUE(IsIn(getpid(), "main/Worker")) << root;
        rest();
    }
    ASSERT_TRUE(Publish(20000, 204800));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_EQ(20000, client.GetCpuQuota100Times());
    rest();
    zel::SetCgroupClientComponent("Somebody");
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_TRUE(IsIn(getpid(), "other/Somebody"));
    zel::SetCgroupClientComponent("Worker");
    ASSERT_TRUE(client.ReloadConfig());
    rest();
    SwitchOff();
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_FALSE(client.IsCpuJoined());
    rest();
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
}

TEST_F(CgroupClientTest, RefusesEveryMalformedFile) {
    ASSERT_TRUE(client.ReloadConfig());
    const std::string good = ReadValue(file) + "\n";
    struct Case {
        const char* from;
        const char* to;
        const char* reason;
    };
    const std::vector<Case> cases = {
        {"{\n", "", "it is not JSON"},
        {"\"version\": 1,", "\"version\": 2,", "version 2 is not known here"},
        {"\"version\": 1,", "\"version\": \"1\",", "\"version\" of the file is not a number"},
        {"\"version\": 1,", "\"version\": -1,", "\"version\" of the file is not a number"},
        {"\"enabled\": true", "\"enabled\": 1", "neither true nor false"},
        {"\"enabled\": true,", "", "the file has no \"enabled\""},
        {"\"parent\"", "\"parents\"", "the file has no \"parent\""},
        {"\"components\"", "\"component\"", "the file has no \"components\""},
        {"\"components\": [", "\"components\": [7, ", "a component has no \"name\""},
        {"\"name\": \"Worker\"", "\"name\": \"Nobody\"", "is not its leaf in the agent's tree"},
        {"\"name\": \"Worker\"", "\"name\": \"Somebody\"", "is not its leaf in the agent's tree"},
        {"\"group\": \"main\"", "\"group\": \"../..\"", "is not a group name"},
        {"\"group\": \"main\"", "\"group\": \"nowhere\"", "is not its leaf in the agent's tree"},
        {"\"group\": \"main\"", "\"group\": null", "\"group\" of cpu of component Worker is not a text"},
        {"/main/Worker\"", "/main/../Worker\"", "is not its leaf in the agent's tree"},
        {"/main/Worker\"", "\"", "is not its leaf in the agent's tree"},
        {"\"quota_100times\": 10000", "\"quota_100times\": -1", "is not a number from 0"},
        {"\"quota_100times\": 10000", "\"quota_100times\": 99999999999", "is not a number from 0"},
        {"\"quota_100times\": 10000", "\"quota_100times\": 1.5", "is not a number from 0"},
        {"\"quota_kb\"", "\"quota\"", "has no \"quota_kb\""},
        {"\"inode\": ", "\"inode\": 0, \"x\": ", "\"inode\" of parent cpu is not a positive number"},
        {"\"limit_kb\": 524288}", "\"limit_kb\": 524288}, \"memory\": null", "it is not JSON"},
    };
    for (const Case& each : cases) {
        ASSERT_EQ(0, unlink(file.c_str()));
        Put(good);
        Edit(each.from, each.to);
        ExpectRefused(each.reason);
    }
    for (const std::string& text :
         {std::string(), std::string("null"), std::string("[]"), good.substr(0, good.size() / 2),
          std::string(3000, '['), std::string(300 * 1024, ' '), std::string("\0\0", 2), good + "x"}) {
        ASSERT_EQ(0, unlink(file.c_str()));
        Put(text);
        ExpectRefused("cgroup_resource.json");
    }
    ASSERT_EQ(0, unlink(file.c_str()));
    Put(good);
    EXPECT_TRUE(client.ReloadConfig());
}

TEST_F(CgroupClientTest, RefusesAFileOfAnEarlierBoot) {
    const std::string boot = ReadValue("/proc/sys/kernel/random/boot_id");
    Edit(boot, "00000000-0000-0000-0000-000000000000");
    ExpectRefused("it was written before the last boot");
}

TEST_F(CgroupClientTest, RefusesAFileAboutGroupsThatWereMadeAnew) {
    const std::string old = ReadValue(file) + "\n";
    std::string error;
    ASSERT_TRUE(zel::RemoveAgentCgroupTree(error)) << error;
    ASSERT_TRUE(Publish(10000, 102400));
    ASSERT_EQ(0, unlink(file.c_str()));
    Put(old);
    ExpectRefused("the group was made anew since the file was written");
}

TEST_F(CgroupClientTest, RefusesAFileAboutGroupsThatAreGone) {
    std::string error;
    ASSERT_TRUE(zel::RemoveAgentCgroupTree(error)) << error;
    ExpectRefused("cannot open");
}

TEST_F(CgroupClientTest, RefusesAPathOutsideTheAgentsTree) {
    const std::string foreign = layout.cpuMount + "/" + treeName + "-foreign";
    ASSERT_EQ(0, mkdir(foreign.c_str(), 0755));
    ASSERT_EQ(0, mkdir((foreign + "/main").c_str(), 0755));
    ASSERT_EQ(0, mkdir((foreign + "/main/Worker").c_str(), 0755));
    std::string text = ReadValue(file) + "\n";
    const std::string inside = "\"" + cpuTree + "/main/Worker\"";
    text.replace(text.find(inside), inside.size(), "\"" + foreign + "/main/Worker\"");
    text.replace(text.find("\"" + cpuTree + "\""), cpuTree.size() + 2, "\"" + foreign + "\"");
    Put(text);
    ClearFaults();
    EXPECT_FALSE(client.ReloadConfig());
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    ASSERT_EQ(0, rmdir((foreign + "/main/Worker").c_str()));
    ASSERT_EQ(0, rmdir((foreign + "/main").c_str()));
    ASSERT_EQ(0, rmdir(foreign.c_str()));
}

TEST_F(CgroupClientTest, RefusesLinkPipeDirectoryAndFileOthersWrite) {
    const std::string good = ReadValue(file) + "\n";
    const std::string elsewhere = appDir + "/elsewhere";
    ASSERT_EQ(0, rename(file.c_str(), elsewhere.c_str()));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), file.c_str()));
    ExpectRefused("a symbolic link is not followed");
    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_EQ(0, unlink(elsewhere.c_str()));
    ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    ExpectRefused("not a regular file");
    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_EQ(0, mkdir(file.c_str(), 0700));
    ExpectRefused("not a regular file");
    ASSERT_EQ(0, rmdir(file.c_str()));
    for (const mode_t mode : {0666u, 0660u, 0602u}) {
        Put(good, mode);
        ExpectRefused((mode & 0002u) != 0 ? "writable by everybody" : "writable by its group");
    }
    Put(good);
    ASSERT_EQ(0, chown(file.c_str(), 65534, 65534));
    ExpectRefused("owned by user 65534");
    ASSERT_EQ(0, chown(file.c_str(), 0, 0));
    EXPECT_TRUE(client.ReloadConfig());
}

TEST_F(CgroupClientTest, RefusesAFileThatDoesNotNameIt) {
    zel::SetCgroupClientComponent("Unknown");
    ExpectRefused("it has no component named [Unknown]");
    zel::SetCgroupClientComponent("");
    ExpectRefused("it has no component named []");
}

TEST_F(CgroupClientTest, TellsOnceWhatKeepsItFromJoining) {
    Edit("\"Worker\"", "\"Nobody\"");
    EXPECT_FALSE(client.ReloadConfig());
    EXPECT_FALSE(client.ReloadConfig());
    EXPECT_EQ(1u, Warnings().size());
    ASSERT_TRUE(Publish(10000, 102400));
    EXPECT_TRUE(client.ReloadConfig());
    Edit("\"Worker\"", "\"Nobody\"");
    EXPECT_FALSE(client.ReloadConfig());
    EXPECT_EQ(2u, Warnings().size()) << "after a success the same is news";
}

TEST_F(CgroupClientTest, WhatKeepsItOutIsToldUntilItIsIn) {
    Edit("\"Worker\"", "\"Nobody\"");
    EXPECT_FALSE(client.ReloadConfig());
    EXPECT_THAT(zel::GetCgroupClientProblem(), testing::HasSubstr("component Nobody"));
    ASSERT_TRUE(Publish(10000, 102400));
    EXPECT_TRUE(client.ReloadConfig());
    EXPECT_EQ("", zel::GetCgroupClientProblem());
    EXPECT_TRUE(client.ReloadConfig());
    EXPECT_EQ("", zel::GetCgroupClientProblem()) << "at rest it is none either";
}

TEST_F(CgroupClientTest, StaysWhereItIsWhenTheSecondMoveFails) {
    if (cpuTree == memTree) GTEST_SKIP() << "SKIP: one move serves both controllers here";
    // The first move is the CPU's, the second the memory's; the third takes the first back.
    faults::FailControlWrite(1, EBUSY);
    EXPECT_FALSE(client.ReloadConfig());
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    EXPECT_FALSE(client.IsCpuJoined());
    ClearFaults();
    EXPECT_TRUE(client.ReloadConfig());
}

TEST_F(CgroupClientTest, StaysInWhenItCannotLeave) {
    ASSERT_TRUE(client.ReloadConfig());
    ASSERT_EQ(0, unlink(file.c_str()));
    faults::FailControlWritesTo("cgroup.procs", EROFS);
    EXPECT_FALSE(client.ReloadConfig());
    EXPECT_TRUE(client.IsCpuJoined());
    EXPECT_TRUE(client.IsMemJoined());
    for (const support::LogLine& line : support::LogLines()) {
        EXPECT_EQ(std::string::npos, line.text.find("left the unified groups")) << "it has not";
    }
    ClearFaults();
    EXPECT_TRUE(client.ReloadConfig());
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
}

}  // namespace
