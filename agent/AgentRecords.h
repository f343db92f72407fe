// Figures of an agent's components and workers, as they are shown. Plain records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace agent {

enum class ComponentState { kWaiting, kRunning, kStopped };

struct ComponentStatus {
    std::string name;
    std::string group;
    ComponentState state = ComponentState::kWaiting;
    int pid = 0;
    int64_t runsSeconds = 0;   ///< for how long, while it runs
    int64_t waitsSeconds = 0;  ///< for how much longer, while it waits
    bool suspended = false;    ///< stopped by a signal, and running again with SIGCONT
    int64_t suspendedSeconds = 0;
    uint64_t restarts = 0;  ///< by this main process
    uint64_t recentRestarts = 0;
    bool exhausted = false;
    std::string lastReason;
    bool program = false;      ///< another program: of its life only its state is known
    bool cannotStart = false;  ///< its last start failed, lastReason says why
    int64_t hungSeconds = 0;   ///< for how long it has given no sign of life though it runs; 0: it gives them
    std::string hungWhat;      ///< which part of it does nothing
};

/// Percent of two seconds in which tasks waited; 0: not watched. Of a CPU somebody always waits on a busy host, so that
/// is for those who ask for it.
struct PressureThresholds {
    int memory = 20;  ///< anybody
    int io = 60;      ///< all that have something to do
    int cpu = 0;      ///< anybody
    // Of a component in its own group.
    int ownMemory = 20;  ///< any of its tasks
    int ownCpu = 80;     ///< all that want to run: one that works at its limit always waits

    bool operator==(const PressureThresholds& other) const {
        return memory == other.memory && io == other.io && cpu == other.cpu && ownMemory == other.ownMemory &&
               ownCpu == other.ownCpu;
    }
};

/// Stalls of the host for want of one resource, as the kernel counts them.
struct PressureStatus {
    std::string resource;      ///< "memory", "io" or "cpu"
    bool full = false;         ///< the figures are of all tasks that have something to do; else of any
    int thresholdPercent = 0;  ///< of two seconds, from which on a stall is told of
    bool watched = false;
    std::string reason;       ///< why it is not
    int avg10_100times = -1;  ///< Units: hundredths of a percent of the last 10 s; -1: the kernel does not tell
    int avg60_100times = -1;
    uint64_t stalls = 0;  ///< told by the kernel, once a minute at most
    bool lasts = false;   ///< one is under way
    int64_t lastAt = 0;   ///< wall clock; 0: none yet
};

/// Stalls of one component in its own group. The figures are of that group.
struct ComponentStall : PressureStatus {
    std::string component;
    std::string group;        ///< in which its own one is
    bool measured = false;    ///< what follows is of the last one; false: not known yet
    bool byLimit = false;     ///< a limit of the agent's held it back, that of the group `limitGroup`
    std::string limitGroup;   ///< below the tree; empty: the whole agent
    int limit = 0;            ///< hundredths of a percent of one CPU, or KB
    int stalled100Times = 0;  ///< share of those two seconds
};

struct GroupPressureStatus {
    std::string reason;  ///< why not every controller is watched; empty: nothing is in the way
    std::vector<ComponentStall> components;
};

/// What work of one priority was told so far.
struct HoldBackFigures {
    uint64_t answers = 0;  ///< times it was told to hold back
    uint64_t sleptMs = 0;  ///< for how long it was paused
};

/// What the workers of one kind did so far.
struct WorkerFigures {
    int threads = 0;
    uint64_t pieces = 0;  ///< pieces of work done, about a tenth of a millisecond of CPU each
    uint64_t asked = 0;   ///< times the monitor was asked whether to hold back
    uint64_t held = 0;    ///< times it said yes
};

}  // namespace agent
