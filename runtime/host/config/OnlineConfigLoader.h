// Watches the file of the online configuration and publishes what it holds. The process's loop waits on an inotify
// descriptor of the file's directory and on /proc/self/mountinfo; a job reads the file and enters the subscribers.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Fd.h"
#include "base/FileIo.h"
#include "base/IoLoop.h"
#include "base/Mutex.h"
#include "base/Result.h"
#include "base/WorkQueue.h"
#include "config/OnlineConfigParse.h"
#include "platform/host/OnlineClientConf.h"

namespace zelhost {

/// Thread-safety: Start and Stop from one thread, Reload and Repeat from any.
/// Errors: a bad file is logged once, and everything stays as it was. What keeps one from being read, as a directory
/// that others may write, can go without the file's changing: it is looked at again each time, as often as where the
/// kernel tells nothing.
class COnlineConfigLoader {
public:
    /// `pollMs`: how often it looks at the file where the kernel does not tell of every change.
    COnlineConfigLoader(COnlineClientConf& conf, std::string path, unsigned int pollMs);
    ~COnlineConfigLoader();
    COnlineConfigLoader(const COnlineConfigLoader&) = delete;
    COnlineConfigLoader& operator=(const COnlineConfigLoader&) = delete;

    /// Reads the file once on the caller's thread, then watches it.
    base::Status Start();
    /// Blocks: until a subscriber that is entered has returned.
    void Stop();

    /// Has the file read again. Blocks: until it is, subscribers included.
    /// Errors: the file was refused, or nobody watches it.
    base::Status Reload();

    /// Has the subscribers entered once more with the values in force.
    void Repeat();

    /// Returns: file and reason while the file is refused; else empty.
    std::string Problem();

    /// Between two looks where the kernel tells of changes: for what it cannot tell, such as another directory that
    /// was renamed into the path.
    static constexpr std::chrono::milliseconds kRareLook{60000};

private:
    // Of the loop's thread.
    base::Status BeginWatching();
    void EndWatching();
    void WaitForDirectory();
    void WaitForMounts();
    /// A change comes as a burst of news: looks when it is over.
    void Settle();
    /// Has the file read if it is another than the one seen last, or may be.
    void Look();
    void ScheduleLook();
    void DrainWatch();
    void Rewatch();
    /// Whether the kernel tells of what can change.
    bool IsWatched();

    bool IsSeen(const base::FileMark& mark);
    bool IsJobRunning();
    /// Has the job run, which takes what is wanted by then.
    void Poke();
    /// The same by way of the loop, so that the directory is watched before the file is read.
    void Wake() ZEL_REQUIRES(m_lock);

    // Of the job, and of Start before there is one.
    void Serve();
    void EndJob();
    void AnswerReload(uint64_t ticket, const base::Status& outcome);
    /// Reads the file when it is another than the one seen last, or with `force`. Errors: the file was refused.
    base::Status Check(bool force);
    /// Waits for the file to come back when it is gone. Returns: its mark.
    base::FileMark LookAtFile() const;
    base::Status FallBack(bool force);
    base::Status Refuse(const std::string& reason, bool force);
    void SetRefusal(const std::string& reason);
    void Accept(const OnlineValues& values, bool force);

    COnlineClientConf& m_conf;
    const std::string m_path;
    const std::chrono::milliseconds m_poll;
    std::shared_ptr<base::IoLoop> m_loop;  // the process's

    // Of the loop's thread; each watch ends before its descriptor.
    base::Fd m_inotify;
    base::Fd m_mounts;
    int m_watch = -1;
    int m_settled = 0;  // pauses of this burst so far
    std::unique_ptr<base::IoWatch> m_inotifyWatch;
    std::unique_ptr<base::IoWatch> m_mountsWatch;
    std::unique_ptr<base::IoTimer> m_settling;
    std::unique_ptr<base::IoTimer> m_looking;

    // Of the job.
    bool m_fileInForce = false;
    std::string m_refusal;  // as told last; empty when the file was taken since
    OnlineValues m_values;  // of the file in force

    base::Mutex m_lock;
    base::Condition m_answered;
    bool m_running ZEL_GUARDED_BY(m_lock) = false;
    bool m_jobWaits ZEL_GUARDED_BY(m_lock) = false;
    bool m_jobRuns ZEL_GUARDED_BY(m_lock) = false;
    std::optional<base::FileMark> m_seen ZEL_GUARDED_BY(m_lock);  // of what was read last, or refused for its content
    uint64_t m_reloadWanted ZEL_GUARDED_BY(m_lock) = 0;
    uint64_t m_reloadDone ZEL_GUARDED_BY(m_lock) = 0;
    bool m_repeatWanted ZEL_GUARDED_BY(m_lock) = false;
    base::Status m_reloadOutcome ZEL_GUARDED_BY(m_lock);
    std::string m_problem ZEL_GUARDED_BY(m_lock);  // the refusal, with its file
    std::vector<IOnlineClientConfNotify*> m_newSubscribers ZEL_GUARDED_BY(m_lock);

    std::unique_ptr<base::WorkQueue> m_jobs;  // ends before what its job uses
};

}  // namespace zelhost
