// A job takes an idle thread, else a new one up to the bound, else its place in the queue. A thread that ends joins the
// one that ended before it, so at most one is left to be joined.
#include "base/WorkQueue.h"

#include <algorithm>
#include <deque>
#include <thread>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "base/QuietThread.h"

namespace base {
namespace {

constexpr size_t kMostWaiting = 64;

void JoinAll(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) thread.join();
}

}  // namespace

struct WorkQueue::Impl : std::enable_shared_from_this<Impl> {
    Impl(IoLoop& usedLoop, std::string name, size_t most, std::chrono::milliseconds idleTime)
        : loop(usedLoop), threadName(std::move(name)), mostThreads(most), linger(idleTime) {}

    bool Add(Job job);
    void Stop();
    void Work();
    /// Waits for a job as long as a thread does. Returns: whether there is one.
    bool WaitForJob() ZEL_REQUIRES(mutex);
    /// Has the jobs done that no idle thread takes.
    void FindThreads() ZEL_REQUIRES(mutex);
    void TryLater() ZEL_REQUIRES(mutex);
    /// Moves the calling thread to those that ended. Returns: those before it.
    std::vector<std::thread> Leave() ZEL_REQUIRES(mutex);

    IoLoop& loop;
    const std::string threadName;
    const size_t mostThreads;
    const std::chrono::milliseconds linger;
    Mutex mutex;
    Condition changed;
    std::deque<Job> jobs ZEL_GUARDED_BY(mutex);
    std::vector<std::thread> threads ZEL_GUARDED_BY(mutex);
    std::vector<std::thread> ended ZEL_GUARDED_BY(mutex);
    size_t idle ZEL_GUARDED_BY(mutex) = 0;
    bool retrying ZEL_GUARDED_BY(mutex) = false;
    bool stopped ZEL_GUARDED_BY(mutex) = false;
};

WorkQueue::WorkQueue(IoLoop& loop, std::string threadName, size_t mostThreads, std::chrono::milliseconds linger)
    : m_impl(std::make_shared<Impl>(loop, std::move(threadName), mostThreads, linger)) {}

WorkQueue::~WorkQueue() {
    Stop();
}

bool WorkQueue::Add(Job job) {
    return m_impl->Add(std::move(job));
}

void WorkQueue::Stop() {
    m_impl->Stop();
}

bool WorkQueue::Impl::Add(Job job) {
    const MutexLock lock(mutex);
    if (stopped || jobs.size() >= kMostWaiting) return false;
    jobs.push_back(std::move(job));
    FindThreads();
    changed.notify_one();
    return true;
}

void WorkQueue::Impl::FindThreads() {
    if (idle >= jobs.size() || threads.size() >= mostThreads) return;
    // The thread cannot end before it is in the list: it needs the mutex first.
    Result<std::thread> started = StartQuietThread(threadName, [this] { Work(); });
    if (started) {
        threads.push_back(std::move(*started));
    } else if (threads.empty()) {
        TryLater();
    }
}

void WorkQueue::Impl::TryLater() {
    if (std::exchange(retrying, true)) return;
    loop.PostLater(kAgain, [weak = weak_from_this()] {
        const std::shared_ptr<Impl> held = weak.lock();
        if (held == nullptr) return;
        const MutexLock lock(held->mutex);
        held->retrying = false;
        for (size_t count = held->stopped ? 0 : held->jobs.size(); count > 0; --count) held->FindThreads();
    });
}

void WorkQueue::Impl::Stop() {
    std::deque<Job> dropped;
    std::vector<std::thread> ending;
    {
        const MutexLock lock(mutex);
        stopped = true;
        dropped.swap(jobs);
        ending.swap(ended);
        for (std::thread& thread : threads) ending.push_back(std::move(thread));
        threads.clear();
        changed.notify_all();
    }
    JoinAll(ending);
}

bool WorkQueue::Impl::WaitForJob() {
    const auto end = std::chrono::steady_clock::now() + linger;
    ++idle;
    while (jobs.empty() && !stopped && changed.wait_until(mutex, end) != std::cv_status::timeout) {
    }
    --idle;
    return !jobs.empty() && !stopped;
}

void WorkQueue::Impl::Work() {
    MutexLock lock(mutex);
    while (WaitForJob()) {
        Job job = std::move(jobs.front());
        jobs.pop_front();
        lock.unlock();
        try {
            job();
        } catch (...) {
            // Ignoring it: a job reports its own failure to whoever waits for it.
        }
        job = nullptr;  // with what it holds
        lock.lock();
    }
    if (stopped) return;
    std::vector<std::thread> before = Leave();
    lock.unlock();
    JoinAll(before);
}

std::vector<std::thread> WorkQueue::Impl::Leave() {
    std::vector<std::thread> before;
    before.swap(ended);
    const auto self = std::find_if(threads.begin(), threads.end(), [](const std::thread& thread) {
        return thread.get_id() == std::this_thread::get_id();
    });
    ended.push_back(std::move(*self));
    threads.erase(self);
    return before;
}

}  // namespace base
