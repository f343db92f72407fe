// Builds the Prometheus text exposition format from samples. Pure.
// Source: prometheus.io/docs/instrumenting/exposition_formats, "Text-based format".
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/host/HostRecords.h"

namespace zelhost {

using MetricLabels = std::vector<std::pair<std::string, std::string>>;

/// Returns: whether the name may stand in the format.
bool IsMetricName(const std::string& name);
bool IsLabelName(const std::string& name);

/// Samples of one name are put together under one HELP and TYPE, in the order of the first of them; a name or label
/// that the format does not allow, a second sample with the same labels, and a name that changes its type are left
/// out. `common` labels are added where a sample has none of that name.
std::string FormatMetrics(const std::vector<Metric>& metrics, const MetricLabels& common);

}  // namespace zelhost
