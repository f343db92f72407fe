// Control groups of a platform that has none: every operation says so, and the module goes on without limits of its
// own.
#include <cerrno>

#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/ResourceLimitUtil.h"

namespace zel {

struct CCgroupManager::Impl {};
CCgroupManager::CCgroupManager() = default;
CCgroupManager::~CCgroupManager() = default;
bool CCgroupManager::EnsureInitialized() {
    return false;
}
bool CCgroupManager::Reconcile(bool, bool, const CgroupTotalLimitConfig&, const std::vector<CgroupGroupConfig>&) {
    return false;
}
bool CCgroupManager::Reconcile(bool, bool, const std::vector<CgroupGroupConfig>&) {
    return false;
}
bool CCgroupManager::IsCpuCgroupEnabled() {
    return false;
}
bool CCgroupManager::IsMemCgroupEnabled() {
    return false;
}
bool CCgroupManager::IsCpuV2() {
    return false;
}
bool CCgroupManager::IsMemV2() {
    return false;
}
bool CCgroupManager::IsParentCpuActive() {
    return false;
}
bool CCgroupManager::IsParentMemActive() {
    return false;
}
int CCgroupManager::GetParentCpuLimit100Times() {
    return 0;
}
int CCgroupManager::GetParentMemLimitKB() {
    return 0;
}
bool CCgroupManager::AddPidToGroup(const std::string&, int) {
    return false;
}
bool CCgroupManager::RemovePidFromGroup(const std::string&, int) {
    return false;
}
bool CCgroupManager::WriteComponentConfig(const std::string&, const std::vector<CgroupComponentQuota>&, int, int) {
    return false;
}
bool CCgroupManager::WriteDisabledConfig(const std::string&) {
    return false;
}
void CCgroupManager::ResetMemoryOomMonitor() {}
bool CCgroupManager::SnapshotSelfMemoryOomCounters(std::vector<CgroupMemoryOomEvent>&) {
    return false;
}
bool CCgroupManager::PollMemoryOomEvents(std::vector<CgroupMemoryOomEvent>&) {
    return false;
}

// This host hands the module no client, so nothing of it is entered; the linker asks for it all the same.
struct CCgroupClient::Impl {};
CCgroupClient::CCgroupClient() = default;
CCgroupClient::~CCgroupClient() = default;
bool CCgroupClient::ReloadConfig() {
    return false;
}
bool CCgroupClient::IsCpuJoined() {
    return false;
}
bool CCgroupClient::IsMemJoined() {
    return false;
}
int CCgroupClient::GetCpuQuota100Times() {
    return 0;
}
int CCgroupClient::GetMemQuotaKB() {
    return 0;
}
std::string CCgroupClient::GetCpuCgroupPath() {
    return "";
}
std::string CCgroupClient::GetMemCgroupPath() {
    return "";
}

namespace {

// There always is one: the module asks it also while nothing is to be limited.
class NoLimit final : public IResourceLimitUtil {
public:
    int StartCpuLimit(int, int, int& error) override { return Refused(error); }
    int StopCpuLimit(int& error) override { return error = 0; }
    void SyncCpuLimit() override {}
    int GetCgroupOtherProcessNum() override { return 0; }
    bool IsSelfRemovedFromCgroup() override { return false; }
    bool IsCpuLimited() override { return false; }
    int PrepareMemLimit() override { return kNoHierarchy; }
    bool IsMemLimited() override { return false; }
    int StartMemLimit(int, int, int& error) override { return Refused(error); }
    int StopMemLimit(int& error, bool) override { return error = 0; }
    void ReleaseLimits() override {}
    void SetKernelExcludeLists(int, const std::string&, const std::string&) override {}

private:
    static constexpr int kNoHierarchy = 1;  // any but 0; the error numbers of CONFIG.md are our runtime's
    static int Refused(int& error) {
        error = ENOSYS;
        return kNoHierarchy;
    }
};

}  // namespace

IResourceLimitUtil* GetResourceLimitUtil() {
    static NoLimit limit;
    return &limit;
}
void ClearResourceLimitCpuCgroupState() {}
void ClearResourceLimitMemCgroupState() {}
bool IsResourceLimitCpuCgroupV2Runtime() {
    return false;
}
bool IsResourceLimitMemCgroupV2Runtime() {
    return false;
}

}  // namespace zel
