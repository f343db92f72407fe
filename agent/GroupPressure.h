// Stalls of the components in their own control groups (version 2): the kernel wakes the main process when a component
// has waited too long for a CPU or for memory, and where a limit of the agent's holds it back a message says whose and
// what to do. While nothing stalls nothing is done.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "AgentRecords.h"
#include "HostPressure.h"
#include "base/Fd.h"
#include "base/IoLoop.h"
#include "base/Mutex.h"
#include "platform/zel/CgroupPressure.h"

namespace agent {

/// A component's stall as the message has it.
struct GroupStall {
    zel::CgroupPressureSource source;
    int thresholdPercent = 0;
    bool goesOn = false;
    int64_t stalled100Times = 0;  ///< share of the time between the two readings
    zel::CgroupPressureFigures before;
    zel::CgroupPressureFigures after;
};

/// Whose limit has held the component back most between the two readings: of those that were reached at all the one
/// nearest to it. Returns: null when none was, as where the host itself is short. Pure.
const zel::CgroupPressureLevel* FindHolder(const zel::CgroupPressureFigures& before,
                                           const zel::CgroupPressureFigures& after);

/// The body of the message. Requires: a holder. Pure.
std::string FormatGroupStall(const GroupStall& stall, const zel::CgroupPressureLevel& holder, int64_t now);

/// Thread-safety: Order, Follow, Tick, NextDue and Close on the main thread; Status from any thread.
class GroupPressure {
public:
    /// Descriptors that are kept, one for each resource of each component.
    static constexpr size_t kMostWatched = 64;

    /// `wakeMain`: has Tick called soon; from another thread.
    explicit GroupPressure(void (*wakeMain)()) : m_wakeMain(wakeMain) {}
    ~GroupPressure() { Close(); }
    GroupPressure(const GroupPressure&) = delete;
    GroupPressure& operator=(const GroupPressure&) = delete;

    /// What is to be told of. Asks the kernel for that at the next Follow, and at once when groups are known.
    void Order(const PressureThresholds& thresholds);
    /// The groups may have changed: asks for those that are new, and lets go of those that are gone.
    void Follow();
    /// Measures and delivers what is due. `second`: SecondsSinceBoot().
    void Tick(int64_t second);
    /// Returns: the second of the next Tick; 0 while there is nothing to do.
    int64_t NextDue() const;
    /// Blocks: for the loop's thread.
    void Close();

    /// Reads one file of the kernel's for each that is watched.
    GroupPressureStatus Status() const;

private:
    struct Watched {
        zel::CgroupPressureSource source;
        int percent = 0;
        base::Fd file;
        std::unique_ptr<base::IoWatch> watch;  // the loop's thread
        ComponentStall shown;                  // what Status has of it
        std::atomic<bool> fired{false};
        zel::CgroupPressureFigures before;
        int64_t measureAt = 0;       // 0: nothing is being measured
        int64_t measuredFromMs = 0;  // since boot
        StallEpisode episode;
    };

    int PercentOf(zel::CgroupResource resource) const;
    void Arm(Watched& watched);
    void Disarm(Watched& watched);
    void BeginMeasuring(Watched& watched, int64_t second);
    void Report(Watched& watched, int64_t second);
    void TellOnce(const std::string& problem);
    void Publish();

    void (*const m_wakeMain)();
    std::shared_ptr<base::IoLoop> m_loop;  // the process's; null while nothing is watched
    PressureThresholds m_thresholds;
    std::list<Watched> m_watched;
    int64_t m_followAt = 0;  // a group went away without a word of the agent's
    std::string m_problem;
    std::string m_told;  // the one that the log has last

    struct Shown {
        zel::CgroupPressureSource source;
        ComponentStall stall;
        int64_t endsAt = 0;
    };
    mutable base::Mutex m_lock;
    std::vector<Shown> m_shown ZEL_GUARDED_BY(m_lock);
    std::string m_reason ZEL_GUARDED_BY(m_lock);
};

}  // namespace agent
