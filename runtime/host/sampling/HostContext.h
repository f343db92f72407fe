// What the parts of the host library know of each other in one process: the settings that CHostServices hands to the
// sampling class, and which sampler is the one to be looked at.
#pragma once

#include <string>

#include "platform/host/HostRecords.h"
#include "platform/host/ResourceMonitor.h"

class CResourceMonitor;

namespace zelhost {

struct SamplingSettings {
    std::string processName;
    SamplingOptions options;  // recordDir filled in
};

void SetSamplingSettings(const SamplingSettings& settings);
/// Without a CHostServices: defaults, records in <app dir>/selfkill.
SamplingSettings GetSamplingSettings();

/// The sampler that was started last. Clearing waits for a reader that is inside.
void SetActiveSampler(CResourceMonitor::Impl* sampler);
void ClearActiveSampler(CResourceMonitor::Impl* sampler);
bool ReadActiveSampler(SamplerFigures& figures);

}  // namespace zelhost
