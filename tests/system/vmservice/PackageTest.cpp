// The package on a host that has never seen it: installed, started, upgraded over an older one, and purged.
#include "ServiceGuest.h"

using namespace guest;

namespace {

constexpr const char* kPolicy = "/usr/sbin/policy-rc.d";
constexpr const char* kResourceConfig = "/etc/tervane/resource_config";

/// Every file of the host that is kept on disk, but for what the packages' own tool writes about itself.
std::string FilesOfHost() {
    return Shell(
        "find / -xdev -path /tmp -prune -o -path /var/lib/dpkg -prune -o -path /var/cache -prune -o "
        "-path /var/log -prune -o -path /var/lib/systemd -prune -o -print | sort");
}

/// The guest as it came, without the agent that the other rows install by hand.
void TakeOutAgent() {
    Shell(std::string("rm -rf /usr/sbin/tervane /usr/sbin/tervanectl /etc/systemd/system/tervane.service "
                      "/etc/systemd/system/tervane.service.d ") +
          kServiceDir + " && systemctl daemon-reload");
}

/// Returns: exit code of a command; `said` has its words.
int Command(const std::string& words, std::string& said) {
    said = Shell(words + "; echo \" $?\"");
    const size_t space = said.rfind(' ');
    const int code = atoi(said.c_str() + space);
    said.resize(space);
    return code;
}

TEST_F(UnderServiceManager, PackageInstallsStartsUpgradesAndGoes) {
    TakeOutAgent();
    const std::string before = FilesOfHost();
    std::string said;

    // A host whose policy is that packages start nothing.
    ASSERT_TRUE(WriteText(kPolicy, "#!/bin/sh\nexit 101\n"));
    ASSERT_EQ(Shell(std::string("chmod 755 ") + kPolicy), "");
    ASSERT_EQ(Command("DEBIAN_FRONTEND=noninteractive dpkg -i /job/old.deb", said), 0) << said;
    EXPECT_EQ(Shell("systemctl is-enabled tervane"), "enabled");
    EXPECT_EQ(Property("ActiveState"), "inactive");
    unlink(kPolicy);

    // The administrator's hand. The guest's processor is many times slower than a host's.
    ASSERT_EQ(Shell(std::string("sed -i 's/^max_cpu = .*/max_cpu = 100/' ") + kResourceConfig), "");
    ASSERT_EQ(Command("systemctl start tervane", said), 0)
        << said << Shell("journalctl -u tervane --no-pager | tail -n 30");
    EXPECT_EQ(Property("ActiveState"), "active");
    const bool well = Poll(kPatienceSeconds, [&] { return Command("tervanectl check", said) == 0; });
    EXPECT_TRUE(well) << said;
    EXPECT_EQ(Command("tervanectl status --json | grep -c '\"state\" *: *\"running\"'", said), 0) << said;
    EXPECT_EQ(said, "5\n");
    EXPECT_EQ(Command("systemctl reload tervane", said), 0) << said;

    const pid_t first = MainPid();
    ASSERT_EQ(Command("DEBIAN_FRONTEND=noninteractive dpkg -i /job/new.deb", said), 0) << said;
    EXPECT_TRUE(Poll(kPatienceSeconds, [&] { return MainPid() > 0 && MainPid() != first; }));
    EXPECT_EQ(Property("ActiveState"), "active");
    EXPECT_EQ(Shell("dpkg-query -W -f '${Version}' tervane | cut -d- -f1"), Shell("tervane --version"));
    EXPECT_EQ(Shell(std::string("grep ^max_cpu ") + kResourceConfig), "max_cpu = 100") << "the administrator's file";

    ASSERT_EQ(Command("dpkg -r tervane", said), 0) << said;
    EXPECT_EQ(Property("ActiveState"), "inactive");
    EXPECT_EQ(GroupsOfAgent(), std::vector<std::string>());
    EXPECT_TRUE(Exists(kResourceConfig)) << "removed, not purged";
    ASSERT_EQ(Command("dpkg -P tervane", said), 0) << said;
    EXPECT_EQ(FilesOfHost(), before);
    SetUpTestSuite();
}

TEST_F(UnderServiceManager, WatchdogStartsAnewWhatStandsStill) {
    AddToUnit("WatchdogSec=15\n");
    Start();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce));
    // Three of its periods: whoever works is left alone.
    const int64_t rounds = Status()["keeper"]["rounds"].asInt64();
    ASSERT_TRUE(Poll(kPatienceSeconds, [&] { return Status()["keeper"]["rounds"].asInt64() >= rounds + 9; }));
    ASSERT_EQ(Property("NRestarts"), "0");
    const pid_t first = MainPid();
    Shell("kill -STOP " + std::to_string(first));
    EXPECT_TRUE(Poll(kPatienceSeconds, [] { return Property("NRestarts") == "1"; }));
    AwaitStart();
    ASSERT_TRUE(Poll(kPatienceSeconds, IsInForce));
    EXPECT_NE(MainPid(), first);
    const std::vector<Json::Value> told = Messages("T_MSG_UNCLEAN_STOP");
    ASSERT_EQ(told.size(), 1U);
    EXPECT_NE(told[0].toStyledString().find("watchdog"), std::string::npos) << told[0].toStyledString();
}

}  // namespace
