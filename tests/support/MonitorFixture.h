// What every unit test of the private object starts from: a new scripted platform, an online configuration and one
// CMonitorPri whose data members are open.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "MonitorPri.h"
#include "doubles/Platform.h"

/// CMonitorPri with its data members opened to the tests.
class MonitorPriProbe : public CMonitorPri {
public:
    using CMonitorPri::m_appName;
    using CMonitorPri::m_cgroupClient;
    using CMonitorPri::m_cgroupComponentsSpec;
    using CMonitorPri::m_cgroupGroupsSpec;
    using CMonitorPri::m_cgroupManager;
    using CMonitorPri::m_configPath;
    using CMonitorPri::m_effectiveMaxCpu;
    using CMonitorPri::m_effectiveMaxMem;
    using CMonitorPri::m_heartbeatTimerId;
    using CMonitorPri::m_ipcBroadcastCallback;
    using CMonitorPri::m_isMainAgent;
    using CMonitorPri::m_lastRuntimeOomReportTime;
    using CMonitorPri::m_lastUnifiedMaxCpu;
    using CMonitorPri::m_lastUnifiedMaxMem;
    using CMonitorPri::m_lastUnifiedMode;
    using CMonitorPri::m_legacyCpuCallCount;
    using CMonitorPri::m_legacyCpuEnabled;
    using CMonitorPri::m_legacyCpuErrorCode;
    using CMonitorPri::m_legacyCpuLastRetryTime;
    using CMonitorPri::m_legacyCpuLimitValue;
    using CMonitorPri::m_legacyCpuMode;
    using CMonitorPri::m_legacyMemEnabled;
    using CMonitorPri::m_legacyMemErrorCode;
    using CMonitorPri::m_legacyMemFirstLimit;
    using CMonitorPri::m_legacyMemLimited;
    using CMonitorPri::m_legacyMemSecondLimit;
    using CMonitorPri::m_localKernel;
    using CMonitorPri::m_memLimitExcludeKernels;
    using CMonitorPri::m_memLimitExcludeRange;
    using CMonitorPri::m_memLimitKernelRange;
    using CMonitorPri::m_osAbnormalMonitor;
    using CMonitorPri::m_resourceLimited;
    using CMonitorPri::m_unifiedActive;
    using CMonitorPri::m_unifiedCpuQuota100Times;
    using CMonitorPri::m_unifiedCpuQuotaActive;
    using CMonitorPri::m_unifiedMemQuotaActive;
    using CMonitorPri::m_unifiedMemQuotaKB;
};

class MonitorFixture : public ::testing::Test {
protected:
    void SetUp() override {
        doubles::ResetPlatform();
        m_conf = std::make_unique<COnlineClientConf>();
        m_pri = std::make_unique<MonitorPriProbe>();
        doubles::P().TakeJournal();
        doubles::P().logs.clear();
    }
    void TearDown() override {
        m_pri.reset();
        m_conf.reset();
        doubles::ForgetOnlineConf();
    }

    MonitorPriProbe& pri() { return *m_pri; }
    COnlineClientConf& conf() { return *m_conf; }
    doubles::Platform& platform() { return doubles::P(); }
    /// Takes the journal since the last call.
    std::vector<std::string> journal() { return doubles::P().TakeJournal(); }

    std::unique_ptr<COnlineClientConf> m_conf;
    std::unique_ptr<MonitorPriProbe> m_pri;
};

using Lines = std::vector<std::string>;
