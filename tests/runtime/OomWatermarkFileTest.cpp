// The watermark file on the real library: whole at any moment, whatever the host does.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "abnormal/OomWatermark.h"
#include "support/Files.h"
#include "support/HostTricks.h"

namespace {

using Snapshot = std::vector<zel::CgroupMemoryOomEvent>;

/// Counters that are all `value`, in groups enough for a text of several blocks.
Snapshot AllAt(int64_t value, int groups = 40) {
    Snapshot snapshot;
    for (int i = 0; i < groups; ++i) {
        zel::CgroupMemoryOomEvent event;
        event.group = "group" + std::to_string(i);
        event.path = "/sys/fs/cgroup/" + event.group;
        event.v2 = true;
        event.oom_kill = event.oom = event.oom_group_kill = value;
        snapshot.push_back(event);
    }
    return snapshot;
}

class OomWatermarkFileTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (const char* file : {"/w", "/w.tmp", "/w.tmp.new", "/elsewhere", "/filler"}) {
            unlink((m_directory + file).c_str());
        }
        EXPECT_TRUE(support::NamesIn(m_directory).empty()) << "something else was left behind";
    }

    std::string Path() const { return m_directory + "/w"; }

    /// The one value of all counters; -1: not readable; -2: a mixture, which no write has made.
    int64_t ReadValue() const {
        OomWatermarkMap map;
        if (!ReadOomWatermarkFile(Path(), map) || map.empty()) return -1;
        const int64_t value = map.begin()->second.oom_kill;
        for (const auto& entry : map) {
            const SelfCgroupOomWatermark& w = entry.second;
            if (w.oom_kill != value || w.oom != value || w.oom_group_kill != value) return -2;
        }
        return map.size() == 40 ? value : -2;
    }

    const support::TempDir m_temp;
    const std::string m_directory = m_temp.Path();
};

}  // namespace

TEST_F(OomWatermarkFileTest, IsReplacedAndReadBack) {
    EXPECT_EQ(-1, ReadValue());
    EXPECT_TRUE(WriteOomWatermarkFile(Path(), AllAt(1)));
    EXPECT_EQ(1, ReadValue());
    EXPECT_TRUE(WriteOomWatermarkFile(Path(), AllAt(INT64_MAX)));
    EXPECT_EQ(INT64_MAX, ReadValue());
    EXPECT_NE(0, access((Path() + ".tmp").c_str(), F_OK));
    struct stat info {};
    ASSERT_EQ(0, stat(Path().c_str(), &info));
    EXPECT_EQ(0u, info.st_mode & 0027u) << "not for others";
}

TEST_F(OomWatermarkFileTest, BeyondTheBoundIsNotRead) {
    ASSERT_TRUE(WriteOomWatermarkFile(Path(), AllAt(1, 1000)));
    OomWatermarkMap map{{"old", {1, 2, 3}}};
    EXPECT_FALSE(ReadOomWatermarkFile(Path(), map));
    EXPECT_TRUE(map.empty());
}

TEST_F(OomWatermarkFileTest, DirectoryWithoutWritesKeepsTheOldFile) {
    ASSERT_TRUE(WriteOomWatermarkFile(Path(), AllAt(1)));
    GiveAway(m_directory);
    GiveAway(Path());
    ASSERT_EQ(0, chmod(m_directory.c_str(), 0500));
    {
        Unprivileged guard;
        EXPECT_FALSE(WriteOomWatermarkFile(Path(), AllAt(2)));
        EXPECT_EQ(1, ReadValue());
        ASSERT_EQ(0, chmod(m_directory.c_str(), 0700));
        EXPECT_TRUE(WriteOomWatermarkFile(Path(), AllAt(3)));
        EXPECT_EQ(3, ReadValue());
    }
}

TEST_F(OomWatermarkFileTest, DirectoryInWayOfRenameLeavesNoTemporary) {
    ASSERT_EQ(0, mkdir(Path().c_str(), 0700));
    EXPECT_FALSE(WriteOomWatermarkFile(Path(), AllAt(1)));
    EXPECT_NE(0, access((Path() + ".tmp").c_str(), F_OK));
    OomWatermarkMap map;
    EXPECT_FALSE(ReadOomWatermarkFile(Path(), map));
    ASSERT_EQ(0, rmdir(Path().c_str()));
}

TEST_F(OomWatermarkFileTest, PlantedLinksAreNeitherReadNorWritten) {
    const std::string elsewhere = m_directory + "/elsewhere";
    ASSERT_TRUE(WriteOomWatermarkFile(elsewhere, AllAt(7)));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), Path().c_str()));
    EXPECT_EQ(-1, ReadValue());
    ASSERT_EQ(0, unlink(Path().c_str()));
    ASSERT_EQ(0, symlink(elsewhere.c_str(), (Path() + ".tmp").c_str()));
    EXPECT_FALSE(WriteOomWatermarkFile(Path(), AllAt(8)));
    OomWatermarkMap map;
    ASSERT_TRUE(ReadOomWatermarkFile(elsewhere, map));
    EXPECT_EQ(7, map.begin()->second.oom_kill);
}

TEST_F(OomWatermarkFileTest, FullDiskKeepsTheOldFile) {
    const std::string unable = OnSmallDisk(m_directory, "size=128k", [&] {
        ASSERT_TRUE(WriteOomWatermarkFile(Path(), AllAt(1)));
        FillDisk(m_directory + "/filler");
        EXPECT_FALSE(WriteOomWatermarkFile(Path(), AllAt(2)));
        EXPECT_EQ(1, ReadValue());
        ASSERT_EQ(0, unlink((m_directory + "/filler").c_str()));
        EXPECT_TRUE(WriteOomWatermarkFile(Path(), AllAt(3)));
        EXPECT_EQ(3, ReadValue());
    });
    if (!unable.empty()) GTEST_SKIP() << unable;
}

TEST_F(OomWatermarkFileTest, ReaderSeesAWholeFileWhenWriterIsKilled) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    ASSERT_TRUE(WriteOomWatermarkFile(Path(), AllAt(0)));
    constexpr int kRounds = 300;
    int64_t before = 0;
    for (int round = 0; round < kRounds; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int64_t value = before + 1;; ++value) {
                if (!WriteOomWatermarkFile(Path(), AllAt(value))) _exit(1);
            }
        }
        for (auto reads = random() % 6; reads > 0; --reads) ASSERT_GE(ReadValue(), before);
        usleep(static_cast<useconds_t>(random() % 2000));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << status;
        const int64_t after = ReadValue();
        ASSERT_GE(after, before);
        before = after;
    }
    EXPECT_GT(before, 0) << "no write was ever finished";
    EXPECT_TRUE(WriteOomWatermarkFile(Path(), AllAt(before + 1))) << "what the last one left goes with it";
}
