// Texts of configuration files: what is refused of them, with key and value, and one value changed.
#include "ConfigFiles.h"

#include <gtest/gtest.h>

using namespace agent;

namespace {

struct Refused {
    ConfigFile file;
    const char* text;
    const char* key;
    const char* value;
    const char* reason;
};

const Refused kRefused[] = {
    {ConfigFile::kOnline, R"({"maxCpu":90000})", "maxCpu", "90000", "outside 0..10000 percent"},
    {ConfigFile::kOnline, R"({"maxCup":1})", "maxCup", "1", "there is no such key"},
    {ConfigFile::kOnline, R"({"maxCpu":"20"})", "maxCpu", "\"20\"", "a whole number is wanted"},
    {ConfigFile::kOnline, "[1]", "", "", "not a JSON object"},
    {ConfigFile::kAgent, R"({"http":{"url":"ftp://x"}})", "http.url", "\"ftp://x\"",
     "an http:// or https:// address is expected"},
    {ConfigFile::kAgent, R"({"http":{"url":"http://x","header":"secret"}})", "http.header", "",
     "\"Name: value\" is expected"},
    {ConfigFile::kAgent, R"({"syslog":1})", "syslog", "1", "true or false is expected"},
    {ConfigFile::kComponents, R"({"components":[{"name":"a"},{"name":"b","group":5}]})", "components[1].group", "5",
     "a text is expected"},
    {ConfigFile::kComponents, R"({"components":[{"name":"a/b"}]})", "components[0].name", "\"a/b\"",
     "letters, digits, '.', '_' and '-' only, at most 64"},
    {ConfigFile::kResource, "hash_mode = 0\nmax_cpu = ten\n", "max_cpu", "ten",
     "line 2: is not a number and counts as what it begins with, or 0"},
    {ConfigFile::kResource, "hash_mode = 0\ncgroup_groups = a:1:2,b\n", "cgroup_groups", "b",
     "line 2: has not 3 fields with : between them"},
    {ConfigFile::kResource, "max_cpu = 1\nmax_memory = -5\n", "max_memory", "-5", "line 2: is outside 0..1048576"},
};

std::string Set(const char* name, const char* value, const std::string& text) {
    const base::Result<SettableKey> key = FindSettable(name);
    EXPECT_TRUE(key) << name;
    const base::Result<std::string> changed =
        ChangeValue(*key, value == nullptr ? std::nullopt : std::optional<std::string>(value), text);
    return changed ? *changed : "refused: " + changed.GetError().Text();
}

std::string Found(const char* name, const std::string& text) {
    return FindValue(*FindSettable(name), text).value_or("(none)");
}

}  // namespace

TEST(ConfigFilesTest, ARefusalNamesKeyValueAndReason) {
    for (const Refused& row : kRefused) {
        const std::vector<ConfigFinding> findings = JudgeConfigText(row.file, row.text);
        ASSERT_EQ(findings.size(), 1u) << row.text;
        EXPECT_EQ(findings[0].key, row.key) << row.text;
        EXPECT_EQ(findings[0].value, row.value) << row.text;
        EXPECT_EQ(findings[0].reason, row.reason) << row.text;
    }
    EXPECT_EQ(JudgeConfigText(ConfigFile::kOnline, R"({"maxCpu":-1,"b":2,"cpuAll":7})").size(), 3u) << "all of them";
    EXPECT_TRUE(JudgeConfigText(ConfigFile::kOnline, R"({"maxCpu":20,"_why":"x","cpuAll":true})").empty());
    for (const char* text : {R"({"http":{"header":"A: secret"}})", R"({"http":{"headers":"A: secret"}})",
                             R"({"http":{"url":"http://x","header":"secret"}})"}) {
        const std::vector<ConfigFinding> findings = JudgeConfigText(ConfigFile::kAgent, text);
        ASSERT_EQ(findings.size(), 1u) << text;
        EXPECT_EQ(findings[0].value, "") << text;
    }
    EXPECT_EQ(Set("max_cpu", "7", "a = 1\rmax_cpu = 5\n").compare(0, 7, "refused"), 0) << "its lines end otherwise";
}

TEST(ConfigFilesTest, AChangedResourceFileKeepsItsOtherLines) {
    const std::string text =
        "\xEF\xBB\xBFMAX_CPU=10\r\n; max_cpu = 3\nmax_memory = 200\nmax_cpu = 12\n\n[late]\nmax_cpu = 5\n";
    EXPECT_EQ(Found("max_cpu", text), "12");
    EXPECT_EQ(Set("max_cpu", "20", text), "max_cpu = 20\n; max_cpu = 3\nmax_memory = 200\n\n[late]\nmax_cpu = 5\n");
    EXPECT_EQ(Set("max_fd", "64", text),
              "\xEF\xBB\xBFMAX_CPU=10\r\n; max_cpu = 3\nmax_memory = 200\nmax_cpu = 12\nmax_fd = 64\n\n[late]\nmax_cpu "
              "= 5\n");
    EXPECT_EQ(Set("max_memory", nullptr, "max_cpu = 1\nmax_memory = 2"), "max_cpu = 1\n");
    EXPECT_EQ(Found("max_fd", text), "(none)");
    EXPECT_EQ(Found("mem_limit_exclude_range", "mem_limit_exclude_range =\n"), "");
}

TEST(ConfigFilesTest, AChangedJsonFileKeepsItsOtherMembers) {
    const std::string text = R"({"_why":"night","maxCpu":10,"http":{"url":"http://x"}})";
    EXPECT_EQ(Found("maxCpu", Set("maxCpu", "20", text)), "20");
    EXPECT_EQ(Set("maxCpu", nullptr, R"({"_why":"n","maxCpu":1})"), "{\n    \"_why\" : \"n\"\n}\n");
    EXPECT_EQ(Found("http.url", Set("http.timeout_ms", "500", text)), "http://x");
    EXPECT_EQ(Found("http.timeout_ms", Set("http.timeout_ms", "500", text)), "500");
    EXPECT_EQ(Found("http.url", Set("http.url", nullptr, text)), "(none)");
    EXPECT_EQ(Set("http.url", nullptr, R"({"http":{"url":"http://x"}})"), "{}\n") << "no empty object is left";
    EXPECT_EQ(Found("cpuAll", Set("cpuAll", "true", "")), "true") << "a file that is not there yet";
    EXPECT_EQ(Found("http.header", Set("http.header", "A: 1 \"b\"", text)), "A: 1 \"b\"");
    for (const char* odd : {"[1]", "{", "{} x", "5"}) {
        EXPECT_EQ(Set("maxCpu", "1", odd).compare(0, 7, "refused"), 0) << odd;
        EXPECT_EQ(Found("maxCpu", odd == std::string("{} x") ? "[]" : odd), "(none)");
    }
}

TEST(ConfigFilesTest, KeysAreFoundInAnyLetterCaseAndFilesByName) {
    EXPECT_EQ(FindSettable("MAXCPU")->name, "maxCpu");
    EXPECT_EQ(FindSettable("Max_Cpu")->file, ConfigFile::kResource);
    EXPECT_FALSE(FindSettable("max"));
    EXPECT_EQ(ConfigFileOf("/tmp/x/agent.json"), ConfigFile::kAgent);
    EXPECT_EQ(ConfigFileOf("resource_config"), ConfigFile::kResource);
    EXPECT_EQ(ConfigFileOf("/etc/passwd"), std::nullopt);
}
