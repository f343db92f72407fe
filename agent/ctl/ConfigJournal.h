// What `tervanectl config` has changed, the last changes of an application directory: who undoes one needs to know what
// was there before. The file is conf/config_changes.json.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Result.h"

namespace agent {

struct ConfigChange {
    uint64_t revision = 0;  ///< counts up, never used twice
    int64_t time = 0;
    unsigned int user = 0;
    std::string file;  ///< path
    std::string key;
    std::optional<std::string> before;  ///< none: the key was not there
    std::optional<std::string> after;   ///< none: the key was taken away
};

struct ConfigJournal {
    uint64_t lastRevision = 0;
    std::vector<ConfigChange> changes;  ///< oldest first
};

constexpr size_t kMostConfigChanges = 50;

/// One that is not there is empty. Errors: it cannot be read, others may write it, or it is none.
base::Result<ConfigJournal> ReadConfigJournal(const std::string& appDir);
/// Durable. Only its owner may read it: a header of agent.json may hold a password.
base::Status WriteConfigJournal(const std::string& appDir, const ConfigJournal& journal);

/// The latest change of a key, when its value is still the one it was given; null otherwise.
const ConfigChange* FindChange(const ConfigJournal& journal, const std::string& file, const std::string& key,
                               const std::optional<std::string>& value);

}  // namespace agent
