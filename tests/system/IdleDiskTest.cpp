// An agent that has nothing to say leaves the disk alone: none of its processes writes a byte, none of its files
// changes.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>

#include "AgentFixture.h"

namespace agenttest {
namespace {

/// What a file looks like from outside: size, last change of content and of anything, which file it is.
using Look = std::tuple<off_t, int64_t, int64_t, int64_t, int64_t, ino_t>;

class IdleDiskTest : public AgentTest {
protected:
    std::map<std::string, Look> Looks() const {
        std::map<std::string, Look> looks;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Dir())) {
            struct stat info {};
            if (lstat(entry.path().c_str(), &info) != 0) continue;
            looks[entry.path().string()] = {info.st_size,        info.st_mtim.tv_sec,  info.st_mtim.tv_nsec,
                                            info.st_ctim.tv_sec, info.st_ctim.tv_nsec, info.st_ino};
        }
        return looks;
    }
    /// Bytes that each process has caused to be written so far.
    std::map<pid_t, int64_t> Written() const {
        std::map<pid_t, int64_t> written;
        for (const pid_t pid : AllProcesses()) {
            written[pid] = ReadField("/proc/" + std::to_string(pid) + "/io", "write_bytes:");
        }
        return written;
    }
};

TEST_F(IdleDiskTest, AnIdleAgentWritesNothing) {
    const char* wanted = std::getenv("ZEL_IDLE_SECONDS");
    const int seconds = wanted != nullptr ? std::atoi(wanted) : 30;
    WriteComponents(
        "{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"},"
        "{\"name\": \"QorNet\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0 && ComponentPid("QorNet") > 0; }));
    // What a fresh spool leaves to be tidied is over, and a row of the history waits.
    SleepMs(40000);
    EXPECT_NE(Ask({"statistics"}), "");
    const std::map<pid_t, int64_t> before = Written();
    const std::map<std::string, Look> looksBefore = Looks();
    ASSERT_EQ(before.size(), 3u);
    SleepMs(seconds * 1000);
    EXPECT_EQ(Written(), before) << "bytes to the disk by process";
    const std::map<std::string, Look> looks = Looks();
    for (const auto& file : looks) {
        const auto old = looksBefore.find(file.first);
        EXPECT_TRUE(old != looksBefore.end() && old->second == file.second) << file.first;
    }
    EXPECT_EQ(looks.size(), looksBefore.size());
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_TRUE(Exists(Dir() + "/data/tervane.stats.db")) << "the stop writes what waited";
}

}  // namespace
}  // namespace agenttest
