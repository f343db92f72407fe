// The mutex of the seam on std::mutex.
#include "platform/zel/MutexUtil.h"

#include <mutex>

namespace zel {

struct CMutexUtil::Impl {
    std::mutex mutex;
};

CMutexUtil::CMutexUtil() : m_impl(std::make_unique<Impl>()) {}

CMutexUtil::~CMutexUtil() = default;

void CMutexUtil::lock() {
    m_impl->mutex.lock();
}

void CMutexUtil::unlock() {
    m_impl->mutex.unlock();
}

CMutexLockUtil::CMutexLockUtil(CMutexUtil& mutex) : m_mutex(mutex) {
    m_mutex.lock();
}

CMutexLockUtil::~CMutexLockUtil() {
    m_mutex.unlock();
}

}  // namespace zel
