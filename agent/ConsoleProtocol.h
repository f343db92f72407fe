// How an answer of the console goes over its socket: "ok <bytes>\n" or "error <bytes>\n", then exactly so many bytes.
// The length tells a whole answer from the beginning of one.
#pragma once

#include <cstddef>
#include <string>

#include "base/Result.h"

namespace agent {

/// What a process said.
struct Answer {
    bool ok = false;   ///< false: it refused, and `body` says why
    std::string body;  ///< text without the first line
};

constexpr size_t kMostAnswerBytes = 16U << 20;
/// Begins what the relay says to the main process: behind it stands what keeps the host from its fleet, or nothing.
constexpr char kFleetRequest[] = "fleet ";

/// Pure. A body beyond the bound is answered with a refusal that says so.
std::string FormatAnswer(const Answer& answer);
/// Pure. Returns: the answer in a text that was read to its end. Errors: kMalformed when it is none, or not whole.
base::Result<Answer> ParseAnswer(const std::string& text);

}  // namespace agent
