// How the host's services come up in a process of the agent, and what it goes on without when they do not.
#pragma once

#include "Options.h"
#include "base/Result.h"
#include "platform/host/HostServices.h"

namespace agent {

/// The services' options as this process needs them. Pure.
zelhost::HostOptions MakeHostOptions(const Options& options);

/// Starts them; when that fails, without metrics; when that fails too, without anything that is kept on disk. What is
/// given up is logged.
base::Status StartServices(zelhost::CHostServices& services, zelhost::HostOptions host);

}  // namespace agent
