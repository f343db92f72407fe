// Helpers of the host library's tests: the log lines as text.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/Result.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace support {

/// What was logged since the last call: "<level> <text>".
std::vector<std::string> TakeLog();
/// Returns: whether a line so far holds the text; the lines stay.
bool LogHolds(const std::string& text);
/// Returns: how many lines so far hold the text; the lines stay.
size_t LogCount(const std::string& text);

/// For ASSERT_TRUE: says why it is not.
inline ::testing::AssertionResult IsOk(const base::Status& status) {
    if (status.Ok()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << status.GetError().Text();
}

/// The n-th next allocation of this thread by operator new throws; 0: none does.
void FailAllocation(int nth);

/// Uses CPU in the calling thread.
void Burn(std::chrono::milliseconds wall);

}  // namespace support

using Lines = std::vector<std::string>;
