// conf/agent.json, followed while the agent runs.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "AgentConfig.h"
#include "base/FileIo.h"
#include "platform/host/HostServices.h"

namespace agent {

/// Follows the file. What fails for want of something, as descriptors or a place that is trusted, is tried again.
/// Thread-safety: the main thread alone. Errors: in the log, the same one only once in a row.
class AgentConfigFile {
public:
    AgentConfigFile(std::string appDir, bool isMain) : m_appDir(std::move(appDir)), m_isMain(isMain) {}

    /// For a start that goes by it. Returns: what the file says now, what a bad file said before it; see Observes.
    const AgentConfig& Read();
    /// Hands a file that has changed to the services. A bad one changes nothing. To be called every few seconds.
    void Follow(zelhost::CHostServices& services);
    /// Returns: what the file said when it was last good.
    const AgentConfig& Current() const { return m_config; }
    /// Whether limits are only observed for it: the file says so, or it was there and never read, so nobody knows.
    bool Observes() const { return IsUnread() || m_config.observe; }
    bool IsUnread() const { return m_standing == Standing::kNeverRead; }
    /// The next look reads the file also when it is the one that was seen last, and
    /// takes one that is gone for removed.
    void ReadAnew() {
        m_seen.reset();
        m_missed = true;
    }

private:
    /// Returns: whether a new state of the file was taken.
    bool Renew();
    void Refuse(const base::Error& error);
    /// Whether a file that was there is missed for the first time: it may be in the moment between an rm and a cp.
    bool IsInExchange(const base::FileMark& mark);
    void Tell(const std::string& problem, int level);

    bool FollowSinks(zelhost::CHostServices& services);
    bool FollowTextFile(zelhost::CHostServices& services);

    const std::string m_appDir;
    std::string m_path;  // of the file that was looked at last
    const bool m_isMain;
    enum class Standing { kNotLooked, kNeverRead, kTaken };
    Standing m_standing = Standing::kNotLooked;
    bool m_isThere = false;  // at the last look
    bool m_missed = false;
    /// Of the file whose content was judged for good.
    std::optional<base::FileMark> m_seen;
    AgentConfig m_config;
    zelhost::SinkOptions m_sinksInForce;
    AgentConfig m_textFileFrom;  // whose text file is in force
    std::string m_told;
};

}  // namespace agent
