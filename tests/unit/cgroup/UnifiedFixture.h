// What the unified mode's tests share: the usual process, its paths, and journals without the parent's getters.
#pragma once

#include <string>
#include <vector>

#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"
#include "support/MonitorFixture.h"

inline void RecordBroadcast(const std::string& type, const std::string& body) {
    doubles::P().Record("broadcast(" + type + "," + body + ")");
}

constexpr const char* kComponentFile = "/opt/agent/home/conf/cgroup_resource.json";
constexpr const char* kBackupFile = "/opt/agent/home/conf/cgroup_resource.json.legacy_exit.bak";
constexpr const char* kBroadcast = "broadcast(T_MSG_IPC_CGROUP_CONFIG_NOTIFY,{})";
constexpr const char* kNotified = "W4 MonitorPri: sent cgroup config change notify via IPC";

/// The main process with a broadcast callback.
class UnifiedFixture : public MonitorFixture {
protected:
    void SetUp() override {
        MonitorFixture::SetUp();
        pri().m_isMainAgent = true;
        pri().m_ipcBroadcastCallback = RecordBroadcast;
    }

    /// Gives the process a manager, as an earlier initialisation does.
    void HaveManager() {
        pri().m_cgroupManager = new zel::CCgroupManager;
        journal();
    }

    void HaveClient() { pri().m_cgroupClient = &m_client; }

    void HaveComponentFile() { platform().files.content[kComponentFile] = "component config"; }
    bool ComponentFileExists() { return platform().files.content.count(kComponentFile) != 0; }

    /// The legacy limits as they are after both were applied.
    void HaveLegacyLimits() {
        pri().m_resourceLimited = true;
        pri().m_legacyCpuEnabled = true;
        pri().m_legacyCpuLimitValue = 950;
        pri().m_legacyCpuLastRetryTime = 1;
        pri().m_legacyMemLimited = true;
        pri().m_legacyMemEnabled = true;
        pri().m_legacyMemFirstLimit = 307200;
        pri().m_legacyMemSecondLimit = 204800;
    }
    bool LegacyLimitsForgotten() {
        return !pri().m_resourceLimited && !pri().m_legacyCpuEnabled && pri().m_legacyCpuLimitValue == 0 &&
               pri().m_legacyCpuLastRetryTime == 0 && !pri().m_legacyMemLimited && !pri().m_legacyMemEnabled &&
               pri().m_legacyMemFirstLimit == 0 && pri().m_legacyMemSecondLimit == 0;
    }

    void HaveSelfKillQuota() {
        pri().m_unifiedCpuQuotaActive = true;
        pri().m_unifiedMemQuotaActive = true;
        pri().m_unifiedCpuQuota100Times = 36;
        pri().m_unifiedMemQuotaKB = 15360;
    }
    bool SelfKillQuotaCleared() {
        return !pri().m_unifiedCpuQuotaActive && !pri().m_unifiedMemQuotaActive &&
               pri().m_unifiedCpuQuota100Times == 0 && pri().m_unifiedMemQuotaKB == 0;
    }

    void Remember(int mode, long maxCpu, int maxMem) {
        pri().m_lastUnifiedMode = mode;
        pri().m_lastUnifiedMaxCpu = maxCpu;
        pri().m_lastUnifiedMaxMem = maxMem;
    }
    /// "mode cpu mem" on record.
    std::string Remembered() {
        return doubles::Format("%d %ld %d", pri().m_lastUnifiedMode, static_cast<long>(pri().m_lastUnifiedMaxCpu),
                               pri().m_lastUnifiedMaxMem);
    }

    /// From here on a broadcast also records what holds at the moment of the notification.
    void WatchBroadcasts() {
        Watching() = this;
        pri().m_ipcBroadcastCallback = [](const std::string&, const std::string&) {
            UnifiedFixture& test = *Watching();
            test.m_broadcasts.push_back(
                doubles::Format("active=%d last=%s legacy=%s", static_cast<bool>(test.pri().m_unifiedActive),
                                test.Remembered().c_str(), test.LegacyLimitsForgotten() ? "forgotten" : "kept"));
        };
    }
    static UnifiedFixture*& Watching() {
        static UnifiedFixture* watching = nullptr;
        return watching;
    }

    /// The journal without the questions about the parent, whose place among the steps is free.
    Lines steps() {
        Lines kept;
        for (const std::string& line : journal()) {
            if (line.find("CCgroupManager::IsParent") != 0 && line.find("CCgroupManager::GetParent") != 0) {
                kept.push_back(line);
            }
        }
        return kept;
    }

    zel::CCgroupClient m_client;
    Lines m_broadcasts;
};
