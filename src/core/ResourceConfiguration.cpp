// The resource configuration file: reading it, publishing its values into the online configuration and the first
// application of every limit. On the host's starting thread.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "LimitConversion.h"
#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/LimitKeys.h"
#include "platform/zel/StringUtil.h"

namespace {

using IniFile = CSimpleIniTempl<char, SI_GenericNoCase<char>, SI_ConvertA<char>>;

// Keys before any section header.
constexpr const char* kUnnamedSection = "";
// The parser takes a file whole, so what cannot be a configuration must not reach it.
constexpr off_t kMaxFileBytes = 64L * 1024 * 1024;

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

// The parser's own opening would follow a link, wait for a pipe's writer and leak the descriptor into a child process.
std::unique_ptr<FILE, FileCloser> OpenRegularFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return nullptr;
    struct stat info {};
    FILE* file = nullptr;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= kMaxFileBytes) file = fdopen(fd, "rb");
    if (file == nullptr) close(fd);
    return std::unique_ptr<FILE, FileCloser>(file);
}

// Returns: false when the file cannot be read or the parser refuses it, out of memory included.
bool Load(const std::string& path, IniFile& ini) {
    try {
        const std::unique_ptr<FILE, FileCloser> file = OpenRegularFile(path);
        return file != nullptr && ini.LoadFile(file.get()) >= 0;
    } catch (const std::exception&) {
        return false;
    }
}

std::string ReadText(const IniFile& ini, const zel::LimitKey& key) {
    return ini.GetValue(kUnnamedSection, key.resourceName, "");
}

// A value that is no number is converted like any other; the conversion decides what it is worth.
int ReadInt(const IniFile& ini, const zel::LimitKey& key) {
    const std::string fallback = std::to_string(key.byDefault);
    const char* text = ini.GetValue(kUnnamedSection, key.resourceName, fallback.c_str());
    return zel::CStringUtil::StringToInt(text, nullptr, monitor::kDecimal);
}

void Publish(const ResourceConfig& config, int mode, int hashMode, COnlineClientConf& conf) {
    conf.maxCpu.Set(config.maxCpu);
    conf.cpuAll.Set(config.cpuAll ? 1 : 0);
    conf.maxPidCheck.Set(config.maxPidCheck);
    conf.maxMemory.Set(config.maxMemory);
    // As configured: every online update widens this pair itself.
    conf.groupMaxCpu.Set(config.maxCpu);
    conf.groupMaxMemory.Set(config.maxMemory);
    conf.resourceLimitMode.Set(mode);
    conf.maxWriteIo.Set(config.maxWriteIo);
    conf.maxReadIo.Set(config.maxReadIo);
    conf.hashMode.Set(hashMode);
}

}  // namespace

bool CMonitorPri::ParseMonitorConfig(const std::string& path, ResourceConfig& config) {
    if (path.empty() || !zel::CFileUtil::IsFile(path)) return false;

    IniFile ini(false, false, false);
    if (!Load(path, ini)) {
        monitor::Say(zel::kLogError, "read resource monitor config fail");
        return false;
    }

    int mode = 0;
    int hashMode = 0;
    try {
        config.maxCpu = ReadInt(ini, zel::kMaxCpuKey);
        config.maxMemory = ReadInt(ini, zel::kMaxMemoryKey);
        config.maxFd = ReadInt(ini, zel::kMaxFdKey);
        mode = ReadInt(ini, zel::kLimitModeKey);
        config.cpuAll = ReadInt(ini, zel::kCpuAllKey) != 0;
        config.maxReadIo = ReadInt(ini, zel::kMaxReadIoKey);
        config.maxWriteIo = ReadInt(ini, zel::kMaxWriteIoKey);
        config.maxPidCheck = ReadInt(ini, zel::kMaxPidCheckKey);
        hashMode = ReadInt(ini, zel::kHashModeKey);
        m_memLimitKernelRange = ReadText(ini, zel::kKernelRangeKey);
        m_memLimitExcludeKernels = ReadText(ini, zel::kExcludeKernelsKey);
        m_memLimitExcludeRange = ReadText(ini, zel::kExcludeRangeKey);
        m_cgroupGroupsSpec = ReadText(ini, zel::kGroupsKey);
        m_cgroupComponentsSpec = ReadText(ini, zel::kComponentsKey);
    } catch (const std::exception&) {
        return false;  // out of memory; the file itself was fine, so nothing is said about it
    }

    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    if (conf == nullptr) return false;
    Publish(config, mode, hashMode, *conf);

    long widenedCpu = config.maxCpu;
    int widenedMem = config.maxMemory;
    RelaxMultiCgroupLimits(widenedCpu, widenedMem, config.cpuAll);

    SetCpuSolarisMode(config.cpuAll);  // first: the limits below ask for it
    InitMultiCgroup(mode, widenedCpu, widenedMem);
    CheckMultiCgroupOom();
    CpuResourceLimit(mode, config.maxCpu);
    MemResourceLimit(mode, MbToKbWithHeadroom(config.maxMemory), MbToKb(config.maxMemory), false);

    if ((mode & MULTI_CGROUP_MODE_UNIFIED) != 0) {
        config.maxCpu = static_cast<int32_t>(std::min<long>(widenedCpu, INT_MAX));
        config.maxMemory = widenedMem;
    }
    ApplySelfKillLimitsFromConfig(config);
    return true;
}
