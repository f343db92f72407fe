// Which sampler of this process is the one to be looked at: the console, the metrics and the agent ask here, and need
// not know the object that samples.
#pragma once

#include "platform/host/HostRecords.h"

namespace zelhost {

class CSampler;

/// The sampler that was started last. Any thread.
void SetActiveSampler(CSampler* sampler);
/// Only if it still is the active one. Blocks: while a reader is inside it.
void ClearActiveSampler(CSampler* sampler);
/// Returns: false while none runs, or before its first round.
bool ReadActiveSampler(SamplerFigures& figures);

}  // namespace zelhost
