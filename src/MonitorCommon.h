// What every file of the module shares and nobody outside src/ sees: the source names of its log lines, the one way to
// write a fixed and a formatted line, and the one way to hand an event to the host. No state; any thread.
#pragma once

#include <string>

#include "platform/host/MsgTransmit.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/LogMessage.h"

namespace monitor {

/// Source names of formatted lines. All of the private object's lines have the first one, whatever file they stand in.
constexpr char kLogSource[] = "MonitorPri";
constexpr char kFacadeLogSource[] = "Monitor";
constexpr char kEventStoreLogSource[] = "OsAbnormalDataBase";

constexpr int kDecimal = 10;

/// Members of the memory measurement, in events of two origins and in the statistics map.
constexpr char kMemUsageMember[] = "mem_usage";          // percent
constexpr char kAvailableMemMember[] = "available_mem";  // MB

/// Writes one line as it stands.
inline void Say(int level, const std::string& text) {
    zel::CLogMessage::GetInstance()->WriteLogMessage(text, level);
}

/// Hands one event to the host, with the trailing arguments that its interface fixes. Returns: whether it was accepted.
inline bool SendOsAbnormal(IMsgTransmit& transmit, const std::string& body) {
    return transmit.SendMsg(zel::kOsAbnormalMessage, body, "", 1, 0);
}

}  // namespace monitor

/// Formats and writes one line of the private object: SAY_FORMATTED(level, format, ...). Macros, so that the line is
/// the writer's and the compiler checks the format.
#define SAY_FORMATTED(level, ...) SAY_FORMATTED_AS(monitor::kLogSource, level, __VA_ARGS__)
#define SAY_FORMATTED_AS(source, level, ...) \
    zel::CLogMessage::GetInstance()->log((level), (source), __LINE__, __VA_ARGS__)
