// What the tests of src/core share: real configuration files, and the blocks that recur in the journals.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/MonitorFixture.h"

/// One journal out of several blocks.
inline Lines Joined(std::initializer_list<Lines> blocks) {
    Lines all;
    for (const Lines& block : blocks) all.insert(all.end(), block.begin(), block.end());
    return all;
}

/// What is published at parse time, in the order of publication.
struct Published {
    long maxCpu = 10, cpuAll = 0, maxPidCheck = 100, maxMemory = 200, mode = 0, maxWriteIo = 20480, maxReadIo = 20480,
         hashMode = 0;

    Lines lines() const {
        const auto set = [](const char* name, long value) {
            return doubles::Format("COnlineClientConf::%s.Set(%ld)", name, value);
        };
        return {set("maxCpu", maxCpu),          set("cpuAll", cpuAll),         set("maxPidCheck", maxPidCheck),
                set("maxMemory", maxMemory),    set("groupMaxCpu", maxCpu),    set("groupMaxMemory", maxMemory),
                set("resourceLimitMode", mode), set("maxWriteIo", maxWriteIo), set("maxReadIo", maxReadIo),
                set("hashMode", hashMode)};
    }
};

/// The legacy CPU limit taken off (or never put on): its first pass with the CPU bit clear.
inline Lines LegacyCpuOff(int mode, int maxCpu) {
    return {"IsResourceLimitCpuCgroupV2Runtime()",
            "CResourceMonitor::IsCpuSolarisMode()",
            "GetResourceLimitUtil()",
            "IResourceLimitUtil::SyncCpuLimit()",
            doubles::Format("F4 [MonitorPri] resource mode user conf:%d", mode),
            doubles::Format("F4 [MonitorPri] resource cpu user conf:%d", maxCpu),
            "F4 [MonitorPri] resource get res:0",
            "W4 match 0 try to close resource limit",
            "IResourceLimitUtil::StopCpuLimit(error=0)",
            "IResourceLimitUtil::IsCpuLimited()"};
}

/// The legacy CPU limit put on.
inline Lines LegacyCpuOn(int mode, int maxCpu, int percent, int hundredths) {
    return {"IsResourceLimitCpuCgroupV2Runtime()",
            "CResourceMonitor::IsCpuSolarisMode()",
            "GetResourceLimitUtil()",
            "IResourceLimitUtil::SyncCpuLimit()",
            doubles::Format("F4 [MonitorPri] resource mode user conf:%d", mode),
            doubles::Format("F4 [MonitorPri] resource cpu user conf:%d", maxCpu),
            "F4 [MonitorPri] resource get res:1",
            "W4 not match 0 try to start resource limit",
            doubles::Format("IResourceLimitUtil::StartCpuLimit(%d,%d,error=0)", percent, hundredths),
            "W4 limit cpu success",
            "IResourceLimitUtil::IsCpuLimited()"};
}

/// A pass of the legacy CPU limit with the settings of the pass before.
inline Lines LegacyCpuUnchanged() {
    return {"IsResourceLimitCpuCgroupV2Runtime()", "CResourceMonitor::IsCpuSolarisMode()", "GetResourceLimitUtil()",
            "IResourceLimitUtil::SyncCpuLimit()", "W4 resource limit mode and max limit cpu is not change"};
}

inline Lines LegacyMemOff() {
    return {"IsResourceLimitMemCgroupV2Runtime()", "W4 match 0 try to close mem limit", "GetResourceLimitUtil()",
            "IResourceLimitUtil::StopMemLimit(error=0,1)", "IResourceLimitUtil::IsMemLimited()"};
}

inline Lines LegacyMemUnchanged() {
    return {"IsResourceLimitMemCgroupV2Runtime()", "W4 resource limit mode and max limit mem is not change"};
}

/// The main process looks for a component file that an earlier run left behind.
inline Lines NoUnifiedLeftovers() {
    return {"CFileUtil::IsFile(/opt/agent/home/conf/cgroup_resource.json)"};
}

/// A base or member of an object and where it lies.
struct Place {
    const char* name;
    const void* at;
};

/// The first place is the object's own start, each other one lies behind its predecessor.
inline void ExpectInOrder(const void* object, const std::vector<Place>& places) {
    EXPECT_EQ(object, places.front().at) << places.front().name;
    for (size_t i = 1; i < places.size(); ++i) {
        EXPECT_LT(places[i - 1].at, places[i].at) << places[i].name << " lies before " << places[i - 1].name;
    }
}

class CoreFixture : public MonitorFixture {
protected:
    void TearDown() override {
        for (const std::string& path : m_written) unlink(path.c_str());
        MonitorFixture::TearDown();
    }

    /// Writes a real file, which the parser opens itself, and makes the scripted platform call it a regular file.
    std::string WriteConfig(const std::string& text) {
        std::string path = ::testing::TempDir() + "resource_config_XXXXXX";
        const int fd = mkstemp(path.data());
        EXPECT_GE(fd, 0) << path;
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
        close(fd);
        m_written.push_back(path);
        platform().files.alsoFiles.insert(path);
        return path;
    }

    /// The journal since the last call.
    Lines calls() { return journal(); }

private:
    std::vector<std::string> m_written;
};
