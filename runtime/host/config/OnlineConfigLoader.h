// Watches the file of the online configuration and publishes what it holds. Reads one file and an inotify
// descriptor of its directory; owns the notify thread, which enters the subscribers.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/OnlineConfigParse.h"
#include "SecureFile.h"
#include "platform/host/OnlineClientConf.h"

namespace zelhost {

/// Thread-safety: Start and Stop from one thread, Reload from any.
/// Errors: a bad file is logged once per state of the file, and everything stays as it was.
class COnlineConfigLoader {
public:
    COnlineConfigLoader(COnlineClientConf& conf, std::string path, unsigned int pollMs);
    ~COnlineConfigLoader();
    COnlineConfigLoader(const COnlineConfigLoader&) = delete;
    COnlineConfigLoader& operator=(const COnlineConfigLoader&) = delete;

    /// Reads the file once on the caller's thread, then watches it on a thread of its own.
    bool Start(std::string& error);
    void Stop();

    /// Has the notify thread read the file again. Blocks: until it has, subscribers included.
    bool Reload(std::string& error);

private:
    void Run();
    /// Waits for something to do. Returns: false when stopped.
    bool Wait();
    void DrainWatch();
    void Rewatch();
    /// Returns: false when the file was refused.
    bool Check(bool force, std::string& reason);
    bool Accept(const std::map<size_t, long>& values, bool force);

    COnlineClientConf& m_conf;
    const std::string m_path;
    const unsigned int m_pollMs;
    base::Fd m_inotify;
    base::Fd m_wake;
    int m_watch = -1;
    std::thread m_thread;

    // of the notify thread
    FileMark m_seen;
    bool m_checkedOnce = false;
    bool m_fileInForce = false;
    std::map<size_t, long> m_values;  // of the file in force

    std::mutex m_lock;
    std::condition_variable m_answered;
    bool m_stop = false;
    uint64_t m_reloadWanted = 0;
    uint64_t m_reloadDone = 0;
    bool m_reloadOk = false;
    std::string m_reloadError;
    std::vector<IOnlineClientConfNotify*> m_newSubscribers;
};

}  // namespace zelhost
