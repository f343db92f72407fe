// What stands behind COnlineClientConf: its subscribers, and which values were published by somebody other than the
// loader, so that a value whose key leaves the file falls back to them.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

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
    bool Apply(const std::map<size_t, long>& values);

    /// Remembers what CAtomicInt64::Set put into `value` for the times when the file has no such key.
    void RecordPublished(const CAtomicInt64<long>* value, long number);

    /// Called (without a lock) after a subscriber was added; set by the loader.
    void SetOnSubscribe(std::function<void(IOnlineClientConfNotify*)> callback);

private:
    bool IsSubscribed(IOnlineClientConfNotify* notify) const;

    COnlineClientConf& m_owner;
    std::mutex m_notifyLock;  // one round of notifications at a time; taken before m_lock
    mutable std::mutex m_lock;
    std::condition_variable m_left;
    std::vector<IOnlineClientConfNotify*> m_subscribers;
    IOnlineClientConfNotify* m_inside = nullptr;  // subscriber whose OnUpdate runs now
    std::thread::id m_insideThread;
    std::optional<long> m_published[zelhost::kOnlineKeyCount];
    std::function<void(IOnlineClientConfNotify*)> m_onSubscribe;
};
