// The fleet's configuration on this host: its levels are read, judged, and written as the file of the online
// configuration, which the agent's processes watch. Whatever fails, the last good file stays.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/FileIo.h"
#include "base/Result.h"
#include "fleet/FleetKeys.h"
#include "fleet/HostState.h"
#include "fleet/RemoteConfig.h"

namespace agent {

/// Behind the name of the online configuration's file: the host's own one from before the fleet's first.
constexpr char kBeforeFleetEnd[] = ".before-fleet";

/// Names of a host's levels, by weight: all, its groups, itself. Pure.
std::vector<std::string> ConfigLevels(const std::string& host, const std::vector<std::string>& groups);

struct ConfigDutyOptions {
    std::string host;                 ///< not escaped
    std::vector<std::string> groups;  ///< by weight, the heaviest last
    std::string appDir;
    FleetLog log;
};

/// Thread-safety: none.
class ConfigDuty {
public:
    explicit ConfigDuty(ConfigDutyOptions options);

    enum class Outcome {
        kDone,   ///< the file is as it is to be, or stays for a reason that only a change there or here ends
        kAgain,  ///< something could not be read or written: tried again after a pause
    };
    /// Reads the levels and brings the file into their shape. Blocks: for the broker and the disk.
    Outcome Look(FleetKeys& keys);

    /// Whether the file has been written, or found, since the agent was last known to have read it.
    bool IsUnread() const { return m_known && m_unread; }
    /// The agent has read the file again, and refuses it with `problem`; empty: it takes it.
    void OnRead(const std::string& problem);
    /// The same of a status that came without a new reading.
    void OnProblem(const std::string& problem);

    AppliedConfig Get() const;
    /// Names of the levels, by weight.
    const std::vector<std::string>& Levels() const { return m_names; }

private:
    /// The file as it is, and what tells it from another.
    struct Local {
        base::FileMark mark;
        std::optional<std::string> text;
    };
    base::Status ReadLevels(FleetKeys& keys, std::vector<RemoteLevel>& levels);
    /// Any replica answers: what is older than what was read before counts when it is read twice.
    bool IsStale(const std::vector<RemoteLevel>& levels, uint64_t fileRevision);
    base::Result<Local> ReadLocal() const;
    Outcome Settle(const std::vector<RemoteLevel>& levels, const Local& local);
    base::Status Write(const std::string& text, uint64_t revision, const Local& local);
    base::Status KeepOwn(const Local& local);
    /// Nothing is left of the fleet's configuration: the host's own file comes back, or there is none.
    base::Status FallBack(const Local& local);
    base::Status CheckUnchanged(const Local& local) const;
    mode_t ModeOf(const Local& local) const;
    Outcome Fail(const std::string& error);
    void NoteFile(const std::optional<std::string>& text);
    void SetError(const std::string& error);
    void Say(const std::string& sentence) const;

    const ConfigDutyOptions m_options;
    const std::string m_path;
    const std::string m_keptPath;
    const std::vector<std::string> m_names;

    std::map<std::string, uint64_t> m_read;  // highest revision of each level that was believed
    std::vector<uint64_t> m_doubted;         // revisions of a reading that was older
    int m_unreadable = 0;                    // looks in a row that could not read the levels
    uint64_t m_fileRevision = 0;             // of the file as it stands; 0: it is not the fleet's
    bool m_known = false;                    // the file was looked at
    bool m_unread = true;
    std::string m_error;    // why the file is not what the levels ask for
    std::string m_problem;  // why the agent does not take the file
    uint64_t m_seen = 0;
    uint64_t m_applied = 0;
    bool m_pinned = false;
};

}  // namespace agent
