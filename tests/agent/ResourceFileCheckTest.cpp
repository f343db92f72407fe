// What the administrator is told about a resource configuration.
#include "ResourceFileCheck.h"

#include <gmock/gmock.h>

#include "platform/zel/LimitKeys.h"

namespace agent {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(ResourceFileCheckTest, UnderstoodFileGivesNoFinding) {
    EXPECT_THAT(
        CheckResourceText(
            "\xEF\xBB\xBF; comment\r\n# another\n\nmax_cpu = 10\r\nMAX_MEMORY=200\n"
            "resource_limit_mode = 13\ncgroup_groups = a:1:2,b:0:3\ncgroup_components = x:a:a:1:2\nhash_mode = -3"),
        IsEmpty());
}

TEST(ResourceFileCheckTest, AnEntryThatIsLeftOutIsNamed) {
    EXPECT_THAT(CheckResourceText("cgroup_groups = a:1:2,b\ncgroup_components = x:a:a:1\nmax_cpu = 1\n"),
                ElementsAre("line 1: cgroup_groups: \"b\" has not 3 fields with : between them",
                            "line 2: cgroup_components: \"x:a:a:1\" has not 5 fields with : between them"));
}

TEST(ResourceFileCheckTest, EveryKindOfMistakeIsNamedWithItsLine) {
    EXPECT_THAT(
        CheckResourceText("max_cpu = ten\nmax_memory = -5\nresource_limit_mode = 99999999999999999999\nmax_cup = 1\n"
                          "just words\ncpu_all = 1\ncpu_all = 0\n[late]\nmax_fd = x\n"),
        ElementsAre(HasSubstr("line 1: max_cpu = \"ten\" is not a number"),
                    HasSubstr("line 2: max_memory = \"-5\" is outside 0..1048576"),
                    HasSubstr("line 3: resource_limit_mode = \"99999999999999999999\" is outside 0..15"),
                    HasSubstr("line 4: \"max_cup\" is no key of this file"),
                    HasSubstr("line 5: \"just words\" is no \"key = value\""),
                    HasSubstr("line 7: cpu_all stands there twice"),
                    HasSubstr("line 8: keys below a [section] are not read")));
}

TEST(ResourceFileCheckTest, EveryRangeEndsWhereItsTableSays) {
    for (const zel::LimitKey* key : zel::kLimitKeys) {
        if (key->resourceName == nullptr || key->kind == zel::LimitKeyKind::kText) continue;
        const std::string name = key->resourceName;
        for (const long inside : {key->least, key->most, key->byDefault}) {
            EXPECT_THAT(CheckResourceText(name + " = " + std::to_string(inside)), IsEmpty()) << name << inside;
        }
        for (const long outside : {key->least - 1, key->most + 1}) {
            EXPECT_THAT(
                CheckResourceText(name + " = " + std::to_string(outside)),
                Contains(HasSubstr(" is outside " + std::to_string(key->least) + ".." + std::to_string(key->most))))
                << name << outside;
        }
    }
    // One range for both configurations: 0 is a value, 100 CPUs at 100 percent are the most.
    EXPECT_THAT(CheckResourceText("max_cpu = 0\nmax_memory = 0"), IsEmpty());
    EXPECT_THAT(CheckResourceText("max_cpu = 10001"), Contains(HasSubstr("is outside 0..10000")));
}

TEST(ResourceFileCheckTest, LegacyMemoryThatWrapsAroundIsNamed) {
    const auto check = [](const char* memory, const char* mode) {
        return CheckResourceText(std::string("max_memory = ") + memory + "\nresource_limit_mode = " + mode);
    };
    for (const char* mode : {"4", "5"}) {
        EXPECT_THAT(check("1365", mode), IsEmpty());
        for (const char* memory : {"1366", "8193", "9557", "1048576"}) {
            EXPECT_THAT(check(memory, mode), ElementsAre(HasSubstr(std::string("max_memory = \"") + memory +
                                                                   "\" is above 1365 MB, beyond which")))
                << mode;
        }
    }
    for (const char* mode : {"0", "1", "8", "12", "13"}) EXPECT_THAT(check("8193", mode), IsEmpty()) << mode;
    EXPECT_THAT(CheckResourceText("resource_limit_mode = 4\nmax_memory = 8193\nmax_memory = 200\n"),
                ElementsAre(HasSubstr("stands there twice")));
}

TEST(ResourceFileCheckTest, TextWithoutAnyKeySaysThatDefaultsHold) {
    EXPECT_THAT(CheckResourceText(""), ElementsAre(HasSubstr("no key in it was understood")));
    EXPECT_THAT(CheckResourceText("; only a comment\n"), ElementsAre(HasSubstr("no key in it was understood")));
}

TEST(ResourceFileCheckTest, FindingsAreBoundedAndPrintable) {
    std::string text;
    for (int i = 0; i < 1000; ++i) text += std::string("\x01\xFF") + std::string(500, 'k') + "\n";
    std::vector<std::string> findings = CheckResourceText(text);
    EXPECT_LE(findings.size(), kMaxResourceFindings + 1);
    for (const std::string& finding : findings) {
        EXPECT_LT(finding.size(), 200U);
        for (char c : finding) EXPECT_TRUE(c >= 0x20 && c < 0x7f);
    }
}

TEST(ResourceFileCheckTest, AValueIsFoundBehindAByteOrderMark) {
    EXPECT_EQ(FindResourceValue("\xEF\xBB\xBFmax_memory = 2000\nmax_cpu = 5", "max_memory"), "2000");
    EXPECT_EQ(FindResourceValue("\xEF\xBB\xBF", "max_memory"), "");
}

TEST(ResourceFileCheckTest, LinesEndAsTheMonitorReadsThem) {
    EXPECT_EQ("10", FindResourceValue("max_cpu = 10\rmax_memory = 20\r", "max_cpu"));
    EXPECT_EQ("20", FindResourceValue("max_cpu = 10\rmax_memory = 20\r", "max_memory"));
    EXPECT_THAT(CheckResourceText("max_cpu = 1\r\rmax_memory = x\r\nmax_fd = y"),
                ElementsAre(HasSubstr("line 3: max_memory"), HasSubstr("line 4: max_fd")));
}

TEST(ResourceFileCheckTest, NothingIsReadBehindACharacterZero) {
    const std::string text("max_cpu = 10\nmax_mem\0ory = 20\n", 30);
    EXPECT_EQ("", FindResourceValue(text, "max_memory"));
    EXPECT_THAT(CheckResourceText(text), Contains(HasSubstr("behind the character 0")));
}

TEST(ResourceFileCheckTest, MissingFileIsAFindingToo) {
    EXPECT_THAT(CheckResourceFile("/nonexistent/resource_config"), ElementsAre(HasSubstr("it cannot be read")));
}

}  // namespace
}  // namespace agent

TEST(ResourceFileCheckTest, AListOfKernelsThatIsNoneIsNamed) {
    const char kGood[] = "mem_limit_kernel_range = 3.10.0-0,4.0.0-0 5.0.0-0,6.12.0-9\n";
    EXPECT_TRUE(agent::CheckResourceText(kGood).empty());
    EXPECT_TRUE(agent::CheckResourceText("mem_limit_kernel_range =\n").empty());
    for (const char* wrong : {"foo", "3.10.0-0", "3.10.0,4.0.0", "3.10.0-0,4.0.0-0 foo", "3.10-0,4.0-0"}) {
        const auto findings =
            agent::CheckResourceText(std::string("max_cpu = 10\nmem_limit_kernel_range = ") + wrong + "\n");
        ASSERT_EQ(1u, findings.size()) << wrong;
        EXPECT_NE(std::string::npos, findings[0].find("is no range of kernels")) << findings[0];
    }
}
