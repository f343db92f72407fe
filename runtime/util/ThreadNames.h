// Names of this process's threads, kept from report to report.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

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
        long tid = 0;
        int64_t clockNs = -1;
        std::array<char, 16> name{};  // the kernel's bound, the ending zero included
    };

    Kept& Find(long tid) ZEL_REQUIRES(m_lock);

    base::Mutex m_lock;
    std::vector<Kept> m_names ZEL_GUARDED_BY(m_lock);  // by number
    size_t m_next ZEL_GUARDED_BY(m_lock) = 0;          // after the one that was asked for last
};

}  // namespace zel
