// Which figures of the runtime are shown as metrics.
#pragma once

#include <vector>

#include "platform/host/HostRecords.h"

namespace zelhost {

void AddSamplerMetrics(const SamplerFigures& figures, std::vector<Metric>& metrics);
void AddDeliveryMetrics(const DeliveryStats& stats, std::vector<Metric>& metrics);
void AddStatisticsMetrics(const StatisticsSnapshot& snapshot, std::vector<Metric>& metrics);
/// Threads, HTTP failures, and control groups: throttling, memory and its limit, as the kernel counts them for the
/// group whose limit on this process is the tightest, and for its own where none limits.
/// Blocks: for a few small reads of the kernel's files.
void AddProcessMetrics(std::vector<Metric>& metrics);

}  // namespace zelhost
