// A component's own way into its control groups.
#pragma once

#include "platform/zel/CgroupClient.h"

namespace agent {

/// Puts this process where the component file says. Without a file there is nothing to join.
/// Returns: false when there is one and the groups could not be joined; the log says why.
bool JoinGroups(zel::CCgroupClient& client);

}  // namespace agent
