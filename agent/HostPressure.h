// Stalls of the host: the kernel wakes the main process when tasks have waited too long for memory, storage or a CPU,
// and a message says for what, how long, and which processes take the most. While there is no stall nothing is done.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentRecords.h"
#include "TopConsumers.h"
#include "base/Fd.h"
#include "base/IoLoop.h"
#include "base/Mutex.h"
#include "base/Pressure.h"
#include "platform/zel/CgroupKeeper.h"

namespace agent {

/// When a message is due and when the kernel is asked again. A stall that goes on is one episode: it has a message when
/// it begins and one an hour; the kernel is asked once a minute, so that a long one does not cost a wake-up a window.
/// Pure.
class StallEpisode {
public:
    static constexpr int64_t kPauseSeconds = 60;  ///< after a stall or a refusal until the kernel is asked again
    static constexpr int64_t kAgainSeconds = 3600;
    static constexpr int64_t kFreshSeconds = 5;  ///< the kernel's averages are two seconds late

    /// The kernel has told of one. Returns: whether it is to be told of.
    bool Begin(int64_t second);
    /// It was told of.
    void Told(int64_t second) { m_toldAt = second; }
    /// Returns: whether the kernel is to be asked again now; it is once.
    bool TakeArming(int64_t second);

    /// Returns: whether the last one that began goes on one that was told of before.
    bool GoesOn() const { return m_goesOn; }
    /// Returns: whether one is under way: until the kernel was asked for as long as it was not, and told of none.
    bool IsUnderWay(int64_t second) const { return m_endsAt != 0 && second < m_endsAt; }
    uint64_t Stalls() const { return m_stalls; }
    /// The kernel was asked and refused.
    void Refused(int64_t second) { m_armAt = second + kPauseSeconds; }
    /// The kernel is asked already.
    void ForgetArming() { m_armAt = 0; }
    /// Returns: 0 when nothing is due.
    int64_t ArmAt() const { return m_armAt; }
    /// Returns: the second from which on it is over; 0: there was none.
    int64_t EndsAt() const { return m_endsAt; }
    /// Returns: whether the episode that ends then has just begun, or been told of again.
    static bool IsFresh(int64_t endsAt, int64_t second) { return second < endsAt - 2 * kPauseSeconds + kFreshSeconds; }

private:
    uint64_t m_stalls = 0;
    bool m_goesOn = false;
    int64_t m_armAt = 0;
    int64_t m_endsAt = 0;
    std::optional<int64_t> m_toldAt;  // of this episode
};

/// Returns: whether tasks wait now, and not only did a moment ago: an episode goes on for minutes without the kernel
/// being asked, and `average100Times` is what it counts meanwhile (-1: not known). `began`: whether it began just now,
/// which the average has only a part of. Pure.
bool IsStalledNow(bool underWay, bool began, int average100Times, int thresholdPercent);

/// Returns: whether the counter of a resource has grown by what the trigger asks for since `beforeUs`, when it was set.
/// Kernel: a new trigger often tells at once of a stall that is not in the counter (6.18: of 76 first words 54). It
/// looks as if its first window began with an older count; the counter has the last word. Pure.
bool HasStalled(uint64_t beforeUs, uint64_t nowUs, const base::PressureTrigger& trigger);

/// Thread-safety: Follow, Tick, NextDue and Close on the main thread; Status from any thread.
class HostPressure {
public:
    /// `wakeMain`: has Tick called soon; from another thread.
    explicit HostPressure(void (*wakeMain)()) : m_wakeMain(wakeMain) {}
    ~HostPressure();
    HostPressure(const HostPressure&) = delete;
    HostPressure& operator=(const HostPressure&) = delete;

    /// Asks the kernel, or asks it for something else. What it refuses is in Status.
    void Follow(const PressureThresholds& thresholds);
    /// Measures and delivers what is due, and asks the kernel again. `second`: SecondsSinceBoot(). `members`: the
    /// running components' processes; called only for a message.
    void Tick(int64_t second, const std::function<std::vector<zel::CgroupMember>()>& members);
    /// Returns: the second of the next Tick; 0 while there is nothing to do.
    int64_t NextDue() const;
    /// Blocks: for the loop's thread.
    void Close();

    /// Reads the three files of the kernel.
    std::vector<PressureStatus> Status() const;

private:
    struct Watched {
        base::PressureResource resource = base::PressureResource::kMemory;
        base::PressureTrigger trigger;
        base::Fd file;
        std::unique_ptr<base::IoWatch> watch;  // the loop's thread
        std::atomic<bool> fired{false};
        StallEpisode episode;
        int64_t measureAt = 0;       // 0: nothing is being measured
        int64_t measuredFromMs = 0;  // since boot
        uint64_t totalUs = 0;
        uint64_t armedTotalUs = 0;  // when the kernel was asked, or has told of what was none
        std::vector<ProcessUse> before;
    };

    void Arm(Watched& watched, int64_t second);
    base::Status Open(Watched& watched);
    void Await(Watched& watched);
    bool IsConfirmed(Watched& watched);
    void Disarm(Watched& watched);
    void BeginMeasuring(Watched& watched, int64_t second);
    void Report(Watched& watched, const std::vector<zel::CgroupMember>& members);
    void Publish(const Watched& watched, const std::string* problem = nullptr);

    void (*const m_wakeMain)();
    std::shared_ptr<base::IoLoop> m_loop;            // the process's; null while nothing is watched
    std::optional<PressureThresholds> m_thresholds;  // none before the first Follow
    std::array<Watched, base::kPressureResources> m_watched;

    mutable base::Mutex m_lock;
    std::array<PressureStatus, base::kPressureResources> m_status ZEL_GUARDED_BY(m_lock);  // lastAt: since boot
    std::array<int64_t, base::kPressureResources> m_endsAt ZEL_GUARDED_BY(m_lock){};
};

/// A stall as the message has it.
struct StallFacts {
    base::PressureResource resource = base::PressureResource::kMemory;
    base::PressureTrigger trigger;
    bool goesOn = false;
    int64_t stalled100Times = -1;  ///< of the second in which the consumers were measured; -1: not known
    base::PressureLine line;
    std::vector<Consumer> consumers;
};

/// The body of the message. Pure.
std::string FormatStall(const StallFacts& facts, const std::vector<zel::CgroupMember>& members, int64_t now);

}  // namespace agent
