// Supervision wired to groups, events and the watch. Kernel files are read through the tree's status only.
#include "ComponentCare.h"

#include <json/value.h>

#include <algorithm>
#include <ctime>

#include "AgentLog.h"
#include "AgentPaths.h"
#include "ComponentsConfig.h"
#include "EventSink.h"
#include "Monitor.h"
#include "SteadyTime.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace agent {

namespace {

constexpr unsigned int kComponentGraceMs = 5000;
constexpr char kGroupMissing[] = "it has no \"group\" in components.json";
constexpr char kRestartsFileName[] = "/data/restarts.json";

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
    if (end.oom) {
        Json::Value& oom = body["oom"] = Json::Value(Json::objectValue);
        oom["victim"] = end.name;
        oom["group"] = end.oom->group;
        oom["limit_of"] = end.oom->limitOf;
        oom["limit_kb"] = Json::Int64(end.oom->limitKb);
        oom["path"] = end.oom->path;
    }
    Deliver(zel::kComponentEndMessage, body.toStyledString());
}

bool ReadTree(zel::CgroupTreeStatus& tree) {
    std::string problem;
    return zel::ReadCgroupMemoryStatus(tree, problem);
}

/// What was seen `seconds` ago.
void CountOn(ComponentStatus& component, int64_t seconds) {
    if (component.state == ComponentState::kRunning) component.runsSeconds += seconds;
    component.waitsSeconds = std::max<int64_t>(0, component.waitsSeconds - seconds);
    if (component.suspended) component.suspendedSeconds += seconds;
    if (component.hungSeconds > 0) component.hungSeconds += seconds;
}

/// A component's end is the end of everything that it has started, wherever that has got to in the process tree.
void EndWhatIsLeft(const std::string& name) {
    const zel::CgroupLeafEnd end = zel::EndCgroupComponent(name);
    if (end.ended > 0) {
        LogLine("component " + name + " left " + std::to_string(end.ended) + " processes behind, they were ended",
                zel::kLogInfo);
    }
    std::string pids;
    for (const int pid : end.left) pids += " " + std::to_string(pid);
    if (!pids.empty()) {
        LogLine("of component " + name + " these processes do not end and keep its limits:" + pids +
                    "; they are stuck in the kernel, /proc/PID/stack says where",
                zel::kLogWarning);
    }
}

}  // namespace

std::vector<zel::CgroupComponentQuota> GroupsToDeclare(const std::vector<ComponentConfig>& components, bool relay) {
    std::vector<zel::CgroupComponentQuota> unlisted;
    for (const ComponentConfig& component : components) {
        if (!component.group.empty()) unlisted.push_back({component.name, component.group, component.group, 0, 0});
    }
    // Not the main process's group where there is another: what is short there is the main process's.
    for (const char* const group : {zel::kCollectGroup, zel::kMainGroup}) {
        if (relay) unlisted.push_back({zel::kRelayComponent, group, group, 0, kRelayMemoryKb});
    }
    return unlisted;
}

std::vector<ComponentConfig> DeclareComponents(const std::string& appDir, bool relay) {
    base::Result<std::vector<ComponentConfig>> components =
        LoadComponents(ConfigurationFile(appDir, zel::kComponentsFileName));
    if (!components) {
        LogLine(components.GetError().Text() + "; no component is started", zel::kLogWarning);
        components = std::vector<ComponentConfig>();
    }
    zel::SetUnlistedComponents(GroupsToDeclare(*components, relay));
    return std::move(*components);
}

ComponentCare::ComponentCare(CMonitor& monitor, ComponentPulses& pulses)
    : m_monitor(monitor), m_pulses(pulses), m_kills(ReadTree) {}

void ComponentCare::Start(const Options& options, const std::string& program, std::vector<ComponentConfig> components) {
    m_configured = std::move(components);
    std::vector<std::string> common{"--app-dir", options.appDir, "--config", options.configPath};
    if (options.observe) common.push_back("--observe");
    m_supervisor = std::make_unique<Supervisor>(program, common, options.appDir + kRestartsFileName, ReportEnd);
    m_supervisor->SetPlacement([this](const ComponentConfig& component) {
        m_kills.BeforeStart(m_now);
        return GroupsOf(component);
    });
    m_supervisor->SetCleaning(EndWhatIsLeft);
    m_supervisor->SetKillExplanation(
        [this](const std::string& name) { return m_kills.Explain(name, SecondsSinceBoot()); });
    m_supervisor->Configure(m_configured);
    m_relay = std::make_unique<RelayCare>(*m_supervisor, options.appDir, program);
}

bool ComponentCare::FollowFleet(const std::optional<FleetConfig>& fleet) {
    m_relay->Follow(fleet);
    const bool declared = m_relay->NeedsGroup();
    if (declared == m_relayDeclared) return false;
    m_relayDeclared = declared;
    // As it was at the start: what the file says since then is not what runs.
    zel::SetUnlistedComponents(GroupsToDeclare(m_configured, declared));
    return true;
}

/// It has no limit but that of the whole agent, where there is one, and that is no reason to go without.
void ComponentCare::TellRelayUnlimited(bool unlimited) {
    if (unlimited && !m_relayUnlimited) {
        LogLine(std::string("component ") + zel::kRelayComponent + " has no control group of its own, so no limit of " +
                    std::to_string(kRelayMemoryKb / 1024) +
                    " MB: unified memory limits are not in force here (resource_limit_mode 12 and above)",
                zel::kLogInfo);
    }
    m_relayUnlimited = unlimited;
}

/// Where the place cannot be read a component starts without one, and its client goes on trying; where there is none
/// for it, it would be born into the main process's.
base::Result<std::vector<std::string>> ComponentCare::GroupsOf(const ComponentConfig& component) {
    if (!m_places) {
        m_places.emplace();
        m_placesProblem.clear();
        zel::ReadComponentPlaces(*m_places, m_placesProblem);
    }
    if (m_places->awaited) return base::SentenceError(m_placesProblem + "; that file is being written again");
    const auto named = m_places->directories.find(component.name);
    if (component.name == zel::kRelayComponent) {
        const base::Status installed = m_relay->Judge();
        if (!installed) return installed.GetError();
        TellRelayUnlimited(named == m_places->directories.end());
    }
    if (named != m_places->directories.end()) return named->second;
    if (!m_places->unified) return std::vector<std::string>();
    if (component.group.empty()) {
        return base::SentenceError("the unified limits do not name it and " + std::string(kGroupMissing));
    }
    return base::SentenceError("its group \"" + component.group +
                               "\" is not one of the unified limits: configure that, or name another");
}

void ComponentCare::Tick(int64_t now) {
    if (m_supervisor == nullptr) return;
    m_now = now;
    m_places.reset();
    m_supervisor->Tick(now);
    m_places.reset();
    m_kills.Tick(now);
    const std::map<unsigned int, std::string> running = m_supervisor->Running();
    if (running != m_watched) {
        m_watched = running;
        m_monitor.SetWatcherProcess(running);
    }
    std::vector<ComponentStatus> status = m_supervisor->Status(now);
    m_nextDue = std::min(m_supervisor->NextStart(), m_pulses.Judge(status, now));
    base::MutexLock guard(m_lock);
    m_status = std::move(status);
    m_statusAt = now;
}

void ComponentCare::PlacePrograms() {
    if (m_supervisor == nullptr) return;
    std::string problems;
    for (const auto& [pid, name] : m_supervisor->RunningPrograms()) {
        std::string problem;
        if (zel::PlaceComponentProcess(name, static_cast<int>(pid), problem)) continue;
        problems += (problems.empty() ? "component " : "; component ") + name + ": " + problem;
    }
    if (!problems.empty() && problems != m_placeProblems) {
        LogLine(problems + "; it stays where it is and is tried again", zel::kLogWarning);
    }
    m_placeProblems = problems;
}

std::vector<zel::CgroupMember> ComponentCare::Members() const {
    std::vector<zel::CgroupMember> members;
    members.reserve(m_watched.size());
    for (const auto& [pid, name] : m_watched) members.push_back({name, static_cast<int>(pid)});
    return members;
}

void ComponentCare::Stop() {
    if (m_supervisor == nullptr) return;
    // Their end is asked for from here on, and no news.
    m_watched.clear();
    m_monitor.SetWatcherProcess(m_watched);
    m_supervisor->StopAll(kComponentGraceMs);
}

std::vector<ComponentStatus> ComponentCare::Status() const {
    base::MutexLock guard(m_lock);
    std::vector<ComponentStatus> status = m_status;
    for (ComponentStatus& component : status) CountOn(component, SecondsSinceBoot() - m_statusAt);
    return status;
}

}  // namespace agent
