// Helpers of the host library's tests: directories of their own, waiting for a condition, the log lines as text.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "base/Result.h"

namespace support {

/// A directory that is removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/// Looks again and again; a long limit, because the machine may be busy.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::milliseconds(20000));

void WriteText(const std::string& path, const std::string& text);
/// Replaces the file as an editor does.
void ReplaceText(const std::string& path, const std::string& text);
std::string ReadText(const std::string& path);
std::vector<std::string> ReadLines(const std::string& path);
std::vector<std::string> FilesIn(const std::string& directory);

/// What was logged since the last call: "<level> <text>".
std::vector<std::string> TakeLog();
/// Returns: whether a line so far holds the text; the lines stay.
bool LogHolds(const std::string& text);

/// For ASSERT_TRUE: says why it is not.
inline ::testing::AssertionResult IsOk(const base::Status& status) {
    if (status.Ok()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << status.GetError().Text();
}

/// Uses CPU in the calling thread.
void Burn(std::chrono::milliseconds wall);

}  // namespace support

using Lines = std::vector<std::string>;
