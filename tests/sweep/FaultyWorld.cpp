// The answers of a platform that remembers what was done to it.
#include "sweep/FaultyWorld.h"

#include <algorithm>
#include <utility>

#include "doubles/Platform.h"
#include "platform/zel/AgentNames.h"

using doubles::P;

namespace sweep {
namespace {

constexpr int kRefused = 3;     // a result that is not put on record
constexpr int kRecorded = 105;  // one that is

/// "Class::Operation(arguments)": a path that is in front of the operation counts as its argument.
std::pair<std::string, std::string> Split(const std::string& line) {
    const std::string fileOperation = "CFileCom(";
    if (line.compare(0, fileOperation.size(), fileOperation) == 0) {
        return {"CFileCom::rename", line.substr(fileOperation.size(), line.find(')') - fileOperation.size())};
    }
    const size_t open = line.find('(');
    if (open == std::string::npos || open > line.find(' ')) return {};
    return {line.substr(0, open), line.substr(open + 1, line.rfind(')') - open - 1)};
}

std::string FirstOf(const std::string& arguments) {
    return arguments.substr(0, arguments.find(','));
}

void Choose(std::set<std::string>& paths, const std::string& path, bool fails) {
    if (fails) {
        paths.insert(path);
    } else {
        paths.erase(path);
    }
}

}  // namespace

FaultyWorld::~FaultyWorld() {
    P().onCall = nullptr;
}

const std::map<std::string, FaultyWorld::Handler>& FaultyWorld::Handlers() {
    static const std::map<std::string, Handler> handlers = {
        {"CCgroupManager::Reconcile", &FaultyWorld::Reconcile},
        {"CCgroupManager::AddPidToGroup", &FaultyWorld::AddPid},
        {"CCgroupManager::RemovePidFromGroup", &FaultyWorld::RemovePid},
        {"CCgroupManager::EnsureInitialized", &FaultyWorld::Simple},
        {"CCgroupManager::WriteComponentConfig", &FaultyWorld::Simple},
        {"CCgroupManager::WriteDisabledConfig", &FaultyWorld::Simple},
        {"CCgroupManager::SnapshotSelfMemoryOomCounters", &FaultyWorld::Simple},
        {"CCgroupManager::PollMemoryOomEvents", &FaultyWorld::Simple},
        {"CCgroupClient::ReloadConfig", &FaultyWorld::Reload},
        {"IResourceLimitUtil::StartCpuLimit", &FaultyWorld::StartCpu},
        {"IResourceLimitUtil::StopCpuLimit", &FaultyWorld::StopCpu},
        {"IResourceLimitUtil::PrepareMemLimit", &FaultyWorld::PrepareMem},
        {"IResourceLimitUtil::StartMemLimit", &FaultyWorld::StartMem},
        {"IResourceLimitUtil::StopMemLimit", &FaultyWorld::StopMem},
        {"CFileUtil::IsFile", &FaultyWorld::IsFile},
        {"CFileUtil::ReadFileLineToList", &FaultyWorld::WriteFile},
        {"CFileUtil::ReadFullFile", &FaultyWorld::WriteFile},
        {"CFileUtil::WriteNewFile", &FaultyWorld::WriteFile},
        {"CFileUtil::RemoveFile", &FaultyWorld::WriteFile},
        {"CFileCom::rename", &FaultyWorld::Rename},
        {"CThreadUtil::startThread", &FaultyWorld::Simple},
        {"CTimerEvent::startTimer", &FaultyWorld::Simple},
        {"CResourceMonitor::StartMonitor", &FaultyWorld::Simple},
        {"CResourceMonitor::FetchResourceMonitorInfo", &FaultyWorld::Simple},
        {"IMsgTransmit::SendMsg", &FaultyWorld::Simple},
        {"GetSqliteDB", &FaultyWorld::Simple},
        {"ISqliteDB::Compile", &FaultyWorld::Simple},
        {"ISqliteDB::Execute", &FaultyWorld::Simple},
        {"ISqliteStatement::Step", &FaultyWorld::Simple},
        {"ISqliteStatement::BindInt", &FaultyWorld::Simple},
        {"ISqliteStatement::BindString", &FaultyWorld::Simple},
        {"COSInfo::GetMemoryUsage", &FaultyWorld::Simple},
        {"CToolUtil::GetSelfDiskFreeSpace", &FaultyWorld::Simple},
        {"uname", &FaultyWorld::Simple},
        {"sysconf", &FaultyWorld::Simple},
    };
    return handlers;
}

void FaultyWorld::Attach() {
    P().onCall = [this](const std::string& line) { See(line); };
    Tell();
}

void FaultyWorld::FailAt(std::vector<Fault> faults) {
    m_faults = std::move(faults);
    m_calls = 0;
    m_failed.clear();
}

bool FaultyWorld::IsDue(Failure& how) {
    if (m_held) return false;
    ++m_calls;
    for (const Fault& fault : m_faults) {
        if (fault.call != m_calls) continue;
        how = fault.how;
        return true;
    }
    return false;
}

void FaultyWorld::See(const std::string& line) {
    if (m_putBack) std::exchange(m_putBack, nullptr)();
    const auto [name, arguments] = Split(line);
    m_name = name;
    const auto handler = Handlers().find(name);
    if (handler != Handlers().end()) {
        Failure how = Failure::kWhole;
        const bool fails = IsDue(how);
        if (fails) m_failed.push_back(name);
        (this->*handler->second)(fails, how, arguments);
    } else if (name == "IResourceLimitUtil::ReleaseLimits") {
        legacyCpu = legacyMem = false;
    } else if (name == "ClearResourceLimitCpuCgroupState") {
        legacyCpu = false;
    } else if (name == "ClearResourceLimitMemCgroupState") {
        legacyMem = false;
    } else if (name == "CTimerEvent::killTimer") {
        --timers;
    } else if (name == "CResourceMonitor::StopMonitor") {
        sampling = false;
    } else if (name == "CThreadUtil::stopThread") {
        watching = false;
    } else {
        return;
    }
    Tell();
}

void FaultyWorld::Tell() {
    auto& manager = P().manager;
    manager.cpuEnabled.Always(unifiedCpu);
    manager.memEnabled.Always(unifiedMem);
    manager.cpuV2.Always(m_version2);
    manager.memV2.Always(m_version2);
    manager.parentCpuActive.Always(m_parentCpu);
    manager.parentMemActive.Always(m_parentMem);
    P().limit.cpuLimited.Always(legacyCpu);
    P().limit.memLimited.Always(legacyMem);
    P().limit.cpuV2Runtime.Always(m_version2 && legacyCpu);
    P().limit.memV2Runtime.Always(m_version2 && legacyMem);
    P().client.cpuJoined.Always(joined);
    P().client.memJoined.Always(joined);
    P().client.cpuQuota.Always(joined ? 300 : 0);
    P().client.memQuota.Always(joined ? 20480 : 0);
}

void FaultyWorld::Reconcile(bool fails, Failure how, const std::string& arguments) {
    const bool cpu = arguments[0] == '1';
    const bool mem = arguments[2] == '1';
    auto& answer = m_name.empty() || arguments.find("total{") != std::string::npos ? P().manager.reconcile
                                                                                   : P().manager.reconcileGroupsOnly;
    answer.Always(!fails);
    if (!fails) {
        unifiedCpu = m_parentCpu = cpu;
        unifiedMem = m_parentMem = mem;
    } else if (how == Failure::kWhole) {
        unifiedCpu = unifiedMem = false;
    } else {
        unifiedCpu = cpu;
        unifiedMem = mem && !cpu;
        m_parentCpu = m_parentCpu || cpu;
        m_parentMem = m_parentMem || mem;
    }
}

void FaultyWorld::AddPid(bool fails, Failure, const std::string&) {
    P().manager.addPid.Always(!fails);
    if (fails) return;
    inMainGroup = true;
    // A process is in one group of a hierarchy, and version 2 has one hierarchy.
    legacyCpu = legacyCpu && !unifiedCpu && !(m_version2 && unifiedMem);
    legacyMem = legacyMem && !unifiedMem && !(m_version2 && unifiedCpu);
}

void FaultyWorld::RemovePid(bool fails, Failure, const std::string&) {
    P().manager.removePid.Always(!fails);
    inMainGroup = inMainGroup && fails;
}

void FaultyWorld::StartCpu(bool fails, Failure, const std::string&) {
    P().limit.startCpu.Always({fails ? kRefused : 0, fails ? kRefused : 0});
    legacyCpu = legacyCpu || !fails;
}

void FaultyWorld::StopCpu(bool fails, Failure, const std::string&) {
    P().limit.stopCpu.Always({fails ? kRefused : 0, fails ? kRefused : 0});
    legacyCpu = legacyCpu && fails;
}

void FaultyWorld::PrepareMem(bool fails, Failure how, const std::string&) {
    P().limit.prepareMem.Always(!fails ? 0 : how == Failure::kHalf ? kRecorded : kRefused);
}

void FaultyWorld::StartMem(bool fails, Failure how, const std::string&) {
    const int result = how == Failure::kHalf ? kRecorded : kRefused;
    P().limit.startMem.Always({fails ? result : 0, fails ? result : 0});
    legacyMem = legacyMem || !fails;
}

void FaultyWorld::StopMem(bool fails, Failure, const std::string&) {
    P().limit.stopMem.Always({fails ? kRefused : 0, fails ? kRefused : 0});
    legacyMem = legacyMem && fails;
}

/// A client joins what the component file names and leaves when there is none.
void FaultyWorld::Reload(bool fails, Failure, const std::string&) {
    P().client.reload.Always(!fails);
    if (fails) return;
    const auto file = P().files.content.find(P().globalCfgDir + zel::kComponentFileName);
    joined = file != P().files.content.end() && file->second == "component config";
}

/// The file is not seen by this one call.
void FaultyWorld::HideFor1Call(const std::string& path) {
    auto& files = P().files;
    const auto found = files.content.find(path);
    if (found != files.content.end()) {
        m_putBack = [path, text = found->second] { P().files.content[path] = text; };
        files.content.erase(found);
    } else if (files.alsoFiles.erase(path) > 0) {
        m_putBack = [path] { P().files.alsoFiles.insert(path); };
    }
}

void FaultyWorld::IsFile(bool fails, Failure, const std::string& path) {
    if (fails) HideFor1Call(path);
}

void FaultyWorld::WriteFile(bool fails, Failure how, const std::string& arguments) {
    const bool written = m_name == "CFileUtil::WriteNewFile";
    const std::string path = m_name == "CFileUtil::RemoveFile" ? arguments : FirstOf(arguments);
    auto& files = P().files;
    Choose(m_name == "CFileUtil::RemoveFile" ? files.failRemove
           : written                         ? files.failWrite
                                             : files.failRead,
           path, fails);
    files.failedReadLeavesLines = fails && how == Failure::kHalf;
    if (written && fails && how == Failure::kHalf) files.content[path] = "{\"version\"";
}

void FaultyWorld::Rename(bool fails, Failure, const std::string& from) {
    Choose(P().files.failRename, from, fails);
}

void FaultyWorld::Simple(bool fails, Failure, const std::string& arguments) {
    auto& p = P();
    if (m_name == "CCgroupManager::EnsureInitialized") p.manager.ensureInitialized.Always(!fails);
    if (m_name == "CCgroupManager::WriteComponentConfig") p.manager.writeComponent.Always(!fails);
    if (m_name == "CCgroupManager::WriteDisabledConfig") p.manager.writeDisabled.Always(!fails);
    if (m_name == "CCgroupManager::SnapshotSelfMemoryOomCounters") p.manager.snapshotOk.Always(!fails);
    if (m_name == "CCgroupManager::PollMemoryOomEvents") p.manager.pollOk.Always(!fails);
    if (m_name == "CResourceMonitor::FetchResourceMonitorInfo") p.base.fetchOk = !fails;
    if (m_name == "IMsgTransmit::SendMsg") p.sendMsg.Always(!fails);
    if (m_name == "GetSqliteDB") p.sqlite.openError.Always(fails ? kRefused : 0);
    if (m_name == "ISqliteDB::Compile") p.sqlite.compile.Always(!fails);
    if (m_name == "ISqliteDB::Execute") p.sqlite.execute.Always(!fails);
    if (m_name == "ISqliteStatement::Step") p.sqlite.step.Always(!fails);
    if (m_name.find("::Bind") != std::string::npos) p.sqlite.failBind[FirstOf(arguments)] = fails;
    if (m_name == "COSInfo::GetMemoryUsage") {
        p.memory.usagePercent = fails ? 0 : 95;
        p.memory.writesAvailable = !fails;
    }
    if (m_name == "CToolUtil::GetSelfDiskFreeSpace") p.disk.ok = !fails;
    if (m_name == "uname") p.kernel.unameResult = fails ? -1 : 0;
    if (m_name == "sysconf") p.kernel.configuredCpus = fails ? -1 : 4;
    if (m_name == "CThreadUtil::startThread") {
        p.startThread.Always(!fails);
        watching = !fails;
    }
    if (m_name == "CTimerEvent::startTimer") {
        p.timerId.Always(fails ? 0 : 9001);
        timers += fails ? 0 : 1;
    }
    if (m_name == "CResourceMonitor::StartMonitor") {
        p.base.start.Always(!fails);
        sampling = !fails;
    }
}

std::string FaultyWorld::Left() const {
    std::string left;
    const auto say = [&left](bool is, const char* what) {
        if (is) left += std::string(left.empty() ? "" : ", ") + what;
    };
    say(timers != 0, "a timer");
    say(sampling, "the sampling");
    say(watching, "the thread of the OS abnormal monitor");
    say(P().sqlite.open != 0, "a database");
    say(P().sqlite.openStatements != 0, "a statement");
    say(!P().registered.empty(), "a statistics callback");
    say(!P().notifies.empty(), "a subscription");
    say(P().manager.constructed != P().manager.destroyed, "a cgroup manager");
    return left;
}

}  // namespace sweep
