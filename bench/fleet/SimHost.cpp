// A simulated host of a fleet.
#include "SimHost.h"

#include <json/json.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "rule/FleetNames.h"

namespace fleet {
namespace {

constexpr char kSpool[] = "00000000000000aa";
constexpr int64_t kEventPeriodMs = 5000;  // 10,000 hosts: 2,000 events a second
constexpr int64_t kStatePeriodMs = agent::kHostStateSeconds * 1000;
constexpr int64_t kPatienceMs = 5000;   // for an answer
constexpr int64_t kMostBellMs = 10000;  // before the levels are asked after a bell
constexpr int kGroups = 10;
constexpr char kDirectEvents[] = "$JS.API.DIRECT.GET.EVENTS.";
constexpr char kDirectConfig[] = "$JS.API.DIRECT.GET.KV_config.$KV.config.";

std::string EventText(const std::string& host, int64_t number) {
    return "{\"host\":\"" + host + "\",\"n\":" + std::to_string(number) + ",\"text\":\"" + std::string(240, 'x') +
           "\"}";
}

uint64_t Number(std::string_view text) {
    return std::strtoull(std::string(text).c_str(), nullptr, 10);
}

/// What the broker said to a message that is to be stored.
Answer AckOf(const WireMessage& message) {
    Answer answer;
    if (StatusOf(message.headers) == 503) {
        answer.outcome = Answer::Outcome::kNoResponders;
        return answer;
    }
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(message.body.data(), message.body.data() + message.body.size(), &value, nullptr)) return answer;
    answer.outcome = value.isMember("error") ? Answer::Outcome::kError : Answer::Outcome::kOk;
    answer.code = value["error"]["err_code"].asInt();
    answer.text = value["error"]["description"].asString();
    answer.sequence = value["seq"].asUInt64();
    answer.duplicate = value["duplicate"].asBool();
    return answer;
}

/// The last message of the subject.
Answer LastOf(const std::string& host, const WireMessage& message) {
    Answer answer;
    const int status = StatusOf(message.headers);
    answer.outcome = status == 404   ? Answer::Outcome::kNotFound
                     : status == 503 ? Answer::Outcome::kNoResponders
                     : status != 0   ? Answer::Outcome::kError
                                     : Answer::Outcome::kOk;
    if (answer.outcome != Answer::Outcome::kOk) return answer;
    answer.sequence = Number(HeaderOf(message.headers, "Nats-Sequence"));
    const auto id = ParseMessageId(host, std::string(HeaderOf(message.headers, "Nats-Msg-Id")));
    if (!id) return answer;
    answer.spool = id->spool;
    answer.number = id->number;
    return answer;
}

}  // namespace

SimHost::SimHost(SimShared& shared, int number)
    : m_shared(shared),
      m_name("h" + std::to_string(number)),
      m_group("g" + std::to_string(number % kGroups)),
      m_subject(EventSubject(m_name, "tervane")),
      m_levels{{"all", 0, {}}, {"group." + m_group, 0, {}}, {"host." + m_name, 0, {}}} {
    m_nextStateMs = m_shared.nowMs + m_shared.Chance(kStatePeriodMs);
}

void SimHost::OnOpen() {
    out = ConnectLine(m_name) + Subscribe("_INBOX." + m_name + ".*", 1);
    for (size_t level = 0; level < m_levels.size(); ++level) {
        out += Subscribe("$KV.config." + m_levels[level].name, static_cast<int>(level) + 2);
    }
    out += "PING\r\n";
}

void SimHost::OnClosed() {
    m_ready = false;
    out.clear();
    if (!m_asked) return;
    Answer answer;
    answer.outcome = Answer::Outcome::kDisconnected;
    OnAnswer(answer);
}

bool SimHost::OnBytes(std::string& bytes) {
    return TakeMessages(bytes, [this](const WireMessage& message) {
        if (message.word == "PING") out += "PONG\r\n";
        if (message.word == "-ERR") ++m_shared.refused;
        if (message.word == "PONG" && !m_ready) {
            m_ready = true;
            m_rule.OnConnected();
            m_askAgainMs = 0;
            AskLevels();
        }
        if (message.word == "MSG") OnMessage(message);
    });
}

void SimHost::OnMessage(const WireMessage& message) {
    constexpr std::string_view kBell = "$KV.config.";
    if (message.subject.substr(0, kBell.size()) == kBell) {
        // It rings before the value is stored: the levels are asked, at a time by chance; once more if they just are.
        if (m_levelsMissing > 0) m_rang = true;
        if (m_levelsDueMs < 0) m_levelsDueMs = m_shared.nowMs + m_shared.Chance(kMostBellMs);
        return;
    }
    OnReply(message.subject.substr(message.subject.rfind('.') + 1), message);
}

void SimHost::OnReply(std::string_view token, const WireMessage& message) {
    if (token == "s") {
        m_shared.stateUs.push_back(static_cast<float>(m_shared.nowUs - m_stateSentUs));
        const Answer answer = AckOf(message);
        if (answer.sequence == 0 && ++m_shared.refused == 1) {
            std::printf("refused: %s (%d, %d)\n", answer.text.c_str(), answer.code, StatusOf(message.headers));
        }
        return;
    }
    const uint64_t number = Number(token.substr(1));
    if (token.substr(0, 1) == "c") {
        if (number / m_levels.size() == m_looks) OnLevel(number % m_levels.size(), message);
        return;
    }
    if (!m_asked || m_asked->number != number) return;  // it came too late
    if (m_asked->publishes) m_shared.publishUs.push_back(static_cast<float>(m_shared.nowUs - m_asked->sentUs));
    OnAnswer(m_asked->publishes ? AckOf(message) : LastOf(m_name, message));
}

void SimHost::OnAnswer(const Answer& answer) {
    const bool published = m_asked->publishes;
    m_asked.reset();
    Follow(published ? m_rule.OnPublish(answer, Now()) : m_rule.OnRead(answer, Now()));
}

void SimHost::Begin() {
    Follow(m_rule.Begin({kSpool, m_stored, m_stored + 1, m_stored + 1}, Now()));
}

void SimHost::Follow(Step step) {
    switch (step.kind) {
        case Step::Kind::kRead:
        case Step::Kind::kPublish: Ask(step); return;
        case Step::Kind::kStored:
        case Step::Kind::kGoBack:
            m_waiting += m_stored - step.number;
            m_stored = step.number;
            return;
        case Step::Kind::kPause:
            ++m_shared.later;
            m_askAgainMs = m_shared.nowMs + step.pauseMs;
            return;
    }
}

void SimHost::Ask(const Step& step) {
    m_asked = Request{step.kind == Step::Kind::kPublish, ++m_requests, m_shared.nowMs, m_shared.nowUs};
    const std::string reply = Inbox("p" + std::to_string(m_requests));
    if (!m_asked->publishes) {
        out += Publish(kDirectEvents + m_subject, reply, "");
        return;
    }
    const int64_t number = m_stored + 1;
    out += Publish(m_subject, reply, EventText(m_name, number),
                   "Nats-Msg-Id: " + FormatMessageId(m_name, {kSpool, number}) +
                       "\r\nNats-Expected-Stream: EVENTS\r\nNats-Expected-Last-Subject-Sequence: " +
                       std::to_string(step.sequence) + "\r\nZel-First: " + std::to_string(number) + "\r\n");
}

void SimHost::AskLevels() {
    m_levelsMissing = m_levels.size();
    ++m_looks;
    m_rang = false;
    m_levelsDueMs = m_shared.nowMs + kPatienceMs;  // what is not answered is asked again
    for (size_t level = 0; level < m_levels.size(); ++level) {
        m_levels[level].revision = 0;
        out += Publish(kDirectConfig + m_levels[level].name,
                       Inbox("c" + std::to_string(m_looks * m_levels.size() + level)), "");
    }
}

void SimHost::OnLevel(size_t level, const WireMessage& message) {
    if (m_levelsMissing == 0) return;
    const int status = StatusOf(message.headers);
    if (status != 0 && status != 404) return;
    m_levels[level].revision = status == 404 ? 0 : Number(HeaderOf(message.headers, "Nats-Sequence"));
    m_levels[level].text.reset();
    if (status == 0 && HeaderOf(message.headers, "KV-Operation").empty()) m_levels[level].text = message.body;
    if (--m_levelsMissing == 0) Decide();
}

void SimHost::Decide() {
    m_levelsDueMs = m_rang ? m_shared.nowMs + m_shared.Chance(kMostBellMs) : -1;
    const agent::RemoteDecision decision = agent::DecideRemoteConfig(m_levels, m_file);
    m_seen = decision.revision;
    m_error = decision.error;
    if (decision.action == agent::RemoteAction::kWrite) m_file = decision.text;
    if (decision.action == agent::RemoteAction::kRefused) return PutState();
    const bool isNew = m_applied != decision.revision;
    m_applied = decision.revision;
    if (isNew) PutState();
}

void SimHost::PutState() {
    agent::HostState state;
    state.host = m_name;
    state.groups = {m_group};
    state.version = "1.0.0";
    state.time = m_shared.nowMs / 1000;
    state.uptimeSeconds = state.time;
    state.agentRuns = true;
    state.mode = "memory and CPU by control groups, of the whole and of each component";
    state.config.seen = m_seen;
    state.config.applied = m_applied;
    state.config.error = m_error;
    state.eventsWaiting = static_cast<uint64_t>(m_waiting);
    m_stateSentUs = m_shared.nowUs;
    ++m_shared.states;
    m_nextStateMs = m_shared.nowMs + kStatePeriodMs - kStatePeriodMs / 10 + m_shared.Chance(kStatePeriodMs / 5);
    out += Publish("$KV.state." + m_name, Inbox("s"), agent::FormatHostState(state));
}

void SimHost::OnTime() {
    if (!m_shared.produces) m_nextEventMs = 0;
    if (m_shared.produces && m_nextEventMs == 0) m_nextEventMs = m_shared.nowMs + m_shared.Chance(kEventPeriodMs);
    if (m_shared.produces && m_shared.nowMs >= m_nextEventMs) {
        ++m_waiting;
        ++m_shared.events;
        m_nextEventMs += kEventPeriodMs;
    }
    if (!m_ready) return;
    if (m_levelsDueMs >= 0 && m_shared.nowMs >= m_levelsDueMs) AskLevels();
    if (m_shared.produces && m_shared.nowMs >= m_nextStateMs) PutState();
    if (m_asked && m_shared.nowMs - m_asked->sentMs > kPatienceMs) {
        ++m_shared.unanswered;
        OnAnswer(Answer());
    }
    if (!m_asked && m_waiting > 0 && m_shared.nowMs >= m_askAgainMs) Begin();
}

}  // namespace fleet
