// Watches the file of the online configuration and publishes what it holds. Reads one file and an inotify
// descriptor of its directory; owns the notify thread, which enters the subscribers.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "base/Fd.h"
#include "base/FileIo.h"
#include "base/Mutex.h"
#include "base/Result.h"
#include "config/OnlineConfigParse.h"
#include "platform/host/OnlineClientConf.h"

namespace zelhost {

/// Thread-safety: Start and Stop from one thread, Reload from any.
/// Errors: a bad file is logged once, and everything stays as it was. What keeps one from being read, as a directory
/// that others may write, can go without the file's changing: it is looked at again each time.
class COnlineConfigLoader {
public:
    COnlineConfigLoader(COnlineClientConf& conf, std::string path, unsigned int pollMs);
    ~COnlineConfigLoader();
    COnlineConfigLoader(const COnlineConfigLoader&) = delete;
    COnlineConfigLoader& operator=(const COnlineConfigLoader&) = delete;

    /// Reads the file once on the caller's thread, then watches it on a thread of its own.
    base::Status Start();
    void Stop();

    /// Has the notify thread read the file again. Blocks: until it has, subscribers included.
    /// Errors: the file was refused, or nobody watches it.
    base::Status Reload();

    /// Has the notify thread enter the subscribers once more with the values in force.
    void Repeat();

private:
    void Run();
    void Wake();
    bool IsStopped();
    /// Waits for something to do. Returns: false when stopped.
    bool Wait();
    void AnswerReload(uint64_t ticket, const base::Status& outcome);
    void DrainWatch();
    void Rewatch();
    /// Reads the file when it is another than the one seen last, or with `force`. Errors: the file was refused.
    base::Status Check(bool force);
    /// Waits for the file to come back when it is gone. Returns: its mark.
    base::FileMark LookAtFile() const;
    base::Status FallBack(bool force);
    base::Status Refuse(const std::string& reason, bool force);
    void Accept(const OnlineValues& values, bool force);

    COnlineClientConf& m_conf;
    const std::string m_path;
    const unsigned int m_pollMs;
    base::Fd m_inotify;
    base::Fd m_wake;
    int m_watch = -1;
    std::thread m_thread;

    // of the notify thread
    base::FileMark m_seen;
    bool m_checkedOnce = false;
    bool m_fileInForce = false;
    std::string m_refusal;  // as told last; empty when the file was taken since
    OnlineValues m_values;  // of the file in force

    base::Mutex m_lock;
    base::Condition m_answered;
    bool m_stop ZEL_GUARDED_BY(m_lock) = false;
    uint64_t m_reloadWanted ZEL_GUARDED_BY(m_lock) = 0;
    uint64_t m_reloadDone ZEL_GUARDED_BY(m_lock) = 0;
    bool m_repeatWanted ZEL_GUARDED_BY(m_lock) = false;
    base::Status m_reloadOutcome ZEL_GUARDED_BY(m_lock);
    std::vector<IOnlineClientConfNotify*> m_newSubscribers ZEL_GUARDED_BY(m_lock);
};

}  // namespace zelhost
