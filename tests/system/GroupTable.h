// The numbers that the agent's tree is to show, worked out from the documented rules alone: widening of the maxima, the
// reserve of a twentieth, shares of groups, slices of components.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace agenttest {

struct GroupRow {
    std::string name;
    int64_t share;  ///< percent of the whole
    int64_t memoryKb;
};

struct ComponentRow {
    std::string name;
    std::string group;
    int64_t slice;  ///< hundredths of a percent of its group
    int64_t memoryKb;
};

inline std::vector<GroupRow> BuiltInGroups() {
    return {{"main", 20, 15360}, {"guard", 0, 10240}, {"collect-defense", 60, 92160}};
}

inline std::vector<ComponentRow> BuiltInComponentRows() {
    return {{"Tervane", "main", 2000, 15360},           {"TervaneMonitor", "collect-defense", 6000, 40960},
            {"TervaneUpdate", "guard", 0, 10240},       {"QorHips", "collect-defense", 5000, 20480},
            {"QorNet", "collect-defense", 5000, 10240}, {"QorWebGuard", "collect-defense", 5000, 20480}};
}

/// Hundredths of a percent of one CPU, and KB; 0 is no limit.
struct Numbers {
    int64_t cpu = 0;
    int64_t memoryKb = 0;
};

class Expectation {
public:
    /// `maxCpu` in percent, `maxMemory` in MB, as configured, on a host where the maximum counts for one CPU.
    Expectation(int64_t maxCpu, int64_t maxMemory)
        : m_cpu(std::clamp<int64_t>(std::min(maxCpu * 3 / 2, maxCpu + 5) * 95 / 100, 1, 100)),
          m_memory(std::min(maxMemory * 3 / 2, maxMemory + 100)) {}

    Numbers Parent() const { return {m_cpu * 100, m_memory * 1024 * 3 / 2}; }
    Numbers Of(const GroupRow& group) const {
        return {std::max<int64_t>(group.share, 0) * m_cpu, group.memoryKb * m_memory / 200 * 3 / 2};
    }
    Numbers Of(const ComponentRow& component, const std::vector<GroupRow>& groups) const {
        Numbers numbers;
        numbers.memoryKb = component.memoryKb * m_memory / 200;
        for (const GroupRow& group : groups) {
            if (group.name == component.group) numbers.cpu = Of(group).cpu * component.slice / 10000;
        }
        return numbers;
    }

private:
    int64_t m_cpu;
    int64_t m_memory;
};

}  // namespace agenttest
