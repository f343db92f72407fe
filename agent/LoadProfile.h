// Synthetic load of an agent process: the demonstration and the tests need work that wants more than its budget.
#pragma once

#include <string>
#include <vector>

#include "base/Result.h"

namespace agent {

constexpr const char* kLoadProfileHelp =
    "comma list of idle, greedy[:threads], polite[:threads], hold:MB, hog[:MB per second], hang[:seconds before]";

enum class LoadKind {
    kGreedy,  ///< threads that spin and never ask
    kPolite,  ///< threads that spin and call CpuLimit between two pieces of work
    kHold,    ///< memory that is taken once and kept
    kHog,     ///< memory that grows until somebody stops it
    kHang,    ///< a thread with a heartbeat that stops beating
};

struct LoadItem {
    LoadKind kind = LoadKind::kGreedy;
    int amount = 1;
};

using LoadProfile = std::vector<LoadItem>;

/// Parses "greedy:2,polite" and the like; empty and "idle" give no item. Pure.
base::Result<LoadProfile> ParseLoadProfile(const std::string& text);

/// The inverse, for the command line of a component. Pure.
std::string FormatLoadProfile(const LoadProfile& profile);

}  // namespace agent
