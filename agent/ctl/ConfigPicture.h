// The configuration as it is in force: each value with its unit and where it came from, and what was refused of the
// files. With a running agent its own answer counts; without one, what its next start would take.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ConfigFiles.h"
#include "ConfigJournal.h"

namespace agent {

struct ConfigRow {
    std::string key;
    std::string value;
    std::string unit;
    std::string file;       ///< path that it came from; empty: the default
    std::string fileKey;    ///< its name there
    uint64_t revision = 0;  ///< of the console's change that gave it; 0: it was written otherwise
    std::string fleet;      ///< level and revision of the fleet's configuration that gave it; empty: it did not
    std::string note;       ///< what else is to be known; may be empty
    bool differs = false;   ///< the running agent has another value than its files
};

struct ConfigRefusal {
    std::string file;  ///< path
    ConfigFinding finding;
};

struct ConfigPicture {
    bool agentRuns = false;
    std::vector<ConfigRow> rows;
    std::vector<ConfigRefusal> refusals;
    std::string journalProblem;  ///< why no revision is known; may be empty
    bool isElsewhere = false;    ///< nothing of it is known: another host has it
};

/// Asks the process for what it has in force, and reads the files. Blocks: as AskAgent.
ConfigPicture ReadConfigPicture(const std::string& appDir, const std::string& process);

/// Returns: null when there is no such row.
const ConfigRow* FindRow(const ConfigPicture& picture, const std::string& key);

/// "conf/online_config.json, key maxCpu, revision 3", "... by the fleet: group.web, revision 9", or "the default".
/// Pure.
std::string OriginOf(const ConfigRow& row);

/// "FILE: KEY = VALUE: why". Pure.
std::string WordRefusal(const std::string& file, const ConfigFinding& finding);
Json::Value RefusalJson(const std::string& file, const ConfigFinding& finding);

/// Pure.
std::string WordConfig(const ConfigPicture& picture);
Json::Value ConfigJson(const ConfigPicture& picture);

}  // namespace agent
