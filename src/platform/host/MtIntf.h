// The host's statistics registry, as seen by those who provide statistics.
#pragma once

#include <map>
#include <string>

#include "platform/zel/Export.h"

/// A provider of statistics. The order of the virtual operations is shared layout: keep it.
class ZEL_API IMtInfo {
public:
    /// Inserts this provider's figures; keys that are there stay as they are. Called on the collector's thread, one
    /// call at a time. Returns: false when the figures are incomplete.
    virtual bool GetExceptionInfo(std::map<std::string, std::string>& info) = 0;
    virtual ~IMtInfo() {}
};

/// Thread-safety: any thread.
class ZEL_API CMtIntf {
public:
    /// Owns: the caller keeps the provider until it is unregistered. Null and a second registration do nothing.
    static void RegMtInfoCallback(IMtInfo* info);
    /// Blocks: until a collection that is inside this provider has left it (unless called from within).
    static void UnRegMtInfoCallback(IMtInfo* info);
};
