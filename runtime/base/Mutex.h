// A mutex whose use the clang preset checks: what it guards says so with ZEL_GUARDED_BY, and touching that without the
// lock is an error there. With other compilers the annotations are nothing.
// Source: clang's documentation, "Thread Safety Analysis".
#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ZEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZEL_THREAD_ANNOTATION(x)
#endif

#define ZEL_CAPABILITY(x) ZEL_THREAD_ANNOTATION(capability(x))
#define ZEL_SCOPED_CAPABILITY ZEL_THREAD_ANNOTATION(scoped_lockable)
#define ZEL_GUARDED_BY(x) ZEL_THREAD_ANNOTATION(guarded_by(x))
#define ZEL_PT_GUARDED_BY(x) ZEL_THREAD_ANNOTATION(pt_guarded_by(x))
#define ZEL_REQUIRES(...) ZEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZEL_EXCLUDES(...) ZEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZEL_ACQUIRE(...) ZEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZEL_TRY_ACQUIRE(...) ZEL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZEL_RELEASE(...) ZEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZEL_NO_THREAD_SAFETY_ANALYSIS ZEL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace base {

/// A plain, non-recursive mutex.
class ZEL_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ZEL_ACQUIRE() { m_mutex.lock(); }
    bool try_lock() ZEL_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
    void unlock() ZEL_RELEASE() { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

/// Holds a Mutex from construction to destruction; may give it back and take it again in between.
class ZEL_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ZEL_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() ZEL_RELEASE() {
        if (m_held) m_mutex.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void lock() ZEL_ACQUIRE() {
        m_mutex.lock();
        m_held = true;
    }
    void unlock() ZEL_RELEASE() {
        m_held = false;
        m_mutex.unlock();
    }

private:
    Mutex& m_mutex;
    bool m_held = true;
};

/// Waits with a held Mutex: `condition.wait(mutex)`, where the caller holds `mutex` and holds it again afterwards.
/// Predicates are written as a loop around the wait, so that the analysis sees the lock held where they are read.
using Condition = std::condition_variable_any;

}  // namespace base
