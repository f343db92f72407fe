// The online configuration of the agent: 64-bit values that any thread may read, and the notification that
// they changed. A job of the loader enters the subscribers.
#pragma once

#include <atomic>
#include <memory>

#include "Singleton.h"
#include "platform/zel/Export.h"

/// One value that is published to every thread. Relaxed order: each value stands for itself.
template <class T>
class ZEL_API CAtomicInt64 {
public:
    T Get() const { return m_value.load(std::memory_order_relaxed); }
    /// Defined where the online configuration is, so that the cheap half (Get) stays inline for hot queries.
    void Set(T value);

private:
    std::atomic<T> m_value{0};
};

/// Somebody who wants to know that the online configuration changed.
class ZEL_API IOnlineClientConfNotify {
public:
    virtual ~IOnlineClientConfNotify() {}
    /// Called on a thread of the loader, one call at a time; it may take its time.
    virtual void OnUpdate() = 0;
};

/// The online configuration. The host creates the one object before the module is started.
/// Thread-safety: values from any thread; AddNotify and RemoveNotify from any thread, also from OnUpdate.
/// RemoveNotify waits for a notification that is under way, unless it is called from within it.
class ZEL_API COnlineClientConf : public CSingleton<COnlineClientConf> {
public:
    COnlineClientConf();
    ~COnlineClientConf() override;
    COnlineClientConf(const COnlineClientConf&) = delete;
    COnlineClientConf& operator=(const COnlineClientConf&) = delete;

    void AddNotify(IOnlineClientConfNotify* notify);
    void RemoveNotify(IOnlineClientConfNotify* notify);

    CAtomicInt64<long> maxCpu;       ///< percent
    CAtomicInt64<long> maxWriteIo;   ///< KB/s
    CAtomicInt64<long> maxReadIo;    ///< KB/s
    CAtomicInt64<long> cpuAll;       ///< non-zero: percentages are of the whole machine
    CAtomicInt64<long> maxFdCount;   ///< open descriptors
    CAtomicInt64<long> maxPidCheck;  ///< watched processes
    CAtomicInt64<long> hashMode;
    CAtomicInt64<long> maxMemory;                 ///< MB
    CAtomicInt64<long> cpuLimitEnabled;           ///< 0 switches the throttling answers off
    CAtomicInt64<long> resourceLimitMode;         ///< bit set: 1 CPU limit, 4 memory limit, 8 unified mode
    CAtomicInt64<long> groupMaxCpu;               ///< percent
    CAtomicInt64<long> groupMaxMemory;            ///< MB
    CAtomicInt64<long> availableMemThreshold;     ///< MB
    CAtomicInt64<long> osAbnormalReportInterval;  ///< ticks of a little over 2 s
    CAtomicInt64<long> osAbnormalSwitch;          ///< bit 0: OS abnormal monitor on
    CAtomicInt64<long> observedLimits;            ///< bit set: limits that are only observed; the host's own matter

    struct ZEL_HIDDEN Impl;
    /// For the host's own loader. Returns: null in a process that loads none.
    Impl* GetImpl() { return m_impl.get(); }

private:
    std::unique_ptr<Impl> m_impl;
};

extern template class CSingleton<COnlineClientConf>;
