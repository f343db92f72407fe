// What CHostServices hands to the sampling class of the same process.
#include "sampling/SamplingSettings.h"

#include "base/Mutex.h"

namespace zelhost {
namespace {
base::Mutex g_lock;
SamplingSettings g_settings ZEL_GUARDED_BY(g_lock);
}  // namespace

void SetSamplingSettings(const SamplingSettings& settings) {
    base::MutexLock lock(g_lock);
    g_settings = settings;
}

SamplingSettings GetSamplingSettings() {
    base::MutexLock lock(g_lock);
    return g_settings;
}

}  // namespace zelhost
