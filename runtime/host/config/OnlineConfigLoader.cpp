// Watches the file of the online configuration and publishes what it holds.
#include "config/OnlineConfigLoader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <system_error>
#include <utility>

#include "base/FilePath.h"
#include "base/TrustedRead.h"
#include "config/OnlineClientConfImpl.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ThreadUtil.h"

namespace zelhost {
namespace {
// A file that is replaced by remove and create is gone for a moment: only a lasting absence counts.
constexpr auto kMissingGrace = std::chrono::milliseconds(300);
// Events of one save come in a burst; read the file once, after it.
constexpr int kSettleMs = 30;
constexpr uint32_t kWatched =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
}  // namespace

COnlineConfigLoader::COnlineConfigLoader(COnlineClientConf& conf, std::string path, unsigned int pollMs)
    : m_conf(conf), m_path(std::move(path)), m_pollMs(pollMs == 0 ? 1 : pollMs) {}

COnlineConfigLoader::~COnlineConfigLoader() {
    Stop();
}

base::Status COnlineConfigLoader::Start() {
    m_wake = base::Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wake) {
        return base::SentenceError("online configuration: no event descriptor: " + base::ErrnoText(errno));
    }
    m_inotify = base::Fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!m_inotify) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "OnlineConfigLoader", __LINE__,
                                             "no inotify (%s); a change of %s is noticed within %u ms by looking",
                                             base::ErrnoText(errno).c_str(), m_path.c_str(), m_pollMs);
    }
    Rewatch();
    // A refused file is no failure of the start: it is logged, and the defaults are in force.
    (void)Check(false);
    m_conf.GetImpl()->SetOnSubscribe([this](IOnlineClientConfNotify* notify) {
        base::MutexLock lock(m_lock);
        m_newSubscribers.push_back(notify);
        Wake();
    });
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error& e) {
        m_conf.GetImpl()->SetOnSubscribe(nullptr);
        return base::SentenceError(std::string("online configuration: no thread: ") + e.what());
    }
    return {};
}

void COnlineConfigLoader::Stop() {
    if (!m_thread.joinable()) return;
    m_conf.GetImpl()->SetOnSubscribe(nullptr);
    {
        base::MutexLock lock(m_lock);
        m_stop = true;
        Wake();
    }
    m_thread.join();
    m_answered.notify_all();
}

void COnlineConfigLoader::Wake() {
    base::RaiseEvent(m_wake);
}

bool COnlineConfigLoader::IsStopped() {
    base::MutexLock lock(m_lock);
    return m_stop;
}

base::Status COnlineConfigLoader::Reload() {
    base::MutexLock lock(m_lock);
    if (m_stop || !m_thread.joinable()) return base::SentenceError("the online configuration is not watched");
    const uint64_t ticket = ++m_reloadWanted;
    Wake();
    while (m_reloadDone < ticket && !m_stop) m_answered.wait(m_lock);
    if (m_reloadDone < ticket) return base::SentenceError("the online configuration is being stopped");
    return m_reloadOutcome;
}

void COnlineConfigLoader::Repeat() {
    base::MutexLock lock(m_lock);
    if (m_stop || !m_thread.joinable()) return;
    m_repeatWanted = true;
    Wake();
}

void COnlineConfigLoader::AnswerReload(uint64_t ticket, const base::Status& outcome) {
    base::MutexLock lock(m_lock);
    m_reloadDone = ticket;
    m_reloadOutcome = outcome;
    m_answered.notify_all();
}

void COnlineConfigLoader::Rewatch() {
    if (!m_inotify) return;
    // Adding a watch that exists gives the same number, so this also finds out that the directory was replaced.
    const int watch = inotify_add_watch(m_inotify.Get(), base::DirectoryOf(m_path).c_str(), kWatched);
    if (watch != m_watch && m_watch >= 0) inotify_rm_watch(m_inotify.Get(), m_watch);
    m_watch = watch;
}

void COnlineConfigLoader::DrainWatch() {
    alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
    while (m_inotify && read(m_inotify.Get(), buffer, sizeof(buffer)) > 0) {
    }
}

bool COnlineConfigLoader::Wait() {
    if (IsStopped()) return false;
    pollfd fds[2] = {{m_wake.Get(), POLLIN, 0}, {m_inotify.Get(), POLLIN, 0}};
    poll(fds, 2, static_cast<int>(m_pollMs));
    if ((fds[1].revents & POLLIN) != 0) {
        pollfd watch = {m_inotify.Get(), POLLIN, 0};
        // A writer that never rests must not put the reading off for ever: at most ten settling periods.
        for (int i = 0; i < 10; ++i) {
            DrainWatch();
            if (poll(&watch, 1, kSettleMs) == 0) break;
        }
    }
    uint64_t count = 0;
    while (read(m_wake.Get(), &count, sizeof(count)) > 0) {
    }
    return !IsStopped();
}

void COnlineConfigLoader::Run() {
    zel::CThreadUtil::SetThreadName("OnlineConfig");
    while (Wait()) {
        Rewatch();
        uint64_t ticket = 0;
        bool asked = false;
        bool repeat = false;
        std::vector<IOnlineClientConfNotify*> fresh;
        {
            base::MutexLock lock(m_lock);
            ticket = m_reloadWanted;
            asked = ticket != m_reloadDone;
            fresh.swap(m_newSubscribers);
            repeat = std::exchange(m_repeatWanted, false);
        }
        const base::Status outcome = Check(asked);
        // What the module published from its own file meanwhile gives way to the online file, once it listens.
        if (!fresh.empty() && m_fileInForce && m_conf.GetImpl()->Apply(m_values)) {
            for (IOnlineClientConfNotify* notify : fresh) m_conf.GetImpl()->Notify(notify);
        }
        if (repeat) m_conf.GetImpl()->Notify();
        if (asked) AnswerReload(ticket, outcome);
    }
}

base::FileMark COnlineConfigLoader::LookAtFile() const {
    const base::FileMark mark = base::ReadFileMark(m_path);
    if (mark.exists || !m_fileInForce) return mark;
    std::this_thread::sleep_for(kMissingGrace);
    return base::ReadFileMark(m_path);
}

base::Status COnlineConfigLoader::Check(bool force) {
    if (!force && m_checkedOnce && base::ReadFileMark(m_path) == m_seen) return {};
    m_seen = LookAtFile();
    m_checkedOnce = true;
    const base::Result<std::string> text = base::ReadTrusted(m_path, kOnlineFileMaxBytes, base::TrustScope::kWithPlace);
    if (!text && text.GetError().kind == base::ErrorKind::kNotFound) return FallBack(force);
    if (!text) {
        m_checkedOnce = false;
        return Refuse(base::ReasonOf(text.GetError(), m_path), force);
    }
    const base::Result<OnlineValues> values = ParseOnlineConfig(*text);
    if (!values) return Refuse(values.GetError().Text(), true);
    m_refusal.clear();
    zel::CLogMessage::GetInstance()->log(zel::kLogInfo, "OnlineConfigLoader", __LINE__,
                                         "online configuration %s: %zu values taken over", m_path.c_str(),
                                         values->size());
    m_fileInForce = true;
    Accept(*values, force);
    return {};
}

base::Status COnlineConfigLoader::FallBack(bool force) {
    m_refusal.clear();
    if (!m_fileInForce) return {};
    zel::CLogMessage::GetInstance()->log(zel::kLogInfo, "OnlineConfigLoader", __LINE__,
                                         "online configuration %s is gone; its values fall back", m_path.c_str());
    m_fileInForce = false;
    Accept({}, force);
    return {};
}

base::Status COnlineConfigLoader::Refuse(const std::string& reason, bool force) {
    const bool isNews = reason != m_refusal;
    m_refusal = reason;
    if (!isNews && !force) return base::SentenceError(reason);
    zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "OnlineConfigLoader", __LINE__,
                                         "online configuration refused, the old values stay: %s: %s", m_path.c_str(),
                                         reason.c_str());
    return base::SentenceError(reason);
}

void COnlineConfigLoader::Accept(const OnlineValues& values, bool force) {
    m_values = values;
    const bool changed = m_conf.GetImpl()->Apply(m_values);
    if (changed || force) m_conf.GetImpl()->Notify();
}

}  // namespace zelhost
