// A mutex and its scoped guard.
#pragma once

#include <memory>

#include "platform/zel/Export.h"

namespace zel {

/// A plain, non-recursive mutex.
class ZEL_API CMutexUtil {
public:
    CMutexUtil();
    ~CMutexUtil();
    CMutexUtil(const CMutexUtil&) = delete;
    CMutexUtil& operator=(const CMutexUtil&) = delete;

    void lock();
    void unlock();

private:
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

/// Holds a CMutexUtil from construction to destruction.
class ZEL_API CMutexLockUtil {
public:
    explicit CMutexLockUtil(CMutexUtil& mutex);
    ~CMutexLockUtil();
    CMutexLockUtil(const CMutexLockUtil&) = delete;
    CMutexLockUtil& operator=(const CMutexLockUtil&) = delete;

private:
    CMutexUtil& m_mutex;
};

}  // namespace zel
