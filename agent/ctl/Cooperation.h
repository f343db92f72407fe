// Which components hold their work back, as their own consoles say: one of them is asked at a time, on a thread of its
// own, so that a slow one delays no picture.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "StatusReport.h"

namespace agent {

constexpr size_t kPriorities = 3;

/// What was seen of one component so far.
struct HoldBack {
    int cpuLevel = 0;
    int memoryLevel = 0;
    std::array<bool, kPriorities> now{};       ///< the answer that it gives its workers
    std::array<uint64_t, kPriorities> held{};  ///< looks at which it was yes
    uint64_t looks = 0;
    uint64_t told = 0;     ///< times its workers were told to, of all priorities
    uint64_t sleptMs = 0;  ///< for how long they were paused
};
using Cooperation = std::map<std::string, HoldBack>;  // by component

/// Adds one look at a component.
void NoteLook(const StatusReport& component, HoldBack& seen);

/// Thread-safety: one thread uses it; its own thread is inside.
/// Lifetime: an answer that is waited for may come after its end, and is dropped then.
class CooperationWatch {
public:
    explicit CooperationWatch(std::string appDir);
    ~CooperationWatch();
    CooperationWatch(const CooperationWatch&) = delete;
    CooperationWatch& operator=(const CooperationWatch&) = delete;

    /// From now on the components of this status are asked: those that run, answer and have a console.
    void Follow(const StatusReport& main);
    /// Returns: what is known of those.
    Cooperation Get() const;

private:
    struct Shared;
    static void Ask(const std::shared_ptr<Shared>& shared);

    std::shared_ptr<Shared> m_shared;
};

}  // namespace agent
