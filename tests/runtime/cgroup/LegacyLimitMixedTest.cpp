// The legacy limit where the kernel has cpu on version 1 and memory on version 2. tests/system/vm runs it in a guest.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "LegacyLimit.h"
#include "RealKernel.h"
#include "support/Files.h"
#include "support/RecordedLog.h"

using namespace zel::cgroup;

namespace {

constexpr int kMegabyte = 1 << 20;

class LegacyLimitMixedTest : public testing::Test {
protected:
    void SetUp() override {
        auto texts = ReadLayout();
        ASSERT_TRUE(texts.Ok());
        m_cpu = FindHierarchy(Controller::kCpu, *texts);
        m_memory = FindHierarchy(Controller::kMemory, *texts);
        const bool usable = geteuid() == 0 && m_cpu.version == Version::kV1 && m_memory.version == Version::kV2 &&
                            !m_cpu.readOnly && m_memory.ownPath == "/";
        if (!usable) {
            // In the machine that was booted for this, a skip would hide the failure.
            const char* layout = getenv("ZEL_VM_LAYOUT");
            ASSERT_FALSE(layout != nullptr && strcmp(layout, "mixed") == 0) << m_cpu.reason << "; " << m_memory.reason;
            GTEST_SKIP() << "SKIP direct mixed: " << m_cpu.reason << "; " << m_memory.reason << "; covered by vm mixed";
        }
        LegacyOptions options;
        options.groupName = m_group;
        options.treeName = m_name;
        options.applicationDir = "/opt/zeltest-nowhere";
        options.nowMs = [nowMs = int64_t{0}]() mutable { return nowMs += 5000; };
        m_limit = std::make_unique<LegacyLimit>(std::move(options));
        support::TakeLogLines();
    }
    std::string Cpu(const std::string& file = "") const { return m_cpu.mountPoint + "/" + m_group + file; }
    std::string Memory(const std::string& file = "") const { return m_memory.mountPoint + "/" + m_group + file; }
    static std::string GroupIn(const Hierarchy& hierarchy) {
        return ReadGroupOf(static_cast<int>(getpid()), hierarchy).Value();
    }

    Hierarchy m_cpu;
    Hierarchy m_memory;
    const std::string m_name = "zeltest-" + std::to_string(getpid());
    const std::string m_group = m_name + ".legacy";
    std::unique_ptr<LegacyLimit> m_limit;
    int m_error = 0;
};

TEST_F(LegacyLimitMixedTest, EachLimitIsInForceOnItsOwnVersion) {
    ASSERT_EQ(kLegacyOk, m_limit->StartCpuLimit(9, 50, m_error));
    EXPECT_EQ("9500", ReadValue(Cpu("/cpu.cfs_quota_us")));
    EXPECT_FALSE(m_limit->IsV2Runtime(Controller::kCpu));
    ASSERT_EQ(kLegacyOk, m_limit->PrepareMemLimit());
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(96 * kMegabyte, 64 * kMegabyte, m_error));
    EXPECT_EQ(std::to_string(96 * kMegabyte), ReadValue(Memory("/memory.max")));
    EXPECT_TRUE(m_limit->IsV2Runtime(Controller::kMemory));
    EXPECT_EQ("/" + m_group, GroupIn(m_cpu));
    EXPECT_EQ("/" + m_group, GroupIn(m_memory));

    ASSERT_EQ(kLegacyOk, m_limit->StopCpuLimit(m_error));
    EXPECT_EQ("/", GroupIn(m_cpu));
    EXPECT_FALSE(support::Exists(Cpu()));
    EXPECT_TRUE(m_limit->IsMemLimited()) << "the end of one is not the end of the other";
    EXPECT_EQ(std::to_string(96 * kMegabyte), ReadValue(Memory("/memory.max")));
    ASSERT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
    EXPECT_EQ("/", GroupIn(m_memory));
    EXPECT_FALSE(support::Exists(Memory()));
}

TEST_F(LegacyLimitMixedTest, TheMemoryLimitComesAndGoesAlone) {
    ASSERT_EQ(kLegacyOk, m_limit->PrepareMemLimit());
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(96 * kMegabyte, 64 * kMegabyte, m_error));
    EXPECT_EQ("/" + m_group, GroupIn(m_memory));
    EXPECT_EQ("/", GroupIn(m_cpu));
    EXPECT_FALSE(m_limit->IsCpuLimited());
    ASSERT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
    EXPECT_FALSE(support::Exists(Memory()));
}

}  // namespace
