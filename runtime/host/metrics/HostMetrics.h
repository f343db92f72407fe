// Which figures of the runtime are shown as metrics.
#pragma once

#include <vector>

#include "platform/host/HostRecords.h"

namespace zelhost {

void AddSamplerMetrics(const SamplerFigures& figures, std::vector<Metric>& metrics);
void AddDeliveryMetrics(const DeliveryStats& stats, std::vector<Metric>& metrics);
void AddStatisticsMetrics(const StatisticsSnapshot& snapshot, std::vector<Metric>& metrics);
/// Threads, HTTP failures, and this process's own control groups: throttling, memory and its limit, as the kernel
/// counts them. Reads /proc/self/cgroup, /proc/self/mountinfo and the groups' files.
void AddProcessMetrics(std::vector<Metric>& metrics);

}  // namespace zelhost
