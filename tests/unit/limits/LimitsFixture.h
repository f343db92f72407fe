// What the tests of the legacy limits share: a process that is the agent's main one or not, a cgroup manager and a
// cgroup client that are there or not, and the legacy state set to values that a reset must clear.
#pragma once

#include <memory>
#include <string>

#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"
#include "support/MonitorFixture.h"

class LimitsFixture : public MonitorFixture {
protected:
    void TearDown() override {
        pri().m_cgroupManager = nullptr;
        pri().m_cgroupClient = nullptr;
        m_manager.reset();
        m_client.reset();
        MonitorFixture::TearDown();
    }

    /// The main process with the unified mode in charge and a manager.
    void BeUnifiedMain() {
        pri().m_isMainAgent = true;
        pri().m_unifiedActive = true;
        HaveManager();
    }
    void HaveManager() {
        m_manager = std::make_unique<zel::CCgroupManager>();
        pri().m_cgroupManager = m_manager.get();
        journal();
    }
    void HaveClient() {
        m_client = std::make_unique<zel::CCgroupClient>();
        pri().m_cgroupClient = m_client.get();
        journal();
    }
    /// A component process whose client sits in a version 2 group of the memory controller only.
    void BeClientInV2MemoryGroup() {
        HaveClient();
        platform().client.memJoined.Always(true);
        platform().client.memPath.Always("/sys/fs/cgroup/zel.agent/main");
        platform().files.existing.insert("/sys/fs/cgroup/zel.agent/main/cgroup.controllers");
    }
    /// The same for the CPU controller only.
    void BeClientInV2CpuGroup() {
        HaveClient();
        platform().client.cpuJoined.Always(true);
        platform().client.cpuPath.Always("/sys/fs/cgroup/zel.agent/main");
        platform().files.existing.insert("/sys/fs/cgroup/zel.agent/main/cgroup.controllers");
    }

    /// Every legacy member away from its initial value.
    void FillLegacyState() {
        pri().m_resourceLimited = true;
        pri().m_legacyCpuEnabled = true;
        pri().m_legacyCpuErrorCode = 50013;
        pri().m_legacyCpuMode = 5;
        pri().m_legacyCpuLimitValue = 950;
        pri().m_legacyCpuCallCount = 17;
        pri().m_legacyCpuLastRetryTime = 1699999000;
        pri().m_legacyMemLimited = true;
        pri().m_legacyMemEnabled = true;
        pri().m_legacyMemFirstLimit = 307200;
        pri().m_legacyMemSecondLimit = 204800;
        pri().m_legacyMemErrorCode = 70002;
    }
    /// The four values of each half that a reset clears, then those that it keeps.
    std::string CpuState() {
        return doubles::Format("limited=%d enabled=%d value=%d retry=%lld | code=%d mode=%d count=%d",
                               static_cast<int>(pri().m_resourceLimited), static_cast<int>(pri().m_legacyCpuEnabled),
                               static_cast<int>(pri().m_legacyCpuLimitValue),
                               static_cast<long long>(pri().m_legacyCpuLastRetryTime),
                               static_cast<int>(pri().m_legacyCpuErrorCode), static_cast<int>(pri().m_legacyCpuMode),
                               static_cast<int>(pri().m_legacyCpuCallCount));
    }
    std::string MemState() {
        return doubles::Format(
            "limited=%d enabled=%d first=%d second=%d | code=%d", static_cast<int>(pri().m_legacyMemLimited),
            static_cast<int>(pri().m_legacyMemEnabled), static_cast<int>(pri().m_legacyMemFirstLimit),
            static_cast<int>(pri().m_legacyMemSecondLimit), static_cast<int>(pri().m_legacyMemErrorCode));
    }
    static constexpr const char* kCpuFilled =
        "limited=1 enabled=1 value=950 retry=1699999000 | code=50013 mode=5 count=17";
    static constexpr const char* kCpuForgotten = "limited=0 enabled=0 value=0 retry=0 | code=50013 mode=5 count=17";
    static constexpr const char* kMemFilled = "limited=1 enabled=1 first=307200 second=204800 | code=70002";
    static constexpr const char* kMemForgotten = "limited=0 enabled=0 first=0 second=0 | code=70002";

    std::unique_ptr<zel::CCgroupManager> m_manager;
    std::unique_ptr<zel::CCgroupClient> m_client;
};

/// One list after the other.
inline Lines operator+(Lines head, const Lines& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}
