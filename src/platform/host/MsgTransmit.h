// Delivery of event messages to whoever the agent reports to.
#pragma once

#include <string>

#include "platform/zel/Export.h"

class ZEL_API IMsgTransmit {
public:
    /// Hands over one message. Returns: true once the message is durably accepted.
    /// Blocks: no longer than one commit to the local spool.
    virtual bool SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                         int arg2) = 0;

protected:
    ~IMsgTransmit() = default;
};

/// Returns: null in a process that has no delivery.
ZEL_API IMsgTransmit* GetMsgTransmitInstance();
