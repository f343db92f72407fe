// A thread with a virtual body, and the names and ids of threads.
#pragma once

#include <memory>
#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// One operating-system thread around an overridable body.
/// Thread-safety: startThread, stopThread and IsThreadRunning may be called from any thread but the body's own.
/// Lifetime: the owner stops the thread before it destroys the object; the destructor of a class that still
/// runs cannot be made safe from here, because the derived part is gone by then.
class ZEL_API CThreadUtil {
public:
    CThreadUtil();
    virtual ~CThreadUtil();
    CThreadUtil(const CThreadUtil&) = delete;
    CThreadUtil& operator=(const CThreadUtil&) = delete;

    /// The thread's body; returning from it ends the thread.
    virtual void run() = 0;

    /// Starts the body on a new thread.
    /// Returns: true when the thread runs; false when it runs already or the system refused a thread.
    bool startThread();

    /// Waits until the body has returned. The body is told to return by its owner, by a flag of its own.
    /// Sleeps of CToolUtil::sleep that the body sits in are cut short.
    /// Blocks: until the body returns. Returns: false when no thread runs.
    bool stopThread();

    /// Returns: true between a successful start and the body's return.
    bool IsThreadRunning();

    /// Returns: kernel thread id (gettid) of the caller.
    static unsigned int GetCurrentThreadId();

    /// Returns: name of a thread of this process (at most 15 characters, a kernel bound), empty when there is none.
    static std::string GetThreadName(long tid);

    /// Names the calling thread; the kernel keeps the first 15 characters.
    static void SetThreadName(const std::string& name);

private:
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zel
