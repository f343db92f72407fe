// The thread that asks the components.
#include "Cooperation.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <system_error>
#include <thread>

#include "AskAgent.h"
#include "base/Mutex.h"

namespace agent {

namespace {

/// Each component is asked once in that time: an answer costs it some of its quota.
constexpr std::chrono::milliseconds kRound(2000);

}  // namespace

struct CooperationWatch::Shared {
    const std::string appDir;
    base::Mutex lock;
    base::Condition changed;
    bool stop ZEL_GUARDED_BY(lock) = false;
    std::set<std::string> names ZEL_GUARDED_BY(lock);
    Cooperation seen ZEL_GUARDED_BY(lock);

    explicit Shared(std::string directory) : appDir(std::move(directory)) {}
};

void NoteLook(const StatusReport& component, HoldBack& seen) {
    seen.cpuLevel = component.sampler.cpuLevel;
    seen.memoryLevel = component.sampler.memLevel;
    ++seen.looks;
    seen.told = seen.sleptMs = 0;
    for (const HoldBackFigures& figures : component.holdBacks) {
        seen.told += figures.answers;
        seen.sleptMs += figures.sleptMs;
    }
    for (size_t priority = 0; priority < kPriorities; ++priority) {
        seen.now[priority] = component.cpuNeedLimit[priority];
        if (seen.now[priority]) ++seen.held[priority];
    }
}

CooperationWatch::CooperationWatch(std::string appDir) : m_shared(std::make_shared<Shared>(std::move(appDir))) {
    try {
        // Detached on purpose: one that waits for an answer is not waited for.
        std::thread([shared = m_shared] { Ask(shared); }).detach();
    } catch (const std::system_error&) {
        // Without the thread nothing is known of the components, and the rest is shown.
    }
}

CooperationWatch::~CooperationWatch() {
    base::MutexLock lock(m_shared->lock);
    m_shared->stop = true;
    m_shared->changed.notify_all();
}

void CooperationWatch::Follow(const StatusReport& main) {
    base::MutexLock lock(m_shared->lock);
    m_shared->names.clear();
    for (const ComponentStatus& component : main.components) {
        const bool silent = component.suspended || component.hungSeconds > 0;
        if (component.state == ComponentState::kRunning && !component.program && !silent) {
            m_shared->names.insert(component.name);
        }
    }
    for (auto known = m_shared->seen.begin(); known != m_shared->seen.end();) {
        known = m_shared->names.count(known->first) == 0 ? m_shared->seen.erase(known) : std::next(known);
    }
    m_shared->changed.notify_all();
}

Cooperation CooperationWatch::Get() const {
    base::MutexLock lock(m_shared->lock);
    return m_shared->seen;
}

void CooperationWatch::Ask(const std::shared_ptr<Shared>& shared) {
    std::string last;
    base::MutexLock lock(shared->lock);
    for (;;) {
        while (!shared->stop && shared->names.empty()) shared->changed.wait(shared->lock);
        if (shared->stop) return;
        const auto next = shared->names.upper_bound(last);
        last = next == shared->names.end() ? *shared->names.begin() : *next;
        shared->lock.unlock();
        const base::Result<StatusReport> answer = ReadStatus(AskAgent(shared->appDir, last, "status"));
        shared->lock.lock();
        if (answer && shared->names.count(last) != 0) NoteLook(*answer, shared->seen[last]);
        const auto pause = kRound / static_cast<int>(std::max<size_t>(1, shared->names.size()));
        const auto end = std::chrono::steady_clock::now() + pause;
        while (!shared->stop && shared->changed.wait_until(shared->lock, end) != std::cv_status::timeout) {
        }
    }
}

}  // namespace agent
