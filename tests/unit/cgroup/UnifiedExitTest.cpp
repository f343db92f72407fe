#include "UnifiedFixture.h"

namespace {
const std::string kIsFile = std::string("CFileUtil::IsFile(") + kComponentFile + ")";
const std::string kIsBackup = std::string("CFileUtil::IsFile(") + kBackupFile + ")";
const std::string kRemoveBackup = std::string("CFileUtil::RemoveFile(") + kBackupFile + ")";
const std::string kRename = std::string("CFileCom(") + kComponentFile + ")::rename(" + kBackupFile + ")";
const std::string kWriteDisabled = std::string("CCgroupManager::WriteDisabledConfig(") + kComponentFile + ")";
const std::string kMoveFailed = std::string("F3 [MonitorPri] MonitorPri: failed to move cgroup config [") +
                                kComponentFile + "], writing disabled config";
const std::string kBackupStays =
    std::string("F3 [MonitorPri] MonitorPri: failed to remove unified config backup [") + kBackupFile + "] after exit";
const std::string kPublishFailed = "W3 MonitorPri: failed to publish unified exit config";
const std::string kReload = "CCgroupClient::ReloadConfig()";
const std::string kResetOom = "CCgroupManager::ResetMemoryOomMonitor()";
const std::string kRemovePid = "CCgroupManager::RemovePidFromGroup(main,4242)";
const std::string kFallbackDone = "W4 MonitorPri: entered legacy fallback mode";
const std::string kFallbackFailed =
    "W3 MonitorPri: legacy fallback config publish failed, local legacy state reset for retry";
const std::string kSwitchedOff = "W4 MonitorPri: multi-cgroup mode disabled, publishing legacy exit";
const std::string kReconcileOff = "CCgroupManager::Reconcile(0,0,groups[a cpu=0 0.00 mem=0 0KB])";
}  // namespace

class UnifiedExitTest : public UnifiedFixture {
protected:
    void SetUp() override {
        UnifiedFixture::SetUp();
        HaveSelfKillQuota();
        HaveLegacyLimits();
        Remember(13, 9, 200);
        pri().m_unifiedActive = true;
        m_groups.resize(1);
        m_groups[0].name = "a";
    }
    /// The state that fallback and clean-up end in.
    void ExpectLegacyState() {
        EXPECT_FALSE(pri().m_unifiedActive);
        EXPECT_EQ("0 0 0", Remembered());
        EXPECT_TRUE(SelfKillQuotaCleared());
        EXPECT_TRUE(LegacyLimitsForgotten());
    }

    std::vector<zel::CgroupGroupConfig> m_groups;
};

TEST_F(UnifiedExitTest, PublishMovesFileAsideDeletesItAndTellsOthers) {
    HaveManager();
    HaveClient();
    HaveComponentFile();
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kIsBackup, kRename, kRemoveBackup, kBroadcast, kNotified, kReload}), journal());
    EXPECT_TRUE(platform().files.content.empty());
    EXPECT_EQ("13 9 200", Remembered());
    EXPECT_TRUE(pri().m_unifiedActive);
}

TEST_F(UnifiedExitTest, PublishWithoutAFileOnlyTellsTheOthers) {
    HaveManager();
    HaveClient();
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kBroadcast, kNotified, kReload}), journal());
    pri().m_cgroupClient = nullptr;
    pri().m_ipcBroadcastCallback = nullptr;
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, "W3 MonitorPri: no IPC broadcast callback, cannot send cgroup config notify"}),
              journal());
}

TEST_F(UnifiedExitTest, PublishIgnoresTheClientsAnswer) {
    HaveClient();
    platform().client.reload.Always(false);
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
}

TEST_F(UnifiedExitTest, PublishRemovesAStaleBackupFirst) {
    HaveComponentFile();
    platform().files.content[kBackupFile] = "left over";
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kIsBackup, kRemoveBackup, kRename, kRemoveBackup, kBroadcast, kNotified}), journal());
    EXPECT_TRUE(platform().files.content.empty());
}

TEST_F(UnifiedExitTest, StayingBackupSkipsMoveAndDisabledIsWritten) {
    HaveManager();
    HaveComponentFile();
    platform().files.content[kBackupFile] = "left over";
    platform().files.failRemove.insert(kBackupFile);
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kIsBackup, kRemoveBackup, kMoveFailed, kWriteDisabled, kBroadcast, kNotified}),
              journal());
    EXPECT_EQ("disabled config", platform().files.content[kComponentFile]);
}

TEST_F(UnifiedExitTest, BackupLeftAfterMoveStillCountsAsPublished) {
    HaveManager();
    HaveComponentFile();
    platform().files.failRemove.insert(kBackupFile);
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kIsBackup, kRename, kRemoveBackup, kBackupStays, kBroadcast, kNotified}), journal());
    EXPECT_FALSE(ComponentFileExists());
}

TEST_F(UnifiedExitTest, AFailedMoveWritesTheDisabledForm) {
    HaveManager();
    HaveClient();
    HaveComponentFile();
    platform().files.failRename.insert(kComponentFile);
    EXPECT_TRUE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kIsBackup, kRename, kMoveFailed, kWriteDisabled, kBroadcast, kNotified, kReload}),
              journal());
}

TEST_F(UnifiedExitTest, FailedMoveWithoutAManagerFailsAndTellsNobody) {
    HaveClient();
    HaveComponentFile();
    platform().files.failRename.insert(kComponentFile);
    EXPECT_FALSE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kIsBackup, kRename, kMoveFailed, kPublishFailed}), journal());
}

TEST_F(UnifiedExitTest, AFailedMoveAndAFailedDisabledFormFail) {
    HaveManager();
    HaveClient();
    HaveComponentFile();
    platform().files.failRename.insert(kComponentFile);
    platform().manager.writeDisabled.Always(false);
    EXPECT_FALSE(pri().PublishUnifiedExitConfig());
    EXPECT_EQ(Lines({kIsFile, kIsBackup, kRename, kMoveFailed, kWriteDisabled, kPublishFailed}), journal());
}

TEST_F(UnifiedExitTest, FallbackLeavesTheGroupPublishesAndForgets) {
    HaveManager();
    HaveClient();
    HaveComponentFile();
    platform().manager.removePid.Always(false);  // makes no difference
    EXPECT_TRUE(pri().EnterLegacyFallback(m_groups));
    EXPECT_EQ(Lines({kResetOom, kRemovePid, kIsFile, kIsBackup, kRename, kRemoveBackup, kBroadcast, kNotified, kReload,
                     kFallbackDone}),
              journal());
    ExpectLegacyState();
    EXPECT_NE(nullptr, static_cast<zel::CCgroupManager*>(pri().m_cgroupManager));
}

TEST_F(UnifiedExitTest, FallbackForgetsAlsoWhenPublishingFails) {
    HaveManager();
    HaveComponentFile();
    platform().files.failRename.insert(kComponentFile);
    platform().manager.writeDisabled.Always(false);
    EXPECT_FALSE(pri().EnterLegacyFallback(m_groups));
    EXPECT_EQ(Lines({kResetOom, kRemovePid, kIsFile, kIsBackup, kRename, kMoveFailed, kWriteDisabled, kPublishFailed,
                     kFallbackFailed}),
              journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, FallbackWithoutAManagerOnlyPublishes) {
    EXPECT_TRUE(pri().EnterLegacyFallback({}));
    EXPECT_EQ(Lines({kIsFile, kBroadcast, kNotified, kFallbackDone}), journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, CleanupUndoesNothingWhereNothingWasEntered) {
    HaveManager();
    HaveClient();
    pri().m_unifiedActive = false;
    EXPECT_TRUE(pri().CleanupUnifiedConfigForLegacy());
    EXPECT_EQ(Lines({kIsFile}), journal());
    EXPECT_TRUE(SelfKillQuotaCleared());
    EXPECT_EQ("13 9 200", Remembered());
    EXPECT_FALSE(LegacyLimitsForgotten());
}

TEST_F(UnifiedExitTest, CleanupOfTheActiveModePublishesTheExit) {
    HaveManager();
    HaveClient();
    HaveComponentFile();
    EXPECT_TRUE(pri().CleanupUnifiedConfigForLegacy());
    EXPECT_EQ(Lines({kSwitchedOff, kResetOom, kRemovePid, kIsFile, kIsBackup, kRename, kRemoveBackup, kBroadcast,
                     kNotified, kReload}),
              journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, CleanupOfActiveWithoutFileStillTellsOthers) {
    HaveManager();
    HaveClient();
    EXPECT_TRUE(pri().CleanupUnifiedConfigForLegacy());
    EXPECT_EQ(Lines({kSwitchedOff, kResetOom, kRemovePid, kIsFile, kBroadcast, kNotified, kReload}), journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, CleanupOfActiveWithoutManagerOnlyForgets) {
    HaveClient();
    EXPECT_TRUE(pri().CleanupUnifiedConfigForLegacy());
    EXPECT_EQ(Lines({kIsFile, kBroadcast, kNotified, kReload}), journal());
    ExpectLegacyState();
    EXPECT_EQ(0, platform().manager.constructed);
}

TEST_F(UnifiedExitTest, FallbackAndCleanupStillLookUnifiedAtTelling) {
    HaveManager();
    WatchBroadcasts();
    EXPECT_TRUE(pri().EnterLegacyFallback(m_groups));
    ExpectLegacyState();

    pri().m_unifiedActive = true;
    Remember(13, 9, 200);
    HaveLegacyLimits();
    EXPECT_TRUE(pri().CleanupUnifiedConfigForLegacy());
    ExpectLegacyState();
    const std::string unified = "active=1 last=13 9 200 legacy=kept";
    EXPECT_EQ(Lines({unified, unified}), m_broadcasts);
}

TEST_F(UnifiedExitTest, DisabledHoldsWhenTheOthersAreTold) {
    HaveManager();
    pri().m_unifiedActive = false;
    WatchBroadcasts();
    EXPECT_TRUE(pri().EnterUnifiedDisabled(m_groups));
    EXPECT_EQ(Lines({"active=1 last=13 9 200 legacy=forgotten"}), m_broadcasts);
}

TEST_F(UnifiedExitTest, QuotaIsClearedBeforeTheGroupIsLeft) {
    for (const bool fallback : {true, false}) {
        if (pri().m_cgroupManager == nullptr) HaveManager();
        HaveSelfKillQuota();
        int looks = 0;
        platform().keepInJournal = [&](const std::string& line) {
            if (line == (fallback ? kResetOom : kReconcileOff)) {
                ++looks;
                EXPECT_TRUE(SelfKillQuotaCleared()) << line;
            }
            return true;
        };
        if (fallback) {
            pri().EnterLegacyFallback(m_groups);
        } else {
            pri().EnterUnifiedDisabled(m_groups);
        }
        platform().keepInJournal = nullptr;
        EXPECT_EQ(1, looks) << fallback;
    }
}

TEST_F(UnifiedExitTest, DisabledIsActiveOnceTheLegacyLimitsAreOff) {
    HaveManager();
    pri().m_unifiedActive = false;
    std::string seen;
    platform().keepInJournal = [&](const std::string& line) {
        if (line.find("StopCpuLimit") != std::string::npos || line == kBroadcast) {
            seen += pri().m_unifiedActive ? "active " : "not yet ";
        }
        return true;
    };
    EXPECT_TRUE(pri().EnterUnifiedDisabled(m_groups));
    platform().keepInJournal = nullptr;
    EXPECT_EQ("not yet active ", seen);
}

TEST_F(UnifiedExitTest, DisabledTakesPlaceOfItsFileAfterTheReconcile) {
    HaveManager();
    platform().keepInJournal = [this](const std::string& line) {
        if (line == kReconcileOff) platform().globalCfgDir = "/moved";
        return true;
    };
    EXPECT_TRUE(pri().EnterUnifiedDisabled(m_groups));
    EXPECT_EQ(1U, platform().files.content.count("/moved/cgroup_resource.json"));
    EXPECT_FALSE(ComponentFileExists());
}

TEST_F(UnifiedExitTest, CleanupPublishesEarlierRunsFileAwaySilently) {
    HaveComponentFile();
    pri().m_unifiedActive = false;
    EXPECT_TRUE(pri().CleanupUnifiedConfigForLegacy());
    EXPECT_EQ(Lines({kIsFile, kIsFile, kIsBackup, kRename, kRemoveBackup, kBroadcast, kNotified}), journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, CleanupForgetsAlsoWhenPublishingFails) {
    HaveManager();
    HaveComponentFile();
    platform().files.failRename.insert(kComponentFile);
    platform().manager.writeDisabled.Always(false);
    EXPECT_FALSE(pri().CleanupUnifiedConfigForLegacy());
    EXPECT_EQ(Lines({kSwitchedOff, kResetOom, kRemovePid, kIsFile, kIsBackup, kRename, kMoveFailed, kWriteDisabled,
                     kPublishFailed}),
              journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, DisabledSwitchesControllersAndLegacyOff) {
    HaveManager();
    HaveClient();
    pri().m_unifiedActive = false;
    platform().limit.stopCpu.Always({1, 2});
    EXPECT_TRUE(pri().EnterUnifiedDisabled(m_groups));
    EXPECT_EQ(
        Lines({kReconcileOff, kWriteDisabled, "GetResourceLimitUtil()", "IResourceLimitUtil::StopCpuLimit(error=0)",
               "F3 [MonitorPri] MonitorPri: uninstall legacy cpu cgroup failed ret[1] err[2], "
               "reason[multi-cgroup unified disabled]",
               "IResourceLimitUtil::StopMemLimit(error=0,1)", "IResourceLimitUtil::ReleaseLimits()", kBroadcast,
               kNotified}),
        journal());
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_TRUE(SelfKillQuotaCleared());
    EXPECT_TRUE(LegacyLimitsForgotten());
    EXPECT_EQ("13 9 200", Remembered());
}

TEST_F(UnifiedExitTest, DisabledFallsBackWhenControllersStayOn) {
    HaveManager();
    HaveComponentFile();
    platform().manager.reconcileGroupsOnly.Always(false);
    EXPECT_FALSE(pri().EnterUnifiedDisabled(m_groups));
    EXPECT_EQ(
        Lines({kReconcileOff,
               "W3 MonitorPri: Reconcile(false,false) failed in EnterUnifiedDisabled, fallback to legacy", kResetOom,
               kRemovePid, kIsFile, kIsBackup, kRename, kRemoveBackup, kBroadcast, kNotified, kFallbackDone}),
        journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, DisabledFallsBackWhenItsFileCannotBeWritten) {
    HaveManager();
    platform().manager.writeDisabled.Always(false);
    EXPECT_FALSE(pri().EnterUnifiedDisabled(m_groups));
    EXPECT_EQ(Lines({kReconcileOff, kWriteDisabled, "W3 MonitorPri: WriteDisabledConfig failed, fallback to legacy",
                     kResetOom, kRemovePid, kIsFile, kBroadcast, kNotified, kFallbackDone}),
              journal());
    ExpectLegacyState();
}

TEST_F(UnifiedExitTest, DisabledWithoutAManagerFallsBack) {
    EXPECT_FALSE(pri().EnterUnifiedDisabled(m_groups));
    EXPECT_EQ(Lines({"W3 MonitorPri: WriteDisabledConfig failed, fallback to legacy", kIsFile, kBroadcast, kNotified,
                     kFallbackDone}),
              journal());
    ExpectLegacyState();
}
