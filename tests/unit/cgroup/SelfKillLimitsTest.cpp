#include "cgroup/SelfKillConversion.h"

#include <climits>

#include "UnifiedFixture.h"

class SelfKillLimitsTest : public UnifiedFixture {
protected:
    void BeComponent() { pri().m_isMainAgent = false; }

    /// "cpu mem" of one resolution.
    std::string Resolve(long cfgCpu, int cfgMem) {
        int cpu = -1;
        int mem = -1;
        pri().ResolveSelfKillLimits(cfgCpu, cfgMem, cpu, mem);
        return doubles::Format("%d %d", cpu, mem);
    }

    std::vector<zel::CgroupComponentQuota> m_quotas = {{"QorHips", "collect-defense", "collect-defense", 270, 20480},
                                                       {"Tervane", "main", "main", 36, 15360},
                                                       {"Tervane", "main", "main", 99, 99999}};
};

TEST(SelfKillConversionTest, ClampsBelowOneToZeroAndAboveIntMax) {
    EXPECT_EQ(0, ClampSelfKillValue(LONG_MIN));
    EXPECT_EQ(0, ClampSelfKillValue(-1));
    EXPECT_EQ(0, ClampSelfKillValue(0));
    EXPECT_EQ(1, ClampSelfKillValue(1));
    EXPECT_EQ(INT_MAX, ClampSelfKillValue(INT_MAX));
    EXPECT_EQ(INT_MAX, ClampSelfKillValue(2147483648L));
    EXPECT_EQ(INT_MAX, ClampSelfKillValue(LONG_MAX));
}

TEST(SelfKillConversionTest, RoundsCpuQuotasUpToWholePercent) {
    const std::pair<int, int> cases[] = {{INT_MIN, 0}, {-1, 0},  {0, 0},   {1, 1},   {99, 1},
                                         {100, 1},     {101, 2}, {150, 2}, {200, 2}, {2147483548, 21474836}};
    for (const auto& c : cases) EXPECT_EQ(c.second, CpuQuotaToPercent(c.first)) << c.first;
}

TEST(SelfKillConversionTest, GivesNoLimitWhenCpuQuotaLeaves32Bits) {
    EXPECT_LT(CpuQuotaToPercent(2147483549), 1);
    EXPECT_LT(CpuQuotaToPercent(INT_MAX), 1);
}

TEST(SelfKillConversionTest, RoundsMemoryQuotasUpToWholeMb) {
    const std::pair<int, int> cases[] = {{INT_MIN, 0}, {-1, 0},   {0, 0},    {1, 1},
                                         {1024, 1},    {1025, 2}, {2048, 2}, {INT_MAX, 2097152}};
    for (const auto& c : cases) EXPECT_EQ(c.second, MemQuotaToMb(c.first)) << c.first;
}

TEST_F(SelfKillLimitsTest, SettingClientLogsItsAddressEvenWhenNull) {
    pri().SetCgroupClient(&m_client);
    EXPECT_EQ(&m_client, pri().m_cgroupClient);
    pri().SetCgroupClient(nullptr);
    EXPECT_EQ(nullptr, pri().m_cgroupClient);
    EXPECT_EQ(
        Lines({doubles::Format("F4 [MonitorPri] MonitorPri: cgroup client set to %p", static_cast<void*>(&m_client)),
               "F4 [MonitorPri] MonitorPri: cgroup client set to (nil)"}),
        journal());
}

TEST_F(SelfKillLimitsTest, ClientIsSetWhenItIsLogged) {
    platform().keepInJournal = [&](const std::string&) {
        EXPECT_EQ(&m_client, pri().m_cgroupClient);
        return true;
    };
    pri().SetCgroupClient(&m_client);
    platform().keepInJournal = nullptr;
    EXPECT_EQ(1u, journal().size());
}

TEST_F(SelfKillLimitsTest, NotifyCallsTheCallbackBeforeItLogs) {
    pri().SetIpcBroadcastCallback(RecordBroadcast);
    pri().NotifyCgroupConfigChanged();
    EXPECT_EQ(Lines({kBroadcast, kNotified}), journal());
}

TEST_F(SelfKillLimitsTest, NotifyWithoutACallbackOnlyWarns) {
    pri().SetIpcBroadcastCallback(nullptr);
    pri().NotifyCgroupConfigChanged();
    EXPECT_EQ(Lines({"W3 MonitorPri: no IPC broadcast callback, cannot send cgroup config notify"}), journal());
}

TEST_F(SelfKillLimitsTest, ClearForgetsBothQuotas) {
    HaveSelfKillQuota();
    pri().ClearUnifiedSelfKillQuota();
    EXPECT_TRUE(SelfKillQuotaCleared());
    EXPECT_EQ(Lines(), journal());
}

TEST_F(SelfKillLimitsTest, TakesTheFirstTervaneQuotaAndPushesNothing) {
    pri().UpdateUnifiedSelfKillQuota(m_quotas, true, true);
    EXPECT_TRUE(pri().m_unifiedCpuQuotaActive);
    EXPECT_TRUE(pri().m_unifiedMemQuotaActive);
    EXPECT_EQ(36, pri().m_unifiedCpuQuota100Times);
    EXPECT_EQ(15360, pri().m_unifiedMemQuotaKB);
    EXPECT_EQ(Lines({"F4 [MonitorPri] MonitorPri: unified self-kill quota cpuActive=1 cpuQ=36 memActive=1 memQ=15360"}),
              journal());
}

TEST_F(SelfKillLimitsTest, QuotaNeedsItsControllerAndAPositiveValue) {
    struct {
        int cpu, mem;
        bool cpuEnabled, memEnabled;
        const char* summary;
    } const cases[] = {
        {36, 15360, true, false, "cpuActive=1 cpuQ=36 memActive=0 memQ=0"},
        {36, 15360, false, true, "cpuActive=0 cpuQ=0 memActive=1 memQ=15360"},
        {36, 15360, false, false, "cpuActive=0 cpuQ=0 memActive=0 memQ=0"},
        {0, 0, true, true, "cpuActive=0 cpuQ=0 memActive=0 memQ=0"},
        {-5, -5, true, true, "cpuActive=0 cpuQ=0 memActive=0 memQ=0"},
        {1, 1, true, true, "cpuActive=1 cpuQ=1 memActive=1 memQ=1"},
    };
    for (const auto& c : cases) {
        HaveSelfKillQuota();
        pri().UpdateUnifiedSelfKillQuota({{"Tervane", "main", "main", c.cpu, c.mem}}, c.cpuEnabled, c.memEnabled);
        EXPECT_EQ(Lines({std::string("F4 [MonitorPri] MonitorPri: unified self-kill quota ") + c.summary}), journal());
    }
}

TEST_F(SelfKillLimitsTest, WithoutTervaneQuotaOldIsClearedAndWarned) {
    const char* warning =
        "W3 MonitorPri: Tervane quota not found in multi-cgroup config, self-kill keeps config limits";
    HaveSelfKillQuota();
    // The component's name is exact: the main process's application name is not it.
    pri().UpdateUnifiedSelfKillQuota({{"tervane", "main", "main", 36, 15360}, {"TervaneUpdate", "g", "g", 1, 1}}, true,
                                     true);
    EXPECT_TRUE(SelfKillQuotaCleared());
    pri().UpdateUnifiedSelfKillQuota({}, true, true);
    EXPECT_EQ(Lines({warning, warning}), journal());
}

TEST_F(SelfKillLimitsTest, ConfiguredMaximaAreClampedWithoutQuota) {
    EXPECT_EQ("0 0", Resolve(0, 0));
    EXPECT_EQ("0 0", Resolve(-7, -7));
    EXPECT_EQ("10 200", Resolve(10, 200));
    EXPECT_EQ("2147483647 200", Resolve(LONG_MAX, 200));
    EXPECT_EQ(Lines(), journal());
}

TEST_F(SelfKillLimitsTest, MainTakesItsQuotaLargerOrSmaller) {
    pri().m_unifiedCpuQuotaActive = true;
    pri().m_unifiedCpuQuota100Times = 150;
    pri().m_unifiedMemQuotaActive = true;
    pri().m_unifiedMemQuotaKB = 1025;
    EXPECT_EQ("2 2", Resolve(10, 200));
    EXPECT_EQ("2 2", Resolve(-3, 1));
    EXPECT_EQ(Lines({"F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=10 mem=200) effective(cpu=2 mem=2) "
                     "unified(cpu=1 mem=1)",
                     "F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=-3 mem=1) effective(cpu=2 mem=2) "
                     "unified(cpu=1 mem=1)"}),
              journal());
}

TEST_F(SelfKillLimitsTest, OneQuotaLeavesOtherMaximumAsConfigured) {
    pri().m_unifiedCpuQuotaActive = true;
    pri().m_unifiedCpuQuota100Times = 1;
    EXPECT_EQ("1 200", Resolve(10, 200));
    pri().ClearUnifiedSelfKillQuota();
    pri().m_unifiedMemQuotaActive = true;
    pri().m_unifiedMemQuotaKB = 1;
    EXPECT_EQ("10 1", Resolve(10, 200));
    EXPECT_EQ(Lines({"F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=10 mem=200) effective(cpu=1 mem=200) "
                     "unified(cpu=1 mem=0)",
                     "F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=10 mem=200) effective(cpu=10 mem=1) "
                     "unified(cpu=0 mem=1)"}),
              journal());
}

TEST_F(SelfKillLimitsTest, QuotaOfNothingKeepsConfiguredMaximum) {
    pri().m_unifiedCpuQuotaActive = true;
    pri().m_unifiedMemQuotaActive = true;
    EXPECT_EQ("10 200", Resolve(10, 200));
    pri().m_unifiedCpuQuota100Times = INT_MAX;
    EXPECT_EQ("10 200", Resolve(10, 200));
    EXPECT_EQ(Lines(), journal());
}

TEST_F(SelfKillLimitsTest, MainProcessNeverAsksAClient) {
    HaveClient();
    platform().client.cpuJoined.Always(true);
    platform().client.cpuQuota.Always(500);
    EXPECT_EQ("10 200", Resolve(10, 200));
    EXPECT_FALSE(pri().IsCgroupClientCpuJoined());
    EXPECT_FALSE(pri().IsCgroupClientMemJoined());
    EXPECT_EQ(Lines(), journal());
}

TEST_F(SelfKillLimitsTest, OthersTakeClientsQuotaNeverTheMains) {
    BeComponent();
    HaveSelfKillQuota();
    EXPECT_EQ("10 200", Resolve(10, 200));
    EXPECT_EQ(Lines(), journal());

    HaveClient();
    platform().client.cpuJoined.Always(true);
    platform().client.memJoined.Always(true);
    platform().client.cpuQuota.Always(324);
    platform().client.memQuota.Always(40960);
    EXPECT_EQ("4 40", Resolve(10, 200));
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuQuota100Times()",
                     "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemQuotaKB()",
                     "F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=10 mem=200) effective(cpu=4 mem=40) "
                     "unified(cpu=1 mem=1)"}),
              journal());
}

TEST_F(SelfKillLimitsTest, ClientOutsideGroupsIsNotAskedForItsQuota) {
    BeComponent();
    HaveClient();
    EXPECT_EQ("10 200", Resolve(10, 200));
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()"}), journal());
}

TEST_F(SelfKillLimitsTest, JoinedWithoutQuotaKeepsConfiguredMaximum) {
    BeComponent();
    HaveClient();
    platform().client.cpuJoined.Always(true);
    platform().client.memJoined.Always(true);
    EXPECT_EQ("10 200", Resolve(10, 200));
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuQuota100Times()",
                     "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemQuotaKB()"}),
              journal());
}

TEST_F(SelfKillLimitsTest, ApplyingRemembersConfigAndWritesResolved) {
    pri().m_unifiedCpuQuotaActive = true;
    pri().m_unifiedCpuQuota100Times = 150;
    ResourceConfig config;
    config.maxCpu = 10;
    config.maxMemory = -20;
    pri().ApplySelfKillLimitsFromConfig(config);
    EXPECT_EQ(2, config.maxCpu);
    EXPECT_EQ(0, config.maxMemory);
    EXPECT_EQ(10, pri().m_effectiveMaxCpu);
    EXPECT_EQ(-20, pri().m_effectiveMaxMem);
    EXPECT_EQ(Lines({"F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=10 mem=-20) effective(cpu=2 mem=0) "
                     "unified(cpu=1 mem=0)"}),
              journal());
}

TEST_F(SelfKillLimitsTest, ApplyingLastConfigSetsBothOfSampling) {
    pri().m_effectiveMaxCpu = 10;
    pri().m_effectiveMaxMem = 200;
    pri().ApplySelfKillLimitsFromLastConfig();
    EXPECT_EQ(Lines({"CResourceMonitor::SetMaxCpu(10)", "CResourceMonitor::SetMaxMem(200)"}), journal());
}

TEST_F(SelfKillLimitsTest, ApplyingLastConfigWantsAtLeastOneMaximum) {
    pri().m_effectiveMaxCpu = 0;
    pri().m_effectiveMaxMem = -1;
    HaveSelfKillQuota();
    pri().ApplySelfKillLimitsFromLastConfig();
    EXPECT_EQ(Lines(), journal());

    pri().ClearUnifiedSelfKillQuota();
    pri().m_effectiveMaxCpu = 1;
    pri().ApplySelfKillLimitsFromLastConfig();
    pri().m_effectiveMaxCpu = -4;
    pri().m_effectiveMaxMem = 1;
    pri().ApplySelfKillLimitsFromLastConfig();
    EXPECT_EQ(Lines({"CResourceMonitor::SetMaxCpu(1)", "CResourceMonitor::SetMaxMem(0)",
                     "CResourceMonitor::SetMaxCpu(0)", "CResourceMonitor::SetMaxMem(1)"}),
              journal());
}

TEST_F(SelfKillLimitsTest, ReloadWithoutAClientWarnsAndFails) {
    EXPECT_FALSE(pri().ReloadCgroupClientConfig());
    EXPECT_EQ(Lines({"W3 MonitorPri: no cgroup client, cannot reload cgroup config"}), journal());
}

TEST_F(SelfKillLimitsTest, ReloadDetachesLegacyAndAppliesNewQuota) {
    BeComponent();
    HaveClient();
    HaveLegacyLimits();
    pri().m_effectiveMaxCpu = 10;
    pri().m_effectiveMaxMem = 200;
    platform().client.cpuJoined.Always(true);
    platform().client.memJoined.Always(true);
    platform().client.cpuQuota.Always(324);
    platform().client.memQuota.Always(40960);
    platform().client.cpuPath.Always("/sys/fs/cgroup/cpu/zel");
    platform().client.memPath.Always("/sys/fs/cgroup/memory/zel");
    EXPECT_TRUE(pri().ReloadCgroupClientConfig());
    EXPECT_TRUE(LegacyLimitsForgotten());
    EXPECT_EQ(Lines({"CCgroupClient::ReloadConfig()", "CCgroupClient::IsMemJoined()", "CCgroupClient::IsCpuJoined()",
                     "CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()",
                     "access(/sys/fs/cgroup/cpu/zel/cgroup.controllers)", "CCgroupClient::IsMemJoined()",
                     "CCgroupClient::GetMemCgroupPath()", "access(/sys/fs/cgroup/memory/zel/cgroup.controllers)",
                     "ClearResourceLimitCpuCgroupState()", "ClearResourceLimitMemCgroupState()",
                     "CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuQuota100Times()",
                     "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemQuotaKB()",
                     "F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=10 mem=200) effective(cpu=4 mem=40) "
                     "unified(cpu=1 mem=1)",
                     "CResourceMonitor::SetMaxCpu(4)", "CResourceMonitor::SetMaxMem(40)"}),
              journal());
}

TEST_F(SelfKillLimitsTest, FailedReloadDetachesAndAppliesOldQuota) {
    BeComponent();
    HaveClient();
    pri().m_effectiveMaxCpu = 10;
    platform().client.reload.Always(false);
    platform().client.memJoined.Always(true);  // memory alone: the flags must not be exchanged
    EXPECT_FALSE(pri().ReloadCgroupClientConfig());
    EXPECT_EQ(
        Lines({"CCgroupClient::ReloadConfig()", "CCgroupClient::IsMemJoined()", "CCgroupClient::IsCpuJoined()",
               "CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemCgroupPath()",
               "ClearResourceLimitMemCgroupState()", "CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()",
               "CCgroupClient::GetMemQuotaKB()", "CResourceMonitor::SetMaxCpu(10)", "CResourceMonitor::SetMaxMem(0)"}),
        journal());
}

TEST_F(SelfKillLimitsTest, ReloadInMainUsesClientsMembershipOwnQuota) {
    HaveClient();
    HaveSelfKillQuota();
    pri().m_effectiveMaxCpu = 10;
    pri().m_effectiveMaxMem = 200;
    platform().client.cpuJoined.Always(true);
    EXPECT_TRUE(pri().ReloadCgroupClientConfig());
    EXPECT_EQ(Lines({"CCgroupClient::ReloadConfig()", "CCgroupClient::IsMemJoined()", "CCgroupClient::IsCpuJoined()",
                     "ClearResourceLimitCpuCgroupState()",
                     "F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=10 mem=200) effective(cpu=1 mem=15) "
                     "unified(cpu=1 mem=1)",
                     "CResourceMonitor::SetMaxCpu(1)", "CResourceMonitor::SetMaxMem(15)"}),
              journal());
}

TEST_F(SelfKillLimitsTest, MembershipOfOtherProcessesIsClientsAnswer) {
    BeComponent();
    EXPECT_FALSE(pri().IsCgroupClientCpuJoined());
    EXPECT_FALSE(pri().IsCgroupClientMemJoined());
    EXPECT_EQ(Lines(), journal());
    HaveClient();
    platform().client.cpuJoined.Always(true);
    EXPECT_TRUE(pri().IsCgroupClientCpuJoined());
    EXPECT_FALSE(pri().IsCgroupClientMemJoined());
    platform().client.memJoined.Always(true);
    EXPECT_TRUE(pri().IsCgroupClientMemJoined());
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()", "CCgroupClient::IsMemJoined()"}),
              journal());
}

TEST_F(SelfKillLimitsTest, PathIsVersionTwoWhenItHasControllersFile) {
    platform().files.existing.insert("/sys/fs/cgroup/zel/cgroup.controllers");
    EXPECT_FALSE(pri().IsCgroupPathV2(""));
    EXPECT_EQ(Lines(), journal());
    EXPECT_TRUE(pri().IsCgroupPathV2("/sys/fs/cgroup/zel"));
    EXPECT_FALSE(pri().IsCgroupPathV2("/sys/fs/cgroup/cpu/zel"));
    EXPECT_EQ(
        Lines({"access(/sys/fs/cgroup/zel/cgroup.controllers)", "access(/sys/fs/cgroup/cpu/zel/cgroup.controllers)"}),
        journal());
}

TEST_F(SelfKillLimitsTest, MainIsVersionTwoWhenEnabledControllerIs) {
    struct {
        bool cpuEnabled, cpuV2, memEnabled, memV2;
        bool expected;
        Lines asked;
    } const cases[] = {
        {true, true, true, true, true, {"IsCpuCgroupEnabled", "IsCpuV2"}},
        {true, false, true, true, true, {"IsCpuCgroupEnabled", "IsCpuV2", "IsMemCgroupEnabled", "IsMemV2"}},
        {false, true, true, true, true, {"IsCpuCgroupEnabled", "IsMemCgroupEnabled", "IsMemV2"}},
        {false, true, false, true, false, {"IsCpuCgroupEnabled", "IsMemCgroupEnabled"}},
        {true, false, true, false, false, {"IsCpuCgroupEnabled", "IsCpuV2", "IsMemCgroupEnabled", "IsMemV2"}},
        {true, false, false, true, false, {"IsCpuCgroupEnabled", "IsCpuV2", "IsMemCgroupEnabled"}},
    };
    HaveManager();
    pri().m_unifiedActive = true;
    for (const auto& c : cases) {
        platform().manager.cpuEnabled.Always(c.cpuEnabled);
        platform().manager.cpuV2.Always(c.cpuV2);
        platform().manager.memEnabled.Always(c.memEnabled);
        platform().manager.memV2.Always(c.memV2);
        EXPECT_EQ(c.expected, pri().IsUnifiedV2RuntimeActive());
        Lines asked;
        for (const std::string& name : c.asked) asked.push_back("CCgroupManager::" + name + "()");
        EXPECT_EQ(asked, journal());
    }
}

TEST_F(SelfKillLimitsTest, MainIsNotVersionTwoOutsideUnifiedMode) {
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    HaveClient();
    platform().client.cpuJoined.Always(true);
    platform().client.cpuPath.Always("/sys/fs/cgroup/zel");
    platform().files.existing.insert("/sys/fs/cgroup/zel/cgroup.controllers");
    pri().m_unifiedActive = true;
    EXPECT_FALSE(pri().IsUnifiedV2RuntimeActive());
    HaveManager();
    pri().m_unifiedActive = false;
    EXPECT_FALSE(pri().IsUnifiedV2RuntimeActive());
    EXPECT_EQ(Lines(), journal());
}

TEST_F(SelfKillLimitsTest, OthersAreVersionTwoWhenJoinedGroupIs) {
    BeComponent();
    HaveManager();
    pri().m_unifiedActive = true;
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    EXPECT_FALSE(pri().IsUnifiedV2RuntimeActive());
    EXPECT_EQ(Lines(), journal());

    HaveClient();
    platform().client.cpuPath.Always("/v1");
    platform().client.memPath.Always("/v2");
    platform().files.existing.insert("/v2/cgroup.controllers");
    EXPECT_FALSE(pri().IsUnifiedV2RuntimeActive());
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()"}), journal());
    platform().client.cpuJoined.Always(true);
    platform().client.memJoined.Always(true);
    EXPECT_TRUE(pri().IsUnifiedV2RuntimeActive());
    EXPECT_EQ(
        Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()", "access(/v1/cgroup.controllers)",
               "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemCgroupPath()", "access(/v2/cgroup.controllers)"}),
        journal());
    platform().client.cpuPath.Always("/v2");
    EXPECT_TRUE(pri().IsUnifiedV2RuntimeActive());
    EXPECT_EQ(
        Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()", "access(/v2/cgroup.controllers)"}),
        journal());
}

TEST_F(SelfKillLimitsTest, DetachOnVersionOneTouchesWhatIsInUse) {
    HaveLegacyLimits();
    pri().DetachLegacyRuntimeForUnifiedActive(false, false);
    EXPECT_EQ(Lines(), journal());
    pri().DetachLegacyRuntimeForUnifiedActive(true, false);
    EXPECT_FALSE(pri().m_legacyCpuEnabled);
    EXPECT_TRUE(pri().m_legacyMemEnabled);
    pri().DetachLegacyRuntimeForUnifiedActive(false, true);
    EXPECT_TRUE(LegacyLimitsForgotten());
    EXPECT_EQ(Lines({"ClearResourceLimitCpuCgroupState()", "ClearResourceLimitMemCgroupState()"}), journal());
}

TEST_F(SelfKillLimitsTest, DetachOnVersionTwoDropsLegacyFirst) {
    HaveManager();
    HaveLegacyLimits();
    pri().m_unifiedActive = true;
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    platform().limit.cpuV2Runtime.Always(true);
    platform().limit.memV2Runtime.Always(true);
    pri().DetachLegacyRuntimeForUnifiedActive(true, false);
    EXPECT_TRUE(LegacyLimitsForgotten());
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
                     "IsResourceLimitMemCgroupV2Runtime()", "ClearResourceLimitMemCgroupState()",
                     "ClearResourceLimitCpuCgroupState()"}),
              journal());
}
