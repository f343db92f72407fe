#include "Options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "ExitCode.h"

using namespace agent;

namespace {

struct Parsed {
    bool go = false;
    Options options;
    std::string text;
    int code = -1;
};

Parsed Parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "tervane");
    Parsed parsed;
    parsed.go =
        ParseOptions(static_cast<int>(arguments.size()), arguments.data(), parsed.options, parsed.text, parsed.code);
    return parsed;
}

}  // namespace

TEST(OptionsTest, TheMainProcessIsTheDefault) {
    Parsed parsed = Parse({"--app-dir", "/tmp"});
    ASSERT_TRUE(parsed.go) << parsed.text;
    EXPECT_TRUE(parsed.options.IsMain());
    EXPECT_EQ("/tmp", parsed.options.appDir);
    EXPECT_EQ(0u, parsed.options.forSeconds);
}

TEST(OptionsTest, AnotherResourceFileIsKnownByItsWholePath) {
    EXPECT_EQ("", Parse({"--app-dir", "/tmp"}).options.configPath);
    EXPECT_EQ("/etc/limits", Parse({"--app-dir", "/tmp", "--config", "/etc/limits"}).options.configPath);
    const std::string whole = std::filesystem::current_path().string() + "/conf/limits";
    EXPECT_EQ(whole, Parse({"--app-dir", "/tmp", "--config", "conf/limits"}).options.configPath);
}

TEST(OptionsTest, WithoutArgumentsItExplainsItself) {
    unsetenv("ZEL_APP_DIR");
    Parsed parsed = Parse({});
    EXPECT_FALSE(parsed.go);
    EXPECT_EQ(kExitUsage, parsed.code);
    for (const char* part : {"systemctl start tervane", "--app-dir DIRECTORY", "tervanectl status", "--help"}) {
        EXPECT_NE(std::string::npos, parsed.text.find(part)) << part;
    }
    setenv("ZEL_APP_DIR", "/tmp", 1);
    EXPECT_TRUE(Parse({}).go) << "a directory by the environment is a wish";
    unsetenv("ZEL_APP_DIR");
}

TEST(OptionsTest, ANameInOtherLettersIsNotTheMainProcess) {
    EXPECT_FALSE(Parse({"--name", "Tervane"}).options.IsMain());
}

TEST(OptionsTest, RefusesNamesThatAreNoPlainFileNames) {
    for (const char* name : {"", "../x", "a/b", ".hidden", "a b", "x\n"}) {
        Parsed parsed = Parse({"--name", name});
        EXPECT_FALSE(parsed.go) << name;
        EXPECT_EQ(kExitUsage, parsed.code) << name;
    }
}

TEST(OptionsTest, ADirectoryThatIsNotThereHasItsOwnExitCode) {
    Parsed parsed = Parse({"--app-dir", "/nowhere/at/all"});
    EXPECT_FALSE(parsed.go);
    EXPECT_EQ(kExitDirectory, parsed.code);
    EXPECT_NE(std::string::npos, parsed.text.find("/nowhere/at/all"));
}

TEST(OptionsTest, UnknownArgumentsEndWithTheUsageCode) {
    EXPECT_EQ(kExitUsage, Parse({"--fast"}).code);
    EXPECT_EQ(kExitUsage, Parse({"--for", "soon"}).code);
    EXPECT_EQ(kExitUsage, Parse({"--load", "busy"}).code);
}

TEST(OptionsTest, GroupsAreLookedAfterEveryFiveSecondsByDefault) {
    EXPECT_EQ(5u, Parse({}).options.limitCheckSeconds);
    EXPECT_EQ(3600u, Parse({"--limit-check", "3600"}).options.limitCheckSeconds);
    for (const char* seconds : {"0", "3601", "-1", "often"}) {
        EXPECT_EQ(kExitUsage, Parse({"--limit-check", seconds}).code) << seconds;
    }
}

TEST(OptionsTest, MetricsAreServedOnThisHostOnly) {
    EXPECT_EQ("", Parse({}).options.metricsListen);
    for (const char* address : {"127.0.0.1:9471", "127.0.0.1:0", "[::1]:9471", "unix:/run/x.sock"}) {
        Parsed parsed = Parse({"--metrics-listen", address});
        EXPECT_TRUE(parsed.go) << parsed.text;
        EXPECT_EQ(address, parsed.options.metricsListen);
    }
    for (const char* address : {"0.0.0.0:9471", "192.0.2.1:9471", "localhost:9471", "127.0.0.1", "127.0.0.1:", "[::]:1",
                                "127.0.0.1:http", "127.0.0.1:123456", "unix:", "unix:relative", "9471"}) {
        EXPECT_EQ(kExitUsage, Parse({"--metrics-listen", address}).code) << address;
    }
}

TEST(OptionsTest, HelpAndVersionEndCleanly) {
    Parsed help = Parse({"--help"});
    EXPECT_FALSE(help.go);
    EXPECT_EQ(kExitClean, help.code);
    EXPECT_NE(std::string::npos, help.text.find("--app-dir"));
    Parsed version = Parse({"--version"});
    EXPECT_EQ(kExitClean, version.code);
    EXPECT_NE(std::string::npos, version.text.find(ZEL_VERSION));
}

TEST(OptionsTest, ExecNeedsACommandAndACommandNeedsExec) {
    EXPECT_FALSE(Parse({"--exec"}).go);
    EXPECT_FALSE(Parse({"--", "/bin/true"}).go);
    Parsed parsed = Parse({"--name", "QorNet", "--exec", "--", "/bin/sleep", "--help"});
    ASSERT_TRUE(parsed.go) << parsed.text;
    EXPECT_EQ((std::vector<std::string>{"/bin/sleep", "--help"}), parsed.options.command);
}
