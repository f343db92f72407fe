// What a host's duties in its fleet need of a broker: its levels of the configuration, and its own state.
#pragma once

#include <functional>
#include <string>

#include "base/Result.h"
#include "broker/KeyValue.h"

namespace agent {

class FleetKeys {
public:
    virtual ~FleetKeys() = default;

    virtual bool IsConnected() = 0;
    /// Returns: how many connections there have been.
    virtual uint64_t Connections() = 0;
    /// Whether what this broker says of the configuration may be believed. Errors: kRefused when it may not; others
    /// where that is not known.
    virtual base::Status Judge() = 0;
    /// Reads one level: "all", "group.web", "host.h1". Without a connection an attempt to make one, now and then.
    virtual fleet::KvRead GetLevel(const std::string& key) = 0;
    virtual fleet::Answer PutState(const std::string& text) = 0;
};

/// A sentence for the log. May be empty.
using FleetLog = std::function<void(const std::string&)>;

}  // namespace agent
