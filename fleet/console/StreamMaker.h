// Makes the streams of a fleet at the broker, or says how those that are there differ.
#pragma once

#include "broker/NatsBroker.h"
#include "console/ConsoleLines.h"

namespace fleet {

/// Asks for each stream, makes the one that is missing, and where that is wished changes what may be changed. Nothing
/// is deleted, and no bound is lowered. Blocks: three requests for each stream; after one that nobody answered the
/// others are not asked for. Errors: there is no broker, one that hosts refuse, or one that cannot
/// hold so many copies: nothing was asked for.
base::Result<std::vector<SetupReport>> SetUpStreams(NatsBroker& broker, const SetupWish& wish);

}  // namespace fleet
