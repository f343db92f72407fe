// A full disk for one process: none of its files can grow.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace support {

/// Files of this process grow no more while it lives.
class NoGrowth {
public:
    NoGrowth() {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit none = m_old;
        none.rlim_cur = 1;
        setrlimit(RLIMIT_FSIZE, &none);
    }
    ~NoGrowth() { setrlimit(RLIMIT_FSIZE, &m_old); }
    NoGrowth(const NoGrowth&) = delete;
    NoGrowth& operator=(const NoGrowth&) = delete;

private:
    rlimit m_old{};
};

}  // namespace support
