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

/// What a look at the groups changes.
struct FollowPlan {
    std::vector<bool> stays;  ///< of those that are watched, in their order
    std::vector<zel::CgroupPressureSource> added;
    std::string problem;  ///< why not all are watched
};

/// What the look has missed is kept until it is known to be gone, or another group is in its place. `most`: how many
/// there may be. Pure.
FollowPlan PlanFollow(const std::vector<zel::CgroupPressureSource>& watched, const zel::CgroupPressureLook& look,
                      const PressureThresholds& thresholds, size_t most);

/// When a group is measured, asked anew, and looked for because another one may be in its place. Pure.
class GroupWatchPlan {
public:
    static constexpr int64_t kMeasureSeconds = 2;
    static constexpr int64_t kFollowSeconds = 10;  ///< the keeper makes a group anew within five
    static constexpr int64_t kRetrySeconds = 60;   ///< after a refusal

    /// The kernel was asked. `taken`: whether it tells.
    void Asked(int64_t second, bool taken);
    /// The kernel has told, which it does of a group that was removed, too. `read`: whether there are figures of it.
    void Fired(int64_t second, bool read);
    /// The measurement has ended. `told`: a message has it.
    void Measured(int64_t second, bool read, bool told);

    // Returns: whether that is to be done now; it is once.
    bool TakeMeasuring(int64_t second) { return Take(m_measureAt, second); }
    bool TakeArming(int64_t second);
    bool TakeFollowing(int64_t second) { return Take(m_followAt, second); }

    bool IsMeasured() const { return m_measureAt != 0; }
    const StallEpisode& Episode() const { return m_episode; }
    /// Returns: the second in which the next of them is due; 0: none.
    int64_t DueAt() const;

private:
    static bool Take(int64_t& at, int64_t second);

    StallEpisode m_episode;
    int64_t m_measureAt = 0;
    int64_t m_retryAt = 0;
    int64_t m_followAt = 0;
};

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
        int64_t measuredFromMs = 0;  // since boot
        GroupWatchPlan plan;
    };

    void Add(const zel::CgroupPressureSource& source, int64_t second);
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
    int64_t m_followAt = 0;  // the last look has missed something
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
