// When the words are due, and which of them are news.
#include "LimitNews.h"

#include "platform/host/OnlineClientConf.h"

namespace agent {

namespace {

/// A change takes its way through the processes: what is not in force before that is no refusal.
constexpr int64_t kSettleSeconds = 2;

COnlineClientConf* Conf() {
    return CSingleton<COnlineClientConf>::GetInstance();
}

/// The limits that are asked for: a change of anything else is no new refusal.
std::string AskedFor(const StatusReport& report) {
    std::string asked = std::to_string(report.mode);
    if (COnlineClientConf* conf = Conf()) {
        asked += " " + std::to_string(conf->maxCpu.Get()) + " " + std::to_string(conf->maxMemory.Get());
    }
    return asked;
}

}  // namespace

void LimitNews::Listen() {
    COnlineClientConf* conf = Conf();
    if (conf == nullptr || m_listens) return;
    m_listens = true;
    conf->AddNotify(this);
}

void LimitNews::StopListening() {
    COnlineClientConf* conf = Conf();
    if (conf != nullptr && m_listens) conf->RemoveNotify(this);
    m_listens = false;
}

bool LimitNews::IsDue(int64_t second) {
    if (m_changed.exchange(false)) m_dueAt = second + kSettleSeconds;
    if (m_dueAt == 0 || second < m_dueAt) return false;
    m_dueAt = 0;
    return true;
}

std::vector<std::string> LimitNews::TakeNews(const StatusReport& report, std::vector<std::string> lines) {
    const std::string asked = AskedFor(report);
    if (asked == m_asked && lines == m_told) return {};
    m_asked = asked;
    m_told = lines;
    return lines;
}

}  // namespace agent
