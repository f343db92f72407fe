// A job takes an idle thread, else a new one up to the bound, else its place in the queue.
#include "base/WorkQueue.h"

#include <pthread.h>

#include <system_error>
#include <utility>

namespace base {
namespace {

constexpr size_t kMostWaiting = 64;

}  // namespace

WorkQueue::WorkQueue(std::string threadName, size_t mostThreads)
    : m_threadName(std::move(threadName)), m_mostThreads(mostThreads) {}

WorkQueue::~WorkQueue() {
    Stop();
}

bool WorkQueue::Add(Job job) {
    const MutexLock lock(m_mutex);
    if (m_stopped || m_jobs.size() >= kMostWaiting) return false;
    if (m_idle <= m_jobs.size() && m_threads.size() < m_mostThreads && !StartThread() && m_threads.empty()) {
        return false;
    }
    m_jobs.push_back(std::move(job));
    m_changed.notify_one();
    return true;
}

bool WorkQueue::StartThread() {
    try {
        m_threads.emplace_back([this] {
            pthread_setname_np(pthread_self(), m_threadName.c_str());
            Work();
        });
        return true;
    } catch (const std::system_error&) {
        return false;  // the threads that there are do it
    }
}

void WorkQueue::Stop() {
    std::vector<std::thread> ending;
    {
        const MutexLock lock(m_mutex);
        m_stopped = true;
        m_jobs.clear();
        ending.swap(m_threads);
        m_changed.notify_all();
    }
    for (std::thread& thread : ending) thread.join();
}

void WorkQueue::Work() {
    MutexLock lock(m_mutex);
    for (;;) {
        ++m_idle;
        while (m_jobs.empty() && !m_stopped) m_changed.wait(m_mutex);
        --m_idle;
        if (m_stopped) return;
        const Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        try {
            job();
        } catch (...) {
            // Ignoring it: a job reports its own failure to whoever waits for it.
        }
        lock.lock();
    }
}

}  // namespace base
