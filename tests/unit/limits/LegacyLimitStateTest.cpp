// Resets, detaches and the full disable of the legacy limits.
#include <cstring>

#include "LimitsFixture.h"
#include "platform/zel/ResourceLimitUtil.h"

using zel::IResourceLimitUtil;

class LegacyLimitStateTest : public LimitsFixture {
protected:
    void SetUp() override {
        LimitsFixture::SetUp();
        FillLegacyState();
    }
};

TEST_F(LegacyLimitStateTest, StartsWithNothingApplied) {
    MonitorPriProbe fresh;
    EXPECT_FALSE(fresh.m_resourceLimited);
    EXPECT_FALSE(fresh.m_legacyCpuEnabled);
    EXPECT_EQ(0, fresh.m_legacyCpuErrorCode);
    EXPECT_EQ(-1, fresh.m_legacyCpuMode);
    EXPECT_EQ(0, fresh.m_legacyCpuLimitValue);
    EXPECT_EQ(0, fresh.m_legacyCpuCallCount);
    EXPECT_EQ(0, fresh.m_legacyCpuLastRetryTime);
    EXPECT_FALSE(fresh.m_legacyMemLimited);
    EXPECT_FALSE(fresh.m_legacyMemEnabled);
    EXPECT_EQ(0, fresh.m_legacyMemFirstLimit);
    EXPECT_EQ(0, fresh.m_legacyMemSecondLimit);
    EXPECT_EQ(0, fresh.m_legacyMemErrorCode);
}

TEST_F(LegacyLimitStateTest, CpuResetForgetsFourValuesAndAsksNobody) {
    pri().ResetLegacyCpuLimitState();
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(LegacyLimitStateTest, MemoryResetForgetsFourAndAsksNobody) {
    pri().ResetLegacyMemLimitState();
    EXPECT_EQ(kCpuFilled, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(LegacyLimitStateTest, FullResetForgetsBothHalves) {
    pri().ResetLegacyCgroupLimitState();
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(LegacyLimitStateTest, CpuDetachMakesTheLibraryForgetToo) {
    pri().DetachLegacyCpuRuntimeState();
    EXPECT_EQ(Lines({"ClearResourceLimitCpuCgroupState()"}), journal());
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyLimitStateTest, MemoryDetachMakesTheLibraryForgetToo) {
    pri().DetachLegacyMemRuntimeState();
    EXPECT_EQ(Lines({"ClearResourceLimitMemCgroupState()"}), journal());
    EXPECT_EQ(kCpuFilled, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, ValuesAreForgottenAfterTheLibraryHas) {
    std::string seen;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "ClearResourceLimitCpuCgroupState()") seen += CpuState() == kCpuFilled ? "cpu " : "";
        if (line == "ClearResourceLimitMemCgroupState()") seen += MemState() == kMemFilled ? "mem " : "";
        if (line == "IResourceLimitUtil::ReleaseLimits()") {
            seen += CpuState() == kCpuFilled && MemState() == kMemFilled ? "both " : "";
        }
        return true;
    };
    pri().DetachLegacyCpuRuntimeState();
    pri().DetachLegacyMemRuntimeState();
    FillLegacyState();
    pri().DisableLegacyCgroupLimitState("");
    platform().keepInJournal = nullptr;
    EXPECT_EQ("cpu mem both ", seen);
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, V2DetachChangesNothingOnAVersion1Host) {
    pri().DetachLegacyV2RuntimeState();
    EXPECT_EQ(Lines({"IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()"}), journal());
    EXPECT_EQ(kCpuFilled, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyLimitStateTest, V2DetachTakesTheCpuHalfAlone) {
    platform().limit.cpuV2Runtime.Always(true);
    pri().DetachLegacyV2RuntimeState();
    EXPECT_EQ(Lines({"IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
                     "IsResourceLimitMemCgroupV2Runtime()"}),
              journal());
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemFilled, MemState());
}

TEST_F(LegacyLimitStateTest, V2DetachTakesTheMemoryHalfAlone) {
    platform().limit.memV2Runtime.Always(true);
    pri().DetachLegacyV2RuntimeState();
    EXPECT_EQ(Lines({"IsResourceLimitCpuCgroupV2Runtime()", "IsResourceLimitMemCgroupV2Runtime()",
                     "ClearResourceLimitMemCgroupState()"}),
              journal());
    EXPECT_EQ(kCpuFilled, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, V2DetachAsksForMemoryAfterCpuIsCleared) {
    platform().limit.cpuV2Runtime.Always(true);
    platform().limit.memV2Runtime.Always(true);
    pri().DetachLegacyV2RuntimeState();
    EXPECT_EQ(Lines({"IsResourceLimitCpuCgroupV2Runtime()", "ClearResourceLimitCpuCgroupState()",
                     "IsResourceLimitMemCgroupV2Runtime()", "ClearResourceLimitMemCgroupState()"}),
              journal());
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, DisableRemovesBothLimitsAndForgets) {
    pri().DisableLegacyCgroupLimitState("multi-cgroup unified disabled");
    EXPECT_EQ(Lines({"GetResourceLimitUtil()", "IResourceLimitUtil::StopCpuLimit(error=0)",
                     "IResourceLimitUtil::StopMemLimit(error=0,1)", "IResourceLimitUtil::ReleaseLimits()"}),
              journal());
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, DisableGoesOnAfterAFailedCpuStop) {
    platform().limit.stopCpu.Always({3, 16});
    pri().DisableLegacyCgroupLimitState("multi-cgroup unified disabled");
    EXPECT_EQ(Lines({"GetResourceLimitUtil()", "IResourceLimitUtil::StopCpuLimit(error=0)",
                     "F3 [MonitorPri] MonitorPri: uninstall legacy cpu cgroup failed ret[3] err[16], "
                     "reason[multi-cgroup unified disabled]",
                     "IResourceLimitUtil::StopMemLimit(error=0,1)",  // the error of the first stop is not carried over
                     "IResourceLimitUtil::ReleaseLimits()"}),
              journal());
    EXPECT_EQ(kCpuForgotten, CpuState());  // the error code members are not written
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, DisableGoesOnAfterAFailedMemoryStop) {
    platform().limit.stopMem.Always({-4, 2});
    pri().DisableLegacyCgroupLimitState("why");
    EXPECT_EQ(Lines({"GetResourceLimitUtil()", "IResourceLimitUtil::StopCpuLimit(error=0)",
                     "IResourceLimitUtil::StopMemLimit(error=0,1)",
                     "F3 [MonitorPri] MonitorPri: uninstall legacy mem cgroup failed ret[-4] err[2], reason[why]",
                     "IResourceLimitUtil::ReleaseLimits()"}),
              journal());
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, DisableWithoutAReasonLogsAnEmptyOne) {
    platform().limit.stopCpu.Always({3, 16});
    platform().limit.stopMem.Always({4, 2});
    pri().DisableLegacyCgroupLimitState(nullptr);
    EXPECT_EQ(Lines({"GetResourceLimitUtil()", "IResourceLimitUtil::StopCpuLimit(error=0)",
                     "F3 [MonitorPri] MonitorPri: uninstall legacy cpu cgroup failed ret[3] err[16], reason[]",
                     "IResourceLimitUtil::StopMemLimit(error=0,1)",
                     "F3 [MonitorPri] MonitorPri: uninstall legacy mem cgroup failed ret[4] err[2], reason[]",
                     "IResourceLimitUtil::ReleaseLimits()"}),
              journal());
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

TEST_F(LegacyLimitStateTest, DisableTakesReasonLikeAFormatAsText) {
    platform().limit.stopCpu.Always({1, 1});
    pri().DisableLegacyCgroupLimitState("100%s%n");
    EXPECT_EQ(Lines({"F3 [MonitorPri] MonitorPri: uninstall legacy cpu cgroup failed ret[1] err[1], reason[100%s%n]"}),
              platform().LogJournal());
}

TEST_F(LegacyLimitStateTest, DisableIsAPureResetWithoutALimitObject) {
    platform().limit.present = false;
    pri().DisableLegacyCgroupLimitState("why");
    EXPECT_EQ(Lines({"GetResourceLimitUtil()"}), journal());
    EXPECT_EQ(kCpuForgotten, CpuState());
    EXPECT_EQ(kMemForgotten, MemState());
}

namespace {
/// Place of a virtual operation in its class's table. Source: Itanium C++ ABI, 2.3: the first word of a pointer to a
/// virtual member function is one more than the offset in bytes.
template <class Member>
size_t PlaceInTable(Member member) {
    static_assert(sizeof member == 2 * sizeof(size_t), "not the ABI that the layout is shared in");
    size_t words[2];
    memcpy(words, &member, sizeof words);
    // That it is a place in the table is told by the lowest bit: of the place, or on arm64 of what stands behind it.
    const bool isBehind = (words[1] & 1) != 0;
    return (isBehind ? words[0] : words[0] - 1) / sizeof(void*);
}
}  // namespace

TEST(LegacyLimitObjectTest, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(0U, PlaceInTable(&IResourceLimitUtil::StartCpuLimit));
    EXPECT_EQ(1U, PlaceInTable(&IResourceLimitUtil::StopCpuLimit));
    EXPECT_EQ(2U, PlaceInTable(&IResourceLimitUtil::SyncCpuLimit));
    EXPECT_EQ(3U, PlaceInTable(&IResourceLimitUtil::GetCgroupOtherProcessNum));
    EXPECT_EQ(4U, PlaceInTable(&IResourceLimitUtil::IsSelfRemovedFromCgroup));
    EXPECT_EQ(5U, PlaceInTable(&IResourceLimitUtil::IsCpuLimited));
    EXPECT_EQ(6U, PlaceInTable(&IResourceLimitUtil::PrepareMemLimit));
    EXPECT_EQ(7U, PlaceInTable(&IResourceLimitUtil::IsMemLimited));
    EXPECT_EQ(8U, PlaceInTable(&IResourceLimitUtil::StartMemLimit));
    EXPECT_EQ(9U, PlaceInTable(&IResourceLimitUtil::StopMemLimit));
    EXPECT_EQ(10U, PlaceInTable(&IResourceLimitUtil::ReleaseLimits));
    EXPECT_EQ(11U, PlaceInTable(&IResourceLimitUtil::SetKernelExcludeLists));
}
