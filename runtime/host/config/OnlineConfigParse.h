// Where the online configuration's values are published, and the pure reading of its JSON text. No file is touched
// here.
#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "base/Result.h"
#include "platform/host/OnlineClientConf.h"

namespace zelhost {

/// One value: its name in the file, where it is published, what it may be.
struct OnlineKey {
    const char* name;
    CAtomicInt64<long> COnlineClientConf::*value;
    const char* unit;
    long least;
    long most;
    long byDefault;  ///< in force until the module or the file says otherwise
    bool isSwitch;   ///< takes true and false too
};

constexpr size_t kOnlineKeyCount = 16;
/// Bytes of the largest file that is read; a full file is below 1 KiB.
constexpr size_t kOnlineFileMaxBytes = 64 * 1024;

/// The table, kOnlineKeyCount entries.
const OnlineKey* OnlineKeys();

/// Table positions and the values for them.
using OnlineValues = std::map<size_t, long>;

/// Reads the text of an online configuration: one JSON object, its members the names of the table. Members whose
/// name begins with "_" are remarks. Everything else that is not in the table is refused: a misspelt limit that
/// is silently ignored is a limit that is not in force.
/// Errors: the whole text is refused; the error's text is fit for one log line and names the key and its value where
/// one is at fault: "key 'maxCpu', value 900000: ...".
base::Result<OnlineValues> ParseOnlineConfig(const std::string& text);

}  // namespace zelhost
