// Names of this process's threads, kept from report to report.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "base/Mutex.h"

namespace zel {

/// A thread names itself while it runs, so its name is read again only when its CPU clock has moved: a report over
/// thousands of sleeping threads opens no file. A name that another thread gives to one that sleeps shows once that has
/// run. Thread-safety: any thread; one that finds another at it, or a lock left behind by a fork, reads the file
/// itself.
class ThreadNames {
public:
    /// Never destroyed: threads ask while the process ends.
    static ThreadNames& Instance();

    /// Returns: the name, empty when there is no such thread.
    std::string Of(long tid);

    /// Names beyond this many are forgotten together, those of ended threads with them.
    static constexpr size_t kMost = 16384;

private:
    struct Kept {
        int64_t clockNs = -1;
        std::string name;
    };

    base::Mutex m_lock;
    std::unordered_map<long, Kept> m_names ZEL_GUARDED_BY(m_lock);
};

}  // namespace zel
