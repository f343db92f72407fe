// Standard error of this process as text.
#pragma once

#include <string>

#include "support/Files.h"

namespace support {

/// Standard error goes to a file from construction to Text().
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string Text();

private:
    TempDir m_directory;
    int m_saved = -1;
};

}  // namespace support
