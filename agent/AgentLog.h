// The agent's one way to write a line of its own.
#pragma once

#include <string>

#include "platform/zel/LogMessage.h"

namespace agent {

inline void LogLine(const std::string& text, int level) {
    zel::CLogMessage::GetInstance()->WriteLogMessage(text, level);
}

}  // namespace agent
