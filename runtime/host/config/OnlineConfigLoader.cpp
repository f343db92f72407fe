// Watches the file of the online configuration and publishes what it holds.
#include "config/OnlineConfigLoader.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <thread>
#include <utility>

#include "base/FilePath.h"
#include "base/ProcFiles.h"
#include "base/TrustedRead.h"
#include "config/OnlineClientConfImpl.h"
#include "platform/zel/CgroupObserve.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ProcessLoop.h"

namespace zelhost {
namespace {
// A file that is replaced by remove and create is gone for a moment: only a lasting absence counts.
constexpr auto kMissingGrace = std::chrono::milliseconds(300);
// Events of one save come in a burst; read the file once, after it.
constexpr auto kSettle = std::chrono::milliseconds(30);
// A writer that never rests must not put the reading off for ever.
constexpr int kMostSettled = 10;
constexpr uint32_t kWatched =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
}  // namespace

COnlineConfigLoader::COnlineConfigLoader(COnlineClientConf& conf, std::string path, unsigned int pollMs)
    : m_conf(conf), m_path(std::move(path)), m_poll(std::max(1u, pollMs)) {}

COnlineConfigLoader::~COnlineConfigLoader() {
    Stop();
}

base::Status COnlineConfigLoader::Start() {
    std::string problem;
    m_loop = zel::JoinProcessLoop(problem);
    if (m_loop == nullptr) return base::SentenceError("online configuration: " + problem);
    m_inotify = base::Fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!m_inotify) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "OnlineConfigLoader", __LINE__,
                                             "no inotify (%s); a change of %s is noticed within %lld ms by looking",
                                             base::ErrnoText(errno).c_str(), m_path.c_str(),
                                             static_cast<long long>(m_poll.count()));
    }
    m_mounts = base::OpenProcFile(base::kMountInfoFile);
    Rewatch();
    // A refused file is no failure of the start: it is logged, and the defaults are in force.
    (void)Check(false);
    m_jobs = std::make_unique<base::WorkQueue>(*m_loop, "OnlineConfig", 1);
    base::Status watching;
    m_loop->Run([&] { watching = BeginWatching(); });
    {
        base::MutexLock lock(m_lock);
        m_running = true;
    }
    if (!watching) {
        Stop();
        return base::SentenceError("online configuration: " + watching.GetError().Text());
    }
    m_conf.GetImpl()->SetOnSubscribe([this](IOnlineClientConfNotify* notify) {
        base::MutexLock lock(m_lock);
        m_newSubscribers.push_back(notify);
        Wake();
    });
    return {};
}

void COnlineConfigLoader::Stop() {
    {
        base::MutexLock lock(m_lock);
        if (!m_running) return;
        m_running = false;  // nobody posts to the loop from here on
    }
    m_conf.GetImpl()->SetOnSubscribe(nullptr);
    m_loop->Run([this] { EndWatching(); });
    m_jobs->Stop();
    m_loop->Run([] {});  // what the last job posted has run
    m_answered.notify_all();
    // Not on the loop: the kernel takes its time to end a watch.
    m_mounts.Reset();
    m_inotify.Reset();
    m_watch = -1;
    m_loop.reset();
}

base::Status COnlineConfigLoader::Reload() {
    base::MutexLock lock(m_lock);
    if (!m_running) return base::SentenceError("the online configuration is not watched");
    const uint64_t ticket = ++m_reloadWanted;
    Wake();
    while (m_reloadDone < ticket && m_running) m_answered.wait(m_lock);
    if (m_reloadDone < ticket) return base::SentenceError("the online configuration is being stopped");
    return m_reloadOutcome;
}

void COnlineConfigLoader::Repeat() {
    base::MutexLock lock(m_lock);
    m_repeatWanted = true;
    Wake();
}

void COnlineConfigLoader::Wake() {
    if (!m_running) return;
    m_loop->Post([this] {
        Rewatch();
        Poke();
    });
}

// --- the loop: what is done here is a handful of calls that do not wait ---

base::Status COnlineConfigLoader::BeginWatching() {
    if (m_inotify) {
        m_inotifyWatch = std::make_unique<base::IoWatch>(*m_loop);
        base::Status opened = m_inotifyWatch->Open(m_inotify.Get());
        if (!opened) return opened;
        WaitForDirectory();
    }
    m_mountsWatch = std::make_unique<base::IoWatch>(*m_loop);
    // A kernel or sandbox that does not tell of mounts: the file is looked at as without inotify.
    if (m_mounts && !m_mountsWatch->Open(m_mounts.Get())) m_mounts.Reset();
    if (m_mounts) WaitForMounts();
    m_settling = std::make_unique<base::IoTimer>(*m_loop);
    m_looking = std::make_unique<base::IoTimer>(*m_loop);
    ScheduleLook();
    return {};
}

void COnlineConfigLoader::EndWatching() {
    m_looking.reset();
    m_settling.reset();
    m_mountsWatch.reset();
    m_inotifyWatch.reset();
}

void COnlineConfigLoader::WaitForDirectory() {
    m_inotifyWatch->WaitReadable([this] {
        DrainWatch();
        WaitForDirectory();
        Settle();
    });
}

void COnlineConfigLoader::WaitForMounts() {
    m_mountsWatch->WaitUrgent([this] {
        WaitForMounts();
        Settle();
    });
}

void COnlineConfigLoader::Settle() {
    if (m_settled == kMostSettled) return;
    ++m_settled;
    m_settling->Start(kSettle, [this] {
        m_settled = 0;
        Look();
    });
}

void COnlineConfigLoader::Look() {
    Rewatch();
    const base::FileMark mark = base::ReadFileMark(m_path);
    // A job that runs may have read the state before this one.
    if (IsJobRunning() || !IsSeen(mark)) Poke();
    ScheduleLook();
}

bool COnlineConfigLoader::IsJobRunning() {
    base::MutexLock lock(m_lock);
    return m_jobRuns;
}

void COnlineConfigLoader::ScheduleLook() {
    const auto look = [this] { Look(); };
    if (!IsWatched()) return m_looking->Start(m_poll, look);
    m_looking->StartOnGrid(std::max(kRareLook, m_poll), look);
}

bool COnlineConfigLoader::IsWatched() {
    if (m_watch < 0 || !m_mounts || base::IsNetworkFileSystem(base::DirectoryOf(m_path))) return false;
    base::MutexLock lock(m_lock);
    return m_seen.has_value();
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
    while (read(m_inotify.Get(), buffer, sizeof(buffer)) > 0) {
    }
}

void COnlineConfigLoader::Poke() {
    base::MutexLock lock(m_lock);
    if (std::exchange(m_jobWaits, true)) return;
    m_jobs->Add([this] { Serve(); });
}

// --- the job ---

void COnlineConfigLoader::Serve() {
    uint64_t ticket = 0;
    bool asked = false;
    bool repeat = false;
    std::vector<IOnlineClientConfNotify*> fresh;
    {
        base::MutexLock lock(m_lock);
        m_jobWaits = false;
        m_jobRuns = true;
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
    EndJob();
}

void COnlineConfigLoader::EndJob() {
    {
        base::MutexLock lock(m_lock);
        m_jobRuns = false;
    }
    // How soon it is looked at again hangs on what came of this look.
    m_loop->Post([this] {
        if (m_looking != nullptr) ScheduleLook();
    });
}

void COnlineConfigLoader::AnswerReload(uint64_t ticket, const base::Status& outcome) {
    base::MutexLock lock(m_lock);
    m_reloadDone = ticket;
    m_reloadOutcome = outcome;
    m_answered.notify_all();
}

base::FileMark COnlineConfigLoader::LookAtFile() const {
    const base::FileMark mark = base::ReadFileMark(m_path);
    if (mark.exists || !m_fileInForce) return mark;
    std::this_thread::sleep_for(kMissingGrace);
    return base::ReadFileMark(m_path);
}

bool COnlineConfigLoader::IsSeen(const base::FileMark& mark) {
    base::MutexLock lock(m_lock);
    return m_seen && mark == *m_seen;
}

base::Status COnlineConfigLoader::Check(bool force) {
    if (!force && IsSeen(base::ReadFileMark(m_path))) return {};
    const base::FileMark mark = LookAtFile();
    const base::Result<std::string> text = base::ReadTrusted(m_path, kOnlineFileMaxBytes, base::TrustScope::kWithPlace);
    const bool isGone = !text && text.GetError().kind == base::ErrorKind::kNotFound;
    {
        base::MutexLock lock(m_lock);
        m_seen = text || isGone ? std::optional<base::FileMark>(mark) : std::nullopt;
    }
    if (isGone) return FallBack(force);
    if (!text) return Refuse(base::ReasonOf(text.GetError(), m_path), force);
    const base::Result<OnlineValues> values = ParseOnlineConfig(*text);
    if (!values) return Refuse(values.GetError().Text(), true);
    SetRefusal("");
    zel::CLogMessage::GetInstance()->log(zel::kLogInfo, "OnlineConfigLoader", __LINE__,
                                         "online configuration %s: %zu values taken over", m_path.c_str(),
                                         values->size());
    m_fileInForce = true;
    Accept(*values, force);
    return {};
}

base::Status COnlineConfigLoader::FallBack(bool force) {
    SetRefusal("");
    if (!m_fileInForce) return {};
    zel::CLogMessage::GetInstance()->log(zel::kLogInfo, "OnlineConfigLoader", __LINE__,
                                         "online configuration %s is gone; its values fall back", m_path.c_str());
    m_fileInForce = false;
    Accept({}, force);
    return {};
}

void COnlineConfigLoader::SetRefusal(const std::string& reason) {
    m_refusal = reason;
    const base::MutexLock lock(m_lock);
    m_problem = reason.empty() ? "" : m_path + ": " + reason;
}

std::string COnlineConfigLoader::Problem() {
    const base::MutexLock lock(m_lock);
    return m_problem;
}

base::Status COnlineConfigLoader::Refuse(const std::string& reason, bool force) {
    const bool isNews = reason != m_refusal;
    SetRefusal(reason);
    if (!isNews && !force) return base::SentenceError(reason);
    zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "OnlineConfigLoader", __LINE__,
                                         "online configuration refused, the old values stay: %s: %s", m_path.c_str(),
                                         reason.c_str());
    return base::SentenceError(reason);
}

void COnlineConfigLoader::Accept(const OnlineValues& values, bool force) {
    m_values = values;
    const bool changed = m_conf.GetImpl()->Apply(m_values);
    // Before anybody applies limits: what is only observed is not put in force for a moment either.
    zel::ObserveLimits(zel::ObservationOrder::kOnlineConfig, static_cast<int>(m_conf.observedLimits.Get()));
    if (changed || force) m_conf.GetImpl()->Notify();
}

}  // namespace zelhost
