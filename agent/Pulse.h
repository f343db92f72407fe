// Signs of life. A process that exists may do nothing: each judges its own main thread and its own sampling, and each
// component tells the main process every few seconds, from its main thread, that it does its work.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "AgentRecords.h"
#include "base/Mutex.h"
#include "platform/host/HostRecords.h"

namespace agent {

/// How often a sign of life is given, and after how much silence a process counts as hung: more than two of them, so
/// that one that gets little of a CPU is not blamed.
constexpr int64_t kBeatSeconds = 8;
constexpr int64_t kHungSeconds = 20;
/// A main process that has not judged for this long did not run itself. More than it leaves between two looks; with one
/// beat on top it is less than kHungSeconds.
constexpr int64_t kBlindSeconds = 10;
/// The same for one that has not been heard yet: with little of a CPU a start takes its time.
constexpr int64_t kHungAtStartSeconds = 60;

/// This process's own. Times: SecondsSinceBoot().
/// Thread-safety: Beat from the main thread, the rest from any.
class OwnPulse {
public:
    /// The main thread works, and this is what the sampling has done so far.
    void Beat(int64_t now, const zelhost::SamplerFigures& figures);

    /// Returns: the second of the beat after one at `now`: the next of the rhythm, or before that the one in which
    /// sampling that has made no round for a while counts as standing still. For the main thread.
    int64_t NextBeat(int64_t now) const;

    /// Whether the main thread has looked around once, and a round was sampled.
    bool HasBegun() const { return m_begun.load(std::memory_order_relaxed); }

    /// Returns: for how long it has done nothing; 0 while that is no longer than it may be.
    int64_t MainSilentSeconds(int64_t now) const;
    int64_t SamplingSilentSeconds(int64_t now) const;

private:
    std::atomic<bool> m_begun{false};
    std::atomic<int64_t> m_beatAt{0};
    std::atomic<int64_t> m_roundAt{0};
    std::atomic<int64_t> m_roundBound{kHungSeconds};
    uint64_t m_rounds = 0;
    uint64_t m_missed = 0;
};

/// What a component says. Pure.
std::string FormatBeat(int64_t samplingSilentSeconds);
/// Returns: false, with `samplingSilentSeconds` as it was, when the text is none. Pure.
bool ParseBeat(const std::string& text, int64_t& samplingSilentSeconds);

/// The components' signs of life, as the main process has heard them.
/// Thread-safety: Note from any thread, the rest from the main thread. To be judged every second or so.
class ComponentPulses {
public:
    /// From here on the components can be heard: before, their silence says nothing.
    void Listen() { m_listens = true; }

    /// Returns: whether the text is a sign of life.
    bool Note(int pid, const std::string& text, int64_t now) ZEL_EXCLUDES(m_lock);

    /// Fills in which of the components hang. One log line when one begins to, one when it goes on.
    /// Silence counts while the component and this process both ran, and the one could be heard by the other.
    /// Returns: when to judge again, if nothing is heard until then; INT64_MAX: there is nobody to judge.
    int64_t Judge(std::vector<ComponentStatus>& components, int64_t now) ZEL_EXCLUDES(m_lock);

private:
    struct Heard {
        int64_t at = 0;
        int64_t samplingSilent = 0;
    };
    struct Watched {
        int64_t from = 0;    // silence counts from here on
        int64_t hungAt = 0;  // since when it hangs; 0: it does not
        int64_t toldAt = 0;
        const char* what = "";
    };
    /// Returns: when to judge it again.
    int64_t JudgeOne(ComponentStatus& component, const Heard& heard, Watched& watched, int64_t now) const;

    base::Mutex m_lock;
    std::map<int, Heard> m_heard ZEL_GUARDED_BY(m_lock);  // by process
    std::map<int, Watched> m_watched;
    bool m_listens = false;
    int64_t m_judgedAt = 0;
};

}  // namespace agent
