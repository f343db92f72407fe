// What stands behind COnlineClientConf: its subscribers, and which values were published by somebody other than the
// loader, so that a value whose key leaves the file falls back to them.
#pragma once

#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "config/OnlineConfigParse.h"
#include "platform/host/OnlineClientConf.h"

struct COnlineClientConf::Impl {
    explicit Impl(COnlineClientConf& owner) : m_owner(owner) {}

    void Add(IOnlineClientConfNotify* notify);
    void Remove(IOnlineClientConfNotify* notify);

    /// Calls every subscriber (or only `one`) in the order of subscription, on the caller's thread. One call at a
    /// time for the whole process.
    void Notify(IOnlineClientConfNotify* one = nullptr);

    /// The loader's way to set values: keys in `values` get these, all others what was published, else the default.
    /// Returns: whether some value changed.
    bool Apply(const zelhost::OnlineValues& values);

    /// Remembers what CAtomicInt64::Set put into `value` for the times when the file has no such key.
    void RecordPublished(const CAtomicInt64<long>* value, long number);

    /// Called (without a lock) after a subscriber was added; set by the loader.
    void SetOnSubscribe(std::function<void(IOnlineClientConfNotify*)> callback);

private:
    bool IsSubscribed(IOnlineClientConfNotify* notify) const ZEL_REQUIRES(m_lock);
    /// Without a lock, so that a subscriber may come and go from within.
    static void Enter(IOnlineClientConfNotify* notify);

    COnlineClientConf& m_owner;
    base::Mutex m_notifyLock;  // one round of notifications at a time; taken before m_lock
    base::Mutex m_lock;
    base::Condition m_left;
    std::vector<IOnlineClientConfNotify*> m_subscribers ZEL_GUARDED_BY(m_lock);
    IOnlineClientConfNotify* m_inside ZEL_GUARDED_BY(m_lock) = nullptr;  // subscriber whose OnUpdate runs now
    std::thread::id m_insideThread ZEL_GUARDED_BY(m_lock);
    std::optional<long> m_published[zelhost::kOnlineKeyCount] ZEL_GUARDED_BY(m_lock);
    std::function<void(IOnlineClientConfNotify*)> m_onSubscribe ZEL_GUARDED_BY(m_lock);
};
