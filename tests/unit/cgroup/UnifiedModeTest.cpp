#include "cgroup/EffectiveCpu.h"

#include <algorithm>
#include <climits>

#include "UnifiedFixture.h"

namespace {
const std::string kIsFile = std::string("CFileUtil::IsFile(") + kComponentFile + ")";
const std::string kWriteDisabled = std::string("CCgroupManager::WriteDisabledConfig(") + kComponentFile + ")";
const std::string kSolaris = "CResourceMonitor::IsCpuSolarisMode()";
const std::string kIsCpuOn = "CCgroupManager::IsCpuCgroupEnabled()";
const std::string kIsMemOn = "CCgroupManager::IsMemCgroupEnabled()";
const std::string kIsCpuV2 = "CCgroupManager::IsCpuV2()";
const std::string kIsMemV2 = "CCgroupManager::IsMemV2()";
const std::string kAddPid = "CCgroupManager::AddPidToGroup(main,4242)";
const std::string kClearCpu = "ClearResourceLimitCpuCgroupState()";
const std::string kClearMem = "ClearResourceLimitMemCgroupState()";
const std::string kSnapshot = "CCgroupManager::SnapshotSelfMemoryOomCounters()";
const std::string kResetOom = "CCgroupManager::ResetMemoryOomMonitor()";
const std::string kRemovePid = "CCgroupManager::RemovePidFromGroup(main,4242)";
const std::string kInitialized = "W4 MonitorPri: multi-cgroup initialized";
const std::string kInitializedDisabled = "W4 MonitorPri: multi-cgroup initialized (unified disabled)";
const std::string kFallbackDone = "W4 MonitorPri: entered legacy fallback mode";
const std::string kWriteFailed = "W3 MonitorPri: write cgroup config failed during update, restoring previous state";
const std::string kRestored = "W4 MonitorPri: restored previous cgroup state, keeping old config";
const std::string kRestoreFailed = "W3 MonitorPri: restore previous state failed, fallback to legacy";
const std::string kPartial = "W3 MonitorPri: reconcile partial failure, config written but last state not updated";
const std::string kAllFailedUpdate =
    "W3 MonitorPri: active desired but reconcile all failed during update, fallback to legacy";

/// What fallback does when no component file stands there.
const Lines kFallback = {kResetOom, kRemovePid, kIsFile, kBroadcast, kNotified, kFallbackDone};
const Lines kDisable = {"GetResourceLimitUtil()", "IResourceLimitUtil::StopCpuLimit(error=0)",
                        "IResourceLimitUtil::StopMemLimit(error=0,1)", "IResourceLimitUtil::ReleaseLimits()"};

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The built-in groups at 9 percent and 200 MB, and at 18 percent and 400 MB.
std::string Groups(bool cpu, bool mem, const char* main, const char* collect, int scale) {
    return doubles::Format(
        "groups[main cpu=%d %s mem=%d %dKB; guard cpu=%d 0.00 mem=%d %dKB; collect-defense cpu=%d %s mem=%d %dKB]", cpu,
        cpu ? main : "0.00", mem, mem ? 23040 * scale : 0, cpu, mem, mem ? 15360 * scale : 0, cpu,
        cpu ? collect : "0.00", mem, mem ? 138240 * scale : 0);
}
std::string Reconcile9(bool cpu, bool mem) {
    return doubles::Format("CCgroupManager::Reconcile(%d,%d,total{cpu=%d 9.00 mem=%d 307200KB},", cpu, mem, cpu, mem) +
           Groups(cpu, mem, "1.80", "5.40", 1) + ")";
}
std::string Reconcile19(bool cpu, bool mem) {
    return doubles::Format("CCgroupManager::Reconcile(%d,%d,total{cpu=%d 19.00 mem=%d 614400KB},", cpu, mem, cpu, mem) +
           Groups(cpu, mem, "3.80", "11.40", 2) + ")";
}
std::string ReconcileOff9(bool cpu, bool mem) {
    return "CCgroupManager::Reconcile(0,0," + Groups(cpu, mem, "1.80", "5.40", 1) + ")";
}
std::string ReconcileOff19(bool cpu, bool mem) {
    return "CCgroupManager::Reconcile(0,0," + Groups(cpu, mem, "3.80", "11.40", 2) + ")";
}
std::string Write(const char* quotas, int parentCpu = 0, int parentMem = 0) {
    return doubles::Format("CCgroupManager::WriteComponentConfig(%s,quotas[%s],%d,%d)", kComponentFile, quotas,
                           parentCpu, parentMem);
}
const char* const kQuotas9 =
    "Tervane@main/main 36 15360KB; "
    "TervaneMonitor@collect-defense/collect-defense 324 40960KB; TervaneUpdate@guard/guard "
    "0 10240KB; QorHips@collect-defense/collect-defense 270 20480KB; QorNet@collect-defense/collect-defense 270 "
    "10240KB; QorWebGuard@collect-defense/collect-defense 270 20480KB";
const char* const kQuotas19 =
    "Tervane@main/main 76 30720KB; "
    "TervaneMonitor@collect-defense/collect-defense 684 81920KB; TervaneUpdate@guard/guard "
    "0 20480KB; QorHips@collect-defense/collect-defense 570 40960KB; QorNet@collect-defense/collect-defense 570 "
    "20480KB; QorWebGuard@collect-defense/collect-defense 570 40960KB";

std::string SelfKill(int cpuActive, int cpuQ, int memActive, int memQ) {
    return doubles::Format(
        "F4 [MonitorPri] MonitorPri: unified self-kill quota cpuActive=%d cpuQ=%d memActive=%d memQ=%d", cpuActive,
        cpuQ, memActive, memQ);
}
std::string Updating(const char* what) {
    return std::string("F4 [MonitorPri] MonitorPri: multi-cgroup updating, ") + what;
}
}  // namespace

TEST(EffectiveCpuTest, IsNinetyFivePercentBetweenOneAndAHundred) {
    const std::pair<long, long> cases[] = {{LONG_MIN, 1}, {-10, 1},   {0, 1},         {1, 1},    {2, 1},
                                           {3, 2},        {10, 9},    {20, 19},       {105, 99}, {106, 100},
                                           {200, 100},    {300, 100}, {LONG_MAX, 100}};
    for (const auto& c : cases) EXPECT_EQ(c.second, WithCpuMargin(c.first)) << c.first;
}

class UnifiedModeTest : public UnifiedFixture {
protected:
    void SetUp() override {
        UnifiedFixture::SetUp();
        platform().kernel.release = "6.1.0-13-cloud-amd64";
        pri().m_memLimitKernelRange = "6.0.0-0,6.9.9-99";
        journal();
    }
    void Enable(bool cpu, bool mem) {
        platform().manager.cpuEnabled.Always(cpu);
        platform().manager.memEnabled.Always(mem);
    }
    /// Unified with both limits at 10 percent and 200 MB, as InitMultiCgroup leaves it.
    void BeActive() {
        Enable(true, true);
        EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
        EXPECT_EQ("13 9 200", Remembered());
        HaveLegacyLimits();
        platform().files.content.clear();
        journal();
    }
    void ExpectLegacyState() {
        EXPECT_FALSE(pri().m_unifiedActive);
        EXPECT_EQ("0 0 0", Remembered());
        EXPECT_TRUE(SelfKillQuotaCleared());
        EXPECT_TRUE(LegacyLimitsForgotten());
        EXPECT_EQ(1, platform().manager.constructed);
        EXPECT_EQ(0, platform().manager.destroyed);
    }
};

// --- effective CPU ---

TEST_F(UnifiedModeTest, EffectiveCpuCountsCpusOnlyInSolarisMode) {
    EXPECT_EQ(9, pri().GetEffectiveMultiCgroupMaxCpu(10));
    EXPECT_EQ(Lines({kSolaris}), journal());
    platform().base.solaris = true;
    EXPECT_EQ(36, pri().GetEffectiveMultiCgroupMaxCpu(10));
    EXPECT_EQ(Lines({kSolaris, "sysconf(_SC_NPROCESSORS_CONF)"}), journal());
    EXPECT_EQ(400, pri().GetEffectiveMultiCgroupMaxCpu(300));
    for (long cpus : {0L, -1L}) {
        platform().kernel.configuredCpus = cpus;
        EXPECT_EQ(9, pri().GetEffectiveMultiCgroupMaxCpu(10)) << cpus;
    }
}

// --- kernel policy ---

TEST_F(UnifiedModeTest, KernelPolicyGivesAtMostOneLineAController) {
    const std::string cpuLine = "F4 [MonitorPri] MonitorPri: CPU cgroup disabled, kernel [%s] in blacklist";
    const std::string notAllowed = "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [%s] not in allowlist";
    const std::string excluded = "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [%s] in exclude list";
    const std::string inRange = "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [%s] in exclude range";
    const char* all = "0.0.1-0,9.9.9-999";
    struct {
        const char *release, *range, *kernels, *excludeRange;
        bool cpuWanted, memWanted, cpu, mem;
        Lines lines;
    } const cases[] = {
        {"6.1.0-13-cloud-amd64", all, "", "", true, true, true, true, {}},
        {"4.9.93-010.x86_64", all, "", "", true, true, false, true, {cpuLine}},
        {"4.9.93-012", all, "", "", true, true, false, true, {cpuLine}},
        {"4.9.135-013", all, "", "", true, false, false, false, {cpuLine}},
        {"4.9.151-014.x86_64", all, "", "", true, true, false, true, {cpuLine}},
        {"4.9.135-010", all, "", "", true, true, true, true, {}},
        {"4.9.151-013", all, "", "", true, true, true, true, {}},
        {"4.9.93-011", all, "", "", true, false, true, false, {}},
        {"4.9.93-010", all, "", "", false, false, false, false, {}},
        {"6.1.0-13", "", "", "", true, true, true, false, {notAllowed}},
        {"6.1.0-13", "5.0.0-0,5.9.9-9", "6.1", all, true, true, true, false, {notAllowed}},
        {"6.1.0-13", all, "5.9 6.1", all, true, true, true, false, {excluded}},
        {"6.1.0-13", all, "5.9", all, true, true, true, false, {inRange}},
        {"6.1.0-13", all, "5.9", "6.1.0-14,6.2.0-0", true, true, true, true, {}},
        {"6.1.0-13", "", "", "", true, false, true, false, {}},
        {"4.9.93-010", "", "", "", true, true, false, false, {cpuLine, notAllowed}},
        {"nonsense", all, "", "", true, true, true, false, {notAllowed}},
    };
    for (const auto& c : cases) {
        m_pri = std::make_unique<MonitorPriProbe>();
        journal();
        platform().kernel.release = c.release;
        pri().m_memLimitKernelRange = c.range;
        pri().m_memLimitExcludeKernels = c.kernels;
        pri().m_memLimitExcludeRange = c.excludeRange;
        bool cpuOn = c.cpuWanted;
        bool memOn = c.memWanted;
        pri().ApplyMultiCgroupKernelPolicy(cpuOn, memOn);
        EXPECT_EQ(c.cpu, cpuOn) << c.release;
        EXPECT_EQ(c.mem, memOn) << c.release << " " << c.range;
        Lines expected;
        const std::string known = std::string(c.release) == "nonsense" ? "" : c.release;
        for (std::string line : c.lines) expected.push_back(line.replace(line.find("%s"), 2, known));
        Lines logged;
        for (const std::string& line : journal()) {
            if (line != "uname()") logged.push_back(line);
        }
        EXPECT_EQ(expected, logged) << c.release << " " << c.range;
    }
}

TEST_F(UnifiedModeTest, KernelPolicyReadsKernelOnceEvenForNothing) {
    bool cpuOn = false;
    bool memOn = false;
    pri().ApplyMultiCgroupKernelPolicy(cpuOn, memOn);
    EXPECT_EQ(Lines({"uname()"}), journal());
    cpuOn = memOn = true;
    pri().ApplyMultiCgroupKernelPolicy(cpuOn, memOn);
    EXPECT_EQ(Lines(), journal());
}

TEST_F(UnifiedModeTest, UnreadableKernelKeepsCpuAndDropsMemory) {
    platform().kernel.unameResult = -1;
    bool cpuOn = true;
    bool memOn = true;
    pri().ApplyMultiCgroupKernelPolicy(cpuOn, memOn);
    EXPECT_TRUE(cpuOn);
    EXPECT_FALSE(memOn);
    EXPECT_EQ(
        Lines({"uname()", "uname()", "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [] not in allowlist"}),
        journal());
}

// --- who may enter ---

TEST_F(UnifiedModeTest, OtherProcessesDoNothing) {
    pri().m_isMainAgent = false;
    HaveSelfKillQuota();
    HaveComponentFile();
    for (int mode : {0, 8, 13}) {
        EXPECT_TRUE(pri().InitMultiCgroup(mode, 10, 200));
        EXPECT_TRUE(pri().UpdateMultiCgroup(mode, 10, 200));
    }
    EXPECT_EQ(Lines(), journal());
    EXPECT_FALSE(SelfKillQuotaCleared());
}

TEST_F(UnifiedModeTest, WithoutTheUnifiedBitBothEntriesCleanUp) {
    for (int mode : {0, 1, 4, 5, 7, 16}) {
        EXPECT_TRUE(pri().InitMultiCgroup(mode, 10, 200));
        EXPECT_TRUE(pri().UpdateMultiCgroup(mode, 10, 200));
        EXPECT_EQ(Lines({kIsFile, kIsFile}), journal());
    }
    EXPECT_EQ(0, platform().manager.constructed);
}

TEST_F(UnifiedModeTest, WithoutUnifiedBitActiveModeIsPublishedAway) {
    BeActive();
    HaveComponentFile();
    platform().files.failRename.insert(kComponentFile);
    platform().manager.writeDisabled.Always(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(5, 10, 200));
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, InitWithoutTheUnifiedBitLeavesTheActiveMode) {
    BeActive();
    EXPECT_TRUE(pri().InitMultiCgroup(5, 10, 200));
    EXPECT_EQ(Lines({"W4 MonitorPri: multi-cgroup mode disabled, publishing legacy exit", kResetOom, kRemovePid,
                     kIsFile, kBroadcast, kNotified}),
              journal());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, ActiveWithoutManagerInitialisesByBothEntries) {
    Enable(true, true);
    bool (CMonitorPri::*const entries[])(int, long, int) = {&CMonitorPri::InitMultiCgroup,
                                                            &CMonitorPri::UpdateMultiCgroup};
    for (const auto entry : entries) {
        m_pri = std::make_unique<MonitorPriProbe>();
        pri().m_isMainAgent = true;
        pri().m_ipcBroadcastCallback = RecordBroadcast;
        pri().m_memLimitKernelRange = "6.0.0-0,6.9.9-99";
        pri().m_unifiedActive = true;
        Remember(13, 9, 200);  // the same settings are no reason to skip it
        journal();
        EXPECT_TRUE((pri().*entry)(13, 10, 200));
        EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()",
                         "CCgroupManager::EnsureInitialized()",
                         kSolaris,
                         "uname()",
                         Reconcile9(true, true),
                         kIsCpuOn,
                         kIsMemOn,
                         kAddPid,
                         Write(kQuotas9),
                         SelfKill(1, 36, 1, 15360),
                         kIsCpuOn,
                         kIsCpuV2,
                         kIsMemOn,
                         kIsMemV2,
                         kClearCpu,
                         kClearMem,
                         kSnapshot,
                         kBroadcast,
                         kNotified,
                         kInitialized}),
                  steps());
        EXPECT_EQ("13 9 200", Remembered());
    }
}

TEST_F(UnifiedModeTest, InitOfTheActiveModeChangesNothing) {
    BeActive();
    EXPECT_TRUE(pri().InitMultiCgroup(13, 50, 500));
    EXPECT_EQ(Lines(), journal());
    EXPECT_EQ("13 9 200", Remembered());
}

// --- first application ---

TEST_F(UnifiedModeTest, InitWithBothLimitsTakesEveryStepInOrder) {
    Enable(true, true);
    HaveLegacyLimits();
    platform().manager.parentCpuActive.Always(true);
    platform().manager.parentMemActive.Always(true);
    platform().manager.parentCpuLimit.Always(900);
    platform().manager.parentMemLimit.Always(307200);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()",
                     "CCgroupManager::EnsureInitialized()",
                     kSolaris,
                     "uname()",
                     Reconcile9(true, true),
                     kIsCpuOn,
                     kIsMemOn,
                     kAddPid,
                     Write(kQuotas9, 900, 307200),
                     SelfKill(1, 36, 1, 15360),
                     kIsCpuOn,
                     kIsCpuV2,
                     kIsMemOn,
                     kIsMemV2,
                     kClearCpu,
                     kClearMem,
                     kSnapshot,
                     kBroadcast,
                     kNotified,
                     kInitialized}),
              steps());
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_TRUE(LegacyLimitsForgotten());
    EXPECT_EQ("13 9 200", Remembered());
}

TEST_F(UnifiedModeTest, InitSetsActiveFlagBeforeDetachAndTheOomCheck) {
    Enable(true, false);
    platform().manager.cpuV2.Always(true);
    platform().limit.memV2Runtime.Always(true);
    EXPECT_TRUE(pri().InitMultiCgroup(9, 10, 200));
    // Both look at the flag: the questions about version 2 and the snapshot are only asked when it is set.
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()",
                     "CCgroupManager::EnsureInitialized()",
                     kSolaris,
                     "uname()",
                     Reconcile9(true, false),
                     kIsCpuOn,
                     kIsMemOn,
                     kAddPid,
                     Write(kQuotas9),
                     SelfKill(1, 36, 0, 0),
                     kIsCpuOn,
                     kIsCpuV2,
                     "IsResourceLimitCpuCgroupV2Runtime()",
                     "IsResourceLimitMemCgroupV2Runtime()",
                     kClearMem,
                     kClearCpu,
                     kSnapshot,
                     kBroadcast,
                     kNotified,
                     kInitialized}),
              steps());
}

TEST_F(UnifiedModeTest, InitForgetsLegacyBetweenQuotaAndDetach) {
    Enable(true, true);
    HaveLegacyLimits();
    std::string lastWithLimits;
    std::string lastNotActive;
    platform().keepInJournal = [&](const std::string& line) {
        if (!LegacyLimitsForgotten()) lastWithLimits = line;
        if (!pri().m_unifiedActive) lastNotActive = line;
        return true;
    };
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    platform().keepInJournal = nullptr;
    EXPECT_EQ(SelfKill(1, 36, 1, 15360), lastWithLimits);
    EXPECT_EQ(SelfKill(1, 36, 1, 15360), lastNotActive);
}

TEST_F(UnifiedModeTest, OthersAreToldAfterChangeBeforeTheRecord) {
    Enable(true, true);
    HaveLegacyLimits();
    WatchBroadcasts();
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({"active=1 last=0 0 0 legacy=forgotten"}), m_broadcasts);
    EXPECT_EQ("13 9 200", Remembered());

    m_broadcasts.clear();
    HaveLegacyLimits();
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({"active=1 last=13 9 200 legacy=forgotten"}), m_broadcasts);
    EXPECT_EQ("13 19 400", Remembered());

    m_broadcasts.clear();
    platform().manager.reconcile.Always(false);
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({"active=1 last=13 19 400 legacy=forgotten"}), m_broadcasts);
    EXPECT_EQ("0 0 0", Remembered());
}

TEST_F(UnifiedModeTest, InitTakesFilesPlaceBeforeReconcileNotUpdate) {
    Enable(true, true);
    const auto moveAt = [this](const std::string& call, const char* to) {
        platform().keepInJournal = [this, call, to](const std::string& line) {
            if (line.compare(0, call.size(), call) == 0) platform().globalCfgDir = to;
            return true;
        };
    };
    const auto isThere = [this](const char* path) { return platform().files.content.count(path) != 0; };
    moveAt("CCgroupManager::Reconcile", "/first");
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_TRUE(ComponentFileExists());
    EXPECT_FALSE(isThere("/first/cgroup_resource.json"));

    moveAt("CCgroupManager::Reconcile", "/second");
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_TRUE(isThere("/second/cgroup_resource.json"));

    moveAt("CCgroupManager::AddPidToGroup", "/third");
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 10, 200));
    EXPECT_FALSE(isThere("/third/cgroup_resource.json"));
    platform().keepInJournal = nullptr;
}

TEST_F(UnifiedModeTest, InitBelievesTheManagerAboutWhatIsInForce) {
    // Both wanted, the memory alone came into force: the self-kill quota and the detach follow what is in force, the
    // groups and quotas what was wanted.
    Enable(false, true);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(true, true), kIsCpuOn, kIsMemOn, kAddPid, Write(kQuotas9), SelfKill(0, 0, 1, 15360),
                     kIsCpuOn, kIsMemOn, kIsMemV2, kClearMem, kSnapshot, kBroadcast, kNotified, kInitialized}),
              steps());
}

TEST_F(UnifiedModeTest, AnUnusableManagerIsStillAskedToReconcile) {
    platform().manager.ensureInitialized.Always(false);
    Enable(true, true);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
}

TEST_F(UnifiedModeTest, PartialInitIsActiveButRemembersNothing) {
    Enable(true, false);
    platform().manager.reconcile.Always(false);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_EQ("0 0 0", Remembered());
    EXPECT_EQ(kInitialized, steps().back());
}

TEST_F(UnifiedModeTest, ParentsLimitsAreWrittenOnlyWhenTheyAreActive) {
    platform().manager.parentCpuLimit.Always(900);
    platform().manager.parentMemLimit.Always(307200);
    Enable(true, true);
    platform().manager.parentMemActive.Always(true);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    Lines all = steps();
    EXPECT_EQ(1, std::count(all.begin(), all.end(), Write(kQuotas9, 0, 307200)));
    platform().manager.parentMemActive.Always(false);
    platform().manager.parentCpuActive.Always(true);
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    all = steps();
    EXPECT_EQ(1, std::count(all.begin(), all.end(), Write(kQuotas19, 900, 0)));
}

TEST_F(UnifiedModeTest, InitFallsBackWhenTheParentCannotBeCleared) {
    Enable(true, false);
    platform().manager.reconcile.Always(false);
    platform().manager.parentMemActive.Always(true);
    HaveLegacyLimits();
    EXPECT_FALSE(pri().InitMultiCgroup(9, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(true, false), kIsCpuOn, kIsMemOn,
                     "W3 MonitorPri: init parent clear failed, fallback to legacy"}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, ParentIsStuckOnlyForUnwantedController) {
    const std::string askCpu = "CCgroupManager::IsParentCpuActive()";
    const std::string askMem = "CCgroupManager::IsParentMemActive()";
    struct {
        int mode;
        bool reconciled, cpuActive, memActive, stuck;
        Lines asked;  // the last two questions are those about the limits to write
    } const cases[] = {
        {9, true, true, true, false, {askCpu, askMem}},
        {9, false, true, false, false, {askMem, askCpu, askMem}},
        {9, false, false, true, true, {askMem, askCpu, askMem}},
        {12, false, true, true, true, {askCpu, askCpu, askMem}},
        {12, false, false, true, false, {askCpu, askCpu, askMem}},
        {13, false, true, true, false, {askCpu, askMem}},
        {8, false, false, true, true, {askCpu, askMem, askCpu, askMem}},
        {8, false, true, true, true, {askCpu, askCpu, askMem}},
        {8, false, false, false, false, {askCpu, askMem, askCpu, askMem}},
    };
    for (const auto& c : cases) {
        m_pri = std::make_unique<MonitorPriProbe>();
        pri().m_isMainAgent = true;
        pri().m_memLimitKernelRange = "6.0.0-0,6.9.9-99";
        Enable(true, true);
        platform().manager.reconcile.Always(c.reconciled);
        platform().manager.parentCpuActive.Always(c.cpuActive);
        platform().manager.parentMemActive.Always(c.memActive);
        journal();
        EXPECT_EQ(!c.stuck, pri().InitMultiCgroup(c.mode, 10, 200)) << c.mode;
        Lines asked;
        for (const std::string& line : journal()) {
            if (line.find("CCgroupManager::IsParent") == 0) asked.push_back(line);
        }
        EXPECT_EQ(c.asked, asked) << c.mode;
    }
}

TEST_F(UnifiedModeTest, InitFallsBackWhenItsPidCannotBeAdded) {
    Enable(true, true);
    platform().manager.addPid.Always(false);
    HaveLegacyLimits();
    EXPECT_FALSE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(true, true), kIsCpuOn, kIsMemOn, kAddPid,
                     "F3 [MonitorPri] MonitorPri: init active failed (pid=0 write=0), fallback to legacy"}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, InitFallsBackWhenComponentFileIsUnwritten) {
    Enable(true, false);
    platform().manager.writeComponent.Always(false);
    HaveLegacyLimits();
    EXPECT_FALSE(pri().InitMultiCgroup(9, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(true, false), kIsCpuOn, kIsMemOn, kAddPid, Write(kQuotas9),
                     "F3 [MonitorPri] MonitorPri: init active failed (pid=1 write=0), fallback to legacy"}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, InitFallsBackWhenNothingWantedIsInForce) {
    platform().manager.reconcile.Always(false);
    platform().manager.parentMemActive.Always(true);  // a stuck parent plays no part here
    HaveLegacyLimits();
    EXPECT_FALSE(pri().InitMultiCgroup(9, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(true, false), kIsCpuOn, kIsMemOn,
                     "W3 MonitorPri: active desired but reconcile all failed, fallback to legacy"}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, InitWithNoControllerWantedIsUnifiedDisabled) {
    HaveLegacyLimits();
    EXPECT_TRUE(pri().InitMultiCgroup(8, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(false, false), kIsCpuOn, kIsMemOn, ReconcileOff9(false, false), kWriteDisabled}) +
                  kDisable + Lines({kBroadcast, kNotified, kInitializedDisabled}),
              steps());
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_TRUE(LegacyLimitsForgotten());
    EXPECT_EQ("8 9 200", Remembered());
}

TEST_F(UnifiedModeTest, EnablingNothingIsUnifiedDisabledThoughWanted) {
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(true, true), kIsCpuOn, kIsMemOn, ReconcileOff9(true, true), kWriteDisabled}) +
                  kDisable + Lines({kBroadcast, kNotified, kInitializedDisabled}),
              steps());
    EXPECT_EQ("13 9 200", Remembered());
}

TEST_F(UnifiedModeTest, FailureWithNothingWantedIsUnifiedDisabled) {
    platform().manager.reconcile.Always(false);
    EXPECT_TRUE(pri().InitMultiCgroup(8, 10, 200));
    EXPECT_EQ(kInitializedDisabled, steps().back());
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_EQ("0 0 0", Remembered());
}

TEST_F(UnifiedModeTest, ListedKernelUnallowedIsUnifiedDisabled) {
    pri().m_memLimitKernelRange = "";
    platform().kernel.release = "4.9.93-010.x86_64";
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     "F4 [MonitorPri] MonitorPri: CPU cgroup disabled, kernel [4.9.93-010.x86_64] in blacklist",
                     "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [4.9.93-010.x86_64] not in allowlist",
                     Reconcile9(false, false), kIsCpuOn, kIsMemOn, ReconcileOff9(false, false), kWriteDisabled}) +
                  kDisable + Lines({kBroadcast, kNotified, kInitializedDisabled}),
              steps());
    EXPECT_TRUE(pri().m_unifiedActive);
}

TEST_F(UnifiedModeTest, WithNothingAskedForKernelIsReadNotJudged) {
    pri().m_memLimitKernelRange = "";
    platform().kernel.release = "4.9.93-010.x86_64";
    EXPECT_TRUE(pri().InitMultiCgroup(8, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(false, false), kIsCpuOn, kIsMemOn, ReconcileOff9(false, false), kWriteDisabled}) +
                  kDisable + Lines({kBroadcast, kNotified, kInitializedDisabled}),
              steps());
}

TEST_F(UnifiedModeTest, FailedReconcileOnListedKernelIsNoFailure) {
    pri().m_memLimitKernelRange = "";
    platform().kernel.release = "4.9.93-010.x86_64";
    platform().manager.reconcile.Always(false);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ(kInitializedDisabled, steps().back());
}

TEST_F(UnifiedModeTest, InitFailsWhenUnifiedDisabledCannotBeEntered) {
    platform().manager.writeDisabled.Always(false);
    EXPECT_FALSE(pri().InitMultiCgroup(8, 10, 200));
    EXPECT_EQ(Lines({"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()", kSolaris, "uname()",
                     Reconcile9(false, false), kIsCpuOn, kIsMemOn, ReconcileOff9(false, false), kWriteDisabled,
                     "W3 MonitorPri: WriteDisabledConfig failed, fallback to legacy"}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

// --- update ---

TEST_F(UnifiedModeTest, AnUpdateFromLegacyInitialises) {
    Enable(true, true);
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 10, 200));
    EXPECT_EQ(kInitialized, steps().back());
    EXPECT_EQ("13 9 200", Remembered());
}

TEST_F(UnifiedModeTest, UpdateAfterFallbackInitialisesSameManager) {
    BeActive();
    platform().manager.addPid.Then(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    ExpectLegacyState();
    steps();
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Reconcile19(true, true), kIsCpuOn, kIsMemOn, kAddPid, Write(kQuotas19),
                     SelfKill(1, 76, 1, 30720), kIsCpuOn, kIsCpuV2, kIsMemOn, kIsMemV2, kClearCpu, kClearMem, kSnapshot,
                     kBroadcast, kNotified, kInitialized}),
              steps());
    EXPECT_EQ(1, platform().manager.constructed);
    EXPECT_EQ("13 19 400", Remembered());
}

TEST_F(UnifiedModeTest, AnUpdateThatChangesNothingDoesNothing) {
    BeActive();
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({kSolaris}), journal());
}

TEST_F(UnifiedModeTest, TheComparisonIsWithTheEffectiveCpu) {
    Enable(true, true);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 200, 200));
    EXPECT_EQ("13 100 200", Remembered());
    journal();
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 300, 200));
    EXPECT_EQ(Lines({kSolaris}), journal());
}

TEST_F(UnifiedModeTest, ComparesAnEffectiveCpuBeyond32Bits) {
    Enable(true, true);
    platform().base.solaris = true;
    platform().kernel.configuredCpus = 1L << 32;
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    EXPECT_EQ("13 38654705664 200", Remembered());
    ASSERT_FALSE(platform().manager.lastGroups.empty());
    EXPECT_EQ(21474836, platform().manager.lastGroups[0].cpuLimitPercent) << "the most that fits";
    journal();
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({kSolaris, "sysconf(_SC_NPROCESSORS_CONF)"}), journal());
}

TEST_F(UnifiedModeTest, EachOfModeCpuAndMemoryAloneIsAChange) {
    struct {
        int mode;
        long maxCpu;
        int maxMem;
        const char* line;
    } const cases[] = {
        {13 | 16, 10, 200, "mode 13->29 cpu 9->9 mem 200->200"},
        {13, 20, 200, "mode 13->13 cpu 9->19 mem 200->200"},
        {13, 10, -400, "mode 13->13 cpu 9->9 mem 200->-400"},
    };
    BeActive();
    for (const auto& c : cases) {
        Remember(13, 9, 200);
        EXPECT_TRUE(pri().UpdateMultiCgroup(c.mode, c.maxCpu, c.maxMem));
        EXPECT_EQ(Updating(c.line), steps()[1]);
    }
}

TEST_F(UnifiedModeTest, AnUpdateWritesTellsAndRemembers) {
    BeActive();
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->13 cpu 9->19 mem 200->400"), Reconcile19(true, true), kIsCpuOn,
                     kIsMemOn, kAddPid, Write(kQuotas19), SelfKill(1, 76, 1, 30720), kIsCpuOn, kIsCpuV2, kIsMemOn,
                     kIsMemV2, kClearCpu, kClearMem, kBroadcast, kNotified}),
              steps());
    EXPECT_EQ("13 19 400", Remembered());
    EXPECT_TRUE(pri().m_unifiedActive);
}

TEST_F(UnifiedModeTest, AnUpdateBelievesTheManagerAboutWhatIsInForce) {
    BeActive();
    Enable(false, true);
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->13 cpu 9->19 mem 200->400"), Reconcile19(true, true), kIsCpuOn,
                     kIsMemOn, kAddPid, Write(kQuotas19), SelfKill(0, 0, 1, 30720), kIsCpuOn, kIsMemOn, kIsMemV2,
                     kClearMem, kBroadcast, kNotified}),
              steps());
    // And the other way round: in force although nobody wanted it.
    Enable(true, true);
    EXPECT_TRUE(pri().UpdateMultiCgroup(8, 10, 200));
    EXPECT_EQ(SelfKill(0, 0, 1, 15360), steps()[7]);
}

TEST_F(UnifiedModeTest, UpdateForgetsLegacyOnlyOfThoseInForce) {
    BeActive();
    Enable(true, false);
    EXPECT_TRUE(pri().UpdateMultiCgroup(9, 10, 200));
    EXPECT_FALSE(pri().m_legacyCpuEnabled);
    EXPECT_TRUE(pri().m_legacyMemEnabled);
}

TEST_F(UnifiedModeTest, PartialReconcileIsWrittenAndToldButForgotten) {
    BeActive();
    platform().manager.reconcile.Always(false);
    const Lines expected = {Reconcile19(true, true),
                            kIsCpuOn,
                            kIsMemOn,
                            kAddPid,
                            Write(kQuotas19),
                            SelfKill(1, 76, 1, 30720),
                            kIsCpuOn,
                            kIsCpuV2,
                            kIsMemOn,
                            kIsMemV2,
                            kClearCpu,
                            kClearMem,
                            kBroadcast,
                            kNotified,
                            kPartial};
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->13 cpu 9->19 mem 200->400")}) + expected, steps());
    EXPECT_EQ("0 0 0", Remembered());
    EXPECT_TRUE(pri().m_unifiedActive);

    // The same request is applied again, because nothing is on record.
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 0->13 cpu 0->19 mem 0->400")}) + expected, steps());
}

TEST_F(UnifiedModeTest, AnUpdateThatCannotAddItsPidFallsBackAtOnce) {
    BeActive();
    platform().manager.addPid.Always(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->13 cpu 9->19 mem 200->400"), Reconcile19(true, true), kIsCpuOn,
                     kIsMemOn, kAddPid, "W3 MonitorPri: add main pid failed during update, fallback to legacy"}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, FailedWriteRestoresTheRecordStaysUnified) {
    BeActive();
    platform().manager.writeComponent.Always(false);
    const Lines expected = {kSolaris,
                            Updating("mode 13->13 cpu 9->19 mem 200->400"),
                            Reconcile19(true, true),
                            kIsCpuOn,
                            kIsMemOn,
                            kAddPid,
                            Write(kQuotas19),
                            kWriteFailed,
                            Reconcile9(true, true),
                            kRestored};
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(expected, steps());
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_EQ("13 9 200", Remembered());
    EXPECT_FALSE(SelfKillQuotaCleared());
    EXPECT_FALSE(LegacyLimitsForgotten());

    // The request did not come into force, so it is tried again.
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(expected, steps());
    // The old settings count as applied.
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 10, 200));
    EXPECT_EQ(Lines({kSolaris}), steps());
}

TEST_F(UnifiedModeTest, TheRestoreRunsTheKernelPolicyAgain) {
    BeActive();
    pri().m_memLimitKernelRange = "";
    platform().manager.writeComponent.Always(false);
    const std::string notAllowed =
        "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [6.1.0-13-cloud-amd64] not in allowlist";
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(
        Lines({kSolaris, Updating("mode 13->13 cpu 9->19 mem 200->400"), notAllowed, Reconcile19(true, false), kIsCpuOn,
               kIsMemOn, kAddPid, Write(kQuotas19), kWriteFailed, notAllowed, Reconcile9(true, false), kRestored}),
        steps());
}

TEST_F(UnifiedModeTest, AFailedRestoreFallsBack) {
    BeActive();
    platform().manager.writeComponent.Always(false);
    platform().manager.reconcile.Then(true).Then(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->13 cpu 9->19 mem 200->400"), Reconcile19(true, true), kIsCpuOn,
                     kIsMemOn, kAddPid, Write(kQuotas19), kWriteFailed, Reconcile9(true, true), kRestoreFailed}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, FailedWriteWithoutRecordFallsBackUnrestored) {
    BeActive();
    Remember(0, 9, 200);
    platform().manager.writeComponent.Always(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 0->13 cpu 9->19 mem 200->400"), Reconcile19(true, true), kIsCpuOn,
                     kIsMemOn, kAddPid, Write(kQuotas19), kWriteFailed}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, StuckParentLogsBothLinesAndRestores) {
    BeActive();
    platform().manager.reconcile.Then(false).Then(true);
    platform().manager.parentMemActive.Always(true);
    EXPECT_FALSE(pri().UpdateMultiCgroup(9, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->9 cpu 9->19 mem 200->400"), Reconcile19(true, false), kIsCpuOn,
                     kIsMemOn, "W3 MonitorPri: parent clear failed during update, restoring previous state",
                     kWriteFailed, Reconcile9(true, true), kRestored}),
              steps());
    EXPECT_EQ("13 9 200", Remembered());
    EXPECT_TRUE(pri().m_unifiedActive);
}

TEST_F(UnifiedModeTest, StuckParentWithoutRecordFallsBackUnrestored) {
    BeActive();
    Remember(0, 9, 200);
    platform().manager.reconcile.Always(false);
    platform().manager.parentMemActive.Always(true);
    EXPECT_FALSE(pri().UpdateMultiCgroup(9, 20, 400));
    EXPECT_EQ(
        Lines({kSolaris, Updating("mode 0->9 cpu 9->19 mem 200->400"), Reconcile19(true, false), kIsCpuOn, kIsMemOn,
               "W3 MonitorPri: parent clear failed during update, restoring previous state", kWriteFailed}) +
            kFallback,
        steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, StuckParentFallsBackWhenRestoreFailsToo) {
    BeActive();
    platform().manager.reconcile.Always(false);
    platform().manager.parentCpuActive.Always(true);
    EXPECT_FALSE(pri().UpdateMultiCgroup(12, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->12 cpu 9->19 mem 200->400"), Reconcile19(false, true), kIsCpuOn,
                     kIsMemOn, "W3 MonitorPri: parent clear failed during update, restoring previous state",
                     kWriteFailed, Reconcile9(true, true), kRestoreFailed}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, UpdateFallsBackWhenNothingWantedIsInForce) {
    BeActive();
    Enable(false, false);
    platform().manager.reconcile.Always(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->13 cpu 9->19 mem 200->400"), Reconcile19(true, true), kIsCpuOn,
                     kIsMemOn, kAllFailedUpdate}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, UpdateToNothingIsUnifiedDisabledWithoutLine) {
    BeActive();
    Enable(false, false);
    const Lines disabled = Lines({kSolaris, Updating("mode 13->8 cpu 9->19 mem 200->400"), Reconcile19(false, false),
                                  kIsCpuOn, kIsMemOn, ReconcileOff19(false, false), kWriteDisabled}) +
                           kDisable + Lines({kBroadcast, kNotified});
    EXPECT_TRUE(pri().UpdateMultiCgroup(8, 20, 400));
    EXPECT_EQ(disabled, steps());
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_TRUE(SelfKillQuotaCleared());
    EXPECT_TRUE(LegacyLimitsForgotten());
    EXPECT_EQ("8 19 400", Remembered());
    EXPECT_TRUE(pri().UpdateMultiCgroup(8, 20, 400));
    EXPECT_EQ(Lines({kSolaris}), steps());
}

TEST_F(UnifiedModeTest, AnUpdateToNothingWithAFailedReconcileForgets) {
    BeActive();
    Enable(false, false);
    platform().manager.reconcile.Always(false);
    EXPECT_TRUE(pri().UpdateMultiCgroup(8, 20, 400));
    EXPECT_TRUE(pri().m_unifiedActive);
    EXPECT_EQ("0 0 0", Remembered());
}

TEST_F(UnifiedModeTest, UpdateFailsWhenUnifiedDisabledCannotEnter) {
    BeActive();
    Enable(false, false);
    platform().manager.reconcileGroupsOnly.Always(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(8, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 13->8 cpu 9->19 mem 200->400"), Reconcile19(false, false), kIsCpuOn,
                     kIsMemOn, ReconcileOff19(false, false),
                     "W3 MonitorPri: Reconcile(false,false) failed in EnterUnifiedDisabled, fallback to legacy"}) +
                  kFallback,
              steps());
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, TheResultIsFalseWhateverTheFallbackSays) {
    BeActive();
    HaveComponentFile();
    platform().manager.addPid.Always(false);
    platform().files.failRename.insert(kComponentFile);
    platform().manager.writeDisabled.Always(false);
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    ExpectLegacyState();
    EXPECT_FALSE(pri().UpdateMultiCgroup(13, 20, 400));
    ExpectLegacyState();
}

TEST_F(UnifiedModeTest, FromDisabledAnUpdateReturnsToLimits) {
    EXPECT_TRUE(pri().InitMultiCgroup(8, 10, 200));
    steps();
    Enable(true, true);
    EXPECT_TRUE(pri().UpdateMultiCgroup(13, 20, 400));
    EXPECT_EQ(Lines({kSolaris, Updating("mode 8->13 cpu 9->19 mem 200->400"), Reconcile19(true, true), kIsCpuOn,
                     kIsMemOn, kAddPid, Write(kQuotas19), SelfKill(1, 76, 1, 30720), kIsCpuOn, kIsCpuV2, kIsMemOn,
                     kIsMemV2, kClearCpu, kClearMem, kBroadcast, kNotified}),
              steps());
}

TEST_F(UnifiedModeTest, MainGroupIsUsedWhateverGroupsAreConfigured) {
    pri().m_cgroupGroupsSpec = "other:100:204800";
    pri().m_cgroupComponentsSpec = "Tervane:other:other:10000:204800";
    Enable(true, true);
    EXPECT_TRUE(pri().InitMultiCgroup(13, 10, 200));
    Lines all = steps();
    EXPECT_EQ(1, std::count(all.begin(), all.end(), kAddPid));
}
