// A named thread that takes no signal: the host's signal handlers belong to the host's threads.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "base/Result.h"

namespace base {

/// Starts a thread whose name is at most 15 bytes. Errors: the system refuses a thread or memory for it.
Result<std::thread> StartQuietThread(const std::string& name, std::function<void()> body);

}  // namespace base
