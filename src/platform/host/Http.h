// The host's HTTP service, as seen by the statistics.
#pragma once

#include "platform/zel/Export.h"

/// Thread-safety: any thread. Lifetime: owned by the host, lives until the process ends.
class ZEL_API IHttp {
public:
    /// Returns: requests that failed since the process started.
    virtual unsigned int GetFailCount() = 0;

protected:
    ~IHttp() = default;
};

/// Returns: never null.
ZEL_API IHttp* GetHttpInstance();
