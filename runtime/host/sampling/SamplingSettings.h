// What CHostServices hands to the sampling class of the same process before that one starts.
#pragma once

#include <string>

#include "platform/host/HostRecords.h"

namespace zelhost {

struct SamplingSettings {
    std::string processName;
    SamplingOptions options;  // recordDir filled in
};

/// For every sampler that starts from now on. Any thread.
void SetSamplingSettings(const SamplingSettings& settings);
/// Without a CHostServices: defaults, records in <app dir>/selfkill.
SamplingSettings GetSamplingSettings();

}  // namespace zelhost
