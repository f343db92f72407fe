// What keeps this host from its fleet, as the relay says it to the main process.
#pragma once

#include <cstdint>
#include <string>

#include "base/Mutex.h"

namespace agent {

/// Thread-safety: any thread. Times: SecondsSinceBoot().
class FleetTrouble {
public:
    /// The relay says it anew each minute; what it has not repeated for so long is not known any more.
    static constexpr int64_t kValidSeconds = 180;
    static constexpr size_t kMostBytes = 400;

    /// `words`: of another process; what is too long is cut. Empty: nothing keeps it.
    void Note(const std::string& words, int64_t second) ZEL_EXCLUDES(m_lock);
    /// Returns: for a terminal; empty: nothing, as far as is known.
    std::string Get(int64_t second) const ZEL_EXCLUDES(m_lock);

private:
    mutable base::Mutex m_lock;
    std::string m_words ZEL_GUARDED_BY(m_lock);
    int64_t m_second ZEL_GUARDED_BY(m_lock) = 0;
};

}  // namespace agent
