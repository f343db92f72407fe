// The component file without a kernel: format and parser agree, on disk too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ComponentFile.h"
#include "support/Files.h"

namespace {

using namespace zel::cgroup;

ComponentFile Sample() {
    ComponentFile file;
    file.enabled = true;
    file.bootId = "6f1c1f0e-3f5a-4c53-9d0e-0b8f6e1f2a3b";
    file.cpu = {true, "/sys/fs/cgroup/cpu/zel.agent", Version::kV1, 41, 900};
    file.memory = {true, "/sys/fs/cgroup/zel.agent", Version::kV2, 18446744073709551615U, 2147483647};
    ComponentEntry one;
    one.name = "Tervane";
    one.cpu = {true, "main", file.cpu.path + "/main/Tervane", Version::kV1, 51, 36};
    one.memory = {true, "main", file.memory.path + "/main/Tervane", Version::kV2, 52, 0};
    ComponentEntry two;
    two.name = "QorNet";
    two.memory = {true, "guard", file.memory.path + "/guard/QorNet", Version::kV2, 53, 10240};
    file.components = {one, two};
    return file;
}

TEST(ComponentFileTest, ReadsBackWhatItWrites) {
    const std::string text = FormatComponentFile(Sample());
    Result<ComponentFile> parsed = ParseComponentFile(text);
    ASSERT_TRUE(parsed) << parsed.GetError().Text();
    EXPECT_EQ(text, FormatComponentFile(*parsed));
    EXPECT_EQ(18446744073709551615U, parsed->memory.inode);
    EXPECT_EQ(2147483647, parsed->memory.limit);
    ASSERT_NE(nullptr, parsed->Find("QorNet"));
    EXPECT_FALSE(parsed->Find("QorNet")->cpu.present);
    EXPECT_EQ(nullptr, parsed->Find("qornet"));
}

TEST(ComponentFileTest, WritesAnEmptyListOfComponents) {
    ComponentFile file = Sample();
    file.components.clear();
    const std::string text = FormatComponentFile(file);
    EXPECT_THAT(text, ::testing::HasSubstr("\"components\": []\n}\n"));
    EXPECT_TRUE(ParseComponentFile(text));
}

TEST(ComponentFileTest, BearsMembersThatItDoesNotKnow) {
    std::string text = FormatComponentFile(Sample());
    text.insert(2, "  \"later\": {\"x\": [1]},\n");
    EXPECT_TRUE(ParseComponentFile(text));
}

TEST(ComponentFileTest, SaysWhatIsOnlyObservedInBothForms) {
    ObservedEntry one;
    one.name = "QorNet";
    one.cpu = {true, "guard", 120};
    for (const bool enabled : {true, false}) {
        ComponentFile file = Sample();
        file.enabled = enabled;
        file.observed = {one};
        const std::string text = FormatComponentFile(file);
        Result<ComponentFile> parsed = ParseComponentFile(text);
        ASSERT_TRUE(parsed) << parsed.GetError().Text();
        EXPECT_EQ(text, FormatComponentFile(*parsed));
        ASSERT_NE(nullptr, parsed->FindObserved("QorNet"));
        EXPECT_EQ(120, parsed->FindObserved("QorNet")->cpu.quota);
        EXPECT_EQ("guard", parsed->FindObserved("QorNet")->cpu.group);
        EXPECT_FALSE(parsed->FindObserved("QorNet")->memory.present);
        EXPECT_EQ(nullptr, parsed->FindObserved("Tervane"));
    }
}

TEST(ComponentFileTest, RefusesObservedOnesThatAreNone) {
    for (const char* bad :
         {"{}", "[{\"name\": \"a\"}]", "[{\"name\": \"..\", \"cpu\": null, \"memory\": null}]",
          "[{\"name\": \"a\", \"cpu\": {\"group\": \"g\", \"quota_100times\": -1}, \"memory\": null}]",
          "[{\"name\": \"a\", \"cpu\": null, \"memory\": null}, "
          "{\"name\": \"a\", \"cpu\": null, \"memory\": null}]"}) {
        EXPECT_FALSE(ParseComponentFile(
            std::string("{\"version\": 1, \"enabled\": false, \"boot_id\": \"\", \"observed\": ") + bad + "}"))
            << bad;
    }
}

TEST(ComponentFileTest, RefusesLeafOfControllerThatTheParentHasNot) {
    ComponentFile file = Sample();
    file.cpu = ComponentParent();
    Result<ComponentFile> parsed = ParseComponentFile(FormatComponentFile(file));
    ASSERT_FALSE(parsed);
    EXPECT_EQ("cpu of component Tervane has a leaf and the parent has none", parsed.GetError().hint);
}

TEST(ComponentFileTest, RefusesALeafOfAnotherVersionThanTheParent) {
    ComponentFile file = Sample();
    file.components[0].cpu.version = Version::kV2;
    EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file)));
}

TEST(ComponentFileTest, RefusesAnEnabledFileWithoutAnyController) {
    ComponentFile file;
    file.enabled = true;
    EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file)));
}

TEST(ComponentFileTest, RefusesPathsThatAreNotPlain) {
    for (const char* path : {"sys/fs", "/", "//a", "/a/", "/a//b", "/a/./b", "/a/../b", "/..", ""}) {
        ComponentFile file = Sample();
        file.cpu.path = path;
        file.components[0].cpu.path = std::string(path) + "/main/Tervane";
        EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file))) << path;
    }
}

TEST(ComponentFileTest, RefusesMoreComponentsThanItsBound) {
    ComponentFile file = Sample();
    file.components.clear();
    for (size_t index = 0; index <= kMaxComponents; ++index) {
        ComponentEntry entry;
        entry.name = "c" + std::to_string(index);
        file.components.push_back(entry);
    }
    EXPECT_FALSE(ParseComponentFile(FormatComponentFile(file)));
    file.components.pop_back();
    EXPECT_TRUE(ParseComponentFile(FormatComponentFile(file)));
}

class ComponentFileOnDiskTest : public ::testing::Test {
protected:
    support::TempDir dir;
    const std::string path = dir / "file";
};

TEST_F(ComponentFileOnDiskTest, IsReadBackAsItWasWritten) {
    ComponentFile off;
    off.bootId = Sample().bootId;
    for (const ComponentFile& file : {Sample(), off}) {
        ASSERT_TRUE(WriteComponentFile(path, file));
        const Result<ComponentFile> read = ReadComponentFile(path);
        ASSERT_TRUE(read) << read.GetError().Text();
        EXPECT_EQ(FormatComponentFile(file), FormatComponentFile(*read));
        EXPECT_EQ(0640, support::ModeOf(path));
        EXPECT_THAT(support::NamesIn(dir.Path()), testing::ElementsAre("file"));
    }
}

TEST_F(ComponentFileOnDiskTest, ALinkIsNeitherReadNorReplaced) {
    ASSERT_TRUE(WriteComponentFile(dir / "other", Sample()));
    ASSERT_EQ(0, symlink("other", path.c_str()));
    EXPECT_EQ(ErrorKind::kRefused, ReadComponentFile(path).GetError().kind);
    EXPECT_EQ(ErrorKind::kRefused, WriteComponentFile(path, ComponentFile()).GetError().kind);
    EXPECT_EQ(FormatComponentFile(Sample()), support::ReadText(dir / "other"));
}

TEST_F(ComponentFileOnDiskTest, AMissingOneIsNotFound) {
    EXPECT_EQ(ErrorKind::kNotFound, ReadComponentFile(path).GetError().kind);
    EXPECT_EQ(ErrorKind::kNotFound, WriteComponentFile(dir / "nowhere/file", Sample()).GetError().kind);
}

}  // namespace
