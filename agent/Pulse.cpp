// Judgement of silence.
#include "Pulse.h"

#include <algorithm>
#include <cstddef>

#include "SteadyTime.h"

#include "AgentLog.h"
#include "platform/zel/LogMessage.h"

namespace agent {

namespace {

constexpr char kBeatWord[] = "alive ";
constexpr size_t kMostDigits = 9;
/// Rounds that may fall out before the sampling counts as standing still.
constexpr int64_t kRoundsBorne = 3;

int64_t SilentFor(int64_t since, int64_t now, int64_t bound) {
    return since == 0 || now - since < bound ? 0 : now - since;
}

}  // namespace

void OwnPulse::Beat(int64_t now, const zelhost::SamplerFigures& figures) {
    if (figures.rounds > 0) m_begun.store(true, std::memory_order_relaxed);
    const int64_t lastBeat = m_beatAt.exchange(now, std::memory_order_relaxed);
    m_roundBound.store(std::max(kHungSeconds, figures.roundMs * kRoundsBorne / 1000), std::memory_order_relaxed);
    const int64_t lastRound = m_roundAt.load(std::memory_order_relaxed);
    if (figures.rounds == m_rounds && lastRound != 0) return;
    // The rounds since the last beat, those that fell out among them, say when the last one was: a beat is rare.
    const auto passed = static_cast<int64_t>(figures.rounds + figures.missedRounds - m_rounds - m_missed);
    const int64_t at = lastBeat + passed * figures.roundMs / 1000;
    m_rounds = figures.rounds;
    m_missed = figures.missedRounds;
    m_roundAt.store(lastRound == 0 ? now : std::clamp(at, lastRound, now), std::memory_order_relaxed);
}

int64_t OwnPulse::NextBeat(int64_t now) const {
    const int64_t next = NextOfRhythm(now, kBeatSeconds);
    const int64_t roundAt = m_roundAt.load(std::memory_order_relaxed);
    const int64_t stands = roundAt + m_roundBound.load(std::memory_order_relaxed);
    return roundAt == 0 || roundAt == now || stands <= now ? next : std::min(next, stands);
}

int64_t OwnPulse::MainSilentSeconds(int64_t now) const {
    return SilentFor(m_beatAt.load(std::memory_order_relaxed), now, kHungSeconds);
}

int64_t OwnPulse::SamplingSilentSeconds(int64_t now) const {
    // The rounds are counted by the main thread: while that is silent nothing is known of them.
    if (MainSilentSeconds(now) > 0) return 0;
    return SilentFor(m_roundAt.load(std::memory_order_relaxed), now, m_roundBound.load(std::memory_order_relaxed));
}

std::string FormatBeat(int64_t samplingSilentSeconds) {
    return kBeatWord + std::to_string(samplingSilentSeconds);
}

bool ParseBeat(const std::string& text, int64_t& samplingSilentSeconds) {
    constexpr size_t kWordBytes = sizeof kBeatWord - 1;
    if (text.compare(0, kWordBytes, kBeatWord) != 0) return false;
    const std::string number = text.substr(kWordBytes);
    if (number.empty() || number.size() > kMostDigits) return false;
    if (number.find_first_not_of("0123456789") != std::string::npos) return false;
    samplingSilentSeconds = std::stoll(number);
    return true;
}

bool ComponentPulses::Note(int pid, const std::string& text, int64_t now) {
    Heard heard;
    heard.at = now;
    if (!ParseBeat(text, heard.samplingSilent)) return false;
    const base::MutexLock guard(m_lock);
    m_heard[pid] = heard;
    return true;
}

int64_t ComponentPulses::JudgeOne(ComponentStatus& component, const Heard& heard, Watched& watched, int64_t now) const {
    const std::string who = "component " + component.name + " (process " + std::to_string(component.pid) + ") ";
    // Who is stopped says nothing and is told apart; what was said while this process did not run is still on its way.
    const bool blind = m_judgedAt == 0 || now - m_judgedAt >= kBlindSeconds;
    if (component.suspended || blind) watched.from = now;
    const int64_t lastSign = std::max({heard.at, watched.from, now - component.runsSeconds});
    const int64_t silent = now - lastSign;
    const int64_t bound = heard.at == 0 ? kHungAtStartSeconds : kHungSeconds;
    const bool main = silent >= bound;
    if (watched.hungAt == 0 && (main || heard.samplingSilent > 0)) {
        watched.toldAt = now;
        watched.hungAt = now - (main ? silent : heard.samplingSilent);
        watched.what = main ? "its main thread does nothing" : "its sampling stands still";
        LogLine(who + "hangs for " + std::to_string(now - watched.hungAt) + " s: " + watched.what, zel::kLogWarning);
    }
    if (watched.hungAt == 0) return lastSign + bound;
    if (heard.at > watched.toldAt && heard.samplingSilent == 0) {
        LogLine(who + "works again after " + std::to_string(now - watched.hungAt) + " s", zel::kLogWarning);
        watched.hungAt = 0;
        return lastSign + bound;
    }
    component.hungSeconds = now - watched.hungAt;
    component.hungWhat = watched.what;
    return now + 1;  // it may go on at any moment
}

int64_t ComponentPulses::Judge(std::vector<ComponentStatus>& components, int64_t now) {
    if (!m_listens) return INT64_MAX;
    std::map<int, Heard> heard;
    std::map<int, Watched> watched;
    int64_t next = INT64_MAX;
    const base::MutexLock guard(m_lock);
    for (ComponentStatus& component : components) {
        if (component.state != ComponentState::kRunning || component.program) continue;
        const auto known = m_heard.find(component.pid);
        const Heard last = known == m_heard.end() ? Heard() : known->second;
        next = std::min(next, JudgeOne(component, last, m_watched[component.pid], now));
        if (known != m_heard.end()) heard[component.pid] = last;
        watched[component.pid] = m_watched[component.pid];
    }
    // Those that have ended are forgotten, and so is who is no component.
    m_heard = std::move(heard);
    m_watched = std::move(watched);
    m_judgedAt = now;
    return next;
}

}  // namespace agent
