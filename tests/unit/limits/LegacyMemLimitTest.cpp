// The legacy memory limit: who goes first, what refuses it, the start, the stop and what is remembered.
#include <climits>

#include "LimitsFixture.h"

namespace {

constexpr int kFirstKb = 307200;   // 300 MB
constexpr int kSecondKb = 204800;  // 200 MB

const Lines kReached = {"IsResourceLimitMemCgroupV2Runtime()"};
const Lines kUnchanged = {"W4 resource limit mode and max limit mem is not change"};
const Lines kTrying = {"W4 not match 0 try to set mem limit"};
const Lines kNoRecord = {"CToolUtil::GetApplicationDirPath()", "CFileUtil::IsFile(/opt/agent/home/cgroup_errors)"};
const Lines kHasRecord = kNoRecord + Lines({"CFileUtil::ReadFileLineToList(/opt/agent/home/cgroup_errors,128)"});
const Lines kKernelRead = {"uname()"};
const Lines kRecorded = {"CToolUtil::GetApplicationDirPath()",
                         "CFileUtil::WriteNewFile(/opt/agent/home/cgroup_errors,0)"};
const Lines kPrepared = {"GetResourceLimitUtil()", "IResourceLimitUtil::PrepareMemLimit()"};
const Lines kHeldBack = {"W4 Has mnt or write limit error, not do limit!", "F3 [MonitorPri] mem limit fail [120 - 0]"};
const Lines kStopped = {"W4 match 0 try to close mem limit", "GetResourceLimitUtil()",
                        "IResourceLimitUtil::StopMemLimit(error=0,1)", "IResourceLimitUtil::IsMemLimited()"};

Lines StartCall(int first, int second) {
    return {doubles::Format("IResourceLimitUtil::StartMemLimit(%d,%d,error=0)", first, second)};
}
const Lines kStartCall = StartCall(314572800, 209715200);
const Lines kSuccess = {"IResourceLimitUtil::IsMemLimited()", "W4 mem limit success"};
Lines Failed(int ret, int error) {
    return {doubles::Format("F3 [MonitorPri] mem limit fail [%d - %d]", ret, error)};
}
Lines WrongKernel(const std::string& release) {
    return Lines({"F4 [MonitorPri] kernel not in limit range: " + release + "!"}) + Failed(10, 0);
}

class LegacyMemLimitTest : public LimitsFixture {
protected:
    void SetUp() override {
        LimitsFixture::SetUp();
        pri().m_memLimitKernelRange = "6.1.0-0,6.1.99-0";  // the scripted kernel is 6.1.0-13-cloud-amd64
    }
    Lines Pass(bool expected, int mode = 4, int firstKb = kFirstKb, int secondKb = kSecondKb, bool reserved = false) {
        EXPECT_EQ(expected, pri().MemResourceLimit(mode, firstKb, secondKb, reserved));
        return journal();
    }
    std::string Record() { return platform().files.content["/opt/agent/home/cgroup_errors"]; }
    bool HasRecord() { return platform().files.content.count("/opt/agent/home/cgroup_errors") != 0; }
};

}  // namespace

// --- whoever else holds the memory controller goes first ---

TEST_F(LegacyMemLimitTest, StepsAsideForTheUnifiedMemoryGroups) {
    FillLegacyState();
    BeUnifiedMain();
    platform().manager.memEnabled.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                     "CCgroupManager::IsMemV2()", "IsResourceLimitMemCgroupV2Runtime()",
                     "CCgroupManager::IsMemCgroupEnabled()", "ClearResourceLimitMemCgroupState()"}),
              Pass(true));
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(kCpuFilled, CpuState());
}

TEST_F(LegacyMemLimitTest, DropsLegacyV2OfBothHalvesForUnifiedOnV2) {
    FillLegacyState();
    BeUnifiedMain();
    platform().manager.memEnabled.Always(true);
    platform().manager.memV2.Always(true);
    platform().limit.cpuV2Runtime.Always(true);
    platform().limit.memV2Runtime.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                     "CCgroupManager::IsMemV2()", "IsResourceLimitMemCgroupV2Runtime()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
                     "IsResourceLimitMemCgroupV2Runtime()", "ClearResourceLimitMemCgroupState()",
                     "CCgroupManager::IsMemCgroupEnabled()", "ClearResourceLimitMemCgroupState()"}),
              Pass(true));
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(kCpuForgotten, CpuState());
}

TEST_F(LegacyMemLimitTest, OnlyForgetsWhenUnifiedCpuSharesV2) {
    FillLegacyState();
    BeUnifiedMain();
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    platform().manager.memV2.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                     "IsResourceLimitMemCgroupV2Runtime()", "IsResourceLimitCpuCgroupV2Runtime()",
                     "IsResourceLimitMemCgroupV2Runtime()", "CCgroupManager::IsMemCgroupEnabled()",
                     "CCgroupManager::IsMemV2()"}),
              Pass(true));
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(kCpuFilled, CpuState());
}

TEST_F(LegacyMemLimitTest, GoesOnWhenUnifiedHoldsCpuAndMemoryIsV1) {
    BeUnifiedMain();
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                     "IsResourceLimitMemCgroupV2Runtime()", "IsResourceLimitCpuCgroupV2Runtime()",
                     "IsResourceLimitMemCgroupV2Runtime()", "CCgroupManager::IsMemCgroupEnabled()",
                     "CCgroupManager::IsMemV2()"}) +
                  kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess,
              Pass(true, 12));
}

TEST_F(LegacyMemLimitTest, GoesOnWhileUnifiedModeHoldsNoController) {
    BeUnifiedMain();
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                     "IsResourceLimitMemCgroupV2Runtime()", "CCgroupManager::IsMemCgroupEnabled()"}) +
                  kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess,
              Pass(true, 12));
}

TEST_F(LegacyMemLimitTest, MainProcessGoesOnWithOwnOldV2Limit) {
    BeUnifiedMain();
    platform().manager.cpuEnabled.Always(true);
    platform().manager.cpuV2.Always(true);
    platform().limit.memV2Runtime.Always(true);
    EXPECT_EQ(Lines({"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                     "IsResourceLimitMemCgroupV2Runtime()", "IsResourceLimitCpuCgroupV2Runtime()",
                     "IsResourceLimitMemCgroupV2Runtime()", "ClearResourceLimitMemCgroupState()",
                     "CCgroupManager::IsMemCgroupEnabled()", "CCgroupManager::IsMemV2()"}) +
                  kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess,
              Pass(true, 12));
}

TEST_F(LegacyMemLimitTest, DoesNotAskManagerInV2CpuGroup) {
    pri().m_unifiedActive = true;
    HaveManager();
    platform().manager.memV2.Always(true);
    HaveClient();
    platform().client.cpuJoined.Always(true);
    platform().client.cpuPath.Always("/cg/zel.agent/main/A");
    platform().files.existing.insert("/cg/zel.agent/main/A/cgroup.controllers");
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()",
                     "access(/cg/zel.agent/main/A/cgroup.controllers)", "IsResourceLimitMemCgroupV2Runtime()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
                     "CCgroupClient::IsMemJoined()"}) +
                  kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess,
              Pass(true, 12));
}

TEST_F(LegacyMemLimitTest, DoesNotAskManagerOutsideUnifiedOrMain) {
    HaveManager();
    platform().manager.memEnabled.Always(true);
    platform().manager.memV2.Always(true);
    pri().m_isMainAgent = true;
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess, Pass(true));
    pri().m_isMainAgent = false;
    pri().m_unifiedActive = true;
    EXPECT_EQ(kReached + kUnchanged + kTrying + kNoRecord + kPrepared + kStartCall + kSuccess, Pass(true));
}

TEST_F(LegacyMemLimitTest, ManagesWithoutAManager) {
    pri().m_isMainAgent = true;
    pri().m_unifiedActive = true;
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess, Pass(true));
}

TEST_F(LegacyMemLimitTest, ClearsTwiceOnJoiningV2MemoryOverV2Limit) {
    FillLegacyState();
    BeClientInV2MemoryGroup();
    platform().limit.memV2Runtime.Always(true);
    EXPECT_EQ(
        Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemCgroupPath()",
               "access(/sys/fs/cgroup/zel.agent/main/cgroup.controllers)", "IsResourceLimitMemCgroupV2Runtime()",
               // the version 2 detach
               "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
               "ClearResourceLimitMemCgroupState()",
               // then the memory detach of the joined client
               "CCgroupClient::IsMemJoined()", "ClearResourceLimitMemCgroupState()"}),
        Pass(true));
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(kCpuFilled, CpuState());
}

TEST_F(LegacyMemLimitTest, DetachesWhenItsClientJoinedAMemoryGroup) {
    FillLegacyState();
    HaveClient();
    platform().client.memJoined.Always(true);
    platform().client.memPath.Always("/sys/fs/cgroup/memory/zel.agent/main");
    EXPECT_EQ(
        Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::IsMemJoined()", "CCgroupClient::GetMemCgroupPath()",
               "access(/sys/fs/cgroup/memory/zel.agent/main/cgroup.controllers)", "IsResourceLimitMemCgroupV2Runtime()",
               "CCgroupClient::IsMemJoined()", "ClearResourceLimitMemCgroupState()"}),
        Pass(true));
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(kCpuFilled, CpuState());
}

TEST_F(LegacyMemLimitTest, IgnoresTheClientInTheMainProcess) {
    pri().m_isMainAgent = true;
    HaveClient();
    platform().client.memJoined.Always(true);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess, Pass(true));
}

TEST_F(LegacyMemLimitTest, RemembersRunningOnV2AfterLibraryForgot) {
    FillLegacyState();
    BeClientInV2CpuGroup();
    platform().limit.memV2Runtime.Always(true);
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()",
                     "access(/sys/fs/cgroup/zel.agent/main/cgroup.controllers)", "IsResourceLimitMemCgroupV2Runtime()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
                     "ClearResourceLimitMemCgroupState()", "CCgroupClient::IsMemJoined()"}),
              Pass(true));
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(kCpuFilled, CpuState());
}

TEST_F(LegacyMemLimitTest, GoesOnBesideV2CpuGroupOnV1) {
    BeClientInV2CpuGroup();
    EXPECT_EQ(Lines({"CCgroupClient::IsCpuJoined()", "CCgroupClient::GetCpuCgroupPath()",
                     "access(/sys/fs/cgroup/zel.agent/main/cgroup.controllers)", "IsResourceLimitMemCgroupV2Runtime()",
                     "IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
                     "CCgroupClient::IsMemJoined()"}) +
                  kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess,
              Pass(true));
}

TEST_F(LegacyMemLimitTest, KeepsRunningLegacyV2WithoutUnifiedGroup) {
    platform().limit.memV2Runtime.Always(true);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess, Pass(true));
}

// --- off ---

TEST_F(LegacyMemLimitTest, DoesNothingOnAFirstCallWithEverythingOff) {
    EXPECT_EQ(kReached + kUnchanged, Pass(true, 0, 0, 0));
    EXPECT_EQ("limited=0 enabled=0 first=0 second=0 | code=0", MemState());
}

TEST_F(LegacyMemLimitTest, StopsOnceOnFirstCallWithLimitsAndBitOff) {
    EXPECT_EQ(kReached + kStopped, Pass(true, 11));
    EXPECT_EQ("limited=0 enabled=0 first=307200 second=204800 | code=0", MemState());
    EXPECT_EQ(kReached + kUnchanged, Pass(true, 11));
}

TEST_F(LegacyMemLimitTest, KeepsNumbersOfFailedStopAndAnswersTrue) {
    platform().limit.stopMem.Always({7, 16});
    platform().limit.memLimited.Always(true);
    EXPECT_EQ(kReached + kStopped, Pass(true, 0));
    EXPECT_EQ("limited=1 enabled=0 first=307200 second=204800 | code=70016", MemState());
    EXPECT_EQ(kReached + kUnchanged, Pass(true, 0));  // and it is not tried again
}

TEST_F(LegacyMemLimitTest, WrapsAStopCodeThatDoesNotFit) {
    platform().limit.stopMem.Always({300000, 1});
    Pass(true, 0);
    EXPECT_EQ(-1294967295, pri().m_legacyMemErrorCode);
}

TEST_F(LegacyMemLimitTest, KeepsTheStopCodeAfterALaterSuccess) {
    platform().limit.stopMem.Then({7, 16});
    Pass(true, 0);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess, Pass(true));
    Pass(true, 0);
    EXPECT_EQ(70016, pri().m_legacyMemErrorCode);
}

// --- on ---

TEST_F(LegacyMemLimitTest, StartsTheLimitInBytesTheLargerFirst) {
    platform().limit.memLimited.Always(true);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess, Pass(true));
    EXPECT_EQ("limited=1 enabled=1 first=307200 second=204800 | code=0", MemState());
}

TEST_F(LegacyMemLimitTest, DoesNothingWhileUnchangedAndInForce) {
    platform().limit.memLimited.Always(true);
    Pass(true);
    EXPECT_EQ(kReached + kUnchanged, Pass(true));
    EXPECT_EQ(kReached + kUnchanged, Pass(true, 7));  // other bits do not count
    EXPECT_EQ(kReached + kUnchanged, Pass(true, -1));
}

TEST_F(LegacyMemLimitTest, TriesAgainOnEveryCallWhileNotInForce) {
    platform().limit.memLimited.Always(false);  // started, yet the kernel does not hold it
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kSuccess, Pass(true));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(kReached + kUnchanged + kTrying + kNoRecord + kPrepared + kStartCall + kSuccess, Pass(true));
    }
}

TEST_F(LegacyMemLimitTest, StartsAgainWhenEitherLimitChanges) {
    platform().limit.memLimited.Always(true);
    Pass(true);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kPrepared + StartCall(1024, 209715200) + kSuccess,
              Pass(true, 4, 1, kSecondKb));
    EXPECT_EQ(kReached + kTrying + kNoRecord + kPrepared + StartCall(1024, 2048) + kSuccess, Pass(true, 4, 1, 2));
    EXPECT_EQ("limited=1 enabled=1 first=1 second=2 | code=0", MemState());
}

TEST_F(LegacyMemLimitTest, WrapsLimitsOf2GigabytesAndMore) {
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + StartCall(-1073741824, INT_MIN) + kSuccess,
              Pass(true, 4, 3145728, 2097152));
    EXPECT_EQ(2097152, pri().m_legacyMemSecondLimit);  // what is compared is the unshifted value
    EXPECT_EQ(kReached + kTrying + kNoRecord + kPrepared + StartCall(-1024, -1024) + kSuccess,
              Pass(true, 4, INT_MAX, INT_MAX));
}

TEST_F(LegacyMemLimitTest, NeverReadsItsFourthArgument) {
    platform().limit.memLimited.Always(true);
    Lines plain = Pass(true, 4, kFirstKb, kSecondKb, false);
    EXPECT_EQ(kReached + kUnchanged, Pass(true, 4, kFirstKb, kSecondKb, true));
    pri().ResetLegacyMemLimitState();
    pri().m_localKernel.major = 0;
    EXPECT_EQ(plain, Pass(true, 4, kFirstKb, kSecondKb, true));
}

// --- refused by the kernel policy ---

TEST_F(LegacyMemLimitTest, RefusesWithoutAllowedListUnread) {
    pri().m_memLimitKernelRange = "";
    EXPECT_EQ(kReached + kTrying + kNoRecord + WrongKernel(""), Pass(false));
    EXPECT_FALSE(HasRecord());
    EXPECT_EQ("limited=0 enabled=1 first=307200 second=204800 | code=0", MemState());  // stored although refused
    EXPECT_EQ(kReached + kUnchanged + kTrying + kNoRecord + WrongKernel(""), Pass(false));
}

TEST_F(LegacyMemLimitTest, RefusesABlankList) {
    pri().m_memLimitKernelRange = "  ";
    EXPECT_EQ(kReached + kTrying + kNoRecord + WrongKernel(""), Pass(false));
}

TEST_F(LegacyMemLimitTest, RefusesAKernelOutsideTheList) {
    pri().m_memLimitKernelRange = "4.9.93-010,4.9.151-014 5.10.0-1,5.10.134-99";
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + WrongKernel("6.1.0-13-cloud-amd64"), Pass(false));
    EXPECT_EQ(kReached + kUnchanged + kTrying + kNoRecord + WrongKernel("6.1.0-13-cloud-amd64"), Pass(false));
    EXPECT_FALSE(HasRecord());
}

TEST_F(LegacyMemLimitTest, RefusesAKernelThatCannotBeRead) {
    platform().kernel.unameResult = -1;
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + WrongKernel(""), Pass(false));
}

TEST_F(LegacyMemLimitTest, PrintsReleaseWithoutListOnceItWasRead) {
    ASSERT_TRUE(pri().GetLocalKernel());
    journal();
    pri().m_memLimitKernelRange = "";
    EXPECT_EQ(kReached + kTrying + kNoRecord + WrongKernel("6.1.0-13-cloud-amd64"), Pass(false));
}

TEST_F(LegacyMemLimitTest, HandsExcludeListsOverWithoutMatchingThem) {
    pri().m_memLimitExcludeRange = "6.1.0-0,6.9.0-0";  // covers the local kernel: the limit object decides
    pri().m_memLimitExcludeKernels = "6.1.0-13";
    EXPECT_EQ(
        kReached + kTrying + kNoRecord + kKernelRead +
            Lines({"GetResourceLimitUtil()", "IResourceLimitUtil::SetKernelExcludeLists(2,6.1.0-0,6.9.0-0,6.1.0-13)",
                   "IResourceLimitUtil::PrepareMemLimit()"}) +
            kStartCall + kSuccess,
        Pass(true));
}

TEST_F(LegacyMemLimitTest, HandsExcludeListsOverWhenOnlyOneIsThere) {
    pri().m_memLimitExcludeKernels = "4.9";
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead +
                  Lines({"GetResourceLimitUtil()", "IResourceLimitUtil::SetKernelExcludeLists(2,,4.9)",
                         "IResourceLimitUtil::PrepareMemLimit()"}) +
                  kStartCall + kSuccess,
              Pass(true));
    pri().m_memLimitExcludeKernels = "";
    pri().m_memLimitExcludeRange = "4.9.0-1,4.9.9-1";
    EXPECT_EQ(kReached + kUnchanged + kTrying + kNoRecord +
                  Lines({"GetResourceLimitUtil()", "IResourceLimitUtil::SetKernelExcludeLists(2,4.9.0-1,4.9.9-1,)",
                         "IResourceLimitUtil::PrepareMemLimit()"}) +
                  kStartCall + kSuccess,
              Pass(true));
}

// --- failures of the limit object ---

TEST_F(LegacyMemLimitTest, DoesNotStartWhatCouldNotBePrepared) {
    platform().limit.prepareMem.Always(2);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + Failed(2, 0), Pass(false));
    EXPECT_FALSE(HasRecord());
    EXPECT_EQ("limited=0 enabled=1 first=307200 second=204800 | code=0", MemState());
}

TEST_F(LegacyMemLimitTest, PutsAFailedPreparationOnRecord) {
    platform().limit.prepareMem.Always(13);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kRecorded + Failed(13, 0), Pass(false));
    EXPECT_EQ("13-1700000000", Record());
}

TEST_F(LegacyMemLimitTest, LeavesFlagAndTheCodeAloneWhenAStartFails) {
    platform().limit.memLimited.Always(true);
    Pass(true);
    platform().limit.startMem.Always({9, 22});
    platform().limit.memLimited.Always(false);
    EXPECT_EQ(kReached + kTrying + kNoRecord + kPrepared + StartCall(2048, 1024) + Failed(9, 22), Pass(false, 4, 2, 1));
    EXPECT_EQ("limited=1 enabled=1 first=2 second=1 | code=0", MemState());
}

TEST_F(LegacyMemLimitTest, TriesAgainAtOnceAfterUnrecordedFailure) {
    platform().limit.startMem.Always({9, 22});
    Pass(false);
    EXPECT_EQ(kReached + kUnchanged + kTrying + kNoRecord + kPrepared + kStartCall + Failed(9, 22), Pass(false));
}

TEST_F(LegacyMemLimitTest, HoldsBack12HoursAfterMountOrWriteFailure) {
    platform().limit.startMem.Then({105, 30});
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kRecorded + Failed(105, 30),
              Pass(false));
    EXPECT_EQ("105-1700000000", Record());

    const Lines heldBack = kReached + kUnchanged + kTrying + kHasRecord + kHeldBack;
    EXPECT_EQ(heldBack, Pass(false));
    platform().now += 43199;
    EXPECT_EQ(heldBack, Pass(false));
    EXPECT_EQ("105-1700000000", Record());  // being held back does not extend the hold

    platform().now += 1;
    EXPECT_EQ(kReached + kUnchanged + kTrying + kHasRecord +
                  Lines({"CFileUtil::RemoveFile(/opt/agent/home/cgroup_errors)"}) + kPrepared + kStartCall + kSuccess,
              Pass(true));
}

TEST_F(LegacyMemLimitTest, LogsFailureAlsoWhenItCannotBePutOnRecord) {
    platform().limit.startMem.Always({119, 5});
    platform().files.failWrite.insert("/opt/agent/home/cgroup_errors");
    EXPECT_EQ(kReached + kTrying + kNoRecord + kKernelRead + kPrepared + kStartCall + kRecorded + Failed(119, 5),
              Pass(false));
}

TEST_F(LegacyMemLimitTest, LooksAtTheRecordBeforeTheKernel) {
    platform().files.content["/opt/agent/home/cgroup_errors"] = "13-1700000000";
    pri().m_memLimitKernelRange = "";
    EXPECT_EQ(kReached + kTrying + kHasRecord + kHeldBack, Pass(false));
    pri().m_memLimitKernelRange = "4.9.0-1,4.9.9-1";
    EXPECT_EQ(kReached + kUnchanged + kTrying + kHasRecord + kHeldBack, Pass(false));
    EXPECT_EQ(0, platform().kernel.unameCalls);
}

TEST_F(LegacyMemLimitTest, StopsAlsoWhileARecordHoldsStartsBack) {
    platform().files.content["/opt/agent/home/cgroup_errors"] = "13-1700000000";
    Pass(false);
    EXPECT_EQ(kReached + kStopped, Pass(true, 0));
}

TEST_F(LegacyMemLimitTest, TouchesNoLimitObjectWhenItRefuses) {
    platform().limit.present = false;
    pri().m_memLimitKernelRange = "";
    EXPECT_EQ(kReached + kTrying + kNoRecord + WrongKernel(""), Pass(false));
    platform().files.content["/opt/agent/home/cgroup_errors"] = "13-1700000000";
    EXPECT_EQ(kReached + kUnchanged + kTrying + kHasRecord + kHeldBack, Pass(false));
}
