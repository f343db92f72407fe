// A directory whose disk runs full: reported, nothing more stored, and back to normal when there is room again.
// The agent looks at its disk right after the start and then twice a day, so the way back is tried with a new start.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "AgentFixture.h"

namespace agenttest {
namespace {

constexpr int64_t kDiskAlarmBytes = 64LL * 1024 * 1024;

class FullDiskTest : public AgentTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "SKIP system: not root: no disk of a known size can be mounted";
        // The mount is seen by this program and what it starts, and goes with it.
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            GTEST_SKIP() << "SKIP system: no private view of the mounts: " << strerror(errno);
        }
        AgentTest::SetUp();
        ASSERT_EQ(mount("none", Dir().c_str(), "tmpfs", 0, "size=96m,mode=0750"), 0) << strerror(errno);
        m_mounted = true;
        ASSERT_EQ(mkdir((Dir() + "/conf").c_str(), 0750), 0);
        WriteResource({{"resource_limit_mode", "0"}});
        WriteComponents("");
    }

    void TearDown() override {
        if (m_mounted && HasFailure()) printf("%s\n", Log().c_str());
        if (m_mounted) umount2(Dir().c_str(), MNT_DETACH);
        if (!Dir().empty()) AgentTest::TearDown();
    }

    std::vector<Json::Value> DiskEvents() const {
        std::vector<Json::Value> found;
        for (const Json::Value& event : Events()) {
            Json::Value body;
            if (event["type"].asString() == "T_MSG_OS_ABNORMAL" && ParseJson(event["body"].asString(), body) &&
                body.isMember("free_space")) {
                found.push_back(body);
            }
        }
        return found;
    }

    bool m_mounted = false;
};

TEST_F(FullDiskTest, LittleRoomIsReportedAndNothingStoredUntilRoom) {
    const std::string ballast = Dir() + "/ballast";
    int file = open(ballast.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    ASSERT_EQ(posix_fallocate(file, 0, 48 * 1024 * 1024), 0);
    close(file);

    Child agent = StartRunningAgent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Status()["disk_full"].asBool(); }));
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return DiskEvents().size() == 1; }));
    const Json::Value event = DiskEvents()[0];
    EXPECT_LE(event["free_space"].asInt64(), kDiskAlarmBytes);
    EXPECT_GT(event["free_space"].asInt64(), 0);
    for (const char* store : {"/current_os_abnormal.db", "/current_os_abnormal.db-wal"}) {
        EXPECT_EQ(ReadText(Dir() + store).find("free_space"), std::string::npos) << "stored on a disk that is full";
    }
    EXPECT_EQ(agent.Stop(), 0);

    unlink(ballast.c_str());
    agent = StartRunningAgent();
    // The look at the disk comes in the same pass of the monitor's thread as its first of the memory, at the first
    // tick.
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Status()["uptime_seconds"].asInt() >= 15; }));
    EXPECT_FALSE(Status()["disk_full"].asBool());
    EXPECT_EQ(DiskEvents().size(), 1U);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(FullDiskTest, WithoutRoomAtTheStartTheEventOfItArrives) {
    Child agent = StartRunningAgent();
    EXPECT_EQ(agent.Stop(), 0);
    ASSERT_TRUE(DiskEvents().empty());

    const std::string ballast = Dir() + "/ballast";
    int file = open(ballast.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    const std::string block(4096, 'x');
    while (write(file, block.data(), block.size()) > 0) {
    }
    close(file);
    // The console's answers would take the room that the reserve gives: the delivered event says it all.
    agent = StartAgent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return DiskEvents().size() == 1; })) << "what the reserve is for";
    unlink(ballast.c_str());
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
