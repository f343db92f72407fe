// How the last run of the main process ended when it did not end in order: what is known of it afterwards, and what is
// not. A mark in run/ says that a run is under way; what a service manager knew of the end, it leaves beside it through
// `tervane --note-end`. Touches run/tervane.running and run/tervane.ended, reads the kernel's log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Result.h"

namespace agent {

/// One run of the main process, as its mark has it.
struct RunMark {
    int pid = 0;
    std::string bootId;
    int64_t startedAt = 0;  ///< wall clock
    int64_t startedUs = 0;  ///< since boot, by the clock of the kernel's log
};

/// What the service manager said of the end, in its own words, and what the control groups still showed then.
struct EndNote {
    int pid = 0;         ///< of the run that it is about
    std::string result;  ///< $SERVICE_RESULT
    std::string code;    ///< $EXIT_CODE: exited, killed, dumped
    std::string status;  ///< $EXIT_STATUS: a number, or a signal's name
    int64_t kills = -1;  ///< out-of-memory kills in the main process's own group; -1: not to be seen
};

/// What the kernel's log says of the process.
struct KernelWord {
    std::string problem;  ///< why it cannot be read; empty when it was
    std::string kill;     ///< the line about its kill for want of memory; empty when there is none
};

enum class EndCause { kUnknown, kOutOfMemory, kSignal, kExit, kReboot };

struct UncleanStop {
    EndCause cause = EndCause::kUnknown;
    bool certain = false;
    std::vector<std::string> known;
    std::vector<std::string> unknown;
};

/// Weighs the evidence: a machine that was started anew, the kernel's own line, the manager's word with the counters.
/// Pure.
UncleanStop JudgeUncleanStop(const RunMark& mark, const std::string& bootId, const std::optional<EndNote>& note,
                             const KernelWord& kernel);
/// One line for the log. Pure.
std::string DescribeUncleanStop(const RunMark& mark, const UncleanStop& stop);
/// The body of the message. Pure.
std::string FormatUncleanStop(const RunMark& mark, const UncleanStop& stop, int64_t now);

std::string FormatRunMark(const RunMark& mark);
base::Result<RunMark> ParseRunMark(const std::string& text);
std::string FormatEndNote(const EndNote& note);
base::Result<EndNote> ParseEndNote(const std::string& text);

/// Whether the line is the kernel's word that it has killed the process for want of memory. Pure.
bool IsKillOf(int pid, std::string_view line);

/// News of a last run that did not end in order.
struct LastRun {
    std::string line;  ///< for the log
    std::string body;  ///< of the message
};

/// Lets the next run know of this one, and this one of the last.
/// Lifetime: from the lock of the application directory to the end of the process.
class RunRecord {
public:
    explicit RunRecord(const std::string& appDir);

    /// Says that a run is under way. Returns: the verdict on the last one when it left its mark behind.
    std::optional<LastRun> Begin();
    /// The run ends in order. Without Begin nothing is touched.
    void End();

private:
    std::string m_markFile;
    std::string m_noteFile;
    bool m_begun = false;
};

/// Writes the note of the service manager: what its variables say, and the counters. Returns: the exit code.
int NoteEnd(const std::string& appDir);

}  // namespace agent
