// A host in front of the model of the broker.
#include "fleet/ModelHost.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace fleet {
namespace {

std::string SpoolName(size_t number) {
    char name[17];
    std::snprintf(name, sizeof(name), "%016zx", number);
    return name;
}

}  // namespace

ModelHost::ModelHost(ModelBroker& broker, ModelBroker::Chance chance, NextFault nextFault)
    : m_broker(broker),
      m_chance(std::move(chance)),
      m_nextFault(std::move(nextFault)),
      m_rule(std::make_unique<PublishRule>()) {
    m_spools.push_back({SpoolName(1), 0, {}, 0});
}

void ModelHost::AddEvent() {
    ++Current().newest;
}

std::vector<int64_t> ModelHost::NextNumbers() const {
    const Spool& spool = m_spools.back();
    const size_t most = 1 + m_chance(3);
    std::vector<int64_t> numbers;
    for (int64_t n = std::max(m_cursor, m_keptFrom) + 1; n <= spool.newest && numbers.size() < most; ++n) {
        if (spool.dropped.count(n) == 0) numbers.push_back(n);
    }
    return numbers;
}

void ModelHost::Deliver() {
    const std::vector<int64_t> numbers = NextNumbers();
    if (numbers.empty()) return;
    const Batch batch{Current().name, m_cursor, numbers.front(), numbers.back()};
    m_step = m_rule->Begin(batch, Now());
    for (;;) {
        if (m_step.kind == Step::Kind::kRead) {
            m_broker.Settle(false);
            m_step = m_rule->OnRead(m_broker.Read(m_nextFault()), Now());
        } else if (m_step.kind == Step::Kind::kPublish) {
            m_broker.Settle(false);
            ++m_publishes;
            const Answer answer = m_broker.Publish(batch.spool, numbers, m_step.sequence, m_nextFault());
            m_step = m_rule->OnPublish(answer, Now());
        } else {
            break;
        }
    }
    m_askAgainMs = m_nowMs + m_step.pauseMs;
    if (m_step.kind == Step::Kind::kPause) return;
    m_cursor = m_step.number;
    if (m_step.kind != Step::Kind::kStored) return;
    m_ruleKnowsOwn = true;
    Current().promised = std::max(Current().promised, m_cursor);
}

void ModelHost::RestartRelay() {
    if (!IsHealed()) return;
    m_rule = std::make_unique<PublishRule>();
    m_ruleKnowsOwn = false;
}

void ModelHost::RestartComponent() {
    const int64_t least = std::min(m_keptFrom, m_cursor);
    m_cursor = least + m_chance(static_cast<uint32_t>(m_cursor - least + 1));
}

void ModelHost::ReplaceSpool() {
    if (!IsHealed()) return;
    m_spools.push_back({SpoolName(m_spools.size() + 1), 0, {}, 0});
    m_cursor = 0;
    m_keptFrom = 0;
    m_ruleKnowsOwn = false;
}

void ModelHost::DropOldest() {
    Spool& spool = Current();
    if (!IsHealed()) return;
    // What is confirmed goes first, so what is dropped was never said to be stored.
    ForgetConfirmed();
    if (m_keptFrom != spool.promised) return;
    for (int64_t n = m_keptFrom + 1; n <= spool.newest; ++n) {
        if (spool.dropped.insert(n).second) return;
    }
}

void ModelHost::ForgetConfirmed() {
    if (IsHealed()) m_keptFrom = std::max(m_keptFrom, m_cursor);
}

bool ModelHost::IsStored() const {
    const Spool& spool = m_spools.back();
    int64_t newest = 0;
    for (const auto* part : {&m_broker.Aged(), &m_broker.Messages()}) {
        for (const StoredMessage& message : *part) {
            if (message.spool == spool.name) newest = message.numbers.back();
        }
    }
    return newest >= spool.promised;
}

bool ModelHost::IsHealed() {
    m_lost = m_lost && !IsStored();
    return !m_lost;
}

void ModelHost::LoseStored() {
    const auto& messages = m_broker.Messages();
    size_t most = 0;
    while (most < messages.size()) {
        const StoredMessage& message = messages[messages.size() - 1 - most];
        if (message.spool != Current().name || message.numbers.front() <= m_keptFrom) break;
        ++most;
    }
    // A relay that has just begun cannot tell a lost spool from one that was exchanged.
    if (!m_ruleKnowsOwn && most < messages.size() && most > 0) --most;
    if (most == 0) return;
    m_lost = true;
    m_broker.Lose(1 + m_chance(static_cast<uint32_t>(most)));
}

void ModelHost::AgeOut() {
    const auto& messages = m_broker.Messages();
    size_t most = 0;
    while (most < messages.size()) {
        const StoredMessage& message = messages[most];
        if (message.spool == Current().name && message.numbers.back() > m_keptFrom) break;
        ++most;
    }
    if (most > 0 && IsHealed()) m_broker.Age(1 + m_chance(static_cast<uint32_t>(most)));
}

bool ModelHost::HasAll() const {
    return NextNumbers().empty();
}

std::string ModelHost::JudgeSpool(const Spool& spool, bool current) const {
    std::vector<int64_t> stored;
    for (const auto* part : {&m_broker.Aged(), &m_broker.Messages()}) {
        for (const StoredMessage& message : *part) {
            if (message.spool == spool.name)
                stored.insert(stored.end(), message.numbers.begin(), message.numbers.end());
        }
    }
    for (size_t i = 1; i < stored.size(); ++i) {
        if (stored[i] <= stored[i - 1]) return std::to_string(stored[i]) + " after " + std::to_string(stored[i - 1]);
    }
    const std::set<int64_t> all(stored.begin(), stored.end());
    const int64_t due = current ? spool.newest : spool.promised;
    for (int64_t n = 1; n <= due; ++n) {
        if (all.count(n) == 0 && spool.dropped.count(n) == 0) return std::to_string(n) + " is missing";
    }
    return {};
}

std::string ModelHost::Judge() const {
    for (const Spool& spool : m_spools) {
        const std::string wrong = JudgeSpool(spool, &spool == &m_spools.back());
        if (!wrong.empty()) return "spool " + spool.name + ": " + wrong;
    }
    return {};
}

}  // namespace fleet
