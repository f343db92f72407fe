// Threads with a virtual body. The one thing beyond std::thread: a body that sleeps in CToolUtil::sleep is woken when
// its owner stops it.
#include "platform/zel/ThreadUtil.h"

#include <atomic>
#include <exception>
#include <thread>

#include <sys/prctl.h>
#include <unistd.h>

#include "ThreadNames.h"
#include "ThreadSleep.h"
#include "base/Mutex.h"
#include "base/ProcFiles.h"
#include "platform/zel/LogMessage.h"

namespace zel {
namespace {

constexpr size_t kMaxThreadNameBytes = 15;  // Source: prctl(2), PR_SET_NAME

// What the calling thread sleeps on; null in a thread that CThreadUtil did not start.
thread_local ThreadSleep* t_sleep = nullptr;

// An exception ends the body, not the process.
void RunContained(CThreadUtil& owner) {
    try {
        owner.run();
    } catch (const std::exception& error) {
        CLogMessage::GetInstance()->log(kLogError, "ThreadUtil", __LINE__, "a thread ended by an exception: %s",
                                        error.what());
    } catch (...) {
        CLogMessage::GetInstance()->log(kLogError, "ThreadUtil", __LINE__, "a thread ended by an unknown exception");
    }
}

}  // namespace

ThreadSleep* ThreadSleep::OfCallingThread() {
    return t_sleep;
}

struct CThreadUtil::Impl {
    base::Mutex lifecycle;  ///< serialises start and stop; held while a stop waits for the body
    std::thread thread;     ///< by `lifecycle`, but for the destructor, which is alone
    // Shared with the thread, which may outlive the object when its body destroys it.
    std::shared_ptr<ThreadSleep> sleep;              ///< by `lifecycle`
    std::atomic<ThreadSleep*> sleepOfBody{nullptr};  ///< the same, for a comparison without the lock
    std::shared_ptr<std::atomic<bool>> running = std::make_shared<std::atomic<bool>>(false);

    void Join() {
        sleep->Interrupt();
        thread.join();
    }
};

CThreadUtil::CThreadUtil() : m_impl(std::make_unique<Impl>()) {}

CThreadUtil::~CThreadUtil() {
    if (!m_impl->thread.joinable()) return;
    if (m_impl->thread.get_id() == std::this_thread::get_id()) {
        m_impl->thread.detach();  // destroyed by its own body: nobody is left to wait
    } else {
        m_impl->Join();
    }
}

bool CThreadUtil::startThread() {
    base::MutexLock guard(m_impl->lifecycle);
    if (m_impl->running->load(std::memory_order_acquire)) return false;
    if (m_impl->thread.joinable()) m_impl->thread.join();  // a body that returned by itself
    const auto running = m_impl->running;
    try {
        const auto sleep = std::make_shared<ThreadSleep>();
        m_impl->sleep = sleep;
        m_impl->sleepOfBody.store(sleep.get(), std::memory_order_release);
        running->store(true, std::memory_order_release);
        m_impl->thread = std::thread([this, sleep, running] {
            t_sleep = sleep.get();
            RunContained(*this);
            t_sleep = nullptr;
            running->store(false, std::memory_order_release);
        });
    } catch (const std::exception&) {
        running->store(false, std::memory_order_release);
        return false;
    }
    return true;
}

bool CThreadUtil::stopThread() {
    // The body cannot wait for itself; asking would also lock out the owner that is waiting for it already.
    ThreadSleep* const own = ThreadSleep::OfCallingThread();
    if (own != nullptr && own == m_impl->sleepOfBody.load(std::memory_order_acquire)) return false;
    base::MutexLock guard(m_impl->lifecycle);
    if (!m_impl->thread.joinable()) return false;
    m_impl->Join();
    return true;
}

bool CThreadUtil::IsThreadRunning() {
    return m_impl->running->load(std::memory_order_acquire);
}

unsigned int CThreadUtil::GetCurrentThreadId() {
    return static_cast<unsigned int>(::gettid());
}

std::string CThreadUtil::GetThreadName(long tid) {
    return ThreadNames::Instance().Of(tid);
}

void CThreadUtil::SetThreadName(const std::string& name) {
    ::prctl(PR_SET_NAME, name.substr(0, kMaxThreadNameBytes).c_str(), 0, 0, 0);
}

}  // namespace zel
