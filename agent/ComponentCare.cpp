// Supervision wired to groups, events and the watch. Kernel files are read through the tree's status only.
#include "ComponentCare.h"

#include <json/value.h>

#include <ctime>

#include "AgentLog.h"
#include "ComponentsConfig.h"
#include "EventSink.h"
#include "Monitor.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace agent {

namespace {

constexpr unsigned int kComponentGraceMs = 5000;
constexpr char kRestartsFileName[] = "/data/restarts.json";

/// The groups that a component is to be born in.
std::vector<std::string> GroupsOf(const std::string& name) {
    std::vector<std::string> directories;
    zel::CgroupTreeStatus tree;
    std::string problem;
    if (!zel::ReadCgroupTreeStatus(tree, problem)) return directories;
    for (const zel::CgroupNodeStatus& node : tree.nodes) {
        if (node.level != zel::CgroupLevel::kComponent || node.name != name) continue;
        if (node.cpu.present) directories.push_back(node.cpu.path);
        if (node.memory.present && node.memory.path != node.cpu.path) directories.push_back(node.memory.path);
    }
    return directories;
}

void ReportEnd(const ComponentEnd& end) {
    Json::Value body(Json::objectValue);
    body["component"] = end.name;
    body["pid"] = static_cast<int>(end.pid);
    const int64_t now = time(nullptr);
    body["detect_time"] = Json::Int64(now);
    body["reason"] = end.reason;
    body["status"] = end.status;
    body["next_start"] = Json::Int64(now + end.waitSeconds);
    body["budget_exhausted"] = end.exhausted;
    Deliver(zel::kComponentEndMessage, body.toStyledString());
}

}  // namespace

void ComponentCare::Start(const Options& options, const std::string& program) {
    const auto components = LoadComponents(options.appDir + zel::kComponentsFileName);
    if (!components) {
        LogLine(components.GetError().Text() + "; no component is started", zel::kLogWarning);
        return;
    }
    const std::vector<std::string> common{"--app-dir", options.appDir, "--config", options.configPath};
    m_supervisor = std::make_unique<Supervisor>(program, common, options.appDir + kRestartsFileName, ReportEnd);
    m_supervisor->SetPlacement(GroupsOf);
    zel::CgroupTreeStatus tree;
    std::string problem;
    if (zel::ReadCgroupTreeStatus(tree, problem)) m_oomPicture = TakeOomPicture(tree);
    m_supervisor->SetKillExplanation([this](const std::string& name) { return ExplainKill(name); });
    m_supervisor->Configure(*components);
}

std::string ComponentCare::ExplainKill(const std::string& name) {
    zel::CgroupTreeStatus now;
    std::string problem;
    if (!zel::ReadCgroupTreeStatus(now, problem)) return "";
    std::string cause = ExplainOomKill(m_oomPicture, now, name);
    m_oomPicture = TakeOomPicture(now);
    return cause;
}

void ComponentCare::Tick(int64_t now) {
    if (m_supervisor == nullptr) return;
    m_supervisor->Tick(now);
    const std::map<unsigned int, std::string> running = m_supervisor->Running();
    if (running != m_watched) {
        m_watched = running;
        m_monitor.SetWatcherProcess(running);
    }
    base::MutexLock guard(m_lock);
    m_status = m_supervisor->Status(now);
}

void ComponentCare::Stop() {
    if (m_supervisor != nullptr) m_supervisor->StopAll(kComponentGraceMs);
}

std::vector<ComponentStatus> ComponentCare::Status() const {
    base::MutexLock guard(m_lock);
    return m_status;
}

}  // namespace agent
