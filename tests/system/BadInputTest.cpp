// What the agent does with files, directories and rights that are not as they should be: a clear line, a distinct exit
// code or a run on defaults, never a crash, and nothing left behind.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "AgentFixture.h"

namespace agenttest {
namespace {

constexpr size_t kTenMegabytes = 10 * 1024 * 1024;

std::string Binary(size_t bytes) {
    std::string text;
    uint64_t state = 88172645463325252ULL;  // xorshift, the same bytes every time
    while (text.size() < bytes) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        text += static_cast<char>(state & 0xff);
    }
    return text;
}

class BadInputTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        WriteResource({{"resource_limit_mode", "0"}});
    }

    /// Starts the agent on the directory as it is, expects it to run, to say `line`, and to stop cleanly.
    void ExpectRunsAndSays(const std::string& line) {
        SCOPED_TRACE(line);
        Child agent = StartRunningAgent();
        EXPECT_TRUE(LogHas(line)) << Log();
        EXPECT_EQ(agent.Stop(), 0) << agent.Output();
        ExpectNothingLeft();
        unlink((Dir() + "/log/tervane.log").c_str());
    }

    /// Starts it and expects it to refuse with this exit code and text.
    void ExpectRefuses(const std::vector<std::string>& words, int code, const std::string& text) {
        SCOPED_TRACE(text);
        std::string output;
        EXPECT_EQ(RunToEnd(words, output), code);
        EXPECT_NE(output.find(text), std::string::npos) << output;
        ExpectNothingLeft();
    }
};

TEST_F(BadInputTest, ResourceFileThatIsNoneEndsStartWithItsCode) {
    const std::string path = Conf("resource_config");
    const std::string text = "no resource configuration at " + path;
    unlink(path.c_str());
    ExpectRefuses(AgentWords(), 14, text);
    ASSERT_EQ(mkdir(path.c_str(), 0750), 0);
    ExpectRefuses(AgentWords(), 14, text);
    rmdir(path.c_str());
    ASSERT_EQ(symlink("elsewhere", path.c_str()), 0);
    ExpectRefuses(AgentWords(), 14, text);
    unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0640), 0);
    ExpectRefuses(AgentWords(), 14, text);
    unlink(path.c_str());
    ExpectRefuses(AgentWords({"--config", "/nonexistent/file"}), 14, "no resource configuration at /nonexistent/file");
}

TEST_F(BadInputTest, SenselessResourceFileRunsOnDefaultsNamingLines) {
    WriteConf("resource_config", "");
    ExpectRunsAndSays("no key in it was understood: every value is its default");
    WriteConf("resource_config", Binary(4096));
    ExpectRunsAndSays("no key in it was understood");
    WriteConf("resource_config", std::string(kTenMegabytes, 'a'));
    ExpectRunsAndSays("longer than 1048576 bytes");
    WriteConf("resource_config", "max_cpu = ten\n");
    ExpectRunsAndSays("line 1: max_cpu = \"ten\" is not a number");
    WriteConf("resource_config", "\nmax_memory = -5\n");
    ExpectRunsAndSays("line 2: max_memory = \"-5\" is outside");
    WriteConf("resource_config", "resource_limit_mode = 99999999999999999999999\n");
    ExpectRunsAndSays("is outside 0..15");
    WriteConf("resource_config", "[limits]\nmax_cpu = 5\n");
    ExpectRunsAndSays("keys below a [section] are not read");
}

TEST_F(BadInputTest, RefusedOnlineConfigurationIsNamedWithReason) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", "not a JSON object"},
        {"{", "not a JSON object"},
        {"[]", "not a JSON object"},
        {Binary(4096), "online_config.json: "},
        {std::string(kTenMegabytes, 'a'), "longer than 65536 bytes"},
        {std::string(20000, '['), "not a JSON object"},
        {"{\"maxCpu\": \"ten\"}", "key 'maxCpu', value \"ten\": a whole number is wanted"},
        {"{\"maxCpu\": -1}", "key 'maxCpu', value -1: outside 0..10000 percent"},
        {"{\"maxCpu\": 99999999999999999999999}", "key 'maxCpu'"},
        {"{\"maxMemory\": null}", "key 'maxMemory', value null"},
        {"{\"noSuchKey\": 1}", "key 'noSuchKey', value 1: there is no such key"},
    };
    for (const auto& one : cases) {
        WriteOnline(one.first);
        ExpectRunsAndSays(one.second);
        WriteOnline("{}");
    }
    unlink(Conf("online_config.json").c_str());
    ASSERT_EQ(mkdir(Conf("online_config.json").c_str(), 0750), 0);
    ExpectRunsAndSays("online_config.json: not a regular file");
    rmdir(Conf("online_config.json").c_str());
    ASSERT_EQ(symlink("elsewhere", Conf("online_config.json").c_str()), 0);
    ExpectRunsAndSays("online_config.json: a symbolic link is not followed");
}

TEST_F(BadInputTest, RefusedComponentsFileStartsNoneAndIsNamed) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", "components.json: "},
        {Binary(4096), "components.json: "},
        {std::string(kTenMegabytes, 'a'), "components.json: cannot be read, or is longer than 65536 bytes"},
        {std::string(20000, '['), "components.json: "},
        {"{\"components\": 1}", "an object with a list \"components\" is expected"},
        {"{\"version\": 2, \"components\": []}", "version: only 1 is known"},
        {"{\"components\": [{\"name\": \"../x\"}]}", "components[0].name \"../x\""},
        {"{\"components\": [{\"name\": \"tervane\"}]}", "taken already"},
        {"{\"components\": [{\"name\": \"A\", \"load\": \"greedy:9999\"}]}", "components[0].load"},
        {"{\"components\": [{\"name\": \"A\", \"command\": [\"relative\"]}]}", "named by its absolute path"},
        {"{\"components\": [{\"name\": \"A\", \"colour\": \"red\"}]}", "unknown key"},
    };
    for (const auto& one : cases) {
        WriteConf("components.json", one.first);
        ExpectRunsAndSays(one.second);
        EXPECT_FALSE(Exists(Dir() + "/log/A.log"));
    }
    unlink(Conf("components.json").c_str());
    ASSERT_EQ(symlink("/etc/hostname", Conf("components.json").c_str()), 0);
    ExpectRunsAndSays("components.json: a symbolic link is not followed");
}

TEST_F(BadInputTest, DirectoryThatSomebodyElseMayChangeIsRefused) {
    ASSERT_EQ(chmod(Dir().c_str(), 0757), 0);
    ExpectRefuses(AgentWords(), 12, Dir() + ": writable by everybody, mode 0757 (chmod o-w)");
    ASSERT_EQ(chmod(Dir().c_str(), 0750), 0);
    std::vector<std::string> words = AgentWords();
    words[2] = "/nonexistent/directory";
    ExpectRefuses(words, 12, "--app-dir /nonexistent/directory: no such directory");
    words[2] = Conf("resource_config");
    ExpectRefuses(words, 12, "is not a directory");
    if (geteuid() != 0) GTEST_SKIP() << "SKIP system: not root: the directory cannot be given to another user";
    ASSERT_EQ(chown(Dir().c_str(), 65534, 65534), 0);
    ExpectRefuses(AgentWords(), 12, "owned by user 65534, mode 0750; the agent's user or root must own it (chown)");
}

TEST_F(BadInputTest, BadCommandLineHasItsOwnExitCode) {
    ExpectRefuses(AgentWords({"--no-such-option"}), 11, "--no-such-option");
    ExpectRefuses(AgentWords({"--load", "greedy:many"}), 11, "--load greedy:many");
    ExpectRefuses(AgentWords({"--name", "../other"}), 11, "--name ../other");
    ExpectRefuses(AgentWords({"--exec"}), 11, "--exec and a command go together");
    ExpectRefuses(AgentWords({"--for", "-3"}), 11, "--for");
}

TEST_F(BadInputTest, ResourceFileThatTheMonitorRefusesHasItsCode) {
    // More than a configuration can be; its holes cost no disk.
    ASSERT_EQ(truncate(Conf("resource_config").c_str(), 70 * 1024 * 1024), 0);
    ExpectRefuses(AgentWords(), 15, "the resource monitor did not start with " + Conf("resource_config"));
}

TEST_F(BadInputTest, AComponentOfAnotherParentEndsWithItsCode) {
    ExpectRefuses(AgentWords({"--name", "QorHips", "--parent-pid", "1"}), 21, "");
    EXPECT_FALSE(Exists(Dir() + "/log")) << "it ends before it writes anything";
}

TEST_F(BadInputTest, WithFewDescriptorsTheStartEndsWithACode) {
    std::set<int> codes;
    for (int most = 4; most <= 12; ++most) {
        std::vector<std::string> words{"prlimit", "--nofile=" + std::to_string(most) + ":" + std::to_string(most)};
        for (const std::string& word : AgentWords({"--for", "1"})) words.push_back(word);
        std::string output;
        const int code = RunToEnd(words, output);
        EXPECT_GE(code, 12) << most << " descriptors: " << output;
        EXPECT_LE(code, 15) << most << " descriptors: " << output;
        EXPECT_NE(output.find("Too many open files"), std::string::npos) << output;
        codes.insert(code);
    }
    EXPECT_EQ(codes.count(13), 1U) << "with some, the host's services are what cannot start";
    ExpectNothingLeft();
}

class BadDirectoryTest : public AgentOnV1Test {};

TEST_F(BadDirectoryTest, ReadOnlyDirectoryCostsTheDiskNotTheLimits) {
    Child agent = Spawn(InPrivateMounts("mount --bind " + Dir() + " " + Dir() + " && mount -o remount,bind,ro " + Dir(),
                                        AgentWords({"--foreground"})),
                        Environment(), NextOutput());
    ASSERT_TRUE(Poll(kStartSeconds, [&] {
        return agent.Output().find(" is running, process ") != std::string::npos || !agent.Running();
    }));
    EXPECT_TRUE(agent.Running()) << agent.Output();
    EXPECT_NE(agent.Output().find("Read-only file system): log files, events and statistics are not kept on disk"),
              std::string::npos)
        << agent.Output();
    EXPECT_EQ(ReadNumber(LegacyGroup(CpuRoot()) + "/cpu.cfs_quota_us"), 9500);
    EXPECT_EQ(ProcessesIn(LegacyGroup(MemoryRoot())), std::vector<pid_t>{agent.Pid()});
    EXPECT_EQ(agent.Stop(), 0) << agent.Output();
    ExpectNothingLeft();
}

TEST_F(BadDirectoryTest, FullDirectoryCostsTheDiskNotTheLimits) {
    // A tmpfs of its own, filled to the last byte, with the configuration in it.
    const std::string fill = "cp -a " + Dir() + "/conf /tmp/conf." + Tree() +
                             " && mount -t tmpfs -o size=64k,mode=0750 none " + Dir() + " && mv /tmp/conf." + Tree() +
                             " " + Dir() + "/conf && { head -c 1000000 /dev/zero > " + Dir() +
                             "/ballast 2>/dev/null || true; }";
    Child agent = Spawn(InPrivateMounts(fill, AgentWords({"--foreground"})), Environment(), NextOutput());
    ASSERT_TRUE(Poll(kStartSeconds, [&] {
        return agent.Output().find(" is running, process ") != std::string::npos || !agent.Running();
    }));
    EXPECT_TRUE(agent.Running()) << agent.Output();
    EXPECT_NE(agent.Output().find("No space left on device"), std::string::npos) << agent.Output();
    EXPECT_EQ(ReadNumber(LegacyGroup(CpuRoot()) + "/cpu.cfs_quota_us"), 9500);
    EXPECT_EQ(agent.Stop(), 0) << agent.Output();
    ExpectNothingLeft();
}

TEST_F(BadDirectoryTest, OrdinaryUserRunsUnlimitedAndIsToldWhy) {
    // The programs may stand where only root can go, so the user gets copies.
    const std::string script =
        "cp -L \"$0\" \"$1/tervane.program\" && "
        "ldd \"$0\" | sed -n 's/.* => \\(.*libzel.*\\) (0x.*/\\1/p' | while IFS= read -r l; do cp -L \"$l\" \"$1/\"; "
        "done && "
        "chown -R 65534:65534 \"$1\"";
    std::string output;
    ASSERT_EQ(RunToEnd({"sh", "-c", script, AgentWords()[0], Dir()}, output), 0) << output;
    std::map<std::string, std::string> environment = Environment();
    environment["LD_LIBRARY_PATH"] = Dir();
    Child agent = Spawn(
        {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", Dir() + "/tervane.program", "--app-dir", Dir()},
        environment, NextOutput());
    ASSERT_TRUE(WaitLog(" is running, process ")) << agent.Output();
    EXPECT_TRUE(LogHas("CPU limit is not in force: ")) << Log();
    EXPECT_TRUE(LogHas("memory limit is not in force: ")) << Log();
    EXPECT_TRUE(LogHas("Permission denied")) << Log();
    EXPECT_TRUE(LogHas("run the agent as root")) << Log();
    EXPECT_TRUE(AllGroups().empty());
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
