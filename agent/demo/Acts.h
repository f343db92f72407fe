// The demonstration's acts, in the order in which they are shown. Each tells only what it has read just before.
#pragma once

#include "Narrator.h"
#include "Stage.h"
#include "base/Result.h"

namespace agent {

/// What one act leaves for the next ones and for the summary.
struct ShownSoFar {
    double greedyPiecesPerSecond = 0;
    int kills = 0;
    int repairs = 0;
    int changes = 0;
};

/// Six processes in groups of their own. Errors, as of all acts: one sentence; the end was asked for.
base::Status ShowStart(Stage& stage, Narrator& narrator);
/// Two workers with one quota, one of which asks.
base::Status ShowHoldingBack(Stage& stage, Narrator& narrator, ShownSoFar& shown);
/// A component that takes memory until the kernel ends it.
base::Status ShowOutOfMemory(Stage& stage, Narrator& narrator, ShownSoFar& shown);
/// A quota that somebody else takes away.
base::Status ShowDrift(Stage& stage, Narrator& narrator, ShownSoFar& shown);
/// A new limit for an agent that runs: groupMaxCpu.
base::Status ShowChange(Stage& stage, Narrator& narrator, int budgetPercent, ShownSoFar& shown);
/// What came of it, and what it cost.
base::Status ShowSummary(Stage& stage, Narrator& narrator, const ShownSoFar& shown);

}  // namespace agent
