// Which figures of the runtime are shown as metrics.
#pragma once

#include <vector>

#include "platform/host/HostRecords.h"
#include "platform/zel/CgroupStatus.h"

namespace zelhost {

void AddSamplerMetrics(const SamplerFigures& figures, std::vector<Metric>& metrics);
void AddDeliveryMetrics(const DeliveryStats& stats, std::vector<Metric>& metrics);
void AddStatisticsMetrics(const StatisticsSnapshot& snapshot, std::vector<Metric>& metrics);
/// Throttling, memory and its limit, as the kernel counts them for the group whose limit on the process is the
/// tightest, and for its own where none limits. A controller that serves nothing here gives no sample.
void AddGroupMetrics(const zel::CgroupStatus& groups, std::vector<Metric>& metrics);
/// Threads, HTTP failures, and the groups of this process.
/// Blocks: for a few small reads of the kernel's files.
void AddProcessMetrics(std::vector<Metric>& metrics);

}  // namespace zelhost
