// The online configuration's published values and its subscribers.
#include "platform/host/OnlineClientConf.h"

#include <algorithm>
#include <exception>

#include "config/OnlineClientConfImpl.h"
#include "platform/zel/LogMessage.h"

template class CSingleton<COnlineClientConf>;

namespace {
/// Set while the loader writes, so that its values are not taken for published ones.
thread_local bool t_loaderWrites = false;
}  // namespace

template <class T>
void CAtomicInt64<T>::Set(T value) {
    m_value.store(value, std::memory_order_relaxed);
    if (t_loaderWrites) return;
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    const auto begin = reinterpret_cast<uintptr_t>(conf);
    const auto self = reinterpret_cast<uintptr_t>(this);
    // The pointer may be stale after the object's end; a value that lies inside the object proves that it lives.
    if (conf == nullptr || self < begin || self >= begin + sizeof(COnlineClientConf)) return;
    if (conf->GetImpl() != nullptr) conf->GetImpl()->RecordPublished(this, value);
}
template class CAtomicInt64<long>;

COnlineClientConf::COnlineClientConf() {
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        (this->*zelhost::OnlineKeys()[i].value).Set(zelhost::OnlineKeys()[i].byDefault);
    }
    m_impl = std::make_unique<Impl>(*this);
}
COnlineClientConf::~COnlineClientConf() = default;

void COnlineClientConf::AddNotify(IOnlineClientConfNotify* notify) {
    m_impl->Add(notify);
}
void COnlineClientConf::RemoveNotify(IOnlineClientConfNotify* notify) {
    m_impl->Remove(notify);
}

bool COnlineClientConf::Impl::IsSubscribed(IOnlineClientConfNotify* notify) const {
    return std::find(m_subscribers.begin(), m_subscribers.end(), notify) != m_subscribers.end();
}

void COnlineClientConf::Impl::Add(IOnlineClientConfNotify* notify) {
    if (notify == nullptr) return;
    std::function<void(IOnlineClientConfNotify*)> callback;
    {
        base::MutexLock lock(m_lock);
        if (IsSubscribed(notify)) return;
        m_subscribers.push_back(notify);
        callback = m_onSubscribe;
    }
    if (callback) callback(notify);
}

void COnlineClientConf::Impl::Remove(IOnlineClientConfNotify* notify) {
    base::MutexLock lock(m_lock);
    m_subscribers.erase(std::remove(m_subscribers.begin(), m_subscribers.end(), notify), m_subscribers.end());
    if (m_inside == notify && m_insideThread == std::this_thread::get_id()) return;
    while (m_inside == notify && notify != nullptr) m_left.wait(m_lock);
}

void COnlineClientConf::Impl::Enter(IOnlineClientConfNotify* notify) {
    try {
        notify->OnUpdate();
    } catch (const std::exception& e) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "OnlineClientConf", __LINE__,
                                             "a subscriber of the online configuration threw: %s", e.what());
    } catch (...) {
        zel::CLogMessage::GetInstance()->WriteLogMessage("a subscriber of the online configuration threw",
                                                         zel::kLogWarning);
    }
}

void COnlineClientConf::Impl::Notify(IOnlineClientConfNotify* one) {
    base::MutexLock round(m_notifyLock);
    base::MutexLock lock(m_lock);
    const std::vector<IOnlineClientConfNotify*> subscribers = m_subscribers;
    for (IOnlineClientConfNotify* notify : subscribers) {
        if (one != nullptr && notify != one) continue;
        if (!IsSubscribed(notify)) continue;  // removed by a subscriber before it
        m_inside = notify;
        m_insideThread = std::this_thread::get_id();
        lock.unlock();
        Enter(notify);
        lock.lock();
        m_inside = nullptr;
        m_left.notify_all();
    }
}

bool COnlineClientConf::Impl::Apply(const zelhost::OnlineValues& values) {
    base::MutexLock lock(m_lock);
    bool changed = false;
    t_loaderWrites = true;
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        const zelhost::OnlineKey& key = zelhost::OnlineKeys()[i];
        const auto found = values.find(i);
        const long wanted = found != values.end() ? found->second : m_published[i].value_or(key.byDefault);
        CAtomicInt64<long>& value = m_owner.*key.value;
        if (value.Get() == wanted) continue;
        value.Set(wanted);
        changed = true;
    }
    t_loaderWrites = false;
    return changed;
}

void COnlineClientConf::Impl::RecordPublished(const CAtomicInt64<long>* value, long number) {
    base::MutexLock lock(m_lock);
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        if (&(m_owner.*zelhost::OnlineKeys()[i].value) == value) m_published[i] = number;
    }
}

void COnlineClientConf::Impl::SetOnSubscribe(std::function<void(IOnlineClientConfNotify*)> callback) {
    base::MutexLock lock(m_lock);
    m_onSubscribe = std::move(callback);
}
