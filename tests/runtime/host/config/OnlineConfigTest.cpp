// The online configuration on a real, watched file.
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "HostSupport.h"
#include "config/OnlineConfigLoader.h"
#include "base/IoLoop.h"
#include "support/SmallDisk.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/zel/ProcessLoop.h"

using support::Eventually;
using support::LogHolds;
using support::ReplaceText;
using support::TakeLog;
using support::WriteText;

namespace {

class Listener : public IOnlineClientConfNotify {
public:
    void OnUpdate() override {
        ++m_updates;
        m_maxCpu = CSingleton<COnlineClientConf>::GetInstance()->maxCpu.Get();
        if (m_onUpdate) m_onUpdate();
    }
    std::atomic<int> m_updates{0};
    std::atomic<long> m_maxCpu{-1};
    std::function<void()> m_onUpdate;
};

class OnlineConfigTest : public ::testing::Test {
protected:
    OnlineConfigTest() : m_path(m_dir / "conf/online_config.json") {
        mkdir((m_dir / "conf").c_str(), 0750);
        TakeLog();
    }
    void Load(unsigned int pollMs = 60000) {
        m_loader = std::make_unique<zelhost::COnlineConfigLoader>(m_conf, m_path, pollMs);
        ASSERT_TRUE(support::IsOk(m_loader->Start()));
    }
    bool Reload() { return m_loader->Reload().Ok(); }
    support::TempDir m_dir;
    std::string m_path;
    COnlineClientConf m_conf;
    std::unique_ptr<zelhost::COnlineConfigLoader> m_loader;
};

}  // namespace

TEST_F(OnlineConfigTest, AMissingFileLeavesDefaultsAndSaysNothing) {
    Load();
    EXPECT_EQ(m_conf.maxCpu.Get(), 10);
    EXPECT_EQ(m_conf.maxFdCount.Get(), 1024);
    EXPECT_EQ(m_conf.cpuLimitEnabled.Get(), 1);
    EXPECT_EQ(TakeLog(), Lines{});
}

TEST_F(OnlineConfigTest, AFileThatIsThereIsInForceWhenStartReturns) {
    WriteText(m_path, "{\"maxCpu\":33}");
    Load();
    EXPECT_EQ(m_conf.maxCpu.Get(), 33);
}

TEST_F(OnlineConfigTest, ChangeReachesValuesAndSubscribersUnpolled) {
    Load();
    Listener listener;
    m_conf.AddNotify(&listener);
    ReplaceText(m_path, "{\"maxCpu\":44}");
    ASSERT_TRUE(Eventually([&] { return listener.m_updates.load() == 1; }));
    EXPECT_EQ(listener.m_maxCpu.load(), 44);
    WriteText(m_path, "{\"maxCpu\":45}");  // written in place
    ASSERT_TRUE(Eventually([&] { return listener.m_maxCpu.load() == 45; }));
    m_conf.RemoveNotify(&listener);
}

TEST_F(OnlineConfigTest, ADirectoryThatAppearsLaterIsFoundByLooking) {
    rmdir((m_dir / "conf").c_str());
    Load(20);
    WriteText(m_path, "{\"maxCpu\":46}");
    EXPECT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 46; }));
}

TEST_F(OnlineConfigTest, ADirectoryThatIsMountedOverIsSeenAtOnce) {
    support::SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    const std::string directory = m_dir / "conf";
    WriteText(m_path, "{\"maxCpu\":46}");
    WriteText(disk / "online_config.json", "{\"maxCpu\":47}");
    Load();
    EXPECT_EQ(m_conf.maxCpu.Get(), 46);
    ASSERT_EQ(mount(disk.Path().c_str(), directory.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 47; }));
    ReplaceText(disk / "online_config.json", "{\"maxCpu\":48}");
    EXPECT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 48; })) << "what is mounted is watched";
    ASSERT_EQ(umount(directory.c_str()), 0) << "and not held";
    EXPECT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 46; }));
}

TEST_F(OnlineConfigTest, SleepsWhileTheKernelTellsOfChanges) {
    WriteText(m_path, "{\"maxCpu\":46}");
    Load(10);
    std::string problem;
    const std::shared_ptr<base::IoLoop> loop = zel::JoinProcessLoop(problem);
    ASSERT_NE(nullptr, loop);
    rusage before{};
    rusage after{};
    loop->Run([&] { getrusage(RUSAGE_THREAD, &before); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // thirty looks
    loop->Run([&] { getrusage(RUSAGE_THREAD, &after); });
    EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 5);
    EXPECT_EQ(0u, support::ThreadsNamed("OnlineConfig")) << "nothing was to be read";
    WriteText(m_path, "{\"maxCpu\":47}");
    EXPECT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 47; }));
}

TEST_F(OnlineConfigTest, SubscriberThatTakesLongHoldsUpNobody) {
    Load();
    Listener slow;
    support::Signal inside;
    support::Signal release;
    slow.m_onUpdate = [&] {
        inside.Set();
        EXPECT_TRUE(release.Wait());
    };
    m_conf.AddNotify(&slow);
    WriteText(m_path, "{\"maxCpu\":50}");
    ASSERT_TRUE(inside.Wait());
    std::string problem;
    const std::shared_ptr<base::IoLoop> loop = zel::JoinProcessLoop(problem);
    ASSERT_NE(nullptr, loop);
    bool ran = false;
    loop->Run([&] { ran = true; });
    EXPECT_TRUE(ran);
    WriteText(m_path, "{\"maxCpu\":51}");  // while it is entered
    release.Set();
    EXPECT_TRUE(Eventually([&] { return slow.m_maxCpu == 51; }));
    m_conf.RemoveNotify(&slow);
}

TEST_F(OnlineConfigTest, AWriterThatNeverRestsIsFollowed) {
    Load();
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int count = 0; !stop; ++count)
            ReplaceText(m_path, "{\"maxCpu\":" + std::to_string(100 + count % 50) + "}");
    });
    EXPECT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() >= 100; }));
    stop = true;
    writer.join();
}

TEST_F(OnlineConfigTest, RefusedFileChangesNothingAndIsToldOnce) {
    WriteText(m_path, "{\"maxCpu\":20,\"maxMemory\":300}");
    Load(20);
    Listener listener;
    m_conf.AddNotify(&listener);
    TakeLog();
    ReplaceText(m_path, "{\"maxCpu\":30,\"maxMemory\":-5}");
    const std::string line = "3 online configuration refused, the old values stay: " + m_path +
                             ": key 'maxMemory', value -5: outside 0..1048576 MB";
    ASSERT_TRUE(Eventually([&] { return LogHolds(line); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // ten looks at the same file
    EXPECT_EQ(TakeLog(), Lines{line});
    EXPECT_EQ(m_conf.maxCpu.Get(), 20);
    EXPECT_EQ(m_conf.maxMemory.Get(), 300);
    EXPECT_EQ(listener.m_updates.load(), 0);
    m_conf.RemoveNotify(&listener);
}

TEST_F(OnlineConfigTest, UnfitFilesAreRefused) {
    WriteText(m_path, "{\"maxCpu\":20}");
    Load();
    const auto refused = [&](const std::string& reason) {
        EXPECT_FALSE(Reload());
        EXPECT_TRUE(LogHolds(reason)) << reason;
        EXPECT_EQ(m_conf.maxCpu.Get(), 20);
    };
    WriteText(m_path, std::string(10 << 20, 'x'));
    refused("longer than 65536 bytes");
    WriteText(m_path, std::string("\x7f"
                                  "ELF\0\1\2",
                                  7));
    refused("holds a zero byte");
    ReplaceText(m_path, "{\"maxCpu\":21}");
    chmod(m_path.c_str(), 0666);
    refused("writable by everybody");
    unlink(m_path.c_str());
    WriteText(m_dir / "elsewhere", "{\"maxCpu\":21}");
    ASSERT_EQ(symlink((m_dir / "elsewhere").c_str(), m_path.c_str()), 0);
    refused("a symbolic link is not followed");
    unlink(m_path.c_str());
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    refused("not a regular file");
    unlink(m_path.c_str());
    ASSERT_EQ(mkdir(m_path.c_str(), 0700), 0);
    refused("not a regular file");
}

TEST_F(OnlineConfigTest, AForeignOrGroupWritableFileIsRefusedForRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: another user's file";
    WriteText(m_path, "{\"maxCpu\":20}");
    Load();
    ReplaceText(m_path, "{\"maxCpu\":21}");
    ASSERT_EQ(chown(m_path.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(Reload());
    EXPECT_TRUE(LogHolds("owned by user 65534"));
    ASSERT_EQ(chown(m_path.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(m_path.c_str(), 0660), 0);
    EXPECT_FALSE(Reload());
    EXPECT_TRUE(LogHolds("writable by its group"));
    EXPECT_EQ(m_conf.maxCpu.Get(), 20);
    ASSERT_EQ(chmod(m_path.c_str(), 0640), 0);
    EXPECT_TRUE(Reload());
    EXPECT_EQ(m_conf.maxCpu.Get(), 21);
}

TEST_F(OnlineConfigTest, AMendedDirectoryIsNoticedWithTheFileAsItWas) {
    WriteText(m_path, "{\"maxCpu\":21}");
    ASSERT_EQ(chmod((m_dir / "conf").c_str(), 0777), 0);
    Load(20);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // ten looks at the same place
    const Lines told = TakeLog();
    ASSERT_EQ(told.size(), 1u) << "told once";
    EXPECT_NE(told[0].find("online configuration refused"), std::string::npos) << told[0];
    EXPECT_EQ(m_conf.maxCpu.Get(), 10);
    ASSERT_EQ(chmod((m_dir / "conf").c_str(), 0750), 0);
    EXPECT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 21; }));
}

TEST_F(OnlineConfigTest, PublishedValuesSurviveAbsentKeys) {
    Load();
    m_conf.maxCpu.Set(15);  // as the module does after reading its own file
    m_conf.maxMemory.Set(250);
    WriteText(m_path, "{\"maxReadIo\":5}");
    ASSERT_TRUE(Eventually([&] { return m_conf.maxReadIo.Get() == 5; }));
    EXPECT_EQ(m_conf.maxCpu.Get(), 15);
    EXPECT_EQ(m_conf.maxMemory.Get(), 250);
}

TEST_F(OnlineConfigTest, KeyThatLeavesFileFallsBackToPublished) {
    Load();
    m_conf.maxCpu.Set(15);
    WriteText(m_path, "{\"maxCpu\":60,\"maxFdCount\":99}");
    ASSERT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 60; }));
    ReplaceText(m_path, "{\"maxFdCount\":99}");
    ASSERT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 15; }));
    EXPECT_EQ(m_conf.maxFdCount.Get(), 99);
    unlink(m_path.c_str());
    ASSERT_TRUE(Eventually([&] { return m_conf.maxFdCount.Get() == 1024; }));
    EXPECT_EQ(m_conf.maxCpu.Get(), 15);
}

TEST_F(OnlineConfigTest, FileWinsOverWhatAModulePublishesAtItsStart) {
    WriteText(m_path, "{\"maxCpu\":33}");
    Load();
    m_conf.maxCpu.Set(10);
    Listener listener;
    m_conf.AddNotify(&listener);
    ASSERT_TRUE(Eventually([&] { return listener.m_updates.load() == 1; }));
    EXPECT_EQ(listener.m_maxCpu.load(), 33);
    m_conf.RemoveNotify(&listener);
}

TEST_F(OnlineConfigTest, RemoveWaitsForANotificationThatIsUnderWay) {
    Load();
    Listener listener;
    std::atomic<bool> inside{false}, left{false};
    listener.m_onUpdate = [&] {
        inside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        left = true;
    };
    m_conf.AddNotify(&listener);
    WriteText(m_path, "{\"maxCpu\":50}");
    ASSERT_TRUE(Eventually([&] { return inside.load(); }));
    m_conf.RemoveNotify(&listener);
    EXPECT_TRUE(left.load());
}

TEST_F(OnlineConfigTest, SubscriberMayLeaveAndTakeOthersFromWithin) {
    Load();
    Listener first, second;
    first.m_onUpdate = [&] {
        m_conf.RemoveNotify(&first);
        m_conf.RemoveNotify(&second);
    };
    m_conf.AddNotify(&first);
    m_conf.AddNotify(&second);
    WriteText(m_path, "{\"maxCpu\":51}");
    ASSERT_TRUE(Eventually([&] { return m_conf.maxCpu.Get() == 51 && first.m_updates.load() == 1; }));
    EXPECT_TRUE(Reload());
    EXPECT_EQ(first.m_updates.load(), 1);
    EXPECT_EQ(second.m_updates.load(), 0);
}

TEST_F(OnlineConfigTest, AThrowingSubscriberHarmsNobody) {
    Load();
    Listener bad, good;
    bad.m_onUpdate = [] { throw std::runtime_error("broken subscriber"); };
    m_conf.AddNotify(&bad);
    m_conf.AddNotify(&good);
    WriteText(m_path, "{\"maxCpu\":52}");
    ASSERT_TRUE(Eventually([&] { return good.m_updates.load() == 1; }));
    EXPECT_TRUE(LogHolds("broken subscriber"));
    m_conf.RemoveNotify(&bad);
    m_conf.RemoveNotify(&good);
}

TEST_F(OnlineConfigTest, ReadersSeeOnlyWholeValuesWhileFileChanges) {
    Load();
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop.load()) {
            const long value = m_conf.maxCpu.Get();
            EXPECT_TRUE(value == 10 || (value >= 100 && value < 120)) << value;
        }
    });
    for (int i = 0; i < 20; ++i) {
        ReplaceText(m_path, "{\"maxCpu\":" + std::to_string(100 + i) + "}");
        EXPECT_TRUE(Reload());
        EXPECT_EQ(m_conf.maxCpu.Get(), 100 + i);
    }
    stop = true;
    reader.join();
}
