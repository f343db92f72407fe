// Doubles of the cgroup manager, the cgroup client and the legacy resource-limit object.
#include "Platform.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/ResourceLimitUtil.h"

using doubles::Format;
using doubles::P;

namespace {
std::string Show(const zel::CgroupTotalLimitConfig& t) {
    return Format("total{cpu=%d %d.%02d mem=%d %dKB}", t.cpuEnabled, t.cpuLimitPercent, t.cpuLimitHundredths,
                  t.memEnabled, t.memLimitKB);
}
std::string Show(const std::vector<zel::CgroupGroupConfig>& groups) {
    std::string text = "groups[";
    for (const auto& g : groups) {
        text += Format("%s%s cpu=%d %d.%02d mem=%d %dKB", text.back() == '[' ? "" : "; ", g.name.c_str(), g.cpuEnabled,
                       g.cpuLimitPercent, g.cpuLimitHundredths, g.memEnabled, g.memLimitKB);
    }
    return text + "]";
}
std::string Show(const std::vector<zel::CgroupComponentQuota>& quotas) {
    std::string text = "quotas[";
    for (const auto& q : quotas) {
        text += Format("%s%s@%s/%s %d %dKB", text.back() == '[' ? "" : "; ", q.name.c_str(), q.cpuGroup.c_str(),
                       q.memGroup.c_str(), q.cpuQuota100Times, q.memQuotaKB);
    }
    return text + "]";
}
}  // namespace

namespace zel {

// The client and the legacy state are used by two threads at once.
using Guard = std::lock_guard<std::recursive_mutex>;

struct CCgroupManager::Impl {};
CCgroupManager::CCgroupManager() {
    P().Record("CCgroupManager::CCgroupManager()");
    ++P().manager.constructed;
}
CCgroupManager::~CCgroupManager() {
    P().Record("CCgroupManager::~CCgroupManager()");
    ++P().manager.destroyed;
}
bool CCgroupManager::EnsureInitialized() {
    P().Record("CCgroupManager::EnsureInitialized()");
    return P().manager.ensureInitialized.Next();
}
bool CCgroupManager::Reconcile(bool cpuOn, bool memOn, const CgroupTotalLimitConfig& total,
                               const std::vector<CgroupGroupConfig>& groups) {
    P().Record(Format("CCgroupManager::Reconcile(%d,%d,", cpuOn, memOn) + Show(total) + "," + Show(groups) + ")");
    P().manager.lastTotal = total;
    P().manager.lastGroups = groups;
    return P().manager.reconcile.Next();
}
bool CCgroupManager::Reconcile(bool cpuOn, bool memOn, const std::vector<CgroupGroupConfig>& groups) {
    P().Record(Format("CCgroupManager::Reconcile(%d,%d,", cpuOn, memOn) + Show(groups) + ")");
    P().manager.lastGroups = groups;
    return P().manager.reconcileGroupsOnly.Next();
}
#define ZEL_GETTER(type, name, member)             \
    type CCgroupManager::name() {                  \
        P().Record("CCgroupManager::" #name "()"); \
        return P().manager.member.Next();          \
    }
ZEL_GETTER(bool, IsCpuCgroupEnabled, cpuEnabled)
ZEL_GETTER(bool, IsMemCgroupEnabled, memEnabled)
ZEL_GETTER(bool, IsCpuV2, cpuV2)
ZEL_GETTER(bool, IsMemV2, memV2)
ZEL_GETTER(bool, IsParentCpuActive, parentCpuActive)
ZEL_GETTER(bool, IsParentMemActive, parentMemActive)
ZEL_GETTER(int, GetParentCpuLimit100Times, parentCpuLimit)
ZEL_GETTER(int, GetParentMemLimitKB, parentMemLimit)
#undef ZEL_GETTER
bool CCgroupManager::AddPidToGroup(const std::string& group, int pid) {
    P().Record(Format("CCgroupManager::AddPidToGroup(%s,%d)", group.c_str(), pid));
    return P().manager.addPid.Next();
}
bool CCgroupManager::RemovePidFromGroup(const std::string& group, int pid) {
    P().Record(Format("CCgroupManager::RemovePidFromGroup(%s,%d)", group.c_str(), pid));
    return P().manager.removePid.Next();
}
bool CCgroupManager::WriteComponentConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                                          int parentCpu100Times, int parentMemKB) {
    P().Record("CCgroupManager::WriteComponentConfig(" + path + "," + Show(quotas) +
               Format(",%d,%d)", parentCpu100Times, parentMemKB));
    P().manager.lastQuotas = quotas;
    bool ok = P().manager.writeComponent.Next();
    if (ok) P().files.content[path] = "component config";
    return ok;
}
bool CCgroupManager::WriteDisabledConfig(const std::string& path) {
    P().Record("CCgroupManager::WriteDisabledConfig(" + path + ")");
    bool ok = P().manager.writeDisabled.Next();
    if (ok) P().files.content[path] = "disabled config";
    return ok;
}
void CCgroupManager::ResetMemoryOomMonitor() {
    P().Record("CCgroupManager::ResetMemoryOomMonitor()");
}
bool CCgroupManager::SnapshotSelfMemoryOomCounters(std::vector<CgroupMemoryOomEvent>& out) {
    P().Record("CCgroupManager::SnapshotSelfMemoryOomCounters()");
    out = P().manager.snapshot.Next();
    return P().manager.snapshotOk.Next();
}
bool CCgroupManager::PollMemoryOomEvents(std::vector<CgroupMemoryOomEvent>& out) {
    P().Record("CCgroupManager::PollMemoryOomEvents()");
    out = P().manager.poll.Next();
    return P().manager.pollOk.Next();
}

struct CCgroupClient::Impl {};
CCgroupClient::CCgroupClient() = default;
CCgroupClient::~CCgroupClient() {
    P().Record("CCgroupClient::~CCgroupClient()");
}
#define ZEL_GETTER(type, name, member)            \
    type CCgroupClient::name() {                  \
        const Guard guard(P().lock);              \
        P().Record("CCgroupClient::" #name "()"); \
        return P().client.member.Next();          \
    }
ZEL_GETTER(bool, ReloadConfig, reload)
ZEL_GETTER(bool, IsCpuJoined, cpuJoined)
ZEL_GETTER(bool, IsMemJoined, memJoined)
ZEL_GETTER(int, GetCpuQuota100Times, cpuQuota)
ZEL_GETTER(int, GetMemQuotaKB, memQuota)
ZEL_GETTER(std::string, GetCpuCgroupPath, cpuPath)
ZEL_GETTER(std::string, GetMemCgroupPath, memPath)
#undef ZEL_GETTER

namespace {
class LimitUtilDouble final : public IResourceLimitUtil {
public:
    int StartCpuLimit(int percent, int hundredths, int& error) override {
        P().Record(Format("IResourceLimitUtil::StartCpuLimit(%d,%d,error=%d)", percent, hundredths, error));
        return Take(P().limit.startCpu, error);
    }
    int StopCpuLimit(int& error) override {
        P().Record(Format("IResourceLimitUtil::StopCpuLimit(error=%d)", error));
        return Take(P().limit.stopCpu, error);
    }
    void SyncCpuLimit() override { P().Record("IResourceLimitUtil::SyncCpuLimit()"); }
    int GetCgroupOtherProcessNum() override {
        P().Record("IResourceLimitUtil::GetCgroupOtherProcessNum()");
        return P().limit.otherProcessNum.Next();
    }
    bool IsSelfRemovedFromCgroup() override {
        P().Record("IResourceLimitUtil::IsSelfRemovedFromCgroup()");
        return P().limit.selfRemoved.Next();
    }
    bool IsCpuLimited() override {
        P().Record("IResourceLimitUtil::IsCpuLimited()");
        return P().limit.cpuLimited.Next();
    }
    int PrepareMemLimit() override {
        P().Record("IResourceLimitUtil::PrepareMemLimit()");
        return P().limit.prepareMem.Next();
    }
    bool IsMemLimited() override {
        P().Record("IResourceLimitUtil::IsMemLimited()");
        return P().limit.memLimited.Next();
    }
    int StartMemLimit(int firstLimit, int secondLimit, int& error) override {
        P().Record(Format("IResourceLimitUtil::StartMemLimit(%d,%d,error=%d)", firstLimit, secondLimit, error));
        return Take(P().limit.startMem, error);
    }
    int StopMemLimit(int& error, bool flag) override {
        P().Record(Format("IResourceLimitUtil::StopMemLimit(error=%d,%d)", error, flag));
        return Take(P().limit.stopMem, error);
    }
    void ReleaseLimits() override { P().Record("IResourceLimitUtil::ReleaseLimits()"); }
    void SetKernelExcludeLists(int kind, const std::string& excludeRange, const std::string& excludeKernels) override {
        P().Record(Format("IResourceLimitUtil::SetKernelExcludeLists(%d,%s,%s)", kind, excludeRange.c_str(),
                          excludeKernels.c_str()));
    }

private:
    static int Take(doubles::Answers<doubles::LimitAnswer>& answers, int& error) {
        doubles::LimitAnswer answer = answers.Next();
        error = answer.error;
        return answer.result;
    }
};
}  // namespace

IResourceLimitUtil* GetResourceLimitUtil() {
    static LimitUtilDouble util;
    P().Record("GetResourceLimitUtil()");
    return P().limit.present ? &util : nullptr;
}
void ClearResourceLimitCpuCgroupState() {
    const Guard guard(P().lock);
    P().Record("ClearResourceLimitCpuCgroupState()");
    P().limit.cpuV2Runtime.Always(false);
}
void ClearResourceLimitMemCgroupState() {
    const Guard guard(P().lock);
    P().Record("ClearResourceLimitMemCgroupState()");
    P().limit.memV2Runtime.Always(false);
}
bool IsResourceLimitCpuCgroupV2Runtime() {
    const Guard guard(P().lock);
    P().Record("IsResourceLimitCpuCgroupV2Runtime()");
    return P().limit.cpuV2Runtime.Next();
}
bool IsResourceLimitMemCgroupV2Runtime() {
    const Guard guard(P().lock);
    P().Record("IsResourceLimitMemCgroupV2Runtime()");
    return P().limit.memV2Runtime.Next();
}

}  // namespace zel
