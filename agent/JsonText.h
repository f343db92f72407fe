// JSON read from a text of somebody else's: bounded in depth, and nothing throws.
#pragma once

#include <json/value.h>

#include <string>

#include "base/Result.h"

namespace agent {

enum class JsonRules {
    kLoose,  ///< the last of two equal keys counts, text behind the value is passed over
    kStrict  ///< neither is taken
};

/// Errors: kMalformed in the parser's words, on one line.
base::Result<Json::Value> ParseJson(const std::string& text, JsonRules rules = JsonRules::kLoose);

/// Returns: JSON with the control characters from U+007F to U+009F escaped, which a writer leaves as they are and a
/// terminal may obey.
std::string EscapeControls(const std::string& json);

}  // namespace agent
