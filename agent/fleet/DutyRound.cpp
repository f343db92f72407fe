// The times of a host's duties: regular ones spread by chance, early ones bounded, repeated ones ever rarer.
#include "fleet/DutyRound.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "FleetTrouble.h"
#include "Printable.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr int64_t kRegularMs = kHostStateSeconds * 1000;
constexpr int64_t kAgainMs = kRegularMs / 2;
constexpr int64_t kLookMs = 5 * 60 * 1000;
constexpr int64_t kBellMs = 10 * 1000;
constexpr int64_t kConnectedMs = 2 * 1000;
constexpr int64_t kEarlyMs = 5 * 1000;  // least distance of an early one to the one before
constexpr int64_t kGatherMs = 500;      // what happens together is told together
constexpr int64_t kLeastPauseMs = 2 * 1000;
constexpr int64_t kMostPauseMs = 2 * 60 * 1000;

int64_t Grow(int64_t pause) {
    return std::min(kMostPauseMs, std::max(kLeastPauseMs, pause * 2));
}

}  // namespace

DutyRound::DutyRound(FleetKeys& keys, DutyRoundOptions options)
    : m_keys(keys),
      m_options(std::move(options)),
      m_config({m_options.state.host, m_options.state.groups, m_options.state.appDir, m_options.log}),
      m_state(m_options.state) {
    const int64_t now = m_options.nowMs();
    m_lookDue = now + kLookMs;
    m_regularDue = now + kEarlyMs;  // what keeps it from its fleet at a start is known by then
    m_putAt = now - kEarlyMs;
}

int64_t DutyRound::UpTo(int64_t ms) {
    return static_cast<int64_t>(m_options.chance() % static_cast<uint64_t>(ms));
}

int64_t DutyRound::Around(int64_t ms) {
    return ms - ms / 10 + UpTo(ms / 5);
}

void DutyRound::OnBell() {
    m_lookDue = std::min(m_lookDue, m_options.nowMs() + UpTo(kBellMs));
}

void DutyRound::OnNote() {
    const int64_t due = std::max(m_options.nowMs() + kGatherMs, m_putAt + std::max(kEarlyMs, m_putPause));
    m_earlyDue = std::min(m_earlyDue.value_or(due), due);
}

bool DutyRound::IsTellDue() const {
    return m_options.nowMs() >= std::min(m_regularDue, m_earlyDue.value_or(m_regularDue));
}

void DutyRound::NoticeConnection(int64_t now) {
    const uint64_t connections = m_keys.Connections();
    if (connections == m_connections) return;
    m_connections = connections;
    m_noConnection.clear();
    m_lookPause = m_putPause = 0;
    // A broker that comes back has all its hosts at once.
    m_lookDue = std::min(m_lookDue, now + UpTo(kConnectedMs));
    m_regularDue = std::min(m_regularDue, now + UpTo(kConnectedMs));
}

int64_t DutyRound::Run() {
    NoticeConnection(m_options.nowMs());
    if (m_options.nowMs() >= m_lookDue) Look();
    const int64_t now = m_options.nowMs();
    if (now >= m_regularDue) {
        Tell(true);
    } else if (m_earlyDue && now >= *m_earlyDue) {
        Tell(false);
    }
    TellAgent();
    int64_t due = std::min(m_regularDue, m_earlyDue.value_or(m_regularDue));
    if (m_options.takesConfiguration) due = std::min(due, m_lookDue);
    return std::max<int64_t>(1, due - m_options.nowMs());
}

void DutyRound::Look() {
    m_lookDue = m_options.nowMs() + Around(kLookMs);
    if (!m_options.takesConfiguration || !m_keys.IsConnected()) return;
    const auto picture = [this] {
        const AppliedConfig config = m_config.Get();
        return std::tuple(m_config.IsUnread(), config.seen, config.applied, config.pinned, config.error);
    };
    const auto before = picture();
    const ConfigDuty::Outcome outcome = m_config.Look(m_keys);
    m_lookPause = outcome == ConfigDuty::Outcome::kAgain ? Grow(m_lookPause) : 0;
    if (m_lookPause > 0) m_lookDue = m_options.nowMs() + Around(m_lookPause);
    if (picture() != before) OnNote();
}

void DutyRound::Tell(bool isRegular) {
    m_earlyDue.reset();
    if (isRegular) m_regularDue = m_options.nowMs() + Around(kRegularMs);
    if (!m_keys.IsConnected()) {
        // Where the client has given up, a request has it try again.
        m_noConnection = Printable(m_keys.GetLevel(m_config.Levels().front()).answer.text);
        return;
    }
    const bool wasRead = m_options.takesConfiguration && m_config.IsUnread() && m_state.HaveConfigRead();
    const StateDuty::Depth depth = isRegular ? StateDuty::Depth::kAll : StateDuty::Depth::kMain;
    HostState state = m_state.Take(depth, m_options.nowMs() / 1000, m_options.wallSeconds());
    const std::optional<std::string>& problem = m_state.ConfigProblem();
    if (problem && wasRead) m_config.OnRead(*problem);
    if (problem && !wasRead) m_config.OnProblem(*problem);
    state.config = m_config.Get();
    state.config.pinned = state.config.pinned || !m_options.takesConfiguration;
    if (isRegular || !m_told || DiffersForFleet(*m_told, state)) Put(state);
}

void DutyRound::Put(const HostState& state) {
    const fleet::Answer answer = m_keys.PutState(FormatHostState(state));
    m_putAt = m_options.nowMs();
    if (answer.outcome == fleet::Answer::Outcome::kOk) {
        m_told = state;
        m_putPause = 0;
        m_lastPutError.clear();
        return;
    }
    m_putPause = Grow(m_putPause);
    m_earlyDue = m_putAt + Around(m_putPause);
    m_told.reset();
    SayOnce(m_lastPutError, "this host's state does not reach its fleet: " + Printable(answer.text));
}

std::string DutyRound::Problem() const {
    if (!m_keys.IsConnected()) return m_noConnection;
    if (!m_lastPutError.empty()) return m_lastPutError;
    if (m_options.takesConfiguration && !m_config.Get().error.empty()) return m_config.Get().error;
    return m_listenProblem;
}

void DutyRound::TellAgent() {
    const std::string problem = Problem();
    const int64_t now = m_options.nowMs();
    if (m_agentKnows == problem && (problem.empty() || now < m_agentDue)) return;
    const std::string words = kFleetRequest + Printable(problem).substr(0, FleetTrouble::kMostBytes);
    const base::Result<Answer> answer = m_options.state.ask(zel::kMainProcessName, words);
    if (!answer || !answer->ok) return;
    m_agentKnows = problem;
    m_agentDue = now + kAgainMs;
}

void DutyRound::SayOnce(std::string& last, const std::string& sentence) {
    if (last == sentence) return;
    last = sentence;
    if (m_options.log) m_options.log(sentence);
}

}  // namespace agent
