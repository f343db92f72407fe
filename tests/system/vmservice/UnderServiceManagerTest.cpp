// What a service manager does to the agent, and the agent to it: start, stop, restarts, the manager's own reloads,
// limits on the unit, deaths, a unit that is not delegated, and a start from a login shell. Each test is one row; the
// program ends with a table of which row ran in this layout and which did not, and why.
#include <signal.h>
#include <sys/stat.h>

#include <set>

#include "ServiceGuest.h"

using namespace guest;

namespace {

constexpr int64_t kMegabyte = 1024 * 1024;

/// Identity and limits of every group of the tree, and who is in it.
std::string PictureOfTree() {
    std::string picture;
    for (const std::string& group : GroupsOfAgent()) {
        struct stat info {};
        if (stat(group.c_str(), &info) != 0) continue;
        picture += group + " inode " + std::to_string(info.st_ino) + " quota " + std::to_string(QuotaOf(group)) +
                   " memory " + std::to_string(BytesOf(group)) + " members";
        for (pid_t pid : MembersOf(group)) picture += " " + std::to_string(pid);
        picture += "\n";
    }
    return picture;
}

int64_t DriftsSeen(const Json::Value& status) {
    int64_t sum = 0;
    for (const Json::Value& count : status["keeper"]["found"]) sum += count.asInt64();
    return sum;
}

TEST_F(UnderServiceManager, TreeStandsInItsUnitAndStopLeavesNothing) {
    Start();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce)) << Status()["tree"].toStyledString();
    for (const char* controller : {"cpu", "memory"}) {
        EXPECT_EQ(MembersOf(TreeDir(controller, "main/Tervane")), std::vector<pid_t>{MainPid()}) << controller;
        EXPECT_EQ(MembersOf(TreeDir(controller, "guard/Quiet")).size(), 1U) << controller;
        // The program is a shell, which starts another one for each of its pauses.
        EXPECT_GE(MembersOf(TreeDir(controller, "collect-defense/Killable")).size(), 1U) << controller;
    }
    EXPECT_EQ(QuotaOf(TreeDir("cpu")), 190000);  // 95 in 100 of two processors
    EXPECT_EQ(BytesOf(TreeDir("memory")), 750 * kMegabyte);
    int code = -1;
    const std::string words = Console("check", code);
    EXPECT_EQ(code, 0) << words;

    EXPECT_EQ(Shell(std::string("systemctl stop ") + kUnit), "");
    EXPECT_EQ(Property("Result"), "success");
    EXPECT_EQ(GroupsOfAgent(), std::vector<std::string>());
    EXPECT_EQ(LogCount("control groups are left behind"), 0);
}

TEST_F(UnderServiceManager, FiveRestartsEndInForceEachTime) {
    Start();
    ASSERT_FALSE(HasFatalFailure());
    std::set<pid_t> pids{MainPid()};
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(Shell(std::string("systemctl restart ") + kUnit), "");
        AwaitStart();
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce)) << "round " << round;
        pids.insert(MainPid());
    }
    EXPECT_EQ(pids.size(), 6U);
    EXPECT_EQ(Property("NRestarts"), "0") << "it ended by itself in between";
    EXPECT_EQ(Messages("T_MSG_UNCLEAN_STOP").size(), 0U);
}

TEST_F(UnderServiceManager, ItsReloadAndReexecChangeNothing) {
    // The program of the component starts processes all the time; the picture holds still without it.
    ASSERT_TRUE(WriteText(std::string(kServiceDir) + "/conf/components.json",
                          "{\"version\": 1, \"components\": [{\"name\": \"Quiet\", \"group\": \"guard\"}]}\n"));
    Start();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, [] { return MembersOf(TreeDir("memory", "guard/Quiet")).size() == 1; }));
    const std::string before = PictureOfTree();
    ASSERT_EQ(Shell("systemctl daemon-reload && systemctl daemon-reexec"), "");
    const int64_t rounds = Status()["keeper"]["rounds"].asInt64();
    ASSERT_TRUE(Poll(kPatienceSeconds, [&] { return Status()["keeper"]["rounds"].asInt64() >= rounds + 2; }));
    EXPECT_EQ(PictureOfTree(), before);
    EXPECT_EQ(DriftsSeen(Status()), 0) << Status()["keeper"].toStyledString();
}

TEST_F(UnderServiceManager, LimitsOnItsUnitLeaveTheTreeAsItIs) {
    Start();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce));
    const int64_t quota = QuotaOf(TreeDir("cpu"));
    const int64_t bytes = BytesOf(TreeDir("memory"));
    Shell(std::string("systemctl set-property --runtime ") + kUnit + " MemoryMax=600M");
    EXPECT_TRUE(Poll(kPatienceSeconds, [] { return BytesOf(UnitDir("memory")) == 600 * kMegabyte; }))
        << BytesOf(UnitDir("memory"));
    Shell(std::string("systemctl set-property --runtime ") + kUnit + " CPUQuota=50%");
    if (HasVersion2()) {
        EXPECT_TRUE(Poll(kPatienceSeconds, [] { return QuotaOf(UnitDir("cpu")) == 50000; })) << QuotaOf(UnitDir("cpu"));
    } else {
        // Version 1 takes no quota below that of a group inside; one that is large enough is taken.
        EXPECT_EQ(QuotaOf(UnitDir("cpu")), -1);
        Shell(std::string("systemctl set-property --runtime ") + kUnit + " CPUQuota=200%");
        EXPECT_TRUE(Poll(kPatienceSeconds, [] { return QuotaOf(UnitDir("cpu")) == 200000; }));
    }
    const int64_t rounds = Status()["keeper"]["rounds"].asInt64();
    ASSERT_TRUE(Poll(kPatienceSeconds, [&] { return Status()["keeper"]["rounds"].asInt64() >= rounds + 2; }));
    EXPECT_EQ(QuotaOf(TreeDir("cpu")), quota);
    EXPECT_EQ(BytesOf(TreeDir("memory")), bytes);
    EXPECT_TRUE(IsInForce());
    EXPECT_EQ(DriftsSeen(Status()), 0) << Status()["keeper"].toStyledString();
    Shell(std::string("systemctl revert ") + kUnit);
}

TEST_F(UnderServiceManager, ComponentsOutOfMemoryLeavesUnitAlone) {
    Start();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce));
    const pid_t main = MainPid();
    ASSERT_TRUE(WriteText("/run/guest-kill", ""));
    ASSERT_TRUE(Poll(kPatienceSeconds, [] { return Messages("T_MSG_OS_ABNORMAL").size() == 1; }));
    const Json::Value event = Messages("T_MSG_OS_ABNORMAL")[0];
    EXPECT_EQ(event["type"].asString(), "multi_cgroup_oom_runtime") << event.toStyledString();
    EXPECT_TRUE(Poll(kPatienceSeconds, IsInForce)) << "the component did not come back";
    EXPECT_EQ(MainPid(), main);
    EXPECT_EQ(Property("NRestarts"), "0");
    EXPECT_EQ(Property("ActiveState"), "active");
}

TEST_F(UnderServiceManager, WithoutDelegationItIsSaidAndNamed) {
    // A unit of somebody's own: ours has no right to write where only root may and nobody has it by the mode, as at the
    // root of a version 1 hierarchy.
    AddToUnit("Delegate=no\nCapabilityBoundingSet=CAP_DAC_OVERRIDE\n");
    Start();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(Poll(kPatienceSeconds, [] { return LogCount("tervane.service is not delegated") > 0; }));
    EXPECT_GT(LogCount("Delegate=yes"), 0);
    int code = -1;
    if (HasVersion2()) {
        EXPECT_EQ(GroupsOfAgent(), std::vector<std::string>());
        EXPECT_EQ(Status()["mode_in_force"].asInt(), 0);
        EXPECT_EQ(Console("check", code).find("switch the limit on"), std::string::npos);
        EXPECT_EQ(code, 1);
        return;
    }
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce));
    const pid_t main = MainPid();
    const std::string leaf = ControllerDir("cpu", "/zel.agent/main/Tervane");
    ASSERT_EQ(MembersOf(leaf), std::vector<pid_t>{main});
    // The first unit beside it with a setting of this controller: the manager makes groups there for all of them.
    Shell("systemd-run --unit=neighbour --property=CPUQuota=50% sleep 600");
    EXPECT_TRUE(Poll(kPatienceSeconds, [] { return LogCount("the service manager has put the processes") > 0; }))
        << ReadText("/proc/" + std::to_string(main) + "/cgroup");
    EXPECT_TRUE(Poll(kPatienceSeconds, [&] { return MembersOf(leaf) == std::vector<pid_t>{main}; }));
    const auto named = [] {
        for (const Json::Value& drift : Messages("T_MSG_LIMIT_DRIFT")) {
            if (drift["cause"].asString().find("not delegated") != std::string::npos) return true;
        }
        return false;
    };
    EXPECT_TRUE(Poll(kPatienceSeconds, named));
    EXPECT_EQ(Console("status", code).find("switch the limit on"), std::string::npos);
    EXPECT_NE(Console("doctor", code).find("tervane.service is not delegated"), std::string::npos);
    Shell("systemctl stop neighbour");
}

TEST_F(UnderServiceManager, KilledMainComesBackAndIsReportedOnce) {
    Start();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce));
    const pid_t first = MainPid();
    ASSERT_EQ(kill(first, SIGKILL), 0);
    AwaitStart();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(Poll(kPatienceSeconds, IsInForce));
    EXPECT_NE(MainPid(), first);
    EXPECT_EQ(Property("NRestarts"), "1");
    ASSERT_TRUE(Poll(kPatienceSeconds, [] { return !Messages("T_MSG_UNCLEAN_STOP").empty(); })) << "no event";
    const Json::Value event = Messages("T_MSG_UNCLEAN_STOP")[0];
    EXPECT_EQ(event["pid"].asInt(), first);
    EXPECT_EQ(event["cause"].asString(), "signal") << event.toStyledString();
    EXPECT_NE(event["known"].toStyledString().find("result signal, killed KILL"), std::string::npos)
        << event.toStyledString();
    ASSERT_EQ(Shell(std::string("systemctl restart ") + kUnit), "");
    AwaitStart();
    EXPECT_EQ(Messages("T_MSG_UNCLEAN_STOP").size(), 1U) << "a stop in order is no news";
}

TEST_F(UnderServiceManager, MainsOutOfMemoryIsReportedAfterRestart) {
    Start();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce));
    const pid_t first = MainPid();
    EatIn("main/Tervane", first);
    AwaitStart();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, [] { return !Messages("T_MSG_UNCLEAN_STOP").empty(); })) << "no event";
    const Json::Value event = Messages("T_MSG_UNCLEAN_STOP")[0];
    EXPECT_EQ(event["pid"].asInt(), first);
    EXPECT_EQ(event["cause"].asString(), "out_of_memory") << event.toStyledString();
    EXPECT_TRUE(event["certain"].asBool());
    const std::string known = event["known"].toStyledString();
    EXPECT_NE(known.find("Killed process " + std::to_string(first)), std::string::npos) << known;
    EXPECT_NE(known.find("out-of-memory kills in its own group: "), std::string::npos) << event.toStyledString();
    EXPECT_FALSE(event["unknown"].empty());
    EXPECT_TRUE(Poll(kPatienceSeconds, IsInForce));
}

TEST_F(UnderServiceManager, LoginShellsStartLeavesNoTraceInItsSlice) {
    // A session as a login makes it; the agent goes on in the background when the shell ends.
    Shell(
        "systemd-run --unit=loginshell --property=PAMName=login --property=User=root sh -c "
        "'cat /proc/self/cgroup >/run/shell.groups; setsid /job/tervane --app-dir /var/lib/tervane >/run/shell.out "
        "2>&1 & "
        "sleep 10'");
    AwaitStart();
    ASSERT_FALSE(HasFatalFailure()) << ReadText("/run/shell.out");
    EXPECT_NE(ReadText("/run/shell.groups").find("/user.slice/user-0.slice/session-"), std::string::npos)
        << ReadText("/run/shell.groups");
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce)) << Status()["tree"].toStyledString();
    ASSERT_TRUE(Poll(kPatienceSeconds, [] { return Shell("systemctl is-active loginshell") != "active"; }));
    const pid_t main = Status()["pid"].asInt();
    ASSERT_GT(main, 0) << "it ended with its shell";
    EXPECT_EQ(MembersOf(ControllerDir("memory", "/zel.agent/main/Tervane")), std::vector<pid_t>{main});
    EXPECT_TRUE(IsInForce());
    ASSERT_EQ(kill(main, SIGTERM), 0);
    EXPECT_TRUE(Poll(kPatienceSeconds, [] { return GroupsOfAgent().empty(); }));
    EXPECT_TRUE(Poll(kPatienceSeconds, [&] { return kill(main, 0) != 0; }));
}

}  // namespace
