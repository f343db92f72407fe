// Which sampler of this process is the one to be looked at.
#include "sampling/ActiveSampler.h"

#include "base/Mutex.h"
#include "sampling/Sampler.h"

namespace zelhost {
namespace {
base::Mutex g_lock;  // taken before a sampler's own
CSampler* g_active ZEL_GUARDED_BY(g_lock) = nullptr;
}  // namespace

void SetActiveSampler(CSampler* sampler) {
    base::MutexLock lock(g_lock);
    g_active = sampler;
}

void ClearActiveSampler(CSampler* sampler) {
    base::MutexLock lock(g_lock);
    if (g_active == sampler) g_active = nullptr;
}

bool ReadActiveSampler(SamplerFigures& figures) {
    base::MutexLock lock(g_lock);
    if (g_active == nullptr) return false;
    figures = g_active->ReadFigures();
    return figures.rounds > 0;
}

}  // namespace zelhost
