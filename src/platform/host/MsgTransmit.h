// Delivery of event messages to whoever the agent reports to.
#pragma once

#include <string>

#include "platform/zel/Export.h"

/// Thread-safety: any thread. Lifetime: owned by the host, from the start of its services until their stop.
class ZEL_API IMsgTransmit {
public:
    /// Hands over one message: type, text, and three values that are passed on as they are; the module gives "", 1 and
    /// 0. Returns: true once the message is durably accepted, false when it was refused; nothing is tried again.
    /// Blocks: no longer than one commit to the local spool.
    virtual bool SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                         int arg2) = 0;

protected:
    ~IMsgTransmit() = default;
};

/// Returns: null in a process that has no delivery.
ZEL_API IMsgTransmit* GetMsgTransmitInstance();
