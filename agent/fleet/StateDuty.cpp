// One question to each process, and a look at the files of events that have changed.
#include "fleet/StateDuty.h"

#include <json/value.h>

#include <algorithm>
#include <utility>

#include "AgentPaths.h"
#include "EventWords.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr size_t kMostComponents = 32;
constexpr size_t kReadEvents = 64;
constexpr char kStatus[] = "status";
constexpr char kReload[] = "reload";

/// Whether it tells of a process that was ended for its memory or CPU.
bool TellsOfKill(const TailEvent& event, EventKind kind) {
    if (kind == EventKind::kComponentEnd) return EventBody(event)["oom"].isObject();
    return kind == EventKind::kOom || kind == EventKind::kSelfKill;
}

}  // namespace

int64_t WaitingAge::Look(uint64_t delivered, uint64_t waiting, int64_t nowSeconds) {
    const uint64_t end = delivered + waiting;
    // What is dropped for want of room is delivered no more: nothing lies behind the end.
    if (m_mark) m_mark->position = std::min(m_mark->position, end);
    if (waiting == 0 || (m_mark && m_mark->position <= delivered)) m_mark.reset();
    if (waiting == 0) return 0;
    if (!m_mark) m_mark = Mark{nowSeconds, end};
    return nowSeconds - m_mark->at;
}

std::optional<LastKill> FindLastKill(const std::vector<TailEvent>& events) {
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        const EventInWords words = WordEvent(*event);
        if (!TellsOfKill(*event, words.kind)) continue;
        return LastKill{event->time, event->id, words.about.empty() ? event->process : words.about.front()};
    }
    return std::nullopt;
}

StateDuty::StateDuty(StateDutyOptions options) : m_options(std::move(options)) {}

bool StateDuty::HaveConfigRead() {
    return m_options.ask(zel::kMainProcessName, kReload).Ok();
}

HostState StateDuty::Take(Depth depth, int64_t steadySeconds, int64_t wallSeconds) {
    base::Result<StatusReport> report = ReadStatus(m_options.ask(zel::kMainProcessName, kStatus));
    HostState state;
    m_configProblem.reset();
    if (report) {
        report->fleetProblem.clear();  // of before this telling: whoever hears of the state, it has reached
        state = TakeHostState(*report);
        m_configProblem = report->configProblem;
        NoteDelivery(zel::kMainProcessName, report->delivery, steadySeconds);
        if (depth == Depth::kAll) AskComponents(report->components, steadySeconds);
        FindKill(zel::kMainProcessName);
    }
    state.host = m_options.host;
    state.groups = m_options.groups;
    state.version = m_options.version;
    state.time = wallSeconds;
    if (!report) return state;
    AddWaiting(state);
    state.lastKill = m_lastKill;
    return state;
}

void StateDuty::NoteDelivery(const std::string& process, const zelhost::DeliveryStats& delivery, int64_t nowSeconds) {
    Waiting& its = m_waiting[process];
    its.waiting = 0;
    its.oldestSeconds = 0;
    its.givenUp = 0;
    its.dropped = delivery.dropped;
    its.blocked = BlockedReason(delivery);
    for (const zelhost::SinkStats& sink : delivery.sinks) {
        its.waiting = std::max(its.waiting, sink.waiting);
        its.givenUp += sink.givenUp;
        const int64_t age = its.sinks[sink.name].Look(sink.delivered, sink.waiting, nowSeconds);
        its.oldestSeconds = std::max(its.oldestSeconds, age);
    }
}

void StateDuty::AskComponents(const std::vector<ComponentStatus>& components, int64_t nowSeconds) {
    std::map<std::string, Waiting> kept;
    for (const ComponentStatus& component : components) {
        const auto known = m_waiting.find(component.name);
        if (known != m_waiting.end()) kept[component.name] = std::move(known->second);
    }
    kept[zel::kMainProcessName] = std::move(m_waiting[zel::kMainProcessName]);
    m_waiting = std::move(kept);
    size_t asked = 0;
    for (const ComponentStatus& component : components) {
        // One that is stopped or another's program has nothing to say. Its spool is as it was; why it did not get
        // further nobody knows any more.
        const bool speaks = component.state == ComponentState::kRunning && !component.program && !component.suspended;
        const auto its = m_waiting.find(component.name);
        if (!speaks && its != m_waiting.end()) its->second.blocked.clear();
        if (!speaks || ++asked > kMostComponents) continue;
        const base::Result<StatusReport> report = ReadStatus(m_options.ask(component.name, kStatus));
        if (report) NoteDelivery(component.name, report->delivery, nowSeconds);
        FindKill(component.name);
    }
}

void StateDuty::AddWaiting(HostState& state) const {
    state.eventsWaiting = state.eventsDropped = state.eventsGivenUp = 0;
    state.oldestWaitingSeconds = 0;
    std::string first;
    size_t blocked = 0;
    for (const auto& [process, its] : m_waiting) {
        state.eventsWaiting += its.waiting;
        state.eventsDropped += its.dropped;
        state.eventsGivenUp += its.givenUp;
        state.oldestWaitingSeconds = std::max(state.oldestWaitingSeconds, its.oldestSeconds);
        if (its.blocked.empty()) continue;
        if (blocked++ > 0 && process != zel::kMainProcessName) continue;
        first = process;
        state.blocked = its.blocked;
    }
    if (blocked == 0) return;
    state.blocked += " (" + first + (blocked > 1 ? " and " + std::to_string(blocked - 1) + " more)" : ")");
}

void StateDuty::FindKill(const std::string& process) {
    const std::string path = EventFile(m_options.appDir, process);
    const base::FileMark mark = base::ReadFileMark(path);
    base::FileMark& known = m_events[process];
    if (!mark.exists || mark == known) return;
    known = mark;
    const std::optional<LastKill> found = FindLastKill(ReadEventTail(path, kReadEvents));
    if (found && found->time >= m_lastKill.time) m_lastKill = *found;
}

}  // namespace agent
