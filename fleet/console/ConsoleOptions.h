// What the console is started with.
#pragma once

#include <string>
#include <vector>

#include "base/Result.h"
#include "broker/NatsBroker.h"

namespace fleet {

/// Reads "--servers URL[,URL] [--creds FILE] [--ca FILE] [--name NAME]". Without a name it is the one of the
/// credentials, for which their answers are. Errors: a sentence for whoever started it.
base::Result<BrokerOptions> ParseConsoleOptions(const std::vector<std::string>& words);

/// Returns: the name in a file of credentials, as the broker knows it. Pure. Errors: it holds no token.
base::Result<std::string> NameInCredentials(const std::string& text);

}  // namespace fleet
