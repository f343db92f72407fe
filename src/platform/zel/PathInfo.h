// The agent's shared directories.
#pragma once

#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// Thread-safety: any thread. Lifetime: owned by the library.
class ZEL_API COrvexPathInfo {
public:
    /// Returns: the process's path information, never null.
    static COrvexPathInfo* GetInstance();

    /// Returns: the directory of the files that all processes of one agent share, without a trailing "/":
    /// ZEL_GLOBAL_CFG_DIR when set, else the application directory + "/conf".
    std::string GetGlobalCfgPath();
};

}  // namespace zel
