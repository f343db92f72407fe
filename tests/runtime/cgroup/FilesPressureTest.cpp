// Stalls in the components' own groups, on a host of version 2 made of files.
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "FilesHost.h"
#include "base/Fd.h"
#include "base/Pressure.h"
#include "platform/zel/CgroupPressure.h"
#include "OwnGroup.h"

using namespace fileshost;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using zel::CgroupResource;

namespace {

const std::string kCpuText =
    "some avg10=1.25 avg60=2.50 avg300=3.75 total=5000000001\n"
    "full avg10=10.25 avg60=20.50 avg300=30.75 total=9000000001\n";
const std::string kMemoryText =
    "some avg10=4.00 avg60=5.00 avg300=6.00 total=7000000001\n"
    "full avg10=7.00 avg60=8.00 avg300=9.00 total=8000000001\n";

class FilesPressureTest : public FilesTree {
protected:
    void ShowPressure(const std::string& group) {
        host->Kernel().Show(Tree() + group, "cpu.pressure", kCpuText);
        host->Kernel().Show(Tree() + group, "memory.pressure", kMemoryText);
    }
    void ShowAll() {
        for (const char* group : {"/greedy/Greedy", "/main/Tervane"}) ShowPressure(group);
    }
    zel::CgroupPressureSource Greedy(CgroupResource resource) const {
        for (const zel::CgroupPressureSource& source : zel::FindCgroupPressure().found) {
            if (source.component == "Greedy" && source.resource == resource) return source;
        }
        ADD_FAILURE() << zel::FindCgroupPressure().problem;
        return {};
    }
    std::string Leaf() const { return host->Mount() + Tree() + "/greedy/Greedy"; }
};

std::vector<std::string> Found(const zel::CgroupPressureLook& look) {
    std::vector<std::string> out;
    for (const zel::CgroupPressureSource& source : look.found) {
        out.push_back(source.component + (source.resource == CgroupResource::kCpu ? " cpu " : " memory ") +
                      source.path.substr(source.path.find("/zel.files")));
    }
    return out;
}

TEST_F(FilesPressureTest, FindsEachLeafWithFigures) {
    Publish(Version::kV2);
    zel::CgroupPressureLook look = zel::FindCgroupPressure();
    EXPECT_THAT(look.found, IsEmpty());
    EXPECT_EQ("the kernel has no pressure figures for groups: boot one that was built with them, without psi=0",
              look.problem);
    EXPECT_TRUE(look.whole) << "it stays so";
    host->Kernel().Show(Tree() + "/greedy/Greedy", "memory.pressure", kMemoryText);
    look = zel::FindCgroupPressure();
    EXPECT_THAT(Found(look), ElementsAre("Greedy memory " + Tree() + "/greedy/Greedy"));
    EXPECT_EQ(treetest::InodeOf(Leaf()), look.found.at(0).inode);
    EXPECT_NE("", look.problem) << "the others have none";
    ShowAll();
    look = zel::FindCgroupPressure();
    EXPECT_THAT(Found(look),
                ElementsAre("Tervane cpu " + Tree() + "/main/Tervane", "Tervane memory " + Tree() + "/main/Tervane",
                            "Greedy cpu " + Tree() + "/greedy/Greedy", "Greedy memory " + Tree() + "/greedy/Greedy"));
    EXPECT_EQ("", look.problem);
    EXPECT_TRUE(look.whole);
    EXPECT_EQ(zel::FindCgroupPressure().found.size(), look.found.size());
}

TEST_F(FilesPressureTest, VersionOneNamesTheController) {
    Publish(Version::kV1);
    ShowAll();
    const zel::CgroupPressureLook look = zel::FindCgroupPressure();
    EXPECT_THAT(look.found, IsEmpty());
    EXPECT_EQ("control groups of version 1 have no pressure figures, and memory is on it", look.problem);
    EXPECT_TRUE(look.whole);
}

TEST_F(FilesPressureTest, AFileThatIsGoneIsAwaitedWhileTheTreeIsUsed) {
    Publish(Version::kV2);
    ShowAll();
    ASSERT_EQ(0, unlink(file.c_str()));
    zel::CgroupPressureLook look = zel::FindCgroupPressure();
    EXPECT_TRUE(look.whole) << "nobody is in the tree";
    EXPECT_EQ("", look.problem);
    ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
    look = zel::FindCgroupPressure();
    EXPECT_FALSE(look.whole);
    EXPECT_THAT(look.problem, HasSubstr(file));
    EXPECT_THAT(look.found, IsEmpty());
    ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
    ASSERT_TRUE(manager->WriteDisabledConfig(file));
    look = zel::FindCgroupPressure();
    EXPECT_TRUE(look.whole);
    EXPECT_EQ("", look.problem);
    EXPECT_THAT(look.found, IsEmpty());
    ASSERT_TRUE(support::ReplaceText(file, "{"));
    look = zel::FindCgroupPressure();
    EXPECT_FALSE(look.whole);
    EXPECT_THAT(look.problem, HasSubstr(file));
}

TEST_F(FilesPressureTest, OneLeafThatIsGoneHidesNoOther) {
    Publish(Version::kV2);
    ShowAll();
    host->Kernel().RemoveGroup(Tree() + "/greedy/Greedy");
    const zel::CgroupPressureLook look = zel::FindCgroupPressure();
    EXPECT_FALSE(look.whole);
    EXPECT_THAT(look.problem, HasSubstr("greedy/Greedy"));
    EXPECT_THAT(Found(look),
                ElementsAre("Tervane cpu " + Tree() + "/main/Tervane", "Tervane memory " + Tree() + "/main/Tervane"));
}

TEST_F(FilesPressureTest, CpuTellsWhenAllWaitAndMemoryWhenAnyDoes) {
    Publish(Version::kV2);
    ShowAll();
    zel::CgroupPressureFigures figures;
    std::string error;
    ASSERT_TRUE(zel::ReadCgroupPressure(Greedy(CgroupResource::kCpu), false, figures, error)) << error;
    EXPECT_EQ(1025, figures.avg10_100times);
    EXPECT_EQ(2050, figures.avg60_100times);
    EXPECT_EQ(9000000001U, figures.totalUs);
    EXPECT_THAT(figures.levels, IsEmpty());
    ASSERT_TRUE(zel::ReadCgroupPressure(Greedy(CgroupResource::kMemory), false, figures, error)) << error;
    EXPECT_EQ(400, figures.avg10_100times);
    EXPECT_EQ(500, figures.avg60_100times);
    EXPECT_EQ(7000000001U, figures.totalUs);
    EXPECT_EQ("", error);
}

TEST_F(FilesPressureTest, TextsWithoutTheFiguresAreTold) {
    Publish(Version::kV2);
    ShowAll();
    const std::string some = kCpuText.substr(0, kCpuText.find("full"));
    struct Case {
        CgroupResource resource;
        std::string text;
        bool good;
    };
    const std::vector<Case> cases = {{CgroupResource::kCpu, some, false},     {CgroupResource::kCpu, "", false},
                                     {CgroupResource::kCpu, "some\n", false}, {CgroupResource::kMemory, some, true},
                                     {CgroupResource::kMemory, "x", false},   {CgroupResource::kCpu, kCpuText, true}};
    for (const Case& each : cases) {
        const bool cpu = each.resource == CgroupResource::kCpu;
        const std::string name = cpu ? "cpu.pressure" : "memory.pressure";
        const zel::CgroupPressureSource source = Greedy(each.resource);
        host->Kernel().Show(Tree() + "/greedy/Greedy", name, each.text);
        zel::CgroupPressureFigures figures;
        std::string error;
        EXPECT_EQ(each.good, zel::ReadCgroupPressure(source, true, figures, error)) << each.text;
        EXPECT_EQ(each.good ? "" : "no figures in " + Leaf() + "/" + name, error) << each.text;
        EXPECT_EQ(each.good, figures.avg10_100times != -1) << "untouched otherwise";
    }
}

TEST_F(FilesPressureTest, LevelsTellEachLimitAndWhatItHeld) {
    Publish(Version::kV2);
    ShowAll();
    int64_t more = 5000000000;
    for (const char* group : {"/greedy/Greedy", "/greedy", ""}) {
        const std::string periods = std::to_string(more + 7);
        const std::string held = std::to_string(more);
        host->Kernel().Show(Tree() + group, "cpu.stat", "nr_periods " + periods + "\nnr_throttled " + held + "\n");
        host->Kernel().Show(Tree() + group, "memory.events.local", "low 1\nhigh 2\nmax " + held + "\noom 3\n");
        more += 100;
    }
    zel::CgroupPressureFigures figures;
    std::string error;
    for (const CgroupResource resource : {CgroupResource::kCpu, CgroupResource::kMemory}) {
        const bool cpu = resource == CgroupResource::kCpu;
        ASSERT_TRUE(zel::ReadCgroupPressure(Greedy(resource), true, figures, error)) << error;
        ASSERT_EQ(3U, figures.levels.size());
        const std::vector<std::string> names = {"greedy/Greedy", "greedy", ""};
        const std::vector<int> limits =
            cpu ? std::vector<int>{500, 2000, 4000} : std::vector<int>{20480, 51200, 524288};
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(names[i], figures.levels[i].name) << cpu;
            EXPECT_EQ(limits[i], figures.levels[i].limit) << cpu << names[i];
            EXPECT_EQ(5000000000 + 100 * static_cast<int64_t>(i), figures.levels[i].held) << cpu << names[i];
            EXPECT_EQ(cpu ? 5000000007 + 100 * static_cast<int64_t>(i) : -1, figures.levels[i].periods) << names[i];
        }
    }
}

TEST_F(FilesPressureTest, WhatIsNotCountedIsUnknown) {
    Publish(Version::kV2);
    ShowAll();
    zel::CgroupPressureFigures figures;
    std::string error;
    ASSERT_TRUE(zel::ReadCgroupPressure(Greedy(CgroupResource::kCpu), true, figures, error)) << error;
    for (const auto& level : figures.levels) EXPECT_EQ(-1, level.held);
    host->Kernel().Show(Tree() + "/greedy/Greedy", "memory.events.local", "oom 3\n");
    ASSERT_TRUE(zel::ReadCgroupPressure(Greedy(CgroupResource::kMemory), true, figures, error)) << error;
    ASSERT_EQ(3U, figures.levels.size());
    for (const auto& level : figures.levels) EXPECT_EQ(-1, level.held);
    host->Kernel().WriteAs(Tree() + "/greedy/Greedy", "memory.max", "max");
    ASSERT_TRUE(zel::ReadCgroupPressure(Greedy(CgroupResource::kMemory), true, figures, error)) << error;
    EXPECT_EQ(0, figures.levels.at(0).limit) << "none";
}

TEST_F(FilesPressureTest, AnotherGroupOfThePathIsNotRead) {
    Publish(Version::kV2);
    ShowAll();
    const zel::CgroupPressureSource source = Greedy(CgroupResource::kMemory);
    zel::CgroupPressureSource other = source;
    ++other.inode;
    zel::CgroupPressureFigures figures;
    std::string error;
    EXPECT_FALSE(zel::ReadCgroupPressure(other, true, figures, error));
    EXPECT_THAT(error, HasSubstr("it is another group than before"));
    EXPECT_EQ(-1, zel::OpenCgroupPressure(other, "some 1 2000000", error));
    EXPECT_THAT(error, HasSubstr("it is another group than before"));
    const int group = open(Leaf().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(0, fremovexattr(group, "trusted.zel.agent"));
    EXPECT_FALSE(zel::ReadCgroupPressure(source, true, figures, error)) << "it is not ours";
    EXPECT_THAT(error, HasSubstr("it is another group than before"));
    fsetxattr(group, "trusted.zel.agent", "12345678", 8, 0);
    EXPECT_FALSE(zel::ReadCgroupPressure(source, true, figures, error)) << "another agent's";
    EXPECT_TRUE(zel::cgroup::MarkOwn(*zel::cgroup::GroupDir::Open(Leaf(), Version::kV2)).Ok());
    EXPECT_TRUE(zel::ReadCgroupPressure(source, true, figures, error)) << error;
    close(group);
    other = source;
    other.path += "x";
    EXPECT_FALSE(zel::ReadCgroupPressure(other, true, figures, error));
    EXPECT_THAT(error, HasSubstr("/greedy/Greedyx"));
}

TEST_F(FilesPressureTest, ARefusedTriggerSaysWhy) {
    Publish(Version::kV2);
    ShowAll();
    struct Case {
        CgroupResource resource;
        int error;
        std::string problem;
    };
    const std::vector<Case> cases = {
        {CgroupResource::kCpu, EOPNOTSUPP, "switched off for groups: boot with psi=1, and leave cgroup.pressure at 1"},
        {CgroupResource::kMemory, EOPNOTSUPP,
         "switched off for groups: boot with psi=1, and leave cgroup.pressure at 1"},
        {CgroupResource::kCpu, EINVAL, "of the CPU the kernel tells since Linux 5.13"},
        {CgroupResource::kMemory, EPERM, "before Linux 6.4 it takes the right CAP_SYS_RESOURCE"},
        {CgroupResource::kCpu, EACCES, "before Linux 6.4 it takes the right CAP_SYS_RESOURCE"},
    };
    for (const Case& each : cases) {
        const zel::CgroupPressureSource source = Greedy(each.resource);
        const size_t open = support::OpenDescriptors();
        std::string problem;
        host->Kernel().FailWrite(1, each.error);
        EXPECT_EQ(-1, zel::OpenCgroupPressure(source, "some 100000 2000000", problem)) << each.error;
        EXPECT_EQ(each.problem, problem);
        EXPECT_EQ(open, support::OpenDescriptors()) << "nothing stays open";
    }
    std::string problem;
    host->Kernel().FailWrite(1, EINVAL);
    EXPECT_EQ(-1, zel::OpenCgroupPressure(Greedy(CgroupResource::kMemory), "some 1 2000000", problem));
    EXPECT_THAT(problem, HasSubstr(Leaf()));
    EXPECT_THAT(problem, testing::Not(HasSubstr("5.13")));
}

TEST_F(FilesPressureTest, ATriggerIsWrittenToTheResourcesFile) {
    Publish(Version::kV2);
    ShowAll();
    for (const CgroupResource resource : {CgroupResource::kCpu, CgroupResource::kMemory}) {
        const std::string trigger = resource == CgroupResource::kCpu ? "full 100000 2000000" : "some 200000 2000000";
        std::string problem;
        const base::Fd held(zel::OpenCgroupPressure(Greedy(resource), trigger, problem));
        ASSERT_TRUE(held) << problem;
        EXPECT_EQ("", problem);
        const std::string name = resource == CgroupResource::kCpu ? "cpu.pressure" : "memory.pressure";
        const std::string written = host->Kernel().WrittenTo(Tree() + "/greedy/Greedy", name);
        EXPECT_EQ(trigger, written.substr(0, trigger.size())) << name;
        EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(held.Get(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
        EXPECT_EQ(FD_CLOEXEC, fcntl(held.Get(), F_GETFD));
    }
    std::string problem;
    host->Kernel().RemoveGroup(Tree() + "/greedy/Greedy");
    EXPECT_EQ(-1, zel::OpenCgroupPressure({"Greedy", CgroupResource::kCpu, Leaf(), 1}, "some 1 2", problem));
    EXPECT_THAT(problem, HasSubstr(Leaf()));
}

}  // namespace
