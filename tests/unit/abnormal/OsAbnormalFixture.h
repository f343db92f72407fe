// What the tests of the OS abnormal monitor start from: a new scripted platform, an online configuration with the
// switch on, and one monitor whose data members are open. The host is well: 50 % used, 8000 MB available.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "OsAbnormalMonitor.h"
#include "doubles/Platform.h"
#include "platform/host/OnlineClientConf.h"

class OsAbnormalMonitorProbe : public COsAbnormalMonitor {
public:
    using COsAbnormalMonitor::m_diskFull;
    using COsAbnormalMonitor::m_eventStore;
    using COsAbnormalMonitor::m_initialised;
    using COsAbnormalMonitor::m_lastMemUsage;
    using COsAbnormalMonitor::m_lastReportTick;
    using COsAbnormalMonitor::m_lastSwapTime;
    using COsAbnormalMonitor::m_memRising;
    using COsAbnormalMonitor::m_prevSwapIndex;
    using COsAbnormalMonitor::m_stopRequested;
    using COsAbnormalMonitor::m_swapThresholds;
};

class OsAbnormalFixture : public ::testing::Test {
protected:
    using Strings = std::vector<std::string>;

    void SetUp() override {
        LowerSwapAlarm();
        doubles::ResetPlatform();
        m_conf = std::make_unique<COnlineClientConf>();
        m_conf->osAbnormalSwitch.Set(1);
        m_monitor = std::make_unique<OsAbnormalMonitorProbe>();
        platform().TakeJournal();
    }
    void TearDown() override {
        m_monitor.reset();
        m_conf.reset();
        doubles::ForgetOnlineConf();
    }

    OsAbnormalMonitorProbe& monitor() { return *m_monitor; }
    COnlineClientConf& conf() { return *m_conf; }
    doubles::Platform& platform() { return doubles::P(); }
    Strings journal() { return doubles::P().TakeJournal(); }

    /// Sets an online value without leaving a line in the journal.
    void Set(CAtomicInt64<long>& value, long to) {
        value.Set(to);
        if (!platform().journal.empty()) platform().journal.pop_back();
    }

    /// The swap alarm outlives monitors. It goes down on a tick that the interval divides, inside the interval.
    static void LowerSwapAlarm() {
        doubles::ResetPlatform();
        COnlineClientConf conf;
        conf.osAbnormalSwitch.Set(1);
        conf.osAbnormalReportInterval.Set(10);
        OsAbnormalMonitorProbe monitor;
        doubles::P().memory = {90, 8000};
        monitor.m_lastReportTick = 9;
        monitor.CheckOsAbnormal(10);
        doubles::ForgetOnlineConf();
    }

    /// Text of /proc/vmstat in which each of the `raised` first indices stands at `value`, the others at 0.
    static std::string Vmstat(unsigned long value, size_t raised = 10) {
        static const char* const names[] = {"pgmajfault",        "pgsteal_kswapd_dma",  "pgsteal_kswapd_dma32",
                                            "pgscan_kswapd_dma", "pgscan_kswapd_dma32", "pageoutrun",
                                            "pgrotated",         "nr_vmscan_write",     "nr_vmscan_immediate_reclaim",
                                            "workingset_refault"};
        std::string text = "nr_free_pages 12345\n";
        for (size_t i = 0; i < 10; ++i) {
            text += std::string(names[i]) + " " + std::to_string(i < raised ? value : 0) + "\n";
        }
        return text + "nr_unstable 0\n";
    }

    static Json::Value Parsed(const std::string& text) {
        Json::Value root;
        EXPECT_TRUE(Json::Reader().parse(text, root)) << text;
        return root;
    }

    std::unique_ptr<COnlineClientConf> m_conf;
    std::unique_ptr<OsAbnormalMonitorProbe> m_monitor;
};
