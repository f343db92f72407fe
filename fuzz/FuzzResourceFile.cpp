// Feeds arbitrary bytes as a resource configuration file to the private object on the scripted platform, and holds
// what it published and applied against rules that must be true for any file.
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "MonitorPri.h"
#include "core/LimitConversion.h"
#include "doubles/Platform.h"

namespace {

constexpr size_t kMaxInput = 1 << 20;

void Require(bool holds, const char* rule) {
    if (holds) return;
    fprintf(stderr, "broken rule: %s\n", rule);
    abort();
}

/// The file that the parser opens; gone when the program ends.
class TemporaryFile {
public:
    TemporaryFile() {
        const char* folder = getenv("TMPDIR");
        m_path = std::string(folder != nullptr ? folder : "/tmp") + "/fuzz_resource_file_XXXXXX";
        m_fd = mkstemp(m_path.data());
        Require(m_fd >= 0, "a temporary file can be made");
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        close(m_fd);
        unlink(m_path.c_str());
    }
    void Replace(const uint8_t* data, size_t size) {
        Require(ftruncate(m_fd, 0) == 0, "the temporary file can be emptied");
        for (size_t at = 0; at < size;) {
            const ssize_t written = pwrite(m_fd, data + at, size - at, static_cast<off_t>(at));
            Require(written > 0, "the temporary file can be written");
            at += static_cast<size_t>(written);
        }
    }
    const std::string& path() const { return m_path; }

private:
    int m_fd;
    std::string m_path;
};

/// What one file leads to.
struct Outcome {
    ResourceConfig config;
    long maxCpu = 0, maxMemory = 0, mode = 0, cpuAll = 0, effectiveCpu = 0;
    int effectiveMem = 0;
    std::string groups, components;

    bool operator==(const Outcome& o) const {
        return config.maxCpu == o.config.maxCpu && config.maxMemory == o.config.maxMemory &&
               config.maxFd == o.config.maxFd && config.maxReadIo == o.config.maxReadIo &&
               config.maxWriteIo == o.config.maxWriteIo && config.maxPidCheck == o.config.maxPidCheck &&
               config.cpuAll == o.config.cpuAll && maxCpu == o.maxCpu && maxMemory == o.maxMemory && mode == o.mode &&
               cpuAll == o.cpuAll && effectiveCpu == o.effectiveCpu && effectiveMem == o.effectiveMem &&
               groups == o.groups && components == o.components;
    }
};

bool IsInt32(long value) {
    return value >= INT_MIN && value <= INT_MAX;
}

class Probe : public CMonitorPri {
public:
    explicit Probe(bool isMain) { m_isMainAgent = isMain; }

    Outcome ParseAndCheck(const std::string& path) {
        Outcome out;
        Require(ParseMonitorConfig(path, out.config), "a readable file is accepted, whatever is in it");
        const COnlineClientConf& conf = *CSingleton<COnlineClientConf>::GetInstance();
        out.maxCpu = conf.maxCpu.Get();
        out.maxMemory = conf.maxMemory.Get();
        out.mode = conf.resourceLimitMode.Get();
        out.cpuAll = conf.cpuAll.Get();
        out.effectiveCpu = m_effectiveMaxCpu;
        out.effectiveMem = m_effectiveMaxMem;
        out.groups = m_cgroupGroupsSpec;
        out.components = m_cgroupComponentsSpec;

        Require(conf.groupMaxCpu.Get() == out.maxCpu && conf.groupMaxMemory.Get() == out.maxMemory,
                "the group pair is published as configured");
        for (const long value : {out.maxCpu, out.maxMemory, out.mode, conf.maxReadIo.Get(), conf.maxWriteIo.Get(),
                                 conf.maxPidCheck.Get(), conf.hashMode.Get()}) {
            Require(IsInt32(value), "published values have 32 bits");
        }
        Require(out.cpuAll == (out.config.cpuAll ? 1 : 0), "cpu_all is published as 0 or 1");
        Require(conf.maxFdCount.Get() == 0, "the descriptor limit is not published");
        Require(conf.maxReadIo.Get() == out.config.maxReadIo && conf.maxWriteIo.Get() == out.config.maxWriteIo &&
                    conf.maxPidCheck.Get() == out.config.maxPidCheck,
                "the record and the online configuration agree");
        Require(out.config.auxValueA == 5 && out.config.auxValueB == 0, "no key sets the auxiliary values");

        long cpu = out.maxCpu;
        int mem = static_cast<int>(out.maxMemory);
        if ((out.mode & MULTI_CGROUP_MODE_UNIFIED) != 0) RelaxMultiCgroupLimits(cpu, mem, out.config.cpuAll);
        Require(out.effectiveCpu == cpu && out.effectiveMem == mem, "the maxima in force are widened in unified mode");
        Require(out.config.maxCpu >= 0 && out.config.maxMemory >= 0, "thresholds are never negative");
        if (!m_unifiedCpuQuotaActive) {
            Require(out.config.maxCpu == (cpu < 1 ? 0 : cpu), "without a quota the CPU threshold is the maximum");
        }
        if (!m_unifiedMemQuotaActive) {
            Require(out.config.maxMemory == (mem < 1 ? 0 : mem), "without a quota the memory threshold is the maximum");
        }
        return out;
    }
};

Outcome Run(const std::string& path, bool isMain, bool online) {
    doubles::ResetPlatform();
    doubles::P().files.alsoFiles.insert(path);
    doubles::P().manager.cpuEnabled.Always(true);
    doubles::P().manager.memEnabled.Always(true);
    COnlineClientConf conf;
    Probe probe(isMain);
    const Outcome outcome = probe.ParseAndCheck(path);
    if (online) probe.OnUpdate();  // takes whatever the file published
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static TemporaryFile file;
    if (size > kMaxInput) return 0;
    file.Replace(data, size);
    const Outcome component = Run(file.path(), false, true);
    Require(component == Run(file.path(), false, false), "one file always means the same");
    const Outcome main = Run(file.path(), true, true);
    Require(component.maxCpu == main.maxCpu && component.maxMemory == main.maxMemory && component.mode == main.mode &&
                component.groups == main.groups && component.components == main.components,
            "the main process reads the file like any other");
    doubles::ForgetOnlineConf();
    return 0;
}
