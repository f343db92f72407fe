// The one way in which the parts of the sampling class write a log line: its source is "ResourceMonitor" everywhere.
#pragma once

#include "platform/zel/LogMessage.h"

namespace zelhost {

template <class... Args>
void LogSampler(int level, int line, const char* format, Args... args) {
    zel::CLogMessage::GetInstance()->log(level, "ResourceMonitor", line, format, args...);
}

}  // namespace zelhost
