#include "Doctor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Health.h"
#include "base/FileIo.h"
#include "platform/zel/AgentNames.h"
#include "support/Files.h"

using namespace agent;
using ::testing::HasSubstr;

namespace {

constexpr int64_t kNow = 1700000000;

Severity WorstOf(const std::vector<DoctorFinding>& findings) {
    return Diagnosis{findings}.Worst();
}

std::string TextOf(const std::vector<DoctorFinding>& findings) {
    return Diagnosis{findings}.Text();
}

StatusReport Limited() {
    StatusReport report;
    report.pid = 10;
    report.mode = zel::kModeCpu | zel::kModeMemory;
    report.modeReason = "mode 5: one group for the whole agent";
    report.cgroup.cpu.limited = report.cgroup.mem.limited = true;
    report.samplerRuns = true;
    return report;
}

/// An application directory with files that are all well.
class DoctorFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, mkdir((dir / "conf").c_str(), 0755));
        ASSERT_TRUE(support::WriteText(dir / "conf/resource_config", "max_cpu = 10\n"));
    }
    support::TempDir dir;
};

}  // namespace

TEST(DoctorTest, WhatIsNotWellHasARemedyAndMakesTheVerdict) {
    const Diagnosis diagnosis{{{Severity::kOk, "kernel 6.1", "", ""},
                               {Severity::kWarning, "not root", "", "become it"},
                               {Severity::kProblem, "no limit", "here", "set one"}}};
    EXPECT_EQ(Severity::kProblem, diagnosis.Worst());
    EXPECT_EQ(
        "ok       kernel 6.1\n"
        "WARNING  not root\n         do:   become it\n"
        "PROBLEM  no limit\n         seen: here\n         do:   set one\n",
        diagnosis.Text());
    EXPECT_EQ(Severity::kOk, Diagnosis{}.Worst());
}

TEST(DoctorTest, AnAgentThatIsWellIsNoAlarm) {
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeAgent(Limited()))) << TextOf(JudgeAgent(Limited()));
}

TEST(DoctorTest, NoAgentIsNoAlarmAndASilentOneIs) {
    const base::Error absent = base::SentenceError("nobody (is the agent running?)", base::ErrorKind::kNotFound);
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeAgent(absent)));
    const base::Error stopped = base::SentenceError("no answer, process 7 is stopped", base::ErrorKind::kNoServer);
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeAgent(stopped)));
    EXPECT_THAT(TextOf(JudgeAgent(stopped)), HasSubstr("seen: no answer, process 7 is stopped\n"));
}

TEST(DoctorTest, WhatTheAgentWantsAndHasNotIsAProblem) {
    StatusReport report = Limited();
    report.cgroup.mem.limited = false;
    report.cgroup.mem.reason = "no group has a limit";
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeAgent(report)));
    EXPECT_THAT(TextOf(JudgeAgent(report)),
                HasSubstr("PROBLEM  memory limit is asked for and not in force: no group has a limit\n"));
}

TEST(DoctorTest, AnObservedLimitThatStillHoldsIsAProblem) {
    StatusReport report = Limited();
    report.observed = zel::kModeCpu | zel::kModeMemory;
    report.observation = "CPU and memory (by --observe)";
    report.cgroup.mem.limited = false;
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeAgent(report)));
    const std::string text = TextOf(JudgeAgent(report));
    EXPECT_THAT(text, HasSubstr("(by --observe), but the CPU limit is still in force and not taken off so far\n"));
    EXPECT_EQ(text.find("nothing is limited"), std::string::npos) << text;
    report.cgroup.cpu.limited = false;
    EXPECT_EQ(Severity::kWarning, WorstOf(JudgeAgent(report)));
    EXPECT_THAT(TextOf(JudgeAgent(report)), HasSubstr("nothing is limited for them, and nobody ended"));
}

TEST(DoctorTest, NamesTheLimitThatStallsAComponentAndTheCure) {
    StatusReport report = Limited();
    ComponentStall stall;
    stall.component = "QorNet";
    stall.resource = "cpu";
    stall.lasts = stall.byLimit = true;
    stall.limitGroup = "collect-defense";
    stall.limit = 420;
    stall.stalled100Times = 9130;
    report.groupPressure.components = {stall};
    EXPECT_EQ(Severity::kWarning, WorstOf(JudgeAgent(report)));
    EXPECT_THAT(TextOf(JudgeAgent(report)),
                HasSubstr("component QorNet stalls: it waited 91.30 % of the time for a CPU, held back by the limit of "
                          "group collect-defense, 4.20 % of a CPU\n"));
    EXPECT_THAT(TextOf(JudgeAgent(report)), HasSubstr("do:   raise its share in cgroup_groups, or groupMaxCpu, or"));
    report.groupPressure.components[0].byLimit = false;
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeAgent(report))) << "the host is short, and no limit of the agent's";
    report.groupPressure.components[0] = stall;
    report.groupPressure.components[0].lasts = false;
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeAgent(report))) << "it is over";
    report.groupPressure = {"version 1 has none", {}};
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeAgent(report)));
    EXPECT_THAT(TextOf(JudgeAgent(report)), HasSubstr("own groups are not told\n         seen: version 1 has none"));
    agent::PressureStatus host;
    host.resource = "io";
    host.reason = "busy";
    report.pressure = {host};
    EXPECT_THAT(TextOf(JudgeAgent(report)), testing::Not(HasSubstr("for io are not told"))) << "it is switched off";
    report.pressure[0].thresholdPercent = 60;
    EXPECT_THAT(TextOf(JudgeAgent(report)), HasSubstr("stalls of the host for io are not told\n         seen: busy"));
    report.pressure[0].watched = true;
    EXPECT_THAT(TextOf(JudgeAgent(report)), testing::Not(HasSubstr("for io are not told")));
}

TEST(DoctorTest, AControllerThatIsNotMountedIsAProblem) {
    zel::CgroupControllerStatus controller;
    controller.reason = "not mounted";
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeController("memory", controller)));
    EXPECT_THAT(TextOf(JudgeController("memory", controller)), HasSubstr("seen: not mounted\n         do:   "));
}

TEST(DoctorTest, AReadOnlyDirectoryIsAProblem) {
    support::TempDir dir;
    const std::string what =
        "PROBLEM  " + dir.Path() + " is on a file system that is mounted read-only\n         do:   mount";
    EXPECT_EQ(TextOf(Diagnose(dir.Path()).findings).find(what), std::string::npos);
    if (mount("none", dir.Path().c_str(), "tmpfs", MS_RDONLY, "size=64m") != 0) {
        GTEST_SKIP() << "SKIP direct: nothing can be mounted here";
    }
    const std::string text = TextOf(Diagnose(dir.Path()).findings);
    EXPECT_EQ(0, umount(dir.Path().c_str()));
    EXPECT_THAT(text, HasSubstr(what));
}

TEST(DoctorTest, AReadOnlyHierarchyIsAProblem) {
    support::TempDir dir;
    zel::CgroupControllerStatus controller;
    controller.version = 1;
    controller.hierarchyPath = dir.Path();
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeController("CPU", controller)));
    if (mount("none", dir.Path().c_str(), "tmpfs", MS_RDONLY, "size=64k") != 0) {
        GTEST_SKIP() << "SKIP direct: nothing can be mounted here";
    }
    const std::vector<DoctorFinding> found = JudgeController("CPU", controller);
    EXPECT_EQ(0, umount(dir.Path().c_str()));
    EXPECT_EQ(Severity::kProblem, WorstOf(found));
    EXPECT_THAT(TextOf(found), HasSubstr("CPU controller is read-only"));
}

TEST_F(DoctorFilesTest, FilesThatAreWellAreNoAlarm) {
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeFiles(dir.Path()))) << TextOf(JudgeFiles(dir.Path()));
}

TEST_F(DoctorFilesTest, ARefusedComponentsFileIsAProblem) {
    ASSERT_TRUE(support::WriteText(dir / "conf/components.json", "{\"components\": 1}"));
    const std::vector<DoctorFinding> found = JudgeFiles(dir.Path());
    EXPECT_EQ(Severity::kProblem, WorstOf(found));
    EXPECT_THAT(TextOf(found), HasSubstr("no component is started: "));
}

TEST_F(DoctorFilesTest, WhatOthersMayChangeIsAProblemByName) {
    const std::string program = dir / "bin/program";
    ASSERT_TRUE(support::WriteText(program, "#!/bin/sh\n"));
    ASSERT_EQ(0, chmod((dir / "bin").c_str(), 0755));
    ASSERT_EQ(0, chmod(program.c_str(), 0755));
    ASSERT_TRUE(support::WriteText(dir / "conf/components.json",
                                   R"({"components":[{"name":"A","command":[")" + program + R"("]}]})"));
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeFiles(dir.Path()))) << TextOf(JudgeFiles(dir.Path()));
    ASSERT_EQ(0, chmod(program.c_str(), 0757));
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeFiles(dir.Path())));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path())),
                HasSubstr(program + " is not used: somebody else could have changed it\n         seen: writable by "
                                    "everybody, mode 0757 (chmod o-w)"));
    ASSERT_EQ(0, chmod(program.c_str(), 0755));
    ASSERT_EQ(0, chmod((dir / "conf").c_str(), 01777));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path())),
                HasSubstr("conf/resource_config is not used: somebody else could have changed it\n         seen: " +
                          (dir / "conf") + ": writable by everybody, mode 1777 (chmod o-w)"));
}

TEST_F(DoctorFilesTest, AProgramThatCannotBeRunNamesTheRemedy) {
    const std::string program = dir / "bin/program";
    const std::string list = dir / "conf/components.json";
    ASSERT_TRUE(support::WriteText(list, R"({"components":[{"name":"A","command":[")" + program + R"("]}]})"));
    const auto expect = [&](const std::string& why) {
        const std::vector<DoctorFinding> found = JudgeFiles(dir.Path());
        EXPECT_EQ(Severity::kProblem, WorstOf(found));
        EXPECT_THAT(TextOf(found), HasSubstr("PROBLEM  component A cannot be started: " + why));
        EXPECT_THAT(TextOf(found), HasSubstr("seen: \"command\" of A in " + list + "\n         do:   put the program"));
        EXPECT_THAT(TextOf(found), HasSubstr("or correct \"command\" of A in " + list + " and restart the agent"));
        EXPECT_THAT(TextOf(found), Not(HasSubstr("somebody else")));
    };
    expect(program + ": ");
    ASSERT_TRUE(support::WriteText(program, "#!" + (dir / "bin/shell") + "\n"));
    ASSERT_EQ(0, chmod((dir / "bin").c_str(), 0755));
    ASSERT_EQ(0, chmod(program.c_str(), 0644));
    expect(program + ": not executable, mode 0644 (chmod +x)");
    ASSERT_EQ(0, chmod(program.c_str(), 0755));
    expect(program + ": " + (dir / "bin/shell") + ": No such file or directory");
    ASSERT_TRUE(support::WriteText(program, "#!/bin/sh\n"));
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeFiles(dir.Path()))) << TextOf(JudgeFiles(dir.Path()));
}

TEST_F(DoctorFilesTest, TheResourceFileIsJudgedWhereTheAgentReadsIt) {
    const std::string other = dir / "other/limits";
    ASSERT_TRUE(support::WriteText(other, "max_cpu = much\n"));
    ASSERT_EQ(0, unlink((dir / "conf/resource_config").c_str()));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path(), other)), Not(HasSubstr("is missing")));
    EXPECT_EQ(Severity::kWarning, WorstOf(JudgeFiles(dir.Path(), other))) << "its content counts";
    ASSERT_EQ(0, chmod(other.c_str(), 0666));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path(), other)), HasSubstr(other + " is not used: somebody else"));
    ASSERT_EQ(0, unlink(other.c_str()));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path(), other)), HasSubstr("PROBLEM  " + other + " is missing"));
}

TEST_F(DoctorFilesTest, TheAgentsOwnConfigurationIsJudgedToo) {
    const std::string path = dir / "conf/agent.json";
    ASSERT_TRUE(support::WriteText(path, R"({"syslog":true})"));
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeFiles(dir.Path()))) << TextOf(JudgeFiles(dir.Path()));
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeFiles(dir.Path())));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path())), HasSubstr(path + " is not used: somebody else could have"));
    ASSERT_EQ(0, chmod(path.c_str(), 0640));
    const std::string authorities = dir / "ca.pem";
    ASSERT_TRUE(support::WriteText(authorities, "x"));
    ASSERT_TRUE(support::WriteText(path, R"({"http":{"url":"https://h/","ca_file":")" + authorities + R"("}})"));
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeFiles(dir.Path()))) << TextOf(JudgeFiles(dir.Path()));
    ASSERT_EQ(0, chmod(authorities.c_str(), 0666));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path())), HasSubstr(authorities + " is not used: somebody else could"));
    ASSERT_TRUE(support::WriteText(path, R"({"sylog":true})"));
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeFiles(dir.Path())));
    EXPECT_THAT(TextOf(JudgeFiles(dir.Path())), HasSubstr("not taken over: " + path + ": sylog: unknown key"));
}

TEST_F(DoctorFilesTest, ALineWithoutEffectIsAWarning) {
    ASSERT_TRUE(support::WriteText(dir / "conf/resource_config", "max_cpu = much\n"));
    EXPECT_EQ(Severity::kWarning, WorstOf(JudgeFiles(dir.Path())));
}

TEST_F(DoctorFilesTest, AMissingResourceFileIsAProblem) {
    ASSERT_EQ(0, unlink((dir / "conf/resource_config").c_str()));
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgeFiles(dir.Path())));
}

TEST_F(DoctorFilesTest, SomethingElseInAFilesPlaceIsNamedOnce) {
    const std::string path = dir / "conf/resource_config";
    ASSERT_EQ(0, rename(path.c_str(), (dir / "conf/real").c_str()));
    const auto expect = [&](const char* what) {
        const std::string text = TextOf(JudgeFiles(dir.Path()));
        EXPECT_THAT(text,
                    HasSubstr("PROBLEM  " + path + " is not used: it is not a regular file\n         do:   move it"))
            << what;
        EXPECT_EQ(text.find("is missing"), std::string::npos) << what;
        EXPECT_EQ(text.find("somebody else"), std::string::npos) << what;
        EXPECT_EQ(text.find("WARNING"), std::string::npos) << what << text;
    };
    ASSERT_EQ(0, symlink("real", path.c_str()));
    expect("a link");
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, mkdir(path.c_str(), 0755));
    expect("a directory");
}

TEST_F(DoctorFilesTest, ContentOfAFileThatIsNotUsedIsNoFinding) {
    const std::string path = dir / "conf/resource_config";
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    const std::string text = TextOf(JudgeFiles(dir.Path()));
    EXPECT_THAT(text, HasSubstr(path + " is not used: somebody else could have changed it"));
    EXPECT_EQ(text.find("cannot be read"), std::string::npos) << text;
}

TEST_F(DoctorFilesTest, AFileInADirectorysPlaceIsAProblem) {
    for (const char* const name : {"log", "run", "data", "spool", "selfkill"}) {
        ASSERT_EQ(0, mkdir((dir / name).c_str(), 0750));
    }
    EXPECT_EQ(Severity::kOk, WorstOf(JudgeFiles(dir.Path())));
    for (const char* const name : {"log", "run", "data", "spool", "selfkill"}) {
        ASSERT_EQ(0, rmdir((dir / name).c_str()));
        ASSERT_TRUE(support::WriteText(dir / name, ""));
        EXPECT_THAT(TextOf(JudgeFiles(dir.Path())),
                    HasSubstr("PROBLEM  " + (dir / name) + " is not a directory\n         do:   move it away"));
    }
}

TEST_F(DoctorFilesTest, AnAgentThatLostItsRunDirectoryIsFound) {
    const std::string lock = dir / "run/tervane.lock";
    ASSERT_TRUE(support::WriteText(lock, std::to_string(getpid()) + "\n"));
    EXPECT_TRUE(JudgeLostAgent(dir.Path()).empty()) << "a lock that nobody has open";
    const base::Result<base::Fd> held = base::OpenForReading(lock);
    ASSERT_TRUE(held);
    const std::vector<DoctorFinding> holds = JudgeLostAgent(dir.Path());
    EXPECT_EQ(Severity::kWarning, WorstOf(holds)) << "it may be starting or stopping: nobody is told to end it";
    EXPECT_THAT(TextOf(holds), HasSubstr("process " + std::to_string(getpid()) + ", holds its lock and has no socket"));
    EXPECT_THAT(TextOf(holds), Not(HasSubstr("kill")));
    ASSERT_TRUE(support::WriteText(lock, "1\n"));
    EXPECT_TRUE(JudgeLostAgent(dir.Path()).empty()) << "one who only has it open";
    const std::string what = "PROBLEM  the agent runs, process " + std::to_string(getpid()) + ", and nobody can ask it";
    ASSERT_EQ(0, unlink(lock.c_str()));
    ASSERT_EQ(0, rmdir((dir / "run").c_str()));
    EXPECT_THAT(TextOf(JudgeLostAgent(dir.Path())), HasSubstr(what));
    EXPECT_THAT(TextOf(Diagnose(dir.Path()).findings), HasSubstr(what));
    EXPECT_TRUE(JudgeLostAgent(dir / "none").empty());
}

TEST_F(DoctorFilesTest, APauseOfTheLimitIsAProblemUntilItIsOver) {
    const std::string record = dir.Path() + zel::kCgroupErrorFileName;
    ASSERT_TRUE(support::WriteText(record, "119-" + std::to_string(kNow - 3600) + "\n"));
    const base::Result<StatusReport> absent = base::Error();
    const std::vector<DoctorFinding> found = JudgePause(dir.Path(), kNow, absent);
    EXPECT_EQ(Severity::kProblem, WorstOf(found));
    EXPECT_THAT(TextOf(found), HasSubstr("the memory limit is paused until "));
    EXPECT_THAT(TextOf(found), HasSubstr(" because it failed with 119 at "));
    EXPECT_EQ(Severity::kOk, WorstOf(JudgePause(dir.Path(), kNow + 11 * 3600, absent)));
    ASSERT_TRUE(support::WriteText(record, "garbage\n\n-\n"));
    EXPECT_EQ(Severity::kOk, WorstOf(JudgePause(dir.Path(), kNow, absent)));
}

TEST_F(DoctorFilesTest, APauseIsNoneForWhoHasAMemoryLimit) {
    ASSERT_TRUE(support::WriteText(dir.Path() + zel::kCgroupErrorFileName, "13-" + std::to_string(kNow - 60) + "\n"));
    StatusReport report;
    report.mode = zel::kModeCpu | zel::kModeMemory;
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgePause(dir.Path(), kNow, report)));
    report.cgroup.mem.limited = true;
    report.cgroup.mem.byOthers = true;
    EXPECT_EQ(Severity::kProblem, WorstOf(JudgePause(dir.Path(), kNow, report))) << "somebody else's";
    report.cgroup.mem.byOthers = false;
    EXPECT_TRUE(JudgePause(dir.Path(), kNow, report).empty());
    report.cgroup.mem.limited = false;
    report.unified = true;
    EXPECT_TRUE(JudgePause(dir.Path(), kNow, report).empty()) << "only the legacy limit is paused";
}
